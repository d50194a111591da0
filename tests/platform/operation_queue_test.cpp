#include "platform/operation_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <future>
#include <stdexcept>
#include <thread>

#include "platform/dispatch_group.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

using namespace std::chrono_literals;

constexpr auto kGenerous = 10s;

struct LogCapture {
  std::shared_ptr<testing::CapturedLog> log = testing::CapturedLog::install();
  ~LogCapture() { log->uninstall(); }
};

// A dispatch queue that runs its work only when the test says so, on the test's thread, so
// every start of an operation is a visible step.
class SteppedQueue : public DispatchQueue {
 public:
  const std::string& label() const override { return label_; }
  QualityOfService qualityOfService() const override { return QualityOfService::utility; }
  void async(std::function<void()> work) override {
    std::lock_guard lock(mutex_);
    pending_.push_back(std::move(work));
  }
  void sync(std::function<void()> work) override { work(); }
  bool isCurrent() const override { return running_.load(); }

  std::size_t pending() const {
    std::lock_guard lock(mutex_);
    return pending_.size();
  }

  // Runs work until none is left, including work submitted meanwhile.
  void runAll() {
    for (;;) {
      std::function<void()> work;
      {
        std::lock_guard lock(mutex_);
        if (pending_.empty()) {
          return;
        }
        work = std::move(pending_.front());
        pending_.pop_front();
      }
      running_.store(true);
      work();
      running_.store(false);
    }
  }

 private:
  const std::string label_ = "stepped";
  std::atomic<bool> running_{false};
  mutable std::mutex mutex_;  // owns pending_
  std::deque<std::function<void()>> pending_;
};

// Records what ran, in order. Shared by the operations of one test; owned by its mutex.
struct Journal {
  void add(std::string entry) {
    std::lock_guard lock(mutex);
    entries.push_back(std::move(entry));
  }
  std::vector<std::string> get() {
    std::lock_guard lock(mutex);
    return entries;
  }
  void clear() {
    std::lock_guard lock(mutex);
    entries.clear();
  }

  std::mutex mutex;
  std::vector<std::string> entries;
};

class RecordingOperation : public Operation {
 public:
  RecordingOperation(std::shared_ptr<Journal> journal, std::string name)
      : journal_(std::move(journal)), name_(std::move(name)) {}

 protected:
  void main() override { journal_->add(name_); }

 private:
  std::shared_ptr<Journal> journal_;
  std::string name_;
};

// Runs until told to finish, possibly from another thread, as a network request does. With
// `finishWhenCancelledAtStart` false, a start after cancel does nothing at all, so it never
// reports finished.
class AsyncOperation : public Operation {
 public:
  explicit AsyncOperation(bool finishWhenCancelledAtStart = true)
      : finishWhenCancelledAtStart_(finishWhenCancelledAtStart) {}

  void start() override {
    if (isCancelled()) {
      if (finishWhenCancelledAtStart_) {
        finish();
      }
      return;
    }
    willChangeValueForKey(kIsExecutingKey);
    executing_.store(true);
    didChangeValueForKey(kIsExecutingKey);
  }
  bool isAsynchronous() const override { return true; }
  bool isExecuting() const override { return executing_.load(); }
  bool isFinished() const override { return finished_.load(); }

  void finish() {
    willChangeValueForKey(kIsExecutingKey);
    willChangeValueForKey(kIsFinishedKey);
    executing_.store(false);
    finished_.store(true);
    didChangeValueForKey(kIsExecutingKey);
    didChangeValueForKey(kIsFinishedKey);
  }

 private:
  const bool finishWhenCancelledAtStart_;
  std::atomic<bool> executing_{false};
  std::atomic<bool> finished_{false};
};

TEST(OperationTest, AnnouncesStateChangesInOrder) {
  auto journal = std::make_shared<Journal>();
  auto observe = [&](Operation& operation) {
    operation.addObserver(
        [journal](Operation& changed, std::string_view key, Operation::ChangePhase phase) {
          const char* when = phase == Operation::ChangePhase::will ? "will " : "did ";
          // The new value is visible exactly from the "did" on.
          const bool value =
              key == Operation::kIsFinishedKey ? changed.isFinished() : changed.isExecuting();
          journal->add(when + std::string(key) + (value ? "=1" : "=0"));
        });
  };

  auto operation = std::make_shared<RecordingOperation>(journal, "main");
  observe(*operation);
  EXPECT_FALSE(operation->isAsynchronous());
  operation->start();
  EXPECT_EQ(journal->get(),
            (std::vector<std::string>{"will isExecuting=0", "did isExecuting=1", "main",
                                      "will isExecuting=1", "will isFinished=0",
                                      "did isExecuting=0", "did isFinished=1"}));
  EXPECT_TRUE(operation->isFinished());
  EXPECT_FALSE(operation->isExecuting());

  // A second start of a finished operation announces nothing and runs nothing.
  const auto before = journal->get().size();
  operation->start();
  EXPECT_EQ(journal->get().size(), before);

  // Cancelled before start: finished without running main.
  auto cancelled = std::make_shared<RecordingOperation>(journal, "cancelled main");
  cancelled->cancel();
  journal->clear();
  observe(*cancelled);
  cancelled->start();
  EXPECT_EQ(journal->get(), (std::vector<std::string>{"will isFinished=0", "did isFinished=1"}));
  EXPECT_TRUE(cancelled->isCancelled());
}

