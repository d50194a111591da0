#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include "api/api.h"
#include "api/profile_request.h"
#include "facade/host_hooks.h"
#include "facade/kestrova_testing.h"
#include "healthkit/health_kit_types.h"
#include "healthkit/sample_collector.h"
#include "healthstore/embedded_health_store.h"
#include "kestrova/facade.h"
#include "platform/log.h"
#include "platform/platform.h"
#include "platform/url_components.h"
#include "statistics/data_manager.h"
#include "statistics/statistics_queries.h"
#include "storage/anchor_store.h"
#include "storage/delivery_store.h"
#include "storage/profile_store.h"
#include "storage/token_store.h"

namespace kestrova {
namespace {

constexpr std::string_view kCategory = "kestrova";
constexpr std::string_view kHealthStoreFile = "healthstore.sqlite";
constexpr std::string_view kHealthKitNotAvailable = "HealthKit is not available";
constexpr std::string_view kStoreNotOpened = "The health store could not be opened: %{public}@";
constexpr std::string_view kAlreadyConnected = "Profile %{public}@ has already been connected";
constexpr std::string_view kProfileDisconnected = "Profile %{public}@ has been disconnected";
constexpr std::string_view kDisableFailedWithError =
    "Could not disable background delivery, error: %{public}@";
constexpr std::string_view kDisableFailed = "Could not disable background delivery";
constexpr std::string_view kUnexpectedFailure = "Unexpected failure in %{public}@: %{public}@";
constexpr std::string_view kCompletionThrew = "A completion of %{public}@ threw: %{public}@";
constexpr std::string_view kDeliveryListener = "the delivery listener";
constexpr std::string_view kSyncState = "syncState";

using Completion = Kestrova::Completion;
using Error = KestrovaHealthKitError;

// The text the platform gives for an optional error: "nil", or the error's debug form.
std::string optionalErrorDescription(const std::optional<kestrova::Error>& error) {
  if (!error) {
    return "nil";
  }
  return "Optional(Error Domain=" + error->domain + " Code=" + std::to_string(error->code) + " \"" +
         error->description + "\")";
}

// The shared instance: the facade's long-lived collaborators. `mutex` owns the configuration
// fields; `connection` serialises a disconnect with the start of collection; everything else
// is set at construction and immutable.
class Instance : public std::enable_shared_from_this<Instance> {
 public:
  explicit Instance(std::shared_ptr<const Platform> platform)
      : platform(std::move(platform)),
        anchors(std::make_shared<AnchorStore>(this->platform->defaults)),
        tokens(std::make_shared<TokenStore>(this->platform->secureStore,
                                            this->platform->applicationIdentifier)),
        profiles(this->platform->defaults),
        healthKitDataStore(openHealthStore(*this->platform)) {
    if (!healthKitDataStore) {
      logInfo(kCategory, kHealthKitNotAvailable);
    }
  }

  // Made after construction: the collector holds the instance weakly.
  void makeCollector() {
    if (!healthKitDataStore) {
      return;
    }
    SampleCollector::Environment environment;
    environment.store = healthKitDataStore;
    environment.anchors = anchors;
    environment.clock = platform->clock;
    environment.system = platform->systemVersion;
    environment.encodingQueue = mainQueue();
    environment.settings = [weak = weak_from_this()]() -> std::optional<SampleCollector::Settings> {
      auto self = weak.lock();
      return self ? self->collectionSettings() : std::nullopt;
    };
    environment.statistics = [weak = weak_from_this()](std::vector<ObjectType> types) {
      if (auto self = weak.lock()) {
        self->statisticsPass->run(std::move(types));
      }
    };
    collector = SampleCollector::make(std::move(environment));

    StatisticsPass::Environment passEnvironment;
    passEnvironment.store = healthKitDataStore;
    passEnvironment.anchors = anchors;
    passEnvironment.defaults = platform->defaults;
    passEnvironment.clock = platform->clock;
    passEnvironment.settings = [weak =
                                    weak_from_this()]() -> std::optional<StatisticsPass::Settings> {
      auto self = weak.lock();
      return self ? self->statisticsSettings() : std::nullopt;
    };
    statisticsPass = StatisticsPass::make(std::move(passEnvironment));
  }

