#include "platform/operation_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <stdexcept>
#include <thread>

#include "platform/dispatch_group.h"
#include "platform/held_operation.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

using namespace std::chrono_literals;

using testing::HeldOperation;

// Runs its work only when the test calls runAll, on the test's thread, so every hand-over to
// the queue is a visible step.
class SteppedQueue : public DispatchQueue {
 public:
  const std::string& label() const override { return label_; }
  QualityOfService qualityOfService() const override { return QualityOfService::utility; }
  void async(std::function<void()> work) override { pending_.push_back(std::move(work)); }
  void sync(std::function<void()> work) override { work(); }
  bool isCurrent() const override { return false; }
  // Runs work until none is left, including work submitted meanwhile.
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

// Records its name in `journal` when its main runs.
class RecordingOperation : public Operation {
 public:
  RecordingOperation(std::vector<std::string>& journal, std::string name)
      : journal_(journal), name_(std::move(name)) {}

 protected:
  void main() override { journal_.push_back(name_); }

 private:
  std::vector<std::string>& journal_;
  const std::string name_;
};

class OperationQueueTest : public ::testing::Test {
 protected:
  std::shared_ptr<SteppedQueue> dispatch_ = std::make_shared<SteppedQueue>();
  std::shared_ptr<OperationQueue> queue_ =
      OperationQueue::make("ops", QualityOfService::utility, dispatch_);
  std::vector<std::string> journal_;  // owned by the test's thread
};

TEST_F(OperationQueueTest, OneAtATimeInOrderAndAnAsynchronousOneHoldsTheSlotUntilItFinishes) {
  auto request = std::make_shared<HeldOperation>();
  queue_->addOperation(std::make_shared<RecordingOperation>(journal_, "first"));
  queue_->addOperation(request);
  queue_->addOperation(std::make_shared<RecordingOperation>(journal_, "after request"));
  dispatch_->runAll();
  EXPECT_EQ(journal_, std::vector<std::string>{"first"});
  EXPECT_TRUE(request->isExecuting());
  EXPECT_EQ(queue_->operationCount(), 2u);

  std::thread([request] { request->finish(); }).join();
  dispatch_->runAll();
  EXPECT_EQ(journal_, (std::vector<std::string>{"first", "after request"}));
  EXPECT_EQ(queue_->operationCount(), 0u);
  // Announcing "finished" twice must not take a second operation off the queue.
  auto held = std::make_shared<HeldOperation>();
  queue_->addOperation(held);
  dispatch_->runAll();
  request->finish();
  EXPECT_EQ(queue_->operationCount(), 1u);
}

TEST_F(OperationQueueTest, CancelAllStartsWaitingOperationsWithoutRunningThem) {
  queue_->setSuspended(true);
  auto silent = std::make_shared<HeldOperation>(/*finishWhenCancelledAtStart=*/false);
  auto polite = std::make_shared<HeldOperation>();
  queue_->addOperation(std::make_shared<RecordingOperation>(journal_, "cancelled"));
  queue_->addOperation(silent);
  queue_->addOperation(polite);
  dispatch_->runAll();
  EXPECT_TRUE(journal_.empty());
  queue_->cancelAllOperations();
  // Added after the cancel, so it is not cancelled and must run.
  queue_->addOperation(std::make_shared<RecordingOperation>(journal_, "behind"));
  queue_->setSuspended(false);
  dispatch_->runAll();
  EXPECT_EQ(journal_, std::vector<std::string>{"behind"});
  EXPECT_TRUE(polite->isFinished());
  // Started once, it does nothing and never reports finished; the queue lets it go all the
  // same, or it would hold the one slot for ever.
  EXPECT_FALSE(silent->isFinished() || silent->isExecuting());
  EXPECT_EQ(queue_->operationCount(), 0u);
}

TEST_F(OperationQueueTest, RefusedInputThrowingOperationsAndADroppedQueue) {
  auto log = testing::CapturedLog::install();
  // A finished operation would never announce anything again, so it is refused.
  auto done = std::make_shared<RecordingOperation>(journal_, "done");
  done->start();
  done->start();  // a second start runs nothing
  auto other = OperationQueue::make("other", QualityOfService::utility, dispatch_);
  auto held = std::make_shared<HeldOperation>();
  other->addOperation(held);
  other->addOperation(done);
  other->addOperation(nullptr);
  dispatch_->runAll();
  EXPECT_EQ(other->operationCount(), 1u);
  EXPECT_TRUE(log->contains("Operation added to queue other has already finished; ignored"));

  // Dropping the queue while an operation runs: its late finish finds no queue.
  std::weak_ptr<OperationQueue> weak = other;
  other.reset();
  EXPECT_TRUE(weak.expired());
  held->finish();

  // A throwing main is logged and the operation still finishes, freeing its slot.
  class Throwing : public Operation {
    void main() override { throw std::runtime_error("broken operation"); }
  };
  auto throwing = std::make_shared<Throwing>();
  queue_->addOperation(throwing);
  queue_->addOperation(std::make_shared<RecordingOperation>(journal_, "next"));
  dispatch_->runAll();
  EXPECT_TRUE(throwing->isFinished());
  EXPECT_EQ(journal_, (std::vector<std::string>{"done", "next"}));
  EXPECT_TRUE(log->contains("Uncaught exception in operation: broken operation"));
  log->uninstall();
}

TEST(OperationQueueThreads, OperationsAddedFromManyThreadsNeverOverlapOnARealQueue) {
  auto dispatcher = makeDispatcher();
  auto queue = OperationQueue::make("real", QualityOfService::utility,
                                    dispatcher->makeSerialQueue("ops", QualityOfService::utility));
  struct Shared {
    std::atomic<int> running{0};
    std::atomic<int> overlaps{0};
    DispatchGroup done;
  } shared;
  // Each finishes from a thread of its own, as a network callback would.
  class Overlapping : public HeldOperation {
   public:
    explicit Overlapping(Shared& shared) : shared_(shared) {}
    void start() override {
      shared_.overlaps += shared_.running.fetch_add(1) != 0 ? 1 : 0;
      HeldOperation::start();
      std::thread([this, self = shared_from_this()] {
        shared_.running.fetch_sub(1);
        finish();
        shared_.done.leave();
      }).detach();
    }

   private:
    Shared& shared_;
  };
  std::vector<std::thread> adders;
  for (int t = 0; t < 4; ++t) {
    adders.emplace_back([&] {
      for (int i = 0; i < 25; ++i) {
        shared.done.enter();
        queue->addOperation(std::make_shared<Overlapping>(shared));
      }
    });
  }
  for (auto& adder : adders) {
    adder.join();
  }
  ASSERT_TRUE(shared.done.wait(10s));
  EXPECT_EQ(shared.overlaps.load(), 0);
  // Each leave() follows its operation's announcement, so the count is settled by now.
  EXPECT_EQ(queue->operationCount(), 0u);
}

}  // namespace
}  // namespace kestrova
