#include "service/operation.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "kit/test_support.h"

namespace {

using OperationTest = LMQuietTest;

TEST_F(OperationTest, CancelledOperationsFinishWithoutRunningTheirWork) {
  struct Case {
    const char* name;
    bool concurrent;
  } cases[] = {{"plain", false}, {"concurrent", true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    LMOperationQueue queue;
    std::atomic<int> runs{0};
    std::atomic<int> completions{0};
    std::shared_ptr<LMOperation> operation;
    if (c.concurrent) {
      operation = std::make_shared<LMOperationConcurrent>(
          [&](LMOperation& op) {
            ++runs;
            static_cast<LMOperationConcurrent&>(op).completeOperation();
          },
          [&](LMOperation&) { ++completions; });
    } else {
      operation = std::make_shared<LMOperation>([&](LMOperation&) { ++runs; });
    }
    operation->cancel();
    queue.addOperation(operation);
    operation->waitUntilFinished();
    queue.waitUntilAllOperationsAreFinished();
    EXPECT_TRUE(operation->isFinished());
    EXPECT_FALSE(operation->isExecuting());
    EXPECT_EQ(0, runs.load());
    EXPECT_EQ(0, completions.load());
  }
}

// Holds main back until the test opens the gate.
class GatedOperation : public LMOperationConcurrent {
 public:
  using LMOperationConcurrent::LMOperationConcurrent;
  void main() override {
    gate.get_future().wait();
    LMOperationConcurrent::main();
    mainReturned.set_value();
  }
  std::promise<void> gate;
  std::promise<void> mainReturned;
};

TEST_F(OperationTest, CancelledBetweenStartAndMainStaysExecuting) {
  std::atomic<int> runs{0};
  // Work run by mistake is counted; it leaves the operation executing, so
  // main returns either way.
  auto operation = std::make_shared<GatedOperation>([&](LMOperation&) { ++runs; }, LMOperation::Block());
  operation->start();
  operation->cancel();
  operation->gate.set_value();
  operation->mainReturned.get_future().wait();
  EXPECT_EQ(0, runs.load());
  EXPECT_TRUE(operation->isExecuting());
  EXPECT_FALSE(operation->isFinished());
}

TEST_F(OperationTest, CompletionRunsOnceWhenCompletedTwice) {
  LMOperationQueue queue;
  std::promise<void> started;
  int completions = 0;
  LMOperation* completed = nullptr;
  auto operation = queue.addConcurrentBlock(
      [&](LMOperation&) { started.set_value(); },
      [&](LMOperation& op) {
        ++completions;
        completed = &op;
      });
  started.get_future().wait();
  EXPECT_TRUE(operation->isExecuting());
  // Completed from this thread, so that the completion closure runs here.
  operation->completeOperation();
  operation->completeOperation();
  EXPECT_EQ(1, completions);
  EXPECT_EQ(operation.get(), completed);
  EXPECT_TRUE(operation->isFinished());
  EXPECT_FALSE(operation->isExecuting());
  EXPECT_EQ(0u, queue.operationCount());
}

TEST_F(OperationTest, CountOfOneRunsOperationsOneAtATimeInOrder) {
  LMOperationQueue queue;
  queue.setMaxConcurrentOperationCount(1);
  std::atomic<int> active{0};
  std::atomic<int> mostActive{0};
  std::mutex mutex;
  std::vector<int> order;
  for (int i = 0; i < 20; ++i) {
    queue.addBlock([&, i](LMOperation&) {
      const int now = ++active;
      mostActive = std::max(mostActive.load(), now);
      // Gives another operation a chance to run, so that overlapping work would show.
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
      {
        std::lock_guard<std::mutex> lock(mutex);
        order.push_back(i);
      }
      --active;
    });
  }
  queue.waitUntilAllOperationsAreFinished();
  EXPECT_EQ(1, mostActive.load());
  ASSERT_EQ(20u, order.size());
  for (int i = 0; i < 20; ++i) EXPECT_EQ(i, order[i]);
}

TEST_F(OperationTest, ExceptionsInClosuresAreDropped) {
  LMOperationQueue queue;
  queue.setMaxConcurrentOperationCount(1);
  auto plainThrows = queue.addBlock([](LMOperation&) { throw std::runtime_error("plain"); });
  auto plainThrowsInt = queue.addBlock([](LMOperation&) { throw 42; });
  auto concurrentThrows = queue.addConcurrentBlock(
      [](LMOperation& op) {
        static_cast<LMOperationConcurrent&>(op).completeOperation();
        throw std::runtime_error("after completing");
      },
      [](LMOperation&) { throw std::runtime_error("completion"); });
  std::atomic<bool> laterRan{false};
  auto later = queue.addBlock([&](LMOperation&) { laterRan = true; });
  queue.waitUntilAllOperationsAreFinished();
  for (const auto& op : {plainThrows, plainThrowsInt,
                         std::shared_ptr<LMOperation>(concurrentThrows), later}) {
    EXPECT_TRUE(op->isFinished());
  }
  EXPECT_TRUE(laterRan.load());
}

TEST_F(OperationTest, ConcurrentMainByDefaultAssertsAndCompletes) {
  LMOperationQueue queue;
  auto operation = std::make_shared<LMOperationConcurrent>();
  queue.addOperation(operation);
  operation->waitUntilFinished();
  EXPECT_TRUE(log_.contains("You should override this method"));
  EXPECT_TRUE(log_.contains("(0) failed assertion"));
}

}  // namespace
