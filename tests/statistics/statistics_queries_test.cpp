// The statistics pass over the embedded store in New York: the collection queries it asks for,
// where their days begin, and that an empty answer leaves the upload timers alone.
#include "statistics/statistics_queries.h"

#include <gtest/gtest.h>

#include "facade/formatters.h"
#include "healthstore/embedded_health_store.h"
#include "support/child_process.h"
#include "support/forwarding_health_store.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

using testing::utc;

constexpr std::string_view kSteps = "HKQuantityTypeIdentifierStepCount";

TEST(StatisticsAnchorDate, IsLocalMidnightAcrossDaylightSaving) {
  const auto newYork = TimeZone::named("America/New_York").value();
  // 2024-03-10 and 2024-11-03 are the days the clocks change, after midnight.
  EXPECT_EQ(statisticsAnchorDate(utc(2024, 3, 10, 15), newYork), utc(2024, 3, 10, 5));
  EXPECT_EQ(statisticsAnchorDate(utc(2024, 3, 11, 3), newYork), utc(2024, 3, 10, 5));
  EXPECT_EQ(statisticsAnchorDate(utc(2024, 3, 12, 3), newYork), utc(2024, 3, 11, 4));
  EXPECT_EQ(statisticsAnchorDate(utc(2024, 11, 3, 15), newYork), utc(2024, 11, 3, 4));
}

// Writes down each collection query, as "<type> <options> <days>d<minutes>m from <start>
// anchored at <anchor>", and passes it on. Its mutex owns the list.
class RecordingStore : public testing::ForwardingHealthStore {
 public:
  using ForwardingHealthStore::ForwardingHealthStore;
  void executeQuery(std::shared_ptr<Query> query) override {
    if (auto collection = std::dynamic_pointer_cast<StatisticsCollectionQuery>(query)) {
      const auto& every = collection->intervalComponents();
      std::lock_guard lock(mutex_);
      queries_.push_back(std::string(collection->objectType()->identifier()) + " " +
                         std::to_string(static_cast<unsigned>(collection->options())) + " " +
                         std::to_string(every.day) + "d" + std::to_string(every.minute) +
                         "m from " +
                         timestampString(*collection->predicate()->window().startAtLeast) +
                         " anchored at " + timestampString(collection->anchorDate()));
    }
    store()->executeQuery(std::move(query));
  }
  std::vector<std::string> take() {
    std::lock_guard lock(mutex_);
    return std::exchange(queries_, {});
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> queries_;
};

class StatisticsPassTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test_ = testing::makeTestPlatform(dir_.path(), "America/New_York");
    test_.clock->set(utc(2024, 3, 20));
    EmbeddedHealthStoreOptions options;
    options.path = dir_.path() / "healthstore.sqlite";
    options.dispatcher = test_.platform->dispatcher;
    options.timeZone = test_.platform->timeZone;
    store_ = EmbeddedHealthStore::open(std::move(options)).value();
    recording_ = std::make_shared<RecordingStore>(store_);
    api_ = std::make_shared<API>(*URLComponents::parse("http://127.0.0.1:9/api/"), *test_.platform);
    manager_ = DataManager::make(
        *api_, start_, {test_.platform->defaults, test_.clock, test_.platform->dispatcher});
    pass_ = StatisticsPass::make(
        {recording_, std::make_shared<AnchorStore>(test_.platform->defaults),
         test_.platform->defaults, test_.clock, [this] {
           return std::optional<StatisticsPass::Settings>(
               {manager_, start_, "p1", TimeZone::named("America/New_York").value()});
         }});
  }
  void TearDown() override {
    pass_->stop();
    manager_.reset();
    installPlatform(nullptr);
  }

  void run(const std::vector<std::string_view>& identifiers) {
    std::vector<ObjectType> types;
    for (auto identifier : identifiers) {
      types.push_back(ObjectType::quantityType(identifier).value());
    }
    pass_->run(std::move(types));
    ASSERT_TRUE(testing::eventually([&] { return !pass_->isRunning(); }, std::chrono::seconds(10)));
    manager_->statisticsStorageQueue()->sync([] {});
  }

  testing::TempDir dir_;
  testing::TestPlatform test_;
  std::shared_ptr<EmbeddedHealthStore> store_;
  std::shared_ptr<RecordingStore> recording_;
  std::shared_ptr<API> api_;
  std::shared_ptr<DataManager> manager_;
  std::shared_ptr<StatisticsPass> pass_;
  // 10:00 in New York on the day summer time begins.
  const Date start_ = utc(2024, 3, 10, 15);
};

TEST_F(StatisticsPassTest, EachTypeIsAskedForItsOwnFiguresFromLocalMidnight) {
  // Options as raw values: discrete average 2, minimum 4, maximum 8, cumulative sum 16.
  run({"HKQuantityTypeIdentifierHeartRate", kSteps, "HKQuantityTypeIdentifierRestingHeartRate"});
  // Local midnight of the start date, 05:00 UTC in winter time.
  const std::string from = " from 2024-03-10T15:00:00.000 anchored at 2024-03-10T05:00:00.000";
  EXPECT_EQ(recording_->take(), (std::vector<std::string>{
                                    "HKQuantityTypeIdentifierHeartRate 14 0d15m" + from,
                                    "HKQuantityTypeIdentifierHeartRate 14 1d0m" + from,
                                    "HKQuantityTypeIdentifierStepCount 16 0d15m" + from,
                                    "HKQuantityTypeIdentifierStepCount 16 1d0m" + from,
                                    "HKQuantityTypeIdentifierRestingHeartRate 2 1d0m" + from,
                                }));
  // The store has nothing: no figure is handed on, so no upload is armed.
  EXPECT_EQ(test_.clock->armedTimerCount(), 0u);

  // A step count of 10:00 on the 12th (summer time): recomputed from that day's midnight, and
  // both its families arm their uploads.
  SampleProperties properties;
  properties.uuid = Uuid::random();
  properties.startDate = utc(2024, 3, 12, 14);
  properties.endDate = utc(2024, 3, 12, 14, 10);
  properties.sourceRevision = SourceRevision{Source{"Phone", "com.example.phone"}, "1", "", {1}};
  ASSERT_TRUE(store_
                  ->saveObjects({QuantitySample::make(ObjectType::quantityType(kSteps).value(),
                                                      Quantity(Unit::count(), 420), properties)
                                     .value()})
                  .ok());
  run({kSteps});
  EXPECT_EQ(recording_->take(),
            (std::vector<std::string>{
                "HKQuantityTypeIdentifierStepCount 16 0d15m from 2024-03-12T04:00:00.000 anchored "
                "at 2024-03-10T05:00:00.000",
                "HKQuantityTypeIdentifierStepCount 16 1d0m from 2024-03-12T04:00:00.000 anchored "
                "at 2024-03-10T05:00:00.000",
            }));
  EXPECT_EQ(test_.clock->armedTimerCount(), 2u);
}

}  // namespace
}  // namespace kestrova
