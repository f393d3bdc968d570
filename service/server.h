// The service's side of the transport: the listening socket and the server
// that runs one worker per connection.
#pragma once
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "service/worker_runtime.h"

// The socket a service listens on: one handed over by socket activation
// (LISTEN_FDS/LISTEN_PID, file descriptor 3), or the service's own socket at
// lmServiceSocketPath, made while holding the lock file beside it so that
// only one process serves a name. Not thread-safe.
class LMListener {
 public:
  enum class Outcome {
    kListening,      // fd() accepts connections
    kAlreadyServed,  // another process listens on the path; this one should end
    kFailed,         // `failure` says why
  };

  LMListener() = default;
  LMListener(const LMListener&) = delete;
  LMListener& operator=(const LMListener&) = delete;
  // Unpublishes, closes the socket and releases the lock.
  ~LMListener();

  // Takes the activated socket when there is one for this process (and
  // removes the activation variables from the environment); otherwise takes
  // the lock, checks that no one else listens on the path, removes a stale
  // socket file, binds with mode 0600 and listens. When the lock is held by
  // a process that does not listen (one that is starting up or shutting
  // down), waits up to five seconds for it to either listen or let go.
  Outcome open(std::string_view serviceName, std::string* failure = nullptr);

  // The listening socket (non-blocking, close-on-exec); -1 before open.
  int fd() const { return fd_; }
  // The socket file this process made; empty for an activated socket.
  const std::string& path() const { return path_; }
  bool activated() const { return activated_; }

  // Removes the socket file (when this process made it and it is still
  // this socket's), so that new clients no longer find this listener;
  // connections already queued can still be accepted.
  void unpublish();

 private:
  int fd_ = -1;
  int lockFd_ = -1;
  bool activated_ = false;
  std::string path_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

struct LMServerOptions {
  // serve() returns after this long without any connection (zero: never).
  std::chrono::milliseconds idleTimeout = std::chrono::seconds(60);
  // The whole request must arrive within this time, and the reply must be
  // taken within it again.
  std::chrono::milliseconds ioTimeout = std::chrono::seconds(30);
  // Connections served at once; further ones wait in the listen queue.
  size_t maxConnections = 64;
};

// Serves calls: per accepted connection one fresh worker, one request frame,
// one reply frame, then the connection is closed. A connection that arrives
// while no call runs is served by the accept loop itself, on the thread its
// connect woke; while that thread is busy, a second acceptor takes new
// connections. Connections run in parallel on a pool of threads (at most
// maxConnections calls at once) that live as long as the server; a
// connection goes to the thread that was busy last, whose caches are warm.
// Bad frames get an error reply when the connection can still take one;
// nothing a client sends or fails to send ends the process.
// Freed memory is handed back to the system once no call has run for a
// second.
class LMServer {
 public:
  using WorkerFactory = std::function<std::unique_ptr<LMXPCBaseWorker>()>;

  explicit LMServer(WorkerFactory factory, LMServerOptions options = {});
  ~LMServer();
  LMServer(const LMServer&) = delete;
  LMServer& operator=(const LMServer&) = delete;

  // Logs "Started Worker" and serves `listener` (which must be listening)
  // until stop() or the idle timeout. On idle it unpublishes the listener first and serves what is
  // still queued, so that no connection that reached it is dropped. Returns
  // when every accepted connection has ended. Call once.
  void serve(LMListener& listener);

  // Makes serve() stop accepting and return once the running calls end.
  // Thread-safe and async-signal-safe (for signal handlers).
  void stop();

  // Serves one connected stream socket on the calling thread exactly as a
  // pool thread serves an accepted connection, then closes it. For tests and
  // fuzzing without a listener; not for a server that is serving. Never throws.
  void serveSocket(int fd) { serveConnection(fd); }

 private:
  // A pool thread waiting for a connection.
  struct Slot {
    std::condition_variable wakeUp;
    int fd = -1;
  };

  // What goes back on one connection.
  struct Outgoing;
  // One connection's call.
  struct Call {
    int fd;
    bool replied = false;    // the reply frame went out (or failed to)
    bool finishing = false;  // counted in finishing_
    // Served by the accept loop itself (see serveHereIfAlone).
    bool onLoop = false;
  };
  // Reads the request of `call` and runs the worker, whose reply is sent the
  // moment the worker gives it; returns a refusal to send instead when the
  // request never reached a worker, nullopt when nothing is to be sent.
  std::optional<Outgoing> answer(Call& call);
  // Sends the one reply frame of `call`.
  void reply(Call& call, const Outgoing& out);
  static Outgoing errorReply(const char16_t* message);
  // The reply frame for what a worker answered.
  static Outgoing outgoingFor(LMXPCReply reply);
  // Hands an accepted connection to the most recently idle thread, to a
  // thread about to be free, or to a new thread.
  void dispatch(int fd);
  // Serves `fd`, then whatever is handed to it, until the server closes.
  void poolThread(int fd);
  // Serves one accepted connection and closes it; true when it counted
  // itself as finishing (see finishing_). Never throws.
  bool serveConnection(int fd, bool onLoop = false);
  // The next queued connection (non-blocking), or -1 when there is none or
  // accepting failed (logged; after running out of descriptors or memory
  // it pauses first, as the queue stays readable).
  static int acceptNext(int listenFd);
  // Serves `fd` on the calling thread (the accept loop) when no other call
  // runs; false, and nothing done, when another call runs.
  bool serveHereIfAlone(int fd);
  // Accepts and hands on connections while the accept loop is busy with a
  // call of its own; the kernel wakes it only then. Ends on secondWakeFd_.
  void secondAcceptor(int listenFd);
  void endThreads();
  void wake();

  WorkerFactory factory_;
  LMServerOptions options_;
  int wakeFd_ = -1;
  int secondWakeFd_ = -1;  // never read: once written, the second acceptor ends
  std::atomic<bool> stopRequested_{false};

  std::mutex mutex_;
  std::deque<int> queue_;  // accepted, waiting for a thread
  std::vector<std::thread> threads_;
  std::vector<Slot*> idle_;  // the most recently idle last
  size_t finishing_ = 0;     // threads sending a small last reply
  size_t active_ = 0;        // connections queued or being served
  bool closing_ = false;
  std::chrono::steady_clock::time_point lastEnd_;
};
