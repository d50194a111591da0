// Operations and operation queues with the platform's semantics: an operation announces changes
// of its "isExecuting" and "isFinished" state to observers, and a queue starts the next
// operation only when the running one announces that it has finished. Each OperationQueue owns
// its list of operations under its own mutex and calls `start` on its serial dispatch queue.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/dispatch.h"

namespace kestrova {

class Operation : public std::enable_shared_from_this<Operation> {
 public:
  enum class ChangePhase { will, did };
  using Observer = std::function<void(Operation&, std::string_view key, ChangePhase phase)>;

  static constexpr std::string_view kIsExecutingKey = "isExecuting";
  static constexpr std::string_view kIsFinishedKey = "isFinished";

  virtual ~Operation() = default;

  // Called by the queue on its dispatch queue. The default runs `main` unless cancelled and
  // then reports the operation finished (also when `main` throws: the exception is logged);
  // asynchronous operations override it. Starting an executing or finished operation does
  // nothing.
  virtual void start();
  virtual bool isAsynchronous() const { return false; }
  virtual bool isExecuting() const;
  virtual bool isFinished() const;
  bool isCancelled() const { return cancelled_.load(); }
  virtual void cancel() { cancelled_.store(true); }

  // Observers are called on the thread making the change, without any lock held; they stay
  // for the operation's lifetime.
  void addObserver(Observer observer);

 protected:
  virtual void main() {}
  void willChangeValueForKey(std::string_view key);
  void didChangeValueForKey(std::string_view key);

 private:
  std::atomic<bool> cancelled_{false};
  std::atomic<bool> executing_{false};
  std::atomic<bool> finished_{false};
  std::mutex observersMutex_;  // owns observers_
  std::vector<Observer> observers_;
};

class OperationQueue : public std::enable_shared_from_this<OperationQueue> {
 public:
  // `queue` is where operations are started; at most `maxConcurrentOperationCount` (at least 1)
  // are started and not yet finished at once.
  ~OperationQueue();
  OperationQueue(const OperationQueue&) = delete;
  OperationQueue& operator=(const OperationQueue&) = delete;

  static std::shared_ptr<OperationQueue> make(std::string name, QualityOfService qos,
                                              std::shared_ptr<DispatchQueue> queue,
                                              int maxConcurrentOperationCount = 1);

  const std::string& name() const;
  QualityOfService qualityOfService() const;

  // An operation belongs to one queue. One that has already finished is logged and ignored; one
  // that finishes while still waiting is dropped without being started.
  void addOperation(std::shared_ptr<Operation> operation);
  // A suspended queue starts no new operation; running ones go on.
  void setSuspended(bool suspended);
  bool isSuspended() const;
  // Cancels every operation in the queue; the queue still starts them (the platform's rule),
  // and each operation decides what a start of a cancelled operation does. One that neither
  // runs nor reports finished on that start leaves the queue all the same, so that it never
  // holds a slot.
  void cancelAllOperations();
  // Operations added and not yet finished.
  std::size_t operationCount() const;

 private:
  OperationQueue(std::string name, QualityOfService qos, std::shared_ptr<DispatchQueue> queue,
                 int maxConcurrent);
  void startReadyOperations();
  void operationChanged(Operation& operation, std::string_view key);
  // Takes a finished (or declined) operation out of the queue and starts what may run next.
  void removeOperation(const Operation& operation);

  const std::string name_;
  const QualityOfService qos_;
  const std::shared_ptr<DispatchQueue> queue_;
  const int maxConcurrent_;
  mutable std::mutex mutex_;  // owns everything below
  bool suspended_ = false;
  std::vector<std::shared_ptr<Operation>> waiting_;
  std::vector<std::shared_ptr<Operation>> running_;
};

}  // namespace kestrova
