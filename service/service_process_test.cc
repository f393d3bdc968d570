// The real service executable over its real socket: bad input, clients that
// vanish, parallel load, one instance per socket and socket activation.
// Replies are read to the end and must be exactly one frame.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <thread>

#include "kit/unicode.h"
#include "service/keyed_archive.h"
#include "service/receipt_worker.h"
#include "service/transport.h"

extern char** environ;

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAddressSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif
#else
constexpr bool kAddressSanitizer = false;
#endif

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

// Bounds waits that normally end within milliseconds.
constexpr auto kPatience = 20s;

Bytes fileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

Bytes fixture(const std::string& name) { return fileBytes(std::string(LM_TESTDATA_DIR) + "/" + name); }

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

// A frame written here rather than by the transport, so that the tests pin
// the bytes on the wire.
Bytes frame(uint64_t announced, const Bytes& payload, uint8_t kind = 0, uint8_t version = 1) {
  Bytes out = {'L', 'M', 'X', 'P', version, kind, 0, 0};
  for (int shift = 56; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(announced >> shift));
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

Bytes requestFrame(const LMValue& task) {
  auto archived = lxDataSerialize(task);
  EXPECT_TRUE(archived);
  return frame(archived ? archived->size() : 0, archived.value_or(Bytes()));
}

struct Reply {
  std::string problem;  // empty when the stream held exactly one frame
  uint8_t kind = 0;
  std::u16string domain, message;  // of an error
  int64_t code = 0;
  LMValue result;
};

// Reads one frame, then the end of the stream.
Reply readReply(int fd) {
  Reply reply;
  LMFrame frame, after;
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  if (lmReadFrame(fd, deadline, &frame) != LMFrameStatus::kOk) {
    reply.problem = "no whole frame";
    return reply;
  }
  // A peer that closes with unread input resets the connection instead.
  const LMFrameStatus end = lmReadFrame(fd, deadline, &after);
  if (end != LMFrameStatus::kClosed && !(end == LMFrameStatus::kFailed && errno == ECONNRESET)) {
    reply.problem = "more than one frame";
  }
  reply.kind = frame.kind;
  if (frame.kind == kLMFrameError) {
    auto error = lmParseErrorPayload(frame.payload);
    if (!error) reply.problem = "malformed error payload";
    reply.domain = error ? error->domain : u"";
    reply.message = error ? error->message : u"";
    reply.code = error ? error->code : 0;
  } else if (!frame.payload.empty()) {
    std::string why;
    auto decoded = lxDataUnserialize(frame.payload, &why);
    if (!decoded) reply.problem = "result is no archive: " + why;
    reply.result = decoded.value_or(LMValue());
  }
  return reply;
}

int connectTo(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return -1;
  }
  return fd;
}

// Sends `bytes` (a failed send is fine: the service may refuse early), then
// half-closes when asked and reads the reply.
Reply callRaw(const std::string& path, const Bytes& bytes, bool halfClose = false) {
  const int fd = connectTo(path);
  if (fd < 0) {
    Reply reply;
    reply.problem = "cannot connect";
    return reply;
  }
  for (size_t sent = 0; sent < bytes.size();) {
    const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) break;
    sent += static_cast<size_t>(n);
  }
  if (halfClose) shutdown(fd, SHUT_WR);
  Reply reply = readReply(fd);
  close(fd);
  return reply;
}

bool alive(pid_t pid) { return waitpid(pid, nullptr, WNOHANG) == 0; }

// The exit status of `pid` once it ended by itself (-1 when it did not within
// the patience), or after SIGTERM (SIGKILL when that does not end it).
int waitForExit(pid_t pid, bool terminate = false) {
  if (terminate) kill(pid, SIGTERM);
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  int status = 0;
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      if (!terminate) return -1;
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      break;
    }
    std::this_thread::sleep_for(10ms);
  }
  return status;
}

long rssKilobytes(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  }
  return -1;
}

