#include "datapoints/body_measurement.h"

#include <array>
#include <cstddef>

#include "api/units.h"
#include "datapoints/envelope.h"
#include "datapoints/health_units.h"

namespace kestrova {
namespace {

struct MeasurementRow {
  BodyMeasurement measurement;
  std::string_view identifier;
  std::string_view key;
  SchemaId schema;
};

// NOTE: body mass index alone is at version "2.0", and VO2 max and heart-rate variability sit
// in "ks" without the "ks-" prefix: the back end's schemas are registered so.
constexpr std::array<MeasurementRow, 11> kMeasurements = {{
    {BodyMeasurement::bloodGlucose,
     "HKQuantityTypeIdentifierBloodGlucose",
     "blood_glucose",
     {"blood-glucose", kNamespaceOmh, kSchemaVersion1}},
    {BodyMeasurement::bloodPressureDiastolic,
     "HKQuantityTypeIdentifierBloodPressureDiastolic",
     "diastolic_bp",
     {"ks-diastolic-blood-pressure", kNamespaceKs, kSchemaVersion1}},
    {BodyMeasurement::bloodPressureSystolic,
     "HKQuantityTypeIdentifierBloodPressureSystolic",
     "systolic_bp",
     {"ks-systolic-blood-pressure", kNamespaceKs, kSchemaVersion1}},
    {BodyMeasurement::bodyFatPercentage,
     "HKQuantityTypeIdentifierBodyFatPercentage",
     "body_fat_percentage",
     {"body-fat-percentage", kNamespaceOmh, kSchemaVersion1}},
    {BodyMeasurement::bodyMassIndex,
     "HKQuantityTypeIdentifierBodyMassIndex",
     "body_mass_index",
     {"body-mass-index", kNamespaceOmh, kSchemaVersion2}},
    {BodyMeasurement::bodyMass,
     "HKQuantityTypeIdentifierBodyMass",
     "body_weight",
     {"body-weight", kNamespaceOmh, kSchemaVersion1}},
    {BodyMeasurement::bodyTemperature,
     "HKQuantityTypeIdentifierBodyTemperature",
     "body_temperature",
     {"body-temperature", kNamespaceOmh, kSchemaVersion1}},
    {BodyMeasurement::height,
     "HKQuantityTypeIdentifierHeight",
     "body_height",
     {"body-height", kNamespaceOmh, kSchemaVersion1}},
    {BodyMeasurement::oxygenSaturation,
     "HKQuantityTypeIdentifierOxygenSaturation",
     "oxygen_saturation",
     {"oxygen-saturation", kNamespaceOmh, kSchemaVersion1}},
    {BodyMeasurement::vo2Max,
     "HKQuantityTypeIdentifierVO2Max",
     "vo2_max",
     {"vo2-max", kNamespaceKs, kSchemaVersion1}},
    {BodyMeasurement::hrv,
     "HKQuantityTypeIdentifierHeartRateVariabilitySDNN",
     "hrv",
     {"heart-rate-variability", kNamespaceKs, kSchemaVersion1}},
}};

constexpr bool rowsFollowTheCases() {
  for (std::size_t i = 0; i < kMeasurements.size(); ++i) {
    if (static_cast<std::size_t>(kMeasurements[i].measurement) != i) {
      return false;
    }
  }
  return true;
}
static_assert(rowsFollowTheCases(), "the measurement table is indexed by the case");

const MeasurementRow& row(BodyMeasurement measurement) {
  return kMeasurements[static_cast<std::size_t>(measurement)];
}

}  // namespace

std::optional<BodyMeasurement> measurementForIdentifier(std::string_view identifier) {
  for (const MeasurementRow& candidate : kMeasurements) {
    if (candidate.identifier == identifier) {
      return candidate.measurement;
    }
  }
  return std::nullopt;
}

std::string_view measurementKey(BodyMeasurement measurement) {
  return row(measurement).key;
}

SchemaId measurementSchema(BodyMeasurement measurement) {
  return row(measurement).schema;
}

std::optional<nlohmann::json> encodeBodyMeasurement(const QuantitySample& sample) {
  const std::string_view identifier = sample.sampleType().identifier();
  const std::optional<BodyMeasurement> measurement = measurementForIdentifier(identifier);
  if (!measurement) {
    return std::nullopt;
  }
  const std::optional<Units> unit = unitForIdentifier(identifier);
  if (!unit) {
    return std::nullopt;
  }
  const Result<double> value = sample.quantity().doubleValue(healthUnit(*unit));
  if (!value) {
    return std::nullopt;
  }
  nlohmann::json body{{measurementKey(*measurement), makeValueWithUnit(value.value(), *unit)},
                      {kKeyEffectiveTimeFrame, makeEffectiveTimeFrame(sample)}};
  return makeDataPoint(makeHeader(measurementSchema(*measurement), sample), std::move(body));
}

std::vector<nlohmann::json> encodeBodyMeasurements(const std::vector<SamplePtr>& samples) {
  std::vector<nlohmann::json> points;
  points.reserve(samples.size());
  for (const SamplePtr& sample : samples) {
    const auto* quantitySample = dynamic_cast<const QuantitySample*>(sample.get());
    if (quantitySample == nullptr) {
      continue;
    }
    if (std::optional<nlohmann::json> point = encodeBodyMeasurement(*quantitySample)) {
      points.push_back(std::move(*point));
    }
  }
  return points;
}

}  // namespace kestrova
