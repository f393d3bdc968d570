// LMXPCBaseWorker: the service side of one call. A worker serves the calls of
// one connection, one at a time: it takes the decoded request, runs the
// subclass's work(), and sends exactly one reply — a result value or an error
// with domain "com.brightmoor.error" and code 101.
//
// work() must end by calling exactly one of doneWithResult() or
// doneWithErrorMessage(). Exceptions that escape work() become an error reply
// with the exception's message; a work() that forgets to reply gets the error
// "You have to call `doneWithResult` or `doneWithErrorMessage` at least once!".
#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "kit/cancellation.h"
#include "kit/value.h"

inline constexpr char16_t kLMErrorDomain[] = u"com.brightmoor.error";
inline constexpr int64_t kLMErrorCode = 101;

struct LMXPCError {
  std::u16string domain = kLMErrorDomain;
  int64_t code = kLMErrorCode;
  // Empty when the error carries no message (no user info).
  std::u16string message;
};

// One reply: a result value, or an error.
struct LMXPCReply {
  std::optional<LMValue> result;
  std::optional<LMXPCError> error;
};

class LMXPCBaseWorker {
 public:
  using ReplyBlock = std::function<void(LMXPCReply reply)>;

  virtual ~LMXPCBaseWorker() = default;

  // Serves one call whose request is already decoded (nil for an empty or
  // undecodable request): numbers and logs it, answers a request holding
  // "__boot" with {"boot": "success"}, otherwise runs work(). `reply` is
  // called exactly once before this returns.
  void performWithObject(LMValue request, ReplyBlock reply);

  // Override to do the call's work. The base replies "You have to implement `work`!".
  virtual void work();

  // Replies `result`.
  void doneWithResult(LMValue result);
  // Logs and replies an error with `message`.
  void doneWithErrorMessage(std::u16string_view message);

  // The request's value for `key`: nullptr for an absent key, for the null
  // marker and when the request is no dictionary.
  const LMValue* operator[](std::u16string_view key) const { return object_.key(key); }
  // The decoded request of the call in progress; nil between calls.
  const LMValue& object() const { return object_; }
  // The identifier of the call in progress; empty between calls.
  const std::string& uid() const { return uid_; }

  // Raised by whoever runs the call when its answer is no longer wanted (its
  // time limit ran out, its client went away); work() polls it and, once it
  // is raised, stops and replies cancellation().message() as the error.
  // Never null: a worker nobody cancels has one that stays lowered.
  void setCancellation(std::shared_ptr<LMCancellation> cancellation) {
    if (cancellation) cancellation_ = std::move(cancellation);
  }
  const std::shared_ptr<LMCancellation>& cancellation() const { return cancellation_; }

 private:
  LMValue object_;
  std::string uid_;
  ReplyBlock block_;
  std::shared_ptr<LMCancellation> cancellation_ = std::make_shared<LMCancellation>();
};

// Runs `task` and catches whatever escapes it: the one place that does. The
// libraries throw nothing on bad data, so what can escape is what they
// cannot prevent (memory running out); `failed` gets its message ("Unknown
// exception" for what is no std::exception). Nothing escapes this function,
// not even from `failed`.
void lmCatchAll(const std::function<void()>& task,
                const std::function<void(const std::string& message)>& failed);

// A fresh random UUID in its usual text form (8-4-4-4-12 upper-case hex).
std::string lmNewUUIDString();
