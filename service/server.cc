#include "service/server.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
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
// After unpublishing, queued connections are still accepted until the
// listen queue stays empty this long.
constexpr auto kDrainQuietTime = std::chrono::milliseconds(100);
// How long cancelled calls get to stop when the grace time is over.
constexpr auto kCancelPatience = std::chrono::seconds(3);
// Bytes the loop reads from one connection before it looks at the others.
constexpr size_t kReadBudget = 1u << 20;
// The epoll identities of the wake-up and the listening socket; connections
// have the numbers from 2 on (LMServer::nextId_).
constexpr uint64_t kWakeId = 0, kListenId = 1;

std::string errnoText() { return std::strerror(errno); }

int millisecondsUntil(Clock::time_point when) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(when - Clock::now());
  return static_cast<int>(std::max<int64_t>(0, std::min<int64_t>(left.count(), INT32_MAX)));
}

bool setNonBlocking(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

}  // namespace

struct LMServer::Connection {
  enum class State { kReading, kWaiting, kRunning };
  uint64_t id = 0;
  int fd = -1;
  // Changed by the loop (to waiting) and a worker (to running), under the
  // server's lock; the loop also looks without it.
  std::atomic<State> state{State::kReading};
  LMFrameReader reader;  // the loop's, while reading
  LMFrame request;
  bool hasDeadline = false;
  Clock::time_point deadline;
  // Set by whoever sends the one reply: the worker, or the loop when the
  // call ran out of time or the service stops.
  std::atomic<bool> answered{false};
  std::shared_ptr<LMCancellation> cancellation = std::make_shared<LMCancellation>();
};

struct LMServer::Idle {
  std::condition_variable wakeUp;
  ConnectionPtr call;
};

namespace {

std::vector<uint8_t> errorPayload(const std::u16string& message) {
  return lmErrorPayload(LMXPCError{kLMErrorDomain, kLMErrorCode, message});
}

// The answer to a request that ended with `status`; nullptr when nothing
// is sent (a whole frame, or a connection that closed or failed).
const char16_t* refusalFor(LMFrameStatus status) {
  switch (status) {
    case LMFrameStatus::kTruncated:
      return u"Incomplete request";
    case LMFrameStatus::kMalformed:
      return u"Bad request frame";
    case LMFrameStatus::kTooLarge:
      return u"Request too large";
    case LMFrameStatus::kTimedOut:
      return u"Request timed out";
    default:
      return nullptr;
  }
}

void logRefusal(const std::u16string& message, LMFrameStatus status, uint64_t announced) {
  if (status == LMFrameStatus::kTooLarge) {
    lmLogf("!!! Refused request: Request too large (%llu bytes announced)",
           static_cast<unsigned long long>(announced));
  } else {
    lmLogf("!!! Refused request: %s", lmUtf8(message).c_str());
  }
}

// The reply frame of what a worker answered; the result's tree is released
// as it is archived.
std::pair<uint8_t, std::vector<uint8_t>> replyFrame(LMXPCReply answered) {
  if (answered.error) return {kLMFrameError, lmErrorPayload(*answered.error)};
  std::vector<uint8_t> payload;
  if (answered.result) {
    std::string why;
    if (auto archived = lxDataSerializeReleasing(std::move(*answered.result), &why)) {
      payload = std::move(*archived);
    } else {
      // The client gets no bytes and no error.
      lmLogf("lxDataSerialize: %s", why.c_str());
    }
  }
  if (payload.size() > kLMMaxFrameBytes) {
    lmLogf("!!! Refused reply: Result too large (%zu bytes)", payload.size());
    return {kLMFrameError, errorPayload(u"Result too large")};
  }
  return {kLMFrameResult, std::move(payload)};
}

}  // namespace