  std::shared_ptr<DispatchQueue> mainQueue() const { return platform->dispatcher->mainQueue(); }

  std::optional<StatisticsPass::Settings> statisticsSettings() const {
    std::lock_guard lock(mutex);
    if (!token || !token->profileId || !startDate || !dataManager) {
      return std::nullopt;
    }
    return StatisticsPass::Settings{dataManager, *startDate, *token->profileId,
                                    platform->timeZone->current()};
  }

  // Samples belong to the connected profile, as its statistics do: a token of another profile
  // that was configured since takes over only once that profile connects.
  std::optional<SampleCollector::Settings> collectionSettings() const {
    const auto profile = profiles.storedProfile();
    std::lock_guard lock(mutex);
    if (!profile || !startDate || !api) {
      return std::nullopt;
    }
    SampleCollector::Settings settings{*startDate, profile->id, {}, *api};
    for (auto type : enabledDatatypes) {
      if (auto object = objectType(type, platform->systemVersion)) {
        settings.enabledTypes.emplace(object->identifier());
      }
    }
    return settings;
  }

  const std::shared_ptr<const Platform> platform;
  const std::shared_ptr<AnchorStore> anchors;
  const std::shared_ptr<TokenStore> tokens;
  ProfileStore profiles;
  const std::shared_ptr<HealthStore> healthKitDataStore;
  std::shared_ptr<SampleCollector> collector;      // set once, right after construction
  std::shared_ptr<StatisticsPass> statisticsPass;  // set once, right after construction
  // Held while a disconnect runs and while collection starts for a stored profile (on the
  // main queue): a start that found the profile just before a host thread disconnected it
  // would otherwise run after the disconnect, and its anchors, stored after the disconnect
  // deleted them, would make the next connection skip every earlier sample.
  std::mutex connection;

  mutable std::mutex mutex;  // owns the fields below
  std::optional<Token> token;
  std::optional<Date> startDate;
  std::vector<KestrovaHealthKitDataType> enabledDatatypes;
  std::shared_ptr<DataManager> dataManager;
  std::shared_ptr<const API> api;
  Kestrova::DeliveryListener deliveryListener;

 private:
  static std::shared_ptr<HealthStore> openHealthStore(const Platform& platform) {
    if (platform.healthStore) {
      // The host's store stands for the platform's: on a device without health data there is
      // none to use.
      return platform.healthStore->isHealthDataAvailable() ? platform.healthStore : nullptr;
    }
    EmbeddedHealthStoreOptions options;
    options.path = platform.dataDirectory / kHealthStoreFile;
    options.dispatcher = platform.dispatcher;
    options.clock = platform.clock;
    options.timeZone = platform.timeZone;
    auto store = EmbeddedHealthStore::open(std::move(options));
    if (!store) {
      logError(kCategory, kStoreNotOpened, {store.error().text()});
      return nullptr;
    }
    return std::move(store).value();
  }
};

struct SharedInstance {
  std::mutex mutex;  // owns everything below
  std::shared_ptr<Instance> instance;
  bool attempted = false;
  // Instances replaced by a test's restart; kept so that late callbacks find them alive.
  std::vector<std::shared_ptr<Instance>> retired;
};

// Never destroyed, so a host's exit order cannot hurt it.
SharedInstance& sharedState() {
  static auto* state = new SharedInstance();
  return *state;
}

std::shared_ptr<Instance> shared() {
  auto& state = sharedState();
  std::lock_guard lock(state.mutex);
  if (!state.attempted) {
    state.attempted = true;
    if (auto platform = currentPlatform()) {
      state.instance = std::make_shared<Instance>(std::move(platform));
      state.instance->makeCollector();
    }
  }
  return state.instance;
}

// Calls a host completion at most once, whatever path reaches it, and keeps its exceptions
// from unwinding into the library's queues.
class OnceCompletion {
 public:
  OnceCompletion(std::string_view operation, Completion completion)
      : operation_(operation), state_(std::make_shared<State>(std::move(completion))) {}

