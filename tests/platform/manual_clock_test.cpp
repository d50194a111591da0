#include "platform/manual_clock.h"

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "platform/dispatch.h"

namespace kestrova {
namespace {

using namespace std::chrono_literals;

// A dispatch queue that runs its work only when the test drains it, on the test's thread.
class SteppedQueue : public DispatchQueue {
 public:
  const std::string& label() const override { return label_; }
  QualityOfService qualityOfService() const override { return QualityOfService::utility; }
  void async(std::function<void()> work) override { pending_.push_back(std::move(work)); }
  void sync(std::function<void()> work) override { work(); }
  bool isCurrent() const override { return false; }

  std::size_t pending() const { return pending_.size(); }
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

class ManualClockTest : public ::testing::Test {
 protected:
  std::function<void()> record(std::string name) {
    return [this, name] { fired_.push_back(name + "@" + std::to_string(elapsed().count())); };
  }
  std::chrono::seconds elapsed() const {
    return std::chrono::duration_cast<std::chrono::seconds>(clock_->now() - start_);
  }
  // Advances and runs the handlers that became due, as a test does between steps.
  void step(std::chrono::nanoseconds by) {
    clock_->advance(by);
    queue_->runAll();
  }

  const Date start_ = Date{} + 24h * 365 * 51;
  std::shared_ptr<ManualClock> clock_ = ManualClock::make(start_);
  std::shared_ptr<SteppedQueue> queue_ = std::make_shared<SteppedQueue>();
  std::vector<std::string> fired_;  // owned by the test's thread
};

TEST_F(ManualClockTest, DebouncedTimerFiresOnceThreeSecondsAfterTheLastArming) {
  EXPECT_EQ(clock_->now(), start_);
  auto debounce = clock_->makeTimer(queue_, record("save"));
  debounce->schedule(3s);
  step(1s);
  debounce->schedule(3s);
  step(1s);
  debounce->schedule(3s, 500ms);
  EXPECT_EQ(clock_->armedTimerCount(), 1u);
  step(2s);
  EXPECT_TRUE(fired_.empty());
  EXPECT_TRUE(debounce->isArmed());
  step(1s);
  EXPECT_EQ(fired_, (std::vector<std::string>{"save@5"}));
  EXPECT_FALSE(debounce->isArmed());
  EXPECT_EQ(clock_->armedTimerCount(), 0u);
  step(10s);
  EXPECT_EQ(fired_.size(), 1u);
}

TEST_F(ManualClockTest, DueTimersFireInDeadlineOrderOncePerAdvance) {
  auto late = clock_->makeTimer(queue_, record("late"));
  auto early = clock_->makeTimer(queue_, record("early"));
  auto tiedFirst = clock_->makeTimer(queue_, record("tied-first"));
  auto tiedSecond = clock_->makeTimer(queue_, record("tied-second"));
  auto notYet = clock_->makeTimer(queue_, record("not-yet"));
  late->schedule(2s);
  tiedSecond->schedule(1500ms);
  early->schedule(1s);
  notYet->schedule(4s);
  tiedFirst->schedule(1500ms);
  // Re-arming to the same deadline puts it behind the ones armed meanwhile.
  tiedSecond->schedule(1500ms);
  step(3s);
  EXPECT_EQ(fired_,
            (std::vector<std::string>{"early@3", "tied-first@3", "tied-second@3", "late@3"}));
  EXPECT_EQ(clock_->armedTimerCount(), 1u);

  // A handler that re-arms is picked up by the next advance, counted from the time it ran.
  fired_.clear();
  std::unique_ptr<Timer> repeating;
  repeating = clock_->makeTimer(queue_, [&] {
    fired_.push_back("tick@" + std::to_string(elapsed().count()));
    repeating->schedule(1s);
  });
  repeating->schedule(0s);
  step(0s);
  step(5s);
  step(1s);
  EXPECT_EQ(fired_, (std::vector<std::string>{"tick@3", "not-yet@8", "tick@8", "tick@9"}));

  // Setting time back fires nothing; setting it forward fires what became due.
  fired_.clear();
  clock_->set(start_);
  queue_->runAll();
  EXPECT_TRUE(fired_.empty());
  repeating->cancel();
  notYet->schedule(2s);
  clock_->set(start_ + 2s);
  queue_->runAll();
  EXPECT_EQ(fired_, (std::vector<std::string>{"not-yet@2"}));
}

TEST_F(ManualClockTest, CancelledOrDestroyedTimerNeverFires) {
  auto cancelled = clock_->makeTimer(queue_, record("cancelled"));
  auto destroyed = clock_->makeTimer(queue_, record("destroyed"));
  cancelled->schedule(1s);
  destroyed->schedule(1s);
  cancelled->cancel();
  destroyed.reset();
  EXPECT_EQ(clock_->armedTimerCount(), 0u);
  step(2s);
  EXPECT_TRUE(fired_.empty());

  // Due and handed to the queue, then cancelled, destroyed or re-armed before the queue got
  // to it: the stale handler does not run.
  auto cancelledLate = clock_->makeTimer(queue_, record("cancelled-late"));
  auto destroyedLate = clock_->makeTimer(queue_, record("destroyed-late"));
  auto rearmedLate = clock_->makeTimer(queue_, record("rearmed-late"));
  cancelledLate->schedule(1s);
  destroyedLate->schedule(1s);
  rearmedLate->schedule(1s);
  clock_->advance(1s);
  EXPECT_EQ(queue_->pending(), 3u);
  cancelledLate->cancel();
  destroyedLate.reset();
  rearmedLate->schedule(1s);
  queue_->runAll();
  EXPECT_TRUE(fired_.empty());
  step(1s);
  EXPECT_EQ(fired_, (std::vector<std::string>{"rearmed-late@4"}));

  // A timer outliving its clock can still be used and destroyed; it just never fires.
  auto orphan = clock_->makeTimer(queue_, record("orphan"));
  orphan->schedule(1s);
  clock_.reset();
  orphan->schedule(1s);
  orphan->cancel();
  EXPECT_FALSE(orphan->isArmed());
  orphan.reset();
  EXPECT_EQ(queue_->pending(), 0u);
}

}  // namespace
}  // namespace kestrova
