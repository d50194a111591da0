// The Linux dispatcher: serial queues are Asio strands over one shared thread pool; the main
// queue is a thread of our own running an io_context, or the host's executor. The pool, the
// main thread and the "closed" flag belong to a DispatcherCore that every queue shares.
#include <algorithm>
#include <asio.hpp>
#include <exception>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <string>
#include <thread>
#include <utility>

#include "platform/activity.h"
#include "platform/dispatch.h"
#include "platform/log.h"

namespace kestrova {
namespace {

constexpr std::string_view kCategory = "dispatch";
constexpr std::string_view kUncaught = "Uncaught exception on queue %{public}@: %{public}@";
constexpr std::string_view kDropped = "Dropped work for queue %{public}@: its dispatcher is gone";

class DispatcherCore;

// What the calling thread is running right now; set only for the duration of one work item.
// Each thread owns its own copy.
struct RunningWork {
  const DispatchQueue* queue = nullptr;
  const DispatcherCore* core = nullptr;
};
thread_local RunningWork tlsRunning;

// Runs one work item as `queue`: marks the thread so isCurrent() answers, and keeps an
// exception from reaching the thread loop, where it would end the process.
void runAs(const DispatchQueue& queue, const DispatcherCore* core,
           const std::function<void()>& work) {
  const RunningWork previous = tlsRunning;
  tlsRunning = RunningWork{&queue, core};
  try {
    work();
  } catch (const std::exception& error) {
    logError(kCategory, kUncaught, {queue.label(), error.what()});
  } catch (...) {
    logError(kCategory, kUncaught, {queue.label(), "unknown exception"});
  }
  tlsRunning = previous;
}

// Shared by the dispatcher and all of its queues. Queues keep it alive so that the strands they
// hold never outlive the pool they live in; after shutdown() it is an empty shell whose
// threads are joined and which refuses all work.
class DispatcherCore : public std::enable_shared_from_this<DispatcherCore> {
 public:
  DispatcherCore(int threads, std::optional<MainExecutor> mainExecutor)
      : pool_(static_cast<std::size_t>(std::max(1, threads))),
        mainExecutor_(std::move(mainExecutor)) {
    if (!mainExecutor_) {
      mainContext_.emplace();
      mainWork_.emplace(mainContext_->get_executor());
      mainThread_ = std::thread([this] { mainContext_->run(); });
    }
  }

  DispatcherCore(const DispatcherCore&) = delete;
  DispatcherCore& operator=(const DispatcherCore&) = delete;

  // The dispatcher shuts the core down before letting go of it, and only queues (never our own
  // threads) hold it after that, so by now the threads are joined; join() is then a no-op.
  ~DispatcherCore() { join(); }

  asio::thread_pool::executor_type poolExecutor() { return pool_.get_executor(); }

  // Hands `item` to `strand`; false once the dispatcher is gone. The shared lock keeps shutdown
  // from joining the pool between the check and the post, which would strand the item.
  bool post(const asio::strand<asio::thread_pool::executor_type>& strand,
            std::function<void()> item) {
    std::shared_lock lock(mutex_);
    if (closed_) {
      return false;
    }
    asio::post(strand, std::move(item));
    return true;
  }

  bool postMain(std::function<void()> item) {
    {
      std::shared_lock lock(mutex_);
      if (closed_) {
        return false;
      }
      if (mainContext_) {
        asio::post(*mainContext_, std::move(item));
        return true;
      }
    }
    // The host's executor is called without our lock: it is independent of our lifetime, and
    // a host that runs the item inline must be able to destroy the dispatcher from it.
    (*mainExecutor_)(std::move(item));
    return true;
  }

  // Refuses new work, lets the work already queued run, then joins the threads. Called from one
  // of our own threads it cannot join itself, so a short-lived thread does the joining.
  void shutdown() {
    {
      std::unique_lock lock(mutex_);
      if (closed_) {
        return;
      }
      closed_ = true;
    }
    if (tlsRunning.core == this) {
      std::thread([self = shared_from_this()] { self->join(); }).detach();
      return;
    }
    join();
  }

 private:
  void join() {
    pool_.join();
    if (mainContext_) {
      mainWork_.reset();
      if (mainThread_.joinable()) {
        mainThread_.join();
      }
    }
  }

