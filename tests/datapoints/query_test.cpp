// The families that query the store, against a real store: per-workout heart rates and steps,
// the stages of each sleep episode, electrocardiogram voltages; every query reported finished,
// one completion per delivery, and failed queries leave their sample out.
#include <gtest/gtest.h>

#include <atomic>

#include "datapoints/datapoint_test_support.h"
#include "datapoints/electrocardiogram.h"
#include "datapoints/query_runner.h"
#include "datapoints/sleep.h"
#include "datapoints/workout.h"
#include "healthstore/store_fixture.h"

namespace kestrova::testing {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;

constexpr std::string_view kHeartRate = "HKQuantityTypeIdentifierHeartRate";
constexpr std::string_view kSteps = "HKQuantityTypeIdentifierStepCount";
constexpr std::string_view kSleep = "HKCategoryTypeIdentifierSleepAnalysis";
const std::string kWatch = "com.apple.health.watch";
const std::string kPhone = "com.apple.health.phone";

// A runner that executes on the fixture's store and counts finished queries.
class DataPointQueries : public StoreFixture {
 protected:
  QueryRunner runner() {
    std::weak_ptr<EmbeddedHealthStore> store = store_;
    return QueryRunner{[store, this](std::shared_ptr<Query> query) {
                         ++executed_;
                         if (auto strong = store.lock()) {
                           strong->executeQuery(std::move(query));
                         }
                       },
                       [this](const std::shared_ptr<Query>&) { ++finished_; }};
  }

  // Starts the collection with a completion that fulfils a promise, and waits for it. None when
  // no completion came in time; a second completion fails the test.
  template <class Start>
  std::optional<std::vector<nlohmann::json>> collect(Start start) {
    auto promise = std::make_shared<std::promise<std::vector<nlohmann::json>>>();
    auto calls = std::make_shared<std::atomic<int>>(0);
    start(runner(), queue_, [promise, calls, queue = queue_](std::vector<nlohmann::json> points) {
      EXPECT_TRUE(queue->isCurrent());
      if (calls->fetch_add(1) == 0) {
        promise->set_value(std::move(points));
      } else {
        ADD_FAILURE() << "completion called more than once";
      }
    });
    auto future = promise->get_future();
    if (future.wait_for(kWait) != std::future_status::ready) {
      return std::nullopt;
    }
    return future.get();
  }

