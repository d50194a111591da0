// The machine's clock: wall time from the system clock, timers on the steady clock. All timers of
// one clock share a single thread that waits for the next deadline and hands each due handler
// to its queue. The deadline list belongs to that thread's mutex; each timer's arming to its own.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "platform/activity.h"
#include "platform/clock.h"
#include "platform/dispatch.h"

namespace kestrova {
namespace {

using SteadyTime = std::chrono::steady_clock::time_point;

// What a firing needs of a timer. Only the Timer object holds it strongly, so destroying the
// Timer makes every pending firing find nothing; holds no reference back to the service.
struct TimerState {
  TimerState(std::shared_ptr<DispatchQueue> queue, std::function<void()> handler,
             TimerPurpose purpose)
      : queue(std::move(queue)), handler(std::move(handler)), purpose(purpose) {}

  const std::shared_ptr<DispatchQueue> queue;
  const std::function<void()> handler;
  const TimerPurpose purpose;

  // Called under `mutex` to arm or cancel: an armed timer that finishes work is work under
  // way. A firing disarms by itself.
  void setArmed(bool now) {
    if (now != armed && purpose == TimerPurpose::finishesWork) {
      now ? activity::begin() : activity::end();
    }
    armed = now;
  }

  std::mutex mutex;  // owns generation and armed
  // Changes with every schedule() and cancel(), so a firing of an earlier arming is ignored.
  std::uint64_t generation = 0;
  bool armed = false;
};

// Submits the handler for arming `generation`; the handler runs only if, when its turn on the
// queue comes, the timer still exists and has been neither cancelled nor re-armed.
void submitFiring(const std::shared_ptr<TimerState>& state, std::uint64_t generation) {
  state->queue->async([weak = std::weak_ptr<TimerState>(state), generation] {
    const auto state = weak.lock();
    if (!state) {
      return;
    }
    {
      std::lock_guard lock(state->mutex);
      if (state->generation != generation) {
        return;
      }
    }
    state->handler();
  });
}

// The thread that waits for deadlines. Lives as long as its clock or any of its timers; the
// thread itself holds no strong reference to anything, so it is never joined from itself.
class TimerService {
 public:
  TimerService() : thread_([this] { run(); }) {}

  TimerService(const TimerService&) = delete;
  TimerService& operator=(const TimerService&) = delete;

  ~TimerService() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    changed_.notify_all();
    thread_.join();
  }

  void arm(const std::shared_ptr<TimerState>& state, SteadyTime deadline) {
    std::uint64_t generation = 0;
    {
      std::lock_guard lock(state->mutex);
      generation = ++state->generation;
      state->setArmed(true);
    }
    bool earliest = false;
    {
      std::lock_guard lock(mutex_);
      const auto entry = deadlines_.emplace(deadline, Entry{state, generation});
      earliest = entry == deadlines_.begin();
    }
    if (earliest) {
      changed_.notify_all();
    }
  }

 private:
  struct Entry {
    std::weak_ptr<TimerState> state;
    std::uint64_t generation;
  };

  void run() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
      if (deadlines_.empty()) {
        changed_.wait(lock);
        continue;
      }
      const SteadyTime next = deadlines_.begin()->first;
      if (std::chrono::steady_clock::now() < next) {
        changed_.wait_until(lock, next);
        continue;
      }
      std::vector<Entry> due;
      const auto end = deadlines_.upper_bound(std::chrono::steady_clock::now());
      for (auto it = deadlines_.begin(); it != end; ++it) {
        due.push_back(std::move(it->second));
      }
      deadlines_.erase(deadlines_.begin(), end);
      lock.unlock();
      fire(due);
      lock.lock();
    }
  }

  // Runs without the service's lock: queues and handlers are none of its business.
  static void fire(const std::vector<Entry>& due) {
    for (const Entry& entry : due) {
      const auto state = entry.state.lock();
      if (!state) {
        continue;
      }
      {
        std::lock_guard lock(state->mutex);
        // An entry left behind by re-arming or cancelling; its timer has moved on.
        if (state->generation != entry.generation || !state->armed) {
          continue;
        }
        state->armed = false;
      }
      // The firing counts as work before the arming stops counting.
      submitFiring(state, entry.generation);
      if (state->purpose == TimerPurpose::finishesWork) {
        activity::end();
      }
    }
  }

  std::mutex mutex_;  // owns deadlines_ and stopping_
  std::condition_variable changed_;
  // Superseded entries stay until their deadline and are skipped then; they hold only a weak
  // reference, so a cancelled timer costs one small entry at most until its old deadline.
  std::multimap<SteadyTime, Entry> deadlines_;
  bool stopping_ = false;
  std::thread thread_;  // last: starts running once the members above exist
};

// Leeway is accepted and ignored: Linux gives no cheaper way to fire late, and the steady clock
// wait is already as coarse as the scheduler makes it.
class SystemTimer final : public Timer {
 public:
  SystemTimer(std::shared_ptr<TimerService> service, std::shared_ptr<DispatchQueue> queue,
              std::function<void()> handler, TimerPurpose purpose)
      : service_(std::move(service)),
        state_(std::make_shared<TimerState>(std::move(queue), std::move(handler), purpose)) {}

  ~SystemTimer() override { cancel(); }

  void schedule(std::chrono::nanoseconds delay, std::chrono::nanoseconds /*leeway*/) override {
    const auto now = std::chrono::steady_clock::now();
    // A delay past the end of the steady clock means "never" rather than an overflow.
    const auto room = std::chrono::duration_cast<std::chrono::nanoseconds>(SteadyTime::max() - now);
    const SteadyTime deadline = delay >= room
                                    ? SteadyTime::max()
                                    : now + std::chrono::duration_cast<SteadyTime::duration>(
                                                std::max(delay, std::chrono::nanoseconds{0}));
    service_->arm(state_, deadline);
  }

  void cancel() override {
    std::lock_guard lock(state_->mutex);
    ++state_->generation;
    state_->setArmed(false);
  }

  bool isArmed() const override {
    std::lock_guard lock(state_->mutex);
    return state_->armed;
  }

 private:
  const std::shared_ptr<TimerService> service_;
  const std::shared_ptr<TimerState> state_;
};

class SystemClock final : public Clock {
 public:
  Date now() const override { return std::chrono::system_clock::now(); }

  using Clock::makeTimer;
  std::unique_ptr<Timer> makeTimer(std::shared_ptr<DispatchQueue> queue,
                                   std::function<void()> handler, TimerPurpose purpose) override {
    return std::make_unique<SystemTimer>(service(), std::move(queue), std::move(handler), purpose);
  }

 private:
  // Started on the first timer: most clocks only ever tell the time.
  std::shared_ptr<TimerService> service() {
    std::lock_guard lock(mutex_);
    if (!service_) {
      service_ = std::make_shared<TimerService>();
    }
    return service_;
  }

  std::mutex mutex_;  // owns service_
  std::shared_ptr<TimerService> service_;
};

}  // namespace

std::shared_ptr<Clock> makeSystemClock() {
  return std::make_shared<SystemClock>();
}

}  // namespace kestrova
