// LMXPC: the client side of the service protocol, for programs that hand a
// task dictionary to a service and want its result dictionary back, either
// with a closure or by waiting.
//
// A client names its service and keeps a serial queue of calls (one at a
// time, in the order they were made). Creating it queues the warm-up call
// {"__boot": true}, which starts the service process ahead of the first real
// call. Every call opens a connection of its own (lmServiceCall) and closes
// it after the reply.
//
// Errors come back as LMXPCError: the service's own error replies (domain
// "com.brightmoor.error", code 101) and, with the same domain and code, a
// service that could not be reached, broke the connection without a reply
// or did not answer within the client's timeout ("Service not reachable:
// <why>"). The timeout covers a call from the moment it is made: waiting in
// the queue (behind the warm-up call, say), starting the service,
// connecting, sending and the reply.
#pragma once
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "kit/value.h"
#include "service/operation.h"
#include "service/transport.h"
#include "service/worker_runtime.h"

class LMXPC;

// How long an LMXPC call waits for its reply unless told otherwise.
inline constexpr std::chrono::milliseconds kLMXPCDefaultTimeout = std::chrono::seconds(120);

// One call: completes when the reply has arrived. Create it with
// std::make_shared, set taskInfo and add it to the client's operationQueue().
class LMXPCOperation : public LMOperationConcurrent {
 public:
  // `xpcHelper` performs the call; it must outlive the operation's work (an
  // LMXPC waits for its queued calls before it goes away).
  explicit LMXPCOperation(LMXPC* xpcHelper);

  // Sends taskInfo through the client and waits for the reply on the
  // operation's own thread; the reply sets taskResult and error and
  // completes the operation.
  void concurrentMain() override;
  // cleanup(), then cancels.
  void cancel() override;
  // cleanup(), then completes.
  void completeOperation() override;
  // Drops the client. Thread-safe.
  void cleanup();

  LMXPC* xpcHelper() const { return xpcHelper_.load(); }

  // When the call gives up. Set before the operation is added.
  LMDeadline deadline() const { return deadline_; }
  void setDeadline(LMDeadline deadline) { deadline_ = deadline; }

  // The request. Set it before the operation is added.
  const LMDictionary& taskInfo() const { return taskInfo_; }
  void setTaskInfo(LMDictionary taskInfo) { taskInfo_ = std::move(taskInfo); }
  // The decoded reply: nil on error, and for a reply without bytes or with
  // bytes that do not decode. Read it once the operation is finished.
  const LMValue& taskResult() const { return taskResult_; }
  void setTaskResult(LMValue taskResult) { taskResult_ = std::move(taskResult); }
  // The reply's error; nullopt on success. Read it once the operation is
  // finished.
  const std::optional<LMXPCError>& error() const { return error_; }
  void setError(std::optional<LMXPCError> error) { error_ = std::move(error); }

 private:
  std::atomic<LMXPC*> xpcHelper_;
  LMDeadline deadline_ = kLMNoDeadline;
  LMDictionary taskInfo_;
  LMValue taskResult_;
  std::optional<LMXPCError> error_;
};

class LMXPC {
 public:
  // Called once per call with the decoded result (nil when there is none) and
  // the error (nullopt on success).
  using ReplyBlock =
      std::function<void(const LMValue& result, const std::optional<LMXPCError>& error)>;
  // Performs one call on the wire, giving up at the deadline; lmServiceCall
  // unless a test supplies another.
  using Transport = std::function<std::optional<LMWireReply>(
      std::string_view serviceName, std::span<const uint8_t> request, std::string* failure,
      LMDeadline deadline)>;

  // A client of the service `serviceName` (see lmServiceCall for how the
  // service is found and started) whose calls give up after `timeout` (never
  // when it is zero).
  // Queues the warm-up call at once.
  explicit LMXPC(std::string serviceName, Transport transport = lmServiceCall,
                 std::chrono::milliseconds timeout = kLMXPCDefaultTimeout);
  // Waits until every queued call is finished.
  ~LMXPC();
  LMXPC(const LMXPC&) = delete;
  LMXPC& operator=(const LMXPC&) = delete;

  const std::string& serviceName() const { return serviceName_; }
  std::chrono::milliseconds timeout() const { return timeout_; }
  // The calls, at most one at a time.
  LMOperationQueue& operationQueue() { return operationQueue_; }

  // Queues the warm-up call {"__boot": true} and does not wait for it.
  void performXPCBoot();

  // Performs one call now, outside the queue: archives `request` on the
  // calling thread, then sends it and waits for the reply on a thread of its
  // own, which also calls `block`. Returns at once.
  void performXPCAsyncWithObject(const LMValue& request, ReplyBlock block);

  // Queues a call, waits for it and returns its result. On error (or no
  // result) logs "Error while executing XPC task occured: <error>" and
  // returns nil. Must not be called from a reply closure.
  LMValue performXPCWithObject(const LMDictionary& request);

  // Queues a call, waits for it, then calls `block` (when given) on the
  // calling thread with the result and the error. Must not be called from a
  // reply closure.
  void performXPCSynchronousWithObject(const LMDictionary& request, const ReplyBlock& block);

 private:
  friend class LMXPCOperation;
  // One call on its way, archived: sent and answered by its run().
  struct Call;
  std::shared_ptr<LMXPCOperation> queueCall(LMDictionary request);
  // The call of `request`, archived on the calling thread.
  std::shared_ptr<Call> archiveCall(const LMValue& request, ReplyBlock block,
                                    LMDeadline deadline) const;
  // What performXPCAsyncWithObject does, but on the calling thread: returns
  // after `block` has been called.
  void performXPCWithObjectOnThisThread(const LMValue& request, ReplyBlock block,
                                        LMDeadline deadline);

  const std::string serviceName_;
  const Transport transport_;
  const std::chrono::milliseconds timeout_;
  LMOperationQueue operationQueue_;
};

// The error as one line: Error Domain=<domain> Code=<code> "<message>", or
// "(null)" for no error.
std::string lmXPCErrorDescription(const std::optional<LMXPCError>& error);
