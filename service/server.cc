#include "service/server.h"

#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>
#include <utility>

#include "kit/diagnostics.h"
#include "kit/unicode.h"
#include "service/keyed_archive.h"
#include "service/transport.h"

namespace {

using Clock = std::chrono::steady_clock;

// How long the server must have been without calls before it hands freed
// memory back to the system.
constexpr auto kTrimDelay = std::chrono::seconds(1);
// After unpublishing on idle, queued connections are still served until the
// listen queue stays empty this long.
constexpr auto kDrainQuietTime = std::chrono::milliseconds(100);
constexpr auto kBusyPollInterval = std::chrono::milliseconds(50);
constexpr auto kLockPatience = std::chrono::seconds(5);
// Replies up to this size are sent without waiting (see serveConnection).
constexpr size_t kQuickReplyBytes = 64u << 10;
// The first socket passed by socket activation.
constexpr int kActivationFirstFd = 3;

std::string errnoText() { return std::strerror(errno); }

int millisecondsUntil(Clock::time_point when) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(when - Clock::now());
  return static_cast<int>(std::max<int64_t>(0, std::min<int64_t>(left.count(), INT32_MAX)));
}

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
  close(fd);
  return live;
}

}  // namespace

// --- LMListener ---

LMListener::~LMListener() {
  unpublish();
  if (fd_ >= 0) close(fd_);
  if (lockFd_ >= 0) close(lockFd_);
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
  const std::string path = lmServiceSocketPath(serviceName);
  if (path.empty()) return fail("No private folder for the socket");
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

// --- LMServer ---

LMServer::LMServer(WorkerFactory factory, LMServerOptions options)
    : factory_(std::move(factory)), options_(options) {
  if (options_.maxConnections == 0) options_.maxConnections = 1;
  // Reserved up front, so that a pool thread never allocates to go idle.
  threads_.reserve(options_.maxConnections);
  idle_.reserve(options_.maxConnections);
  wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  secondWakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

LMServer::~LMServer() {
  endThreads();
  for (int fd : queue_) close(fd);
  if (wakeFd_ >= 0) close(wakeFd_);
  if (secondWakeFd_ >= 0) close(secondWakeFd_);
}

void LMServer::stop() {
  stopRequested_.store(true);
  wake();
  if (secondWakeFd_ >= 0) {
    const uint64_t one = 1;
    [[maybe_unused]] ssize_t ignored = write(secondWakeFd_, &one, sizeof one);
  }
}

void LMServer::wake() {
  const uint64_t one = 1;
  [[maybe_unused]] ssize_t ignored = write(wakeFd_, &one, sizeof one);
}

void LMServer::serve(LMListener& listener) {
  lmLog("Started Worker");
  const int listenFd = listener.fd();
  setNonBlocking(listenFd);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    lastEnd_ = Clock::now();
  }
  bool trimmed = true;

  // This loop waits for connections as the first of two exclusive waiters:
  // the kernel wakes it alone while it waits, and the second acceptor (see
  // secondAcceptor) only while this thread is busy serving a call itself.
  int events = epoll_create1(EPOLL_CLOEXEC);
  auto watch = [&](int fd, uint32_t flags) {
    epoll_event e{};
    e.events = flags;
    e.data.fd = fd;
    return epoll_ctl(events, EPOLL_CTL_ADD, fd, &e) == 0;
  };
  if (events >= 0 && !(watch(wakeFd_, EPOLLIN) && watch(listenFd, EPOLLIN | EPOLLEXCLUSIVE))) {
    close(events);
    events = -1;
  }
  std::thread second;
  if (events < 0 || secondWakeFd_ < 0) {
    lmLogf("!!! Cannot watch the socket with epoll: %s", errnoText().c_str());
  } else {
    try {
      second = std::thread(&LMServer::secondAcceptor, this, listenFd);
    } catch (const std::exception& e) {
      lmLogf("!!! Cannot start the second acceptor: %s", e.what());
    }
  }
  // Without the second acceptor every call goes to a pool thread.
  const bool mayServeHere = second.joinable();

  auto acceptQueued = [&](size_t room) {
    size_t accepted = 0;
    for (int fd; accepted < room && (fd = acceptNext(listenFd)) >= 0; ++accepted) {
      if (!mayServeHere || !serveHereIfAlone(fd)) dispatch(fd);
    }
    if (accepted > 0) trimmed = false;
    return accepted;
  };

  bool idle = false;
  while (!stopRequested_.load()) {
    size_t active;
    Clock::time_point lastEnd;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      active = active_;
      lastEnd = lastEnd_;
    }
    // While calls run, the loop looks at the count every so often, so that
    // ending calls need not wake it (a wake-up costs the call's thread time).
    int timeout = active > 0 ? static_cast<int>(kBusyPollInterval.count()) : -1;
    if (active == 0) {
      const auto now = Clock::now();
      if (!trimmed) {
        if (now >= lastEnd + kTrimDelay) {
          malloc_trim(0);
          trimmed = true;
        } else {
          timeout = millisecondsUntil(lastEnd + kTrimDelay);
        }
      }
      if (options_.idleTimeout.count() > 0) {
        const auto idleAt = lastEnd + options_.idleTimeout;
        if (now >= idleAt) {
          idle = true;
          break;
        }
        const int untilIdle = millisecondsUntil(idleAt);
        timeout = timeout < 0 ? untilIdle : std::min(timeout, untilIdle);
      }
    }
    const bool full = active >= options_.maxConnections;
    bool wakeReady = false, listenReady = false;
    if (full || events < 0) {
      // Full: only the wake-up counts, the connections wait in the queue.
      pollfd fds[2] = {{wakeFd_, POLLIN, 0}, {listenFd, static_cast<short>(full ? 0 : POLLIN), 0}};
      if (poll(fds, 2, timeout) < 0 && errno != EINTR) {
        lmLogf("!!! poll: %s", errnoText().c_str());
        break;
      }
      wakeReady = fds[0].revents & POLLIN;
      listenReady = fds[1].revents & POLLIN;
    } else {
      epoll_event ready[2];
      const int n = epoll_wait(events, ready, 2, timeout);
      if (n < 0 && errno != EINTR) {
        lmLogf("!!! epoll_wait: %s", errnoText().c_str());
        break;
      }
      for (int i = 0; i < n; ++i) {
        (ready[i].data.fd == wakeFd_ ? wakeReady : listenReady) = true;
      }
    }
    if (wakeReady) {
      uint64_t count;
      [[maybe_unused]] ssize_t ignored = read(wakeFd_, &count, sizeof count);
    }
    if (!full && listenReady) acceptQueued(options_.maxConnections - active);
  }

  if (second.joinable()) {
    const uint64_t one = 1;
    [[maybe_unused]] ssize_t ignored = write(secondWakeFd_, &one, sizeof one);
    second.join();
  }
  if (events >= 0) close(events);
  listener.unpublish();
  if (idle) {
    // Clients that found the socket just before it was removed are queued;
    // they are served, the ones after them start a new service.
    lmLog("No connections for a while; shutting down");
    while (!stopRequested_.load()) {
      pollfd p{listenFd, POLLIN, 0};
      const int n = poll(&p, 1, static_cast<int>(kDrainQuietTime.count()));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0 || acceptQueued(SIZE_MAX) == 0) break;
    }
  }
  endThreads();
}

