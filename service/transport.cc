#include "service/transport.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <thread>

#include "kit/unicode.h"

extern char** environ;

namespace {

constexpr uint8_t kMagic[4] = {'L', 'M', 'X', 'P'};
constexpr auto kConnectPatience = std::chrono::seconds(5);
// How long a started service may take to begin listening before the same
// process starts another one.
constexpr auto kSpawnQuietTime = std::chrono::seconds(5);

void putBigEndian(uint8_t* out, uint64_t value, int bytes) {
  for (int i = bytes - 1; i >= 0; --i) {
    out[i] = static_cast<uint8_t>(value & 0xFF);
    value >>= 8;
  }
}

uint64_t getBigEndian(const uint8_t* in, int bytes) {
  uint64_t value = 0;
  for (int i = 0; i < bytes; ++i) value = (value << 8) | in[i];
  return value;
}

// Milliseconds left until `deadline` for poll(): -1 for no deadline, 0 when past.
int pollTimeout(LMDeadline deadline) {
  if (deadline == kLMNoDeadline) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(
      deadline - std::chrono::steady_clock::now());
  return static_cast<int>(std::clamp<int64_t>(left.count(), 0, 24 * 3600 * 1000));
}

enum class Wait { kReady, kTimedOut, kFailed };

Wait waitFor(int fd, short events, LMDeadline deadline) {
  while (true) {
    pollfd p{fd, events, 0};
    const int n = poll(&p, 1, pollTimeout(deadline));
    if (n > 0) return Wait::kReady;  // readable, writable, hung up or failed: the I/O call tells
    if (n == 0) return Wait::kTimedOut;
    if (errno != EINTR) return Wait::kFailed;
  }
}

// A plain file name: not empty, no '/', not "." or "..".
bool isPlainName(std::string_view name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

bool isPrivateDirectory(const std::string& dir, bool followLinks) {
  struct stat st {};
  if ((followLinks ? stat(dir.c_str(), &st) : lstat(dir.c_str(), &st)) != 0) return false;
  return S_ISDIR(st.st_mode) && st.st_uid == geteuid() && (st.st_mode & 077) == 0;
}

bool fitsSocketAddress(const std::string& path) {
  return path.size() < sizeof(sockaddr_un{}.sun_path);
}

std::string errnoText(int error) { return std::strerror(error); }

class FdCloser {
 public:
  explicit FdCloser(int fd) : fd_(fd) {}
  ~FdCloser() {
    if (fd_ >= 0) close(fd_);
  }
  FdCloser(const FdCloser&) = delete;
  FdCloser& operator=(const FdCloser&) = delete;

 private:
  int fd_;
};

// --- Starting the service ---

bool isExecutableFile(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(path.c_str(), X_OK) == 0;
}

std::string findServiceExecutable(const std::string& name) {
  if (const char* dir = std::getenv("LM_SERVICE_DIR"); dir && *dir) {
    return std::string(dir) + "/" + name;  // used as given, so that a wrong setting shows
  }
  char self[4096];
  const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n > 0) {
    std::string path(self, static_cast<size_t>(n));
    path = path.substr(0, path.rfind('/') + 1) + name;
    if (isExecutableFile(path)) return path;
  }
#ifdef LM_SERVICE_INSTALL_DIR
  // Where the installed service lives, so that installed clients need no setting.
  if (const std::string path = LM_SERVICE_INSTALL_DIR "/" + name; isExecutableFile(path)) {
    return path;
  }
#endif
  const char* searchPath = std::getenv("PATH");
  std::string_view rest = searchPath ? searchPath : "/usr/local/bin:/usr/bin:/bin";
  while (!rest.empty()) {
    const size_t colon = rest.find(':');
    const std::string_view dir = rest.substr(0, colon);
    rest = colon == std::string_view::npos ? std::string_view() : rest.substr(colon + 1);
    if (dir.empty()) continue;
    const std::string path = std::string(dir) + "/" + name;
    if (isExecutableFile(path)) return path;
  }
  return std::string();
}

// Starts `executable` detached from this process: a grandchild in its own
// session, so that this process never has to reap it. Everything the
// children use is prepared before fork(), which only calls async-signal-safe
// functions afterwards. False (and `failure` set) when it could not be
// executed.
bool spawnDetached(const std::string& executable, const std::string& logPath,
                   std::string* failure) {
  std::vector<std::string> environment;
  for (char** e = environ; e && *e; ++e) {
    const std::string_view entry(*e);
    // A socket handed to this process is not meant for the service.
    if (entry.starts_with("LISTEN_PID=") || entry.starts_with("LISTEN_FDS=") ||
        entry.starts_with("LISTEN_FDNAMES=")) {
      continue;
    }
    environment.emplace_back(entry);
  }
  std::vector<char*> envp;
  for (std::string& entry : environment) envp.push_back(entry.data());
  envp.push_back(nullptr);
  std::string argv0 = executable;
  char* argv[] = {argv0.data(), nullptr};

  int status[2];
  if (pipe2(status, O_CLOEXEC) != 0) {
    *failure = "pipe: " + errnoText(errno);
    return false;
  }
  // Above the standard descriptors, which the grandchild replaces.
  for (int& end : status) {
    if (end < 3) {
      const int moved = fcntl(end, F_DUPFD_CLOEXEC, 3);
      close(end);
      end = moved;
    }
  }
  if (status[0] < 0 || status[1] < 0) {
    *failure = "pipe: " + errnoText(errno);
    if (status[0] >= 0) close(status[0]);
    if (status[1] >= 0) close(status[1]);
    return false;
  }
  const pid_t child = fork();
  if (child < 0) {
    *failure = "fork: " + errnoText(errno);
    close(status[0]);
    close(status[1]);
    return false;
  }
  if (child == 0) {
    setsid();
    if (fork() != 0) _exit(0);  // the grandchild goes on, orphaned on purpose
    const int in = open("/dev/null", O_RDONLY);
    const int out = open("/dev/null", O_WRONLY);
    const int log = open(logPath.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW, 0600);
    if (in >= 0) dup2(in, STDIN_FILENO);
    if (out >= 0) dup2(out, STDOUT_FILENO);
    if (log >= 0) dup2(log, STDERR_FILENO);
    const unsigned keep = static_cast<unsigned>(status[1]);  // 3 or above
    if ((keep > 3 && close_range(3, keep - 1, 0) != 0) || close_range(keep + 1, ~0u, 0) != 0) {
      for (int fd = 3; fd < 4096; ++fd) {
        if (fd != status[1]) close(fd);
      }
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    execve(executable.c_str(), argv, envp.data());
    const int error = errno;
    [[maybe_unused]] ssize_t ignored = write(status[1], &error, sizeof error);
    _exit(127);
  }
  close(status[1]);
  int childStatus = 0;
  while (waitpid(child, &childStatus, 0) < 0 && errno == EINTR) {
  }
  // End of file: the grandchild's copy closed on a successful exec.
  int error = 0;
  ssize_t got = -1;
  if (waitFor(status[0], POLLIN, std::chrono::steady_clock::now() + std::chrono::seconds(5)) ==
      Wait::kReady) {
    do {
      got = read(status[0], &error, sizeof error);
    } while (got < 0 && errno == EINTR);
  }
  close(status[0]);
  if (got == static_cast<ssize_t>(sizeof error)) {
    *failure = "Could not start " + executable + ": " + errnoText(error);
    return false;
  }
  return true;
}

// Starts the service unless this process started the same executable for
// the same socket a moment ago.
bool startService(const std::string& name, const std::string& socketPath, std::string* failure) {
  static std::mutex mutex;
  static std::map<std::string, std::chrono::steady_clock::time_point> lastStarts;
  std::lock_guard<std::mutex> lock(mutex);
  const auto now = std::chrono::steady_clock::now();
  const std::string executable = findServiceExecutable(name);
  if (executable.empty()) {
    *failure = "Could not find the service executable " + name;
    return false;
  }
  const std::string key = executable + '\0' + socketPath;
  if (auto it = lastStarts.find(key); it != lastStarts.end() && now - it->second < kSpawnQuietTime) {
    return true;
  }
  const std::string logPath = socketPath.substr(0, socketPath.rfind('/') + 1) + name + ".log";
  if (!spawnDetached(executable, logPath, failure)) return false;
  lastStarts[key] = now;
  return true;
}

// A connected socket, or -1 with `failure` set.
int connectOnDemand(const std::string& name, const std::string& path, LMDeadline callDeadline,
                    std::string* failure) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  const auto deadline = std::min(callDeadline, std::chrono::steady_clock::now() + kConnectPatience);
  auto pause = std::chrono::milliseconds(5);
  bool started = false;
  while (true) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
      *failure = "socket: " + errnoText(errno);
      return -1;
    }
    int result;
    do {
      result = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (result != 0 && errno == EINTR);
    if (result == 0) return fd;
    const int error = errno;
    close(fd);
    if (error == ENOENT || error == ECONNREFUSED) {
      if (!started && !startService(name, path, failure)) return -1;
      started = true;
    } else if (error != EAGAIN) {
      *failure = "Could not connect to " + path + ": " + errnoText(error);
      return -1;
    }
    if (std::chrono::steady_clock::now() + pause > deadline) {
      *failure = "The service did not answer at " + path + ": " + errnoText(error);
      return -1;
    }
    std::this_thread::sleep_for(pause);
    pause = std::min<std::chrono::milliseconds>(pause * 2, std::chrono::milliseconds(200));
  }
}

}  // namespace

