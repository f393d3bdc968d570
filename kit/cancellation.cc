#include "kit/cancellation.h"

#include <utility>

void LMCancellation::cancel(std::u16string message) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (cancelled_.load(std::memory_order_relaxed)) return;
  message_ = std::move(message);
  cancelled_.store(true, std::memory_order_release);
  // Under the lock, so that a registration that ends waits for its callback
  // and what the callback touches is still there while it runs.
  for (auto& entry : callbacks_) entry.second();
}

std::u16string LMCancellation::message() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return message_;
}

LMCancellation::Registration LMCancellation::onCancel(std::function<void()> callback) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (cancelled_.load(std::memory_order_relaxed)) {
    lock.unlock();
    callback();
    return Registration();
  }
  const uint64_t id = nextId_++;
  callbacks_.emplace_back(id, std::move(callback));
  return Registration(this, id);
}

void LMCancellation::remove(uint64_t id) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto it = callbacks_.begin(); it != callbacks_.end(); ++it) {
    if (it->first == id) {
      callbacks_.erase(it);
      return;
    }
  }
}

LMCancellation::Registration& LMCancellation::Registration::operator=(
    Registration&& other) noexcept {
  if (this != &other) {
    if (owner_) owner_->remove(id_);
    owner_ = std::exchange(other.owner_, nullptr);
    id_ = std::exchange(other.id_, 0);
  }
  return *this;
}

LMCancellation::Registration::~Registration() {
  if (owner_) owner_->remove(id_);
}
