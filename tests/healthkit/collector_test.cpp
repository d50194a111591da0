// Collection on the embedded store: which types are read and observed, and the anchored fetch
// that turns a delivery into upload files before its anchor moves.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <future>
#include <mutex>

#include "healthkit/health_kit_types.h"
#include "healthkit/sample_collector.h"
#include "healthstore/embedded_health_store.h"
#include "storage/file_server.h"
#include "storage/token_store.h"
#include "support/child_process.h"
#include "support/forwarding_health_store.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

constexpr std::string_view kBodyMass = "HKQuantityTypeIdentifierBodyMass";
constexpr auto kWait = std::chrono::seconds(10);

TEST(HealthKitTypes, EachDataTypeReadsItsOwnIdentifierAndEachFamilyWritesItsOwnPrefix) {
  using T = KestrovaHealthKitDataType;
  const std::pair<T, std::string_view> table[] = {
      {T::activeEnergyBurned, "HKQuantityTypeIdentifierActiveEnergyBurned"},
      {T::basalEnergyBurned, "HKQuantityTypeIdentifierBasalEnergyBurned"},
      {T::bloodGlucose, "HKQuantityTypeIdentifierBloodGlucose"},
      {T::bloodPressureDiastolic, "HKQuantityTypeIdentifierBloodPressureDiastolic"},
      {T::bloodPressureSystolic, "HKQuantityTypeIdentifierBloodPressureSystolic"},
      {T::bodyFatPercentage, "HKQuantityTypeIdentifierBodyFatPercentage"},
      {T::bodyMass, "HKQuantityTypeIdentifierBodyMass"},
      {T::bodyMassIndex, "HKQuantityTypeIdentifierBodyMassIndex"},
      {T::bodyTemperature, "HKQuantityTypeIdentifierBodyTemperature"},
      {T::distanceCycling, "HKQuantityTypeIdentifierDistanceCycling"},
      {T::distanceDownhillSnowSports, "HKQuantityTypeIdentifierDistanceDownhillSnowSports"},
      {T::distanceSwimming, "HKQuantityTypeIdentifierDistanceSwimming"},
      {T::distanceWalkingRunning, "HKQuantityTypeIdentifierDistanceWalkingRunning"},
      {T::distanceWheelchair, "HKQuantityTypeIdentifierDistanceWheelchair"},
      {T::electrocardiogram, "HKDataTypeIdentifierElectrocardiogram"},
      {T::heartRate, "HKQuantityTypeIdentifierHeartRate"},
      {T::heartRateVariabilitySDNN, "HKQuantityTypeIdentifierHeartRateVariabilitySDNN"},
      {T::height, "HKQuantityTypeIdentifierHeight"},
      {T::mindfulSession, "HKCategoryTypeIdentifierMindfulSession"},
      {T::oxygenSaturation, "HKQuantityTypeIdentifierOxygenSaturation"},
      {T::restingHeartRate, "HKQuantityTypeIdentifierRestingHeartRate"},
      {T::sleepAnalysis, "HKCategoryTypeIdentifierSleepAnalysis"},
      {T::stepCount, "HKQuantityTypeIdentifierStepCount"},
      {T::vo2Max, "HKQuantityTypeIdentifierVO2Max"},
      {T::workout, "HKWorkoutTypeIdentifier"},
  };
  for (const auto& [dataType, identifier] : table) {
    const auto type = objectType(dataType, SystemVersion{14, 0});
    ASSERT_TRUE(type) << identifier;
    EXPECT_EQ(type->identifier(), identifier);
  }
  EXPECT_FALSE(objectType(T::electrocardiogram, {13, 7}));
  // Workout, sleep, mindful, ECG from 14.0 and 21 quantity types.
  EXPECT_EQ(readTypes(SystemVersion{14, 0}).size(), 25u);
  EXPECT_EQ(readTypes(SystemVersion{13, 7}).size(), 24u);
  EXPECT_EQ(filePrefix(SampleFamily::workouts), "workout-");
  EXPECT_EQ(filePrefix(SampleFamily::sleep), "sleep-");
  EXPECT_EQ(filePrefix(SampleFamily::mindfulSessions), "mindful-");
  EXPECT_EQ(filePrefix(SampleFamily::electrocardiograms), "ecg-");
  EXPECT_EQ(filePrefix(SampleFamily::bodyMeasurements), "body-");
}

// The embedded store behind anchored queries that it can hold until released, fail, or run
// without the collector's page limit; it counts the deliveries the collector has handled and
// keeps the observer queries. Its mutex owns the held results and the observers.
class ScriptedStore : public testing::ForwardingHealthStore {
 public:
  using ForwardingHealthStore::ForwardingHealthStore;

