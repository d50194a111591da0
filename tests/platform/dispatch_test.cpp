#include "platform/dispatch.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <future>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/clock.h"
#include "platform/dispatch_group.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

using namespace std::chrono_literals;

// Long enough never to trip on a loaded CI machine; the waits normally end in milliseconds.
constexpr auto kGenerous = 10s;

DispatcherOptions withThreads(int threads, std::optional<MainExecutor> mainExecutor = {}) {
  DispatcherOptions options;
  options.threads = threads;
  options.mainExecutor = std::move(mainExecutor);
  return options;
}

// Puts the log back the way it was however the test ends.
struct LogCapture {
  std::shared_ptr<testing::CapturedLog> log = testing::CapturedLog::install();
  ~LogCapture() { log->uninstall(); }
};

// Blocks until `queue` has run everything submitted to it before this call.
void drain(DispatchQueue& queue) {
  std::promise<void> done;
  queue.async([&] { done.set_value(); });
  ASSERT_EQ(done.get_future().wait_for(kGenerous), std::future_status::ready);
}

// A host's main loop: work waits until the test runs it, on the test's thread.
struct HostLoop {
  MainExecutor executor() {
    return [this](std::function<void()> work) {
      std::lock_guard lock(mutex);
      pending.push_back(std::move(work));
    };
  }
  void runPending() {
    for (;;) {
      std::unique_lock lock(mutex);
      if (pending.empty()) {
        return;
      }
      auto work = std::move(pending.front());
      pending.pop_front();
      lock.unlock();
      work();
    }
  }

  std::mutex mutex;  // owns pending
  std::deque<std::function<void()>> pending;
};

TEST(DispatchTest, SerialQueueRunsInOrderOneAtATimeUnderConcurrentSubmitters) {
  auto dispatcher = makeDispatcher(withThreads(4));
  auto queue = dispatcher->makeSerialQueue("serial", QualityOfService::utility);
  auto other = dispatcher->makeSerialQueue("other", QualityOfService::utility);
  EXPECT_EQ(queue->label(), "serial");
  EXPECT_EQ(queue->qualityOfService(), QualityOfService::utility);

  constexpr int kSubmitters = 8;
  constexpr int kItems = 400;
  std::atomic<bool> inside{false};
  std::atomic<int> overlaps{0};
  std::atomic<int> notCurrent{0};
  // Owned by `queue`: touched only from its work, which is the point under test.
  std::vector<std::pair<int, int>> seen;

  std::vector<std::thread> submitters;
  for (int s = 0; s < kSubmitters; ++s) {
    submitters.emplace_back([&, s] {
      for (int i = 0; i < kItems; ++i) {
        queue->async([&, s, i] {
          if (inside.exchange(true)) {
            ++overlaps;
          }
          if (!queue->isCurrent() || other->isCurrent()) {
            ++notCurrent;
          }
          seen.emplace_back(s, i);
          inside.store(false);
        });
      }
    });
  }
  for (auto& submitter : submitters) {
    submitter.join();
  }
  drain(*queue);

  EXPECT_EQ(overlaps.load(), 0);
  EXPECT_EQ(notCurrent.load(), 0);
  EXPECT_FALSE(queue->isCurrent());
  ASSERT_EQ(seen.size(), static_cast<std::size_t>(kSubmitters * kItems));
  std::vector<int> next(kSubmitters, 0);
  for (const auto& [submitter, index] : seen) {
    EXPECT_EQ(index, next[submitter]) << "submitter " << submitter;
    next[submitter] = index + 1;
  }
}

TEST(DispatchTest, SyncRunsOnTheQueueAndInlineFromItself) {
  auto dispatcher = makeDispatcher(withThreads(2));
  auto a = dispatcher->makeSerialQueue("a", QualityOfService::standard);
  auto b = dispatcher->makeSerialQueue("b", QualityOfService::standard);

  // From outside: returns only after the work ran, on the queue.
  bool ranOnA = false;
  a->sync([&] { ranOnA = a->isCurrent(); });
  EXPECT_TRUE(ranOnA);

  // From the queue itself: runs at once instead of deadlocking; from a to b and back, each
  // hop sees its own queue as current.
  std::promise<std::vector<std::string>> result;
  a->async([&] {
    std::vector<std::string> steps;
    a->sync([&] { steps.push_back(a->isCurrent() ? "a-inline" : "a-wrong"); });
    b->sync([&] {
      steps.push_back(b->isCurrent() && !a->isCurrent() ? "b" : "b-wrong");
      b->sync([&] { steps.push_back("b-inline"); });
    });
    steps.push_back(a->isCurrent() ? "a-again" : "a-lost");
    result.set_value(steps);
  });
  auto steps = result.get_future();
  ASSERT_EQ(steps.wait_for(kGenerous), std::future_status::ready);
  EXPECT_EQ(steps.get(), (std::vector<std::string>{"a-inline", "b", "b-inline", "a-again"}));
}

