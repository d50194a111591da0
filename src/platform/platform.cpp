#include "platform/platform.h"

#include <mutex>

namespace kestrova {
namespace {

constexpr std::string_view kCategory = "platform";
constexpr std::string_view kPlatformFailed = "Could not set up the platform services: %{public}@";

struct Installed {
  std::mutex mutex;  // owns platform and attempted
  std::shared_ptr<const Platform> platform;
  bool attempted = false;
};

// Never destroyed, like everything a host's late threads may still reach.
Installed& installed() {
  static auto* instance = new Installed();
  return *instance;
}

}  // namespace

void installPlatform(std::shared_ptr<const Platform> platform) {
  auto& s = installed();
  std::lock_guard lock(s.mutex);
  s.platform = std::move(platform);
  s.attempted = true;
}

std::shared_ptr<const Platform> currentPlatform() {
  auto& s = installed();
  std::lock_guard lock(s.mutex);
  if (!s.attempted) {
    s.attempted = true;
    auto made = makeLinuxPlatform();
    if (made) {
      s.platform = std::move(made).value();
    } else {
      logError(kCategory, kPlatformFailed, {made.error().text()});
    }
  }
  return s.platform;
}

}  // namespace kestrova