  void operator()(bool success, std::optional<Error> error) const {
    if (state_->called.exchange(true) || !state_->completion) {
      return;
    }
    try {
      state_->completion(success, std::move(error));
    } catch (const std::exception& e) {
      logError(kCategory, kCompletionThrew, {operation_, e.what()});
    } catch (...) {
      logError(kCategory, kCompletionThrew, {operation_, "unknown exception"});
    }
  }

 private:
  struct State {
    explicit State(Completion c) : completion(std::move(c)) {}
    Completion completion;
    std::atomic<bool> called{false};
  };
  std::string_view operation_;
  std::shared_ptr<State> state_;
};

// Delivers on the main queue; without an instance there is no main queue, so the caller's
// thread it is.
void complete(const std::shared_ptr<Instance>& instance, const OnceCompletion& completion,
              bool success, std::optional<Error> error) {
  if (!instance) {
    completion(success, std::move(error));
    return;
  }
  instance->mainQueue()->async(
      [completion, success, error = std::move(error)]() mutable { completion(success, error); });
}

void fail(const std::shared_ptr<Instance>& instance, const OnceCompletion& completion,
          Error error) {
  complete(instance, completion, false, std::move(error));
}

// Runs `body`; anything it throws is logged and reported as the bridge failing.
template <class Body>
void guarded(std::string_view operation, const OnceCompletion& completion, Body body) noexcept {
  try {
    body();
  } catch (const std::exception& e) {
    logError(kCategory, kUnexpectedFailure, {operation, e.what()});
    completion(false, Error::bridgeCouldNotBeSetUp());
  } catch (...) {
    logError(kCategory, kUnexpectedFailure, {operation, "unknown exception"});
    completion(false, Error::bridgeCouldNotBeSetUp());
  }
}

// The profile request; `completion` runs on the main queue.
void validateProfile(const std::shared_ptr<Instance>& instance, const std::string& profileId,
                     std::function<void(bool, std::optional<Error>)> completion) {
  std::shared_ptr<const API> api;
  {
    std::lock_guard lock(instance->mutex);
    api = instance->api;
  }
  requestProfile(api.get(), profileId,
                 [main = instance->mainQueue(), completion = std::move(completion)](
                     bool success, std::optional<Error> error) {
                   main->async([completion, success, error = std::move(error)] {
                     completion(success, error);
                   });
                 });
}

void startCollection(const std::shared_ptr<Instance>& instance) {
  if (instance->collector) {
    instance->collector->startObserving();
  }
}

void disconnectInstance(const std::shared_ptr<Instance>& instance) {
  std::shared_ptr<DataManager> dataManager;
  {
    std::lock_guard lock(instance->mutex);
    dataManager = instance->dataManager;
  }
  if (!instance->healthKitDataStore || !dataManager) {
    return;
  }
  std::lock_guard connection(instance->connection);
  instance->collector->stopObserving();
  instance->statisticsPass->stop();
  dataManager->deleteAllStoredStatistics();
  instance->healthKitDataStore->disableAllBackgroundDelivery(
      [](bool success, const std::optional<kestrova::Error>& error) {
        if (success) {
          return;
        }
        if (error) {
          logError(kCategory, kDisableFailedWithError, {error->text()});
        } else {
          logError(kCategory, kDisableFailed);
        }
      });
  if (auto profile = instance->profiles.storedProfile()) {
    logInfo(kCategory, kProfileDisconnected, {profile->id});
  }
  instance->profiles.remove();

  std::vector<ObjectType> anchored = {ObjectType::workoutType()};
  for (auto identifier : {kSleepAnalysisIdentifier, kMindfulSessionIdentifier}) {
    if (auto type = ObjectType::categoryType(identifier)) {
      anchored.push_back(*type);
    }
  }
  if (instance->platform->systemVersion.isAtLeast(kElectrocardiogramSystemMajor)) {
    anchored.push_back(ObjectType::electrocardiogramType());
  }
  for (const auto& type : readTypes(instance->platform->systemVersion)) {
    if (type.kind() == ObjectKind::quantity) {
      anchored.push_back(type);
    }
  }
  for (const auto& type : anchored) {
    instance->anchors->deleteAnchor(type.identifier());
  }
}

// Runs `call`, keeping whatever it throws from unwinding into the library's queues.
template <class Call>
void callHost(std::string_view what, const Call& call) noexcept {
  try {
    call();
  } catch (const std::exception& e) {
    logError(kCategory, kCompletionThrew, {what, e.what()});
  } catch (...) {
    logError(kCategory, kCompletionThrew, {what, "unknown exception"});
  }
}

KestrovaDeliveryEvent publicEvent(const DeliveryEvent& event) {
  KestrovaDeliveryEvent result;
  result.family = event.family;
  result.dataPoints = event.dataPoints;
  result.accepted = event.accepted;
  result.httpStatus = event.httpStatus;
  if (event.error) {
    result.error = GenericError{event.error->domain, static_cast<int>(event.error->code),
                                event.error->description};
  }
  result.setAside = event.setAside;
  result.retryNotBefore = event.retryNotBefore;
  return result;
}

// Hands an upload's outcome to the host's listener on the main queue. Holds the instance
// weakly: the API that calls it may outlive it in a test's restart.
DeliveryRecorder::Listener deliveryListenerOf(const std::shared_ptr<Instance>& instance) {
  return [weak = std::weak_ptr<Instance>(instance)](const DeliveryEvent& event) {
    auto self = weak.lock();
    if (!self) {
      return;
    }
    self->mainQueue()->async([weak, event = publicEvent(event)] {
      auto self = weak.lock();
      if (!self) {
        return;
      }
      Kestrova::DeliveryListener listener;
      {
        std::lock_guard lock(self->mutex);
        listener = self->deliveryListener;
      }
      if (listener) {
        callHost(kDeliveryListener, [&] { listener(event); });
      }
    });
  };
}

KestrovaSyncState readSyncState(const Platform& platform) {
  KestrovaSyncState state;
  FileServer files(platform.files, FileServer::sharedWriteQueue(*platform.dispatcher));
  const DeliveryStore store(platform.defaults);
  const auto now = platform.clock->now();
  for (auto family : kDeliveryFamilies) {
    KestrovaFamilySyncState entry;
    entry.family = std::string(family);
    const auto delivery = store.family(family);
    entry.lastDelivered = delivery.lastDelivered;
    entry.deliveredPoints = delivery.deliveredPoints;
    if (const auto& failure = delivery.lastError) {
      entry.lastError = KestrovaDeliveryError{failure->httpStatus, failure->domain, failure->code,
                                              failure->message, failure->at};
    }
    state.families.push_back(std::move(entry));
  }
  for (bool bulk : {false, true}) {
    for (const auto& file : files.list(bulk)) {
      const auto family = familyOfFile(file);
      auto entry = std::find_if(state.families.begin(), state.families.end(),
                                [&](const auto& candidate) { return candidate.family == family; });
      if (entry == state.families.end()) {
        continue;
      }
      ++entry->pendingFiles;
      if (const auto url = files.fileURL(file, bulk)) {
        if (const auto size = platform.files->fileSize(*url)) {
          entry->pendingBytes += size.value();
        }
      }
      const auto age =
          std::max(std::chrono::seconds(0),
                   std::chrono::duration_cast<std::chrono::seconds>(now - file.timestamp));
      entry->oldestPendingAge = std::max(entry->oldestPendingAge.value_or(age), age);
    }
  }
  for (const auto& rejected : files.listRejected()) {
    state.rejected.push_back(KestrovaRejectedFile{
        rejected.components.fileName(), std::string(familyOfFile(rejected.components)),
        rejected.httpStatus, rejected.attempts, rejected.reason, rejected.at});
  }
  return state;
}

void configureInstance(const std::shared_ptr<Instance>& instance, const KestrovaConfig& config,
                       const OnceCompletion& completion) {
  auto profileId = instance->tokens->takeToken(config.token());
  if (!profileId) {
    fail(instance, completion, Error::invalidToken(config.token()));
    return;
  }
  {
    std::lock_guard lock(instance->mutex);
    instance->token = Token{true, *profileId};
  }
  const auto components = URLComponents::parse(config.url());
  if (!components || !components->url()) {
    fail(instance, completion, Error::apiURLNotValid());
    return;
  }
  const auto host = components->host();
  if (!host || host->empty()) {
    fail(instance, completion, Error::invalidHost());
    return;
  }
  if (!components->scheme()) {
    fail(instance, completion, Error::invalidScheme());
    return;
  }
  auto api = std::make_shared<const API>(*components, *instance->platform, &makeURLSession,
                                         deliveryListenerOf(instance));
  auto dataManager = DataManager::make(
      *api, config.startDate(),
      DataManager::Environment{instance->platform->defaults, instance->platform->clock,
                               instance->platform->dispatcher});
  {
    std::lock_guard lock(instance->mutex);
    instance->startDate = config.startDate();
    instance->enabledDatatypes = config.enabledDataTypes();
    instance->api = std::move(api);
    instance->dataManager = std::move(dataManager);
  }
  if (auto profile = instance->profiles.storedProfile()) {
    validateProfile(instance, profile->id,
                    [weak = std::weak_ptr<Instance>(instance), id = profile->id](
                        bool success, std::optional<Error>) {
                      auto self = weak.lock();
                      // A disconnect (or another profile) while the answer was on its way wins:
                      // nothing may be collected for a profile that is no longer connected.
                      if (!success || !self) {
                        return;
                      }
                      std::lock_guard connection(self->connection);
                      const auto stored = self->profiles.storedProfile();
                      if (stored && stored->id == id) {
                        startCollection(self);
                      }
                    });
  }
  complete(instance, completion, true, std::nullopt);
}

// After the back end accepted the profile, on the main queue.
void authorizeAndStart(const std::shared_ptr<Instance>& instance, const std::string& profileId,
                       const OnceCompletion& completion) {
  const auto store = instance->healthKitDataStore;
  if (!store) {
    completion(false, Error::HealthKitStoreNotAvailable());
    return;
  }
  std::set<ObjectType> readSet;
  {
    std::lock_guard lock(instance->mutex);
    for (auto type : instance->enabledDatatypes) {
      if (auto object = objectType(type, instance->platform->systemVersion)) {
        readSet.insert(*object);
      }
    }
  }
  store->requestAuthorization(
      {}, std::move(readSet),
      [weak = std::weak_ptr<Instance>(instance), main = instance->mainQueue(), profileId,
       completion](bool success, std::optional<kestrova::Error> error) {
        main->async([weak, profileId, completion, success, error = std::move(error)] {
          guarded("connect", completion, [&] {
            if (!success) {
              completion(false, Error::authorizationNotGranted(optionalErrorDescription(error)));
              return;
            }
            auto self = weak.lock();
            if (!self || !self->healthKitDataStore) {
              completion(false, Error::couldNotStartHealthKitQuery());
              return;
            }
            if (auto stored = self->profiles.storedProfile(); stored && stored->id != profileId) {
              disconnectInstance(self);
            }
            {
              std::lock_guard connection(self->connection);
              self->profiles.store(Profile{profileId});
              startCollection(self);
            }
            completion(true, std::nullopt);
          });
        });
      });
}

void connectInstance(const std::shared_ptr<Instance>& instance, const OnceCompletion& completion) {
  std::optional<std::string> profileId;
  {
    std::lock_guard lock(instance->mutex);
    if (instance->token) {
      profileId = instance->token->profileId;
    }
  }
  if (!profileId) {
    fail(instance, completion, Error::noProfileIdProvided());
    return;
  }
  if (auto stored = instance->profiles.storedProfile(); stored && stored->id == *profileId) {
    logInfo(kCategory, kAlreadyConnected, {*profileId});
    validateProfile(instance, *profileId, [completion](bool success, std::optional<Error> error) {
      completion(success, std::move(error));
    });
    return;
  }
  validateProfile(instance, *profileId,
                  [weak = std::weak_ptr<Instance>(instance), profileId = *profileId, completion](
                      bool success, std::optional<Error> error) {
                    if (!success) {
                      completion(false, std::move(error));
                      return;
                    }
                    auto self = weak.lock();
                    if (!self) {
                      completion(false, Error::bridgeCouldNotBeSetUp());
                      return;
                    }
                    guarded("connect", completion,
                            [&] { authorizeAndStart(self, profileId, completion); });
                  });
}

Kestrova::GenericCompletion::result_type forwardGeneric(const Kestrova::GenericCompletion& generic,
                                                        bool success,
                                                        const std::optional<Error>& error) {
  if (!generic) {
    return;
  }
  std::optional<GenericError> bridged;
  if (error) {
    bridged = error->genericError();
  }
  generic(success, std::move(bridged));
}

}  // namespace

void resetSharedInstanceForTesting() {
  auto& state = sharedState();
  std::lock_guard lock(state.mutex);
  if (state.instance) {
    state.retired.push_back(std::move(state.instance));
  }
  state.instance = nullptr;
  state.attempted = false;
}

namespace host {

bool retryPendingUploads() noexcept {
  try {
    auto instance = shared();
    if (!instance) {
      return false;
    }
    std::shared_ptr<const API> api;
    std::shared_ptr<DataManager> dataManager;
    {
      std::lock_guard lock(instance->mutex);
      api = instance->api;
      dataManager = instance->dataManager;
    }
    if (!api || !dataManager) {
      return false;
    }
    api->uploadPending();
    dataManager->uploadNow();
    return true;
  } catch (const std::exception& e) {
    logError(kCategory, kUnexpectedFailure, {"retryPendingUploads", e.what()});
    return false;
  } catch (...) {
    logError(kCategory, kUnexpectedFailure, {"retryPendingUploads", "unknown exception"});
    return false;
  }
}

void stopCollection() noexcept {
  try {
    auto instance = shared();
    if (instance && instance->collector) {
      instance->collector->stopObserving();
    }
  } catch (const std::exception& e) {
    logError(kCategory, kUnexpectedFailure, {"stopCollection", e.what()});
  } catch (...) {
    logError(kCategory, kUnexpectedFailure, {"stopCollection", "unknown exception"});
  }
}

}  // namespace host
}  // namespace kestrova