std::string lmServiceSocketPath(std::string_view serviceName, std::string* failure) {
  auto fail = [&](std::string why) {
    if (failure) *failure = std::move(why);
    return std::string();
  };
  if (!isPlainName(serviceName)) return fail("\"" + std::string(serviceName) + "\" is no service name");
  const std::string file = std::string(serviceName) + ".sock";
  if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime && runtime[0] == '/') {
    const std::string path = std::string(runtime) + "/" + file;
    if (fitsSocketAddress(path) && isPrivateDirectory(runtime, true)) return path;
  }
  const std::string dir =
      "/tmp/" + std::string(serviceName) + "-" + std::to_string(geteuid());
  const std::string fix = "; remove it or set XDG_RUNTIME_DIR to a folder of yours that only you may enter";
  if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
    return fail("Cannot make the folder " + dir + ": " + errnoText(errno) + fix);
  }
  // Not following links: in /tmp anyone may have made the name first.
  struct stat st {};
  if (lstat(dir.c_str(), &st) != 0) return fail("Cannot use " + dir + ": " + errnoText(errno));
  if (!S_ISDIR(st.st_mode)) return fail(dir + " is not a folder (a link or a file)" + fix);
  if (st.st_uid != geteuid()) {
    return fail(dir + " belongs to user " + std::to_string(st.st_uid) + ", not to you (user " +
                std::to_string(geteuid()) + ")" + fix);
  }
  if ((st.st_mode & 077) != 0) {
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
    return fail(dir + " has mode " + mode + ", so others may enter it; run chmod 700 " + dir +
                " (or remove it)");
  }
  const std::string path = dir + "/" + file;
  if (!fitsSocketAddress(path)) return fail(path + " is too long for a socket address");
  return path;
}

