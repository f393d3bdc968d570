// The real service executable over its real socket: bad input, parallel
// load, one instance per socket and socket activation. Clients that hang up
// are left to the server's and the transport's tests.
// Replies are read to the end and must be exactly one frame.
#include <sys/file.h>

#include <atomic>

#include "service/receipt_worker.h"
#include "service/service_test_harness.h"

namespace {

using namespace lm_test;

class ServiceProcessTest : public ServiceHarness {
 protected:
  void SetUp() override {
    ServiceHarness::SetUp();
    pid_ = start();
    ASSERT_TRUE(waitForSocket(pid_, socketPath_)) << log();
  }
  pid_t pid_ = -1;
};

TEST_F(ServiceProcessTest, BadRequestsGetErrorRepliesAndTheServiceGoesOn) {
  struct Case {
    const char* name;
    Bytes bytes;
    bool halfClose;
    std::u16string message;
    std::string logged;
  } cases[] = {
      {"no frame at all", bytesOf("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n"), true,
       u"Bad request frame", "Refused request: Bad request frame"},
      {"header cut short", bytesOf("LMXP"), true, u"Incomplete request", "Incomplete request"},
      {"unknown version", frame(3, bytesOf("abc"), 0, 2), true, u"Bad request frame", "Bad request frame"},
      {"reply kind", frame(3, bytesOf("abc"), 1), true, u"Bad request frame", "Bad request frame"},
      {"empty frame", frame(0, {}), false, u"data required", "!!! XPC Error: data required"},
      {"payload cut short", frame(1000, Bytes(10, 'x')), true, u"Incomplete request",
       "Refused request: Incomplete request"},
      // Refused from the header alone: no half-close, the payload never comes.
      {"4 GB announced", frame(4ull << 30, {}), false, u"Request too large",
       "Request too large (4294967296 bytes announced)"},
      {"one byte above the limit", frame(kLMMaxFrameBytes + 1, Bytes(4096, 'x')), false,
       u"Request too large", "Request too large"},
      // This system's archiver never writes U+0000, other clients may.
      {"U+0000 in the currency",
       withBytesReplaced(requestFrame(LMDictionary{{u"data", LMData{1}}, {u"currency", u"EUXR"}}),
                         {'U', 'X', 'R'}, {'U', 0, 'R'}),
       false, u"Unreadable request: a property-list text holds U+0000", "holds U+0000"},
      {"archived array", requestFrame(LMArray{u"data", LMData{1, 2}}), false, u"data required",
       "data required"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const size_t logBefore = log().size();
    const Reply reply = callRaw(socketPath_, c.bytes, c.halfClose);
    ASSERT_EQ("", reply.problem);
    ASSERT_EQ(1, reply.kind);
    EXPECT_EQ(c.message, reply.error.message);
    EXPECT_EQ(u"com.brightmoor.error", reply.error.domain);
    EXPECT_EQ(101, reply.error.code);
    EXPECT_TRUE(waitForLog(c.logged, logBefore)) << log().substr(logBefore);
    expectServing(socketPath_);
  }
}

TEST_F(ServiceProcessTest, ParallelClientsEachGetTheirOwnReply) {
  // Every document's expected outcome, from the same analysis in this process.
  struct Document {
    std::string name;
    Bytes bytes;
    std::u16string error = {};  // or:
    std::u16string gross = {}, text = {};
  };
  std::vector<Document> documents;
  documents.push_back({"sample-receipt.pdf", lmTestdataBytes("sample-receipt.pdf")});
  for (const auto& entry : std::filesystem::directory_iterator(std::string(LM_TESTDATA_DIR) + "/pdf")) {
    if (entry.path().extension() == ".pdf") {
      documents.push_back({entry.path().filename().string(), lmFileBytes(entry.path().string())});
    }
  }
  documents.push_back({"random bytes", Bytes(3000, 0x5a)});
  for (Document& d : documents) {
    const LMXPCReply reply = lmPerformReceiptTask(LMDictionary{{u"data", d.bytes}});
    if (reply.error) {
      d.error = reply.error->message;
    } else {
      d.gross = reply.result->at(u"gross").toString();
      d.text = reply.result->at(u"text").toString();
    }
  }
  ASSERT_EQ(u"15.3", documents[0].gross);

  // Warm up with every document once, then take the idle level.
  for (const Document& d : documents) {
    ASSERT_EQ("", callRaw(socketPath_, requestFrame(LMDictionary{{u"data", d.bytes}})).problem);
  }
  const long idleKb = rssKilobytes(pid_);

  constexpr int kClients = 8, kCalls = 200;
  std::atomic<int> wrong{0};
  std::vector<std::string> failures(kClients);
  std::vector<std::thread> clients;
  for (int client = 0; client < kClients; ++client) {
    clients.emplace_back([&, client] {
      for (int call = 0; call < kCalls; ++call) {
        const Document& d = documents[(client * 7 + call) % documents.size()];
        // A rate no document can match, echoed back under "taxes": the reply
        // must be this call's own.
        const int64_t echo = 1000000 + client * 1000 + call;
        const Reply reply = callRaw(
            socketPath_, requestFrame(LMDictionary{{u"data", d.bytes}, {u"taxes", LMArray{echo}}}));
        std::string problem = reply.problem;
        if (problem.empty() && !d.error.empty() && reply.error.message != d.error) {
          problem = "error '" + lmUtf8(reply.error.message) + "'";
        }
        if (problem.empty() && d.error.empty() &&
            (reply.kind != 0 || reply.result.at(u"gross").toString() != d.gross ||
             reply.result.at(u"text").toString() != d.text ||
             !(reply.result.at(u"taxes") == LMValue(LMArray{echo})))) {
          problem = "wrong result";
        }
        if (!problem.empty()) {
          ++wrong;
          failures[client] = d.name + ": " + problem;
        }
      }
    });
  }
  for (std::thread& t : clients) t.join();
  EXPECT_EQ(0, wrong.load()) << failures[0] << failures[1] << failures[kClients - 1];
  EXPECT_TRUE(alive(pid_));

  // Freed memory goes back once the service has been quiet for a moment.
  // Under AddressSanitizer freed memory is held in quarantine on purpose, so
  // the process size says nothing there.
  if (kAddressSanitizer) return;
  constexpr long kMarginKb = 30 * 1024;
  long afterKb = -1;
  waitUntil([&] { return (afterKb = rssKilobytes(pid_)) <= idleKb + kMarginKb; }, 100ms);
  EXPECT_LE(afterKb, idleKb + kMarginKb) << "idle " << idleKb << " kB";
}

using ServiceStartTest = ServiceHarness;

TEST_F(ServiceStartTest, OnlyOneInstanceServesASocket) {
  // Two started at once: one serves, the other sees it and exits.
  const pid_t first = start(), second = start();
  pid_t loser = -1;
  int status = 0;
  waitUntil([&] {
    for (pid_t pid : {first, second}) {
      if (loser < 0 && waitpid(pid, &status, WNOHANG) == pid) loser = pid;
    }
    return loser >= 0;
  });
  ASSERT_NE(-1, loser) << log();
  std::erase(pids_, loser);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  const pid_t winner = loser == first ? second : first;
  ASSERT_TRUE(waitForSocket(winner, socketPath_)) << log();
  expectServing(socketPath_);

  // One started later exits at once with success.
  const pid_t late = start();
  status = waitForExit(late);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_NE(std::string::npos, log().find("already listening"));
  expectServing(socketPath_);
}

TEST_F(ServiceStartTest, WaitsForTheLockAndIgnoresActivationMeantForAnotherProcess) {
  const int lock = open((dir_ + "/lmreceipt-service.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(0, flock(lock, LOCK_EX));
  // Taken, the activation would make it serve on fd 3, which it was not given.
  const pid_t pid = start({"LISTEN_PID=1", "LISTEN_FDS=1"});
  std::this_thread::sleep_for(300ms);
  EXPECT_NE(0, access(socketPath_.c_str(), F_OK)) << "bound while another held the lock";
  EXPECT_TRUE(alive(pid));
  close(lock);
  ASSERT_TRUE(waitForSocket(pid, socketPath_)) << log();
  expectServing(socketPath_);
}

TEST_F(ServiceStartTest, TakesAnActivatedSocketMeantForIt) {
  const std::string activatedPath = dir_ + "/activated.sock";
  const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, activatedPath.c_str(), sizeof address.sun_path - 1);
  ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address));
  ASSERT_EQ(0, listen(listener, 16));
  const int handed = fcntl(listener, F_DUPFD, 100);  // never 3 itself

  const pid_t pid = start({}, handed);
  close(handed);
  close(listener);
  ASSERT_TRUE(waitForSocket(pid, activatedPath)) << log();
  expectServing(activatedPath);
  EXPECT_NE(0, access(socketPath_.c_str(), F_OK)) << "bound its own socket as well";
  const int status = waitForExit(pid, true);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_EQ(0, access(activatedPath.c_str(), F_OK)) << "removed a socket it did not make";
}

}  // namespace
