// The statistics store on the real SQLite defaults store with a manual clock: the larger-sum
// and equal-figure rules, the new-data rule, marking, pruning and the assembled records.
#include "statistics/statistics_store.h"

#include <gtest/gtest.h>

#include <fstream>

#include "facade/formatters.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;
using testing::utc;

constexpr std::string_view kSteps = "HKQuantityTypeIdentifierStepCount";
constexpr std::string_view kWalking = "HKQuantityTypeIdentifierDistanceWalkingRunning";
constexpr std::string_view kCycling = "HKQuantityTypeIdentifierDistanceCycling";
constexpr std::string_view kBasal = "HKQuantityTypeIdentifierBasalEnergyBurned";
constexpr std::string_view kActive = "HKQuantityTypeIdentifierActiveEnergyBurned";
constexpr std::string_view kStepsKey = "step-count-samples";

ObjectType type(std::string_view identifier) {
  return ObjectType::quantityType(identifier).value();
}

Statistics sum(std::string_view identifier, Date start, Date end, double value) {
  StatisticsValues values;
  values.sum = value;
  return Statistics(type(identifier), start, end, values, {});
}

Statistics heartRate(std::string_view identifier, Date start, Date end, double average,
                     double minimum, double maximum) {
  StatisticsValues values;
  values.average = average;
  values.minimum = minimum;
  values.maximum = maximum;
  return Statistics(type(identifier), start, end, values, {});
}

Statistics quarter(std::string_view identifier, Date start, double value) {
  return sum(identifier, start, start + minutes(15), value);
}

class StatisticsStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test_ = testing::makeTestPlatform(dir_.path());
    log_ = testing::CapturedLog::install();
  }
  void TearDown() override {
    log_->uninstall();
    installPlatform(nullptr);
  }

  StatisticsStore store(std::optional<Date> startDate = utc(2024, 1, 1)) const {
    return StatisticsStore(test_.platform->defaults, test_.clock, startDate);
  }
  StatisticsValueData entry(std::string_view key, const std::string& intervalKey) const {
    return store().load(key).value().at(intervalKey);
  }

  testing::TempDir dir_;
  testing::TestPlatform test_;
  std::shared_ptr<testing::CapturedLog> log_;
  const Date nine_ = utc(2024, 3, 1, 9);
  const std::string nineKey_ = "2024-03-01T09:00:00.000";
};

TEST_F(StatisticsStoreTest, ASumIsOnlyReplacedByALargerOneAndKeepsItsUploadTime) {
  auto statistics = store();
  const auto stored = test_.clock->now();
  statistics.storeDailyDetailStatistics({quarter(kSteps, nine_, 100)}, type(kSteps));
  test_.clock->advance(seconds(10));
  statistics.storeDailyDetailStatistics({quarter(kSteps, nine_, 90)}, type(kSteps));
  EXPECT_EQ(entry(kStepsKey, nineKey_).value, 100.0);
  EXPECT_EQ(entry(kStepsKey, nineKey_).updatedAt, stored);

  const auto uploaded = test_.clock->now();
  statistics.markUploaded(statistics.dailyDetailSamples(), uploaded);
  test_.clock->advance(seconds(10));
  statistics.storeDailyDetailStatistics({quarter(kSteps, nine_, 120)}, type(kSteps));
  const auto grown = entry(kStepsKey, nineKey_);
  EXPECT_EQ(grown.value, 120.0);
  EXPECT_EQ(grown.updatedAt, test_.clock->now());
  EXPECT_EQ(grown.uploadedAt, uploaded);
  EXPECT_TRUE(statistics.hasNewData(grown));
}

TEST_F(StatisticsStoreTest, ABatchEndsAsTheSameObjectsStoredOneByOne) {
  const std::vector<Statistics> delivered = {
      quarter(kSteps, nine_, 100), quarter(kSteps, nine_ + minutes(15), 7),
      quarter(kSteps, nine_, 90),  quarter(kSteps, nine_, 130),
      quarter(kSteps, nine_, 120), quarter(kSteps, nine_ + minutes(15), 5)};
  auto statistics = store();
  statistics.storeDailyDetailStatistics(delivered, type(kSteps));
  const auto batched = test_.platform->defaults->data(kStepsKey);
  test_.platform->defaults->removeObject(kStepsKey);
  for (const auto& one : delivered) {
    statistics.storeDailyDetailStatistics({one}, type(kSteps));
  }
  EXPECT_EQ(test_.platform->defaults->data(kStepsKey), batched);
  EXPECT_EQ(entry(kStepsKey, nineKey_).value, 130.0);
  EXPECT_EQ(entry(kStepsKey, "2024-03-01T09:15:00.000").value, 7.0);
}

