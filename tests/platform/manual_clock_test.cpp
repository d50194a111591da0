#include "platform/manual_clock.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/stepped.h"

namespace kestrova {
namespace {

using namespace std::chrono_literals;

// Due handlers go to the queue and run when it is drained; one whose timer was cancelled,
// re-armed or destroyed before its turn must not run, or a debounced save would run twice.
TEST(ManualClockTest, CancelledDestroyedOrReArmedTimersNeverRunAStaleHandler) {
  const Date start = Date{} + 24h * 365 * 51;
  auto clock = ManualClock::make(start);
  auto queue = std::make_shared<testing::SteppedQueue>();
  std::vector<std::string> fired;
  const auto record = [&](std::string name) {
    return [&, name] {
      const auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(clock->now() - start);
      fired.push_back(name + "@" + std::to_string(elapsed.count()));
    };
  };
  auto cancelled = clock->makeTimer(queue, record("cancelled"));
  auto destroyed = clock->makeTimer(queue, record("destroyed"));
  auto rearmed = clock->makeTimer(queue, record("rearmed"));
  cancelled->schedule(1s);
  destroyed->schedule(1s);
  cancelled->cancel();
  destroyed.reset();
  EXPECT_EQ(clock->armedTimerCount(), 0u);
  clock->advance(2s);
  queue->runAll();
  EXPECT_TRUE(fired.empty());

  destroyed = clock->makeTimer(queue, record("destroyed"));
  for (auto* timer : {cancelled.get(), destroyed.get(), rearmed.get()}) {
    timer->schedule(1s);
  }
  clock->advance(1s);
  cancelled->cancel();
  destroyed.reset();
  rearmed->schedule(1s);
  queue->runAll();
  EXPECT_TRUE(fired.empty());
  clock->advance(1s);
  queue->runAll();
  EXPECT_EQ(fired, (std::vector<std::string>{"rearmed@4"}));

  // A timer outliving its clock can still be used and destroyed; it just never fires.
  rearmed->schedule(1s);
  clock.reset();
  rearmed->schedule(1s);
  rearmed->cancel();
  EXPECT_FALSE(rearmed->isArmed());
  rearmed.reset();
  queue->runAll();
  EXPECT_EQ(fired.size(), 1u);
}

}  // namespace
}  // namespace kestrova
