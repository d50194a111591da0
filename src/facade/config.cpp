#include "kestrova/config.h"

#include <cstdio>
#include <cstdlib>

#include "platform/platform.h"

namespace {

// 20 calendar days back in the device's zone: the wall-clock time stays, also across a
// daylight-saving change in between.
KestrovaConfig::Date defaultStartDate() {
  const auto platform = kestrova::currentPlatform();
  if (!platform) {
    return std::chrono::system_clock::now() -
           std::chrono::days(KestrovaConfig::kDefaultStartDaysBack);
  }
  const auto now = platform->clock->now();
  const auto zone = platform->timeZone->current();
  return zone.date(kestrova::addingDays(zone.civil(now), -KestrovaConfig::kDefaultStartDaysBack));
}

std::vector<KestrovaHealthKitDataType> dataTypesFromRawValues(const std::vector<int>& rawValues) {
  std::vector<KestrovaHealthKitDataType> types;
  types.reserve(rawValues.size());
  for (int raw : rawValues) {
    auto type = KestrovaHealthKitDataType::fromRawValue(raw);
    if (!type) {
      // Skipping or clamping would silently share or withhold someone's data: stop instead.
      std::fprintf(stderr,
                   "KestrovaConfig: %d is not a KestrovaHealthKitDataType raw value (0...24)\n",
                   raw);
      std::abort();
    }
    types.push_back(*type);
  }
  return types;
}

std::vector<KestrovaHealthKitDataType> allDataTypes() {
  const auto& all = KestrovaHealthKitDataType::allCases();
  return {all.begin(), all.end()};
}

}  // namespace

KestrovaConfig::KestrovaConfig(
    std::string token, std::optional<std::string> url, std::optional<Date> startDate,
    std::optional<std::vector<KestrovaHealthKitDataType>> enabledDataTypes)
    : token_(std::move(token)),
      url_(url ? std::move(*url) : std::string(kDefaultURL)),
      startDate_(startDate ? *startDate : defaultStartDate()),
      enabledDataTypes_(enabledDataTypes ? std::move(*enabledDataTypes) : allDataTypes()) {}

KestrovaConfig::KestrovaConfig(std::string token, std::optional<std::string> url,
                               std::optional<Date> startDate,
                               const std::vector<int>& enabledDataTypes)
    : KestrovaConfig(std::move(token), std::move(url), startDate,
                     dataTypesFromRawValues(enabledDataTypes)) {}
