// The statistics store on the real SQLite defaults store with a manual clock: the larger-sum
// and equal-figure rules, the new-data rule, marking, paging, pruning, the assembled records,
// the rows as they lie on disk and the move from the former one-map-per-key layout.
#include "statistics/statistics_store.h"

#include <gtest/gtest.h>

#include <fstream>
#include <limits>

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
    return store().entry(key, intervalKey).value();
  }
  std::vector<HeartRateSample> newHeartRates(const StatisticsStore& statistics) const {
    return statistics.newHeartRateSamples("", 100).records;
  }
  std::vector<DailyDetailSample> newDetails(const StatisticsStore& statistics) const {
    return statistics.newDailyDetailSamples("", 100).records;
  }
  std::vector<DailySummary> newSummaries(const StatisticsStore& statistics) const {
    return statistics.newDailySummaries("", 100).records;
  }
  nlohmann::json row(std::string_view key) const {
    const auto bytes = test_.platform->defaults->data(key).value();
    return nlohmann::json::parse(bytes.begin(), bytes.end());
  }
  nlohmann::json golden() const {
    std::ifstream in(std::string(KESTROVA_STATISTICS_GOLDEN_DIR) + "/stored_heart_rate_entry.json");
    return nlohmann::json::parse(in);
  }

  testing::TempDir dir_;
  testing::TestPlatform test_;
  std::shared_ptr<testing::CapturedLog> log_;
  const Date nine_ = utc(2024, 3, 1, 9);
  const std::string nineKey_ = "2024-03-01T09:00:00.000";
};

TEST_F(StatisticsStoreTest, ASumIsOnlyReplacedByALargerOneInABatchAndLater) {
  auto statistics = store();
  const auto stored = test_.clock->now();
  statistics.storeDailyDetailStatistics(
      {quarter(kSteps, nine_, 100), quarter(kSteps, nine_ + minutes(15), 7),
       quarter(kSteps, nine_, 90), quarter(kSteps, nine_, 130), quarter(kSteps, nine_, 120),
       quarter(kSteps, nine_ + minutes(15), 5)},
      type(kSteps));
  EXPECT_EQ(entry(kStepsKey, nineKey_).value, 130.0);
  EXPECT_EQ(entry(kStepsKey, "2024-03-01T09:15:00.000").value, 7.0);

  // A smaller sum later keeps the figure and its change time; a larger one keeps the upload
  // time and is new.
  test_.clock->advance(seconds(10));
  const auto uploaded = test_.clock->now();
  statistics.markUploaded(newDetails(statistics), uploaded);
  test_.clock->advance(seconds(10));
  statistics.storeDailyDetailStatistics({quarter(kSteps, nine_, 120)}, type(kSteps));
  EXPECT_EQ(entry(kStepsKey, nineKey_).updatedAt, stored);
  EXPECT_TRUE(newDetails(statistics).empty());
  statistics.storeDailyDetailStatistics({quarter(kSteps, nine_, 140)}, type(kSteps));
  const auto grown = entry(kStepsKey, nineKey_);
  EXPECT_EQ(grown.value, 140.0);
  EXPECT_EQ(grown.updatedAt, test_.clock->now());
  EXPECT_EQ(grown.uploadedAt, uploaded);
  EXPECT_EQ(newDetails(statistics).size(), 1u);
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
  // The reads apply the start date too, although the figure waits in the new-data index.
  auto statistics = store(nine_ + minutes(15));
  statistics.storeHeartRateStatistics(
      {heartRate(kHeartRateIdentifier, nine_, nine_ + minutes(15), 70, 60, 80),
       heartRate(kHeartRateIdentifier, nine_ + minutes(15), nine_ + minutes(30), 71, 60, 80)});
  const auto samples = newHeartRates(statistics);
  ASSERT_EQ(samples.size(), 1u);
  EXPECT_EQ(samples[0].average, 71.0);
}

TEST_F(StatisticsStoreTest, PagesGoOnAfterTheirLastInterval) {
  auto statistics = store();
  std::vector<Statistics> quarters;
  for (int i = 0; i < 5; ++i) {
    quarters.push_back(quarter(kSteps, nine_ + minutes(15 * i), 10 + i));
  }
  statistics.storeDailyDetailStatistics(quarters, type(kSteps));
  // Two keys behind one interval still make one record of the page.
  statistics.storeDailyDetailStatistics({quarter(kWalking, nine_, 3)}, type(kWalking));

  std::vector<double> steps;
  std::string after;
  int pages = 0;
  for (bool complete = false; !complete; ++pages) {
    const auto page = statistics.newDailyDetailSamples(after, 2);
    for (const auto& record : page.records) {
      steps.push_back(record.stepCount);
    }
    after = page.last;
    complete = page.complete;
  }
  EXPECT_EQ(steps, (std::vector<double>{10, 11, 12, 13, 14}));
  EXPECT_EQ(pages, 3);
}

