// The common shape of every sample data point: {"header", "body"}, the header with its
// provenance, the effective time frame, values with units and the metadata list. Dates are
// wall-clock times where the sample was recorded (its HKTimeZone metadata, else the device's
// zone), without an offset. Stateless apart from the shared date formatter, which guards its
// own cache: every function may be called from any thread.
//
//   nlohmann::json point = makeDataPoint(makeHeader(kSchemaCategorySample, *sample), body);
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "api/units.h"
#include "datapoints/schema_id.h"
#include "platform/clock.h"
#include "platform/health/sample.h"

namespace kestrova {

// Keys shared by several families.
inline constexpr std::string_view kKeyHeader = "header";
inline constexpr std::string_view kKeyBody = "body";
inline constexpr std::string_view kKeyId = "id";
inline constexpr std::string_view kKeyCreationDateTime = "creation_date_time";
inline constexpr std::string_view kKeySchemaId = "schema_id";
inline constexpr std::string_view kKeyAcquisitionProvenance = "acquisition_provenance";
inline constexpr std::string_view kKeySourceName = "source_name";
inline constexpr std::string_view kKeyModality = "modality";
inline constexpr std::string_view kKeyEffectiveTimeFrame = "effective_time_frame";
inline constexpr std::string_view kKeyDateTime = "date_time";
inline constexpr std::string_view kKeyTimeInterval = "time_interval";
inline constexpr std::string_view kKeyStartDateTime = "start_date_time";
inline constexpr std::string_view kKeyEndDateTime = "end_date_time";
inline constexpr std::string_view kKeyValue = "value";
inline constexpr std::string_view kKeyUnit = "unit";
inline constexpr std::string_view kKeyKey = "key";
inline constexpr std::string_view kKeyMetadata = "metadata";
// Body keys that workouts share with the statistics records.
inline constexpr std::string_view kKeyDistance = "distance";
inline constexpr std::string_view kKeyKcalBurned = "kcal_burned";
inline constexpr std::string_view kKeyStepCount = "step_count";
inline constexpr std::string_view kKeyHeartRateData = "heart_rate_data";

inline constexpr std::string_view kModalitySelfReported = "self-reported";
inline constexpr std::string_view kModalitySensed = "sensed";

// The platform's HKMetadataKeyTimeZone: an IANA zone identifier as text.
inline constexpr std::string_view kMetadataKeyTimeZone = "HKTimeZone";

enum class SampleDate { start, end };

// The zone named by the sample's HKTimeZone metadata when it is text; none otherwise. An
// unknown name is returned as it is: the formatter falls back to the device's zone.
std::optional<std::string> sampleZoneIdentifier(const Sample& sample);

// "yyyy-MM-dd'T'HH:mm:ss.SSS" in `zoneIdentifier`, or the device's zone without one.
std::string formatDataPointDate(Date date, const std::optional<std::string>& zoneIdentifier);

std::string formatSampleDate(const Sample& sample, SampleDate which);

nlohmann::json makeHeader(const SchemaId& schema, const Sample& sample);

// {"date_time"} when start and end are the same instant, {"time_interval"} otherwise.
nlohmann::json makeEffectiveTimeFrame(const Sample& sample);
// For records built from statistics: {"time_interval"} whenever there is an end, even one equal
// to the start; {"date_time"} without one.
nlohmann::json makeTimeFrame(Date start, std::optional<Date> end,
                             const std::optional<std::string>& zoneIdentifier);

// One {"key", "value"} per metadata entry, in key order, without HKTimeZone and
// HKWasUserEntered. Dates become texts in the sample's zone; quantities a number in the first
// unit of the list in envelope.cpp that fits them, else in their own unit.
nlohmann::json makeMetadataList(const Sample& sample);

nlohmann::json makeValueWithUnit(double value, Units unit);
// The same shape for a unit text that is not a `Units` case ("UNKNOWN").
nlohmann::json makeValueWithUnit(double value, std::string_view unitText);

nlohmann::json makeDataPoint(nlohmann::json header, nlohmann::json body);

}  // namespace kestrova