std::array<uint8_t, kLMFrameHeaderBytes> lmFrameHeader(uint8_t kind, uint64_t payloadBytes) {
  std::array<uint8_t, kLMFrameHeaderBytes> header{};
  std::memcpy(header.data(), kMagic, sizeof kMagic);
  header[4] = kLMFrameVersion;
  header[5] = kind;
  putBigEndian(header.data() + 8, payloadBytes, 8);
  return header;
}

std::vector<uint8_t> lmErrorPayload(const LMXPCError& error) {
  const std::string domain = lmUtf8(error.domain);
  const std::string message = lmUtf8(error.message);
  std::vector<uint8_t> payload(8 + 4 + domain.size() + 4 + message.size());
  uint8_t* out = payload.data();
  putBigEndian(out, static_cast<uint64_t>(error.code), 8);
  out += 8;
  for (const std::string* text : {&domain, &message}) {
    putBigEndian(out, text->size(), 4);
    std::memcpy(out + 4, text->data(), text->size());
    out += 4 + text->size();
  }
  return payload;
}

std::optional<LMXPCError> lmParseErrorPayload(std::span<const uint8_t> payload) {
  if (payload.size() < 8) return std::nullopt;
  LMXPCError error;
  error.code = static_cast<int64_t>(getBigEndian(payload.data(), 8));
  payload = payload.subspan(8);
  std::u16string* texts[] = {&error.domain, &error.message};
  for (std::u16string* text : texts) {
    if (payload.size() < 4) return std::nullopt;
    const uint64_t size = getBigEndian(payload.data(), 4);
    if (payload.size() - 4 < size) return std::nullopt;
    auto decoded = lmUtf16Strict(
        std::string_view(reinterpret_cast<const char*>(payload.data() + 4), size));
    if (!decoded) return std::nullopt;
    *text = std::move(*decoded);
    payload = payload.subspan(4 + size);
  }
  if (!payload.empty()) return std::nullopt;
  return error;
}

