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
const Unit kCount = Unit::count();
const Unit kBeatsPerMinute = Unit::countPerMinute();

double value(const std::optional<Quantity>& quantity, const Unit& unit) {
  EXPECT_TRUE(quantity.has_value());
  return quantity ? quantity->doubleValue(unit).value() : -1;
}

SamplePtr steps(double count, Date start, Date end, SourceRevision source = phone()) {
  return quantitySample(kStepCountIdentifier, count, "count", start, end, std::move(source));
}

SamplePtr heartRate(double bpm, Date start, Date end) {
  return quantitySample(kHeartRateIdentifier, bpm, "count/min", start, end, watch());
}

class StoreStatistics : public StoreFixture {
 protected:
  // One sample per hour, 60 steps each, over whole days: a day's sum is 60 per hour it has.
  void saveHourlySteps(Date from, Date to) {
    std::vector<SamplePtr> samples;
    for (Date hour = from; hour < to; hour += hours(1)) {
      samples.push_back(steps(60, hour, hour + hours(1)));
    }
    save(samples);
  }

  void expectDays(const StatisticsCollection& days, const TimeZone& zone,
                  const std::vector<std::pair<CivilTime, double>>& expected) {
    for (const auto& [day, sum] : expected) {
      SCOPED_TRACE(std::to_string(day.month) + "-" + std::to_string(day.day));
      const Date midnight = zone.date(day);
      const kestrova::Statistics statistics = days.statistics(midnight + hours(12));
      EXPECT_EQ(statistics.startDate(), midnight);
      EXPECT_EQ(statistics.endDate(), zone.date(addingDays(day, 1)));
      EXPECT_DOUBLE_EQ(value(statistics.sumQuantity(), kCount), sum);
    }
  }
};

TEST_F(StoreStatistics, DaysAcrossDaylightSavingInBerlin) {
  const TimeZone berlin = TimeZone::named("Europe/Berlin").value();
  saveHourlySteps(utc(2024, 3, 29, 23), utc(2024, 4, 1, 22));
  saveHourlySteps(utc(2024, 10, 25, 22), utc(2024, 10, 28, 23));
  const Result<StatisticsCollection> days =
      collection(kStepCountIdentifier, kSum, utc(2023, 12, 31, 23), DateComponents{.day = 1});
  ASSERT_TRUE(days.ok()) << days.error().text();
  expectDays(days.value(), berlin,
             {{CivilTime{2024, 3, 30}, 24 * 60},
              {CivilTime{2024, 3, 31}, 23 * 60},
              {CivilTime{2024, 4, 1}, 24 * 60},
              {CivilTime{2024, 10, 26}, 24 * 60},
              {CivilTime{2024, 10, 27}, 25 * 60},
              {CivilTime{2024, 10, 28}, 24 * 60}});
  // Only days with data, in order.
  EXPECT_EQ(days.value().statistics().size(), 6u);
  EXPECT_EQ(days.value().statistics().front().startDate(), utc(2024, 3, 29, 23));

  // Quarter hours keep elapsed time: 01:45 is followed by 03:00 on the short night.
  save({heartRate(60, utc(2024, 3, 31, 0, 50), utc(2024, 3, 31, 0, 50)),
        heartRate(70, utc(2024, 3, 31, 1, 5), utc(2024, 3, 31, 1, 5))});
  const Result<StatisticsCollection> quarters =
      collection(kHeartRateIdentifier, StatisticsOptions::discreteAverage, utc(2024, 3, 30, 23),
                 DateComponents{.minute = 15});
  ASSERT_TRUE(quarters.ok());
  const auto populated = quarters.value().statistics();
  ASSERT_EQ(populated.size(), 2u);
  EXPECT_EQ(berlin.civil(populated[0].startDate()), (CivilTime{2024, 3, 31, 1, 45}));
  EXPECT_EQ(berlin.civil(populated[1].startDate()), (CivilTime{2024, 3, 31, 3, 0}));
  EXPECT_EQ(populated[0].endDate(), populated[1].startDate());
}