TEST_F(StatisticsStoreTest, NewDataRule) {
  const Date updated = utc(2024, 3, 1, 12);
  struct Case {
    const char* name;
    std::optional<Date> startDate;
    Date entryStart;
    std::optional<Date> uploadedAt;
    bool isNew;
  };
  const Case cases[] = {
      {"never uploaded", utc(2024, 1, 1), nine_, std::nullopt, true},
      {"uploaded at the same time as stored", utc(2024, 1, 1), nine_, updated, true},
      {"uploaded before the last change", utc(2024, 1, 1), nine_, updated - seconds(1), true},
      {"uploaded after the last change", utc(2024, 1, 1), nine_, updated + seconds(1), false},
      {"starts at the start date", nine_, nine_, std::nullopt, true},
      {"starts before the start date", nine_ + seconds(1), nine_, std::nullopt, false},
      {"no start date configured", std::nullopt, nine_, std::nullopt, false},
  };
  for (const auto& c : cases) {
    const StatisticsValueData data{
        c.entryStart, c.entryStart + minutes(15), updated, c.uploadedAt, 1.0, std::nullopt,
        std::nullopt};
    EXPECT_EQ(store(c.startDate).hasNewData(data), c.isNew) << c.name;
  }
}

TEST_F(StatisticsStoreTest, AnUnchangedHeartRateFigureIsNotNewAgain) {
  auto statistics = store();
  const auto figure = heartRate(kHeartRateIdentifier, nine_, nine_ + minutes(15), 70, 60, 80);
  statistics.storeHeartRateStatistics({figure});
  auto samples = statistics.heartRateSamples();
  ASSERT_EQ(samples.size(), 1u);
  EXPECT_TRUE(samples[0].hasNewData);
  // Uploaded at the time it was stored: equal times still count as new.
  statistics.markUploaded(samples, test_.clock->now());
  EXPECT_TRUE(statistics.heartRateSamples().at(0).hasNewData);
  test_.clock->advance(seconds(1));
  statistics.markUploaded(samples, test_.clock->now());

  test_.clock->advance(seconds(10));
  statistics.storeHeartRateStatistics({figure});
  EXPECT_FALSE(statistics.heartRateSamples().at(0).hasNewData);

  // A later sample lowers the minimum: the figure changed and goes again.
  statistics.storeHeartRateStatistics(
      {heartRate(kHeartRateIdentifier, nine_, nine_ + minutes(15), 70, 58, 80)});
  samples = statistics.heartRateSamples();
  EXPECT_TRUE(samples.at(0).hasNewData);
  EXPECT_EQ(samples.at(0).minimum, 58.0);
}

TEST_F(StatisticsStoreTest, DeleteBeforeKeepsTheWholeCutOffDay) {
  auto statistics = store();
  const auto at = [](Date date) {
    return StatisticsValueData{date, date, date, std::nullopt, 1.0, std::nullopt, std::nullopt};
  };
  statistics.save({{"2024-02-29T23:59:59.999", at(utc(2024, 2, 29, 23, 59, 59, 999))},
                   {"2024-03-01T08:00:00.000", at(utc(2024, 3, 1, 8))}},
                  kStepsKey);
  statistics.save(
      {{"2024-02-29", at(utc(2024, 2, 28, 23))}, {"2024-03-01", at(utc(2024, 2, 29, 23))}},
      summaryKey(kSteps));

  // 15:00 Berlin on the cut-off day.
  statistics.deleteBefore(utc(2024, 3, 1, 14));
  const auto keys = [&](std::string_view key) {
    std::vector<std::string> kept;
    const auto loaded = statistics.load(key).value();
    for (const auto& [intervalKey, value] : loaded) {
      kept.push_back(intervalKey);
    }
    return kept;
  };
  EXPECT_EQ(keys(kStepsKey), std::vector<std::string>{"2024-03-01T08:00:00.000"});
  EXPECT_EQ(keys(summaryKey(kSteps)), std::vector<std::string>{"2024-03-01"});
  EXPECT_TRUE(log_->contains("Deleted stored statistics before"));

  statistics.deleteAll();
  for (const auto& key : statisticsKeys()) {
    EXPECT_FALSE(test_.platform->defaults->data(key)) << key;
  }
  EXPECT_TRUE(log_->contains("Deleted all stored statistics"));
}

TEST_F(StatisticsStoreTest, StoredFormMatchesHandWrittenJson) {
  test_.clock->set(utc(2001, 1, 2, 0, 0, 0, 500));
  auto statistics = store(utc(2000, 1, 1));
  statistics.storeHeartRateStatistics(
      {heartRate(kHeartRateIdentifier, utc(2001, 1, 1, 0, 1), utc(2001, 1, 1, 0, 16), 70, 65, 75)});
  std::ifstream in(std::string(KESTROVA_STATISTICS_GOLDEN_DIR) + "/stored_heart_rate_entry.json");
  const auto bytes = test_.platform->defaults->data(kHeartRateSamplesKey).value();
  EXPECT_EQ(nlohmann::json::parse(bytes.begin(), bytes.end()), nlohmann::json::parse(in));
}

TEST_F(StatisticsStoreTest, ACorruptKeyReadsAsAbsentAndIsOverwritten) {
  test_.platform->defaults->setObject(kStepsKey, toBytes(R"({"dates2Value": {"x": 1}})"));
  auto statistics = store();
  EXPECT_FALSE(statistics.load(kStepsKey));
  EXPECT_TRUE(log_->contains("Could not decode object"));
  statistics.storeDailyDetailStatistics({quarter(kSteps, nine_, 3)}, type(kSteps));
  EXPECT_EQ(entry(kStepsKey, nineKey_).value, 3.0);
}