int LMServer::acceptNext(int listenFd) {
  while (true) {
    const int fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) return fd;
    if (errno == EINTR || errno == ECONNABORTED) continue;
    if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
      lmLogf("!!! Cannot accept a connection: %s", errnoText().c_str());
      usleep(50'000);  // the queue stays readable; don't spin on it
    }
    return -1;
  }
}

bool LMServer::serveHereIfAlone(int fd) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (active_ > 0) return false;
    ++active_;
  }
  // The connection is served on the thread its connect woke, which spares
  // the call waking a pool thread: on a virtual machine, waking a thread
  // whose processor sleeps costs more than all the rest of the transport.
  serveConnection(fd, /*onLoop=*/true);
  std::lock_guard<std::mutex> lock(mutex_);
  --active_;
  lastEnd_ = Clock::now();
  return true;
}

void LMServer::secondAcceptor(int listenFd) {
  const int events = epoll_create1(EPOLL_CLOEXEC);
  epoll_event listen{}, stop{};
  listen.events = EPOLLIN | EPOLLEXCLUSIVE;
  listen.data.fd = listenFd;
  stop.events = EPOLLIN;
  stop.data.fd = secondWakeFd_;
  if (events < 0 || epoll_ctl(events, EPOLL_CTL_ADD, listenFd, &listen) != 0 ||
      epoll_ctl(events, EPOLL_CTL_ADD, secondWakeFd_, &stop) != 0) {
    lmLogf("!!! The second acceptor cannot watch the socket: %s", errnoText().c_str());
    if (events >= 0) close(events);
    return;
  }
  while (!stopRequested_.load()) {
    epoll_event ready[2];
    const int n = epoll_wait(events, ready, 2, -1);
    if (n < 0) {
      if (errno == EINTR) continue;
      lmLogf("!!! epoll_wait: %s", errnoText().c_str());
      break;
    }
    bool listenReady = false, stopping = false;
    for (int i = 0; i < n; ++i) (ready[i].data.fd == listenFd ? listenReady : stopping) = true;
    if (stopping || stopRequested_.load()) break;
    if (!listenReady) continue;
    size_t room;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      room = active_ < options_.maxConnections ? options_.maxConnections - active_ : 0;
    }
    if (room == 0) {
      // Full: the connection waits in the queue; look again in a while.
      usleep(static_cast<useconds_t>(kBusyPollInterval.count()) * 1000);
      continue;
    }
    for (int fd; room > 0 && (fd = acceptNext(listenFd)) >= 0; --room) dispatch(fd);
  }
  close(events);
}

