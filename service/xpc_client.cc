#include "service/xpc_client.h"

#include <system_error>
#include <thread>
#include <vector>

#include "kit/diagnostics.h"
#include "kit/unicode.h"
#include "service/keyed_archive.h"

namespace {

// When a call made now gives up; never for a timeout of zero or less.
LMDeadline deadlineAfter(std::chrono::milliseconds timeout) {
  if (timeout.count() <= 0) return kLMNoDeadline;
  return std::chrono::steady_clock::now() + timeout;
}

LMXPCError unreachable(std::string_view why) {
  return LMXPCError{kLMErrorDomain, kLMErrorCode, u"Service not reachable: " + lmUtf16(why)};
}

}  // namespace

struct LMXPC::Call {
  Transport transport;
  std::string serviceName;
  std::vector<uint8_t> request;
  ReplyBlock block;
  LMDeadline deadline;
  std::chrono::milliseconds timeout;

  void run() {
    LMValue result;
    std::optional<LMXPCError> error;
    try {
      std::string failure;
      // A call whose time ran out in the queue is not sent at all.
      std::optional<LMWireReply> reply;
      if (transport && std::chrono::steady_clock::now() < deadline) {
        reply = transport(serviceName, request, &failure, deadline);
      }
      if (!reply && std::chrono::steady_clock::now() >= deadline) {
        error = unreachable("The service did not answer within " + lmSecondsText(timeout));
      } else if (!reply) {
        // Deliberately an error reply rather than no reply: no waiting caller hangs.
        error = unreachable(failure.empty() ? "no reply" : failure);
      } else if (reply->error) {
        error = std::move(reply->error);
      } else if (!reply->bytes.empty()) {
        std::string why;
        if (auto decoded = lxDataUnserialize(reply->bytes, &why)) {
          result = std::move(*decoded);
        } else {
          lmLogf("lxDataUnserialize: %s", why.c_str());
        }
      }
    } catch (const std::exception& e) {
      error = unreachable(e.what());
    } catch (...) {
      // Whatever a transport throws, the caller gets its one reply.
      error = unreachable("the call failed");
    }
    deliver(result, error);
  }

  void deliver(const LMValue& result, const std::optional<LMXPCError>& error) {
    if (!block) return;
    try {
      block(result, error);
    } catch (...) {
    }
  }
};

std::string lmXPCErrorDescription(const std::optional<LMXPCError>& error) {
  if (!error) return "(null)";
  return "Error Domain=" + lmUtf8(error->domain) + " Code=" + std::to_string(error->code) +
         " \"" + (error->message.empty() ? std::string("(null)") : lmUtf8(error->message)) +
         "\"";
}

// --- LMXPCOperation ---

LMXPCOperation::LMXPCOperation(LMXPC* xpcHelper) : xpcHelper_(xpcHelper) {}

void LMXPCOperation::concurrentMain() {
  LMXPC* helper = xpcHelper_.load();
  const auto self = std::static_pointer_cast<LMXPCOperation>(weak_from_this().lock());
  LMAssert(helper && self);
  if (!helper || !self) {
    setError(unreachable("the call has no client"));
    completeOperation();
    return;
  }
  // This thread was started for this operation alone, so it waits for the
  // reply itself rather than handing the wait to yet another thread.
  const std::weak_ptr<LMXPCOperation> weakSelf = self;
  helper->performXPCWithObjectOnThisThread(
      LMValue(taskInfo_),
      [weakSelf](const LMValue& result, const std::optional<LMXPCError>& error) {
        const auto operation = weakSelf.lock();
        if (!operation) return;
        operation->setTaskResult(result);
        operation->setError(error);
        operation->completeOperation();
      },
      deadline_);
}

void LMXPCOperation::cancel() {
  cleanup();
  LMOperationConcurrent::cancel();
}

void LMXPCOperation::completeOperation() {
  cleanup();
  LMOperationConcurrent::completeOperation();
}

void LMXPCOperation::cleanup() { xpcHelper_.store(nullptr); }

// --- LMXPC ---

LMXPC::LMXPC(std::string serviceName, Transport transport, std::chrono::milliseconds timeout)
    : serviceName_(std::move(serviceName)), transport_(std::move(transport)), timeout_(timeout) {
  operationQueue_.setMaxConcurrentOperationCount(1);
  performXPCBoot();
}

LMXPC::~LMXPC() { operationQueue_.waitUntilAllOperationsAreFinished(); }

void LMXPC::performXPCBoot() { queueCall(LMDictionary{{u"__boot", true}}); }

std::shared_ptr<LMXPC::Call> LMXPC::archiveCall(const LMValue& request, ReplyBlock block,
                                                LMDeadline deadline) const {
  LMAssert(!serviceName_.empty());
  std::vector<uint8_t> bytes;
  std::string why;
  if (auto archived = lxDataSerialize(request, &why)) {
    bytes = std::move(*archived);
  } else {
    lmLogf("lxDataSerialize: %s", why.c_str());
  }
  return std::make_shared<Call>(
      Call{transport_, serviceName_, std::move(bytes), std::move(block), deadline, timeout_});
}

void LMXPC::performXPCAsyncWithObject(const LMValue& request, ReplyBlock block) {
  auto call = archiveCall(request, std::move(block), deadlineAfter(timeout_));
  try {
    std::thread([call] { call->run(); }).detach();
  } catch (const std::system_error& e) {
    lmLogf("Could not start a thread for the call: %s", e.what());
    // Without a thread there is no call; the caller still gets its one reply.
    call->deliver(LMValue(), unreachable(e.what()));
  }
}

void LMXPC::performXPCWithObjectOnThisThread(const LMValue& request, ReplyBlock block,
                                             LMDeadline deadline) {
  archiveCall(request, std::move(block), deadline)->run();
}

std::shared_ptr<LMXPCOperation> LMXPC::queueCall(LMDictionary request) {
  auto operation = std::make_shared<LMXPCOperation>(this);
  operation->setTaskInfo(std::move(request));
  operation->setDeadline(deadlineAfter(timeout_));
  operationQueue_.addOperation(operation);
  return operation;
}

LMValue LMXPC::performXPCWithObject(const LMDictionary& request) {
  const auto operation = queueCall(request);
  operation->waitUntilFinished();
  if (operation->taskResult().isNil()) {
    LMAssert(operation->error());
    lmLogf("Error while executing XPC task occured: %s",
           lmXPCErrorDescription(operation->error()).c_str());
    return LMValue();
  }
  return operation->taskResult();
}

void LMXPC::performXPCSynchronousWithObject(const LMDictionary& request,
                                            const ReplyBlock& block) {
  LMAssert(block);
  const auto operation = queueCall(request);
  operation->waitUntilFinished();
  if (block) block(operation->taskResult(), operation->error());
}
