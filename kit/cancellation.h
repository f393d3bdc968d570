// LMCancellation: tells a running analysis to stop early.
//
// One side (the service: a call's time limit ran out, its client went away)
// raises the flag with a message; the analysis polls isCancelled() between
// pages and stages and stops, and the call is answered with message().
// Code that waits inside a C library (MuPDF's interpreter polls a plain int)
// registers a callback with onCancel() for the time it waits.
//
// Thread-safe: any thread may cancel while another polls. Callbacks run on
// the cancelling thread, once, under this object's lock: they must be quick,
// must not throw and must not use this object. A registration that ends
// waits for its running callback.
#pragma once
#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

class LMCancellation {
 public:
  LMCancellation() = default;
  LMCancellation(const LMCancellation&) = delete;
  LMCancellation& operator=(const LMCancellation&) = delete;

  // Raises the flag. The first message wins; later calls change nothing.
  void cancel(std::u16string message);
  // True once cancel() was called. Cheap (one relaxed load): poll it freely.
  bool isCancelled() const { return cancelled_.load(std::memory_order_acquire); }
  // The first cancel()'s message; empty while not cancelled.
  std::u16string message() const;

  // Runs `callback` when the flag is raised (at once when it already is)
  // until the returned registration ends. Keep the registration no longer
  // than what the callback touches.
  class Registration {
   public:
    Registration() = default;
    Registration(Registration&& other) noexcept { *this = std::move(other); }
    Registration& operator=(Registration&& other) noexcept;
    ~Registration();

   private:
    friend class LMCancellation;
    Registration(LMCancellation* owner, uint64_t id) : owner_(owner), id_(id) {}
    LMCancellation* owner_ = nullptr;
    uint64_t id_ = 0;
  };
  [[nodiscard]] Registration onCancel(std::function<void()> callback);

 private:
  void remove(uint64_t id);

  std::atomic<bool> cancelled_{false};
  mutable std::mutex mutex_;
  std::u16string message_;
  uint64_t nextId_ = 1;
  std::vector<std::pair<uint64_t, std::function<void()>>> callbacks_;
};

// True when `cancellation` is given and raised; for code whose caller may
// pass none.
inline bool lmIsCancelled(const LMCancellation* cancellation) {
  return cancellation && cancellation->isCancelled();
}
