// The source of "now" and of timers. Every piece of the library that needs the time or a
// delay asks its Clock, so tests drive time with a ManualClock and never sleep.
// Implementations are thread-safe.
#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace kestrova {

using Date = std::chrono::system_clock::time_point;

// A Date holds nanoseconds since 1970 in 64 bits, 1677-09-21 to 2262-04-11: these are the years
// it holds whole, whatever the offset. A text with another year would overflow it.
inline constexpr int kEarliestDateYear = 1678;
inline constexpr int kLatestDateYear = 2261;

class DispatchQueue;

// A one-shot timer that can be re-armed. The handler runs on the timer's queue, at most once
// per arming; arming again before it fired moves the deadline instead of adding a second run.
// Destroying the timer cancels it; a handler already running is not interrupted.
class Timer {
 public:
  virtual ~Timer() = default;

  virtual void schedule(std::chrono::nanoseconds delay,
                        std::chrono::nanoseconds leeway = std::chrono::nanoseconds{0}) = 0;
  virtual void cancel() = 0;
  virtual bool isArmed() const = 0;
};

// What an armed timer means to a host that waits for the library to finish its work (see
// activity.h): a timer that finishes work counts as work under way; one that only watches for
// changes does not, or the library would never be idle.
enum class TimerPurpose { finishesWork, watches };

class Clock {
 public:
  virtual ~Clock() = default;

  virtual Date now() const = 0;

  // The handler runs on `queue` when the timer fires.
  virtual std::unique_ptr<Timer> makeTimer(std::shared_ptr<DispatchQueue> queue,
                                           std::function<void()> handler, TimerPurpose purpose) = 0;
  std::unique_ptr<Timer> makeTimer(std::shared_ptr<DispatchQueue> queue,
                                   std::function<void()> handler) {
    return makeTimer(std::move(queue), std::move(handler), TimerPurpose::finishesWork);
  }
};

// The clock of the machine: wall time from the system clock, timers on the steady clock.
std::shared_ptr<Clock> makeSystemClock();

}  // namespace kestrova
