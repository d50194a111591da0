// A test double of the platform tests: an operation that runs until the test finishes it.
#pragma once

#include <atomic>

#include "platform/operation_queue.h"

namespace kestrova::testing {

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