using kestrova::OnceCompletion;

std::optional<Kestrova::StatusCode> Kestrova::statusCodeFromRawValue(int rawValue) noexcept {
  if (rawValue < 0 || rawValue > 2) {
    return std::nullopt;
  }
  return static_cast<StatusCode>(rawValue);
}

void Kestrova::configure(const KestrovaConfig& config, Completion completion) noexcept {
  const OnceCompletion once("configure", std::move(completion));
  kestrova::guarded("configure", once, [&] {
    auto instance = kestrova::shared();
    if (!instance) {
      kestrova::fail(instance, once, KestrovaHealthKitError::bridgeCouldNotBeSetUp());
      return;
    }
    kestrova::configureInstance(instance, config, once);
  });
}

void Kestrova::_configure(const KestrovaConfig& config, GenericCompletion completion) noexcept {
  configure(config, [completion = std::move(completion)](
                        bool success, std::optional<KestrovaHealthKitError> error) {
    kestrova::forwardGeneric(completion, success, error);
  });
}

Kestrova::Status Kestrova::currentStatus() noexcept {
  try {
    auto instance = kestrova::shared();
    if (!instance) {
      return Status{Status::Case::notConfigured, std::nullopt};
    }
    if (auto profile = instance->profiles.storedProfile()) {
      return Status{Status::Case::connected, profile->id};
    }
    return Status{Status::Case::disconnected, std::nullopt};
  } catch (const std::exception& e) {
    kestrova::logError(kestrova::kCategory, kestrova::kUnexpectedFailure,
                       {"currentStatus", e.what()});
    return Status{Status::Case::notConfigured, std::nullopt};
  }
}

