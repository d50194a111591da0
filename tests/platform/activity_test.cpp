// The count of work under way that a host waits on before it ends a job: every hand-over
// along a chain (queue work, a timer that finishes work, an operation, a request and its
// completion) must keep the process busy until the last step is done, or a sync would end
// with data still on its way; and a timer that only watches must not keep it busy for ever.
#include "platform/activity.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/dispatch.h"
#include "platform/held_operation.h"
#include "platform/operation_queue.h"
#include "platform/url_session.h"
#include "support/child_process.h"

namespace kestrova {
namespace {

using namespace std::chrono_literals;

bool becomesIdle() {
  return testing::eventually([] { return activity::idle(); }, 10s);
}

using testing::HeldOperation;

// Work that runs until the test lets it go.
struct Gate {
  std::promise<void> open;
  std::shared_future<void> opened = open.get_future().share();
  std::function<void()> waiter() const {
    return [opened = opened] { opened.wait(); };
  }
};

TEST(ActivityTest, EveryHandOverKeepsTheProcessBusyUntilTheLastStepIsDone) {
  auto dispatcher = makeDispatcher();
  auto clock = makeSystemClock();
  auto queue = dispatcher->makeSerialQueue("activity.test", QualityOfService::utility);
  ASSERT_TRUE(becomesIdle());

  // Armed, a timer that finishes work counts until it fires or is cancelled, and its handler
  // counts as queue work; one that only watches never counts.
  Gate gate;
  std::atomic<bool> firedOnQueue{false};
  auto timer = clock->makeTimer(queue, [&, wait = gate.waiter()] {
    firedOnQueue = queue->isCurrent();
    wait();
  });
  timer->schedule(50ms);
  EXPECT_FALSE(activity::idle());
  ASSERT_TRUE(testing::eventually([&] { return firedOnQueue.load(); }, 10s));
  EXPECT_FALSE(activity::idle());
  // Timers destroyed or re-armed before they come due, or cancelled or destroyed when their
  // handler waits behind the busy queue, never run that handler.
  std::atomic<int> stale{0};
  std::vector<std::unique_ptr<Timer>> timers;
  for (int i = 0; i < 4; ++i) {
    timers.push_back(clock->makeTimer(queue, [&] { ++stale; }));
    timers.back()->schedule(1ms);
  }
  timers[0].reset();
  timers[1]->schedule(1h);  // moved, still one arming
  ASSERT_TRUE(
      testing::eventually([&] { return !timers[2]->isArmed() && !timers[3]->isArmed(); }, 10s));
  EXPECT_TRUE(timers[1]->isArmed());
  timers[2]->cancel();
  timers[3].reset();
  gate.open.set_value();
  timers[1]->cancel();
  EXPECT_TRUE(becomesIdle());
  EXPECT_EQ(stale.load(), 0);
  auto watching = clock->makeTimer(
      queue, [] {}, TimerPurpose::watches);
  watching->schedule(1h);
  EXPECT_TRUE(activity::idle());
  timer->schedule(1h);
  timer.reset();  // destroying cancels
  EXPECT_TRUE(activity::idle());

  // An operation counts from its addition until it finishes, also while it waits its turn.
  auto operations = OperationQueue::make("activity.operations", QualityOfService::utility, queue);
  auto first = std::make_shared<HeldOperation>();
  auto second = std::make_shared<HeldOperation>();
  operations->addOperation(first);
  operations->addOperation(second);
  ASSERT_TRUE(testing::eventually([&] { return first->isExecuting(); }, 10s));
  first->finish();
  EXPECT_FALSE(activity::idle());
  ASSERT_TRUE(testing::eventually([&] { return second->isExecuting(); }, 10s));
  second->finish();
  EXPECT_TRUE(becomesIdle());
  // A queue that goes away with operations in it no longer waits for them.
  operations->setSuspended(true);
  operations->addOperation(std::make_shared<HeldOperation>());
  EXPECT_FALSE(activity::idle());
  operations.reset();
  EXPECT_TRUE(becomesIdle());

  // A request counts until its completion has run, and what the completion queues counts
  // before the request stops counting. Port 1 refuses the connection, or times out.
  URLSessionConfiguration configuration;
  configuration.timeoutIntervalForRequest = 300ms;
  auto session = makeURLSession(configuration);
  Gate inCompletion;
  Gate followUp;
  std::atomic<bool> completing{false};
  session
      ->dataTask(URLRequest{"http://127.0.0.1:1/", "GET", {}, std::nullopt},
                 [&](auto, auto, auto) {
                   completing = true;
                   inCompletion.opened.wait();
                   queue->async(followUp.waiter());
                 })
      ->resume();
  EXPECT_FALSE(activity::idle());
  ASSERT_TRUE(testing::eventually([&] { return completing.load(); }, 10s));
  EXPECT_FALSE(activity::idle());
  inCompletion.open.set_value();
  std::this_thread::sleep_for(50ms);  // for the completion to return
  EXPECT_FALSE(activity::idle());
  followUp.open.set_value();
  EXPECT_TRUE(becomesIdle());
}

}  // namespace
}  // namespace kestrova
