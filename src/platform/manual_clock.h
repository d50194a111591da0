// A clock whose time moves only when told, for tests: timers made by it fire, on their
// queues, when `advance` passes their deadline. Thread-safe; its time, its timer list and the
// arming of every timer in that list are owned by its mutex.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/clock.h"

namespace kestrova {

class ManualClock : public Clock, public std::enable_shared_from_this<ManualClock> {
 public:
  static std::shared_ptr<ManualClock> make(Date start);

  Date now() const override;
  using Clock::makeTimer;
  // Manual time is no work under way, so the purpose makes no difference.
  std::unique_ptr<Timer> makeTimer(std::shared_ptr<DispatchQueue> queue,
                                   std::function<void()> handler, TimerPurpose purpose) override;

  // Moves time forward by `by`, firing every armed timer whose deadline is reached, in deadline
  // order (timers with the same deadline in the order they were armed). Handlers are submitted
  // to their queues with `async`; the caller waits for them by draining those queues. Time
  // jumps straight to its new value and each due timer fires once: a handler that re-arms its
  // timer runs after `advance` has taken its decisions, so the new arming counts from the new
  // time and is seen by a later `advance`. A handler whose timer is cancelled, re-armed or
  // destroyed before the handler's turn on its queue does not run.
  void advance(std::chrono::nanoseconds by);
  // Sets the time, firing timers as `advance` does; setting it back fires nothing.
  void set(Date now);
  std::size_t armedTimerCount() const;

 private:
  explicit ManualClock(Date start) : now_(start) {}
  class ManualTimer;
  friend class ManualTimer;

  // Takes the held lock, marks every due timer fired and submits the handlers after unlocking.
  void fireDueTimers(std::unique_lock<std::mutex> lock);

  mutable std::mutex mutex_;  // owns now_, armings_, timers_ and the arming of every timer
  Date now_;
  std::uint64_t armings_ = 0;  // orders timers armed for the same deadline
  std::vector<ManualTimer*> timers_;
};

}  // namespace kestrova