class ServiceHarness : public testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/lmreceipt-test-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    dir_ = pattern;
    socketPath_ = dir_ + "/lmreceipt-service.sock";
  }

  void TearDown() override {
    for (pid_t pid : pids_) waitForExit(pid, true);
    std::filesystem::remove_all(dir_);
  }

  // Starts the service executable with XDG_RUNTIME_DIR set to the test's
  // folder plus `env`, its log in service.log; `activated` becomes fd 3.
  pid_t start(std::vector<std::string> env = {}, int activated = -1) {
    for (char** e = environ; *e; ++e) {
      if (!std::string_view(*e).starts_with("XDG_RUNTIME_DIR=")) env.emplace_back(*e);
    }
    env.push_back("XDG_RUNTIME_DIR=" + dir_);
    std::vector<char*> envp;
    for (std::string& entry : env) envp.push_back(entry.data());
    envp.push_back(nullptr);
    std::string executable = LM_SERVICE_EXECUTABLE;
    // The shell keeps its process id through exec, so it can name it for
    // socket activation before the service runs.
    std::string shell = "/bin/sh", dashC = "-c",
                script = "export LISTEN_PID=$$ LISTEN_FDS=1; exec \"$0\"";
    std::vector<char*> argv = {executable.data(), nullptr};
    if (activated >= 0) argv = {shell.data(), dashC.data(), script.data(), executable.data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, (dir_ + "/service.log").c_str(),
                                     O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (activated >= 0) posix_spawn_file_actions_adddup2(&actions, activated, 3);
    pid_t pid = -1;
    const int error = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    EXPECT_EQ(0, error) << std::strerror(error);
    if (error == 0) pids_.push_back(pid);
    return pid;
  }

  // Waits until `path` accepts connections; false when `pid` ended first.
  bool waitForSocket(pid_t pid, const std::string& path) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (std::chrono::steady_clock::now() < deadline && alive(pid)) {
      const int fd = connectTo(path);
      if (fd >= 0) {
        close(fd);
        return true;
      }
      std::this_thread::sleep_for(5ms);
    }
    return false;
  }

  std::string log() const {
    const Bytes bytes = fileBytes(dir_ + "/service.log");
    return std::string(bytes.begin(), bytes.end());
  }

  // Waits until the log, from `from` on, holds `text`.
  bool waitForLog(const std::string& text, size_t from = 0) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (std::chrono::steady_clock::now() < deadline) {
      const std::string all = log();
      if (all.size() > from && all.find(text, from) != std::string::npos) return true;
      std::this_thread::sleep_for(5ms);
    }
    return false;
  }

  // A normal call still succeeds.
  void expectServing(const std::string& path) {
    const Reply reply = callRaw(path, requestFrame(LMDictionary{{u"data", fixture("sample-receipt.pdf")}}));
    ASSERT_EQ("", reply.problem);
    ASSERT_EQ(0, reply.kind) << lmUtf8(reply.message);
    EXPECT_EQ(u"15.3", reply.result.at(u"gross").toString());
  }

  std::string dir_;
  std::string socketPath_;
  std::vector<pid_t> pids_;
};

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
      {"payload no archive", frame(12, bytesOf("bplist00\xff\xff\xff\xff")), false,
       u"data required", "lxDataUnserialize: "},
      {"archived array", requestFrame(LMArray{u"data", LMData{1, 2}}), false, u"data required",
       "data required"},
      {"archived string", requestFrame(LMValue(u"data")), false, u"data required", "data required"},
      {"data as text", requestFrame(LMDictionary{{u"data", u"%PDF-1.4"}}), false,
       u"data must be the bytes of a PDF file", "data must be the bytes of a PDF file"},
      {"garbage PDF", requestFrame(LMDictionary{{u"data", fixture("pdf/garbage.pdf")}}), false,
       u"Could not open document", "Could not open document"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const size_t logBefore = log().size();
    const Reply reply = callRaw(socketPath_, c.bytes, c.halfClose);
    ASSERT_EQ("", reply.problem);
    ASSERT_EQ(1, reply.kind);
    EXPECT_EQ(c.message, reply.message);
    EXPECT_EQ(u"com.brightmoor.error", reply.domain);
    EXPECT_EQ(101, reply.code);
    EXPECT_TRUE(waitForLog(c.logged, logBefore)) << log().substr(logBefore);
    expectServing(socketPath_);
    ASSERT_TRUE(alive(pid_));
  }
}

