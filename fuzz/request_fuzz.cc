// Bytes as a client would send them, through the service's request path:
// frame reading, archive decoding, the worker, the reply frame. The reply
// must be exactly one well-formed frame.
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <thread>

#include "kit/diagnostics.h"
#include "service/receipt_worker.h"
#include "service/server.h"
#include "service/transport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static LMServer* server = [] {
    lmSetLogSink([](std::string_view) {});
    LMServerOptions options;
    options.requestTimeout = std::chrono::seconds(5);
    options.replyTimeout = std::chrono::seconds(5);
    return new LMServer([] { return std::make_unique<LMXPCWorker>(); }, options);
  }();
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return 0;
  // The client side writes from its own thread, so that neither side can
  // block the other on a full socket buffer.
  std::thread client([&] {
    size_t sent = 0;
    while (sent < size) {
      const ssize_t n = send(fds[0], data + sent, size - sent, MSG_NOSIGNAL);
      if (n <= 0) break;
      sent += static_cast<size_t>(n);
    }
    shutdown(fds[0], SHUT_WR);
  });
  LMFrame reply;
  std::thread reader([&] {
    const LMFrameStatus status =
        lmReadFrame(fds[0], std::chrono::steady_clock::now() + std::chrono::seconds(30), &reply);
    // A reply, or nothing at all when the request never arrived whole.
    if (status != LMFrameStatus::kOk && status != LMFrameStatus::kClosed) __builtin_trap();
    if (status == LMFrameStatus::kOk) {
      // Nothing after the frame: end of stream, or a reset when the service
      // closed with request bytes it never read still queued.
      char extra;
      if (recv(fds[0], &extra, 1, 0) > 0) __builtin_trap();
    }
  });
  server->serveSocket(fds[1]);
  client.join();
  reader.join();
  close(fds[0]);
  return 0;
}