TEST_F(StatisticsStoreTest, DetailRecordsCombineTheStoredSumsOfAnInterval) {
  auto statistics = store();
  const auto later = nine_ + minutes(15);
  statistics.storeDailyDetailStatistics({quarter(kSteps, nine_, 500)}, type(kSteps));
  statistics.storeDailyDetailStatistics(
      {quarter(kWalking, nine_, 400), quarter(kWalking, later, 10)}, type(kWalking));
  statistics.storeDailyDetailStatistics({quarter(kCycling, nine_, 1000)}, type(kCycling));
  statistics.storeDailyDetailStatistics({quarter(kBasal, nine_, 20)}, type(kBasal));
  statistics.storeDailyDetailStatistics({quarter(kActive, nine_, 30.5)}, type(kActive));
  // Heart rate has no detail key: nothing is stored for it.
  statistics.storeDailyDetailStatistics({quarter(kHeartRateIdentifier, nine_, 1)},
                                        type(kHeartRateIdentifier));

  auto samples = statistics.dailyDetailSamples();
  ASSERT_EQ(samples.size(), 2u);
  EXPECT_EQ(samples[0].startDate, nine_);
  EXPECT_EQ(samples[0].endDate, later);
  EXPECT_EQ(samples[0].stepCount, 500.0);
  EXPECT_EQ(samples[0].distance, 1400.0);
  EXPECT_EQ(samples[0].totalEnergyBurned, 50.5);
  EXPECT_EQ(samples[1].stepCount, 0.0);
  EXPECT_EQ(samples[1].distance, 10.0);

  // Marked, the interval is old; one grown figure behind it makes it new again.
  test_.clock->advance(seconds(1));
  statistics.markUploaded(samples, test_.clock->now());
  test_.clock->advance(seconds(1));
  EXPECT_FALSE(statistics.dailyDetailSamples()[0].hasNewData);
  statistics.storeDailyDetailStatistics({quarter(kActive, nine_, 31)}, type(kActive));
  samples = statistics.dailyDetailSamples();
  EXPECT_TRUE(samples[0].hasNewData);
  EXPECT_FALSE(samples[1].hasNewData);
  EXPECT_EQ(samples[0].totalEnergyBurned, 51.0);
}

TEST_F(StatisticsStoreTest, SummariesCombineADaysFiguresAndHeartRates) {
  auto statistics = store();
  // Berlin days: 2024-03-01 runs from 23:00 UTC on the 29th.
  const auto day = utc(2024, 2, 29, 23);
  const auto next = utc(2024, 3, 1, 23);
  statistics.storeDailySummaryStatistics({
      sum(kSteps, day, next, 8000),
      sum(kWalking, day, next, 5000),
      sum(kCycling, day, next, 1000.5),
      sum(kBasal, day, next, 1600),
      sum(kActive, day, next, 400),
      heartRate(kHeartRateIdentifier, day, next, 70, 48, 150),
      heartRate(kRestingHeartRateIdentifier, day, next, 52, 52, 52),
      sum(kSteps, next, next + std::chrono::hours(24), 300),
  });
  auto summaries = statistics.dailySummaries();
  ASSERT_EQ(summaries.size(), 2u);
  const auto& first = summaries[0];
  EXPECT_EQ(first.date, "2024-03-01");
  EXPECT_EQ(first.stepCount, 8000.0);
  EXPECT_EQ(first.distance, 6000.5);
  EXPECT_EQ(first.basalEnergyBurned, 1600.0);
  EXPECT_EQ(first.activeEnergyBurned, 400.0);
  EXPECT_EQ(first.totalEnergyBurned, 2000.0);
  const std::vector<HeartRate> expected = {
      {day, next, body::HeartRate::average, 70},
      {day, next, body::HeartRate::minimum, 48},
      {day, next, body::HeartRate::maximum, 150},
      {day, next, body::HeartRate::resting, 52},
  };
  EXPECT_EQ(first.heartRates, expected);
  EXPECT_EQ(summaries[1].date, "2024-03-02");
  EXPECT_TRUE(summaries[1].heartRates.empty());

  // Once marked, recomputed unchanged heart rates do not make the day new again.
  test_.clock->advance(seconds(1));
  statistics.markUploaded(summaries, test_.clock->now());
  test_.clock->advance(seconds(1));
  statistics.storeDailySummaryStatistics({heartRate(kHeartRateIdentifier, day, next, 70, 48, 150)});
  EXPECT_FALSE(statistics.dailySummaries()[0].hasNewData);
  statistics.storeDailySummaryStatistics({sum(kSteps, next, next + std::chrono::hours(24), 301)});
  summaries = statistics.dailySummaries();
  EXPECT_FALSE(summaries[0].hasNewData);
  EXPECT_TRUE(summaries[1].hasNewData);
}

}  // namespace
}  // namespace kestrova
