// Test doubles of the platform tests: a dispatch queue that runs work only when the test steps
// it, and an operation that runs until the test finishes it.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <string>

#include "platform/dispatch.h"
#include "platform/operation_queue.h"

namespace kestrova::testing {

// Runs its work only when the test calls runAll, on the test's thread, so every hand-over to
// the queue is a visible step.
class SteppedQueue : public DispatchQueue {
 public:
  const std::string& label() const override { return label_; }
  QualityOfService qualityOfService() const override { return QualityOfService::utility; }
  void async(std::function<void()> work) override { pending_.push_back(std::move(work)); }
  void sync(std::function<void()> work) override { work(); }
  bool isCurrent() const override { return false; }
  // Runs work until none is left, including work submitted meanwhile.
  void runAll() {
    while (!pending_.empty()) {
      auto work = std::move(pending_.front());
      pending_.pop_front();
      work();
    }
  }

 private:
  const std::string label_ = "stepped";
  std::deque<std::function<void()>> pending_;  // owned by the test's thread
};

// Runs until finish() is called, possibly from another thread, as a network request does. With
// `finishWhenCancelledAtStart` false, a start after cancel does nothing at all, so it never
// reports finished.
class HeldOperation : public Operation {
 public:
  explicit HeldOperation(bool finishWhenCancelledAtStart = true)
      : finishWhenCancelledAtStart_(finishWhenCancelledAtStart) {}
  void start() override {
    if (isCancelled()) {
      if (finishWhenCancelledAtStart_) {
        finish();
      }
      return;
    }
    willChangeValueForKey(kIsExecutingKey);
    executing_.store(true);
    didChangeValueForKey(kIsExecutingKey);
  }
  bool isAsynchronous() const override { return true; }
  bool isExecuting() const override { return executing_.load(); }
  bool isFinished() const override { return finished_.load(); }
  // Only the finishing is announced: it is all that a queue watches.
  void finish() {
    executing_.store(false);
    willChangeValueForKey(kIsFinishedKey);
    finished_.store(true);
    didChangeValueForKey(kIsFinishedKey);
  }

 private:
  const bool finishWhenCancelledAtStart_;
  std::atomic<bool> executing_{false};
  std::atomic<bool> finished_{false};
};

}  // namespace kestrova::testing