TEST(DispatchTest, SharedQueuesAreOnePerLabelAndDispatcher) {
  auto dispatcher = makeDispatcher(withThreads(1));
  auto write = dispatcher->sharedSerialQueue("w", QualityOfService::utility);
  EXPECT_EQ(dispatcher->sharedSerialQueue("w", QualityOfService::background), write);
  EXPECT_EQ(write->qualityOfService(), QualityOfService::utility);
  EXPECT_NE(dispatcher->sharedSerialQueue("other", QualityOfService::utility), write);
  // Another dispatcher, another queue: work is never handed to a dispatcher that is gone.
  auto second = makeDispatcher(withThreads(1));
  EXPECT_NE(second->sharedSerialQueue("w", QualityOfService::utility), write);
}

TEST(DispatchTest, ExceptionInWorkIsLoggedAndTheQueueGoesOn) {
  LogCapture capture;
  auto dispatcher = makeDispatcher(withThreads(1));
  auto queue = dispatcher->makeSerialQueue("throwing", QualityOfService::background);

  queue->async([] { throw std::runtime_error("boom"); });
  queue->async([] { throw 42; });
  queue->sync([] { throw std::logic_error("in sync"); });
  drain(*queue);

  EXPECT_TRUE(capture.log->contains("Uncaught exception on queue throwing: boom"));
  EXPECT_TRUE(capture.log->contains("Uncaught exception on queue throwing: unknown exception"));
  EXPECT_TRUE(capture.log->contains("Uncaught exception on queue throwing: in sync"));
  // The thread that ran them is still serving the queue.
  bool ran = false;
  queue->sync([&] { ran = true; });
  EXPECT_TRUE(ran);
}

TEST(DispatchTest, MainQueueOnTheHostExecutorRunsOnlyWhenTheHostRunsIt) {
  HostLoop host;
  auto dispatcher = makeDispatcher(withThreads(2, host.executor()));
  auto main = dispatcher->mainQueue();
  EXPECT_EQ(main, dispatcher->mainQueue());

  std::vector<int> order;  // owned by the main queue, which is the test's thread here
  bool current = false;
  main->async([&] {
    order.push_back(1);
    current = main->isCurrent();
    main->sync([&] { order.push_back(2); });
  });
  main->async([&] { order.push_back(3); });
  // Work from a serial queue reaches the host's executor too.
  auto serial = dispatcher->makeSerialQueue("worker", QualityOfService::utility);
  serial->sync([&] { main->async([&] { order.push_back(4); }); });
  EXPECT_TRUE(order.empty());

  host.runPending();
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4}));
  EXPECT_TRUE(current);
  EXPECT_FALSE(main->isCurrent());
}

TEST(DispatchTest, MainQueueOnItsOwnThread) {
  auto dispatcher = makeDispatcher(withThreads(2));
  auto main = dispatcher->mainQueue();
  auto serial = dispatcher->makeSerialQueue("worker", QualityOfService::utility);

  std::promise<std::pair<std::thread::id, bool>> seen;
  main->async([&] { seen.set_value({std::this_thread::get_id(), main->isCurrent()}); });
  auto future = seen.get_future();
  ASSERT_EQ(future.wait_for(kGenerous), std::future_status::ready);
  const auto [thread, current] = future.get();
  EXPECT_NE(thread, std::this_thread::get_id());
  EXPECT_TRUE(current);

  // The same thread every time, also when reached with sync from a serial queue.
  std::thread::id again;
  serial->sync([&] { main->sync([&] { again = std::this_thread::get_id(); }); });
  EXPECT_EQ(again, thread);
}

