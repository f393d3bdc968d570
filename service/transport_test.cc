// Socket paths, frames, and the client starting the real service on demand.
#include "service/transport.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <future>

#include "kit/test_support.h"
#include "service/keyed_archive.h"
#include "service/service_test_harness.h"

namespace {

using lm_test::Bytes;
using lm_test::kPatience;

// The harness gives each test a private XDG_RUNTIME_DIR, restored afterwards.
using TransportTest = lm_test::ServiceHarness;

TEST_F(TransportTest, SocketPathNeedsAPrivateFolder) {
  const std::string fallback = "/tmp/lmreceipt-test-" + std::to_string(getpid()) + "-" +
                               std::to_string(geteuid());
  const std::string name = "lmreceipt-test-" + std::to_string(getpid());
  const std::string shared = dir_ + "/shared", missing = dir_ + "/missing";
  const std::string deep = dir_ + "/" + std::string(100, 'd');
  mkdir(shared.c_str(), 0755);
  mkdir(deep.c_str(), 0700);
  struct Case {
    const char* what;
    std::optional<std::string> runtime;
    std::string name;
    std::string expected;
  } cases[] = {
      {"private runtime folder", dir_, name, dir_ + "/" + name + ".sock"},
      {"unset", std::nullopt, name, fallback + "/" + name + ".sock"},
      {"relative", "run/user", name, fallback + "/" + name + ".sock"},
      {"others may enter", shared, name, fallback + "/" + name + ".sock"},
      {"missing", missing, name, fallback + "/" + name + ".sock"},
      {"too long for a socket address", deep, name, fallback + "/" + name + ".sock"},
      {"empty name", dir_, "", ""},
      {"name with a slash", dir_, "../x", ""},
      {"dot dot", dir_, "..", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    if (c.runtime) setenv("XDG_RUNTIME_DIR", c.runtime->c_str(), 1); else unsetenv("XDG_RUNTIME_DIR");
    EXPECT_EQ(c.expected, lmServiceSocketPath(c.name));
  }
  struct stat st {};
  ASSERT_EQ(0, lstat(fallback.c_str(), &st));
  EXPECT_EQ(0700u, st.st_mode & 0777);
  rmdir(fallback.c_str());

  // A fallback folder someone else could have made is not trusted.
  unsetenv("XDG_RUNTIME_DIR");
  ASSERT_EQ(0, mkdir(fallback.c_str(), 0755));
  EXPECT_EQ("", lmServiceSocketPath(name));
  rmdir(fallback.c_str());
  ASSERT_EQ(0, symlink(dir_.c_str(), fallback.c_str()));
  EXPECT_EQ("", lmServiceSocketPath(name));
  unlink(fallback.c_str());
}

TEST_F(TransportTest, WriteFrameSurvivesSlowAndVanishedReaders) {
  int pair[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
  Bytes payload(8u << 20);
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<uint8_t>(i * 131 + (i >> 13));
  // Far beyond the socket's buffer: the writer sees many partial writes.
  auto reader = std::async(std::launch::async, [&] {
    LMFrame frame;
    return std::make_pair(lmReadFrame(pair[1], std::chrono::steady_clock::now() + kPatience, &frame),
                          frame);
  });
  ASSERT_TRUE(lmWriteFrame(pair[0], kLMFrameResult, payload, std::chrono::steady_clock::now() + kPatience));
  auto [status, frame] = reader.get();
  EXPECT_EQ(LMFrameStatus::kOk, status);
  EXPECT_TRUE(frame.payload == payload);

  // The reader is gone: a failure, not SIGPIPE.
  close(pair[1]);
  std::string why;
  EXPECT_FALSE(lmWriteFrame(pair[0], kLMFrameResult, payload, kLMNoDeadline, &why));
  EXPECT_FALSE(why.empty());
  close(pair[0]);
}

class ClientTest : public lm_test::ServiceHarness {
 protected:
  void SetUp() override {
    ServiceHarness::SetUp();
    // The detached service becomes our child, so that it can be reaped.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    const std::string executable = LM_SERVICE_EXECUTABLE;
    setenv("LM_SERVICE_DIR", executable.substr(0, executable.rfind('/')).c_str(), 1);
  }
  void TearDown() override {
    const int fd = lm_test::connectTo(dir_ + "/lmreceipt-service.sock");
    ucred peer{};
    socklen_t size = sizeof peer;
    if (fd >= 0 && getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0) {
      close(fd);
      const int status = waitForExit(peer.pid, true);
      EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    }
    ServiceHarness::TearDown();
  }
};

TEST_F(ClientTest, CallsStartTheServiceOnce) {
  const Bytes boot = *lxDataSerialize(LMDictionary{{u"__boot", true}});
  std::vector<std::future<std::optional<LMWireReply>>> calls;
  for (int i = 0; i < 4; ++i) {
    calls.push_back(std::async(std::launch::async, [&] { return lmServiceCall("lmreceipt-service", boot); }));
  }
  for (auto& call : calls) {
    auto reply = call.get();
    ASSERT_TRUE(reply);
    ASSERT_FALSE(reply->error);
    EXPECT_EQ(LMValue(LMDictionary{{u"boot", u"success"}}), lxDataUnserialize(reply->bytes));
  }
  const Bytes log = lmFileBytes(dir_ + "/lmreceipt-service.log");
  const std::string text(log.begin(), log.end());
  EXPECT_EQ(1u, lmOccurrences(text, "Started Worker")) << text;
}

TEST_F(ClientTest, CallFailsWhenTheServiceCannotStart) {
  setenv("LM_SERVICE_DIR", (dir_ + "/nowhere").c_str(), 1);
  std::string failure;
  EXPECT_FALSE(lmServiceCall("lmreceipt-service", {}, &failure));
  EXPECT_NE(std::string::npos, failure.find("Could not start")) << failure;
}

}  // namespace