LMServer::LMServer(WorkerFactory factory, LMServerOptions options)
    : factory_(std::move(factory)), options_(options) {
  if (options_.workers == 0) options_.workers = 1;
  options_.maxConnections = std::max(options_.maxConnections, options_.workers);
  wakeFd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

LMServer::~LMServer() {
  endWorkers();
  for (auto& [id, connection] : connections_) ::close(connection->fd);
  if (events_ >= 0) ::close(events_);
  if (wakeFd_ >= 0) ::close(wakeFd_);
}

void LMServer::stop() {
  stopRequested_.store(true);
  wake();
}

void LMServer::wake() {
  const uint64_t one = 1;
  [[maybe_unused]] ssize_t ignored = write(wakeFd_, &one, sizeof one);
}

bool LMServer::serve(LMListener& listener) {
  lmLog("Started Worker");
  const int listenFd = listener.fd();
  setNonBlocking(listenFd);
  events_ = epoll_create1(EPOLL_CLOEXEC);
  auto watch = [&](int op, int fd, uint64_t id, uint32_t flags) {
    epoll_event e{};
    e.events = flags;
    e.data.u64 = id;
    return epoll_ctl(events_, op, fd, &e) == 0;
  };
  if (events_ < 0 || wakeFd_ < 0 || !watch(EPOLL_CTL_ADD, wakeFd_, kWakeId, EPOLLIN) ||
      !watch(EPOLL_CTL_ADD, listenFd, kListenId, EPOLLIN)) {
    lmLogf("!!! Cannot watch the socket: %s", errnoText().c_str());
    return true;
  }
  for (size_t i = 0; i < options_.workers; ++i) {
    try {
      workers_.emplace_back(&LMServer::workerThread, this);
    } catch (const std::exception& e) {
      lmLogf("!!! Cannot start a worker thread: %s", e.what());
      if (workers_.empty()) return true;
      break;
    }
  }
  lastEnd_ = Clock::now();

  Phase phase = Phase::kServing;
  Clock::time_point quietUntil, graceEnd = Clock::time_point::max();
  bool listening = true, trimmed = true;
  while (true) {
    auto now = Clock::now();
    if (stopRequested_.load() && graceEnd == Clock::time_point::max()) {
      graceEnd = now + options_.stopGrace;
      if (phase == Phase::kServing) lmLog("Stopping");
    }
    size_t open;
    Clock::time_point lastEnd;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      open = connections_.size();
      lastEnd = lastEnd_;
      wakeOnEnd_ = phase != Phase::kServing || open >= options_.maxConnections;
    }
    if (phase == Phase::kServing &&
        (stopRequested_.load() || (open == 0 && options_.idleTimeout.count() > 0 &&
                                   now >= lastEnd + options_.idleTimeout))) {
      if (!stopRequested_.load()) lmLog("No connections for a while; shutting down");
      // New clients no longer find this service (and start another); the
      // ones that found it just before are still served.
      listener.unpublish();
      phase = Phase::kDraining;
      quietUntil = now + kDrainQuietTime;
    }
    if (phase == Phase::kDraining && now >= quietUntil) {
      epoll_ctl(events_, EPOLL_CTL_DEL, listenFd, nullptr);
      // Releases the lock too: a new service may start while this one ends.
      listener.close();
      phase = Phase::kClosing;
      listening = false;
    }
    if (phase == Phase::kClosing) {
      if (open == 0) break;
      if (now >= graceEnd) {
        endAll(u"Service is stopping");
        break;
      }
    }
    if (phase != Phase::kClosing && listening != (open < options_.maxConnections)) {
      // Full: connections wait in the listen queue until a call ends.
      listening = !listening;
      watch(EPOLL_CTL_MOD, listenFd, kListenId, listening ? uint32_t{EPOLLIN} : 0u);
    }
    if (open == 0 && !trimmed && now >= lastEnd + kTrimDelay) {
      malloc_trim(0);
      trimmed = true;
    }

    Clock::time_point wakeAt = std::min(graceEnd, phase == Phase::kDraining ? quietUntil
                                                                              : Clock::time_point::max());
    if (open == 0 && !trimmed) wakeAt = std::min(wakeAt, lastEnd + kTrimDelay);
    if (open == 0 && phase == Phase::kServing && options_.idleTimeout.count() > 0) {
      wakeAt = std::min(wakeAt, lastEnd + options_.idleTimeout);
    }
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (!deadlines_.empty()) wakeAt = std::min(wakeAt, deadlines_.begin()->first);
      loopWakesAt_ = wakeAt;
    }
    const int timeout = wakeAt == Clock::time_point::max() ? -1 : millisecondsUntil(wakeAt);
    epoll_event ready[64];
    const int n = epoll_wait(events_, ready, 64, timeout);
    if (n < 0 && errno != EINTR) {
      lmLogf("!!! epoll_wait: %s", errnoText().c_str());
      endAll(u"Internal error");
      break;
    }
    for (int i = 0; i < n; ++i) {
      const uint64_t id = ready[i].data.u64;
      if (id == kWakeId) {
        uint64_t count;
        [[maybe_unused]] ssize_t ignored = read(wakeFd_, &count, sizeof count);
      } else if (id == kListenId) {
        if (phase != Phase::kClosing) {
          acceptQueued(listenFd);
          trimmed = false;
          if (phase == Phase::kDraining) quietUntil = Clock::now() + kDrainQuietTime;
        }
      } else {
        ConnectionPtr connection;
        {
          std::lock_guard<std::mutex> lock(mutex_);
          if (auto it = connections_.find(id); it != connections_.end()) connection = it->second;
        }
        if (!connection) continue;  // ended meanwhile
        if (connection->state == Connection::State::kReading) {
          readRequest(connection);
        } else if (ready[i].events & (EPOLLHUP | EPOLLERR)) {
          hungUp(id);
        }
      }
    }
    expire(Clock::now());
  }

  bool ended;
  {
    std::unique_lock<std::mutex> lock(mutex_);
    ended = callEnded_.wait_for(lock, kCancelPatience, [&] { return running_ == 0; });
    if (!ended) {
      lmLogf("!!! %zu calls did not stop when cancelled", running_);
      return false;
    }
  }
  endWorkers();
  return true;
}

