#include "datapoints/heart_rate.h"

#include "api/units.h"
#include "datapoints/envelope.h"
#include "platform/health/object_type.h"

namespace kestrova {
namespace {

inline constexpr std::string_view kKeyHeartRate = "heart_rate";
inline constexpr std::string_view kKeyDescriptiveStatistic = "descriptive_statistic";
inline constexpr std::string_view kUnknownUnit = "UNKNOWN";

inline constexpr std::string_view kAverage = "average";
inline constexpr std::string_view kMinimum = "minimum";
inline constexpr std::string_view kMaximum = "maximum";
inline constexpr std::string_view kResting = "resting";

}  // namespace

std::string_view body::caseName(body::HeartRate type) {
  switch (type) {
    case body::HeartRate::average:
      return kAverage;
    case body::HeartRate::minimum:
      return kMinimum;
    case body::HeartRate::maximum:
      return kMaximum;
    case body::HeartRate::resting:
      return kResting;
  }
  return kAverage;
}

nlohmann::json encodeHeartRate(const HeartRate& heartRate,
                               const std::optional<std::string>& zoneIdentifier) {
  const std::optional<Units> unit = unitForIdentifier(kHeartRateIdentifier);
  nlohmann::json encoded{
      {kKeyHeartRate, makeValueWithUnit(heartRate.value, unit ? rawValue(*unit) : kUnknownUnit)},
      {kKeyEffectiveTimeFrame,
       makeTimeFrame(heartRate.startDate, heartRate.endDate, zoneIdentifier)}};
  if (heartRate.type) {
    encoded[kKeyDescriptiveStatistic] = body::caseName(*heartRate.type);
  }
  return encoded;
}

}  // namespace kestrova
