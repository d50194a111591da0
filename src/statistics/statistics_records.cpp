#include "statistics/statistics_records.h"

#include <array>
#include <chrono>
#include <cmath>

#include "datapoints/envelope.h"
#include "facade/formatters.h"

namespace kestrova {
namespace {

// Member names of the stored forms.
constexpr std::string_view kStartDate = "startDate";
constexpr std::string_view kEndDate = "endDate";
constexpr std::string_view kAverage = "average";
constexpr std::string_view kMinimum = "minimum";
constexpr std::string_view kMaximum = "maximum";
constexpr std::string_view kHasNewData = "hasNewData";
constexpr std::string_view kType = "type";
constexpr std::string_view kValue = "value";

// Body keys of the statistics data points.
constexpr std::string_view kKeyAvg = "avg";
constexpr std::string_view kKeyMin = "min";
constexpr std::string_view kKeyMax = "max";
constexpr std::string_view kKeyDate = "date";
constexpr std::string_view kKeyRestingKcalBurned = "resting_kcal_burned";
constexpr std::string_view kKeyActiveKcalBurned = "active_kcal_burned";

constexpr std::string_view kIdSeparator = "-";
constexpr std::string_view kSummaryIdSeparator = "---";
// Ends the id of an interval in the second pass through a local hour that an autumn clock
// change repeats: its local date-time text is the same as the first pass's.
constexpr std::string_view kRepeatedIdSuffix = "-repeated";

// 2001-01-01T00:00:00Z in Unix seconds.
constexpr std::chrono::seconds kReferenceEpoch{978307200};

constexpr std::array<body::HeartRate, 4> kHeartRateTypes = {
    body::HeartRate::average, body::HeartRate::minimum, body::HeartRate::maximum,
    body::HeartRate::resting};

std::string formatDate(Date date) {
  return formatDataPointDate(date, std::nullopt);
}

std::optional<double> number(const nlohmann::json& json, std::string_view key) {
  const auto found = json.find(key);
  if (found == json.end() || !found->is_number()) {
    return std::nullopt;
  }
  return found->get<double>();
}

std::optional<Date> date(const nlohmann::json& json, std::string_view key) {
  const auto seconds = number(json, key);
  if (!seconds) {
    return std::nullopt;
  }
  return dateFromReferenceSeconds(*seconds);
}

nlohmann::json intervalHeader(const SchemaId& schema, Date start, std::string_view profileId) {
  const auto created = formatDate(start);
  auto id = std::string(profileId) + std::string(kIdSeparator) + std::string(schema.name) +
            std::string(kIdSeparator) + created;
  if (DataPointDateFormatter::shared().isRepeatedLocalTime(start)) {
    id += kRepeatedIdSuffix;
  }
  return {{kKeyId, std::move(id)}, {kKeyCreationDateTime, created}, {kKeySchemaId, toJson(schema)}};
}

}  // namespace

bool sameFigures(const HeartRateSample& a, const HeartRateSample& b) {
  return a.startDate == b.startDate && a.endDate == b.endDate && a.average == b.average &&
         a.minimum == b.minimum && a.maximum == b.maximum;
}

double referenceSeconds(Date date) {
  const auto micros = std::chrono::duration_cast<std::chrono::microseconds>(
      date.time_since_epoch() - kReferenceEpoch);
  return static_cast<double>(micros.count()) / 1e6;
}

std::optional<Date> dateFromReferenceSeconds(double seconds) {
  // A Date holds nanoseconds since 1970 in 64 bits: past about 292 years either way the
  // conversion would overflow.
  constexpr auto kLimit =
      std::chrono::duration_cast<std::chrono::seconds>(Date::duration::max()) - kReferenceEpoch;
  if (!std::isfinite(seconds) || std::abs(seconds) >= static_cast<double>(kLimit.count())) {
    return std::nullopt;
  }
  const auto micros = std::chrono::microseconds(std::llround(seconds * 1e6));
  return Date(std::chrono::duration_cast<Date::duration>(kReferenceEpoch + micros));
}

nlohmann::json toJson(const HeartRateSample& sample) {
  return {{kStartDate, referenceSeconds(sample.startDate)},
          {kEndDate, referenceSeconds(sample.endDate)},
          {kAverage, sample.average},
          {kMinimum, sample.minimum},
          {kMaximum, sample.maximum},
          {kHasNewData, sample.hasNewData}};
}

std::optional<HeartRateSample> heartRateSampleFromJson(const nlohmann::json& json) {
  if (!json.is_object()) {
    return std::nullopt;
  }
  const auto start = date(json, kStartDate);
  const auto end = date(json, kEndDate);
  const auto average = number(json, kAverage);
  const auto minimum = number(json, kMinimum);
  const auto maximum = number(json, kMaximum);
  const auto flag = json.find(kHasNewData);
  if (!start || !end || !average || !minimum || !maximum || flag == json.end() ||
      !flag->is_boolean()) {
    return std::nullopt;
  }
  return HeartRateSample{*start, *end, *average, *minimum, *maximum, flag->get<bool>()};
}

nlohmann::json toJson(const HeartRate& heartRate) {
  nlohmann::json json = {{kStartDate, referenceSeconds(heartRate.startDate)},
                         {kValue, heartRate.value}};
  if (heartRate.endDate) {
    json[kEndDate] = referenceSeconds(*heartRate.endDate);
  }
  if (heartRate.type) {
    json[kType] = body::caseName(*heartRate.type);
  }
  return json;
}

std::optional<HeartRate> heartRateFromJson(const nlohmann::json& json) {
  if (!json.is_object()) {
    return std::nullopt;
  }
  const auto start = date(json, kStartDate);
  const auto value = number(json, kValue);
  if (!start || !value) {
    return std::nullopt;
  }
  HeartRate heartRate{*start, std::nullopt, std::nullopt, *value};
  if (json.contains(kEndDate)) {
    heartRate.endDate = date(json, kEndDate);
    if (!heartRate.endDate) {
      return std::nullopt;
    }
  }
  if (const auto type = json.find(kType); type != json.end()) {
    if (!type->is_string()) {
      return std::nullopt;
    }
    for (auto candidate : kHeartRateTypes) {
      if (body::caseName(candidate) == type->get<std::string>()) {
        heartRate.type = candidate;
      }
    }
    if (!heartRate.type) {
      return std::nullopt;
    }
  }
  return heartRate;
}

nlohmann::json encodeHeartRateSample(const HeartRateSample& sample, std::string_view profileId) {
  nlohmann::json body = {
      {kKeyEffectiveTimeFrame, makeTimeFrame(sample.startDate, sample.endDate, std::nullopt)},
      {kKeyAvg, sample.average},
      {kKeyMin, sample.minimum},
      {kKeyMax, sample.maximum}};
  return makeDataPoint(intervalHeader(kSchemaHeartRateSample, sample.startDate, profileId),
                       std::move(body));
}

nlohmann::json encodeDailyDetailSample(const DailyDetailSample& sample,
                                       std::string_view profileId) {
  nlohmann::json body = {
      {kKeyEffectiveTimeFrame, makeTimeFrame(sample.startDate, sample.endDate, std::nullopt)},
      {kKeyStepCount, sample.stepCount},
      {kKeyDistance, makeValueWithUnit(sample.distance, Units::m)},
      {kKeyKcalBurned, makeValueWithUnit(sample.totalEnergyBurned, Units::kcal)}};
  return makeDataPoint(intervalHeader(kSchemaDailyDetail, sample.startDate, profileId),
                       std::move(body));
}

nlohmann::json encodeDailySummary(const DailySummary& summary, std::string_view profileId,
                                  Date now) {
  // NOTE: the id names the day only, so a changed summary replaces the day's earlier one on
  // the back end; the creation time tells the versions apart.
  const auto& schema =
      summary.heartRates.empty() ? kSchemaDailySummary : kSchemaDailySummaryWithHeartRate;
  nlohmann::json header = {
      {kKeyId, std::string(profileId) + std::string(kSummaryIdSeparator) + summary.date},
      {kKeyCreationDateTime, formatDate(now)},
      {kKeySchemaId, toJson(schema)}};
  nlohmann::json heartRates = nlohmann::json::array();
  for (const auto& heartRate : summary.heartRates) {
    heartRates.push_back(encodeHeartRate(heartRate));
  }
  nlohmann::json body = {
      {kKeyDate, summary.date},
      {kKeyStepCount, summary.stepCount},
      {kKeyDistance, makeValueWithUnit(summary.distance, Units::m)},
      {kKeyKcalBurned, makeValueWithUnit(summary.totalEnergyBurned, Units::kcal)},
      {kKeyRestingKcalBurned, makeValueWithUnit(summary.basalEnergyBurned, Units::kcal)},
      {kKeyActiveKcalBurned, makeValueWithUnit(summary.activeEnergyBurned, Units::kcal)},
      {kKeyHeartRateData, std::move(heartRates)}};
  return makeDataPoint(std::move(header), std::move(body));
}

}  // namespace kestrova
