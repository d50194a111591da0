// Serial dispatch queues and the main queue. A DispatchQueue runs the work submitted to it one
// item at a time, in submission order; it is the owner of whatever state its comment says it
// owns. Implementations are thread-safe; the Linux one runs on Asio (see linux/).
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kestrova {

// Hints only: on Linux they name the intent; the work of all queues shares one thread pool.
enum class QualityOfService { userInteractive, userInitiated, standard, utility, background };

class DispatchQueue {
 public:
  virtual ~DispatchQueue() = default;

  virtual const std::string& label() const = 0;
  virtual QualityOfService qualityOfService() const = 0;

  // Runs `work` after everything submitted before it, never at the same time as other work of
  // this queue. Never runs `work` on the calling thread before returning.
  virtual void async(std::function<void()> work) = 0;
  // Runs `work` on the queue and returns after it has run. Called from work already running on
  // this queue it runs `work` at once instead of deadlocking.
  virtual void sync(std::function<void()> work) = 0;
  // True when called from work that this queue is running.
  virtual bool isCurrent() const = 0;
};

// How a host application runs work on its own main thread (its event loop's post function).
using MainExecutor = std::function<void(std::function<void()>)>;

class Dispatcher {
 public:
  virtual ~Dispatcher() = default;

  // The queue on which every public completion is delivered.
  virtual std::shared_ptr<DispatchQueue> mainQueue() = 0;
  virtual std::shared_ptr<DispatchQueue> makeSerialQueue(std::string label,
                                                         QualityOfService qos) = 0;
};

struct DispatcherOptions {
  // Threads shared by all serial queues.
  int threads = 4;
  // When set, main-queue work is handed to the host's executor; otherwise the dispatcher runs
  // a main thread of its own.
  std::optional<MainExecutor> mainExecutor;
};

std::shared_ptr<Dispatcher> makeDispatcher(DispatcherOptions options = {});

}  // namespace kestrova