LMFrameStatus LMFrameReader::readAvailable(int fd, size_t budget) {
  // Grows with what arrives, so that a header alone cannot make us allocate.
  constexpr size_t kFirstChunk = 64u << 10;
  size_t taken = 0;
  while (taken < budget) {
    uint8_t* into;
    size_t want;
    if (!headerRead_) {
      into = header_ + headerBytes_;
      want = sizeof header_ - headerBytes_;
    } else {
      if (have_ == length_) return LMFrameStatus::kOk;
      if (have_ == frame_.payload.size()) {
        frame_.payload.resize(static_cast<size_t>(
            std::min<uint64_t>(length_, std::max<size_t>(kFirstChunk, 2 * have_))));
      }
      into = frame_.payload.data() + have_;
      want = frame_.payload.size() - have_;
    }
    const ssize_t n = recv(fd, into, want, MSG_DONTWAIT);
    if (n == 0) {
      return headerBytes_ == 0 ? LMFrameStatus::kClosed : LMFrameStatus::kTruncated;
    }
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) return LMFrameStatus::kPending;
      return LMFrameStatus::kFailed;
    }
    taken += static_cast<size_t>(n);
    if (headerRead_) {
      have_ += static_cast<size_t>(n);
      continue;
    }
    headerBytes_ += static_cast<size_t>(n);
    if (headerBytes_ < sizeof header_) continue;
    if (std::memcmp(header_, kMagic, sizeof kMagic) != 0 || header_[4] != kLMFrameVersion ||
        header_[6] != 0 || header_[7] != 0) {
      return LMFrameStatus::kMalformed;
    }
    headerRead_ = true;
    length_ = getBigEndian(header_ + 8, 8);
    if (length_ > kLMMaxFrameBytes) return LMFrameStatus::kTooLarge;
    frame_.kind = header_[5];
    frame_.payload.clear();
  }
  return headerRead_ && have_ == length_ ? LMFrameStatus::kOk : LMFrameStatus::kPending;
}

