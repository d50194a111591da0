// Sleep stage names by system version and the stage sums of one episode.
#include "datapoints/sleep.h"

#include <gtest/gtest.h>

#include "datapoints/datapoint_test_support.h"

namespace kestrova::testing {
namespace {

using std::chrono::minutes;

constexpr std::string_view kSleep = "HKCategoryTypeIdentifierSleepAnalysis";
constexpr SystemVersion kStages{16, 0};
constexpr SystemVersion kOlder{15, 7};

TEST(SleepStageNames, ByValueAndSystemVersion) {
  struct Row {
    int value;
    std::optional<std::string_view> newer;
    std::optional<std::string_view> older;
  };
  const std::vector<Row> rows = {{0, std::nullopt, std::nullopt}, {1, "unknown", "unknown"},
                                 {2, "awake", "awake"},           {3, "light", std::nullopt},
                                 {4, "deep", std::nullopt},       {5, "rem", std::nullopt},
                                 {6, std::nullopt, std::nullopt}, {-1, std::nullopt, std::nullopt}};
  for (const Row& row : rows) {
    EXPECT_EQ(sleepStageName(row.value, kStages), row.newer) << row.value;
    EXPECT_EQ(sleepStageName(row.value, SystemVersion{17, 2}), row.newer) << row.value;
    EXPECT_EQ(sleepStageName(row.value, kOlder), row.older) << row.value;
  }
}

class SleepSums : public ::testing::Test {
 protected:
  SamplePtr stage(int id, int value, Date start, Date end) {
    return category(kSleep, value, properties(id, start, end));
  }
  const Date night_ = utc(2021, 1, 9, 22);
  const std::shared_ptr<const CategorySample> episode_ =
      category(kSleep, kSleepInBed, properties(1, night_, night_ + std::chrono::hours(8)));
};

TEST_F(SleepSums, OverlapsCountOnceAndSpillsAreClipped) {
  const auto sums =
      sumSleepStages(*episode_,
                     {stage(2, kSleepAsleepDeep, night_ + minutes(60), night_ + minutes(120)),
                      // A second source's deep sleep inside the first: no extra time.
                      stage(3, kSleepAsleepDeep, night_ + minutes(90), night_ + minutes(100)),
                      // Runs 30 minutes past the episode's end.
                      stage(4, kSleepAsleepCore, night_ + minutes(450), night_ + minutes(510)),
                      // Awake time is not sleep.
                      stage(5, kSleepAwake, night_ + minutes(120), night_ + minutes(130)),
                      // The episode itself, if a query ever returned it, adds nothing.
                      stage(6, kSleepInBed, night_, night_ + minutes(480))},
                     kStages);
  EXPECT_EQ(sums.deep, 3600);
  EXPECT_EQ(sums.light, 1800);
  EXPECT_EQ(sums.awake, 600);
  EXPECT_EQ(sums.rem, 0);
  EXPECT_EQ(sums.totalSleepTime, 5400);
}

TEST_F(SleepSums, OlderSystemsCountOnlyTheStagesTheyName) {
  const auto sums =
      sumSleepStages(*episode_,
                     {stage(2, kSleepAsleepCore, night_, night_ + minutes(60)),
                      stage(3, kSleepAsleepUnspecified, night_ + minutes(60), night_ + minutes(90)),
                      stage(4, kSleepAwake, night_ + minutes(90), night_ + minutes(95))},
                     kOlder);
  EXPECT_EQ(sums.light, 0);
  EXPECT_EQ(sums.awake, 300);
  EXPECT_EQ(sums.totalSleepTime, 1800);
}

TEST_F(SleepSums, OnlyAwakeTimeStillSelectsTheStagesSchema) {
  const nlohmann::json point = encodeSleepEpisode(*episode_, SleepStageSums{60, 0, 0, 0, 0});
  EXPECT_EQ(point["header"]["schema_id"]["name"], "sleep-episode-with-sleep-stages");
  EXPECT_EQ(point["body"]["total_sleep_time"], nlohmann::json::parse(R"({"value": 0,
                                                                        "unit": "sec"})"));
  EXPECT_EQ(point["body"]["sleep_stages_data"]["sleep_awake"]["value"], 60);
}

TEST_F(SleepSums, InBedNeverGivesADetailPoint) {
  EXPECT_FALSE(encodeSleepDetail(*episode_, kStages));
  EXPECT_FALSE(encodeSleepDetail(*episode_, kOlder));
}

}  // namespace
}  // namespace kestrova::testing