  void executeQuery(std::shared_ptr<Query> query) override {
    auto anchored = std::dynamic_pointer_cast<AnchoredObjectQuery>(query);
    if (!anchored) {
      if (auto observer = std::dynamic_pointer_cast<ObserverQuery>(query)) {
        std::lock_guard lock(mutex_);
        observers_.push_back(observer);
      }
      store()->executeQuery(std::move(query));
      return;
    }
    ++started;
    if (failing) {
      anchored->resultsHandler()(anchored, Error{"HKErrorDomain", 5, "not authorised"});
      ++delivered_;
      return;
    }
    store()->executeQuery(AnchoredObjectQuery::make(
        *anchored->objectType(), anchored->predicate(), anchored->anchor(),
        unlimited ? 0 : anchored->limit(),
        [this, anchored](const auto&, Result<AnchoredObjectResults> results) {
          auto deliver = [this, anchored, results = std::move(results)]() mutable {
            anchored->resultsHandler()(anchored, std::move(results));
            ++delivered_;
          };
          std::unique_lock lock(mutex_);
          if (holding) {
            held_.push_back(std::move(deliver));
            return;
          }
          lock.unlock();
          deliver();
        }));
  }

  // Whether `count` deliveries were handled within the wait.
  bool delivered(std::size_t count) const {
    return testing::eventually([&] { return delivered_ >= count; }, kWait);
  }
  // The results held once there are `count` or the wait is over.
  std::size_t held(std::size_t count) {
    const auto size = [&] {
      std::lock_guard lock(mutex_);
      return held_.size();
    };
    testing::eventually([&] { return size() >= count; }, kWait);
    return size();
  }
  void releaseOne() {
    std::unique_lock lock(mutex_);
    auto deliver = std::move(held_.front());
    held_.erase(held_.begin());
    lock.unlock();
    deliver();
  }

  // Every observer query started so far.
  std::vector<std::shared_ptr<ObserverQuery>> observers() {
    std::lock_guard lock(mutex_);
    return observers_;
  }

  std::atomic<std::size_t> started = 0;  // anchored queries asked for
  std::atomic<bool> failing = false;
  std::atomic<bool> unlimited = false;
  std::atomic<bool> holding = false;

 private:
  std::atomic<std::size_t> delivered_ = 0;
  std::mutex mutex_;
  std::vector<std::function<void()>> held_;
  std::vector<std::shared_ptr<ObserverQuery>> observers_;
};

class CollectorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test_ = testing::makeTestPlatform(dir_.path());
    log_ = testing::CapturedLog::install();
    EmbeddedHealthStoreOptions options;
    options.path = dir_.path() / "healthstore.sqlite";
    options.dispatcher = test_.platform->dispatcher;
    store_ = EmbeddedHealthStore::open(std::move(options)).value();
    scripted_ = std::make_shared<ScriptedStore>(store_);
    // Uploads go nowhere: nothing here listens on port 9, so the files stay to be counted.
    TokenStore(test_.platform->secureStore, test_.platform->applicationIdentifier)
        .saveToken("token-of-p1", "p1");
    api_ = std::make_shared<API>(*URLComponents::parse("http://127.0.0.1:9/api/"), *test_.platform);
  }
  void TearDown() override {
    log_->uninstall();
    installPlatform(nullptr);
  }

  std::shared_ptr<SampleCollector> collector(std::set<std::string, std::less<>> enabled,
                                             bool configured = true) {
    SampleCollector::Environment environment;
    environment.store = scripted_;
    environment.anchors = std::make_shared<AnchorStore>(test_.platform->defaults);
    environment.clock = test_.clock;
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

  // `count` weighings an hour apart after the last one saved.
  void weigh(int count) {
    std::vector<SamplePtr> samples;
    for (int i = 0; i < count; ++i) {
      SampleProperties properties;
      properties.uuid = Uuid::random();
      next_ += std::chrono::hours(1);
      properties.startDate = next_;
      properties.endDate = next_;
      properties.sourceRevision =
          SourceRevision{Source{"Scale", "com.example.scale"}, "1", "", {1}};
      samples.push_back(QuantitySample::make(ObjectType::quantityType(kBodyMass).value(),
                                             Quantity(Unit::fromString("kg").value(), 70 + i % 5),
                                             properties)
                            .value());
    }
    ASSERT_TRUE(store_->saveObjects(samples).ok());
  }

  std::optional<std::uint64_t> anchor() const {
    const auto stored = AnchorStore(test_.platform->defaults).storedAnchor(kBodyMass);
    return stored ? std::optional(stored->position()) : std::nullopt;
  }
  // The upload files once every write queued so far is done.
  std::vector<FileNameComponents> files() const {
    FileServer::sharedWriteQueue(*test_.platform->dispatcher)->sync([] {});
    return api_->fileServer().list(true);
  }

  testing::TempDir dir_;
  testing::TestPlatform test_;
  std::shared_ptr<testing::CapturedLog> log_;
  std::shared_ptr<EmbeddedHealthStore> store_;
  std::shared_ptr<ScriptedStore> scripted_;
  std::shared_ptr<API> api_;
  Date next_ = testing::utc(2024, 3, 1);
};

