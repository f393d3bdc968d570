// Operations: units of work that an LMOperationQueue runs on its threads.
//
// LMOperation runs a closure and is finished when the closure returns.
// LMOperationConcurrent is for work that ends later — typically an
// asynchronous call whose reply arrives on another thread — and must end
// itself with completeOperation(). LMOperationQueue starts the operations
// added to it in the order they were added, at most
// maxConcurrentOperationCount of them at a time; an operation holds its slot
// until it is finished.
//
// Operations are shared objects: create them with std::make_shared. The queue
// keeps a reference until the operation is finished, and a concurrent
// operation's thread keeps one while it runs.
#pragma once
#include <any>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

class LMOperationQueue;

class LMOperation : public std::enable_shared_from_this<LMOperation> {
 public:
  using Block = std::function<void(LMOperation& operation)>;

  LMOperation() = default;
  // An operation whose work is `block`, called with the operation itself.
  explicit LMOperation(Block block);
  virtual ~LMOperation() = default;
  LMOperation(const LMOperation&) = delete;
  LMOperation& operator=(const LMOperation&) = delete;

  // Runs the operation on the calling thread. A cancelled operation becomes
  // finished without running; otherwise it is executing while main() runs
  // and finished when it returns. The queue calls this; call it yourself only
  // for an operation that is in no queue.
  virtual void start();
  // The work: calls the closure with this operation, unless the operation is
  // cancelled. Exceptions thrown by the closure are caught and dropped.
  virtual void main();
  // Marks the operation cancelled. Work that has begun goes on; work that has
  // not begun will not run. Thread-safe.
  virtual void cancel();

  // Thread-safe.
  bool isCancelled() const { return cancelled_.load(); }
  bool isExecuting() const;
  bool isFinished() const;
  virtual bool isConcurrent() const { return false; }

  // Blocks until the operation is finished. Calling it from the operation's
  // own work waits forever.
  void waitUntilFinished() const;

  // Free for the caller. Not synchronised: set them before the operation is
  // added to a queue.
  const std::any& userInfo() const { return userInfo_; }
  void setUserInfo(std::any userInfo) { userInfo_ = std::move(userInfo); }
  std::weak_ptr<void> delegate() const { return delegate_; }
  void setDelegate(std::weak_ptr<void> delegate) { delegate_ = std::move(delegate); }

 protected:
  // Sets both flags as one step and wakes everything that waits on them. The
  // first change to finished also frees the operation's place in its queue,
  // which may drop the queue's reference to it.
  void setState(bool executing, bool finished);

 private:
  friend class LMOperationQueue;
  // Installs the queue's hook; false when the operation is already finished
  // or already in a queue.
  bool attachToQueue(std::function<void()> onFinished);

  Block blockWithOperation_;
  std::any userInfo_;
  std::weak_ptr<void> delegate_;

  std::atomic<bool> cancelled_{false};
  mutable std::mutex stateMutex_;
  mutable std::condition_variable stateChanged_;
  bool executing_ = false;
  bool finished_ = false;
  bool queued_ = false;
  std::function<void()> onFinished_;
};

class LMOperationConcurrent : public LMOperation {
 public:
  // Neither executing nor finished; the work is concurrentMain().
  LMOperationConcurrent() = default;
  // `work` runs on a thread of its own and must end the operation with
  // completeOperation(), now or later from any thread. `onCompletion` (may be
  // empty) is called once, on the thread that completes the operation.
  LMOperationConcurrent(Block work, Block onCompletion);

  bool isConcurrent() const override { return true; }

  // A cancelled operation becomes finished at once without running its work.
  // Otherwise the operation becomes executing and main() is handed to a new
  // detached thread; start returns without waiting for it.
  void start() override;
  // Runs the work closure, or concurrentMain() when there is none. Exceptions
  // are caught and dropped. A cancelled operation does nothing here and stays
  // executing.
  void main() override;
  // To be overridden when no work closure is given. The base logs the soft
  // assertion "You should override this method" and completes the operation.
  virtual void concurrentMain();
  // Ends the operation: no longer executing, finished; then calls the
  // completion closure, which runs at most once however often this is called.
  // Thread-safe.
  virtual void completeOperation();

 private:
  Block blockConcurrentOperation_;
  std::mutex completionMutex_;
  Block completionBlockConcurrentOperation_;
};

// Runs operations on worker threads of its own. Thread-safe.
class LMOperationQueue {
 public:
  // The default limit: as many operations at a time as the machine has cores.
  static constexpr int kDefaultMaxConcurrentOperationCount = -1;

  LMOperationQueue();
  // Waits until every added operation is finished, then ends the worker
  // threads. Must not happen inside one of this queue's own operations.
  ~LMOperationQueue();
  LMOperationQueue(const LMOperationQueue&) = delete;
  LMOperationQueue& operator=(const LMOperationQueue&) = delete;

  int maxConcurrentOperationCount() const;
  // A count of 0 or below means the default.
  void setMaxConcurrentOperationCount(int count);

  // Queues `operation`; it starts on a worker thread when a slot is free and
  // the operations added before it have started. An operation that is
  // finished or already in a queue is refused with a soft assertion.
  void addOperation(std::shared_ptr<LMOperation> operation);
  // An LMOperation running `block`, added; the closure receives the returned
  // operation.
  std::shared_ptr<LMOperation> addBlock(LMOperation::Block block);
  // An LMOperationConcurrent with `work` and `onCompletion`, added.
  std::shared_ptr<LMOperationConcurrent> addConcurrentBlock(LMOperation::Block work,
                                                            LMOperation::Block onCompletion);

  // Blocks until every operation added so far, and every one added meanwhile,
  // is finished.
  void waitUntilAllOperationsAreFinished() const;
  // Operations added and not yet finished.
  size_t operationCount() const;

 private:
  struct State;
  std::shared_ptr<State> state_;
};