void LMServer::endWorkers() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    closing_ = true;
    for (Idle* worker : idle_) worker->wakeUp.notify_one();
  }
  for (std::thread& worker : workers_) worker.join();
  workers_.clear();
}

void LMServer::acceptQueued(int listenFd) {
  while (true) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (connections_.size() >= options_.maxConnections) return;
    }
    const int fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
        lmLogf("!!! Cannot accept a connection: %s", errnoText().c_str());
        usleep(50'000);  // the queue stays readable; don't spin on it
      }
      return;
    }
    ucred peer{};
    socklen_t size = sizeof peer;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && peer.uid != geteuid() &&
        peer.uid != 0) {
      lmLogf("!!! Refused a connection from user %u", static_cast<unsigned>(peer.uid));
      ::close(fd);
      continue;
    }
    auto connection = std::make_shared<Connection>();
    connection->fd = fd;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      connection->id = nextId_++;
      connections_.emplace(connection->id, connection);
      setDeadline(*connection, Clock::now() + options_.requestTimeout);
    }
    epoll_event e{};
    e.events = EPOLLIN;
    e.data.u64 = connection->id;
    if (epoll_ctl(events_, EPOLL_CTL_ADD, fd, &e) != 0) {
      lmLogf("!!! Cannot watch a connection: %s", errnoText().c_str());
      refuse(connection, u"Internal error");
      continue;
    }
    // The request is usually there already.
    readRequest(connection);
  }
}

void LMServer::readRequest(const ConnectionPtr& connection) {
  const LMFrameStatus status = connection->reader.readAvailable(connection->fd, kReadBudget);
  if (status == LMFrameStatus::kPending) return;
  if (status == LMFrameStatus::kOk && connection->reader.frame().kind == kLMFrameRequest) {
    connection->request = std::move(connection->reader.frame());
    // From now on only a hang-up counts (reported without asking).
    epoll_event e{};
    e.data.u64 = connection->id;
    epoll_ctl(events_, EPOLL_CTL_MOD, connection->fd, &e);
    Idle* worker = nullptr;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (idle_.empty()) {
        connection->state = Connection::State::kWaiting;
        setDeadline(*connection, Clock::now() + options_.busyWait);
        waiting_.push_back(connection);
      } else {
        worker = idle_.back();
        idle_.pop_back();
        startCall(*connection);
        worker->call = connection;
      }
    }
    // The worker's Idle lives as long as its thread, which ends only after
    // endWorkers(), on this thread.
    if (worker) worker->wakeUp.notify_one();
    return;
  }
  const char16_t* refusal = status == LMFrameStatus::kOk ? u"Bad request frame" : refusalFor(status);
  if (status == LMFrameStatus::kFailed) {
    lmLogf("!!! Connection failed while reading the request: %s", errnoText().c_str());
  }
  if (refusal) {
    logRefusal(refusal, status, connection->reader.announced());
    refuse(connection, refusal);
    return;
  }
  // Closed without a request: nothing to answer; also how a starting
  // service checks for a live one.
  std::lock_guard<std::mutex> lock(mutex_);
  forget(connection);
  ::close(connection->fd);
}

