#include "platform/dispatch.h"

namespace kestrova {

std::shared_ptr<DispatchQueue> Dispatcher::sharedSerialQueue(std::string_view label,
                                                             QualityOfService qos) {
  std::lock_guard lock(sharedQueuesMutex_);
  auto found = sharedQueues_.find(label);
  if (found == sharedQueues_.end()) {
    found =
        sharedQueues_.emplace(std::string(label), makeSerialQueue(std::string(label), qos)).first;
  }
  return found->second;
}

}  // namespace kestrova
