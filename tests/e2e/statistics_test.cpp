// The statistics pipeline end to end: the facade over the embedded store and the reference
// server on 127.0.0.1, with a manual clock driving the upload timers. Phone and watch record
// the same minutes, so the figures that arrive must be the store's de-duplicated ones.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <future>
#include <map>
#include <thread>

#include "e2e/library_harness.h"
#include "statistics/data_manager.h"
#include "support/child_process.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

using std::chrono::minutes;
using testing::Outcome;
using testing::quantitySample;
using testing::utc;

constexpr std::string_view kSecret = "e2e-statistics-secret";
constexpr auto kWait = std::chrono::seconds(30);

SourceRevision phone() {
  return SourceRevision{
      Source{"iPhone", "com.apple.health.phone"}, "17.4", "iPhone15,2", {17, 4, 0}};
}
SourceRevision watch() {
  return SourceRevision{Source{"Watch", "com.apple.health.watch"}, "10.4", "Watch6,7", {10, 4, 0}};
}

class StatisticsEndToEndTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server_ = testing::startServer(std::string(kSecret));
    ASSERT_TRUE(server_);
    log_ = testing::CapturedLog::install();
    clock_ = ManualClock::make(utc(2024, 6, 1));
    auto process = testing::startLibrary(dir_.path(), nullptr, clock_);
    ASSERT_TRUE(process.platform);
    store_ = std::move(process.store);
    platform_ = std::move(process.platform);
  }

  void TearDown() override {
    testing::stopLibrary();
    log_->uninstall();
  }

  Outcome configure() const {
    return testing::configureAndWait(
        KestrovaConfig(server_->tokenFor("p1"), server_->baseUrl(), utc(2024, 3, 1)));
  }

  // The store's own de-duplicated step count of [start, end).
  double storeStepSum(Date start, Date end) {
    std::promise<Result<Statistics>> done;
    store_->executeQuery(StatisticsQuery::make(
        ObjectType::quantityType(kStepCountIdentifier).value(),
        predicateForSamples(start, end, QueryOptions::none), StatisticsOptions::cumulativeSum,
        [&](const auto&, Result<Statistics> statistics) {
          done.set_value(std::move(statistics));
        }));
    auto statistics = done.get_future().get();
    return statistics.value().sumQuantity().value().doubleValue(Unit::count()).value();
  }

  // Sums pass through unit conversions and sample proration: equal to within rounding.
  static bool near(const nlohmann::json& value, double expected) {
    return value.is_number() && std::abs(value.get<double>() - expected) < 1e-6;
  }

  using BySchema = std::map<std::string, std::map<std::string, nlohmann::json>>;

  // The server's data points by schema name and id.
  BySchema received() const {
    BySchema bySchema;
    for (const auto& point : server_->dataPoints("p1")) {
      bySchema[point.schemaName][point.id] = point.dataPoint;
    }
    return bySchema;
  }

  // Advances the manual clock past the upload delay until `done` holds for what the server
  // received; each round waits for the statistics queue to finish its work. Figures may
  // arrive in several uploads, as the queries of the types finish one by one.
  BySchema uploadUntil(const std::function<bool(BySchema&)>& done) {
    const auto queue = platform_->dispatcher->sharedSerialQueue(DataManager::kStatisticsQueueLabel,
                                                                QualityOfService::utility);
    const auto deadline = std::chrono::steady_clock::now() + kWait;
    for (;;) {
      queue->sync([] {});
      clock_->advance(DataManager::kUploadDelay);
      queue->sync([] {});
      auto bySchema = received();
      if (done(bySchema) || std::chrono::steady_clock::now() > deadline) {
        return bySchema;
      }
      std::this_thread::yield();
    }
  }

  testing::TempDir dir_;
  std::unique_ptr<server::KestrovaServer> server_;
  std::shared_ptr<testing::CapturedLog> log_;
  std::shared_ptr<EmbeddedHealthStore> store_;
  std::shared_ptr<ManualClock> clock_;
  std::shared_ptr<const Platform> platform_;
};

