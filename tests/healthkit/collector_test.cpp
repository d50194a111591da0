#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <thread>

#include "healthkit/health_kit_types.h"
#include "healthkit/sample_collector.h"
#include "healthstore/embedded_health_store.h"
#include "storage/file_server.h"
#include "storage/token_store.h"
#include "support/forwarding_health_store.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

bool contains(const std::vector<ObjectType>& types, std::string_view identifier) {
  return std::any_of(types.begin(), types.end(),
                     [&](const ObjectType& type) { return type.identifier() == identifier; });
}

TEST(HealthKitTypes, SetsAndSystemVersions) {
  EXPECT_EQ(dailySummaryTypes().size(), 10u);
  EXPECT_EQ(dailyDetailTypes().size(), 8u);
  EXPECT_FALSE(contains(dailyDetailTypes(), kHeartRateIdentifier));
  EXPECT_EQ(bodyMeasurementTypes().size(), 11u);
  EXPECT_EQ(bodyMeasurementTypes().front().identifier(), "HKQuantityTypeIdentifierBodyMassIndex");

  const auto modern = readTypes(SystemVersion{14, 0});
  EXPECT_EQ(modern.size(), 25u);  // workout, sleep, mindful, ECG and 21 quantity types
  EXPECT_TRUE(contains(modern, kElectrocardiogramTypeIdentifier));
  const auto older = readTypes(SystemVersion{13, 7});
  EXPECT_EQ(older.size(), 24u);
  EXPECT_FALSE(contains(older, kElectrocardiogramTypeIdentifier));

  EXPECT_FALSE(objectType(KestrovaHealthKitDataType::electrocardiogram, {13, 7}));
  EXPECT_EQ(objectType(KestrovaHealthKitDataType::electrocardiogram, {14, 0})->identifier(),
            kElectrocardiogramTypeIdentifier);
  EXPECT_EQ(objectType(KestrovaHealthKitDataType::vo2Max, {13, 7})->identifier(),
            "HKQuantityTypeIdentifierVO2Max");
  // Every data type of the public table has its type on a current system.
  for (auto type : KestrovaHealthKitDataType::allCases()) {
    EXPECT_TRUE(objectType(type, SystemVersion{})) << type.name();
  }
}

// The embedded store, except that the results of anchored queries wait until the test releases
// them, so that a test can see how many fetches run and what happens while one is under way.
// Its mutex owns the held results.
class HoldingStore : public testing::ForwardingHealthStore {
 public:
  using ForwardingHealthStore::ForwardingHealthStore;
  void executeQuery(std::shared_ptr<Query> query) override {
    auto anchored = std::dynamic_pointer_cast<AnchoredObjectQuery>(query);
    if (!anchored) {
      store()->executeQuery(std::move(query));
      return;
    }
    store()->executeQuery(AnchoredObjectQuery::make(
        *anchored->objectType(), anchored->predicate(), anchored->anchor(), anchored->limit(),
        [this, anchored](const auto&, Result<AnchoredObjectResults> results) {
          std::lock_guard lock(mutex_);
          held_.push_back([anchored, results = std::move(results)]() mutable {
            anchored->resultsHandler()(anchored, std::move(results));
          });
        }));
  }

  // Waits until `count` results are held, and for a moment longer to see no more come.
  std::size_t held(std::size_t count) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (size() < count && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    return size();
  }
  void releaseOne() {
    std::function<void()> deliver;
    {
      std::lock_guard lock(mutex_);
      deliver = std::move(held_.front());
      held_.erase(held_.begin());
    }
    deliver();
  }

 private:
  std::size_t size() const {
    std::lock_guard lock(mutex_);
    return held_.size();
  }

  mutable std::mutex mutex_;
  std::vector<std::function<void()>> held_;
};

class CollectorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test_ = testing::makeTestPlatform(dir_.path());
    EmbeddedHealthStoreOptions options;
    options.path = dir_.path() / "healthstore.sqlite";
    options.dispatcher = test_.platform->dispatcher;
    store_ = EmbeddedHealthStore::open(std::move(options)).value();
    // Uploads go nowhere: nothing here listens on port 9.
    api_ = std::make_shared<API>(*URLComponents::parse("http://127.0.0.1:9/api/"), *test_.platform);
  }
  void TearDown() override { installPlatform(nullptr); }

  std::shared_ptr<SampleCollector> collector(
      std::set<std::string, std::less<>> enabled, SystemVersion system = {}, bool configured = true,
      std::function<void(std::vector<ObjectType>)> statistics = nullptr,
      std::shared_ptr<HealthStore> store = nullptr) {
    SampleCollector::Environment environment;
    environment.statistics = std::move(statistics);
    environment.store = store ? std::move(store) : store_;
    environment.anchors = std::make_shared<AnchorStore>(test_.platform->defaults);
    environment.clock = test_.clock;
    environment.system = system;
    environment.encodingQueue = test_.platform->dispatcher->mainQueue();
    environment.settings = [this, enabled,
                            configured]() -> std::optional<SampleCollector::Settings> {
      if (!configured) {
        return std::nullopt;
      }
      return SampleCollector::Settings{testing::utc(2020, 1, 1), "p1", enabled, *api_};
    };
    return SampleCollector::make(std::move(environment));
  }

  // Anchored fetches leave the set once delivered; observers stay.
  static std::size_t settledCount(const SampleCollector& collector, std::size_t expected) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (collector.runningQueryCount() != expected &&
           std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return collector.runningQueryCount();
  }

  testing::TempDir dir_;
  testing::TestPlatform test_;
  std::shared_ptr<EmbeddedHealthStore> store_;
  std::shared_ptr<API> api_;
};

TEST_F(CollectorTest, ObservesEachEnabledTypeOnceHoweverOftenStarted) {
  std::set<std::string, std::less<>> all;
  for (const auto& type : readTypes(SystemVersion{})) {
    all.emplace(type.identifier());
  }
  auto everything = collector(all);
  everything->startObserving();
  everything->startObserving();
  // Workouts, sleep, mindful sessions, electrocardiograms and eleven body measurements.
  EXPECT_EQ(settledCount(*everything, 15), 15u);
  everything->stopObserving();
  EXPECT_EQ(everything->runningQueryCount(), 0u);

  // Before system 14 there is no electrocardiogram observer.
  auto older = collector(all, SystemVersion{13, 0});
  older->startObserving();
  EXPECT_EQ(settledCount(*older, 14), 14u);
  older->stopObserving();

  // Only what the host enabled is observed.
  auto narrow = collector({"HKQuantityTypeIdentifierBodyMass", "HKWorkoutTypeIdentifier"});
  narrow->startObserving();
  EXPECT_EQ(settledCount(*narrow, 2), 2u);
  narrow->stopObserving();
}