Kestrova::StatusCode Kestrova::_currentStatus() noexcept {
  switch (currentStatus().value) {
    case Status::Case::connected:
      return StatusCode::connected;
    case Status::Case::disconnected:
      return StatusCode::disconnected;
    case Status::Case::notConfigured:
      return StatusCode::notConfigured;
  }
  return StatusCode::notConfigured;
}

std::optional<std::string> Kestrova::connectedProfileId() noexcept {
  return currentStatus().profileId;
}

bool Kestrova::canConnectToHealthData() noexcept {
  try {
    auto instance = kestrova::shared();
    return instance && instance->healthKitDataStore &&
           instance->healthKitDataStore->isHealthDataAvailable();
  } catch (const std::exception& e) {
    kestrova::logError(kestrova::kCategory, kestrova::kUnexpectedFailure,
                       {"canConnectToHealthData", e.what()});
    return false;
  }
}

void Kestrova::connect(Completion completion) noexcept {
  const OnceCompletion once("connect", std::move(completion));
  kestrova::guarded("connect", once, [&] {
    auto instance = kestrova::shared();
    if (!instance) {
      kestrova::fail(instance, once, KestrovaHealthKitError::bridgeCouldNotBeSetUp());
      return;
    }
    kestrova::connectInstance(instance, once);
  });
}

