#include "platform/manual_clock.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "platform/dispatch.h"

namespace kestrova {
namespace {

// What a submitted handler needs of its timer. Only the timer holds it strongly, so a handler
// still waiting on its queue when the timer is destroyed finds nothing and does not run.
struct Firing {
  Firing(std::shared_ptr<DispatchQueue> queue, std::function<void()> handler)
      : queue(std::move(queue)), handler(std::move(handler)) {}

  const std::shared_ptr<DispatchQueue> queue;
  const std::function<void()> handler;

  std::mutex mutex;  // owns generation
  // Changes with every schedule() and cancel(), so a handler of an earlier arming is dropped.
  std::uint64_t generation = 0;

  std::uint64_t nextGeneration() {
    std::lock_guard lock(mutex);
    return ++generation;
  }
};

void submit(const std::shared_ptr<Firing>& firing, std::uint64_t generation) {
  firing->queue->async([weak = std::weak_ptr<Firing>(firing), generation] {
    const auto firing = weak.lock();
    if (!firing) {
      return;
    }
    {
      std::lock_guard lock(firing->mutex);
      if (firing->generation != generation) {
        return;
      }
    }
    firing->handler();
  });
}

// `now + delay`, saturated at the ends of the clock rather than overflowing.
Date addSaturating(Date now, std::chrono::nanoseconds delay) {
  using Duration = Date::duration;
  const auto step = std::chrono::duration_cast<Duration>(delay);
  if (step > Duration::zero() && now > Date::max() - step) {
    return Date::max();
  }
  if (step < Duration::zero() && now < Date::min() - step) {
    return Date::min();
  }
  return now + step;
}

}  // namespace

class ManualClock::ManualTimer final : public Timer {
 public:
  ManualTimer(std::weak_ptr<ManualClock> clock, std::shared_ptr<DispatchQueue> queue,
              std::function<void()> handler)
      : clock_(std::move(clock)),
        firing_(std::make_shared<Firing>(std::move(queue), std::move(handler))) {}

  ~ManualTimer() override {
    if (const auto clock = clock_.lock()) {
      std::lock_guard lock(clock->mutex_);
      std::erase(clock->timers_, this);
    }
  }

  void schedule(std::chrono::nanoseconds delay, std::chrono::nanoseconds /*leeway*/) override {
    const auto clock = clock_.lock();
    if (!clock) {
      return;
    }
    std::lock_guard lock(clock->mutex_);
    deadline_ = addSaturating(clock->now_, std::max(delay, std::chrono::nanoseconds{0}));
    armed_ = true;
    arming_ = ++clock->armings_;
    generation_ = firing_->nextGeneration();
  }

  void cancel() override {
    const auto clock = clock_.lock();
    if (!clock) {
      firing_->nextGeneration();
      return;
    }
    std::lock_guard lock(clock->mutex_);
    armed_ = false;
    generation_ = firing_->nextGeneration();
  }

  bool isArmed() const override {
    const auto clock = clock_.lock();
    if (!clock) {
      return false;
    }
    std::lock_guard lock(clock->mutex_);
    return armed_;
  }

 private:
  friend class ManualClock;

  const std::weak_ptr<ManualClock> clock_;
  const std::shared_ptr<Firing> firing_;
  // Owned by the clock's mutex.
  Date deadline_;
  bool armed_ = false;
  std::uint64_t arming_ = 0;
  std::uint64_t generation_ = 0;
};

std::shared_ptr<ManualClock> ManualClock::make(Date start) {
  return std::shared_ptr<ManualClock>(new ManualClock(start));
}

Date ManualClock::now() const {
  std::lock_guard lock(mutex_);
  return now_;
}

std::unique_ptr<Timer> ManualClock::makeTimer(std::shared_ptr<DispatchQueue> queue,
                                              std::function<void()> handler, TimerPurpose) {
  auto timer =
      std::make_unique<ManualTimer>(weak_from_this(), std::move(queue), std::move(handler));
  std::lock_guard lock(mutex_);
  timers_.push_back(timer.get());
  return timer;
}

void ManualClock::advance(std::chrono::nanoseconds by) {
  std::unique_lock lock(mutex_);
  now_ = addSaturating(now_, by);
  fireDueTimers(std::move(lock));
}

void ManualClock::set(Date now) {
  std::unique_lock lock(mutex_);
  now_ = now;
  fireDueTimers(std::move(lock));
}

std::size_t ManualClock::armedTimerCount() const {
  std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::count_if(timers_.begin(), timers_.end(),
                                                [](const ManualTimer* t) { return t->armed_; }));
}

void ManualClock::fireDueTimers(std::unique_lock<std::mutex> lock) {
  std::vector<ManualTimer*> due;
  for (ManualTimer* timer : timers_) {
    if (timer->armed_ && timer->deadline_ <= now_) {
      due.push_back(timer);
    }
  }
  std::sort(due.begin(), due.end(), [](const ManualTimer* a, const ManualTimer* b) {
    return a->deadline_ != b->deadline_ ? a->deadline_ < b->deadline_ : a->arming_ < b->arming_;
  });
  // Copied out under the lock: once it is released a timer may be destroyed at any moment.
  std::vector<std::pair<std::shared_ptr<Firing>, std::uint64_t>> firings;
  firings.reserve(due.size());
  for (ManualTimer* timer : due) {
    timer->armed_ = false;
    firings.emplace_back(timer->firing_, timer->generation_);
  }
  lock.unlock();
  for (const auto& [firing, generation] : firings) {
    submit(firing, generation);
  }
}

}  // namespace kestrova
