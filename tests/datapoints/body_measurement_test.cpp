// Body measurements against hand-written data points, one per schema of the table.
#include "datapoints/body_measurement.h"

#include <gtest/gtest.h>

#include "datapoints/datapoint_test_support.h"
#include "datapoints/health_units.h"

namespace kestrova::testing {
namespace {

TEST(BodyMeasurements, EveryTypeWithItsKeySchemaAndUnit) {
  const Date at = utc(2021, 1, 15, 6, 30);
  const auto point = [&](int id, std::string_view type, double value, std::string_view unit,
                         Date end) -> SamplePtr {
    return quantity(std::string("HKQuantityTypeIdentifier") + std::string(type), value, unit,
                    properties(id, at, end, {}, "com.example.scale"));
  };
  const std::vector<SamplePtr> delivery = {
      point(11, "BloodGlucose", 95, "mg/dL", at),
      point(12, "BloodPressureDiastolic", 80, "mmHg", at),
      point(13, "BloodPressureSystolic", 120, "mmHg", at),
      // Not a body measurement: left out of the batch.
      point(22, "StepCount", 100, "count", at),
      point(14, "BodyFatPercentage", 0.25, "%", at),
      point(15, "BodyMassIndex", 22.5, "count", at),
      point(16, "BodyMass", 72500, "g", at),
      point(17, "BodyTemperature", 98.75, "degF", at),
      point(18, "Height", 1.8, "m", at + std::chrono::minutes(1)),
      point(19, "OxygenSaturation", 0.97, "%", at),
      point(20, "VO2Max", 45, "mL/(kg*min)", at),
      point(21, "HeartRateVariabilitySDNN", 52, "ms", at),
  };
  const nlohmann::json expected = golden("body_measurements.json");
  const std::vector<nlohmann::json> points = encodeBodyMeasurements(delivery);
  ASSERT_EQ(points.size(), expected.size());
  for (std::size_t i = 0; i < points.size(); ++i) {
    EXPECT_EQ(points[i], expected[i]) << "data point " << i;
  }
}

TEST(BodyMeasurements, CelsiusIsSentInFahrenheit) {
  const auto sample = quantity("HKQuantityTypeIdentifierBodyTemperature", 37, "degC",
                               properties(30, utc(2021, 1, 1), utc(2021, 1, 1)));
  const std::optional<nlohmann::json> point = encodeBodyMeasurement(*sample);
  ASSERT_TRUE(point);
  EXPECT_EQ((*point)["body"]["body_temperature"]["unit"], "F");
  EXPECT_NEAR((*point)["body"]["body_temperature"]["value"].get<double>(), 98.6, 1e-9);
}

TEST(BodyMeasurements, TypesOutsideTheTableGiveNoDataPoint) {
  for (std::string_view type :
       {"HKQuantityTypeIdentifierHeartRate", "HKQuantityTypeIdentifierLeanBodyMass",
        "HKQuantityTypeIdentifierRestingHeartRate"}) {
    const auto unit = ObjectType::quantityType(type)->canonicalUnit().unitString();
    const auto sample = quantity(type, 1, unit, properties(31, utc(2021, 1, 1), utc(2021, 1, 1)));
    EXPECT_FALSE(encodeBodyMeasurement(*sample)) << type;
  }
}

}  // namespace
}  // namespace kestrova::testing

namespace kestrova::testing {
namespace {

TEST(HealthUnits, EveryMappedTypeCanBeReadInItsUnit) {
  // A unit that does not fit its type would silently drop every sample of that type.
  for (std::string_view type : {"ActiveEnergyBurned",
                                "BasalEnergyBurned",
                                "BloodGlucose",
                                "BloodPressureDiastolic",
                                "BloodPressureSystolic",
                                "BodyFatPercentage",
                                "OxygenSaturation",
                                "BodyMass",
                                "BodyMassIndex",
                                "BodyTemperature",
                                "DistanceCycling",
                                "DistanceDownhillSnowSports",
                                "DistanceSwimming",
                                "DistanceWalkingRunning",
                                "DistanceWheelchair",
                                "HeartRate",
                                "RestingHeartRate",
                                "Height",
                                "HeartRateVariabilitySDNN",
                                "StepCount",
                                "VO2Max"}) {
    const std::string identifier = "HKQuantityTypeIdentifier" + std::string(type);
    const std::optional<Units> unit = unitForIdentifier(identifier);
    const std::optional<ObjectType> objectType = ObjectType::quantityType(identifier);
    ASSERT_TRUE(unit && objectType) << identifier;
    EXPECT_TRUE(objectType->canonicalUnit().isCompatible(healthUnit(*unit))) << identifier;
  }
}

}  // namespace
}  // namespace kestrova::testing
