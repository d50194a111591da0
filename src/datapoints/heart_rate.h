// One heart-rate value as a data point element: a point in time or an interval, optionally
// tagged with the statistic it is. Shared by the workout encoder and the statistics pipeline.
// Plain values and pure functions: thread-safe.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "platform/clock.h"

namespace kestrova {

namespace body {

// Body.HeartRate: which kind of value a HeartRate record holds.
enum class HeartRate { average, minimum, maximum, resting };

// "average", "minimum", "maximum", "resting": the wire text of "descriptive_statistic".
std::string_view caseName(HeartRate type);

}  // namespace body

struct HeartRate {
  Date startDate;
  // Absent for a point in time.
  std::optional<Date> endDate;
  std::optional<body::HeartRate> type;
  // Beats per minute.
  double value = 0;

  friend bool operator==(const HeartRate&, const HeartRate&) = default;
};

// {"heart_rate": {value, unit}, "effective_time_frame", "descriptive_statistic"?}. The unit
// text is the heart-rate type's from the unit table, or "UNKNOWN" without one. Dates are
// rendered in `zoneIdentifier` (a workout passes its own zone so that its elements read in the
// same local time as the workout), or in the device's zone.
nlohmann::json encodeHeartRate(const HeartRate& heartRate,
                               const std::optional<std::string>& zoneIdentifier = std::nullopt);

}  // namespace kestrova
