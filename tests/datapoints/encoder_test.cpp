// The encoders without a store: every family against hand-written data points, and the
// envelope rules they share (modality, the zone of the dates, the metadata list, time frames).
#include <gtest/gtest.h>

#include "datapoints/body_measurement.h"
#include "datapoints/category_sample.h"
#include "datapoints/datapoint_test_support.h"
#include "datapoints/envelope.h"
#include "datapoints/sleep.h"
#include "datapoints/workout.h"

namespace kestrova::testing {
namespace {

using std::chrono::minutes;

constexpr std::string_view kMindful = "HKCategoryTypeIdentifierMindfulSession";
constexpr std::string_view kSleep = "HKCategoryTypeIdentifierSleepAnalysis";
constexpr SystemVersion kStages{16, 0};
constexpr SystemVersion kOlder{15, 7};

std::shared_ptr<const CategorySample> session(Metadata metadata, Date start = utc(2021, 3, 1, 7),
                                              Date end = utc(2021, 3, 1, 7, 10)) {
  return category(kMindful, 0, properties(1, start, end, std::move(metadata)));
}

std::shared_ptr<const Workout> workout(std::uint32_t activity, double duration,
                                       std::optional<Quantity> distance,
                                       std::optional<Quantity> energy, SampleProperties props) {
  return Workout::make(Workout::Details{activity, duration, std::move(energy), std::move(distance)},
                       std::move(props))
      .value();
}

TEST(Encoders, EveryFamilyMatchesItsHandWrittenDataPoints) {
  const Date at = utc(2021, 1, 15, 6, 30);
  const auto point = [&](int id, std::string_view type, double value, std::string_view unit,
                         Date end) -> SamplePtr {
    return quantity(std::string("HKQuantityTypeIdentifier") + std::string(type), value, unit,
                    properties(id, at, end, {}, "com.example.scale"));
  };
  EXPECT_EQ(nlohmann::json(encodeBodyMeasurements({
                point(11, "BloodGlucose", 95, "mg/dL", at),
                point(12, "BloodPressureDiastolic", 80, "mmHg", at),
                point(13, "BloodPressureSystolic", 120, "mmHg", at),
                // Not a body measurement: left out of the batch.
                point(22, "StepCount", 100, "count", at),
                point(14, "BodyFatPercentage", 0.25, "%", at),
                point(15, "BodyMassIndex", 22.5, "count", at),
                point(16, "BodyMass", 72500, "g", at),
                point(17, "BodyTemperature", 98.75, "degF", at),
                point(18, "Height", 1.8, "m", at + minutes(1)),
                point(19, "OxygenSaturation", 0.97, "%", at),
                point(20, "VO2Max", 45, "mL/(kg*min)", at),
                point(21, "HeartRateVariabilitySDNN", 52, "ms", at),
            })),
            golden("body_measurements.json"));

  const auto mindful = category(kMindful, 0,
                                properties(1, utc(2021, 3, 1, 7), utc(2021, 3, 1, 7, 10),
                                           {{"HKExternalUUID", std::string("abc-123")},
                                            {"HKWasUserEntered", false},
                                            {"com.example.rating", std::int64_t{4}},
                                            {"com.example.score", 0.5},
                                            {"com.example.guided", true},
                                            {"com.example.reminder", utc(2021, 3, 1, 6, 30)},
                                            {"com.example.elevation", amount(1.5, "km")}},
                                           "com.example.meditate"));
  EXPECT_EQ(encodeMindfulSessions({mindful}), std::vector{golden("mindful_session.json")});
  // Entered by hand at one instant in New York.
  const Date instant = utc(2021, 7, 4, 16, 30, 15, 250);
  const auto entered = category(kMindful, 0,
                                properties(2, instant, instant,
                                           {{"HKTimeZone", std::string("America/New_York")},
                                            {"HKWasUserEntered", true},
                                            {"com.example.started", utc(2021, 7, 4, 16)}},
                                           "com.example.meditate"));
  EXPECT_EQ(encodeMindfulSessions({entered}),
            std::vector{golden("mindful_point_in_time_other_zone.json")});

  EXPECT_EQ(encodeWorkout(*workout(0, 600, std::nullopt, std::nullopt,
                                   properties(40, utc(2021, 2, 1, 10), utc(2021, 2, 1, 10, 10), {},
                                              "com.example.gym")),
                          {}, std::nullopt),
            golden("workout_plain.json"));
  // Steps only, entered by hand, with totals in other units.
  EXPECT_EQ(encodeWorkout(*workout(3000, 3600, amount(5, "km"), amount(41840, "J"),
                                   properties(41, utc(2021, 2, 2, 10), utc(2021, 2, 2, 11),
                                              {{"HKWasUserEntered", true}}, "com.example.gym")),
                          {}, 6500.0),
            golden("workout_with_steps.json"));
  // Heart rate only, in the workout's own zone (Los Angeles, UTC-8 in January).
  const Date start = utc(2021, 1, 20, 16);
  const Date end = utc(2021, 1, 20, 16, 45);
  const auto watched = workout(75, 2700, std::nullopt, std::nullopt,
                               properties(42, start, end,
                                          {{"HKTimeZone", std::string("America/Los_Angeles")},
                                           {"HKIndoorWorkout", true},
                                           {"HKElevationAscended", amount(12000, "cm")}},
                                          "com.apple.health.watch"));
  EXPECT_EQ(encodeWorkout(*watched,
                          {{utc(2021, 1, 20, 16, 5), std::nullopt, std::nullopt, 95},
                           {utc(2021, 1, 20, 16, 20), std::nullopt, std::nullopt, 130},
                           {start, end, body::HeartRate::average, 118.5},
                           {start, end, body::HeartRate::minimum, 95},
                           {start, end, body::HeartRate::maximum, 141}},
                          std::nullopt),
            golden("workout_with_heart_rate.json"));
}

TEST(Encoders, FamilyEdgeCases) {
  // Celsius is sent in Fahrenheit.
  const auto fever = quantity("HKQuantityTypeIdentifierBodyTemperature", 37, "degC",
                              properties(30, utc(2021, 1, 1), utc(2021, 1, 1)));
  const nlohmann::json temperature = encodeBodyMeasurement(*fever).value()["body"];
  EXPECT_NEAR(temperature["body_temperature"]["value"].get<double>(), 98.6, 1e-9);

  // A category value is decimal text, also when negative.
  const nlohmann::json stand =
      encodeCategorySample(*category("HKCategoryTypeIdentifierAppleStandHour", -1,
                                     properties(6, utc(2021, 1, 1), utc(2021, 1, 1, 1))));
  EXPECT_EQ(stand["category_value"], "-1");

  // Zero steps are still a step count.
  const nlohmann::json still =
      encodeWorkout(*workout(57, 60, std::nullopt, std::nullopt,
                             properties(43, utc(2021, 2, 3), utc(2021, 2, 3, 0, 1))),
                    {}, 0.0);
  EXPECT_EQ(still["header"]["schema_id"]["name"], "hk-workout-with-steps");
  EXPECT_EQ(still["body"]["step_count"], 0);
}

TEST(Envelope, DatesInTheSamplesZoneOrTheDevicesWithTheOffsetOfTheDate) {
  // 2021-03-01 07:00 UTC is 16:00 in Tokyo (UTC+9); metadata dates follow the sample's zone.
  // Only a boolean true is self-reported (the goldens pin true, false and absent); neither
  // key is listed.
  const auto tokyo = session({{"HKTimeZone", std::string("Asia/Tokyo")},
                              {"HKWasUserEntered", std::string("true")},
                              {"com.example.at", utc(2021, 3, 1, 6, 59, 59, 999)}});
  EXPECT_EQ(makeHeader(kSchemaCategorySample, *tokyo)["acquisition_provenance"]["modality"],
            "sensed");
  EXPECT_EQ(makeHeader(kSchemaCategorySample, *tokyo)["creation_date_time"],
            "2021-03-01T16:00:00.000");
  EXPECT_EQ(makeEffectiveTimeFrame(*tokyo)["time_interval"]["end_date_time"],
            "2021-03-01T16:10:00.000");
  EXPECT_EQ(makeMetadataList(*tokyo), nlohmann::json::parse(R"([{"key": "com.example.at",
                                      "value": "2021-03-01T15:59:59.999"}])"));
  // An unknown or non-text zone falls back to the device's: Berlin is UTC+1 in March.
  for (const MetadataValue& zone :
       {MetadataValue(std::string("Mars/Olympus_Mons")), MetadataValue(std::int64_t{9})}) {
    EXPECT_EQ(makeEffectiveTimeFrame(
                  *session({{"HKTimeZone", zone}}))["time_interval"]["start_date_time"],
              "2021-03-01T08:00:00.000");
  }
  // Berlin is UTC+2 in July although the test clock stands in January.
  EXPECT_EQ(makeEffectiveTimeFrame(*session({}, utc(2021, 7, 1, 7), utc(2021, 7, 1, 7))),
            nlohmann::json::parse(R"({"date_time": "2021-07-01T09:00:00.000"})"));
  // One nanosecond apart is an interval even if the texts are equal.
  const Date start = utc(2021, 3, 1, 7);
  EXPECT_EQ(makeEffectiveTimeFrame(*session({}, start, start + std::chrono::nanoseconds(1))),
            nlohmann::json::parse(R"({"time_interval": {
                "start_date_time": "2021-03-01T08:00:00.000",
                "end_date_time": "2021-03-01T08:00:00.000"}})"));
}