  asio::thread_pool pool_;
  const std::optional<MainExecutor> mainExecutor_;
  // Set when the main queue runs on a thread of ours. mainWork_ and mainThread_ are touched
  // only by the constructor and by join(): once through shutdown(), which lets one caller in,
  // then as a no-op from the destructor.
  std::optional<asio::io_context> mainContext_;
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> mainWork_;
  std::thread mainThread_;
  std::shared_mutex mutex_;  // owns closed_
  bool closed_ = false;
};

// What serial queues and the main queue share: sync on top of a queue-specific submit.
class AsioQueue : public DispatchQueue, public std::enable_shared_from_this<AsioQueue> {
 public:
  AsioQueue(std::shared_ptr<DispatcherCore> core, std::string label, QualityOfService qos)
      : core_(std::move(core)), label_(std::move(label)), qos_(qos) {}

  const std::string& label() const override { return label_; }
  QualityOfService qualityOfService() const override { return qos_; }
  bool isCurrent() const override { return tlsRunning.queue == this; }

  void async(std::function<void()> work) override {
    if (!work) {
      return;
    }
    // The item keeps its queue alive, as a queue with work pending stays alive on the platform;
    // the cycle through the strand ends when the item runs or is refused. Whatever the work
    // queues from within counts before the work itself stops counting.
    activity::begin();
    const bool accepted = submit([self = shared_from_this(), work = std::move(work)] {
      runAs(*self, self->core_.get(), work);
      activity::end();
    });
    if (!accepted) {
      activity::end();
      logDropped();
    }
  }

  void sync(std::function<void()> work) override {
    if (!work) {
      return;
    }
    if (isCurrent()) {
      runAs(*this, core_.get(), work);
      return;
    }
    // The promise lives in the item: if the item is destroyed unrun (a host executor that
    // stops), the broken promise still wakes us instead of leaving us waiting forever.
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> finished = done->get_future();
    const bool accepted = submit([this, &work, done] {
      runAs(*this, core_.get(), work);
      done->set_value();
    });
    if (!accepted) {
      logDropped();
      return;
    }
    finished.wait();
  }

 protected:
  // Queues `item` to run on this queue; false when the dispatcher is gone.
  virtual bool submit(std::function<void()> item) = 0;

  // Declared first so that it is destroyed last: a subclass's strand must not outlive the pool.
  const std::shared_ptr<DispatcherCore> core_;

 private:
  void logDropped() const { logDebug(kCategory, kDropped, {label_}); }

  const std::string label_;
  const QualityOfService qos_;
};

class SerialQueue final : public AsioQueue {
 public:
  SerialQueue(std::shared_ptr<DispatcherCore> core, std::string label, QualityOfService qos)
      : AsioQueue(std::move(core), std::move(label), qos),
        strand_(asio::make_strand(core_->poolExecutor())) {}

 private:
  bool submit(std::function<void()> item) override { return core_->post(strand_, std::move(item)); }

  // Immutable after construction; posting to it from several threads is what strands are for.
  const asio::strand<asio::thread_pool::executor_type> strand_;
};

class MainQueue final : public AsioQueue {
 public:
  explicit MainQueue(std::shared_ptr<DispatcherCore> core)
      : AsioQueue(std::move(core), "main", QualityOfService::userInteractive) {}

 private:
  bool submit(std::function<void()> item) override { return core_->postMain(std::move(item)); }
};

class AsioDispatcher final : public Dispatcher {
 public:
  explicit AsioDispatcher(DispatcherOptions options)
      : core_(std::make_shared<DispatcherCore>(options.threads, std::move(options.mainExecutor))),
        mainQueue_(std::make_shared<MainQueue>(core_)) {}

  AsioDispatcher(const AsioDispatcher&) = delete;
  AsioDispatcher& operator=(const AsioDispatcher&) = delete;

  ~AsioDispatcher() override { core_->shutdown(); }

  std::shared_ptr<DispatchQueue> mainQueue() override { return mainQueue_; }

  std::shared_ptr<DispatchQueue> makeSerialQueue(std::string label, QualityOfService qos) override {
    return std::make_shared<SerialQueue>(core_, std::move(label), qos);
  }

 private:
  const std::shared_ptr<DispatcherCore> core_;
  const std::shared_ptr<DispatchQueue> mainQueue_;
};

}  // namespace

std::shared_ptr<Dispatcher> makeDispatcher(DispatcherOptions options) {
  return std::make_shared<AsioDispatcher>(std::move(options));
}

}  // namespace kestrova