TEST_F(StatisticsStoreTest, DeleteBeforeKeepsTheWholeCutOffDayAndDeleteAllLeavesNoRow) {
  auto statistics = store(utc(2024, 2, 1));
  statistics.storeDailyDetailStatistics(
      {quarter(kSteps, utc(2024, 2, 29, 23, 45), 1), quarter(kSteps, utc(2024, 3, 1, 8), 2)},
      type(kSteps));
  statistics.storeDailySummaryStatistics(
      {sum(kSteps, utc(2024, 2, 28, 23), utc(2024, 2, 29, 23), 3),
       sum(kSteps, utc(2024, 2, 29, 23), utc(2024, 3, 1, 23), 4)});
  statistics.storeHeartRateStatistics(
      {heartRate(kHeartRateIdentifier, utc(2024, 2, 29, 23, 45), utc(2024, 3, 1), 70, 60, 80)});

  // 15:00 Berlin on the cut-off day.
  statistics.deleteBefore(utc(2024, 3, 1, 14));
  const auto& defaults = *test_.platform->defaults;
  EXPECT_EQ(defaults.keys("step-count-samples/"),
            std::vector<std::string>{"step-count-samples/2024-03-01T08:00:00.000"});
  EXPECT_EQ(defaults.keys("summary-HKQuantityTypeIdentifierStepCount/"),
            std::vector<std::string>{"summary-HKQuantityTypeIdentifierStepCount/2024-03-01"});
  EXPECT_TRUE(defaults.keys("heart-rate-samples/").empty());
  EXPECT_EQ(
      defaults.keys("statistics-new/"),
      (std::vector<std::string>{
          "statistics-new/daily-detail/2024-03-01T08:00:00.000/step-count-samples",
          "statistics-new/daily-summary/2024-03-01/summary-HKQuantityTypeIdentifierStepCount"}));
  EXPECT_TRUE(log_->contains("Deleted stored statistics before"));

  // Delete-all takes rows of every kind and a map of the former layout.
  statistics.storeHeartRateStatistics(
      {heartRate(kHeartRateIdentifier, nine_, nine_ + minutes(15), 70, 60, 80)});
  statistics.storeDailySummaryStatistics(
      {heartRate(kHeartRateIdentifier, utc(2024, 2, 29, 23), utc(2024, 3, 1, 23), 70, 60, 80)});
  test_.platform->defaults->setObject("distance-cycling-samples", toBytes("{}"));
  EXPECT_EQ(defaults.keys(),
            (std::vector<std::string>{
                "distance-cycling-samples",
                "heart-rate-samples/2024-03-01T09:00:00.000",
                "statistics-new/daily-detail/2024-03-01T08:00:00.000/step-count-samples",
                "statistics-new/daily-summary/2024-03-01/summary-HKQuantityTypeIdentifierHeartRate",
                "statistics-new/daily-summary/2024-03-01/summary-HKQuantityTypeIdentifierStepCount",
                "statistics-new/heart-rate/2024-03-01T09:00:00.000/heart-rate-samples",
                "step-count-samples/2024-03-01T08:00:00.000",
                "summary-HKQuantityTypeIdentifierHeartRate/2024-03-01",
                "summary-HKQuantityTypeIdentifierStepCount/2024-03-01",
            }));
  statistics.deleteAll();
  EXPECT_EQ(defaults.keys(), std::vector<std::string>{});
  EXPECT_TRUE(log_->contains("Deleted all stored statistics"));
}

TEST_F(StatisticsStoreTest, AnEntryLiesOnDiskInTheFormerMapsEntryForm) {
  test_.clock->set(utc(2001, 1, 2, 0, 0, 0, 500));
  auto statistics = store(utc(2000, 1, 1));
  statistics.storeHeartRateStatistics(
      {heartRate(kHeartRateIdentifier, utc(2001, 1, 1, 0, 1), utc(2001, 1, 1, 0, 16), 70, 65, 75)});
  EXPECT_EQ(row("heart-rate-samples/2001-01-01T00:01:00.000"),
            golden()["dates2Value"]["2001-01-01T00:01:00.000"]);
}

