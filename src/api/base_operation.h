// BaseOperation: an asynchronous operation that keeps its executing and finished state and
// announces each change to its queue. Only its own start and main write that state, on the
// dispatch queue of the OperationQueue running it; atomics let other threads read it.
#pragma once

#include <atomic>

#include "platform/operation_queue.h"

namespace kestrova {

class BaseOperation : public Operation {
 public:
  bool isAsynchronous() const override { return true; }
  bool isExecuting() const override { return executing_.load(); }
  bool isFinished() const override { return finished_.load(); }

  // Not cancelled: executing, then main. Cancelled while executing: finished. Cancelled and
  // never started: nothing at all; such an operation is not marked finished by its start.
  // A finished operation does not start again.
  void start() override;

 protected:
  // Setting the value it already has announces nothing.
  void setExecuting(bool executing);
  void setFinished(bool finished);

 private:
  std::atomic<bool> executing_{false};
  std::atomic<bool> finished_{false};
};

}  // namespace kestrova