TEST_F(ServiceProcessTest, ClientsThatVanishDoNotHurtTheService) {
  struct Case {
    const char* name;
    Bytes bytes;
    std::string logged;  // empty: nothing to note
    bool refusesReply = false;
  } cases[] = {
      {"connects and leaves", {}, ""},
      {"leaves inside the header", bytesOf("LMXP\x01\0\0\0"), "Incomplete request"},
      {"leaves inside the payload", frame(100000, Bytes(5000, 'x')), "Incomplete request"},
      // It stops receiving first: on a busy machine the reply could otherwise
      // arrive before the client has closed.
      {"leaves before the reply", requestFrame(LMDictionary{{u"data", fixture("sample-receipt.pdf")}}),
       "Reply not delivered", true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const size_t logBefore = log().size();
    const int fd = connectTo(socketPath_);
    ASSERT_GE(fd, 0);
    if (c.refusesReply) {
      ASSERT_EQ(0, shutdown(fd, SHUT_RD));
    }
    ASSERT_EQ(static_cast<ssize_t>(c.bytes.size()), send(fd, c.bytes.data(), c.bytes.size(), MSG_NOSIGNAL));
    close(fd);
    if (!c.logged.empty()) {
      EXPECT_TRUE(waitForLog(c.logged, logBefore)) << log().substr(logBefore);
    }
    expectServing(socketPath_);
    ASSERT_TRUE(alive(pid_));
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
  documents.push_back({"sample-receipt.pdf", fixture("sample-receipt.pdf")});
  for (const auto& entry : std::filesystem::directory_iterator(std::string(LM_TESTDATA_DIR) + "/pdf")) {
    if (entry.path().extension() == ".pdf") {
      documents.push_back({entry.path().filename().string(), fileBytes(entry.path().string())});
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
        if (problem.empty() && !d.error.empty() && reply.message != d.error) {
          problem = "error '" + lmUtf8(reply.message) + "'";
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
  long afterKb = rssKilobytes(pid_);
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (afterKb > idleKb + kMarginKb && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(100ms);
    afterKb = rssKilobytes(pid_);
  }
  RecordProperty("idle_rss_kb", static_cast<int>(idleKb));
  RecordProperty("after_rss_kb", static_cast<int>(afterKb));
  EXPECT_LE(afterKb, idleKb + kMarginKb) << "idle " << idleKb << " kB";
}

TEST_F(ServiceProcessTest, SocketIsPrivateAndGoesAwayOnTerm) {
  struct stat st {};
  ASSERT_EQ(0, stat(socketPath_.c_str(), &st));
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(0600u, st.st_mode & 0777);
  // The socket exists before the server logs its start: wait for the line.
  EXPECT_TRUE(waitForLog("Started Worker"));

  const int status = waitForExit(pid_, true);
  pids_.clear();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_NE(0, access(socketPath_.c_str(), F_OK));
}

using ServiceStartTest = ServiceHarness;

TEST_F(ServiceStartTest, OnlyOneInstanceServesASocket) {
  // Two started at once: one serves, the other sees it and exits.
  const pid_t first = start(), second = start();
  pid_t loser = -1;
  int status = 0;
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (loser < 0 && std::chrono::steady_clock::now() < deadline) {
    for (pid_t pid : {first, second}) {
      if (loser < 0 && waitpid(pid, &status, WNOHANG) == pid) loser = pid;
    }
    std::this_thread::sleep_for(10ms);
  }
  ASSERT_NE(-1, loser) << log();
  std::erase(pids_, loser);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  const pid_t winner = loser == first ? second : first;
  ASSERT_TRUE(waitForSocket(winner, socketPath_)) << log();
  expectServing(socketPath_);

  // One started later exits at once with success.
  const pid_t late = start();
  status = waitForExit(late);
  std::erase(pids_, late);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_NE(std::string::npos, log().find("already listening"));
  EXPECT_TRUE(alive(winner));
  expectServing(socketPath_);
}

TEST_F(ServiceStartTest, WaitsWhileAStartingOrLeavingInstanceHoldsTheLock) {
  const int lock = open((dir_ + "/lmreceipt-service.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(0, flock(lock, LOCK_EX));
  const pid_t pid = start();
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
  pids_.clear();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  EXPECT_EQ(0, access(activatedPath.c_str(), F_OK)) << "removed a socket it did not make";
}

TEST_F(ServiceStartTest, IgnoresActivationMeantForAnotherProcess) {
  const pid_t pid = start({"LISTEN_PID=1", "LISTEN_FDS=1"});
  ASSERT_TRUE(waitForSocket(pid, socketPath_)) << log();
  expectServing(socketPath_);
}

}  // namespace