TEST_F(CollectorTest, TheAnchorMovesOnlyOnceTheDeliveryIsInFilesOfAtMost5000Points) {
  auto body = collector({std::string(kBodyMass)});
  const auto fetch = [&] {
    body->fetchNewSamples(SampleFamily::bodyMeasurements,
                          ObjectType::quantityType(kBodyMass).value());
  };
  // A failed query leaves the anchor where it was.
  scripted_->failing = true;
  fetch();
  EXPECT_FALSE(anchor());
  EXPECT_TRUE(log_->contains(
      "Error querying samples for HKQuantityTypeIdentifierBodyMass: not authorised"));
  scripted_->failing = false;

  // An empty delivery moves it and writes nothing.
  fetch();
  ASSERT_TRUE(scripted_->delivered(2));
  const auto empty = anchor();
  ASSERT_TRUE(empty);
  EXPECT_TRUE(files().empty());

  // 5,001 weighings in one delivery: while the files wait to be written, the anchor stays.
  weigh(5001);
  scripted_->unlimited = true;
  std::promise<void> gate;
  FileServer::sharedWriteQueue(*test_.platform->dispatcher)
      ->async([opened = gate.get_future().share()] { opened.wait(); });
  fetch();
  ASSERT_TRUE(scripted_->delivered(3));
  EXPECT_EQ(anchor(), empty) << "moved before its files were on disk";
  gate.set_value();
  // The full page is followed by a fetch from the new anchor, which finds nothing.
  ASSERT_TRUE(scripted_->delivered(4));
  const auto written = files();
  auto fileServer = api_->fileServer();
  EXPECT_GT(anchor().value_or(0), *empty);
  std::vector<std::size_t> points;
  for (const auto& file : written) {
    EXPECT_TRUE(file.sampleId.starts_with("body-")) << file.sampleId;
    const auto bytes = fileServer.read(file, true).value();
    points.push_back(nlohmann::json::parse(bytes.begin(), bytes.end()).size());
  }
  std::sort(points.begin(), points.end());
  EXPECT_EQ(points, (std::vector<std::size_t>{1, 5000}));

  // Nothing new: no file.
  fetch();
  ASSERT_TRUE(scripted_->delivered(5));
  EXPECT_EQ(files().size(), 2u);
}

TEST_F(CollectorTest, OneFetchOfATypeAtATimeAndNothingOfAStoppedConnectionIsKept) {
  weigh(1);
  scripted_->holding = true;
  auto body = collector({std::string(kBodyMass)});

  // The first fetch and the observer's first delivery meet: one fetch, and one more after it.
  body->startObserving();
  ASSERT_EQ(scripted_->held(1), 1u);
  scripted_->releaseOne();
  ASSERT_EQ(scripted_->held(1), 1u);
  scripted_->releaseOne();
  ASSERT_TRUE(scripted_->delivered(2));
  EXPECT_EQ(files().size(), 1u) << "the same samples written twice";
  const auto before = anchor();
  ASSERT_TRUE(before);

  // A disconnect while a fetch's results are on their way: they write no file and store no
  // anchor.
  weigh(1);
  body->fetchNewSamples(SampleFamily::bodyMeasurements,
                        ObjectType::quantityType(kBodyMass).value());
  ASSERT_EQ(scripted_->held(1), 1u);
  body->stopObserving();
  scripted_->releaseOne();
  EXPECT_EQ(files().size(), 1u);
  EXPECT_EQ(anchor(), before);

  // A wake-up of the stopped observer that arrives after the stop, as one under way does,
  // fetches nothing: its anchor, stored after a disconnect deleted the anchors, would make the
  // next connection skip every earlier sample.
  ASSERT_FALSE(scripted_->observers().empty());
  const auto observer = scripted_->observers().back();
  const std::size_t fetches = scripted_->started;
  observer->updateHandler()(
      observer, {}, [] {}, std::nullopt);
  EXPECT_EQ(scripted_->started, fetches);
}

TEST_F(CollectorTest, WithoutAConfigurationNothingIsObservedButDeliveryIsEnabled) {
  auto unconfigured = collector({}, /*configured=*/false);
  unconfigured->startObserving();
  EXPECT_EQ(unconfigured->runningQueryCount(), 0u);
  for (const auto& type : readTypes(SystemVersion{})) {
    EXPECT_TRUE(testing::eventually(
        [&] { return store_->backgroundDeliveryRegistration(type).has_value(); }, kWait))
        << type.identifier();
  }
}

}  // namespace
}  // namespace kestrova
