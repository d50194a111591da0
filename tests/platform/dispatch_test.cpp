#include "platform/dispatch.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include "platform/dispatch_group.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

using namespace std::chrono_literals;

// Long enough never to trip on a loaded CI machine; the waits normally end in milliseconds.
constexpr auto kGenerous = 10s;

// Blocks until `queue` has run everything submitted to it before this call.
void drain(DispatchQueue& queue) {
  std::promise<void> done;
  queue.async([&] { done.set_value(); });
  ASSERT_EQ(done.get_future().wait_for(kGenerous), std::future_status::ready);
}

TEST(DispatchTest, SerialQueueRunsInOrderOneAtATimeUnderConcurrentSubmitters) {
  auto dispatcher = makeDispatcher(DispatcherOptions{4, std::nullopt});
  auto queue = dispatcher->makeSerialQueue("serial", QualityOfService::utility);
  auto other = dispatcher->makeSerialQueue("other", QualityOfService::utility);
  constexpr int kSubmitters = 8;
  constexpr int kItems = 400;
  std::atomic<bool> inside{false};
  std::atomic<int> faults{0};
  std::vector<std::pair<int, int>> seen;  // owned by `queue`, which is the point under test

  std::vector<std::thread> submitters;
  for (int s = 0; s < kSubmitters; ++s) {
    submitters.emplace_back([&, s] {
      for (int i = 0; i < kItems; ++i) {
        queue->async([&, s, i] {
          faults += inside.exchange(true) || !queue->isCurrent() || other->isCurrent() ? 1 : 0;
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
  EXPECT_EQ(faults.load(), 0);
  ASSERT_EQ(seen.size(), static_cast<std::size_t>(kSubmitters * kItems));
  std::vector<int> next(kSubmitters, 0);
  for (const auto& [submitter, index] : seen) {
    EXPECT_EQ(index, next[submitter]++) << "submitter " << submitter;
  }
}

TEST(DispatchTest, SyncRunsInlineFromItsOwnQueueAndExceptionsAreLogged) {
  auto log = testing::CapturedLog::install();
  auto dispatcher = makeDispatcher(DispatcherOptions{2, std::nullopt});
  auto a = dispatcher->makeSerialQueue("a", QualityOfService::standard);
  auto b = dispatcher->makeSerialQueue("b", QualityOfService::standard);

  // From a to b and back: each hop sees its own queue as current, and a sync onto the queue
  // that is running runs at once instead of deadlocking.
  std::vector<std::string> steps;
  a->sync([&] {
    a->sync([&] { steps.push_back(a->isCurrent() ? "a-inline" : "a-wrong"); });
    b->sync([&] {
      steps.push_back(b->isCurrent() && !a->isCurrent() ? "b" : "b-wrong");
      b->sync([&] { steps.push_back("b-inline"); });
    });
    steps.push_back(a->isCurrent() ? "a-again" : "a-lost");
  });
  EXPECT_EQ(steps, (std::vector<std::string>{"a-inline", "b", "b-inline", "a-again"}));

  a->async([] { throw std::runtime_error("boom"); });
  a->async([] { throw 42; });
  a->sync([] { throw std::logic_error("in sync"); });
  drain(*a);
  EXPECT_TRUE(log->contains("Uncaught exception on queue a: boom"));
  EXPECT_TRUE(log->contains("Uncaught exception on queue a: unknown exception"));
  EXPECT_TRUE(log->contains("Uncaught exception on queue a: in sync"));
  log->uninstall();

  // Shared queues are one per label and dispatcher: work never goes to a dispatcher that is gone.
  auto write = dispatcher->sharedSerialQueue("w", QualityOfService::utility);
  EXPECT_EQ(dispatcher->sharedSerialQueue("w", QualityOfService::background), write);
  EXPECT_NE(makeDispatcher(DispatcherOptions{1, std::nullopt})
                ->sharedSerialQueue("w", QualityOfService::utility),
            write);
}

TEST(DispatchTest, DestroyingTheDispatcherRunsQueuedWorkThenDropsNewWork) {
  auto log = testing::CapturedLog::install();
  auto dispatcher = makeDispatcher(DispatcherOptions{2, std::nullopt});
  auto queue = dispatcher->makeSerialQueue("draining", QualityOfService::utility);
  auto main = dispatcher->mainQueue();
  std::promise<void> gate;
  queue->async([opened = gate.get_future().share()] { opened.wait(); });
  std::atomic<int> ran{0};
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
  EXPECT_TRUE(log->contains("Dropped work for queue draining"));
  EXPECT_TRUE(log->contains("Dropped work for queue main"));
  log->uninstall();
}

TEST(DispatchGroupTest, NotifyRunsOnceWhenTheCountReachesZero) {
  auto log = testing::CapturedLog::install();
  auto dispatcher = makeDispatcher(DispatcherOptions{2, std::nullopt});
  auto queue = dispatcher->makeSerialQueue("group", QualityOfService::utility);
  DispatchGroup group;
  // An unbounded wait on an empty group must not overflow its deadline.
  EXPECT_TRUE(group.wait(std::chrono::nanoseconds::max()));
  group.leave();  // a stray leave is logged and banks no credit
  EXPECT_TRUE(log->contains("leave() without a matching enter()"));
  log->uninstall();
  std::atomic<int> notified{0};
  group.notify(queue, [&] { ++notified; });  // empty: at once
  group.enter();
  group.enter();
  group.notify(queue, [&] { ++notified; });
  EXPECT_FALSE(group.wait(1ms));
  group.leave();
  drain(*queue);
  EXPECT_EQ(notified.load(), 1);
  group.leave();
  drain(*queue);
  EXPECT_EQ(notified.load(), 2);
  group.enter();
  group.leave();
  drain(*queue);
  EXPECT_EQ(notified.load(), 2);
}

}  // namespace
}  // namespace kestrova
