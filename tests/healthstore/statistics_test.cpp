// Statistics queries on a real store: calendar days and elapsed quarter hours across daylight
// saving, cumulative samples split over intervals, overlapping sources counted once, discrete
// figures time-weighted, and the options a type does not allow.
#include <gtest/gtest.h>

#include "store_fixture.h"

namespace kestrova {
namespace {

using testing::app;
using testing::phone;
using testing::quantitySample;
using testing::quantityType;
using testing::StoreFixture;
using testing::utc;
using testing::watch;

using std::chrono::hours;
using std::chrono::minutes;

constexpr StatisticsOptions kSum = StatisticsOptions::cumulativeSum;
constexpr StatisticsOptions kAverageMinMax = StatisticsOptions::discreteAverage |
                                             StatisticsOptions::discreteMin |
                                             StatisticsOptions::discreteMax;
constexpr DateComponents kDay{.day = 1};
constexpr DateComponents kQuarterHour{.minute = 15};

double value(const std::optional<Quantity>& quantity, const Unit& unit = Unit::count()) {
  EXPECT_TRUE(quantity.has_value());
  return quantity ? quantity->doubleValue(unit).value() : -1;
}

double bpm(const std::optional<Quantity>& quantity) {
  return value(quantity, Unit::countPerMinute());
}

SamplePtr steps(double count, Date start, Date end, SourceRevision source = phone()) {
  return quantitySample(kStepCountIdentifier, count, "count", start, end, std::move(source));
}

SamplePtr heartRate(double beats, Date start, Date end) {
  return quantitySample(kHeartRateIdentifier, beats, "count/min", start, end, watch());
}

using StoreStatistics = StoreFixture;

TEST_F(StoreStatistics, DaysFollowLocalMidnightAcrossDaylightSaving) {
  // 60 steps in every hour around both of Berlin's changes of 2024.
  std::vector<SamplePtr> samples;
  for (const auto& [from, to] : {std::pair{utc(2024, 3, 29, 23), utc(2024, 4, 1, 22)},
                                 std::pair{utc(2024, 10, 25, 22), utc(2024, 10, 28, 23)}}) {
    for (Date hour = from; hour < to; hour += hours(1)) {
      samples.push_back(steps(60, hour, hour + hours(1)));
    }
  }
  save(samples);
  // Anchored at a local midnight long before the data.
  const Result<StatisticsCollection> days =
      collection(kStepCountIdentifier, kSum, utc(2023, 12, 31, 23), kDay);
  ASSERT_TRUE(days.ok()) << days.error().text();
  const std::pair<CivilTime, double> expected[] = {
      {CivilTime{2024, 3, 30}, 24 * 60},  {CivilTime{2024, 3, 31}, 23 * 60},
      {CivilTime{2024, 4, 1}, 24 * 60},   {CivilTime{2024, 10, 26}, 24 * 60},
      {CivilTime{2024, 10, 27}, 25 * 60}, {CivilTime{2024, 10, 28}, 24 * 60}};
  // Only days with data.
  EXPECT_EQ(days.value().statistics().size(), std::size(expected));
  const TimeZone berlin = TimeZone::named("Europe/Berlin").value();
  for (const auto& [day, sum] : expected) {
    SCOPED_TRACE(std::to_string(day.month) + "-" + std::to_string(day.day));
    const kestrova::Statistics found = days.value().statistics(berlin.date(day) + hours(12));
    EXPECT_EQ(found.startDate(), berlin.date(day));
    EXPECT_EQ(found.endDate(), berlin.date(addingDays(day, 1)));
    EXPECT_DOUBLE_EQ(value(found.sumQuantity()), sum);
  }

  // Quarter hours keep elapsed time: 01:45 is followed by 03:00 on Berlin's short night.
  save({heartRate(60, utc(2024, 3, 31, 0, 50), utc(2024, 3, 31, 0, 50)),
        heartRate(70, utc(2024, 3, 31, 1, 5), utc(2024, 3, 31, 1, 5))});
  const auto quarters = collection(kHeartRateIdentifier, StatisticsOptions::discreteAverage,
                                   utc(2024, 3, 30, 23), kQuarterHour)
                            .value()
                            .statistics();
  ASSERT_EQ(quarters.size(), 2u);
  EXPECT_EQ(berlin.civil(quarters[0].startDate()), (CivilTime{2024, 3, 31, 1, 45}));
  EXPECT_EQ(berlin.civil(quarters[1].startDate()), (CivilTime{2024, 3, 31, 3, 0}));
  EXPECT_EQ(quarters[0].endDate(), quarters[1].startDate());
}

TEST_F(StoreStatistics, CumulativeSamplesSplitInProportionToTimeAlsoOutsideThePredicate) {
  // 20 minutes across a quarter-hour boundary: 5 minutes before it, 15 after.
  save({steps(20, utc(2024, 5, 1, 10, 10), utc(2024, 5, 1, 10, 30))});
  const auto quarters =
      collection(kStepCountIdentifier, kSum, utc(2024, 4, 30, 22), kQuarterHour).value();
  ASSERT_EQ(quarters.statistics().size(), 2u);
  EXPECT_NEAR(value(quarters.statistics()[0].sumQuantity()), 5, 1e-9);
  EXPECT_NEAR(value(quarters.statistics()[1].sumQuantity()), 15, 1e-9);

  // Samples selected by the predicate are still spread over intervals outside its window.
  save({steps(80, utc(2024, 6, 1, 13, 24), utc(2024, 6, 1, 14, 36)),
        steps(100, utc(2024, 6, 1, 13, 57), utc(2024, 6, 1, 14, 2)),
        steps(200, utc(2024, 6, 1, 14, 30), utc(2024, 6, 1, 14, 42)),
        steps(120, utc(2024, 6, 1, 14, 55), utc(2024, 6, 1, 15, 7)),
        steps(36, utc(2024, 6, 1, 15, 44), utc(2024, 6, 1, 15, 51))});
  const auto hourly =
      collection(kStepCountIdentifier, kSum, utc(2024, 6, 1), DateComponents{.hour = 1},
                 predicateForSamples(utc(2024, 6, 1, 14), utc(2024, 6, 1, 15), QueryOptions::none))
          .value()
          .statistics();
  ASSERT_EQ(hourly.size(), 3u);
  EXPECT_NEAR(value(hourly[0].sumQuantity()), 100, 1e-9);
  EXPECT_NEAR(value(hourly[1].sumQuantity()), 330, 1e-9);
  EXPECT_NEAR(value(hourly[2].sumQuantity()), 70, 1e-9);
}

TEST_F(StoreStatistics, OverlappingSourcesCountOnceInPriorityOrder) {
  const Date start = utc(2024, 5, 2, 8);
  save({steps(100, start, start + minutes(10), watch()),
        steps(50, start, start + minutes(10), phone()),
        steps(30, start + minutes(10), start + minutes(20), phone())});
  // The watch wins the overlap; the phone fills the gap.
  const kestrova::Statistics walk =
      collection(kStepCountIdentifier, kSum | StatisticsOptions::separateBySource,
                 utc(2024, 5, 1, 22), kDay)
          .value()
          .statistics()
          .at(0);
  EXPECT_NEAR(value(walk.sumQuantity()), 130, 1e-9);
  EXPECT_NEAR(value(walk.sumQuantity(watch().source)), 100, 1e-9);
  EXPECT_NEAR(value(walk.sumQuantity(phone().source)), 80, 1e-9);

  // A watch beats an app, and user-entered data beats both.
  const Date later = utc(2024, 5, 2, 12);
  save({steps(40, later, later + minutes(10), app("com.example.pedometer")),
        quantitySample(kStepCountIdentifier, 7, "count", later, later + minutes(10),
                       app("com.apple.Health"), {{"HKWasUserEntered", true}}),
        steps(20, later, later + minutes(10), watch())});
  const auto entered =
      collection(kStepCountIdentifier, kSum, utc(2024, 5, 1, 22), kDay,
                 predicateForSamples(later, later + minutes(10), QueryOptions::strictStartDate));
  EXPECT_NEAR(value(entered.value().statistics().at(0).sumQuantity()), 7, 1e-9);
}

TEST_F(StoreStatistics, DiscreteFiguresAreTimeWeightedPerInterval) {
  save({heartRate(60, utc(2024, 5, 3, 10, 1), utc(2024, 5, 3, 10, 1)),
        heartRate(80, utc(2024, 5, 3, 10, 5), utc(2024, 5, 3, 10, 5)),
        heartRate(100, utc(2024, 5, 3, 10, 14, 59), utc(2024, 5, 3, 10, 14, 59)),
        heartRate(70, utc(2024, 5, 3, 10, 15), utc(2024, 5, 3, 10, 15)),
        // Time-weighted: ten minutes at 60 and five at 90 average 70, not 75.
        heartRate(60, utc(2024, 5, 3, 10, 30), utc(2024, 5, 3, 10, 40)),
        heartRate(90, utc(2024, 5, 3, 10, 40), utc(2024, 5, 3, 10, 45))});
  const StatisticsCollection quarters =
      collection(kHeartRateIdentifier, kAverageMinMax, utc(2024, 5, 2, 22), kQuarterHour).value();
  const auto populated = quarters.statistics();
  ASSERT_EQ(populated.size(), 3u);
  const double expected[3][3] = {{80, 60, 100}, {70, 70, 70}, {70, 60, 90}};
  for (std::size_t i = 0; i < populated.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(populated[i].startDate(), utc(2024, 5, 3, 10, 15 * static_cast<int>(i)));
    EXPECT_NEAR(bpm(populated[i].averageQuantity()), expected[i][0], 1e-9);
    EXPECT_NEAR(bpm(populated[i].minimumQuantity()), expected[i][1], 1e-9);
    EXPECT_NEAR(bpm(populated[i].maximumQuantity()), expected[i][2], 1e-9);
  }
}

TEST_F(StoreStatistics, OptionsTheTypeDoesNotAllowAreErrors) {
  save({heartRate(60, utc(2024, 5, 3, 10), utc(2024, 5, 3, 10))});
  const Result<StatisticsCollection> sum =
      collection(kHeartRateIdentifier, kSum, utc(2024, 5, 1), kDay);
  EXPECT_EQ(sum.error().code, kHealthErrorInvalidArgument);
  EXPECT_EQ(sum.error().description,
            "Statistics option HKStatisticsOptionCumulativeSum is not compatible with discrete "
            "data type HKQuantityTypeIdentifierHeartRate");
  EXPECT_EQ(
      collection(kStepCountIdentifier, StatisticsOptions::discreteAverage, utc(2024, 5, 1), kDay)
          .error()
          .code,
      kHealthErrorInvalidArgument);
  // Most recent fits both styles.
  EXPECT_TRUE(
      collection(kStepCountIdentifier, StatisticsOptions::mostRecent, utc(2024, 5, 1), kDay).ok());
}

}  // namespace
}  // namespace kestrova