void LMServer::dispatch(int fd) {
  std::unique_lock<std::mutex> lock(mutex_);
  ++active_;
  // The thread that was busy last is warmest (caches, its memory arena).
  if (!idle_.empty()) {
    Slot* slot = idle_.back();
    idle_.pop_back();
    slot->fd = fd;
    // Woken after the lock is released, the thread does not wake only to
    // wait for the lock again. The slot outlives this: its thread ends only
    // after endThreads(), which runs on this thread.
    lock.unlock();
    slot->wakeUp.notify_one();
    return;
  }
  try {
    // A thread that is sending a small reply takes it as soon as it is done.
    if (queue_.size() < finishing_ || threads_.size() >= options_.maxConnections) {
      queue_.push_back(fd);
      return;
    }
    threads_.emplace_back(&LMServer::poolThread, this, fd);
  } catch (const std::exception& e) {
    // Out of threads or memory: a running thread takes it later, or, with
    // none running, the client sees the connection closed.
    lmLogf("!!! Cannot hand over a connection: %s", e.what());
    if (threads_.empty()) {
      --active_;
      close(fd);
    } else {
      queue_.push_back(fd);
    }
  }
}

void LMServer::endThreads() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    closing_ = true;
    for (Slot* slot : idle_) slot->wakeUp.notify_one();
    idle_.clear();
  }
  for (std::thread& thread : threads_) thread.join();
  threads_.clear();
}

void LMServer::poolThread(int fd) {
  Slot slot;
  std::unique_lock<std::mutex> lock(mutex_);
  while (true) {
    if (fd < 0 && !queue_.empty()) {
      fd = queue_.front();
      queue_.pop_front();
    }
    if (fd < 0) {
      if (closing_) return;
      idle_.push_back(&slot);
      slot.wakeUp.wait(lock, [&] { return slot.fd >= 0 || closing_; });
      if (slot.fd < 0) return;  // closing; endThreads() forgot the slot
      fd = std::exchange(slot.fd, -1);
    }
    lock.unlock();
    const bool finishing = serveConnection(fd);
    fd = -1;
    lock.lock();
    if (finishing) --finishing_;
    // The accept loop waits for a free place only when every place was
    // taken; otherwise it looks at the count again on its own (see serve).
    if (active_-- == options_.maxConnections) wake();
    lastEnd_ = Clock::now();
  }
}

struct LMServer::Outgoing {
  uint8_t kind = kLMFrameResult;
  std::vector<uint8_t> payload;
};

LMServer::Outgoing LMServer::errorReply(const char16_t* message) {
  return Outgoing{kLMFrameError,
                  lmErrorPayload(LMXPCError{kLMErrorDomain, kLMErrorCode, message})};
}

