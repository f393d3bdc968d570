#include "service/operation.h"

#include <algorithm>
#include <deque>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <vector>

#include "kit/diagnostics.h"

// --- LMOperation ---

LMOperation::LMOperation(Block block) : blockWithOperation_(std::move(block)) {}

void LMOperation::start() {
  // Finishing frees the queue's place, which may hold the last reference.
  const auto self = weak_from_this().lock();
  if (isCancelled()) {
    setState(false, true);
    return;
  }
  setState(true, false);
  try {
    main();
  } catch (...) {
  }
  setState(false, true);
}

void LMOperation::main() {
  if (isCancelled()) return;
  try {
    if (blockWithOperation_) blockWithOperation_(*this);
  } catch (...) {
  }
}

void LMOperation::cancel() { cancelled_.store(true); }

bool LMOperation::isExecuting() const {
  std::lock_guard<std::mutex> lock(stateMutex_);
  return executing_;
}

bool LMOperation::isFinished() const {
  std::lock_guard<std::mutex> lock(stateMutex_);
  return finished_;
}

void LMOperation::waitUntilFinished() const {
  std::unique_lock<std::mutex> lock(stateMutex_);
  stateChanged_.wait(lock, [this] { return finished_; });
}

void LMOperation::setState(bool executing, bool finished) {
  std::function<void()> onFinished;
  {
    std::lock_guard<std::mutex> lock(stateMutex_);
    if (finished && !finished_) onFinished = std::move(onFinished_);
    executing_ = executing;
    finished_ = finished;
    // Under the lock: a waiter may destroy the operation as soon as it wakes.
    stateChanged_.notify_all();
  }
  if (onFinished) onFinished();
}

bool LMOperation::attachToQueue(std::function<void()> onFinished) {
  std::lock_guard<std::mutex> lock(stateMutex_);
  if (finished_ || queued_) return false;
  queued_ = true;
  onFinished_ = std::move(onFinished);
  return true;
}

// --- LMOperationConcurrent ---

LMOperationConcurrent::LMOperationConcurrent(Block work, Block onCompletion)
    : blockConcurrentOperation_(std::move(work)),
      completionBlockConcurrentOperation_(std::move(onCompletion)) {}

void LMOperationConcurrent::start() {
  const auto self = weak_from_this().lock();
  LMAssert(self, "Concurrent operations must be owned by a std::shared_ptr");
  if (isCancelled()) {
    setState(isExecuting(), true);
    return;
  }
  // Executing before the thread exists, so that a quick completeOperation on
  // that thread cannot be overtaken.
  setState(true, false);
  try {
    std::thread([self, operation = this] { operation->main(); }).detach();
  } catch (const std::system_error& e) {
    lmLogf("Could not start a thread for an operation: %s", e.what());
    completeOperation();
  }
}

void LMOperationConcurrent::main() {
  // Kept on purpose: cancelled after start, the operation stays executing.
  if (isCancelled()) return;
  try {
    if (blockConcurrentOperation_) {
      blockConcurrentOperation_(*this);
    } else {
      concurrentMain();
    }
  } catch (...) {
  }
}

void LMOperationConcurrent::concurrentMain() {
  LMAssert(0, "You should override this method");
  completeOperation();
}

void LMOperationConcurrent::completeOperation() {
  const auto self = weak_from_this().lock();
  setState(false, true);
  Block completion;
  {
    std::lock_guard<std::mutex> lock(completionMutex_);
    completion = std::move(completionBlockConcurrentOperation_);
    completionBlockConcurrentOperation_ = nullptr;
  }
  if (!completion) return;
  try {
    completion(*this);
  } catch (...) {
  }
}

// --- LMOperationQueue ---

struct LMOperationQueue::State {
  mutable std::mutex mutex;
  mutable std::condition_variable changed;
  int maxCount = kDefaultMaxConcurrentOperationCount;
  std::deque<std::shared_ptr<LMOperation>> pending;
  std::unordered_map<const LMOperation*, std::shared_ptr<LMOperation>> running;
  std::vector<std::thread> threads;
  size_t idle = 0;  // worker threads waiting for an operation
  bool stopping = false;

  size_t limit() const {
    if (maxCount > 0) return static_cast<size_t>(maxCount);
    return std::max(1u, std::thread::hardware_concurrency());
  }

