// The service's side of the transport: the server that reads requests and
// runs one worker per call.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "service/listener.h"
#include "service/worker_runtime.h"

// Limits and timeouts of one server; service_main.cc reads them from the
// environment (docs/reliability.md lists the variables).
struct LMServerOptions {
  // Calls that run at once: the fixed number of worker threads.
  size_t workers = 4;
  // Connections held open at once, calls included; beyond it new ones wait
  // in the listen queue.
  size_t maxConnections = 256;
  // The whole request frame must arrive within this time of the accept.
  std::chrono::milliseconds requestTimeout = std::chrono::seconds(5);
  // A complete request waits this long for a free worker, then is answered
  // "Service busy".
  std::chrono::milliseconds busyWait = std::chrono::seconds(10);
  // A call that runs longer is answered "Call took longer than <limit>" and
  // its worker's cancellation is raised.
  std::chrono::milliseconds callTimeLimit = std::chrono::seconds(60);
  // The client must take the reply within this time.
  std::chrono::milliseconds replyTimeout = std::chrono::seconds(10);
  // After stop(), calls in progress may finish within this time; then they
  // are answered "Service is stopping" and cancelled.
  std::chrono::milliseconds stopGrace = std::chrono::seconds(5);
  // serve() returns after this long without any connection (zero: never).
  std::chrono::milliseconds idleTimeout = std::chrono::seconds(60);
};

// Serves calls: per connection one request frame, one fresh worker, one
// reply frame, then the connection is closed.
//
// One thread, the accept loop (the caller of serve()), accepts connections
// and reads their requests as the bytes arrive, so that slow or idle
// clients cost no worker; a complete request goes to a fixed pool of worker
// threads (to the idle one that was busy last; requests that find every worker
// busy wait in arrival order). The loop also keeps the time: requests that do
// not arrive in time, requests that wait too long for a worker, calls over
// their time limit, clients that hang up during their call (the worker's
// cancellation is raised), and the grace time after stop().
// Bad frames get an error reply when the connection can still take one;
// nothing a client sends or fails to send ends the process. Freed memory is
// handed back to the system once no call has run for a second.
class LMServer {
 public:
  using WorkerFactory = std::function<std::unique_ptr<LMXPCBaseWorker>()>;

  explicit LMServer(WorkerFactory factory, LMServerOptions options = {});
  // Ends the worker threads; waits for calls that still run.
  ~LMServer();
  LMServer(const LMServer&) = delete;
  LMServer& operator=(const LMServer&) = delete;

  // Logs "Started Worker" and serves `listener` (which must be listening)
  // until stop() or the idle timeout. Then it unpublishes the listener,
  // serves what is still queued on it, closes it (releasing its lock) and
  // waits for the connections it accepted: all of them after the idle
  // timeout, for at most stopGrace after stop(). True when every call has
  // ended; false when some still ran after they were cancelled (they did
  // not stop within a few seconds): the process must then end without
  // destroying this server. Call once.
  bool serve(LMListener& listener);

  // Makes serve() stop accepting at once and return once the running calls
  // end (or the grace time is over). Thread-safe and async-signal-safe (for
  // signal handlers).
  void stop();

  // Reads, runs and answers the request on the connected stream socket `fd`
  // on the calling thread, with the request timeout but no call time limit,
  // then closes it. For tests and fuzzing without a listener; not for a
  // server that is serving. Never throws.
  void serveSocket(int fd);

 private:
  using Clock = std::chrono::steady_clock;
  struct Connection;
  struct Idle;  // a worker thread waiting for a call
  using ConnectionPtr = std::shared_ptr<Connection>;
  enum class Phase { kServing, kDraining, kClosing };

  // The loop's parts (see serve).
  void acceptQueued(int listenFd);
  void readRequest(const ConnectionPtr& connection);
  void hungUp(uint64_t id);
  void expire(Clock::time_point now);
  void endAll(const std::u16string& message);
  // Answers and closes a connection that never reached a worker.
  void refuse(const ConnectionPtr& connection, const std::u16string& message);
  void forget(const ConnectionPtr& connection);  // with mutex_ held
  void setDeadline(Connection& connection, Clock::time_point when);  // with mutex_ held

  // A worker thread: takes waiting calls until the server closes.
  void workerThread();
  // Makes `connection` a running call (with mutex_ held).
  void startCall(Connection& connection);
  // Ends the worker threads once they are idle.
  void endWorkers();
  // Decodes the request of `connection`, runs a fresh worker and sends its
  // reply, unless the loop has answered the call already. Never throws.
  void runCall(Connection& connection);
  // Sends `kind`/`payload` on `connection` unless it was answered already.
  bool answer(Connection& connection, uint8_t kind, const std::vector<uint8_t>& payload,
              Clock::time_point deadline);
  void wake();

  WorkerFactory factory_;
  LMServerOptions options_;
  int wakeFd_ = -1;
  int events_ = -1;
  std::atomic<bool> stopRequested_{false};

  std::mutex mutex_;
  std::condition_variable callEnded_;
  uint64_t nextId_ = 2;  // 0 and 1 name the wake-up and the listening socket
  std::unordered_map<uint64_t, ConnectionPtr> connections_;
  // Every connection's next deadline, earliest first.
  std::set<std::pair<Clock::time_point, uint64_t>> deadlines_;
  std::deque<ConnectionPtr> waiting_;  // complete requests, oldest first
  // Idle workers, the most recently busy last: a call goes to the warmest
  // (its caches and memory arena), which saves time on every call.
  std::vector<Idle*> idle_;
  size_t running_ = 0;
  bool wakeOnEnd_ = false;  // the loop wants to hear when a call ends
  Clock::time_point loopWakesAt_;  // when the waiting loop looks at the deadlines next
  bool closing_ = false;    // the workers end
  std::vector<std::thread> workers_;
  Clock::time_point lastEnd_;
};
