// Workouts: activity names, the four schemas against hand-written data points, and the three
// per-workout queries against a real store.
#include "datapoints/workout.h"

#include <gtest/gtest.h>

#include "datapoints/datapoint_test_support.h"

namespace kestrova::testing {
namespace {

std::shared_ptr<const Workout> workout(std::uint32_t activity, double duration,
                                       std::optional<Quantity> distance,
                                       std::optional<Quantity> energy, SampleProperties props) {
  return Workout::make(Workout::Details{activity, duration, std::move(energy), std::move(distance)},
                       std::move(props))
      .value();
}

TEST(WorkoutActivityNames, FixedTableOfSeventyFourWithOtherAround) {
  // Raw values as the platform numbers them.
  const std::vector<std::pair<std::uint32_t, std::string_view>> cases = {
      {0, "other"},    {1, "americanFootball"}, {13, "cycling"},
      {37, "running"}, {46, "swimming"},        {52, "walking"},
      {57, "yoga"},    {58, "barre"},           {63, "highIntensityIntervalTraining"},
      {72, "taiChi"},  {74, "handCycling"},     {75, "other"},
      {3000, "other"}, {4294967295u, "other"}};
  for (const auto& [raw, name] : cases) {
    EXPECT_EQ(activityName(raw), name) << raw;
  }
}

TEST(WorkoutEncoding, WithoutHeartRateOrStepsIsThePlainSchema) {
  const auto plain =
      workout(0, 600, std::nullopt, std::nullopt,
              properties(40, utc(2021, 2, 1, 10), utc(2021, 2, 1, 10, 10), {}, "com.example.gym"));
  EXPECT_EQ(encodeWorkout(*plain, {}, std::nullopt), golden("workout_plain.json"));
}

TEST(WorkoutEncoding, StepsOnlyEnteredByHandWithConvertedTotals) {
  const auto entered =
      workout(3000, 3600, amount(5, "km"), amount(41840, "J"),
              properties(41, utc(2021, 2, 2, 10), utc(2021, 2, 2, 11),
                         {{std::string(kMetadataKeyWasUserEntered), true}}, "com.example.gym"));
  EXPECT_EQ(encodeWorkout(*entered, {}, 6500.0), golden("workout_with_steps.json"));
}

TEST(WorkoutEncoding, HeartRateOnlyInTheWorkoutsOwnZone) {
  // Los Angeles is UTC-8 in January; the records follow the workout's zone too.
  const Date start = utc(2021, 1, 20, 16);
  const Date end = utc(2021, 1, 20, 16, 45);
  const auto watched = workout(75, 2700, std::nullopt, std::nullopt,
                               properties(42, start, end,
                                          {{"HKTimeZone", std::string("America/Los_Angeles")},
                                           {"HKIndoorWorkout", true},
                                           {"HKElevationAscended", amount(12000, "cm")}},
                                          "com.apple.health.watch"));
  const std::vector<HeartRate> records = {
      {utc(2021, 1, 20, 16, 5), std::nullopt, std::nullopt, 95},
      {utc(2021, 1, 20, 16, 20), std::nullopt, std::nullopt, 130},
      {start, end, body::HeartRate::average, 118.5},
      {start, end, body::HeartRate::minimum, 95},
      {start, end, body::HeartRate::maximum, 141},
  };
  EXPECT_EQ(encodeWorkout(*watched, records, std::nullopt), golden("workout_with_heart_rate.json"));
}

TEST(WorkoutEncoding, ZeroStepsStillCountAsAStepCount) {
  const auto still = workout(57, 60, std::nullopt, std::nullopt,
                             properties(43, utc(2021, 2, 3), utc(2021, 2, 3, 0, 1)));
  const nlohmann::json point = encodeWorkout(*still, {}, 0.0);
  EXPECT_EQ(point["header"]["schema_id"]["name"], "hk-workout-with-steps");
  EXPECT_EQ(point["body"]["step_count"], 0);
}

TEST(HeartRateEncoding, PointInTimeWithoutTypeAndIntervalWithEqualEnds) {
  const Date at = utc(2021, 3, 1, 7);
  EXPECT_EQ(encodeHeartRate({at, std::nullopt, std::nullopt, 61}), nlohmann::json::parse(R"({
      "heart_rate": {"value": 61, "unit": "beats/min"},
      "effective_time_frame": {"date_time": "2021-03-01T08:00:00.000"}})"));
  // An end equal to the start is still an interval: records keep the shape they were given.
  EXPECT_EQ(encodeHeartRate({at, at, body::HeartRate::resting, 48}), nlohmann::json::parse(R"({
      "heart_rate": {"value": 48, "unit": "beats/min"},
      "effective_time_frame": {"time_interval": {"start_date_time": "2021-03-01T08:00:00.000",
                                                 "end_date_time": "2021-03-01T08:00:00.000"}},
      "descriptive_statistic": "resting"})"));
}

}  // namespace
}  // namespace kestrova::testing