void LMServer::refuse(const ConnectionPtr& connection, const std::u16string& message) {
  // A small frame on a connection nothing was written to yet: it fits the
  // socket's buffer, so no waiting. The peer may have gone; then it is lost.
  lmWriteFrame(connection->fd, kLMFrameError, errorPayload(message), Clock::now());
  std::lock_guard<std::mutex> lock(mutex_);
  forget(connection);
  ::close(connection->fd);
}

void LMServer::forget(const ConnectionPtr& connection) {
  if (connection->hasDeadline) deadlines_.erase({connection->deadline, connection->id});
  connection->hasDeadline = false;
  connections_.erase(connection->id);
}

void LMServer::setDeadline(Connection& connection, Clock::time_point when) {
  if (connection.hasDeadline) deadlines_.erase({connection.deadline, connection.id});
  connection.deadline = when;
  connection.hasDeadline = true;
  deadlines_.emplace(when, connection.id);
  // A worker's call time limit may come before the loop means to look.
  if (when < loopWakesAt_) wake();
}

void LMServer::hungUp(uint64_t id) {
  std::unique_lock<std::mutex> lock(mutex_);
  const auto it = connections_.find(id);
  if (it == connections_.end()) return;
  const ConnectionPtr connection = it->second;
  if (connection->state == Connection::State::kWaiting) {
    std::erase(waiting_, connection);
    forget(connection);
    ::close(connection->fd);
    lock.unlock();
    lmLog("!!! The client went away before its call ran");
    return;
  }
  // Running: the worker closes the socket when it ends, so it is still this one.
  epoll_ctl(events_, EPOLL_CTL_DEL, connection->fd, nullptr);
  lock.unlock();
  connection->cancellation->cancel(u"The client went away");
}

void LMServer::expire(Clock::time_point now) {
  std::vector<std::pair<ConnectionPtr, const char16_t*>> refused;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    while (!deadlines_.empty() && deadlines_.begin()->first <= now) {
      const ConnectionPtr connection = connections_.at(deadlines_.begin()->second);
      deadlines_.erase(deadlines_.begin());
      connection->hasDeadline = false;
      switch (connection->state) {
        case Connection::State::kReading:
          refused.emplace_back(connection, u"Request timed out");
          break;
        case Connection::State::kWaiting:
          std::erase(waiting_, connection);
          refused.emplace_back(connection, u"Service busy");
          break;
        case Connection::State::kRunning: {
          // Answered here, under the lock, while the worker cannot close the
          // socket; the worker's own reply, when it comes, is dropped.
          const std::u16string message =
              u"Call took longer than " + lmUtf16(lmSecondsText(options_.callTimeLimit));
          if (!connection->answered.exchange(true)) {
            lmLogf("!!! %s; answered and cancelled", lmUtf8(message).c_str());
            lmWriteFrame(connection->fd, kLMFrameError, errorPayload(message), now);
            shutdown(connection->fd, SHUT_RDWR);
          }
          connection->cancellation->cancel(message);
          break;
        }
      }
    }
  }
  for (const auto& [connection, message] : refused) {
    logRefusal(message, LMFrameStatus::kTimedOut, 0);
    refuse(connection, message);
  }
}

void LMServer::endAll(const std::u16string& message) {
  std::vector<ConnectionPtr> refused;
  size_t running;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [id, connection] : connections_) {
      if (connection->state != Connection::State::kRunning) {
        refused.push_back(connection);
        continue;
      }
      if (!connection->answered.exchange(true)) {
        lmWriteFrame(connection->fd, kLMFrameError, errorPayload(message), Clock::now());
        shutdown(connection->fd, SHUT_RDWR);
      }
      connection->cancellation->cancel(message);
    }
    waiting_.clear();
    running = running_;
  }
  if (!refused.empty() || running > 0) {
    lmLogf("!!! %s: ended %zu calls and connections", lmUtf8(message).c_str(),
           refused.size() + running);
  }
  for (const ConnectionPtr& connection : refused) refuse(connection, message);
}

