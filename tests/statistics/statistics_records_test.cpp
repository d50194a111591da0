// The statistics records as data points, against hand-written JSON, and their stored forms.
#include "statistics/statistics_records.h"

#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "support/test_support.h"

namespace kestrova {
namespace {

using std::chrono::minutes;
using testing::utc;

nlohmann::json golden(const std::string& name) {
  std::ifstream in(std::string(KESTROVA_STATISTICS_GOLDEN_DIR) + "/" + name);
  return nlohmann::json::parse(in);
}

// Data point times are Berlin wall-clock times: 2024-03-01 is winter time (UTC+1), 2024-07-14
// summer time (UTC+2).
class StatisticsRecordsTest : public ::testing::Test {
 protected:
  void SetUp() override { test_ = testing::makeTestPlatform(dir_.path()); }
  void TearDown() override { installPlatform(nullptr); }

  testing::TempDir dir_;
  testing::TestPlatform test_;
};

TEST_F(StatisticsRecordsTest, IntervalRecordsAreIdentifiedAndCreatedByTheirStart) {
  const HeartRateSample heartRate{utc(2024, 3, 1, 9), utc(2024, 3, 1, 9, 15), 72.5, 60, 91, true};
  EXPECT_EQ(encodeHeartRateSample(heartRate, "p1"), golden("heart_rate_sample.json"));

  // Zero steps are still sent, and an interval ending at midnight ends on the next day.
  const DailyDetailSample detail{
      utc(2024, 7, 14, 21, 45), utc(2024, 7, 14, 22), 0, 812.5, 40.25, true};
  EXPECT_EQ(encodeDailyDetailSample(detail, "p1"), golden("daily_detail_zero_steps.json"));
}

TEST_F(StatisticsRecordsTest, TheTwoPassesThroughARepeatedHourHaveTheirOwnIds) {
  // 2024-10-27 in Berlin: 02:00 to 03:00 comes twice, first in summer time (00:00 UTC), then
  // in winter time (01:00 UTC). Both keep the local text without offset.
  std::vector<std::string> ids;
  for (const auto start : {utc(2024, 10, 27, 0), utc(2024, 10, 27, 0, 45), utc(2024, 10, 27, 1),
                           utc(2024, 10, 27, 1, 45), utc(2024, 10, 27, 2)}) {
    const HeartRateSample heartRate{start, start + minutes(15), 70, 60, 80, true};
    ids.push_back(encodeHeartRateSample(heartRate, "p1")["header"]["id"]);
  }
  EXPECT_EQ(ids, (std::vector<std::string>{
                     "p1-ks-heart-rate-sample-2024-10-27T02:00:00.000",
                     "p1-ks-heart-rate-sample-2024-10-27T02:45:00.000",
                     "p1-ks-heart-rate-sample-2024-10-27T02:00:00.000-repeated",
                     "p1-ks-heart-rate-sample-2024-10-27T02:45:00.000-repeated",
                     "p1-ks-heart-rate-sample-2024-10-27T03:00:00.000",
                 }));
}

TEST_F(StatisticsRecordsTest, SummarySchemaDependsOnHeartRatesAndCreationOnTheClock) {
  DailySummary day;
  day.date = "2024-03-01";
  day.distance = 6100.5;
  day.stepCount = 8042;
  day.basalEnergyBurned = 1650;
  day.activeEnergyBurned = 500;
  day.totalEnergyBurned = 2150;
  day.hasNewData = true;
  const auto encodedAt = utc(2024, 3, 2, 6, 30);
  EXPECT_EQ(encodeDailySummary(day, "p1", encodedAt), golden("daily_summary.json"));

  day.heartRates = {
      HeartRate{utc(2024, 2, 29, 23), utc(2024, 3, 1, 23), body::HeartRate::average, 68},
      HeartRate{utc(2024, 3, 1, 5, 10), std::nullopt, std::nullopt, 55}};
  EXPECT_EQ(encodeDailySummary(day, "p1", encodedAt), golden("daily_summary_with_heart_rate.json"));
}

}  // namespace
}  // namespace kestrova
