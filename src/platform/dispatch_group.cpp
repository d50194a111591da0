#include "platform/dispatch_group.h"

#include <utility>

#include "platform/log.h"

namespace kestrova {

void DispatchGroup::enter() {
  std::lock_guard lock(mutex_);
  ++count_;
}

void DispatchGroup::leave() {
  decltype(notifications_) ready;
  {
    std::lock_guard lock(mutex_);
    if (count_ == 0) {
      logError("dispatch", "DispatchGroup leave() without a matching enter(); ignored");
      return;
    }
    if (--count_ > 0) {
      return;
    }
    ++emptyings_;
    ready.swap(notifications_);
    // Under the lock: a waiter may destroy the group as soon as it sees it empty, and must
    // not do so while we are still notifying.
    emptied_.notify_all();
  }
  for (auto& [queue, work] : ready) {
    queue->async(std::move(work));
  }
}

void DispatchGroup::notify(std::shared_ptr<DispatchQueue> queue, std::function<void()> work) {
  {
    std::lock_guard lock(mutex_);
    if (count_ > 0) {
      notifications_.emplace_back(std::move(queue), std::move(work));
      return;
    }
  }
  queue->async(std::move(work));
}

bool DispatchGroup::wait(std::chrono::nanoseconds timeout) {
  std::unique_lock lock(mutex_);
  const unsigned long long start = emptyings_;
  const auto emptied = [&] { return count_ == 0 || emptyings_ != start; };
  const auto now = std::chrono::steady_clock::now();
  // A timeout past the end of the steady clock means "wait for ever", not an overflow.
  if (timeout >= std::chrono::steady_clock::time_point::max() - now) {
    emptied_.wait(lock, emptied);
    return true;
  }
  return emptied_.wait_until(lock, now + timeout, emptied);
}

}  // namespace kestrova