TEST_F(StoreStatistics, DaysAcrossDaylightSavingInNewYork) {
  store_.reset();
  store_ = openStore("America/New_York");
  const TimeZone newYork = TimeZone::named("America/New_York").value();
  saveHourlySteps(utc(2024, 3, 9, 5), utc(2024, 3, 11, 4));
  saveHourlySteps(utc(2024, 11, 2, 4), utc(2024, 11, 4, 5));
  // Anchored at a local midnight long before: days stay aligned to local midnight.
  const Result<StatisticsCollection> days =
      collection(kStepCountIdentifier, kSum, utc(2023, 12, 1, 5), DateComponents{.day = 1});
  ASSERT_TRUE(days.ok());
  expectDays(days.value(), newYork,
             {{CivilTime{2024, 3, 9}, 24 * 60},
              {CivilTime{2024, 3, 10}, 23 * 60},
              {CivilTime{2024, 11, 2}, 24 * 60},
              {CivilTime{2024, 11, 3}, 25 * 60}});
}

TEST_F(StoreStatistics, CumulativeSamplesSplitInProportionToTime) {
  // 20 minutes across a quarter-hour boundary: 5 minutes before it, 15 after.
  save({steps(20, utc(2024, 5, 1, 10, 10), utc(2024, 5, 1, 10, 30))});
  const Result<StatisticsCollection> quarters =
      collection(kStepCountIdentifier, kSum, utc(2024, 4, 30, 22), DateComponents{.minute = 15});
  ASSERT_TRUE(quarters.ok());
  const auto populated = quarters.value().statistics();
  ASSERT_EQ(populated.size(), 2u);
  EXPECT_EQ(populated[0].startDate(), utc(2024, 5, 1, 10));
  EXPECT_NEAR(value(populated[0].sumQuantity(), kCount), 5, 1e-9);
  EXPECT_NEAR(value(populated[1].sumQuantity(), kCount), 15, 1e-9);

  // Samples selected by the predicate are still spread over intervals outside its window.
  save({steps(80, utc(2024, 6, 1, 13, 24), utc(2024, 6, 1, 14, 36)),
        steps(100, utc(2024, 6, 1, 13, 57), utc(2024, 6, 1, 14, 2)),
        steps(200, utc(2024, 6, 1, 14, 30), utc(2024, 6, 1, 14, 42)),
        steps(120, utc(2024, 6, 1, 14, 55), utc(2024, 6, 1, 15, 7)),
        steps(36, utc(2024, 6, 1, 15, 44), utc(2024, 6, 1, 15, 51))});
  const Result<StatisticsCollection> hours =
      collection(kStepCountIdentifier, kSum, utc(2024, 6, 1), DateComponents{.hour = 1},
                 predicateForSamples(utc(2024, 6, 1, 14), utc(2024, 6, 1, 15), QueryOptions::none));
  ASSERT_TRUE(hours.ok());
  const auto hourly = hours.value().statistics();
  ASSERT_EQ(hourly.size(), 3u);
  EXPECT_NEAR(value(hourly[0].sumQuantity(), kCount), 100, 1e-9);
  EXPECT_NEAR(value(hourly[1].sumQuantity(), kCount), 330, 1e-9);
  EXPECT_NEAR(value(hourly[2].sumQuantity(), kCount), 70, 1e-9);
}

