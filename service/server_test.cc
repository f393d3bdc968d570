// The server in this process with test workers: the pool, the waits and
// time limits it keeps, hang-ups, stopping and the idle exit.
#include "service/server.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <condition_variable>
#include <future>
#include <thread>

#include "service/service_test_harness.h"

namespace {

using namespace lm_test;

// Every worker waits at the gate or until its call is cancelled (then it
// replies the cancellation's message). Counts how many run at once and what
// cancelled them.
struct Gate {
  std::mutex mutex;
  std::condition_variable changed;
  bool open = false;
  int workers = 0, running = 0, mostRunning = 0;
  std::vector<std::u16string> cancelledWith;
};

class GateWorker : public LMXPCBaseWorker {
 public:
  explicit GateWorker(Gate& gate) : gate_(gate) {}
  void work() override {
    std::unique_lock<std::mutex> lock(gate_.mutex);
    gate_.mostRunning = std::max(gate_.mostRunning, ++gate_.running);
    gate_.changed.notify_all();
    while (!gate_.open && !cancellation()->isCancelled()) {
      gate_.changed.wait_for(lock, 5ms);
    }
    --gate_.running;
    gate_.changed.notify_all();
    if (cancellation()->isCancelled()) {
      gate_.cancelledWith.push_back(cancellation()->message());
      doneWithErrorMessage(cancellation()->message());
      return;
    }
    doneWithResult(LMDictionary{{u"worker", gate_.workers}});
  }

 private:
  Gate& gate_;
};

// The harness gives the test a private XDG_RUNTIME_DIR.
class ServerTest : public ServiceHarness {
 protected:
  void TearDown() override {
    openGate();
    if (server_) server_->stop();
    if (served_.valid()) served_.wait();
    server_.reset();
    ServiceHarness::TearDown();
  }

  void start(LMServerOptions options) {
    server_ = std::make_unique<LMServer>(
        [this] {
          std::lock_guard<std::mutex> lock(gate_.mutex);
          ++gate_.workers;
          return std::make_unique<GateWorker>(gate_);
        },
        options);
    ASSERT_EQ(LMListener::Outcome::kListening, listener_.open("lmreceipt-test"));
    path_ = listener_.path();
    served_ = std::async(std::launch::async, [this] { return server_->serve(listener_); });
  }
  void openGate() {
    std::lock_guard<std::mutex> lock(gate_.mutex);
    gate_.open = true;
    gate_.changed.notify_all();
  }
  bool waitForRunning(int count) {
    std::unique_lock<std::mutex> lock(gate_.mutex);
    return gate_.changed.wait_for(lock, kPatience, [&] { return gate_.running == count; });
  }
  // Sends an empty request on a new connection.
  int call() { return sendOnly(path_, frame(0, {})); }

  Gate gate_;
  LMListener listener_;
  std::unique_ptr<LMServer> server_;
  std::future<bool> served_;
  std::string path_;
};

TEST_F(ServerTest, CallsRunInParallelUpToTheWorkers) {
  start({.workers = 2});
  // The listener's socket is private from the start.
  struct stat st {};
  ASSERT_EQ(0, stat(path_.c_str(), &st));
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(0600u, st.st_mode & 0777);
  std::vector<int> fds = {call(), call(), call()};
  ASSERT_TRUE(waitForRunning(2));
  // The third waits for a worker while two run.
  std::this_thread::sleep_for(200ms);
  {
    std::lock_guard<std::mutex> lock(gate_.mutex);
    EXPECT_EQ(2, gate_.workers);
  }
  openGate();
  for (int fd : fds) EXPECT_EQ(u"result", messageOf(replyOn(fd)));
  EXPECT_EQ(3, gate_.workers);  // one worker per connection
  EXPECT_EQ(2, gate_.mostRunning);
}

TEST_F(ServerTest, WaitsAndLimitsEndInAnErrorReply) {
  struct Case {
    const char* name;
    LMServerOptions options;
    bool clientLeaves;
    std::u16string second;  // the reply of a second call while the first runs
    std::vector<std::u16string> cancelled;  // the first call's cancellation
  };
  const Case cases[] = {
      {"every worker busy past the wait", {.workers = 1, .busyWait = 100ms}, false, u"Service busy",
       {}},
      {"over the call's time limit", {.callTimeLimit = 200ms}, false, u"Call took longer than 0.2 s",
       {u"Call took longer than 0.2 s"}},
      {"the client hangs up", LMServerOptions{}, true, u"", {u"The client went away"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    start(c.options);
    const int first = call();
    ASSERT_TRUE(waitForRunning(1));
    if (c.clientLeaves) {
      close(first);
    } else if (c.second == u"Service busy") {
      EXPECT_EQ(c.second, messageOf(replyOn(call())));
      openGate();
      EXPECT_EQ(u"result", messageOf(replyOn(first)));
    } else {
      EXPECT_EQ(c.second, messageOf(replyOn(first)));
    }
    ASSERT_TRUE(waitForRunning(0));
    {
      std::lock_guard<std::mutex> lock(gate_.mutex);
      EXPECT_EQ(c.cancelled, gate_.cancelledWith);
    }
    TearDown();
    gate_.open = false;
    gate_.cancelledWith.clear();
    SetUp();
  }
}

TEST_F(ServerTest, StopLetsRunningCallsFinishWithinTheGrace) {
  struct Case {
    const char* name;
    bool finishes;  // the call ends within the grace time
    std::u16string reply;
  } cases[] = {
      {"finishes in time", true, u"result"},
      {"still running after the grace", false, u"Service is stopping"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    start({.stopGrace = 300ms});
    const int fd = call();
    ASSERT_TRUE(waitForRunning(1));
    server_->stop();
    // The socket goes at once, while the call still runs.
    EXPECT_TRUE(waitUntil([&] { return access(path_.c_str(), F_OK) != 0; }));
    if (c.finishes) openGate();
    EXPECT_EQ(c.reply, messageOf(replyOn(fd)));
    ASSERT_EQ(std::future_status::ready, served_.wait_for(kPatience));
    EXPECT_TRUE(served_.get());
    TearDown();
    gate_.open = false;
    SetUp();
  }
}

TEST_F(ServerTest, StuckClientIsCutOffAndIdleServerLeaves) {
  start({.requestTimeout = 200ms, .idleTimeout = 500ms});
  const int fd = connectTo(path_);
  ASSERT_EQ(5, write(fd, "LMXP\x01", 5));
  EXPECT_EQ(u"Request timed out", messageOf(replyOn(fd)));

  ASSERT_EQ(std::future_status::ready, served_.wait_for(kPatience));
  EXPECT_NE(0, access(path_.c_str(), F_OK));
  // The lock is free for the next service.
  LMListener next;
  EXPECT_EQ(LMListener::Outcome::kListening, next.open("lmreceipt-test"));
}

}  // namespace
