#include "service/listener.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "kit/diagnostics.h"
#include "service/transport.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kLockPatience = std::chrono::seconds(5);
// The first socket passed by socket activation.
constexpr int kActivationFirstFd = 3;

std::string errnoText() { return std::strerror(errno); }

bool setNonBlocking(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

// The listening socket socket activation handed to this process, if any.
// The variables are removed either way, so that no child takes them as its own.
std::optional<int> activatedSocket() {
  const char* pidText = std::getenv("LISTEN_PID");
  const char* countText = std::getenv("LISTEN_FDS");
  if (!pidText || !countText) return std::nullopt;
  const long pid = std::strtol(pidText, nullptr, 10);
  const long count = std::strtol(countText, nullptr, 10);
  unsetenv("LISTEN_PID");
  unsetenv("LISTEN_FDS");
  unsetenv("LISTEN_FDNAMES");
  if (pid != static_cast<long>(getpid()) || count < 1) return std::nullopt;
  if (count > 1) lmLogf("Using the first of %ld activated sockets", count);
  const int fd = kActivationFirstFd;
  int listening = 0;
  int type = 0;
  socklen_t size = sizeof listening;
  sockaddr_storage address{};
  socklen_t addressSize = sizeof address;
  if (getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) != 0 || !listening ||
      (size = sizeof type, getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size)) != 0 ||
      type != SOCK_STREAM ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &addressSize) != 0 ||
      address.ss_family != AF_UNIX) {
    lmLog("The activated socket is no listening Unix stream socket; ignored");
    return std::nullopt;
  }
  fcntl(fd, F_SETFD, FD_CLOEXEC);
  setNonBlocking(fd);
  return fd;
}

sockaddr_un socketAddress(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof address.sun_path - 1));
  return address;
}

// Whether a process accepts connections on `path` (a full listen queue counts).
bool isLive(const std::string& path) {
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return false;
  const sockaddr_un address = socketAddress(path);
  const int result = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  const bool live = result == 0 || errno == EAGAIN;
  ::close(fd);
  return live;
}

}  // namespace

LMListener::~LMListener() { close(); }

void LMListener::close() {
  unpublish();
  if (fd_ >= 0) ::close(fd_);
  if (lockFd_ >= 0) ::close(lockFd_);
  fd_ = lockFd_ = -1;
}

LMListener::Outcome LMListener::open(std::string_view serviceName, std::string* failure) {
  auto fail = [&](std::string why) {
    if (failure) *failure = std::move(why);
    return Outcome::kFailed;
  };
  if (auto fd = activatedSocket()) {
    fd_ = *fd;
    activated_ = true;
    return Outcome::kListening;
  }
  std::string why;
  const std::string path = lmServiceSocketPath(serviceName, &why);
  if (path.empty()) return fail("No private folder for the socket: " + why);
  const std::string lockPath =
      path.substr(0, path.rfind('/') + 1) + std::string(serviceName) + ".lock";
  lockFd_ = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (lockFd_ < 0) return fail("Cannot open " + lockPath + ": " + errnoText());

  const auto giveUp = Clock::now() + kLockPatience;
  while (flock(lockFd_, LOCK_EX | LOCK_NB) != 0) {
    if (errno == EINTR) continue;
    if (errno != EWOULDBLOCK) return fail("Cannot lock " + lockPath + ": " + errnoText());
    if (isLive(path)) return Outcome::kAlreadyServed;
    // The holder is starting up or shutting down: it will listen or let go.
    if (Clock::now() > giveUp) return fail(lockPath + " is held by a process that does not listen");
    usleep(20'000);
  }
  // Holding the lock, no other instance of ours binds; but another listener
  // (one set up for socket activation) may own the path.
  if (isLive(path)) return Outcome::kAlreadyServed;
  if (unlink(path.c_str()) != 0 && errno != ENOENT) {
    return fail("Cannot remove the stale " + path + ": " + errnoText());
  }
  fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd_ < 0) return fail("socket: " + errnoText());
  const sockaddr_un address = socketAddress(path);
  // The socket file is made with mode 0600 from the start: no moment in
  // which others could connect.
  const mode_t oldMask = umask(0177);
  const int bound = bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  const int bindError = errno;
  umask(oldMask);
  if (bound != 0) return fail("Cannot bind " + path + ": " + std::strerror(bindError));
  path_ = path;
  struct stat st {};
  if (lstat(path.c_str(), &st) == 0) {
    device_ = st.st_dev;
    inode_ = st.st_ino;
  }
  if (listen(fd_, SOMAXCONN) != 0) return fail("Cannot listen on " + path + ": " + errnoText());
  return Outcome::kListening;
}

void LMListener::unpublish() {
  if (path_.empty()) return;
  struct stat st {};
  if (lstat(path_.c_str(), &st) == 0 && st.st_dev == device_ && st.st_ino == inode_) {
    unlink(path_.c_str());
  }
  path_.clear();
}
