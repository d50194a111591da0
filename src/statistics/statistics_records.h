// The records of the statistics pipeline (15-minute heart rate and activity intervals, daily
// summaries) with their data point encodings and the JSON form in which the statistics store
// keeps them. Plain values and pure functions: thread-safe.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "datapoints/heart_rate.h"
#include "platform/clock.h"

namespace kestrova {

struct HeartRateSample {
  Date startDate;
  Date endDate;
  // Beats per minute.
  double average = 0;
  double minimum = 0;
  double maximum = 0;
  bool hasNewData = false;
};

// Equal dates and equal figures; `hasNewData` is bookkeeping, not part of the figure.
bool sameFigures(const HeartRateSample& a, const HeartRateSample& b);

struct DailyDetailSample {
  Date startDate;
  Date endDate;
  double stepCount = 0;
  // Metres.
  double distance = 0;
  // Kilocalories.
  double totalEnergyBurned = 0;
  bool hasNewData = false;
};

struct DailySummary {
  // "yyyy-MM-dd" of the day formatter.
  std::string date;
  double distance = 0;
  double stepCount = 0;
  double basalEnergyBurned = 0;
  double activeEnergyBurned = 0;
  double totalEnergyBurned = 0;
  std::vector<HeartRate> heartRates;
  bool hasNewData = false;
};

// The stored dates: seconds since 2001-01-01T00:00:00Z, kept to the microsecond so that a
// date read back compares equal to the one written. None for a number that is not finite or
// lies beyond what a Date holds (about 292 years from 1970).
double referenceSeconds(Date date);
std::optional<Date> dateFromReferenceSeconds(double seconds);

// The stored forms, member names as the field names. Decoding yields none for a shape that
// does not fit.
nlohmann::json toJson(const HeartRateSample& sample);
std::optional<HeartRateSample> heartRateSampleFromJson(const nlohmann::json& json);
nlohmann::json toJson(const HeartRate& heartRate);
std::optional<HeartRate> heartRateFromJson(const nlohmann::json& json);

// Data points. Dates are in the device's zone. The creation time of the interval records is
// their start; that of a summary is `now`, the moment of encoding.
nlohmann::json encodeHeartRateSample(const HeartRateSample& sample, std::string_view profileId);
nlohmann::json encodeDailyDetailSample(const DailyDetailSample& sample, std::string_view profileId);
nlohmann::json encodeDailySummary(const DailySummary& summary, std::string_view profileId,
                                  Date now);

}  // namespace kestrova
