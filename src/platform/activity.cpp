#include "platform/activity.h"

#include <atomic>
#include <cstdint>

namespace kestrova::activity {
namespace {

std::atomic<std::int64_t> underWay{0};

}  // namespace

void begin() noexcept {
  underWay.fetch_add(1, std::memory_order_acq_rel);
}

void end() noexcept {
  underWay.fetch_sub(1, std::memory_order_acq_rel);
}

bool idle() noexcept {
  return underWay.load(std::memory_order_acquire) == 0;
}

}  // namespace kestrova::activity
