// The library end to end: the real facade over the embedded store, the curl client and the
// reference server on 127.0.0.1, checked data point by data point on the server.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <map>
#include <optional>
#include <thread>

#include "e2e/library_harness.h"
#include "kestrova/facade.h"
#include "kestrova/version.h"
#include "storage/anchor_store.h"
#include "storage/token_store.h"
#include "support/forwarding_health_store.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

using testing::configureAndWait;
using testing::connectAndWait;
using testing::Outcome;
using testing::utc;

constexpr auto kWait = std::chrono::seconds(20);
constexpr std::string_view kSecret = "e2e-secret";

SourceRevision watchSource() {
  return SourceRevision{Source{"Watch", "com.apple.health.watch"}, "10.4", "Watch6,7", {10, 4, 0}};
}

SampleProperties span(Date start, Date end) {
  SampleProperties properties;
  properties.startDate = start;
  properties.endDate = end;
  properties.sourceRevision = watchSource();
  return properties;
}

SamplePtr quantity(std::string_view identifier, double value, std::string_view unit, Date start,
                   Date end) {
  return testing::quantitySample(identifier, value, unit, start, end, watchSource());
}

SamplePtr category(std::string_view identifier, int value, Date start, Date end) {
  return CategorySample::make(ObjectType::categoryType(identifier).value(), value, span(start, end))
      .value();
}

// A host's own store in front of the embedded one: it lets every call through, but can refuse
// the authorisation request, as a store can, or say that the device has no health data.
class HostStore : public testing::ForwardingHealthStore {
 public:
  enum class Mode { refusingAuthorization, withoutHealthData };
  HostStore(std::shared_ptr<HealthStore> store, Mode mode)
      : ForwardingHealthStore(std::move(store)), mode_(mode) {}
  bool isHealthDataAvailable() const override {
    return mode_ != Mode::withoutHealthData && store()->isHealthDataAvailable();
  }
  void requestAuthorization(std::set<ObjectType> share, std::set<ObjectType> read,
                            HealthStoreCompletion completion) override {
    if (mode_ == Mode::refusingAuthorization) {
      completion(false, Error{"HealthStore", 5, "Authorization not determined"});
      return;
    }
    store()->requestAuthorization(std::move(share), std::move(read), std::move(completion));
  }

 private:
  const Mode mode_;
};

class ConnectionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server_ = testing::startServer(std::string(kSecret));
    ASSERT_TRUE(server_);
    log_ = testing::CapturedLog::install();
    restart();
  }

  void TearDown() override {
    testing::stopLibrary();
    log_->uninstall();
  }

  // A new process on the same data directory: new platform, new store object, new instance.
  void restart(std::optional<HostStore::Mode> hostStore = std::nullopt) {
    testing::StoreWrapper wrap;
    if (hostStore) {
      wrap = [mode = *hostStore](std::shared_ptr<HealthStore> store) {
        return std::make_shared<HostStore>(std::move(store), mode);
      };
    }
    auto process = testing::startLibrary(dir_.path(), wrap);
    ASSERT_TRUE(process.platform);
    store_ = std::move(process.store);
    platform_ = std::move(process.platform);
  }

  KestrovaConfig config(const std::string& profile) const {
    return KestrovaConfig(server_->tokenFor(profile), server_->baseUrl(), utc(2024, 1, 1));
  }

  // The server's data points of a profile by schema name, once `expected` are there.
  std::map<std::string, std::vector<nlohmann::json>> waitForSchemas(
      const std::string& profile, const std::map<std::string, std::size_t>& expected) {
    const auto deadline = std::chrono::steady_clock::now() + kWait;
    std::map<std::string, std::vector<nlohmann::json>> bySchema;
    for (;;) {
      bySchema.clear();
      for (const auto& point : server_->dataPoints(profile)) {
        bySchema[point.schemaName].push_back(point.dataPoint);
      }
      bool complete = true;
      for (const auto& [schema, count] : expected) {
        complete = complete && bySchema[schema].size() >= count;
      }
      if (complete || std::chrono::steady_clock::now() > deadline) {
        return bySchema;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  }

  void saveEveryFamily(Date day) {
    using std::chrono::minutes;
    std::vector<SamplePtr> samples = {
        quantity("HKQuantityTypeIdentifierBodyMass", 70.5, "kg", day, day),
        quantity("HKQuantityTypeIdentifierHeight", 1.81, "m", day, day),
        quantity("HKQuantityTypeIdentifierBodyMassIndex", 21.5, "count", day, day),
        category("HKCategoryTypeIdentifierMindfulSession", 0, day + minutes(60), day + minutes(70)),
        // One night: in bed with core, deep, REM and a wake-up inside.
        category("HKCategoryTypeIdentifierSleepAnalysis", 0, day - minutes(120),
                 day + minutes(300)),
        category("HKCategoryTypeIdentifierSleepAnalysis", 3, day - minutes(100), day),
        category("HKCategoryTypeIdentifierSleepAnalysis", 4, day, day + minutes(60)),
        category("HKCategoryTypeIdentifierSleepAnalysis", 5, day + minutes(60), day + minutes(90)),
        category("HKCategoryTypeIdentifierSleepAnalysis", 2, day + minutes(90), day + minutes(100)),
        // A run with heart rate and steps recorded during it.
        quantity("HKQuantityTypeIdentifierHeartRate", 150, "count/min", day + minutes(400),
                 day + minutes(400)),
        quantity("HKQuantityTypeIdentifierHeartRate", 160, "count/min", day + minutes(410),
                 day + minutes(410)),
        quantity("HKQuantityTypeIdentifierStepCount", 3000, "count", day + minutes(395),
                 day + minutes(425)),
    };
    Workout::Details run;
    run.workoutActivityType = 37;
    run.duration = 1800;
    run.totalDistance = Quantity(Unit::meter(), 5000);
    run.totalEnergyBurned = Quantity(Unit::kilocalorie(), 320);
    samples.push_back(Workout::make(run, span(day + minutes(395), day + minutes(425))).value());
    ASSERT_TRUE(store_->saveObjects(samples).ok());

    Electrocardiogram::Details ecg;
    ecg.samplingFrequency = Quantity(Unit::hertz(), 512);
    ecg.numberOfVoltageMeasurements = 3;
    ecg.classification = Electrocardiogram::Classification::sinusRhythm;
    auto recording =
        Electrocardiogram::make(
            ecg, span(day + minutes(500), day + minutes(500) + std::chrono::seconds(30)))
            .value();
    ASSERT_TRUE(store_->saveElectrocardiogram(recording, {0.0001, -0.0002, 0.0003}).ok());
  }

  testing::TempDir dir_;
  std::unique_ptr<server::KestrovaServer> server_;
  std::shared_ptr<testing::CapturedLog> log_;
  std::shared_ptr<EmbeddedHealthStore> store_;
  std::shared_ptr<const Platform> platform_;
};

TEST_F(ConnectionTest, EveryFamilyReachesTheServerAndLaterSamplesFollow) {
  saveEveryFamily(utc(2024, 3, 1, 8));
  EXPECT_EQ(Kestrova::currentStatus().value, Kestrova::Status::Case::disconnected);
  ASSERT_EQ(configureAndWait(config("p1")), Outcome(true, std::nullopt));
  ASSERT_EQ(connectAndWait(), Outcome(true, std::nullopt));
  EXPECT_EQ(Kestrova::currentStatus(), (Kestrova::Status{Kestrova::Status::Case::connected, "p1"}));
  EXPECT_EQ(Kestrova::_currentStatus(), Kestrova::StatusCode::connected);

  auto bySchema = waitForSchemas("p1", {{"body-weight", 1},
                                        {"body-height", 1},
                                        {"body-mass-index", 1},
                                        {"hk-category-sample", 1},
                                        {"sleep-episode-with-sleep-stages", 1},
                                        {"ks-sleep-detail", 4},
                                        {"hk-workout-with-heart-rate-data-and-steps", 1},
                                        {"ks-electrocardiogram", 1}});
  ASSERT_EQ(bySchema["body-weight"].size(), 1u);
  EXPECT_EQ(bySchema["body-weight"][0]["body"]["body_weight"],
            (nlohmann::json{{"value", 70.5}, {"unit", "kg"}}));
  EXPECT_EQ(bySchema["ks-sleep-detail"].size(), 4u);
  ASSERT_EQ(bySchema["hk-workout-with-heart-rate-data-and-steps"].size(), 1u);
  const auto& workout = bySchema["hk-workout-with-heart-rate-data-and-steps"][0]["body"];
  EXPECT_EQ(workout["activity_name"], "running");
  EXPECT_EQ(workout["step_count"], 3000.0);
  EXPECT_EQ(workout["distance"], (nlohmann::json{{"value", 5000.0}, {"unit", "m"}}));
  ASSERT_EQ(bySchema["ks-electrocardiogram"].size(), 1u);
  EXPECT_EQ(bySchema["ks-electrocardiogram"][0]["body"]["data"].size(), 3u);
  // Only the header ids of what was saved: no quantity of the statistics families is sent
  // sample by sample (the statistics pipeline sends its own records, whenever its timers run).
  for (auto statistics : {"ks-heart-rate-sample", "ks-daily-detail", "daily-summary",
                          "daily-summary-with-heart-rate"}) {
    bySchema.erase(statistics);
  }
  EXPECT_EQ(bySchema.size(), 8u);
  for (const auto& point : server_->dataPoints("p1")) {
    EXPECT_EQ(point.source, "Apple");
    EXPECT_EQ(point.version, KESTROVA_VERSION_STRING);
  }

  // A sample saved later arrives through its observer.
  ASSERT_TRUE(store_
                  ->saveObjects({quantity("HKQuantityTypeIdentifierBodyMass", 69.0, "kg",
                                          utc(2024, 3, 2, 8), utc(2024, 3, 2, 8))})
                  .ok());
  bySchema = waitForSchemas("p1", {{"body-weight", 2}});
  EXPECT_EQ(bySchema["body-weight"].size(), 2u);

  // Every upload file was accepted and deleted.
  const auto deadline = std::chrono::steady_clock::now() + kWait;
  while (!std::filesystem::is_empty(dir_.path() / "Kestrova" / "UploadBulk") &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  EXPECT_TRUE(std::filesystem::is_empty(dir_.path() / "Kestrova" / "UploadBulk"));
}

TEST_F(ConnectionTest, ReconnectRestartAndDisconnect) {
  ASSERT_EQ(configureAndWait(config("p1")), Outcome(true, std::nullopt));
  ASSERT_EQ(connectAndWait(), Outcome(true, std::nullopt));
  AnchorStore anchors(platform_->defaults);
  const auto deadline = std::chrono::steady_clock::now() + kWait;
  while (!anchors.storedAnchor("HKQuantityTypeIdentifierBodyMass") &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  ASSERT_TRUE(anchors.storedAnchor("HKQuantityTypeIdentifierBodyMass"));

  // The same profile again: only revalidated.
  log_->clear();
  ASSERT_EQ(connectAndWait(), Outcome(true, std::nullopt));
  EXPECT_TRUE(log_->contains("Profile p1 has already been connected"));

  // A restart reports the stored profile before configure, and configure resumes collection.
  Kestrova::disconnect();
  ASSERT_EQ(configureAndWait(config("p1")), Outcome(true, std::nullopt));
  ASSERT_EQ(connectAndWait(), Outcome(true, std::nullopt));
  restart();
  EXPECT_EQ(Kestrova::connectedProfileId(), "p1");
  // Configured with another profile's token, collection resumes for the connected profile:
  // its samples and its statistics go to p1, nothing to p2 until p2 connects.
  ASSERT_EQ(configureAndWait(config("p2")), Outcome(true, std::nullopt));
  saveEveryFamily(utc(2024, 4, 1, 8));
  auto bySchema = waitForSchemas("p1", {{"body-weight", 1}, {"ks-heart-rate-sample", 1}});
  EXPECT_EQ(bySchema["body-weight"].size(), 1u);
  EXPECT_FALSE(bySchema["ks-heart-rate-sample"].empty());
  EXPECT_TRUE(server_->dataPoints("p2").empty());

  // Connecting that profile disconnects the first (its anchors go), then stores the new one.
  ASSERT_EQ(connectAndWait(), Outcome(true, std::nullopt));
  EXPECT_TRUE(log_->contains("Profile p1 has been disconnected"));
  EXPECT_EQ(Kestrova::connectedProfileId(), "p2");

  // Disconnect forgets the profile and the anchors but keeps the stored token.
  Kestrova::disconnect();
  EXPECT_EQ(Kestrova::currentStatus().value, Kestrova::Status::Case::disconnected);
  EXPECT_FALSE(anchors.storedAnchor("HKQuantityTypeIdentifierBodyMass"));
  EXPECT_FALSE(anchors.storedAnchor("HKWorkoutTypeIdentifier"));
  TokenStore tokens(platform_->secureStore, platform_->applicationIdentifier);
  EXPECT_EQ(tokens.tokenForProfile("p2").value(), server_->tokenFor("p2"));
}

TEST_F(ConnectionTest, FailuresOfEveryKind) {
  // connect before configure.
  EXPECT_EQ(connectAndWait(), Outcome(false, KestrovaHealthKitError::noProfileIdProvided()));

  // Configuration errors, host tested before scheme.
  EXPECT_EQ(configureAndWait(KestrovaConfig("not-a-token")),
            Outcome(false, KestrovaHealthKitError::invalidToken("not-a-token")));
  const auto token = server_->tokenFor("p1");
  EXPECT_EQ(configureAndWait(KestrovaConfig(token, "/api/v1/")),
            Outcome(false, KestrovaHealthKitError::invalidHost()));
  EXPECT_EQ(configureAndWait(KestrovaConfig(token, "//example.org/api/")),
            Outcome(false, KestrovaHealthKitError::invalidScheme()));
  EXPECT_EQ(configureAndWait(KestrovaConfig(token, "http://exa mple.org/")),
            Outcome(false, KestrovaHealthKitError::apiURLNotValid()));

  // The generic form carries the domain and the code.
  std::promise<std::optional<GenericError>> generic;
  Kestrova::_configure(KestrovaConfig(token, "/relative"),
                       [&](bool, std::optional<GenericError> error) { generic.set_value(error); });
  EXPECT_EQ(generic.get_future().get(),
            (GenericError{"KestrovaLib.KestrovaHealthKitError", 8, "Invalid url host"}));

  // A token the back end does not accept.
  auto stranger = testing::startServer("another-secret");
  ASSERT_TRUE(stranger);
  ASSERT_EQ(configureAndWait(KestrovaConfig(stranger->tokenFor("p1"), server_->baseUrl())),
            Outcome(true, std::nullopt));
  EXPECT_EQ(connectAndWait(),
            Outcome(false, KestrovaHealthKitError::failedToValidateProfile("p1")));
  EXPECT_EQ(Kestrova::currentStatus().value, Kestrova::Status::Case::disconnected);

  // A store that refuses the authorisation request.
  restart(HostStore::Mode::refusingAuthorization);
  ASSERT_EQ(configureAndWait(config("p1")), Outcome(true, std::nullopt));
  const auto refused = connectAndWait();
  EXPECT_FALSE(refused.first);
  ASSERT_TRUE(refused.second);
  EXPECT_EQ(refused.second->code(), KestrovaHealthKitError::Code::authorizationNotGranted);
  EXPECT_EQ(refused.second->payload(),
            "Optional(Error Domain=HealthStore Code=5 \"Authorization not determined\")");
  EXPECT_EQ(Kestrova::currentStatus().value, Kestrova::Status::Case::disconnected);
  EXPECT_FALSE(Kestrova::statusCodeFromRawValue(3));

  // A host's store on a device without health data is no store: connect fails before any
  // authorisation request, and disconnect leaves the connected profile alone.
  restart();
  ASSERT_EQ(configureAndWait(config("p1")), Outcome(true, std::nullopt));
  ASSERT_EQ(connectAndWait(), Outcome(true, std::nullopt));
  restart(HostStore::Mode::withoutHealthData);
  EXPECT_FALSE(Kestrova::canConnectToHealthData());
  EXPECT_TRUE(log_->contains("HealthKit is not available"));
  ASSERT_EQ(configureAndWait(config("p2")), Outcome(true, std::nullopt));
  EXPECT_EQ(connectAndWait(), Outcome(false, KestrovaHealthKitError::HealthKitStoreNotAvailable()));
  Kestrova::disconnect();
  EXPECT_EQ(Kestrova::connectedProfileId(), "p1");
}

}  // namespace
}  // namespace kestrova