TEST_F(StatisticsEndToEndTest, HeartRateDetailAndSummaryFiguresArriveDeduplicated) {
  // 2024-03-05 in Berlin (UTC+1): phone and watch count the same ten minutes at 09:00, the
  // watch alone five minutes at 10:00.
  const auto nine = utc(2024, 3, 5, 8);
  const auto ten = utc(2024, 3, 5, 9);
  const auto& p = phone();
  const auto& w = watch();
  ASSERT_TRUE(
      store_
          ->saveObjects({
              quantitySample(kStepCountIdentifier, 1000, "count", nine, nine + minutes(10), p),
              quantitySample(kStepCountIdentifier, 800, "count", nine, nine + minutes(10), w),
              quantitySample(kStepCountIdentifier, 300, "count", ten, ten + minutes(5), w),
              quantitySample("HKQuantityTypeIdentifierDistanceWalkingRunning", 700, "m", nine,
                             nine + minutes(10), w),
              quantitySample("HKQuantityTypeIdentifierDistanceCycling", 2, "km", ten,
                             ten + minutes(5), p),
              quantitySample("HKQuantityTypeIdentifierActiveEnergyBurned", 40, "kcal", nine,
                             nine + minutes(10), w),
              quantitySample("HKQuantityTypeIdentifierBasalEnergyBurned", 15, "kcal", nine,
                             nine + minutes(10), w),
              quantitySample(kHeartRateIdentifier, 80, "count/min", nine + minutes(2),
                             nine + minutes(2), w),
              quantitySample(kHeartRateIdentifier, 100, "count/min", nine + minutes(7),
                             nine + minutes(7), w),
              quantitySample(kHeartRateIdentifier, 90, "count/min", ten + minutes(1),
                             ten + minutes(1), w),
              quantitySample(kRestingHeartRateIdentifier, 55, "count/min", utc(2024, 3, 5, 6),
                             utc(2024, 3, 5, 6), w),
          })
          .ok());
  // Samples before the start date never count.
  ASSERT_TRUE(store_
                  ->saveObjects({quantitySample(kStepCountIdentifier, 5000, "count",
                                                utc(2024, 2, 20, 8), utc(2024, 2, 20, 9), w)})
                  .ok());

  ASSERT_EQ(configure(), Outcome(true, std::nullopt));
  ASSERT_EQ(testing::connectAndWait(), Outcome(true, std::nullopt));

  const auto dayId = "p1---2024-03-05";
  const auto nineId = "p1-ks-daily-detail-2024-03-05T09:00:00.000";
  const auto tenId = "p1-ks-daily-detail-2024-03-05T10:00:00.000";
  const double daySteps = storeStepSum(utc(2024, 3, 4, 23), utc(2024, 3, 5, 23));
  const double nineSteps = storeStepSum(nine, nine + minutes(15));
  // The figures the wait checks are not checked again below.
  auto bySchema = uploadUntil([&](BySchema& got) {
    auto& summaries = got["daily-summary-with-heart-rate"];
    auto& details = got["ks-daily-detail"];
    return got["ks-heart-rate-sample"].size() == 2 && details.size() == 2 &&
           near(details[nineId]["body"]["kcal_burned"]["value"], 55) &&
           near(details[tenId]["body"]["distance"]["value"], 2000) &&
           summaries[dayId]["body"]["heart_rate_data"].size() == 4 &&
           summaries[dayId]["body"]["step_count"] == daySteps &&
           near(summaries[dayId]["body"]["distance"]["value"], 2700) &&
           near(summaries[dayId]["body"]["kcal_burned"]["value"], 55);
  });

  const auto& heartRates = bySchema["ks-heart-rate-sample"];
  ASSERT_EQ(heartRates.size(), 2u);
  const auto& first = heartRates.at("p1-ks-heart-rate-sample-2024-03-05T09:00:00.000")["body"];
  EXPECT_EQ(first["min"], 80.0);
  EXPECT_EQ(first["max"], 100.0);
  EXPECT_EQ(first["avg"], 90.0);

  const auto& details = bySchema["ks-daily-detail"];
  ASSERT_EQ(details.size(), 2u);
  EXPECT_EQ(details.at(nineId)["body"]["step_count"], nineSteps);
  EXPECT_TRUE(near(details.at(nineId)["body"]["distance"]["value"], 700.0))
      << details.at(nineId)["body"]["distance"]["value"];

  // The day's step count is the store's merged sum of the Berlin day, not phone plus watch.
  ASSERT_EQ(bySchema["daily-summary-with-heart-rate"].count(dayId), 1u);
  const auto& day = bySchema["daily-summary-with-heart-rate"][dayId]["body"];
  EXPECT_EQ(day["step_count"], daySteps);
  EXPECT_NE(daySteps, 1000.0 + 800.0 + 300.0);
  EXPECT_NE(nineSteps, 1000.0 + 800.0);
  EXPECT_TRUE(near(day["resting_kcal_burned"]["value"], 15.0))
      << day["resting_kcal_burned"]["value"];
  EXPECT_TRUE(near(day["active_kcal_burned"]["value"], 40.0)) << day["active_kcal_burned"]["value"];
  std::map<std::string, double> figures;
  for (const auto& heartRate : day["heart_rate_data"]) {
    figures[heartRate["descriptive_statistic"]] = heartRate["heart_rate"]["value"];
  }
  EXPECT_EQ(figures,
            (std::map<std::string, double>{
                {"average", 90.0}, {"minimum", 80.0}, {"maximum", 100.0}, {"resting", 55.0}}));
  // Nothing from before the start date.
  for (const auto& point : server_->dataPoints("p1")) {
    EXPECT_EQ(point.id.find("2024-02-"), std::string::npos) << point.id;
  }

  // A later sample reaches its interval and its day through the step count observer.
  ASSERT_TRUE(store_
                  ->saveObjects({quantitySample(kStepCountIdentifier, 50, "count",
                                                ten + minutes(20), ten + minutes(25), w)})
                  .ok());
  const auto later = "p1-ks-daily-detail-2024-03-05T10:15:00.000";
  bySchema = uploadUntil([&](BySchema& got) {
    return got["ks-daily-detail"].count(later) == 1 &&
           got["daily-summary-with-heart-rate"][dayId]["body"]["step_count"] == daySteps + 50;
  });
  EXPECT_EQ(bySchema["ks-daily-detail"].at(later)["body"]["step_count"], 50.0);
  EXPECT_EQ(bySchema["daily-summary-with-heart-rate"][dayId]["body"]["step_count"], daySteps + 50);
}

