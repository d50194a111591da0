// Electrocardiograms: the voltage traces read from a real store, and a store that fails or
// misbehaves, faked at the runner.
#include <gtest/gtest.h>

#include "datapoints/electrocardiogram.h"
#include "datapoints/store_support.h"

namespace kestrova::testing {
namespace {

std::shared_ptr<const Electrocardiogram> recording(int id, Date start, Date end,
                                                   std::optional<Quantity> frequency, int count) {
  Electrocardiogram::Details details;
  details.samplingFrequency = std::move(frequency);
  details.numberOfVoltageMeasurements = count;
  details.classification = Electrocardiogram::Classification::sinusRhythm;
  return Electrocardiogram::make(details, properties(id, start, end, {}, "com.apple.health.watch"))
      .value();
}

class ElectrocardiogramQueryTest : public StoreTest {};

TEST_F(ElectrocardiogramQueryTest, LeadIInVoltsWithAndWithoutSamplingFrequency) {
  // Berlin is UTC+2 in April.
  const auto withFrequency =
      recording(90, utc(2021, 4, 1, 12), utc(2021, 4, 1, 12, 0, 30), amount(4, "Hz"), 5);
  const auto without =
      recording(91, utc(2021, 4, 2, 7, 15), utc(2021, 4, 2, 7, 15, 1, 500), std::nullopt, 3);
  ASSERT_TRUE(
      store_->saveElectrocardiogram(withFrequency, {0.0001, -0.00025, 0.0012, 0.0005, 0}).ok());
  ASSERT_TRUE(store_->saveElectrocardiogram(without, {0.00042, -0.0003, 0.0011}).ok());
  const SamplePtr stray = quantity("HKQuantityTypeIdentifierHeartRate", 60, "count/min",
                                   properties(92, utc(2021, 4, 1), utc(2021, 4, 1)));

  const auto points = collect([&](QueryRunner runner, auto queue, auto completion) {
    collectElectrocardiograms({withFrequency, stray, without}, runner, queue,
                              std::move(completion));
  });
  ASSERT_TRUE(points) << "no completion";
  EXPECT_EQ(nlohmann::json(*points), golden("ecg_recordings.json"));
  EXPECT_EQ(executed_.load(), 2);
  EXPECT_EQ(finished_.load(), 2);
}

// Answers every voltage query at once, on the calling thread, with a fixed script per
// recording.
QueryRunner scripted(std::map<Uuid, std::vector<ElectrocardiogramQueryResult>> scripts,
                     std::shared_ptr<std::atomic<int>> finished) {
  return QueryRunner{[scripts = std::move(scripts)](std::shared_ptr<Query> query) {
                       auto voltage = std::static_pointer_cast<ElectrocardiogramQuery>(query);
                       for (const ElectrocardiogramQueryResult& result :
                            scripts.at(voltage->electrocardiogram()->uuid())) {
                         voltage->dataHandler()(voltage, result);
                       }
                     },
                     [finished](const std::shared_ptr<Query>&) { ++*finished; }};
}

TEST_F(ElectrocardiogramQueryTest, FailedRecordingIsLeftOutAndLogged) {
  const auto log = CapturedLog::install();
  const auto failing =
      recording(93, utc(2021, 4, 3), utc(2021, 4, 3, 0, 0, 30), amount(2, "Hz"), 2);
  const auto fine = recording(94, utc(2021, 4, 4), utc(2021, 4, 4, 0, 0, 30), amount(2, "Hz"), 2);
  auto finished = std::make_shared<std::atomic<int>>(0);
  const QueryRunner runner =
      scripted({{failing->uuid(),
                 {VoltageMeasurement{0, 0.001},
                  Error{"HealthStore", kHealthErrorDatabaseInaccessible, "locked"},
                  // Nothing should follow an error; a store that sends more must not revive it.
                  ElectrocardiogramQueryDone{}}},
                {fine->uuid(),
                 {VoltageMeasurement{0, 0.001}, VoltageMeasurement{0.5, 0.002},
                  ElectrocardiogramQueryDone{}, ElectrocardiogramQueryDone{}}}},
               finished);
  auto promise = std::make_shared<std::promise<std::vector<nlohmann::json>>>();
  auto calls = std::make_shared<std::atomic<int>>(0);
  collectElectrocardiograms({failing, fine}, runner, queue_,
                            [promise, calls](std::vector<nlohmann::json> points) {
                              if (calls->fetch_add(1) == 0) {
                                promise->set_value(std::move(points));
                              }
                            });
  auto future = promise->get_future();
  ASSERT_EQ(future.wait_for(kWait), std::future_status::ready);
  const std::vector<nlohmann::json> points = future.get();
  ASSERT_EQ(points.size(), 1u);
  EXPECT_EQ(points[0]["header"]["id"], fine->uuid().uuidString());
  EXPECT_EQ(points[0]["body"]["data"], nlohmann::json::parse(R"([{"time": 0, "value": 0.001},
                                                                 {"time": 0.5, "value": 0.002}])"));
  EXPECT_EQ(finished->load(), 2);
  EXPECT_EQ(calls->load(), 1);
  const auto lines = log->matching("Error querying ECG sample: HealthStore 6: locked");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, LogLevel::error);
  log->uninstall();
}

TEST_F(ElectrocardiogramQueryTest, EmptyDeliveryCompletesWithNothing) {
  const auto points = collect([&](QueryRunner runner, auto queue, auto completion) {
    collectElectrocardiograms({}, runner, queue, std::move(completion));
  });
  ASSERT_TRUE(points);
  EXPECT_TRUE(points->empty());
}

}  // namespace
}  // namespace kestrova::testing
