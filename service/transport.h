// The local transport between the service and its clients.
//
// A call is one connection to the service's Unix domain socket: the client
// sends one request frame holding the archived task, the service answers with
// one reply frame holding either the archived result or an error (domain
// "com.brightmoor.error", code 101, message), then the connection ends.
// docs/protocol.md describes the frames byte by byte.
#pragma once
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
// when XDG_RUNTIME_DIR is unset or unusable.
std::string lmServiceSocketPath(std::string_view serviceName);

// What came back for one call.
struct LMWireReply {
  // The archived result (may be empty: the service sent no bytes).
  std::vector<uint8_t> bytes;
  // Set when the service replied an error instead.
  std::optional<LMXPCError> error;
};

// Performs one call to the service named `serviceName`: connects (starting
// the service executable on demand when nothing listens, then retrying the
// connection for a short while), sends `request`, waits for the reply.
// nullopt when no reply arrived (the service could not be reached or closed
// the connection); `failure` then says why. Thread-safe.
std::optional<LMWireReply> lmServiceCall(std::string_view serviceName,
                                         std::span<const uint8_t> request,
                                         std::string* failure = nullptr);