TEST(OperationQueueTest, RunsOneOperationAtATimeInOrder) {
  auto dispatch = std::make_shared<SteppedQueue>();
  auto queue = OperationQueue::make("ops", QualityOfService::utility, dispatch);
  EXPECT_EQ(queue->name(), "ops");
  EXPECT_EQ(queue->qualityOfService(), QualityOfService::utility);
  auto journal = std::make_shared<Journal>();

  for (const char* name : {"first", "second", "third"}) {
    queue->addOperation(std::make_shared<RecordingOperation>(journal, name));
  }
  EXPECT_EQ(queue->operationCount(), 3u);
  // Only the first is handed to the dispatch queue; the others wait for it to finish.
  EXPECT_EQ(dispatch->pending(), 1u);
  dispatch->runAll();
  EXPECT_EQ(journal->get(), (std::vector<std::string>{"first", "second", "third"}));
  EXPECT_EQ(queue->operationCount(), 0u);
}

TEST(OperationQueueTest, AsynchronousOperationHoldsTheSlotUntilItFinishesOnAnotherThread) {
  auto dispatch = std::make_shared<SteppedQueue>();
  auto queue = OperationQueue::make("async", QualityOfService::utility, dispatch);
  auto journal = std::make_shared<Journal>();
  auto request = std::make_shared<AsyncOperation>();
  queue->addOperation(request);
  queue->addOperation(std::make_shared<RecordingOperation>(journal, "next"));

  dispatch->runAll();
  EXPECT_TRUE(request->isExecuting());
  EXPECT_TRUE(journal->get().empty());
  EXPECT_EQ(queue->operationCount(), 2u);

  std::thread network([request] { request->finish(); });
  network.join();
  EXPECT_EQ(queue->operationCount(), 1u);
  dispatch->runAll();
  EXPECT_EQ(journal->get(), (std::vector<std::string>{"next"}));
  EXPECT_EQ(queue->operationCount(), 0u);

  // Announcing "finished" twice must not take a second operation off the queue.
  auto held = std::make_shared<AsyncOperation>();
  queue->addOperation(held);
  dispatch->runAll();
  request->finish();
  EXPECT_EQ(queue->operationCount(), 1u);
}

TEST(OperationQueueTest, SuspensionHoldsOperationsAndCancelAllStillStartsThem) {
  auto dispatch = std::make_shared<SteppedQueue>();
  auto queue = OperationQueue::make("suspended", QualityOfService::utility, dispatch);
  auto journal = std::make_shared<Journal>();
  queue->setSuspended(true);
  EXPECT_TRUE(queue->isSuspended());

  auto first = std::make_shared<RecordingOperation>(journal, "first");
  auto second = std::make_shared<RecordingOperation>(journal, "second");
  queue->addOperation(first);
  queue->addOperation(second);
  dispatch->runAll();
  EXPECT_EQ(queue->operationCount(), 2u);
  EXPECT_FALSE(first->isExecuting() || first->isFinished());

  queue->cancelAllOperations();
  EXPECT_TRUE(first->isCancelled());
  EXPECT_TRUE(second->isCancelled());
  EXPECT_EQ(queue->operationCount(), 2u);

  queue->setSuspended(false);
  dispatch->runAll();
  // Started, so finished, but a cancelled synchronous operation does not run its main.
  EXPECT_TRUE(first->isFinished());
  EXPECT_TRUE(second->isFinished());
  EXPECT_TRUE(journal->get().empty());
  EXPECT_EQ(queue->operationCount(), 0u);

  // Suspending while one runs lets it go on but starts nothing after it.
  auto running = std::make_shared<AsyncOperation>();
  queue->addOperation(running);
  queue->addOperation(std::make_shared<RecordingOperation>(journal, "after"));
  dispatch->runAll();
  queue->setSuspended(true);
  running->finish();
  dispatch->runAll();
  EXPECT_TRUE(journal->get().empty());
  EXPECT_EQ(queue->operationCount(), 1u);
  queue->setSuspended(false);
  dispatch->runAll();
  EXPECT_EQ(journal->get(), (std::vector<std::string>{"after"}));
}

