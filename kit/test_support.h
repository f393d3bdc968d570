// Helpers the test runners share: a log capture and a time zone scope.
#pragma once
#include <unicode/timezone.h>

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "kit/diagnostics.h"

// Collects log entries while it exists instead of writing them to standard
// error. Thread-safe.
class LMLogCapture {
 public:
  LMLogCapture() {
    lmSetLogSink([this](std::string_view line) {
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.emplace_back(line);
    });
  }
  ~LMLogCapture() { lmSetLogSink(nullptr); }
  LMLogCapture(const LMLogCapture&) = delete;
  LMLogCapture& operator=(const LMLogCapture&) = delete;

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

// Makes `id` the default time zone while it exists, then restores the old one.
class LMTimeZoneScope {
 public:
  explicit LMTimeZoneScope(const char16_t* id) : previous_(icu::TimeZone::createDefault()) {
    icu::TimeZone::adoptDefault(icu::TimeZone::createTimeZone(icu::UnicodeString(id)));
  }
  ~LMTimeZoneScope() { icu::TimeZone::adoptDefault(previous_.release()); }
  LMTimeZoneScope(const LMTimeZoneScope&) = delete;
  LMTimeZoneScope& operator=(const LMTimeZoneScope&) = delete;

 private:
  std::unique_ptr<icu::TimeZone> previous_;
};