  std::shared_ptr<DispatchQueue> queue_ =
      dispatcher_->makeSerialQueue("test.datapoints.completion", QualityOfService::standard);
  std::atomic<int> executed_{0};
  std::atomic<int> finished_{0};
};

TEST_F(DataPointQueries, EachWorkoutGetsItsOwnHeartRatesAndSteps) {
  // Berlin is UTC+2 in May.
  const Date start = utc(2021, 5, 10, 17);
  const Date end = utc(2021, 5, 10, 17, 30);
  const auto at = [&](int id, std::string_view type, double value, Date from, Date to) {
    return quantity(type, value, type == kSteps ? "count" : "count/min",
                    properties(id, from, to, {}, kWatch));
  };
  save({
      // Starts before the workout and ends inside it: it overlaps, so it counts. Its value is
      // the mean of the others, so however the store weighs it the average stays 120.
      at(60, kHeartRate, 120, start - seconds(30), start + seconds(30)),
      at(61, kHeartRate, 100, start + minutes(1), start + minutes(2)),
      at(62, kHeartRate, 140, start + minutes(2), start + minutes(3)),
      // After the workout: not part of it.
      at(63, kHeartRate, 190, end + minutes(5), end + minutes(6)),
      at(64, kSteps, 3000, start + minutes(1), start + minutes(10)),
      at(65, kSteps, 3500, start + minutes(10), start + minutes(20)),
      at(66, kSteps, 1000, end + minutes(1), end + minutes(9)),
  });
  const SamplePtr withDetails =
      Workout::make(Workout::Details{37, 1800, amount(300, "kcal"), amount(5, "km")},
                    properties(50, start, end, {{"HKIndoorWorkout", false}}, kWatch))
          .value();
  const SamplePtr without =
      Workout::make(Workout::Details{57, 1200, std::nullopt, std::nullopt},
                    properties(51, utc(2021, 5, 11, 6), utc(2021, 5, 11, 6, 20), {}, kWatch))
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

// One night with two overlapping episodes.
class SleepQueries : public DataPointQueries {
 protected:
  void SetUp() override {
    DataPointQueries::SetUp();
    const auto sample = [](int id, int value, int day, int hour, int minute, int endDay,
                           int endHour, int endMinute, const std::string& source) {
      return category(kSleep, value,
                      properties(id, utc(2021, 1, day, hour, minute),
                                 utc(2021, 1, endDay, endHour, endMinute), {}, source));
    };
    delivery_ = {
        sample(70, kSleepInBed, 9, 21, 0, 10, 5, 0, kWatch),
        sample(71, kSleepAwake, 9, 21, 30, 9, 21, 45, kWatch),
        sample(72, kSleepAsleepCore, 9, 21, 45, 9, 23, 45, kWatch),
        sample(73, kSleepAsleepDeep, 9, 23, 45, 10, 0, 45, kWatch),
        sample(74, kSleepAsleepDeep, 10, 0, 15, 10, 0, 45, kPhone),
        sample(75, kSleepAsleepREM, 10, 0, 45, 10, 1, 45, kWatch),
        sample(76, kSleepAsleepCore, 10, 1, 45, 10, 4, 30, kWatch),
        sample(77, kSleepAsleepUnspecified, 10, 4, 30, 10, 4, 40, kWatch),
        sample(78, kSleepAsleepCore, 10, 4, 40, 10, 5, 20, kWatch),
        // A second, shorter episode recorded by the phone inside the first.
        sample(82, kSleepInBed, 10, 0, 0, 10, 2, 0, kPhone),
        // Starts before the first episode: belongs to neither.
        sample(79, kSleepAwake, 9, 20, 50, 9, 21, 5, kWatch),
        // Another night.
        sample(80, kSleepAsleepCore, 11, 0, 0, 11, 1, 0, kWatch),
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

TEST_F(SleepQueries, StagesPerEpisodeWithLightForCoreAndEachDetailOnce) {
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

TEST_F(SleepQueries, OlderSystemSendsUnknownSleepOnlyUnderTheOmhSchema) {
  const auto points = collectFor(SystemVersion{15, 7});
  ASSERT_TRUE(points) << "no completion";
  EXPECT_EQ(nlohmann::json(*points), golden("sleep_night_older_system.json"));
}

std::shared_ptr<const Electrocardiogram> recording(int id, Date start, Date end,
                                                   std::optional<Quantity> frequency, int count) {
  Electrocardiogram::Details details;
  details.samplingFrequency = std::move(frequency);
  details.numberOfVoltageMeasurements = count;
  details.classification = Electrocardiogram::Classification::sinusRhythm;
  return Electrocardiogram::make(details, properties(id, start, end, {}, kWatch)).value();
}

TEST_F(DataPointQueries, ElectrocardiogramLeadIInVoltsWithAndWithoutSamplingFrequency) {
  // Berlin is UTC+2 in April.
  const auto withFrequency =
      recording(90, utc(2021, 4, 1, 12), utc(2021, 4, 1, 12, 0, 30), amount(4, "Hz"), 5);
  const auto without =
      recording(91, utc(2021, 4, 2, 7, 15), utc(2021, 4, 2, 7, 15, 1, 500), std::nullopt, 3);
  ASSERT_TRUE(
      store_->saveElectrocardiogram(withFrequency, {0.0001, -0.00025, 0.0012, 0.0005, 0}).ok());
  ASSERT_TRUE(store_->saveElectrocardiogram(without, {0.00042, -0.0003, 0.0011}).ok());

  const auto points = collect([&](QueryRunner runner, auto queue, auto completion) {
    collectElectrocardiograms({withFrequency, without}, runner, queue, std::move(completion));
  });
  ASSERT_TRUE(points) << "no completion";
  EXPECT_EQ(nlohmann::json(*points), golden("ecg_recordings.json"));
  EXPECT_EQ(finished_.load(), 2);
}

TEST_F(DataPointQueries, FailedElectrocardiogramIsLeftOutAndLoggedAndExtraAnswersIgnored) {
  const auto log = CapturedLog::install();
  const auto failing =
      recording(93, utc(2021, 4, 3), utc(2021, 4, 3, 0, 0, 30), amount(2, "Hz"), 2);
  const auto fine = recording(94, utc(2021, 4, 4), utc(2021, 4, 4, 0, 0, 30), amount(2, "Hz"), 2);
  // Answers every voltage query at once, on the calling thread, with a fixed script.
  const std::map<Uuid, std::vector<ElectrocardiogramQueryResult>> scripts = {
      {failing->uuid(),
       {VoltageMeasurement{0, 0.001},
        Error{"HealthStore", kHealthErrorDatabaseInaccessible, "locked"},
        // Nothing should follow an error; a store that sends more must not revive it.
        ElectrocardiogramQueryDone{}}},
      {fine->uuid(),
       {VoltageMeasurement{0, 0.001}, VoltageMeasurement{0.5, 0.002}, ElectrocardiogramQueryDone{},
        ElectrocardiogramQueryDone{}}}};
  const auto points = collect([&](QueryRunner runner, auto queue, auto completion) {
    runner.execute = [&scripts](std::shared_ptr<Query> query) {
      auto voltage = std::static_pointer_cast<ElectrocardiogramQuery>(query);
      for (const ElectrocardiogramQueryResult& result :
           scripts.at(voltage->electrocardiogram()->uuid())) {
        voltage->dataHandler()(voltage, result);
      }
    };
    collectElectrocardiograms({failing, fine}, runner, queue, std::move(completion));
  });
  ASSERT_TRUE(points) << "no completion";
  ASSERT_EQ(points->size(), 1u);
  EXPECT_EQ((*points)[0]["header"]["id"], "00000000-0000-4000-8000-000000000094");
  EXPECT_EQ((*points)[0]["body"]["data"], nlohmann::json::parse(R"([{"time": 0, "value": 0.001},
                                                                   {"time": 0.5, "value": 0.002}])"));
  EXPECT_EQ(finished_.load(), 2);
  const auto lines = log->matching("Error querying ECG sample: HealthStore 6: locked");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, LogLevel::error);
  log->uninstall();
}

}  // namespace
}  // namespace kestrova::testing