void Kestrova::_connect(GenericCompletion completion) noexcept {
  connect([completion = std::move(completion)](bool success,
                                               std::optional<KestrovaHealthKitError> error) {
    kestrova::forwardGeneric(completion, success, error);
  });
}

void Kestrova::disconnect() noexcept {
  try {
    if (auto instance = kestrova::shared()) {
      kestrova::disconnectInstance(instance);
    }
  } catch (const std::exception& e) {
    kestrova::logError(kestrova::kCategory, kestrova::kUnexpectedFailure, {"disconnect", e.what()});
  }
}

void Kestrova::syncState(SyncStateCompletion completion) noexcept {
  kestrova::callHost(kestrova::kSyncState, [&] {
    auto instance = kestrova::shared();
    if (!instance) {
      if (completion) {
        completion(KestrovaSyncState{});
      }
      return;
    }
    // On the delivery queue: after the outcomes already received are recorded.
    const auto& platform = instance->platform;
    platform->dispatcher
        ->sharedSerialQueue(kestrova::DeliveryRecorder::kQueueLabel,
                            kestrova::QualityOfService::utility)
        ->async([instance, completion = std::move(completion)] {
          auto state = std::make_shared<const KestrovaSyncState>();
          kestrova::callHost(kestrova::kSyncState, [&] {
            state = std::make_shared<const KestrovaSyncState>(
                kestrova::readSyncState(*instance->platform));
          });
          instance->mainQueue()->async([completion, state] {
            if (completion) {
              kestrova::callHost(kestrova::kSyncState, [&] { completion(*state); });
            }
          });
        });
  });
}

void Kestrova::setDeliveryListener(DeliveryListener listener) noexcept {
  kestrova::callHost(kestrova::kDeliveryListener, [&] {
    if (auto instance = kestrova::shared()) {
      std::lock_guard lock(instance->mutex);
      instance->deliveryListener = std::move(listener);
    }
  });
}
