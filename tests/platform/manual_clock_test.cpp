#include "platform/manual_clock.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/stepped.h"

namespace kestrova {
namespace {

using namespace std::chrono_literals;

using testing::SteppedQueue;

class ManualClockTest : public ::testing::Test {
 protected:
  // A handler that records its name and the whole seconds since the start.
  std::function<void()> record(std::string name) {
    return [this, name] {
      const auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(now_ - start_);
      fired_.push_back(name + "@" + std::to_string(elapsed.count()));
    };
  }
  // Advances and runs the handlers that became due, as a test does between steps.
  void step(std::chrono::nanoseconds by) {
    clock_->advance(by);
    now_ = clock_->now();
    queue_->runAll();
  }

  const Date start_ = Date{} + 24h * 365 * 51;
  Date now_ = start_;
  std::shared_ptr<ManualClock> clock_ = ManualClock::make(start_);
  std::shared_ptr<SteppedQueue> queue_ = std::make_shared<SteppedQueue>();
  std::vector<std::string> fired_;  // owned by the test's thread
};

TEST_F(ManualClockTest, DueTimersFireOnceInDeadlineOrderAndReArmingMovesTheDeadline) {
  auto debounce = clock_->makeTimer(queue_, record("debounced"));
  debounce->schedule(3s);
  step(1s);
  debounce->schedule(3s, 500ms);  // now due at 4 s
  auto late = clock_->makeTimer(queue_, record("late"));
  auto early = clock_->makeTimer(queue_, record("early"));
  auto tiedFirst = clock_->makeTimer(queue_, record("tied-first"));
  auto tiedSecond = clock_->makeTimer(queue_, record("tied-second"));
  late->schedule(2s);
  tiedSecond->schedule(1500ms);
  early->schedule(1s);
  tiedFirst->schedule(1500ms);
  tiedSecond->schedule(1500ms);  // the same deadline again: behind the ones armed meanwhile
  EXPECT_EQ(clock_->armedTimerCount(), 5u);
  step(2s);
  EXPECT_EQ(fired_,
            (std::vector<std::string>{"early@3", "tied-first@3", "tied-second@3", "late@3"}));
  EXPECT_TRUE(debounce->isArmed());
  step(1s);
  EXPECT_EQ(fired_.back(), "debounced@4");
  EXPECT_FALSE(debounce->isArmed());
  EXPECT_EQ(clock_->armedTimerCount(), 0u);

  // A handler that re-arms is picked up by the next advance, counted from the time it ran.
  fired_.clear();
  std::unique_ptr<Timer> repeating = clock_->makeTimer(queue_, [&] {
    record("tick")();
    repeating->schedule(1s);
  });
  repeating->schedule(0s);
  step(0s);
  step(5s);
  step(1s);
  EXPECT_EQ(fired_, (std::vector<std::string>{"tick@4", "tick@9", "tick@10"}));

  repeating->cancel();
  // Time saturates at the end of the clock instead of wrapping round into the past.
  late->schedule(std::chrono::nanoseconds::max());
  step(1s);
  EXPECT_EQ(fired_.size(), 3u);
  step(std::chrono::nanoseconds::max());
  EXPECT_EQ(clock_->now(), Date::max());
  EXPECT_EQ(fired_.size(), 4u);
}

TEST_F(ManualClockTest, CancelledDestroyedOrReArmedTimersNeverRunAStaleHandler) {
  auto cancelled = clock_->makeTimer(queue_, record("cancelled"));
  auto destroyed = clock_->makeTimer(queue_, record("destroyed"));
  auto rearmed = clock_->makeTimer(queue_, record("rearmed"));
  cancelled->schedule(1s);
  destroyed->schedule(1s);
  cancelled->cancel();
  destroyed.reset();
  step(2s);
  EXPECT_TRUE(fired_.empty());

  // Due and handed to the queue, then cancelled, destroyed or re-armed before the queue got
  // to it: the stale handler does not run.
  destroyed = clock_->makeTimer(queue_, record("destroyed"));
  for (auto* timer : {cancelled.get(), destroyed.get(), rearmed.get()}) {
    timer->schedule(1s);
  }
  clock_->advance(1s);
  cancelled->cancel();
  destroyed.reset();
  rearmed->schedule(1s);
  step(0s);
  EXPECT_TRUE(fired_.empty());
  step(1s);
  EXPECT_EQ(fired_, (std::vector<std::string>{"rearmed@4"}));

  // A timer outliving its clock can still be used and destroyed; it just never fires.
  rearmed->schedule(1s);
  clock_.reset();
  rearmed->schedule(1s);
  rearmed->cancel();
  EXPECT_FALSE(rearmed->isArmed());
  rearmed.reset();
  queue_->runAll();
  EXPECT_EQ(fired_.size(), 1u);
}

}  // namespace
}  // namespace kestrova