TEST(OperationQueueTest, CancelledOperationThatDeclinesToStartLeavesTheQueue) {
  auto dispatch = std::make_shared<SteppedQueue>();
  auto queue = OperationQueue::make("declined", QualityOfService::utility, dispatch);
  auto journal = std::make_shared<Journal>();
  queue->setSuspended(true);
  auto silent = std::make_shared<AsyncOperation>(/*finishWhenCancelledAtStart=*/false);
  queue->addOperation(silent);
  queue->cancelAllOperations();
  // Added after the cancel, so it is not cancelled and must run.
  queue->addOperation(std::make_shared<RecordingOperation>(journal, "behind"));
  queue->setSuspended(false);

  // Started once, it does nothing and never reports finished; the queue lets it go all the
  // same, so the one slot is free for what waits behind it.
  dispatch->runAll();
  EXPECT_FALSE(silent->isFinished() || silent->isExecuting());
  EXPECT_EQ(journal->get(), (std::vector<std::string>{"behind"}));
  EXPECT_EQ(queue->operationCount(), 0u);

  // One that does finish on a cancelled start frees the slot in the usual way.
  auto polite = std::make_shared<AsyncOperation>();
  queue->setSuspended(true);
  queue->addOperation(polite);
  queue->addOperation(std::make_shared<RecordingOperation>(journal, "cancelled too"));
  queue->cancelAllOperations();
  queue->setSuspended(false);
  dispatch->runAll();
  EXPECT_TRUE(polite->isFinished());
  EXPECT_EQ(queue->operationCount(), 0u);
  EXPECT_EQ(journal->get(), (std::vector<std::string>{"behind"}));
}

TEST(OperationQueueTest, HonoursALargerConcurrencyLimitAndBadInput) {
  LogCapture capture;
  auto dispatch = std::make_shared<SteppedQueue>();
  auto queue = OperationQueue::make("wide", QualityOfService::utility, dispatch, 2);
  auto a = std::make_shared<AsyncOperation>();
  auto b = std::make_shared<AsyncOperation>();
  auto c = std::make_shared<AsyncOperation>();
  queue->addOperation(a);
  queue->addOperation(b);
  queue->addOperation(c);
  dispatch->runAll();
  EXPECT_TRUE(a->isExecuting());
  EXPECT_TRUE(b->isExecuting());
  EXPECT_FALSE(c->isExecuting());
  b->finish();
  dispatch->runAll();
  EXPECT_TRUE(c->isExecuting());
  EXPECT_EQ(queue->operationCount(), 2u);

  // A finished operation would never announce anything again, so it is refused.
  auto done = std::make_shared<RecordingOperation>(std::make_shared<Journal>(), "done");
  done->start();
  queue->addOperation(done);
  queue->addOperation(nullptr);
  EXPECT_EQ(queue->operationCount(), 2u);
  EXPECT_TRUE(capture.log->contains("has already finished"));

  // A throwing main is logged and the operation still finishes, freeing its slot.
  class Throwing : public Operation {
    void main() override { throw std::runtime_error("broken operation"); }
  };
  auto serial = OperationQueue::make("serial", QualityOfService::utility, dispatch);
  auto throwing = std::make_shared<Throwing>();
  serial->addOperation(throwing);
  dispatch->runAll();
  EXPECT_TRUE(throwing->isFinished());
  EXPECT_EQ(serial->operationCount(), 0u);
  EXPECT_TRUE(capture.log->contains("broken operation"));
}

TEST(OperationQueueTest, DroppingTheQueueWhileAnOperationRunsIsSafe) {
  auto dispatch = std::make_shared<SteppedQueue>();
  auto queue = OperationQueue::make("dropped", QualityOfService::utility, dispatch);
  auto running = std::make_shared<AsyncOperation>();
  queue->addOperation(running);
  queue->addOperation(std::make_shared<AsyncOperation>());
  dispatch->runAll();
  std::weak_ptr<OperationQueue> weak = queue;
  queue.reset();
  EXPECT_TRUE(weak.expired());
  running->finish();  // its observer finds no queue
  dispatch->runAll();
  EXPECT_TRUE(running->isFinished());
}

TEST(OperationQueueTest, OperationsAddedFromManyThreadsNeverOverlapOnARealQueue) {
  auto dispatcher = makeDispatcher();
  auto queue = OperationQueue::make("real", QualityOfService::utility,
                                    dispatcher->makeSerialQueue("ops", QualityOfService::utility));
  // Each finishes from a thread of its own, as a network callback would.
  class Overlapping : public AsyncOperation {
   public:
    Overlapping(std::atomic<int>& running, std::atomic<int>& overlaps, DispatchGroup& done)
        : running_(running), overlaps_(overlaps), done_(done) {}
    void start() override {
      overlaps_ += running_.fetch_add(1) != 0 ? 1 : 0;
      AsyncOperation::start();
      std::thread([this, self = shared_from_this()] {
        running_.fetch_sub(1);
        finish();
        done_.leave();
      }).detach();
    }

   private:
    std::atomic<int>& running_;
    std::atomic<int>& overlaps_;
    DispatchGroup& done_;
  };

  std::atomic<int> running{0};
  std::atomic<int> overlaps{0};
  DispatchGroup done;
  std::vector<std::thread> adders;
  for (int t = 0; t < 4; ++t) {
    adders.emplace_back([&] {
      for (int i = 0; i < 25; ++i) {
        done.enter();
        queue->addOperation(std::make_shared<Overlapping>(running, overlaps, done));
      }
    });
  }
  for (auto& adder : adders) {
    adder.join();
  }
  ASSERT_TRUE(done.wait(kGenerous));
  EXPECT_EQ(overlaps.load(), 0);
  // Each leave() follows its operation's announcement, so the count is settled by now.
  EXPECT_EQ(queue->operationCount(), 0u);
}

}  // namespace
}  // namespace kestrova