TEST_F(CollectorTest, OneFetchOfATypeAtATimeAndNothingOfAStoppedConnectionIsKept) {
  constexpr std::string_view kBodyMass = "HKQuantityTypeIdentifierBodyMass";
  SampleProperties properties;
  properties.startDate = testing::utc(2024, 3, 1, 8);
  properties.endDate = properties.startDate;
  properties.sourceRevision = SourceRevision{Source{"Scale", "com.example.scale"}, "1", "", {1}};
  const auto weigh = [&](double kilograms) {
    properties.uuid = Uuid::random();
    properties.startDate += std::chrono::hours(1);
    properties.endDate = properties.startDate;
    ASSERT_TRUE(
        store_
            ->saveObjects({QuantitySample::make(ObjectType::quantityType(kBodyMass).value(),
                                                Quantity(Unit::fromString("kg").value(), kilograms),
                                                properties)
                               .value()})
            .ok());
  };
  weigh(70);
  // With a token the uploads fail for want of a server and the files stay to be counted.
  TokenStore(test_.platform->secureStore, test_.platform->applicationIdentifier)
      .saveToken("token-of-p1", "p1");
  auto holding = std::make_shared<HoldingStore>(store_);
  auto body = collector({std::string(kBodyMass)}, SystemVersion{}, true, nullptr, holding);
  const auto& files = api_->fileServer();
  const AnchorStore anchors(test_.platform->defaults);
  const auto filesWritten = [&](std::size_t count) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (files.list(true).size() < count && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return files.list(true).size();
  };

  // The first fetch and the observer's first delivery meet: one fetch, and one more after it.
  body->startObserving();
  ASSERT_EQ(holding->held(1), 1u);
  holding->releaseOne();
  EXPECT_EQ(filesWritten(1), 1u);
  ASSERT_EQ(holding->held(1), 1u);
  holding->releaseOne();
  EXPECT_EQ(holding->held(0), 0u);
  EXPECT_EQ(filesWritten(2), 1u) << "the same samples written twice";
  const auto anchor = anchors.storedAnchor(kBodyMass);
  ASSERT_TRUE(anchor);

  // A disconnect while a fetch's results are on their way: they write no file and store no
  // anchor.
  weigh(71);
  body->fetchNewSamples(SampleFamily::bodyMeasurements,
                        ObjectType::quantityType(kBodyMass).value());
  ASSERT_EQ(holding->held(1), 1u);
  body->stopObserving();
  holding->releaseOne();
  EXPECT_EQ(filesWritten(2), 1u);
  EXPECT_EQ(anchors.storedAnchor(kBodyMass)->position(), anchor->position());
}

TEST_F(CollectorTest, WithoutAConfigurationNothingIsObservedButDeliveryIsEnabled) {
  auto unconfigured = collector({}, SystemVersion{}, /*configured=*/false);
  unconfigured->startObserving();
  EXPECT_EQ(unconfigured->runningQueryCount(), 0u);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!store_->backgroundDeliveryRegistration(ObjectType::workoutType()) &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  for (const auto& type : readTypes(SystemVersion{})) {
    const auto registration = store_->backgroundDeliveryRegistration(type);
    ASSERT_TRUE(registration) << type.identifier();
  }
}

TEST_F(CollectorTest, StatisticsRunOverEnabledTypesAndEachObserverRecomputesItsOwnType) {
  std::mutex mutex;  // owns passes
  std::vector<std::vector<std::string>> passes;
  auto record = [&](std::vector<ObjectType> types) {
    std::vector<std::string> identifiers;
    for (const auto& type : types) {
      identifiers.emplace_back(type.identifier());
    }
    std::lock_guard lock(mutex);
    passes.push_back(std::move(identifiers));
  };
  const std::string steps(kStepCountIdentifier);
  const std::string heartRate(kHeartRateIdentifier);
  auto statistics = collector({steps, heartRate, "HKQuantityTypeIdentifierBodyMass"},
                              SystemVersion{}, true, record);
  statistics->startObserving();
  // The body mass observer and one statistics observer per enabled statistics type.
  EXPECT_EQ(settledCount(*statistics, 3), 3u);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  auto seen = [&] {
    std::lock_guard lock(mutex);
    return passes;
  };
  while (seen().size() < 3 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  auto all = seen();
  ASSERT_EQ(all.size(), 3u);
  // First the whole pass, then each observer's first delivery for its own type.
  EXPECT_EQ(all[0], (std::vector<std::string>{steps, heartRate}));
  std::sort(all.begin() + 1, all.end());
  EXPECT_EQ(all[1], std::vector<std::string>{heartRate});
  EXPECT_EQ(all[2], std::vector<std::string>{steps});
  statistics->stopObserving();
  EXPECT_EQ(statistics->runningQueryCount(), 0u);
}

}  // namespace
}  // namespace kestrova
