#include "platform/operation_queue.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "platform/activity.h"
#include "platform/log.h"

namespace kestrova {
namespace {

constexpr std::string_view kCategory = "dispatch";
constexpr std::string_view kUncaught = "Uncaught exception in operation: %{public}@";
constexpr std::string_view kAlreadyFinished =
    "Operation added to queue %{public}@ has already finished; ignored";

}  // namespace

void Operation::start() {
  if (isFinished() || isExecuting()) {
    return;
  }
  if (isCancelled()) {
    willChangeValueForKey(kIsFinishedKey);
    finished_.store(true);
    didChangeValueForKey(kIsFinishedKey);
    return;
  }
  willChangeValueForKey(kIsExecutingKey);
  executing_.store(true);
  didChangeValueForKey(kIsExecutingKey);
  // An operation that threw must still finish, or it would hold its queue's slot for ever.
  try {
    main();
  } catch (const std::exception& error) {
    logError(kCategory, kUncaught, {error.what()});
  } catch (...) {
    logError(kCategory, kUncaught, {"unknown exception"});
  }
  willChangeValueForKey(kIsExecutingKey);
  willChangeValueForKey(kIsFinishedKey);
  executing_.store(false);
  finished_.store(true);
  didChangeValueForKey(kIsExecutingKey);
  didChangeValueForKey(kIsFinishedKey);
}

bool Operation::isExecuting() const {
  return executing_.load();
}

bool Operation::isFinished() const {
  return finished_.load();
}

void Operation::addObserver(Observer observer) {
  std::lock_guard lock(observersMutex_);
  observers_.push_back(std::move(observer));
}

void Operation::willChangeValueForKey(std::string_view key) {
  std::vector<Observer> observers;
  {
    std::lock_guard lock(observersMutex_);
    observers = observers_;
  }
  for (const Observer& observer : observers) {
    observer(*this, key, ChangePhase::will);
  }
}

void Operation::didChangeValueForKey(std::string_view key) {
  // An observer may let go of the last other reference (a queue dropping a finished operation);
  // the operation must outlive the announcement that it is making.
  const auto self = weak_from_this().lock();
  std::vector<Observer> observers;
  {
    std::lock_guard lock(observersMutex_);
    observers = observers_;
  }
  for (const Observer& observer : observers) {
    observer(*this, key, ChangePhase::did);
  }
}

std::shared_ptr<OperationQueue> OperationQueue::make(std::string name, QualityOfService qos,
                                                     std::shared_ptr<DispatchQueue> queue,
                                                     int maxConcurrentOperationCount) {
  return std::shared_ptr<OperationQueue>(
      new OperationQueue(std::move(name), qos, std::move(queue), maxConcurrentOperationCount));
}

OperationQueue::OperationQueue(std::string name, QualityOfService qos,
                               std::shared_ptr<DispatchQueue> queue, int maxConcurrent)
    : name_(std::move(name)),
      qos_(qos),
      queue_(std::move(queue)),
      maxConcurrent_(std::max(1, maxConcurrent)) {}

OperationQueue::~OperationQueue() {
  // What is left finishes unobserved: it no longer counts as this queue's work under way.
  for (std::size_t i = 0; i < waiting_.size() + running_.size(); ++i) {
    activity::end();
  }
}

const std::string& OperationQueue::name() const {
  return name_;
}

QualityOfService OperationQueue::qualityOfService() const {
  return qos_;
}

void OperationQueue::addOperation(std::shared_ptr<Operation> operation) {
  if (!operation) {
    return;
  }
  if (operation->isFinished()) {
    // Its start would announce nothing, so it would hold a slot for ever.
    logError(kCategory, kAlreadyFinished, {name_});
    return;
  }
  // Weak: an operation may outlive its queue (a network callback finishing it late).
  operation->addObserver([weak = weak_from_this()](Operation& changed, std::string_view key,
                                                   Operation::ChangePhase phase) {
    if (phase != Operation::ChangePhase::did || key != Operation::kIsFinishedKey) {
      return;
    }
    if (const auto self = weak.lock()) {
      self->operationChanged(changed, key);
    }
  });
  // Work under way until the operation finishes (operationChanged).
  activity::begin();
  {
    std::lock_guard lock(mutex_);
    waiting_.push_back(std::move(operation));
  }
  startReadyOperations();
}

void OperationQueue::setSuspended(bool suspended) {
  {
    std::lock_guard lock(mutex_);
    suspended_ = suspended;
  }
  if (!suspended) {
    startReadyOperations();
  }
}

bool OperationQueue::isSuspended() const {
  std::lock_guard lock(mutex_);
  return suspended_;
}

void OperationQueue::cancelAllOperations() {
  std::vector<std::shared_ptr<Operation>> operations;
  {
    std::lock_guard lock(mutex_);
    operations = waiting_;
    operations.insert(operations.end(), running_.begin(), running_.end());
  }
  // Outside the lock: cancel() of a subclass may finish the operation, which re-enters us.
  for (const auto& operation : operations) {
    operation->cancel();
  }
}

std::size_t OperationQueue::operationCount() const {
  std::lock_guard lock(mutex_);
  return waiting_.size() + running_.size();
}

void OperationQueue::startReadyOperations() {
  std::vector<std::shared_ptr<Operation>> starting;
  {
    std::lock_guard lock(mutex_);
    while (!suspended_ && !waiting_.empty() &&
           running_.size() < static_cast<std::size_t>(maxConcurrent_)) {
      running_.push_back(waiting_.front());
      starting.push_back(waiting_.front());
      waiting_.erase(waiting_.begin());
    }
  }
  for (auto& operation : starting) {
    queue_->async([weak = weak_from_this(), operation = std::move(operation)] {
      operation->start();
      // NOTE: an operation cancelled before its start may do nothing at all, and would hold
      // its slot for ever; whatever it announces later finds it gone and changes nothing.
      if (operation->isCancelled() && !operation->isExecuting() && !operation->isFinished()) {
        if (const auto self = weak.lock()) {
          self->removeOperation(*operation);
        }
      }
    });
  }
}

void OperationQueue::operationChanged(Operation& operation, std::string_view key) {
  if (key != Operation::kIsFinishedKey || !operation.isFinished()) {
    return;
  }
  removeOperation(operation);
}

void OperationQueue::removeOperation(const Operation& operation) {
  // Released after the lock: the operation's destructor is not ours to run under it.
  std::shared_ptr<Operation> removed;
  {
    std::lock_guard lock(mutex_);
    const auto matches = [&](const std::shared_ptr<Operation>& o) { return o.get() == &operation; };
    if (auto it = std::find_if(running_.begin(), running_.end(), matches); it != running_.end()) {
      removed = std::move(*it);
      running_.erase(it);
    } else if (auto waiting = std::find_if(waiting_.begin(), waiting_.end(), matches);
               waiting != waiting_.end()) {
      // Finished before its turn (a subclass finishing on cancel): it is not started at all.
      removed = std::move(*waiting);
      waiting_.erase(waiting);
    } else {
      return;
    }
  }
  startReadyOperations();
  activity::end();
}

}  // namespace kestrova
