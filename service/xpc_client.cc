#include "service/xpc_client.h"

#include <system_error>
#include <thread>
#include <vector>

#include "kit/diagnostics.h"
#include "kit/unicode.h"
#include "service/keyed_archive.h"

namespace {

LMXPCError unreachable(std::string_view why) {
  return LMXPCError{kLMErrorDomain, kLMErrorCode, u"Service not reachable: " + lmUtf16(why)};
}

}  // namespace

struct LMXPC::Call {
  Transport transport;
  std::string serviceName;
  std::vector<uint8_t> request;
  ReplyBlock block;

  void run() {
    LMValue result;
    std::optional<LMXPCError> error;
    try {
      std::string failure;
      std::optional<LMWireReply> reply =
          transport ? transport(serviceName, request, &failure) : std::nullopt;
      if (!reply) {
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
      });
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

LMXPC::LMXPC(std::string serviceName, Transport transport)
    : serviceName_(std::move(serviceName)), transport_(std::move(transport)) {
  operationQueue_.setMaxConcurrentOperationCount(1);
  performXPCBoot();
}

LMXPC::~LMXPC() { operationQueue_.waitUntilAllOperationsAreFinished(); }

void LMXPC::performXPCBoot() { queueCall(LMDictionary{{u"__boot", true}}); }

std::shared_ptr<LMXPC::Call> LMXPC::archiveCall(const LMValue& request, ReplyBlock block) const {
  LMAssert(!serviceName_.empty());
  std::vector<uint8_t> bytes;
  std::string why;
  if (auto archived = lxDataSerialize(request, &why)) {
    bytes = std::move(*archived);
  } else {
    lmLogf("lxDataSerialize: %s", why.c_str());
  }
  return std::make_shared<Call>(
      Call{transport_, serviceName_, std::move(bytes), std::move(block)});
}

void LMXPC::performXPCAsyncWithObject(const LMValue& request, ReplyBlock block) {
  auto call = archiveCall(request, std::move(block));
  try {
    std::thread([call] { call->run(); }).detach();
  } catch (const std::system_error& e) {
    lmLogf("Could not start a thread for the call: %s", e.what());
    // Without a thread there is no call; the caller still gets its one reply.
    call->deliver(LMValue(), unreachable(e.what()));
  }
}

void LMXPC::performXPCWithObjectOnThisThread(const LMValue& request, ReplyBlock block) {
  archiveCall(request, std::move(block))->run();
}

std::shared_ptr<LMXPCOperation> LMXPC::queueCall(LMDictionary request) {
  auto operation = std::make_shared<LMXPCOperation>(this);
  operation->setTaskInfo(std::move(request));
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
