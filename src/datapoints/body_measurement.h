// Body measurements (glucose, blood pressure, body fat, BMI, weight, temperature, height,
// oxygen saturation, VO2 max, heart-rate variability): one data point per quantity sample,
// the value under its measurement key. Constant tables and pure functions: thread-safe.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>
#include <vector>

#include "datapoints/schema_id.h"
#include "platform/health/sample.h"

namespace kestrova {

// Body.QuantitySampleMeasurement and Body.QuantitySampleMeasurementSchema: one case each.
enum class BodyMeasurement {
  bloodGlucose,
  bloodPressureDiastolic,
  bloodPressureSystolic,
  bodyFatPercentage,
  bodyMassIndex,
  bodyMass,
  bodyTemperature,
  height,
  oxygenSaturation,
  vo2Max,
  hrv,
};

std::optional<BodyMeasurement> measurementForIdentifier(std::string_view identifier);
// The body key ("body_weight" for body mass).
std::string_view measurementKey(BodyMeasurement measurement);
SchemaId measurementSchema(BodyMeasurement measurement);

// None for a sample that is not a body measurement, whose type has no unit, or whose quantity
// cannot be read in that unit.
std::optional<nlohmann::json> encodeBodyMeasurement(const QuantitySample& sample);

// The data points of one delivery, in delivery order; samples without one are skipped
// silently. Runs on the caller's thread.
std::vector<nlohmann::json> encodeBodyMeasurements(const std::vector<SamplePtr>& samples);

}  // namespace kestrova
