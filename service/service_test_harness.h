// The harness of the process tests: the real service executable in a
// private runtime folder, frames written byte by byte, replies read to the end.
#pragma once
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "document/generated_pdf_test_util.h"
#include "kit/test_support.h"
#include "kit/unicode.h"
#include "service/archive_test_util.h"
#include "service/keyed_archive.h"
#include "service/transport.h"

extern char** environ;

namespace lm_test {

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kAddressSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr bool kAddressSanitizer = true;
#else
inline constexpr bool kAddressSanitizer = false;
#endif
#else
inline constexpr bool kAddressSanitizer = false;
#endif

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;

// Bounds waits that normally end within milliseconds (or, for the slow
// documents, seconds; under the sanitizers ten times that).
inline constexpr auto kPatience = 60s;

inline Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

// A frame written here rather than by the transport, so that the tests pin
// the bytes on the wire.
inline Bytes frame(uint64_t announced, const Bytes& payload, uint8_t kind = 0, uint8_t version = 1) {
  Bytes out = {'L', 'M', 'X', 'P', version, kind, 0, 0};
  for (int shift = 56; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(announced >> shift));
  out.insert(out.end(), payload.begin(), payload.end());
  return out;
}

inline Bytes requestFrame(const LMValue& task) {
  auto archived = lxDataSerialize(task);
  EXPECT_TRUE(archived);
  return frame(archived ? archived->size() : 0, archived.value_or(Bytes()));
}

struct Reply {
  std::string problem;  // empty when the stream held exactly one frame
  uint8_t kind = 0;
  LMXPCError error;
  LMValue result;
};

// Reads one frame, then the end of the stream, and closes `fd`.
inline Reply replyOn(int fd) {
  Reply reply;
  LMFrame frame, after;
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  const bool whole = lmReadFrame(fd, deadline, &frame) == LMFrameStatus::kOk;
  // A peer that closes with unread input resets the connection instead.
  const LMFrameStatus end = whole ? lmReadFrame(fd, deadline, &after) : LMFrameStatus::kClosed;
  if (end != LMFrameStatus::kClosed && !(end == LMFrameStatus::kFailed && errno == ECONNRESET)) {
    reply.problem = "more than one frame";
  }
  close(fd);
  if (!whole) {
    reply.problem = "no whole frame";
    return reply;
  }
  reply.kind = frame.kind;
  if (frame.kind == kLMFrameError) {
    auto error = lmParseErrorPayload(frame.payload);
    if (!error) reply.problem = "malformed error payload";
    reply.error = error.value_or(LMXPCError{});
  } else if (!frame.payload.empty()) {
    std::string why;
    auto decoded = lxDataUnserialize(frame.payload, &why);
    if (!decoded) reply.problem = "result is no archive: " + why;
    reply.result = decoded.value_or(LMValue());
  }
  return reply;
}

// The reply's error message, "result" for a result, or what was wrong with it.
inline std::u16string messageOf(const Reply& reply) {
  if (!reply.problem.empty()) return lmUtf16(reply.problem);
  return reply.kind == kLMFrameResult ? u"result" : reply.error.message;
}

inline int connectTo(const std::string& path) {
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

// Sends `bytes` on a new connection and leaves it open for the reply (a
// failed send is fine: the service may refuse early).
inline int sendOnly(const std::string& path, const Bytes& bytes) {
  const int fd = connectTo(path);
  for (size_t sent = 0; sent < bytes.size();) {
    const ssize_t n = send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) break;
    sent += static_cast<size_t>(n);
  }
  return fd;
}

// Sends `bytes`, then half-closes when asked and reads the reply (no whole
// frame when the connection failed).
inline Reply callRaw(const std::string& path, const Bytes& bytes, bool halfClose = false) {
  const int fd = sendOnly(path, bytes);
  if (halfClose) shutdown(fd, SHUT_WR);
  return replyOn(fd);
}

inline bool alive(pid_t pid) { return waitpid(pid, nullptr, WNOHANG) == 0; }

// Asks `done` every `step` until it says yes (true) or the patience is over.
template <typename Done>
bool waitUntil(Done done, std::chrono::milliseconds step = 5ms) {
  for (const auto deadline = std::chrono::steady_clock::now() + kPatience; !done();) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(step);
  }
  return true;
}

