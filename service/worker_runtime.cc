#include "service/worker_runtime.h"

#include <atomic>
#include <cstdio>
#include <exception>
#include <random>

#include "kit/diagnostics.h"
#include "kit/unicode.h"

namespace {

// Numbers calls in the log only; shared by all connections.
std::atomic<uint32_t> taskCounter{0};

}  // namespace

std::string lmNewUUIDString() {
  thread_local std::mt19937_64 generator{std::random_device{}()};
  uint64_t high = generator();
  uint64_t low = generator();
  high = (high & 0xFFFFFFFFFFFF0FFFULL) | 0x0000000000004000ULL;  // version 4
  low = (low & 0x3FFFFFFFFFFFFFFFULL) | 0x8000000000000000ULL;    // variant 1
  char text[37];
  std::snprintf(text, sizeof text, "%08X-%04X-%04X-%04X-%012llX",
                static_cast<unsigned>(high >> 32), static_cast<unsigned>((high >> 16) & 0xFFFF),
                static_cast<unsigned>(high & 0xFFFF), static_cast<unsigned>(low >> 48),
                static_cast<unsigned long long>(low & 0xFFFFFFFFFFFFULL));
  return text;
}

void lmCatchAll(const std::function<void()>& task,
                const std::function<void(const std::string& message)>& failed) {
  try {
    try {
      task();
    } catch (const std::exception& e) {
      failed(e.what());
    } catch (...) {
      failed("Unknown exception");
    }
  } catch (...) {
    // Reporting failed too (no memory left): nothing more can be done here.
  }
}

void LMXPCBaseWorker::performWithObject(LMValue request, ReplyBlock reply) {
  const uint32_t number = taskCounter.fetch_add(1);
  lmCatchAll([&] {
    uid_ = lmNewUUIDString();
    block_ = std::move(reply);
    object_ = std::move(request);
    lmLogf("==> XPC work on task %s#%u", uid_.c_str(), number);
    // Any value under "__boot", the null marker included, is the warm-up call.
    const LMDictionary* dictionary = object_.asDictionary();
    if (dictionary && dictionary->contains(u"__boot")) {
      doneWithResult(LMDictionary{{u"boot", u"success"}});
    } else {
      work();
    }
    lmLogf("<== XPC finished successfully task %s#%u", uid_.c_str(), number);
    object_ = LMValue();
    uid_.clear();
  }, [&](const std::string& message) {
    if (block_) doneWithErrorMessage(lmUtf16(message));
  });
  if (block_) {
    doneWithErrorMessage(
        u"You have to call `doneWithResult` or `doneWithErrorMessage` at least once!");
  }
}

void LMXPCBaseWorker::work() { doneWithErrorMessage(u"You have to implement `work`!"); }

void LMXPCBaseWorker::doneWithResult(LMValue result) {
  ReplyBlock block = std::move(block_);
  block_ = nullptr;
  if (block) block(LMXPCReply{std::move(result), std::nullopt});
}

void LMXPCBaseWorker::doneWithErrorMessage(std::u16string_view message) {
  lmLogf("!!! XPC Error: %s", lmUtf8(message).c_str());
  ReplyBlock block = std::move(block_);
  block_ = nullptr;
  if (block) block(LMXPCReply{std::nullopt, LMXPCError{kLMErrorDomain, kLMErrorCode, std::u16string(message)}});
}
