// The real service executable under pressure: idle connections, a busy
// pool, calls over their time limit, signals during calls, a stopped
// service and a socket folder someone else made.
#include <poll.h>

#include "service/service_test_harness.h"
#include "service/xpc_client.h"

namespace {

using namespace lm_test;

class ServiceLimitsTest : public ServiceHarness {
 protected:
  // Starts the service with `env` and waits for its socket.
  pid_t serve(std::vector<std::string> env = {}) {
    const pid_t pid = start(std::move(env));
    EXPECT_TRUE(waitForSocket(pid, socketPath_)) << log();
    return pid;
  }
  // A call that takes a second (200 pages) or more, sent; its worker has
  // started. Its pages, full of amounts and dates, are slow to analyse (about
  // a second per 100-200 pages here) and small to send.
  int slowCall(size_t logFrom = 0, int pages = 600) {
    const std::string page = lmGeneratedLines(45, "Position 7 Betrag 17,27 EUR MwSt 19% am 07.07.2026 Summe", 9, 17);
    const int fd = sendOnly(socketPath_, requestFrame(LMDictionary{{u"data", lmGeneratedPdf({page}, pages)}}));
    EXPECT_TRUE(waitForLog("==> XPC work on task", logFrom)) << log();
    return fd;
  }
};

TEST_F(ServiceLimitsTest, ACallIsAnsweredWhileManyIdleConnectionsAreOpen) {
  serve();
  std::vector<int> idle;
  for (int i = 0; i < 130; ++i) {
    idle.push_back(connectTo(socketPath_));
    ASSERT_GE(idle.back(), 0) << i;
  }
  expectServing(socketPath_);
  // Answered before any idle connection was cut off (after 5 s).
  for (int fd : idle) {
    pollfd p{fd, POLLIN, 0};
    ASSERT_EQ(0, poll(&p, 1, 0)) << "an idle connection was closed before the call was answered";
  }
  // Each is answered once its time to send a request is over.
  for (int fd : idle) EXPECT_EQ(u"Request timed out", messageOf(replyOn(fd)));
}

TEST_F(ServiceLimitsTest, LimitsEndInAnErrorReply) {
  struct Case {
    const char* name;
    std::vector<std::string> env;
    std::u16string slowReply;
    std::u16string secondReply;  // "": no second call
  } cases[] = {
      {"over the call's time limit", {"LM_CALL_TIME_LIMIT=1", "LM_STOP_GRACE=1"}, u"Call took longer than 1 s", u""},
      {"every worker busy past the wait", {"LM_WORKERS=1", "LM_BUSY_WAIT=0.2", "LM_STOP_GRACE=1"},
       u"result", u"Service busy"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const pid_t pid = serve(c.env);
    // While the only worker is busy with the slow call (which must come to
    // its end here: nothing else would free that worker).
    const int slow = slowCall(0, c.secondReply.empty() ? 600 : 200);
    if (!c.secondReply.empty()) {
      const Reply second = callRaw(socketPath_, requestFrame(LMDictionary{{u"data", lmTestdataBytes("sample-receipt.pdf")}}));
      EXPECT_EQ(c.secondReply, messageOf(second));
    }
    EXPECT_EQ(c.slowReply, messageOf(replyOn(slow)));
    // Still serving (the warm-up call: an analysis may not fit a short limit
    // while the slow one goes on under the sanitizers).
    const Reply boot = callRaw(socketPath_, requestFrame(LMDictionary{{u"__boot", true}}));
    ASSERT_EQ("", boot.problem);
    EXPECT_EQ(u"success", boot.result.at(u"boot").toString());
    waitForExit(pid, true);
  }
}

TEST_F(ServiceLimitsTest, SignalsRemoveTheSocketAndAReplacementTakesOver) {
  // A signal while idle ends the service as its idle time does (the server
  // tests), and as the other process tests end it.
  for (int signal : {SIGTERM, SIGINT}) {
    SCOPED_TRACE(strsignal(signal));
    const pid_t pid = serve({"LM_STOP_GRACE=1"});
    const int slow = slowCall(log().size());
    ASSERT_EQ(0, kill(pid, signal));
    // The socket goes at once, while the call runs.
    EXPECT_TRUE(waitUntil([&] { return access(socketPath_.c_str(), F_OK) != 0; }));
    // A new service takes the name while the old one still ends.
    const pid_t next = serve();
    expectServing(socketPath_);
    const std::u16string reply = messageOf(replyOn(slow));
    EXPECT_TRUE(reply == u"result" || reply == u"Service is stopping") << lmUtf8(reply);
    const int status = waitForExit(pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    waitForExit(next, true);
  }
}

TEST_F(ServiceLimitsTest, AStoppedServiceGivesTheClientATimeoutError) {
  const pid_t pid = serve();
  ASSERT_EQ(0, kill(pid, SIGSTOP));
  {
    LMXPC client("lmreceipt-service", lmServiceCall, 500ms);
    std::optional<LMXPCError> error;
    // The warm-up call and this one share the time: both end after about 0.5 s.
    client.performXPCSynchronousWithObject(
        LMDictionary{{u"data", lmTestdataBytes("sample-receipt.pdf")}},
        [&](const LMValue&, const std::optional<LMXPCError>& e) { error = e; });
    ASSERT_TRUE(error);
    EXPECT_EQ(u"Service not reachable: The service did not answer within 0.5 s", error->message);
  }
  kill(pid, SIGCONT);
}

TEST_F(ServiceLimitsTest, ASocketFolderSomeoneElseMadeIsNamedWithTheFix) {
  // A name of its own, so that the folder in /tmp is this test's.
  const std::string name = "lmreceipt-test-" + std::to_string(getpid());
  const std::string executable = dir_ + "/" + name;
  ASSERT_EQ(0, symlink(LM_SERVICE_EXECUTABLE, executable.c_str()));
  const std::string folder = "/tmp/" + name + "-" + std::to_string(geteuid());
  struct Case {
    const char* name;
    mode_t mode;
    bool otherOwner;
    std::string expected;
  } cases[] = {
      {"others may enter", 0755, false, "has mode 0755, so others may enter it; run chmod 700 " + folder},
      {"another user's", 0700, true, "belongs to user 65534, not to you"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.otherOwner && geteuid() != 0) continue;  // only root can give it away
    ASSERT_EQ(0, mkdir(folder.c_str(), c.mode));
    chmod(folder.c_str(), c.mode);
    if (c.otherOwner) {
      ASSERT_EQ(0, chown(folder.c_str(), 65534, 65534));
    }
    const size_t logFrom = log().size();
    const pid_t pid = start({"XDG_RUNTIME_DIR"}, -1, executable);
    const int status = waitForExit(pid);
    rmdir(folder.c_str());
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1) << status;
    const std::string text = log().substr(logFrom);
    EXPECT_NE(std::string::npos, text.find(folder)) << text;
    EXPECT_NE(std::string::npos, text.find(c.expected)) << text;
  }
}

}  // namespace
