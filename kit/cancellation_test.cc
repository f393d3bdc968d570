#include "kit/cancellation.h"

#include <gtest/gtest.h>

#include <thread>

TEST(CancellationTest, FirstMessageWinsAndCallbacksRunOnce) {
  LMCancellation cancellation;
  int calls = 0;
  auto registration = cancellation.onCancel([&] { ++calls; });
  EXPECT_FALSE(cancellation.isCancelled());
  cancellation.cancel(u"time limit");
  cancellation.cancel(u"client gone");
  EXPECT_TRUE(cancellation.isCancelled());
  EXPECT_EQ(u"time limit", cancellation.message());
  EXPECT_EQ(1, calls);
  // Registering after the fact runs the callback at once.
  auto late = cancellation.onCancel([&] { ++calls; });
  EXPECT_EQ(2, calls);
}

TEST(CancellationTest, EndedRegistrationIsNotCalled) {
  LMCancellation cancellation;
  int calls = 0;
  { auto registration = cancellation.onCancel([&] { ++calls; }); }
  std::thread other([&] { cancellation.cancel(u"stop"); });
  other.join();
  EXPECT_EQ(0, calls);
  EXPECT_TRUE(lmIsCancelled(&cancellation));
  EXPECT_FALSE(lmIsCancelled(nullptr));
}
