// The local transport between the service and its clients.
//
// A call is one connection to the service's Unix domain socket: the client
// sends one request frame holding the archived task, the service answers with
// one reply frame holding either the archived result or an error (domain
// "com.brightmoor.error", code 101, message), then the connection ends.
// docs/protocol.md describes the frames byte by byte.
#pragma once
#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "service/worker_runtime.h"

// The largest request or reply payload the service accepts or sends.
inline constexpr uint64_t kLMMaxFrameBytes = 256ull << 20;

// The socket path for `serviceName`: $XDG_RUNTIME_DIR/<serviceName>.sock, or
// /tmp/<serviceName>-<uid>/<serviceName>.sock (the folder made with mode 0700)
// when XDG_RUNTIME_DIR is unset or unusable. A folder is usable when it is a
// directory owned by the effective user that no one else may enter (mode
// 0700 or stricter) and the path fits a socket address. Empty when
// `serviceName` is no plain file name or neither folder can be trusted (e.g.
// someone else made /tmp/<serviceName>-<uid>); `failure` then names the
// folder, what is wrong with it and how to fix it. The service keeps its lock
// file (<serviceName>.lock) and, when a client started it, its log
// (<serviceName>.log) in the same folder.
std::string lmServiceSocketPath(std::string_view serviceName, std::string* failure = nullptr);

// --- Frames ---
//
// A frame is a 16-byte header followed by its payload:
//   bytes 0-3   magic "LMXP"
//   byte  4     version, 1
//   byte  5     kind: 0 in a request; 0 (result) or 1 (error) in a reply
//   bytes 6-7   reserved, 0
//   bytes 8-15  payload length, unsigned 64-bit big-endian
// A request's payload is the archived task, a result's the archived result
// (possibly empty). An error's payload is its code (signed 64-bit
// big-endian), then the domain and then the message, each as an unsigned
// 32-bit big-endian byte count followed by that many bytes of UTF-8.
inline constexpr size_t kLMFrameHeaderBytes = 16;
inline constexpr uint8_t kLMFrameVersion = 1;
inline constexpr uint8_t kLMFrameRequest = 0;
inline constexpr uint8_t kLMFrameResult = 0;
inline constexpr uint8_t kLMFrameError = 1;

// The header of a frame of `kind` carrying `payloadBytes`.
std::array<uint8_t, kLMFrameHeaderBytes> lmFrameHeader(uint8_t kind, uint64_t payloadBytes);
// The payload of an error frame.
std::vector<uint8_t> lmErrorPayload(const LMXPCError& error);
// The error of an error frame's payload; nullopt when the payload is
// malformed (counts running past the end, bytes left over, invalid UTF-8).
std::optional<LMXPCError> lmParseErrorPayload(std::span<const uint8_t> payload);

struct LMFrame {
  uint8_t kind = 0;
  std::vector<uint8_t> payload;
};

enum class LMFrameStatus {
  kOk,
  kPending,    // LMFrameReader only: the frame is not complete yet
  kClosed,     // the peer closed before sending a byte
  kTruncated,  // the peer closed inside the frame
  kMalformed,  // wrong magic, version or reserved bytes
  kTooLarge,   // the header announced more than kLMMaxFrameBytes
  kTimedOut,   // the deadline passed
  kFailed,     // the socket failed
};

using LMDeadline = std::chrono::steady_clock::time_point;
inline constexpr LMDeadline kLMNoDeadline = LMDeadline::max();

// Reads one frame from the stream socket `fd`. The header is checked before
// any payload byte is read; a header announcing more than kLMMaxFrameBytes
// gives kTooLarge with `announced` set and the payload left unread. Memory
// grows with the bytes that actually arrive, not with the announced length.
// The kind is not checked. Thread-safe for different sockets.
LMFrameStatus lmReadFrame(int fd, LMDeadline deadline, LMFrame* frame,
                          uint64_t* announced = nullptr);

// Reads one frame from a stream socket in steps, taking only what has
// arrived: for a server that reads many connections on one thread. The
// header is checked before any payload byte is read; memory grows with the
// bytes that arrive, not with the announced length. Not thread-safe.
class LMFrameReader {
 public:
  // Reads what has arrived on `fd` (at most about `budget` bytes), without
  // waiting. kPending: the frame is incomplete and the stream still open;
  // kOk: frame() is complete; anything else is final, as for lmReadFrame.
  LMFrameStatus readAvailable(int fd, size_t budget = SIZE_MAX);
  // The payload length the header announced; 0 before the header is read.
  uint64_t announced() const { return length_; }
  // The frame once readAvailable gave kOk.
  LMFrame& frame() { return frame_; }

 private:
  uint8_t header_[kLMFrameHeaderBytes] = {};
  size_t headerBytes_ = 0;
  bool headerRead_ = false;
  uint64_t length_ = 0;
  size_t have_ = 0;
  LMFrame frame_;
};

// Writes a whole frame (header and payload) to `fd`, going on after partial
// writes and interruptions and never raising SIGPIPE. False (and `failure`
// set) when the socket failed or the deadline passed; the frame may then be
// cut short, so the caller must close the socket.
bool lmWriteFrame(int fd, uint8_t kind, std::span<const uint8_t> payload, LMDeadline deadline,
                  std::string* failure = nullptr);

// What came back for one call.
struct LMWireReply {
  // The archived result (may be empty: the service sent no bytes).
  std::vector<uint8_t> bytes;
  // Set when the service replied an error instead.
  std::optional<LMXPCError> error;
};

// Performs one call to the service named `serviceName`: connects (starting
// the service executable on demand when nothing listens, then retrying the
// connection for a short while), sends `request`, waits for the reply until
// `deadline`. nullopt when no reply arrived (the service could not be
// reached, closed the connection or did not answer by the deadline);
// `failure` then says why. Thread-safe.
//
// The executable started on demand is the file named `serviceName` in
// $LM_SERVICE_DIR when that is set, else beside the calling executable, else
// in the folder the service is installed to (compiled in), else found
// through $PATH. It runs detached (own session, standard input and
// output on /dev/null, standard error appended to the log beside the socket)
// and ends by itself after a minute without connections. Connecting is
// retried for up to five seconds (and not past the deadline).
std::optional<LMWireReply> lmServiceCall(std::string_view serviceName,
                                         std::span<const uint8_t> request,
                                         std::string* failure = nullptr,
                                         LMDeadline deadline = kLMNoDeadline);

// "60 s", "0.25 s": a duration as the messages of the service and its
// clients print it.
std::string lmSecondsText(std::chrono::milliseconds duration);
