// A clock whose time moves only when told, for tests: timers made by it fire, on their
// queues, when `advance` passes their deadline. Thread-safe; its time and timer list are owned
// by its mutex.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/clock.h"

namespace kestrova {

class ManualClock : public Clock, public std::enable_shared_from_this<ManualClock> {
 public:
  static std::shared_ptr<ManualClock> make(Date start);

  Date now() const override;
  std::unique_ptr<Timer> makeTimer(std::shared_ptr<DispatchQueue> queue,
                                   std::function<void()> handler) override;

  // Moves time forward by `by`, firing every armed timer whose deadline is reached, in deadline
  // order. Handlers are submitted to their queues with `async`; the caller waits for them by
  // draining those queues.
  void advance(std::chrono::nanoseconds by);
  void set(Date now);
  std::size_t armedTimerCount() const;

 private:
  explicit ManualClock(Date start) : now_(start) {}
  class ManualTimer;
  friend class ManualTimer;

  mutable std::mutex mutex_;  // owns now_ and timers_
  Date now_;
  std::vector<ManualTimer*> timers_;
};

}  // namespace kestrova