LMFrameStatus lmReadFrame(int fd, LMDeadline deadline, LMFrame* frame, uint64_t* announced) {
  LMFrameReader reader;
  while (true) {
    const LMFrameStatus status = reader.readAvailable(fd);
    if (announced) *announced = reader.announced();
    if (status == LMFrameStatus::kOk) *frame = std::move(reader.frame());
    if (status != LMFrameStatus::kPending) return status;
    const Wait w = waitFor(fd, POLLIN, deadline);
    if (w == Wait::kTimedOut) return LMFrameStatus::kTimedOut;
    if (w == Wait::kFailed) return LMFrameStatus::kFailed;
  }
}

bool lmWriteFrame(int fd, uint8_t kind, std::span<const uint8_t> payload, LMDeadline deadline,
                  std::string* failure) {
  const auto header = lmFrameHeader(kind, payload.size());
  iovec parts[2] = {{const_cast<uint8_t*>(header.data()), header.size()},
                    {const_cast<uint8_t*>(payload.data()), payload.size()}};
  iovec* next = parts;
  size_t count = payload.empty() ? 1 : 2;
  while (count > 0) {
    msghdr message{};
    message.msg_iov = next;
    message.msg_iovlen = count;
    const ssize_t n = sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        const Wait w = waitFor(fd, POLLOUT, deadline);
        if (w == Wait::kReady) continue;
        if (failure) *failure = w == Wait::kTimedOut ? "timed out" : errnoText(errno);
        return false;
      }
      if (failure) *failure = errnoText(errno);
      return false;
    }
    size_t written = static_cast<size_t>(n);
    while (count > 0 && written >= next->iov_len) {
      written -= next->iov_len;
      ++next;
      --count;
    }
    if (count > 0) {
      next->iov_base = static_cast<uint8_t*>(next->iov_base) + written;
      next->iov_len -= written;
    }
  }
  return true;
}

std::optional<LMWireReply> lmServiceCall(std::string_view serviceName,
                                         std::span<const uint8_t> request,
                                         std::string* failure, LMDeadline deadline) {
  std::string why;
  auto fail = [&](std::string reason) -> std::optional<LMWireReply> {
    if (failure) *failure = std::move(reason);
    return std::nullopt;
  };
  if (request.size() > kLMMaxFrameBytes) return fail("Request too large");
  const std::string name(serviceName);
  const std::string path = lmServiceSocketPath(name, &why);
  if (path.empty()) return fail("No private folder for the socket of " + name + ": " + why);
  const int fd = connectOnDemand(name, path, deadline, &why);
  if (fd < 0) return fail(why);
  FdCloser closer(fd);

  // A service that refuses a request from its header answers before reading
  // the rest, so the reply is read even when sending failed.
  const bool sent = lmWriteFrame(fd, kLMFrameRequest, request, deadline, &why);
  LMFrame frame;
  const LMFrameStatus status = lmReadFrame(fd, deadline, &frame);
  if (status != LMFrameStatus::kOk) {
    if (status == LMFrameStatus::kTimedOut) return fail("The service did not answer in time");
    if (!sent) return fail("Could not send the request: " + why);
    return fail(status == LMFrameStatus::kClosed || status == LMFrameStatus::kTruncated
                    ? "The service closed the connection without a reply"
                    : "The service's reply is not a frame");
  }
  if (frame.kind == kLMFrameResult) return LMWireReply{std::move(frame.payload), std::nullopt};
  if (frame.kind == kLMFrameError) {
    auto error = lmParseErrorPayload(frame.payload);
    if (!error) return fail("The service's error reply is malformed");
    return LMWireReply{{}, std::move(error)};
  }
  return fail("The service's reply has an unknown kind");
}

std::string lmSecondsText(std::chrono::milliseconds duration) {
  char text[32];
  if (duration.count() % 1000 == 0) {
    std::snprintf(text, sizeof text, "%lld s", static_cast<long long>(duration.count() / 1000));
  } else {
    std::snprintf(text, sizeof text, "%g s", static_cast<double>(duration.count()) / 1000.0);
  }
  return text;
}
