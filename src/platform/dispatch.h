// Serial dispatch queues and the main queue. A DispatchQueue runs the work submitted to it one
// item at a time, in submission order; it is the owner of whatever state its comment says it
// owns. Implementations are thread-safe; the Linux one runs on Asio (see linux/).
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace kestrova {

// Hints only: on Linux they name the intent; the work of all queues shares one thread pool.
enum class QualityOfService { userInteractive, userInitiated, standard, utility, background };

class DispatchQueue {
 public:
  virtual ~DispatchQueue() = default;

  virtual const std::string& label() const = 0;
  virtual QualityOfService qualityOfService() const = 0;

  // Runs `work` after everything submitted before it, never at the same time as other work of
  // this queue. Never runs `work` on the calling thread before returning. An exception escaping
  // `work` is logged as an error and goes no further.
  virtual void async(std::function<void()> work) = 0;
  // Runs `work` on the queue and returns after it has run. Called from work already running on
  // this queue it runs `work` at once instead of deadlocking. Called from another queue's work
  // it holds that queue's pool thread while waiting, so a chain of nested syncs must stay
  // shorter than the pool is wide.
  virtual void sync(std::function<void()> work) = 0;
  // True when called from work that this queue is running. For a main queue on the host's
  // executor that means work handed over through this queue, not any code on the host's thread.
  virtual bool isCurrent() const = 0;
};

// How a host application runs work on its own main thread (its event loop's post function).
using MainExecutor = std::function<void(std::function<void()>)>;

// Destroying the dispatcher refuses new work and lets the work already queued run, then joins
// its threads (from one of its own threads, the joining is handed to a short-lived thread so it
// never waits for itself). Queues may outlive it: work submitted to them afterwards is dropped
// with a debug line, and sync() then returns without running its work. Work already handed to
// a host's executor is the host's to run.
class Dispatcher {
 public:
  virtual ~Dispatcher() = default;

  // The queue on which every public completion is delivered.
  virtual std::shared_ptr<DispatchQueue> mainQueue() = 0;
  virtual std::shared_ptr<DispatchQueue> makeSerialQueue(std::string label,
                                                         QualityOfService qos) = 0;
  // The one queue of this dispatcher with that label, made on first use: for queues that the
  // design makes process-wide, such as the file store's write queue.
  std::shared_ptr<DispatchQueue> sharedSerialQueue(std::string_view label, QualityOfService qos);

 private:
  std::mutex sharedQueuesMutex_;  // owns sharedQueues_
  std::map<std::string, std::shared_ptr<DispatchQueue>, std::less<>> sharedQueues_;
};

struct DispatcherOptions {
  // Threads shared by all serial queues.
  int threads = 4;
  // When set, main-queue work is handed to the host's executor, which must run it in order, one
  // item at a time; otherwise the dispatcher runs a main thread of its own.
  std::optional<MainExecutor> mainExecutor;
};

std::shared_ptr<Dispatcher> makeDispatcher(DispatcherOptions options = {});

}  // namespace kestrova
