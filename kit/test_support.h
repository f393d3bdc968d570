// Helpers the test runners share: a log capture, a quiet test, a time zone
// scope and the test files.
#pragma once
#include <gtest/gtest.h>
#include <unicode/timezone.h>

#include <cstdint>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "kit/diagnostics.h"

// Collects log entries while it exists instead of writing them to standard
// error. Thread-safe; not copyable (its mutex is not).
class LMLogCapture {
 public:
  LMLogCapture() {
    lmSetLogSink([this](std::string_view line) {
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.emplace_back(line);
    });
  }
  ~LMLogCapture() { lmSetLogSink(nullptr); }

  // The entries as written, "date time process[pid:tid] " prefix included.
  std::vector<std::string> fullLines() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  // The entries without that prefix.
  std::vector<std::string> lines() const {
    std::vector<std::string> bodies = fullLines();
    for (std::string& line : bodies) {
      const size_t end = line.find("] ");
      if (end != std::string::npos) line.erase(0, end + 2);
    }
    return bodies;
  }
  // True when any entry contains `text`.
  bool contains(std::string_view text) const {
    for (const std::string& line : fullLines()) {
      if (line.find(text) != std::string::npos) return true;
    }
    return false;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> lines_;
};

// A test whose log entries are captured instead of written to standard error.
class LMQuietTest : public testing::Test {
 protected:
  LMLogCapture log_;
};

// Makes `id` the default time zone while it exists, then restores the old one.
class LMTimeZoneScope {
 public:
  explicit LMTimeZoneScope(const char16_t* id) : previous_(icu::TimeZone::createDefault()) {
    icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone(icu::UnicodeString(id)));
  }
  ~LMTimeZoneScope() { icu::TimeZone::adoptDefault(previous_.release()); }

 private:
  std::unique_ptr<icu::TimeZone> previous_;
};

// The bytes of the file at `path`; none when it cannot be read.
inline std::vector<uint8_t> lmFileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

// The bytes of testdata/`name`.
inline std::vector<uint8_t> lmTestdataBytes(const std::string& name) {
  return lmFileBytes(std::string(LM_TESTDATA_DIR) + "/" + name);
}

// How often `part` occurs in `text`.
inline size_t lmOccurrences(const std::string& text, const std::string& part) {
  size_t n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}