TEST_F(StatisticsEndToEndTest, AFigureIsSentOnceAndALateSampleRecomputesOnlyFromItsDay) {
  // Three weeks of steps and heart rate, 08:00 to 08:10 UTC each day.
  const auto& w = watch();
  std::vector<SamplePtr> samples;
  std::vector<Uuid> lastDay;
  for (int day = 0; day < 21; ++day) {
    const auto at = utc(2024, 3, 4, 8) + std::chrono::hours(24 * day);
    samples.push_back(
        quantitySample(kStepCountIdentifier, 100 + day, "count", at, at + minutes(10), w));
    samples.push_back(quantitySample(kHeartRateIdentifier, 60 + day, "count/min", at, at, w));
    if (day == 20) {
      lastDay = {samples.end()[-2]->uuid(), samples.end()[-1]->uuid()};
    }
  }
  ASSERT_TRUE(store_->saveObjects(samples).ok());
  ASSERT_EQ(configure(), Outcome(true, std::nullopt));
  ASSERT_EQ(testing::connectAndWait(), Outcome(true, std::nullopt));
  // The manual clock fires the upload timers only when moved: moved only once the first pass
  // is recorded, as a real clock does after the pass's last batch.
  ASSERT_TRUE(testing::eventually([&] { return log_->contains("Statistics pass completed"); },
                                  std::chrono::duration_cast<std::chrono::milliseconds>(kWait)));

  const auto complete = [](BySchema& got) {
    return got["ks-heart-rate-sample"].size() == 21 && got["ks-daily-detail"].size() == 21 &&
           got["daily-summary-with-heart-rate"].size() == 21;
  };
  auto bySchema = uploadUntil(complete);
  ASSERT_TRUE(complete(bySchema));
  // Exactly once: the server keeps one copy per id, its receipts say how often it came.
  std::map<std::string, std::int64_t> receipts;
  for (const auto& point : server_->dataPoints("p1")) {
    receipts[point.id] = point.receipts;
    EXPECT_EQ(point.receipts, 1) << point.id;
  }

  // A sample of a day three weeks back, imported after the sync: that day's interval and day
  // figures go again, nothing else; the pass starts at that day's local midnight.
  const auto late = utc(2024, 3, 5, 12);
  ASSERT_TRUE(store_
                  ->saveObjects({quantitySample(kStepCountIdentifier, 40, "count", late,
                                                late + minutes(5), w)})
                  .ok());
  const auto lateId = "p1-ks-daily-detail-2024-03-05T13:00:00.000";
  const auto dayId = "p1---2024-03-05";
  bySchema = uploadUntil([&](BySchema& got) {
    return got["ks-daily-detail"].count(lateId) == 1 &&
           got["daily-summary-with-heart-rate"][dayId]["body"]["step_count"] == 101.0 + 40;
  });
  ASSERT_EQ(bySchema["ks-daily-detail"].count(lateId), 1u);
  EXPECT_EQ(bySchema["daily-summary-with-heart-rate"][dayId]["body"]["step_count"], 141.0);
  EXPECT_TRUE(
      log_->contains("Statistics of HKQuantityTypeIdentifierStepCount are recomputed from "
                     "2024-03-04T23:00:00.000"));
  for (const auto& point : server_->dataPoints("p1")) {
    const auto expected = point.id == dayId ? 2 : 1;
    EXPECT_EQ(point.receipts, expected) << point.id;
  }

  // A deletion does not say which day it touched: the pass covers the whole range again.
  ASSERT_TRUE(store_->deleteObjects(lastDay).ok());
  const auto deadline = std::chrono::steady_clock::now() + kWait;
  while (!log_->contains("Statistics of HKQuantityTypeIdentifierStepCount are recomputed from "
                         "2024-03-01T00:00:00.000") &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_TRUE(
      log_->contains("Statistics of HKQuantityTypeIdentifierStepCount are recomputed from "
                     "2024-03-01T00:00:00.000"));
}

}  // namespace
}  // namespace kestrova