  bool canStartOne() const { return !pending.empty() && running.size() < limit(); }

  // Adds worker threads while there are more waiting operations than idle
  // threads and fewer threads than the limit. Called with `mutex` held.
  void spawnWorkers(const std::shared_ptr<State>& self) {
    while (threads.size() < limit() && pending.size() > idle) {
      try {
        threads.emplace_back([self] { self->work(); });
        ++idle;  // counts as idle until it takes its first operation
      } catch (const std::system_error& e) {
        lmLogf("Could not start an operation queue thread: %s", e.what());
        return;
      }
    }
  }

  void work() {
    std::unique_lock<std::mutex> lock(mutex);
    while (true) {
      changed.wait(lock, [this] { return stopping || canStartOne(); });
      if (!canStartOne()) break;
      --idle;
      std::shared_ptr<LMOperation> operation = pending.front();
      pending.pop_front();
      running.emplace(operation.get(), operation);
      lock.unlock();
      try {
        operation->start();
      } catch (...) {
      }
      operation.reset();
      lock.lock();
      ++idle;
    }
    --idle;
  }

  // The operation's first change to finished: its place is freed.
  void finished(const LMOperation* operation) {
    std::shared_ptr<LMOperation> released;
    {
      std::lock_guard<std::mutex> lock(mutex);
      if (auto it = running.find(operation); it != running.end()) {
        released = std::move(it->second);
        running.erase(it);
      } else {
        auto it2 = std::find_if(pending.begin(), pending.end(),
                                [&](const auto& p) { return p.get() == operation; });
        if (it2 != pending.end()) {
          released = std::move(*it2);
          pending.erase(it2);
        }
      }
    }
    // After unlocking, so that woken threads do not block on the mutex.
    changed.notify_all();
    // `released` may be the last reference; it goes here, outside the lock.
  }
};

LMOperationQueue::LMOperationQueue() : state_(std::make_shared<State>()) {}

LMOperationQueue::~LMOperationQueue() {
  waitUntilAllOperationsAreFinished();
  std::vector<std::thread> threads;
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->stopping = true;
    threads.swap(state_->threads);
    state_->changed.notify_all();
  }
  for (std::thread& thread : threads) {
    if (thread.get_id() == std::this_thread::get_id()) {
      thread.detach();
    } else {
      thread.join();
    }
  }
}

int LMOperationQueue::maxConcurrentOperationCount() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->maxCount;
}

void LMOperationQueue::setMaxConcurrentOperationCount(int count) {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->maxCount = count > 0 ? count : kDefaultMaxConcurrentOperationCount;
  state_->spawnWorkers(state_);
  state_->changed.notify_all();
}

void LMOperationQueue::addOperation(std::shared_ptr<LMOperation> operation) {
  if (!operation) return;
  const std::weak_ptr<State> weakState = state_;
  const LMOperation* key = operation.get();
  const bool attached = operation->attachToQueue([weakState, key] {
    if (auto state = weakState.lock()) state->finished(key);
  });
  LMAssert(attached, "An operation can be added once, and only before it is finished");
  if (!attached) return;
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->pending.push_back(std::move(operation));
    state_->spawnWorkers(state_);
  }
  state_->changed.notify_all();
}

std::shared_ptr<LMOperation> LMOperationQueue::addBlock(LMOperation::Block block) {
  auto operation = std::make_shared<LMOperation>(std::move(block));
  addOperation(operation);
  return operation;
}

std::shared_ptr<LMOperationConcurrent> LMOperationQueue::addConcurrentBlock(
    LMOperation::Block work, LMOperation::Block onCompletion) {
  auto operation = std::make_shared<LMOperationConcurrent>(std::move(work), std::move(onCompletion));
  addOperation(operation);
  return operation;
}

void LMOperationQueue::waitUntilAllOperationsAreFinished() const {
  std::unique_lock<std::mutex> lock(state_->mutex);
  state_->changed.wait(lock,
                       [this] { return state_->pending.empty() && state_->running.empty(); });
}

size_t LMOperationQueue::operationCount() const {
  std::lock_guard<std::mutex> lock(state_->mutex);
  return state_->pending.size() + state_->running.size();
}
