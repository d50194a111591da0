// The per-workout queries against a real store: what overlaps a workout counts, each workout
// gets its own figures, every query is reported finished, and one completion per delivery.
#include <gtest/gtest.h>

#include "datapoints/store_support.h"
#include "datapoints/workout.h"

namespace kestrova::testing {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;

constexpr std::string_view kHeartRate = "HKQuantityTypeIdentifierHeartRate";
constexpr std::string_view kSteps = "HKQuantityTypeIdentifierStepCount";

class WorkoutQueryTest : public StoreTest {};

TEST_F(WorkoutQueryTest, EachWorkoutGetsItsOwnHeartRatesAndSteps) {
  // Berlin is UTC+2 in May.
  const Date start = utc(2021, 5, 10, 17);
  const Date end = utc(2021, 5, 10, 17, 30);
  const std::string watch = "com.apple.health.watch";
  save({
      // Starts before the workout and ends inside it: it overlaps, so it counts. Its value is
      // the mean of the others, so however the store weighs it the average stays 120.
      quantity(kHeartRate, 120, "count/min",
               properties(60, start - seconds(30), start + seconds(30), {}, watch)),
      quantity(kHeartRate, 100, "count/min",
               properties(61, start + minutes(1), start + minutes(2), {}, watch)),
      quantity(kHeartRate, 140, "count/min",
               properties(62, start + minutes(2), start + minutes(3), {}, watch)),
      // After the workout: not part of it.
      quantity(kHeartRate, 190, "count/min",
               properties(63, end + minutes(5), end + minutes(6), {}, watch)),
      quantity(kSteps, 3000, "count",
               properties(64, start + minutes(1), start + minutes(10), {}, watch)),
      quantity(kSteps, 3500, "count",
               properties(65, start + minutes(10), start + minutes(20), {}, watch)),
      quantity(kSteps, 1000, "count",
               properties(66, end + minutes(1), end + minutes(9), {}, watch)),
  });
  const SamplePtr withDetails =
      Workout::make(Workout::Details{37, 1800, amount(300, "kcal"), amount(5, "km")},
                    properties(50, start, end, {{"HKIndoorWorkout", false}}, watch))
          .value();
  const SamplePtr without =
      Workout::make(Workout::Details{57, 1200, std::nullopt, std::nullopt},
                    properties(51, utc(2021, 5, 11, 6), utc(2021, 5, 11, 6, 20), {}, watch))
          .value();
  // A non-workout in the delivery is ignored rather than queried.
  const SamplePtr stray = quantity(kSteps, 1, "count", properties(67, start, start));

  const auto points = collect([&](QueryRunner runner, auto queue, auto completion) {
    collectWorkoutDetails({withDetails, stray, without}, runner, queue, std::move(completion));
  });
  ASSERT_TRUE(points) << "no completion";
  EXPECT_EQ(nlohmann::json(*points), golden("workouts_collected.json"));
  EXPECT_EQ(executed_.load(), 6);
  EXPECT_EQ(finished_.load(), 6);
}

TEST_F(WorkoutQueryTest, EmptyDeliveryCompletesOnceWithNothing) {
  const auto points = collect([&](QueryRunner runner, auto queue, auto completion) {
    collectWorkoutDetails({}, runner, queue, std::move(completion));
  });
  ASSERT_TRUE(points);
  EXPECT_TRUE(points->empty());
  EXPECT_EQ(executed_.load(), 0);
}

}  // namespace
}  // namespace kestrova::testing