TEST_F(StoreStatistics, PhoneAndWatchCountingTheSameWalkCountOnce) {
  const Date start = utc(2024, 5, 2, 8);
  save({steps(100, start, start + minutes(10), watch()),
        steps(50, start, start + minutes(10), phone()),
        steps(30, start + minutes(10), start + minutes(20), phone())});
  const auto day = [&] {
    return collection(kStepCountIdentifier, kSum | StatisticsOptions::separateBySource,
                      utc(2024, 5, 1, 22), DateComponents{.day = 1});
  };
  Result<StatisticsCollection> merged = day();
  ASSERT_TRUE(merged.ok());
  ASSERT_EQ(merged.value().statistics().size(), 1u);
  const kestrova::Statistics walk = merged.value().statistics()[0];
  // The watch wins the overlap; the phone fills the gap.
  EXPECT_NEAR(value(walk.sumQuantity(), kCount), 130, 1e-9);
  EXPECT_NEAR(value(walk.sumQuantity(watch().source), kCount), 100, 1e-9);
  EXPECT_NEAR(value(walk.sumQuantity(phone().source), kCount), 80, 1e-9);
  EXPECT_EQ(walk.sources().size(), 2u);

  // The order is a setting: the phone first counts only the phone.
  store_->setSourcePriority(quantityType(kStepCountIdentifier), {phone().source.bundleIdentifier});
  merged = day();
  EXPECT_NEAR(value(merged.value().statistics()[0].sumQuantity(), kCount), 80, 1e-9);

  // By default a watch beats an app, and user-entered data beats both.
  store_->setSourcePriority(quantityType(kStepCountIdentifier), {});
  const Date later = utc(2024, 5, 2, 12);
  save({steps(40, later, later + minutes(10), app("com.example.pedometer")),
        quantitySample(kStepCountIdentifier, 7, "count", later, later + minutes(10),
                       app("com.apple.Health"), {{"HKWasUserEntered", true}}),
        steps(20, later, later + minutes(10), watch())});
  std::promise<Result<kestrova::Statistics>> promise;
  store_->executeQuery(StatisticsQuery::make(
      quantityType(kStepCountIdentifier),
      predicateForSamples(later, later + minutes(10), QueryOptions::strictStartDate), kSum,
      [&](const auto&, Result<kestrova::Statistics> result) {
        promise.set_value(std::move(result));
      }));
  const Result<kestrova::Statistics> entered = wait(promise);
  ASSERT_TRUE(entered.ok());
  EXPECT_NEAR(value(entered.value().sumQuantity(), kCount), 7, 1e-9);
}

TEST_F(StoreStatistics, HeartRateAverageMinimumAndMaximumPerQuarterHour) {
  save({heartRate(60, utc(2024, 5, 3, 10, 1), utc(2024, 5, 3, 10, 1)),
        heartRate(80, utc(2024, 5, 3, 10, 5), utc(2024, 5, 3, 10, 5)),
        heartRate(100, utc(2024, 5, 3, 10, 14, 59), utc(2024, 5, 3, 10, 14, 59)),
        heartRate(70, utc(2024, 5, 3, 10, 15), utc(2024, 5, 3, 10, 15)),
        // Time-weighted: ten minutes at 60 and five at 90 average 70, not 75.
        heartRate(60, utc(2024, 5, 3, 10, 30), utc(2024, 5, 3, 10, 40)),
        heartRate(90, utc(2024, 5, 3, 10, 40), utc(2024, 5, 3, 10, 45))});
  const Result<StatisticsCollection> quarters = collection(
      kHeartRateIdentifier, kAverageMinMax, utc(2024, 5, 2, 22), DateComponents{.minute = 15});
  ASSERT_TRUE(quarters.ok());
  const auto populated = quarters.value().statistics();
  ASSERT_EQ(populated.size(), 3u);
  const double expected[3][3] = {{80, 60, 100}, {70, 70, 70}, {70, 60, 90}};
  for (std::size_t i = 0; i < populated.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(populated[i].startDate(), utc(2024, 5, 3, 10, 15 * static_cast<int>(i)));
    EXPECT_NEAR(value(populated[i].averageQuantity(), kBeatsPerMinute), expected[i][0], 1e-9);
    EXPECT_NEAR(value(populated[i].minimumQuantity(), kBeatsPerMinute), expected[i][1], 1e-9);
    EXPECT_NEAR(value(populated[i].maximumQuantity(), kBeatsPerMinute), expected[i][2], 1e-9);
    EXPECT_FALSE(populated[i].sumQuantity());
  }
  // Empty intervals exist only when asked for by date.
  const kestrova::Statistics empty = quarters.value().statistics(utc(2024, 5, 3, 10, 50));
  EXPECT_EQ(empty.startDate(), utc(2024, 5, 3, 10, 45));
  EXPECT_FALSE(empty.averageQuantity());
  int visited = 0;
  quarters.value().enumerateStatistics(utc(2024, 5, 3, 10), utc(2024, 5, 3, 11),
                                       [&](const kestrova::Statistics&) {
                                         ++visited;
                                         return true;
                                       });
  EXPECT_EQ(visited, 5);

  // A one-off statistics query spans the matching samples.
  std::promise<Result<kestrova::Statistics>> promise;
  store_->executeQuery(StatisticsQuery::make(
      quantityType(kHeartRateIdentifier),
      predicateForSamples(utc(2024, 5, 3, 10, 10), utc(2024, 5, 3, 10, 35), QueryOptions::none),
      kAverageMinMax, [&](const auto&, Result<kestrova::Statistics> result) {
        promise.set_value(std::move(result));
      }));
  const Result<kestrova::Statistics> workout = wait(promise);
  ASSERT_TRUE(workout.ok());
  EXPECT_EQ(workout.value().startDate(), utc(2024, 5, 3, 10, 14, 59));
  EXPECT_EQ(workout.value().endDate(), utc(2024, 5, 3, 10, 40));
  EXPECT_NEAR(value(workout.value().maximumQuantity(), kBeatsPerMinute), 100, 1e-9);
}