TEST_F(StatisticsStoreTest, FormerMapsMoveIntoRowsWithTheirUploadState) {
  auto& defaults = *test_.platform->defaults;
  // The golden map's entry was never uploaded; a second one was uploaded after its change.
  auto map = golden();
  auto uploaded = map["dates2Value"]["2001-01-01T00:01:00.000"];
  uploaded["uploadedAt"] = 90000;
  uploaded["heartRateSample"]["average"] = 71;
  map["dates2Value"]["2001-01-01T00:16:00.000"] = uploaded;
  defaults.setObject("heart-rate-samples", toBytes(map.dump()));
  defaults.setObject("step-count-samples", toBytes(R"({"dates2Value": {"x": 1}})"));

  auto statistics = store(utc(2000, 1, 1));
  statistics.migrate();
  EXPECT_FALSE(defaults.object("heart-rate-samples"));
  EXPECT_FALSE(defaults.object("step-count-samples"));
  EXPECT_EQ(row("heart-rate-samples/2001-01-01T00:01:00.000"),
            golden()["dates2Value"]["2001-01-01T00:01:00.000"]);
  EXPECT_EQ(row("heart-rate-samples/2001-01-01T00:16:00.000"), uploaded);
  const auto samples = newHeartRates(statistics);
  ASSERT_EQ(samples.size(), 1u);
  EXPECT_EQ(samples[0].average, 70.0);
}

TEST_F(StatisticsStoreTest, ACorruptRowReadsAsAbsentAndIsOverwritten) {
  test_.platform->defaults->setObject("step-count-samples/" + nineKey_, toBytes(R"({"value": 1})"));
  auto statistics = store();
  EXPECT_FALSE(statistics.entry(kStepsKey, nineKey_));
  EXPECT_TRUE(log_->contains("Could not decode object"));
  statistics.storeDailyDetailStatistics({quarter(kSteps, nine_, 3)}, type(kSteps));
  EXPECT_EQ(entry(kStepsKey, nineKey_).value, 3.0);
}

TEST_F(StatisticsStoreTest, FiguresThatAreNotFiniteAreRefusedAndTheKeyStillUploads) {
  auto statistics = store();
  const auto nan = std::numeric_limits<double>::quiet_NaN();
  const auto infinity = std::numeric_limits<double>::infinity();
  statistics.storeDailyDetailStatistics(
      {quarter(kSteps, nine_, nan), quarter(kSteps, nine_ + minutes(15), 4)}, type(kSteps));
  statistics.storeHeartRateStatistics(
      {heartRate(kHeartRateIdentifier, nine_, nine_ + minutes(15), 70, 60, infinity)});
  statistics.storeDailySummaryStatistics(
      {heartRate(kHeartRateIdentifier, utc(2024, 2, 29, 23), utc(2024, 3, 1, 23), nan, 60, 80)});
  EXPECT_TRUE(log_->contains("is not a finite number"));
  EXPECT_FALSE(statistics.entry(kStepsKey, nineKey_));
  EXPECT_TRUE(newHeartRates(statistics).empty());
  const auto details = newDetails(statistics);
  ASSERT_EQ(details.size(), 1u);
  EXPECT_EQ(details[0].stepCount, 4.0);
  // The day keeps its finite figures only.
  const auto summaries = newSummaries(statistics);
  ASSERT_EQ(summaries.size(), 1u);
  EXPECT_EQ(summaries[0].heartRates.size(), 2u);
}

// How the figures of an interval or a day add up is checked end to end against the store's
// own sums; here, what goes again once one figure behind a record changes.
TEST_F(StatisticsStoreTest, AMarkedIntervalGoesAgainWithAllItsFiguresWhenOneGrows) {
  auto statistics = store();
  statistics.storeDailyDetailStatistics({quarter(kSteps, nine_, 500)}, type(kSteps));
  statistics.storeDailyDetailStatistics({quarter(kWalking, nine_, 400)}, type(kWalking));
  statistics.storeDailyDetailStatistics({quarter(kCycling, nine_, 1000)}, type(kCycling));
  statistics.storeDailyDetailStatistics({quarter(kBasal, nine_, 20)}, type(kBasal));
  statistics.storeDailyDetailStatistics({quarter(kActive, nine_, 30.5)}, type(kActive));
  // Heart rate has no detail key: nothing is stored for it.
  statistics.storeDailyDetailStatistics({quarter(kHeartRateIdentifier, nine_, 1)},
                                        type(kHeartRateIdentifier));
  EXPECT_TRUE(test_.platform->defaults->keys("heart-rate-samples").empty());
  test_.clock->advance(seconds(1));
  statistics.markUploaded(newDetails(statistics), test_.clock->now());
  test_.clock->advance(seconds(1));
  EXPECT_TRUE(newDetails(statistics).empty());

  statistics.storeDailyDetailStatistics({quarter(kActive, nine_, 31)}, type(kActive));
  const auto samples = newDetails(statistics);
  ASSERT_EQ(samples.size(), 1u);
  EXPECT_EQ(samples[0].startDate, nine_);
  EXPECT_EQ(samples[0].stepCount, 500.0);
  EXPECT_EQ(samples[0].distance, 1400.0);
  EXPECT_EQ(samples[0].totalEnergyBurned, 51.0);
}

}  // namespace
}  // namespace kestrova