void LMServer::startCall(Connection& connection) {
  connection.state = Connection::State::kRunning;
  ++running_;
  setDeadline(connection, Clock::now() + options_.callTimeLimit);
}

void LMServer::workerThread() {
  Idle self;
  std::unique_lock<std::mutex> lock(mutex_);
  while (true) {
    ConnectionPtr connection;
    if (!waiting_.empty()) {
      connection = std::move(waiting_.front());
      waiting_.pop_front();
      startCall(*connection);
    } else {
      if (closing_) return;
      idle_.push_back(&self);
      self.wakeUp.wait(lock, [&] { return self.call || closing_; });
      if (!self.call) {
        std::erase(idle_, &self);
        return;
      }
      connection = std::move(self.call);
    }
    lock.unlock();
    runCall(*connection);
    lock.lock();
    --running_;
    forget(connection);
    ::close(connection->fd);
    lastEnd_ = Clock::now();
    if (wakeOnEnd_) wake();
    callEnded_.notify_all();
  }
}

bool LMServer::answer(Connection& connection, uint8_t kind, const std::vector<uint8_t>& payload,
                      Clock::time_point deadline) {
  if (connection.answered.exchange(true)) return false;
  std::string why;
  if (!lmWriteFrame(connection.fd, kind, payload, deadline, &why)) {
    lmLogf("!!! Reply not delivered: %s", why.c_str());
  }
  return true;
}

void LMServer::runCall(Connection& connection) {
  lmCatchAll([&] {
    LMValue request;
    if (!connection.request.payload.empty()) {
      std::string why;
      auto decoded = lxDataUnserialize(connection.request.payload, &why);
      std::vector<uint8_t>().swap(connection.request.payload);
      if (!decoded) {
        const std::u16string message = u"Unreadable request: " + lmUtf16(why);
        logRefusal(message, LMFrameStatus::kOk, 0);
        answer(connection, kLMFrameError, errorPayload(message), Clock::now() + options_.replyTimeout);
        return;
      }
      request = std::move(*decoded);
    }
    std::unique_ptr<LMXPCBaseWorker> worker = factory_();
    worker->setCancellation(connection.cancellation);
    // As a platform reply block sends its message when called, the reply
    // leaves the moment the worker gives it; what the worker still has to
    // release (the request, its log line) goes while the client reads it.
    worker->performWithObject(std::move(request), [&](LMXPCReply answered) {
      const auto [kind, payload] = replyFrame(std::move(answered));
      answer(connection, kind, payload, Clock::now() + options_.replyTimeout);
    });
    // The runtime always answers; only making the frame can have failed
    // (the runtime logged why).
    answer(connection, kLMFrameError, errorPayload(u"Internal error"), Clock::now() + options_.replyTimeout);
  }, [&](const std::string& message) {
    lmLogf("!!! Connection failed: %s", message.c_str());
    answer(connection, kLMFrameError, errorPayload(u"Internal error"),
           Clock::now() + options_.replyTimeout);
  });
}

void LMServer::serveSocket(int fd) {
  Connection connection;
  connection.fd = fd;
  uint64_t announced = 0;
  const LMFrameStatus status =
      lmReadFrame(fd, Clock::now() + options_.requestTimeout, &connection.request, &announced);
  const char16_t* refusal = refusalFor(status);
  if (status == LMFrameStatus::kOk && connection.request.kind != kLMFrameRequest) {
    refusal = u"Bad request frame";
  }
  if (refusal) {
    lmCatchAll([&] {
      logRefusal(refusal, status, announced);
      lmWriteFrame(fd, kLMFrameError, errorPayload(refusal), Clock::now());
    }, [](const std::string&) {});
  } else if (status == LMFrameStatus::kOk) {
    runCall(connection);
  }
  ::close(fd);
}