TEST_F(StoreStatistics, RestingHeartRateWithTheAverageAlone) {
  save({quantitySample(kRestingHeartRateIdentifier, 55, "count/min", utc(2024, 5, 4, 6),
                       utc(2024, 5, 4, 6)),
        quantitySample(kRestingHeartRateIdentifier, 1, "Hz", utc(2024, 5, 4, 18),
                       utc(2024, 5, 4, 18))});
  const Result<StatisticsCollection> days =
      collection(kRestingHeartRateIdentifier, StatisticsOptions::discreteAverage,
                 utc(2024, 5, 1, 22), DateComponents{.day = 1});
  ASSERT_TRUE(days.ok());
  ASSERT_EQ(days.value().statistics().size(), 1u);
  const kestrova::Statistics day = days.value().statistics()[0];
  EXPECT_NEAR(value(day.averageQuantity(), kBeatsPerMinute), 57.5, 1e-9);
  EXPECT_FALSE(day.minimumQuantity());
  EXPECT_FALSE(day.maximumQuantity());
  EXPECT_FALSE(day.mostRecentQuantity());

  // Most recent is the latest-ending sample, whatever unit it was saved in.
  const Result<StatisticsCollection> recent = collection(
      kRestingHeartRateIdentifier, StatisticsOptions::mostRecent | StatisticsOptions::discreteMax,
      utc(2024, 5, 1, 22), DateComponents{.day = 1});
  ASSERT_TRUE(recent.ok());
  EXPECT_NEAR(value(recent.value().statistics()[0].mostRecentQuantity(), kBeatsPerMinute), 60,
              1e-9);
  EXPECT_NEAR(value(recent.value().statistics()[0].maximumQuantity(), kBeatsPerMinute), 60, 1e-9);
}

TEST_F(StoreStatistics, OptionsTheTypeDoesNotAllowAreErrors) {
  save({heartRate(60, utc(2024, 5, 3, 10), utc(2024, 5, 3, 10))});
  const Result<StatisticsCollection> sum =
      collection(kHeartRateIdentifier, kSum, utc(2024, 5, 1), DateComponents{.day = 1});
  ASSERT_FALSE(sum.ok());
  EXPECT_EQ(sum.error().code, kHealthErrorInvalidArgument);
  EXPECT_EQ(sum.error().description,
            "Statistics option HKStatisticsOptionCumulativeSum is not compatible with discrete "
            "data type HKQuantityTypeIdentifierHeartRate");
  const Result<StatisticsCollection> average =
      collection(kStepCountIdentifier, StatisticsOptions::discreteAverage, utc(2024, 5, 1),
                 DateComponents{.day = 1});
  ASSERT_FALSE(average.ok());
  EXPECT_EQ(average.error().description,
            "Statistics option HKStatisticsOptionDiscreteAverage is not compatible with "
            "cumulative data type HKQuantityTypeIdentifierStepCount");
  // Most recent fits both styles; a query without data says so.
  EXPECT_TRUE(collection(kStepCountIdentifier, StatisticsOptions::mostRecent, utc(2024, 5, 1),
                         DateComponents{.day = 1})
                  .ok());
  std::promise<Result<kestrova::Statistics>> promise;
  store_->executeQuery(StatisticsQuery::make(quantityType(kStepCountIdentifier), std::nullopt, kSum,
                                             [&](const auto&, Result<kestrova::Statistics> result) {
                                               promise.set_value(std::move(result));
                                             }));
  const Result<kestrova::Statistics> none = wait(promise);
  ASSERT_FALSE(none.ok());
  EXPECT_EQ(none.error().code, kHealthErrorNoData);
}

}  // namespace
}  // namespace kestrova
