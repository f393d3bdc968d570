#include "kit/diagnostics.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "kit/test_support.h"

namespace {

// Strips the "date time process[pid:tid] " prefix.
std::string body(const std::string& line) {
  const size_t end = line.find("] ");
  return end == std::string::npos ? line : line.substr(end + 2);
}

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
  const std::string first = body(capture.fullLines()[0]);
  EXPECT_EQ(0u, first.find("Assertion <diagnostics_test.cc:")) << first;
  // The function's full name as the compiler spells it.
  EXPECT_NE(std::string::npos, first.find("failingCheck(int)\n\n    "
                                          "(value > 1) failed assertion\n\n("))
      << first;
  EXPECT_EQ(0u, body(capture.fullLines()[1]).find("Value 0 too small <diagnostics_test.cc:"));
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
  ASSERT_EQ(4u, capture.fullLines().size());
  EXPECT_EQ("Time <parse> [0.0000s of 0.0000s] ", body(capture.fullLines()[0]));
  // A message without a running timer starts it and logs zero times.
  EXPECT_EQ("Time <never-started> [0.0000s of 0.0000s] step", body(capture.fullLines()[1]));
  EXPECT_TRUE(std::regex_match(body(capture.fullLines()[2]),
                               std::regex(R"(Time <parse> \[\d\.\d{4}s of \d\.\d{4}s\] pages)")));
  EXPECT_EQ("Time <(null)> [0.0000s of 0.0000s] ", body(capture.fullLines()[3]));
}

}  // namespace