inline long rssKilobytes(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::strtol(line.c_str() + 6, nullptr, 10);
  }
  return -1;
}

// The log entries of this process's own clients and servers are captured.
class ServiceHarness : public LMQuietTest {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/lmreceipt-test-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(pattern));
    dir_ = pattern;
    socketPath_ = dir_ + "/lmreceipt-service.sock";
    // Clients and servers in this process use the folder too.
    for (const char* name : {"XDG_RUNTIME_DIR", "LM_SERVICE_DIR"}) {
      const char* value = std::getenv(name);
      savedEnvironment_.emplace_back(name, value ? std::optional<std::string>(value) : std::nullopt);
    }
    setenv("XDG_RUNTIME_DIR", dir_.c_str(), 1);
  }

  void TearDown() override {
    while (!pids_.empty()) waitForExit(pids_.back(), true);
    for (const auto& [name, value] : savedEnvironment_) {
      if (value) setenv(name.c_str(), value->c_str(), 1); else unsetenv(name.c_str());
    }
    savedEnvironment_.clear();
    std::filesystem::remove_all(dir_);
  }

  // Starts the service executable (or `executable`) with XDG_RUNTIME_DIR
  // set to the test's folder plus `env` (a bare "XDG_RUNTIME_DIR" leaves it
  // unset), its log in service.log; `activated` becomes fd 3.
  pid_t start(std::vector<std::string> env = {}, int activated = -1,
              std::string executable = LM_SERVICE_EXECUTABLE) {
    const bool unsetRuntime = std::erase(env, "XDG_RUNTIME_DIR") > 0;
    for (char** e = environ; *e; ++e) {
      if (!std::string_view(*e).starts_with("XDG_RUNTIME_DIR=")) env.emplace_back(*e);
    }
    if (!unsetRuntime) env.push_back("XDG_RUNTIME_DIR=" + dir_);
    std::vector<char*> envp;
    for (std::string& entry : env) envp.push_back(entry.data());
    envp.push_back(nullptr);
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
    bool connected = false;
    waitUntil([&] {
      const int fd = connectTo(path);
      if (fd >= 0) close(fd);
      connected = fd >= 0;
      return connected || !alive(pid);
    });
    return connected;
  }

  std::string log() const {
    const Bytes bytes = lmFileBytes(dir_ + "/service.log");
    return std::string(bytes.begin(), bytes.end());
  }

  // Waits until the log, from `from` on, holds `text`.
  bool waitForLog(const std::string& text, size_t from = 0) {
    return waitUntil([&] {
      const std::string all = log();
      return all.size() > from && all.find(text, from) != std::string::npos;
    });
  }

  // The exit status of `pid` once it ended by itself (-1 when it did not within
  // the patience), or after SIGTERM (SIGKILL when that does not end it). An
  // ended process is no longer the harness's to end.
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
    std::erase(pids_, pid);
    return status;
  }

  // A normal call still succeeds.
  void expectServing(const std::string& path) {
    const Reply reply = callRaw(path, requestFrame(LMDictionary{{u"data", lmTestdataBytes("sample-receipt.pdf")}}));
    ASSERT_EQ("", reply.problem);
    ASSERT_EQ(0, reply.kind) << lmUtf8(reply.error.message);
    EXPECT_EQ(u"15.3", reply.result.at(u"gross").toString());
  }

  std::string dir_;
  std::string socketPath_;
  std::vector<pid_t> pids_;
  std::vector<std::pair<std::string, std::optional<std::string>>> savedEnvironment_;
};

}  // namespace lm_test
