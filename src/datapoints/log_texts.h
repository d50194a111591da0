// The log category and messages of the encoders that query the store, each written once.
// Constants only: thread-safe.
#pragma once

#include <string_view>

namespace kestrova {

inline constexpr std::string_view kDataPointsLogCategory = "datapoints";

inline constexpr std::string_view kLogWorkoutQueryFailed =
    "Error querying workout details: %{public}@";
inline constexpr std::string_view kLogSleepQueryFailed = "Error querying sleep stages: %{public}@";
inline constexpr std::string_view kLogVoltageQueryFailed = "Error querying ECG sample: %@";

}  // namespace kestrova