TEST(DispatchTest, DestroyingTheDispatcherRunsQueuedWorkThenDropsNewWork) {
  LogCapture capture;
  auto dispatcher = makeDispatcher(withThreads(2));
  auto queue = dispatcher->makeSerialQueue("draining", QualityOfService::utility);
  auto main = dispatcher->mainQueue();

  std::promise<void> gate;
  std::shared_future<void> opened = gate.get_future().share();
  std::atomic<int> ran{0};
  queue->async([opened] { opened.wait(); });
  for (int i = 0; i < 200; ++i) {
    queue->async([&] { ++ran; });
  }
  main->async([&] { ++ran; });
  // Work that resubmits itself for ever must not keep the destructor waiting.
  auto loop = dispatcher->makeSerialQueue("loop", QualityOfService::utility);
  std::function<void()> again = [&] { loop->async(again); };
  loop->async(again);

  gate.set_value();
  dispatcher.reset();
  EXPECT_EQ(ran.load(), 201);

  bool late = false;
  queue->async([&] { late = true; });
  queue->sync([&] { late = true; });
  main->async([&] { late = true; });
  EXPECT_FALSE(late);
  EXPECT_TRUE(capture.log->contains("Dropped work for queue draining"));
  EXPECT_TRUE(capture.log->contains("Dropped work for queue main"));
}

TEST(DispatchTest, DestroyingTheDispatcherFromItsOwnWorkDoesNotHang) {
  auto dispatcher = makeDispatcher(withThreads(1));
  auto queue = dispatcher->makeSerialQueue("self", QualityOfService::utility);
  auto main = dispatcher->mainQueue();

  std::promise<bool> released;
  queue->async([&, owned = std::move(dispatcher)]() mutable {
    const std::weak_ptr<Dispatcher> weak = owned;
    owned.reset();
    released.set_value(weak.expired());
  });
  auto destroyed = released.get_future();
  ASSERT_EQ(destroyed.wait_for(kGenerous), std::future_status::ready);
  EXPECT_TRUE(destroyed.get());
  bool late = false;
  queue->sync([&] { late = true; });
  EXPECT_FALSE(late);
}

TEST(DispatchGroupTest, NotifyAndWaitFollowTheCount) {
  auto dispatcher = makeDispatcher(withThreads(2));
  auto queue = dispatcher->makeSerialQueue("group", QualityOfService::utility);
  DispatchGroup group;

  // Empty: notify runs (on the queue), wait returns at once.
  std::promise<bool> early;
  group.notify(queue, [&] { early.set_value(queue->isCurrent()); });
  auto earlyRan = early.get_future();
  ASSERT_EQ(earlyRan.wait_for(kGenerous), std::future_status::ready);
  EXPECT_TRUE(earlyRan.get());
  EXPECT_TRUE(group.wait(0ns));

  group.enter();
  group.enter();
  std::atomic<int> notified{0};
  group.notify(queue, [&] { ++notified; });
  group.notify(queue, [&] { ++notified; });
  EXPECT_FALSE(group.wait(1ms));
  group.leave();
  drain(*queue);
  EXPECT_EQ(notified.load(), 0);

  auto waiter = std::async(std::launch::async, [&] { return group.wait(kGenerous); });
  auto leaver = std::async(std::launch::async, [&] { group.leave(); });
  ASSERT_EQ(waiter.wait_for(kGenerous), std::future_status::ready);
  EXPECT_TRUE(waiter.get());
  // The waiter may wake before leave() has handed the notifications over.
  leaver.get();
  drain(*queue);
  EXPECT_EQ(notified.load(), 2);

  // Notifications run once: a later round does not repeat them.
  group.enter();
  group.leave();
  drain(*queue);
  EXPECT_EQ(notified.load(), 2);
  // An unbounded wait on an empty group must not overflow its deadline.
  EXPECT_TRUE(group.wait(std::chrono::nanoseconds::max()));
}

TEST(DispatchGroupTest, UnbalancedLeaveIsLoggedAndIgnored) {
  LogCapture capture;
  DispatchGroup group;
  group.leave();
  EXPECT_TRUE(capture.log->contains("leave() without a matching enter()"));
  // The stray leave did not bank a credit: one enter makes the group busy again.
  group.enter();
  EXPECT_FALSE(group.wait(1ms));
  group.leave();
  EXPECT_TRUE(group.wait(0ns));
}

// The system clock's timers, with real delays of a few milliseconds. Sentinel timers on the same
// serial queue prove that something did not fire: handlers reach the queue in deadline order.
class SystemClockTest : public ::testing::Test {
 protected:
  struct Fired {
    std::mutex mutex;  // owns names
    std::condition_variable changed;
    std::vector<std::string> names;
  };