TEST(Envelope, MetadataQuantitiesBecomeNumbersInTheUnitsTheBodiesUse) {
  EXPECT_EQ(makeMetadataList(*session({
                {"energy", amount(41840, "J")},
                {"pause", amount(1.5, "min")},
                // No listed unit is a speed: the number stays in the quantity's own unit.
                {"speed", amount(3.25, "m/s")},
            })),
            nlohmann::json::parse(R"([
      {"key": "energy", "value": 10},
      {"key": "pause", "value": 90},
      {"key": "speed", "value": 3.25}])"));
}

TEST(SleepEncoding, OnlyAwakeTimeSelectsTheStagesSchemaAndInBedGivesNoDetail) {
  const Date night = utc(2021, 1, 9, 22);
  const auto episode = category(kSleep, kSleepInBed, properties(1, night, night + minutes(480)));
  const nlohmann::json point = encodeSleepEpisode(*episode, SleepStageSums{60, 0, 0, 0, 0});
  EXPECT_EQ(point["header"]["schema_id"]["name"], "sleep-episode-with-sleep-stages");
  EXPECT_EQ(point["body"]["total_sleep_time"],
            nlohmann::json::parse(R"({"value": 0, "unit": "sec"})"));
  EXPECT_EQ(point["body"]["sleep_stages_data"]["sleep_awake"]["value"], 60);
  EXPECT_FALSE(encodeSleepDetail(*episode, kStages));
  EXPECT_FALSE(encodeSleepDetail(*episode, kOlder));
}

}  // namespace
}  // namespace kestrova::testing
