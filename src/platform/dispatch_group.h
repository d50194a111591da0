// A dispatch group: counts work in flight and tells when all of it is done. Thread-safe; its
// counter and waiters are owned by its mutex.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/dispatch.h"

namespace kestrova {

class DispatchGroup {
 public:
  void enter();
  // A leave() without a matching enter() is a programming error; it is logged and ignored.
  void leave();
  // Runs `work` on `queue` once the group is empty (at once if it is empty now).
  void notify(std::shared_ptr<DispatchQueue> queue, std::function<void()> work);
  // Blocks until the group is empty or the timeout passes; true when it became empty, even if
  // somebody entered again before this thread woke up.
  bool wait(std::chrono::nanoseconds timeout);

 private:
  std::mutex mutex_;  // owns count_, emptyings_ and notifications_
  std::condition_variable emptied_;
  long count_ = 0;
  unsigned long long emptyings_ = 0;  // times the count fell to zero
  std::vector<std::pair<std::shared_ptr<DispatchQueue>, std::function<void()>>> notifications_;
};

}  // namespace kestrova