std::optional<LMServer::Outgoing> LMServer::answer(Call& call) {
  const int fd = call.fd;
  ucred peer{};
  socklen_t size = sizeof peer;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid != geteuid() &&
      peer.uid != 0) {
    lmLogf("!!! Refused a connection from user %u", static_cast<unsigned>(peer.uid));
    return std::nullopt;
  }

  LMFrame frame;
  uint64_t announced = 0;
  const LMFrameStatus status =
      lmReadFrame(fd, Clock::now() + options_.ioTimeout, &frame, &announced);
  const char16_t* refusal = nullptr;
  switch (status) {
    case LMFrameStatus::kOk:
      if (frame.kind != kLMFrameRequest) refusal = u"Bad request frame";
      break;
    case LMFrameStatus::kClosed:
      // Nothing to answer; also how a starting service checks for a live one.
      return std::nullopt;
    case LMFrameStatus::kTruncated:
      refusal = u"Incomplete request";
      break;
    case LMFrameStatus::kMalformed:
      refusal = u"Bad request frame";
      break;
    case LMFrameStatus::kTooLarge:
      refusal = u"Request too large";
      break;
    case LMFrameStatus::kTimedOut:
      refusal = u"Request timed out";
      break;
    case LMFrameStatus::kFailed:
      lmLogf("!!! Connection failed while reading the request: %s", errnoText().c_str());
      return std::nullopt;
  }
  if (refusal) {
    if (status == LMFrameStatus::kTooLarge) {
      lmLogf("!!! Refused request: Request too large (%llu bytes announced)",
             static_cast<unsigned long long>(announced));
    } else {
      lmLogf("!!! Refused request: %s", lmUtf8(refusal).c_str());
    }
    // The peer may have gone; then the error is simply not delivered.
    return errorReply(refusal);
  }

  LMValue request;
  if (!frame.payload.empty()) {
    std::string why;
    if (auto decoded = lxDataUnserialize(frame.payload, &why)) {
      request = std::move(*decoded);
    } else {
      lmLogf("lxDataUnserialize: %s", why.c_str());
    }
  }
  std::vector<uint8_t>().swap(frame.payload);

  // As a platform reply block sends its message when called, the reply
  // leaves the moment the worker gives it; what the worker still has to
  // release (the document, its findings, the request) goes while the client
  // reads the reply, and the log line of the finished task follows it.
  factory_()->performWithObject(std::move(request), [this, &call](LMXPCReply answered) {
    reply(call, outgoingFor(std::move(answered)));
  });
  // The runtime always answers; only making the frame can have failed (the
  // runtime logged why).
  if (!call.replied) return errorReply(u"Internal error");
  return std::nullopt;
}

LMServer::Outgoing LMServer::outgoingFor(LMXPCReply answered) {
  if (answered.error) return Outgoing{kLMFrameError, lmErrorPayload(*answered.error)};
  Outgoing out;
  if (answered.result) {
    std::string why;
    if (auto archived = lxDataSerialize(*answered.result, &why)) {
      out.payload = std::move(*archived);
    } else {
      // The client gets no bytes and no error.
      lmLogf("lxDataSerialize: %s", why.c_str());
    }
  }
  if (out.payload.size() > kLMMaxFrameBytes) {
    lmLogf("!!! Refused reply: Result too large (%zu bytes)", out.payload.size());
    return errorReply(u"Result too large");
  }
  return out;
}

void LMServer::reply(Call& call, const Outgoing& out) {
  if (call.replied) return;
  call.replied = true;
  // A reply this small fits the fresh socket's buffer, so sending it does not
  // wait for the client: this thread counts as finishing from here on, and
  // the client's next call, which may come before the thread is back, waits
  // for it rather than for a new, cold thread.
  // (Not on the accept loop, which takes nothing from queue_.)
  if (!call.onLoop && out.payload.size() <= kQuickReplyBytes) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++finishing_;
    call.finishing = true;
  }
  std::string why;
  if (!lmWriteFrame(call.fd, out.kind, out.payload, Clock::now() + options_.ioTimeout, &why)) {
    lmLogf("!!! Reply not delivered: %s", why.c_str());
  }
}

bool LMServer::serveConnection(int fd, bool onLoop) {
  Call call{fd};
  call.onLoop = onLoop;
  std::optional<Outgoing> out;
  try {
    out = answer(call);
  } catch (...) {
    out.reset();
    // Even logging may fail here (no memory); nothing may leave this function.
    try {
      try {
        throw;
      } catch (const std::exception& e) {
        lmLogf("!!! Connection failed: %s", e.what());
      } catch (...) {
        lmLog("!!! Connection failed: unknown exception");
      }
      out = errorReply(u"Internal error");
    } catch (...) {
    }
  }
  try {
    if (out) reply(call, *out);
  } catch (...) {
  }
  close(fd);
  return call.finishing;
}