  std::function<void()> record(std::string name) {
    return [fired = fired_, name] {
      std::lock_guard lock(fired->mutex);
      fired->names.push_back(name);
      fired->changed.notify_all();
    };
  }

  std::vector<std::string> waitFor(std::size_t count) {
    std::unique_lock lock(fired_->mutex);
    fired_->changed.wait_for(lock, kGenerous, [&] { return fired_->names.size() >= count; });
    return fired_->names;
  }

  // Fired timers disarm before their handler reaches the queue; a short poll is the only way
  // to see that moment from outside.
  static bool waitUntilDisarmed(const Timer& timer) {
    const auto deadline = std::chrono::steady_clock::now() + kGenerous;
    while (timer.isArmed()) {
      if (std::chrono::steady_clock::now() > deadline) {
        return false;
      }
      std::this_thread::sleep_for(1ms);
    }
    return true;
  }

  std::shared_ptr<Dispatcher> dispatcher_ = makeDispatcher(withThreads(2));
  std::shared_ptr<DispatchQueue> queue_ =
      dispatcher_->makeSerialQueue("timers", QualityOfService::utility);
  std::shared_ptr<Clock> clock_ = makeSystemClock();
  std::shared_ptr<Fired> fired_ = std::make_shared<Fired>();
};

TEST_F(SystemClockTest, TimerFiresOnceOnItsQueueAndReArmingMovesTheDeadline) {
  bool onQueue = false;
  auto once = clock_->makeTimer(queue_, [&, recordOnce = record("once")] {
    onQueue = queue_->isCurrent();
    recordOnce();
  });
  const auto armedAt = std::chrono::steady_clock::now();
  once->schedule(2ms, 1ms);
  EXPECT_TRUE(once->isArmed());
  auto moved = clock_->makeTimer(queue_, record("moved"));
  moved->schedule(5ms);
  moved->schedule(40ms);
  auto sentinel = clock_->makeTimer(queue_, record("sentinel"));
  sentinel->schedule(20ms);
  auto after = clock_->makeTimer(queue_, record("after"));
  after->schedule(70ms);

  EXPECT_EQ(waitFor(4), (std::vector<std::string>{"once", "sentinel", "moved", "after"}));
  EXPECT_GE(std::chrono::steady_clock::now() - armedAt, 40ms);
  EXPECT_TRUE(onQueue);
  EXPECT_FALSE(once->isArmed());
  EXPECT_FALSE(moved->isArmed());

  // Re-armed after firing, it fires again.
  once->schedule(1ms);
  EXPECT_EQ(waitFor(5).back(), "once");
}

TEST_F(SystemClockTest, CancelledOrDestroyedTimerNeverFires) {
  auto cancelled = clock_->makeTimer(queue_, record("cancelled"));
  cancelled->schedule(2ms);
  cancelled->cancel();
  EXPECT_FALSE(cancelled->isArmed());
  auto destroyed = clock_->makeTimer(queue_, record("destroyed"));
  destroyed->schedule(2ms);
  destroyed.reset();
  auto sentinel = clock_->makeTimer(queue_, record("sentinel"));
  sentinel->schedule(15ms);
  EXPECT_EQ(waitFor(1), (std::vector<std::string>{"sentinel"}));

  // Destroyed while its firing waits behind busy work on the queue: the handler is dropped.
  std::promise<void> gate;
  std::shared_future<void> opened = gate.get_future().share();
  queue_->async([opened] { opened.wait(); });
  auto late = clock_->makeTimer(queue_, record("late"));
  late->schedule(1ms);
  auto cancelledLate = clock_->makeTimer(queue_, record("cancelled late"));
  cancelledLate->schedule(1ms);
  ASSERT_TRUE(waitUntilDisarmed(*late));
  ASSERT_TRUE(waitUntilDisarmed(*cancelledLate));
  late.reset();
  cancelledLate->cancel();
  gate.set_value();
  drain(*queue_);
  EXPECT_EQ(waitFor(1), (std::vector<std::string>{"sentinel"}));

  // A handler may destroy its own timer.
  std::unique_ptr<Timer> self;
  std::promise<void> selfRan;
  self = clock_->makeTimer(queue_, [&] {
    self.reset();
    selfRan.set_value();
  });
  self->schedule(1ms);
  EXPECT_EQ(selfRan.get_future().wait_for(kGenerous), std::future_status::ready);
}

}  // namespace
}  // namespace kestrova
