#include "kit/diagnostics.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <regex>
#include <string>
#include <vector>

#include "kit/test_support.h"

namespace {

int failingCheck(int value) {
  int reached = 0;
  LMAssert(value > 1);
  reached = 1;
  LMAssert(value > 2, "Value %d too small", value);
  return reached + 1;
}

TEST(DiagnosticsTest, LogLinesCarryDateTimeProcessAndThread) {
  LMLogCapture capture;
  lmLogf("hello %d", 42);
  ASSERT_EQ(1u, capture.fullLines().size());
  EXPECT_TRUE(std::regex_match(
      capture.fullLines()[0],
      std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \S+\[\d+:\d+\] hello 42)")))
      << capture.fullLines()[0];
}

TEST(DiagnosticsTest, FailedAssertionLogsOneEntryAndGoesOn) {
  LMLogCapture capture;
  EXPECT_EQ(2, failingCheck(0));
  ASSERT_EQ(2u, capture.fullLines().size());
  const std::string first = capture.lines()[0];
  EXPECT_EQ(0u, first.find("Assertion <diagnostics_test.cc:")) << first;
  // The function's full name as the compiler spells it.
  EXPECT_NE(std::string::npos, first.find("failingCheck(int)\n\n    "
                                          "(value > 1) failed assertion\n\n("))
      << first;
  EXPECT_EQ(0u, capture.lines()[1].find("Value 0 too small <diagnostics_test.cc:"));
  capture.clear();
  EXPECT_EQ(2, failingCheck(5));
  EXPECT_TRUE(capture.fullLines().empty());
}

TEST(DiagnosticsTest, TimeTrackKeepsIndependentNamedTimers) {
  LMLogCapture capture;
  lxTimeTrack("parse", nullptr);
  lxTimeTrack("never-started", "step");
  lxTimeTrack("parse", "pages");
  lxTimeTrack(nullptr, nullptr);
  const std::vector<std::string> lines = capture.lines();
  ASSERT_EQ(4u, lines.size());
  EXPECT_EQ("Time <parse> [0.0000s of 0.0000s] ", lines[0]);
  // A message without a running timer starts it and logs zero times.
  EXPECT_EQ("Time <never-started> [0.0000s of 0.0000s] step", lines[1]);
  EXPECT_TRUE(std::regex_match(lines[2],
                               std::regex(R"(Time <parse> \[\d\.\d{4}s of \d\.\d{4}s\] pages)")));
  EXPECT_EQ("Time <(null)> [0.0000s of 0.0000s] ", lines[3]);
}

// Standard error goes to a file while it exists.
class StandardErrorFile {
 public:
  StandardErrorFile() {
    std::fflush(stderr);
    saved_ = dup(STDERR_FILENO);
    const int fd = open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
    dup2(fd, STDERR_FILENO);
    close(fd);
  }
  ~StandardErrorFile() {
    std::fflush(stderr);
    dup2(saved_, STDERR_FILENO);
    close(saved_);
    std::remove(path_.c_str());
  }
  std::string text() const {
    const std::vector<uint8_t> bytes = lmFileBytes(path_);
    return std::string(bytes.begin(), bytes.end());
  }

 private:
  std::string path_ = "/tmp/lm-diagnostics-test-" + std::to_string(getpid());
  int saved_ = -1;
};

TEST(DiagnosticsTest, RepeatedEntriesAreLeftOutAndTheFileStaysBounded) {
  StandardErrorFile file;
  for (int i = 0; i < 50; ++i) {
    LMAssert(i < 0, "repeated");
    lmLogf("changing %d", i);
  }
  std::string text = file.text();
  EXPECT_EQ(3u, lmOccurrences(text, "repeated <")) << text;
  EXPECT_EQ(50u, lmOccurrences(text, "changing "));

  // Beyond the bound the file is emptied, once the next check comes.
  lmLimitLogFile(100 << 10);
  const std::string filler(1000, 'x');
  for (int i = 0; i < 300; ++i) lmLogf("%d %s", i, filler.c_str());
  text = file.text();
  lmLimitLogFile(0);
  EXPECT_LT(text.size(), size_t{170 << 10});
  EXPECT_EQ(1u, lmOccurrences(text, "The log was emptied at "));
  EXPECT_NE(std::string::npos, text.find(" 299 xxx"));
}

}  // namespace
