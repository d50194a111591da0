// One night with two overlapping episodes against a real store, on a current and an older
// system.
#include <gtest/gtest.h>

#include "datapoints/sleep.h"
#include "datapoints/store_support.h"

namespace kestrova::testing {
namespace {

constexpr std::string_view kSleep = "HKCategoryTypeIdentifierSleepAnalysis";
const std::string kWatch = "com.apple.health.watch";
const std::string kPhone = "com.apple.health.phone";

class SleepQueryTest : public StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    const auto at = [](int day, int hour, int minute) { return utc(2021, 1, day, hour, minute); };
    const auto sample = [](int id, int value, Date start, Date end, const std::string& source) {
      return category(kSleep, value, properties(id, start, end, {}, source));
    };
    delivery_ = {
        sample(70, kSleepInBed, at(9, 21, 0), at(10, 5, 0), kWatch),
        sample(71, kSleepAwake, at(9, 21, 30), at(9, 21, 45), kWatch),
        sample(72, kSleepAsleepCore, at(9, 21, 45), at(9, 23, 45), kWatch),
        sample(73, kSleepAsleepDeep, at(9, 23, 45), at(10, 0, 45), kWatch),
        sample(74, kSleepAsleepDeep, at(10, 0, 15), at(10, 0, 45), kPhone),
        sample(75, kSleepAsleepREM, at(10, 0, 45), at(10, 1, 45), kWatch),
        sample(76, kSleepAsleepCore, at(10, 1, 45), at(10, 4, 30), kWatch),
        sample(77, kSleepAsleepUnspecified, at(10, 4, 30), at(10, 4, 40), kWatch),
        sample(78, kSleepAsleepCore, at(10, 4, 40), at(10, 5, 20), kWatch),
        // A second, shorter episode recorded by the phone inside the first.
        sample(82, kSleepInBed, at(10, 0, 0), at(10, 2, 0), kPhone),
        // Starts before the first episode: belongs to neither.
        sample(79, kSleepAwake, at(9, 20, 50), at(9, 21, 5), kWatch),
        // Another night.
        sample(80, kSleepAsleepCore, at(11, 0, 0), at(11, 1, 0), kWatch),
    };
    save(delivery_);
  }

  // `failFirst`: the first stage query answers with an error instead of running.
  std::optional<std::vector<nlohmann::json>> collectFor(SystemVersion system,
                                                        bool failFirst = false) {
    return collect([&](QueryRunner runner, auto queue, auto completion) {
      if (failFirst) {
        runner.execute = [execute = runner.execute,
                          failed = std::make_shared<bool>(false)](std::shared_ptr<Query> query) {
          if (std::exchange(*failed, true)) {
            execute(std::move(query));
            return;
          }
          auto stages = std::static_pointer_cast<SampleQuery>(query);
          stages->resultsHandler()(stages, healthError(1, "the store is busy"));
        };
      }
      collectSleepEpisodes(delivery_, system, runner, queue,
                           [this, completion](std::vector<nlohmann::json> points, bool all) {
                             allEpisodes_ = all;
                             completion(std::move(points));
                           });
    });
  }

  std::vector<SamplePtr> delivery_;
  std::optional<bool> allEpisodes_;
};

TEST_F(SleepQueryTest, StagesPerEpisodeWithLightForCoreAndEachDetailOnce) {
  const auto points = collectFor(SystemVersion{16, 0});
  ASSERT_TRUE(points) << "no completion";
  EXPECT_EQ(nlohmann::json(*points), golden("sleep_night.json"));
  EXPECT_EQ(executed_.load(), 2);
  EXPECT_EQ(finished_.load(), 2);
  EXPECT_EQ(allEpisodes_, true);

  // A failed stage query leaves its episode out and says so, so that the delivery's anchor
  // is kept back and the episode fetched again.
  const auto partial = collectFor(SystemVersion{16, 0}, true);
  ASSERT_TRUE(partial) << "no completion";
  EXPECT_EQ(allEpisodes_, false);
  EXPECT_LT(partial->size(), points->size());
}

TEST_F(SleepQueryTest, OlderSystemSendsUnknownSleepOnlyUnderTheOmhSchema) {
  const auto points = collectFor(SystemVersion{15, 7});
  ASSERT_TRUE(points) << "no completion";
  EXPECT_EQ(nlohmann::json(*points), golden("sleep_night_older_system.json"));
}

TEST_F(SleepQueryTest, DeliveryWithoutEpisodesCompletesWithNothing) {
  const std::vector<SamplePtr> stagesOnly(delivery_.begin() + 1, delivery_.begin() + 9);
  const auto points = collect([&](QueryRunner runner, auto queue, auto completion) {
    collectSleepEpisodes(
        stagesOnly, SystemVersion{}, runner, queue,
        [completion](std::vector<nlohmann::json> points, bool) { completion(std::move(points)); });
  });
  ASSERT_TRUE(points);
  EXPECT_TRUE(points->empty());
  EXPECT_EQ(executed_.load(), 0);
}

}  // namespace
}  // namespace kestrova::testing
