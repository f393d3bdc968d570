// The service's listening socket: the one socket activation handed over, or
// its own, made under a lock so that only one process serves a name.
#pragma once
#include <sys/types.h>

#include <string>
#include <string_view>

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
  // close()
  ~LMListener();

  // Takes the activated socket when there is one for this process (and
  // removes the activation variables from the environment); otherwise takes
  // the lock, checks that no one else listens on the path, removes a stale
  // socket file, binds with mode 0600 and listens. When the lock is held by
  // a process that does not listen (one that is starting up or shutting
  // down), waits up to five seconds for it to either listen or let go.
  Outcome open(std::string_view serviceName, std::string* failure = nullptr);

  // Stops listening: unpublishes, closes the socket and releases the lock,
  // so that a new service may take the name while this one finishes its
  // calls. Connections still queued and not accepted are dropped.
  void close();

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
