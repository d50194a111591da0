#include "healthkit/sample_collector.h"

#include <algorithm>
#include <atomic>

#include "datapoints/body_measurement.h"
#include "datapoints/category_sample.h"
#include "datapoints/electrocardiogram.h"
#include "datapoints/sleep.h"
#include "datapoints/workout.h"
#include "healthkit/health_kit_types.h"
#include "platform/health/predicate.h"
#include "platform/log.h"

namespace kestrova {
namespace {

constexpr std::string_view kCategory = "healthkit";
constexpr std::string_view kUnknownType = "UNKNOWN";
constexpr std::string_view kQueryError = "Error querying samples for %@: %@";
constexpr std::string_view kNoSamples = "No samples found for %@";
constexpr std::string_view kEnableFailedWithError =
    "Could not enable background delivery for %{public}@ with error: %@";
constexpr std::string_view kEnableFailed = "Could not enable background delivery for %{public}@";

}  // namespace

std::string_view filePrefix(SampleFamily family) {
  switch (family) {
    case SampleFamily::workouts:
      return kWorkoutPrefix;
    case SampleFamily::sleep:
      return kSleepPrefix;
    case SampleFamily::mindfulSessions:
      return kMindfulPrefix;
    case SampleFamily::electrocardiograms:
      return kEcgPrefix;
    case SampleFamily::bodyMeasurements:
      return kBodyPrefix;
  }
  return "";
}

std::size_t SampleCollector::fetchLimit(SampleFamily family) {
  // Samples of one fetch: a first sync of years goes in pages that each end in files before
  // the next is read. Workouts bring their heart rates and electrocardiograms their voltages,
  // so their pages are short.
  switch (family) {
    case SampleFamily::workouts:
      return 20;
    case SampleFamily::electrocardiograms:
      return 3;
    case SampleFamily::sleep:
    case SampleFamily::mindfulSessions:
    case SampleFamily::bodyMeasurements:
      break;
  }
  return kMaximumDataPointsPerFile;
}

std::shared_ptr<SampleCollector> SampleCollector::make(Environment environment) {
  return std::shared_ptr<SampleCollector>(new SampleCollector(std::move(environment)));
}

std::vector<SampleCollector::Route> SampleCollector::routes() const {
  std::vector<Route> routes = {{SampleFamily::workouts, ObjectType::workoutType()}};
  if (auto sleep = ObjectType::categoryType(kSleepAnalysisIdentifier)) {
    routes.push_back({SampleFamily::sleep, *sleep});
  }
  if (auto mindful = ObjectType::categoryType(kMindfulSessionIdentifier)) {
    routes.push_back({SampleFamily::mindfulSessions, *mindful});
  }
  if (environment_.system.isAtLeast(kElectrocardiogramSystemMajor)) {
    routes.push_back({SampleFamily::electrocardiograms, ObjectType::electrocardiogramType()});
  }
  for (const auto& type : bodyMeasurementTypes()) {
    routes.push_back({SampleFamily::bodyMeasurements, type});
  }
  return routes;
}

std::optional<SampleCollector::Settings> SampleCollector::settingsFor(
    const ObjectType& type) const {
  auto settings = environment_.settings();
  // Types the host did not enable are neither read nor observed: the embedded store grants
  // every read, so this is what keeps them on the device.
  if (!settings || !settings->enabledTypes.contains(type.identifier())) {
    return std::nullopt;
  }
  return settings;
}

void SampleCollector::startObserving() {
  stopObserving();
  const auto all = routes();
  for (const auto& route : all) {
    fetchNewSamples(route.family, route.type);
  }
  for (const auto& route : all) {
    observe(route);
  }
  if (environment_.statistics) {
    const auto types = statisticsTypes();
    if (!types.empty()) {
      environment_.statistics(types);
    }
    for (const auto& type : types) {
      observeStatistics(type);
    }
  }
  enableBackgroundDelivery();
}

void SampleCollector::stopObserving() {
  std::vector<std::shared_ptr<Query>> running;
  {
    std::lock_guard lock(mutex_);
    ++generation_;
    fetches_.clear();
    running.swap(running_);
  }
  for (const auto& query : running) {
    environment_.store->stopQuery(query);
  }
}

std::size_t SampleCollector::runningQueryCount() const {
  std::lock_guard lock(mutex_);
  return running_.size();
}

void SampleCollector::execute(std::shared_ptr<Query> query) {
  {
    std::lock_guard lock(mutex_);
    running_.push_back(query);
  }
  environment_.store->executeQuery(std::move(query));
}

void SampleCollector::forget(const Query& query) {
  std::lock_guard lock(mutex_);
  std::erase_if(running_, [&](const auto& running) { return running.get() == &query; });
}

void SampleCollector::observe(const Route& route) {
  const auto settings = settingsFor(route.type);
  if (!settings) {
    return;
  }
  auto predicate =
      predicateForSamples(settings->startDate, std::nullopt, QueryOptions::strictStartDate);
  // A wake-up still on its way when the observers stop must not fetch for the next
  // generation: its anchor, stored after the disconnect deleted the anchors, would make the
  // next connection skip every sample before it.
  execute(
      ObserverQuery::make(route.type, std::move(predicate),
                          [weak = weak_from_this(), route, generation = currentGeneration()](
                              const std::shared_ptr<ObserverQuery>&, const std::vector<ObjectType>&,
                              ObserverCompletionHandler completion, const std::optional<Error>&) {
                            if (auto self = weak.lock()) {
                              self->fetchOf(generation, route.family, route.type);
                            }
                            // Acknowledged before the fetch has delivered: the fetch runs on its
                            // own.
                            completion();
                          }));
}

std::vector<ObjectType> SampleCollector::statisticsTypes() const {
  std::vector<ObjectType> types;
  const auto settings = environment_.settings();
  if (!settings) {
    return types;
  }
  for (const auto& type : dailySummaryTypes()) {
    if (settings->enabledTypes.contains(type.identifier())) {
      types.push_back(type);
    }
  }
  return types;
}

void SampleCollector::observeStatistics(const ObjectType& type) {
  const auto settings = settingsFor(type);
  if (!settings) {
    return;
  }
  auto predicate =
      predicateForSamples(settings->startDate, std::nullopt, QueryOptions::strictStartDate);
  execute(
      ObserverQuery::make(type, std::move(predicate),
                          [weak = weak_from_this(), type, generation = currentGeneration()](
                              const std::shared_ptr<ObserverQuery>&, const std::vector<ObjectType>&,
                              ObserverCompletionHandler completion, const std::optional<Error>&) {
                            // Only the changed type is recomputed: a pass over every type per
                            // wake-up would multiply the work by the number of observers.
                            if (auto self = weak.lock(); self && self->isCurrent(generation)) {
                              self->environment_.statistics({type});
                            }
                            completion();
                          }));
}

void SampleCollector::enableBackgroundDelivery() {
  for (const auto& type : readTypes(environment_.system)) {
    environment_.store->enableBackgroundDelivery(
        type, UpdateFrequency::immediate,
        [identifier = std::string(type.identifier())](bool success,
                                                      const std::optional<Error>& error) {
          if (success) {
            return;
          }
          if (error) {
            logError(kCategory, kEnableFailedWithError, {identifier, error->text()});
          } else {
            logError(kCategory, kEnableFailed, {identifier});
          }
        });
  }
}

void SampleCollector::fetchNewSamples(SampleFamily family, const ObjectType& type) {
  fetchOf(currentGeneration(), family, type);
}

void SampleCollector::fetchOf(std::uint64_t generation, SampleFamily family,
                              const ObjectType& type) {
  auto settings = settingsFor(type);
  if (!settings) {
    return;
  }
  {
    std::lock_guard lock(mutex_);
    if (generation != generation_) {
      return;
    }
    auto& state = fetches_[std::string(type.identifier())];
    if (state.running) {
      state.again = true;
      return;
    }
    state.running = true;
  }
  auto predicate =
      predicateForSamples(settings->startDate, std::nullopt, QueryOptions::strictStartDate);
  const auto anchor = environment_.anchors->storedAnchor(type.identifier());
  const auto limit = fetchLimit(family);
  execute(AnchoredObjectQuery::make(
      type, std::move(predicate), anchor, limit,
      [weak = weak_from_this(), family, type, generation, limit, settings = std::move(*settings)](
          const std::shared_ptr<AnchoredObjectQuery>& query,
          Result<AnchoredObjectResults> results) mutable {
        auto self = weak.lock();
        if (!self) {
          return;
        }
        // A delivered anchored query is done; keeping it would grow the set with every wake-up.
        self->forget(*query);
        auto samples = checkResults(*query, results);
        if (!results) {
          self->fetchEnded(family, type, generation, false);
          return;
        }
        // A full page: more may wait behind it, fetched once this one is written.
        const bool more = samples.size() + results->deletedObjects.size() >= limit;
        if (samples.empty()) {
          self->settle(type, results->newAnchor, generation);
          self->fetchEnded(family, type, generation, more);
          return;
        }
        self->deliver(family, type, std::move(settings), std::move(samples), results->newAnchor,
                      generation, more);
      }));
}

std::uint64_t SampleCollector::currentGeneration() const {
  std::lock_guard lock(mutex_);
  return generation_;
}

bool SampleCollector::isCurrent(std::uint64_t generation) const {
  std::lock_guard lock(mutex_);
  return generation == generation_;
}

void SampleCollector::settle(const ObjectType& type, std::optional<QueryAnchor> newAnchor,
                             std::uint64_t generation) {
  if (!newAnchor) {
    return;
  }
  // NOTE: stored under the lock, so that a disconnect, which bumps the generation before it
  // deletes the anchors, never sees an anchor of its connection stored after the deletion.
  std::lock_guard lock(mutex_);
  if (generation == generation_) {
    environment_.anchors->storeAnchor(*newAnchor, type.identifier());
  }
}

void SampleCollector::fetchEnded(SampleFamily family, const ObjectType& type,
                                 std::uint64_t generation, bool more) {
  {
    std::lock_guard lock(mutex_);
    if (generation != generation_) {
      return;
    }
    auto& state = fetches_[std::string(type.identifier())];
    state.running = false;
    if (!std::exchange(state.again, false) && !more) {
      return;
    }
  }
  fetchOf(generation, family, type);
}

std::vector<SamplePtr> SampleCollector::checkResults(const Query& query,
                                                     const Result<AnchoredObjectResults>& results) {
  const std::string_view identifier =
      query.objectType() ? query.objectType()->identifier() : kUnknownType;
  if (!results) {
    logError(kCategory, kQueryError, {identifier, results.error().description});
    return {};
  }
  if (!results->samples.empty()) {
    return results->samples;
  }
  logInfo(kCategory, kNoSamples, {identifier});
  return {};
}

QueryRunner SampleCollector::queryRunner() {
  return QueryRunner{[weak = weak_from_this()](std::shared_ptr<Query> query) {
                       if (auto self = weak.lock()) {
                         self->execute(std::move(query));
                       }
                     },
                     [weak = weak_from_this()](const std::shared_ptr<Query>& query) {
                       if (auto self = weak.lock()) {
                         self->forget(*query);
                       }
                     }};
}

void SampleCollector::encode(SampleFamily family, std::vector<SamplePtr> samples,
                             std::function<void(DataPoints, bool complete)> done) {
  auto whole = [done](DataPoints points) { done(std::move(points), true); };
  switch (family) {
    case SampleFamily::bodyMeasurements:
      whole(encodeBodyMeasurements(samples));
      return;
    case SampleFamily::mindfulSessions:
      whole(encodeMindfulSessions(samples));
      return;
    case SampleFamily::workouts:
      collectWorkoutDetails(samples, queryRunner(), environment_.encodingQueue, std::move(whole));
      return;
    case SampleFamily::sleep:
      collectSleepEpisodes(samples, environment_.system, queryRunner(), environment_.encodingQueue,
                           std::move(done));
      return;
    case SampleFamily::electrocardiograms:
      collectElectrocardiograms(samples, queryRunner(), environment_.encodingQueue,
                                std::move(whole));
      return;
  }
}

void SampleCollector::deliver(SampleFamily family, const ObjectType& type, Settings settings,
                              std::vector<SamplePtr> samples, QueryAnchor newAnchor,
                              std::uint64_t generation, bool more) {
  // The anchor moves only once the delivery is on disk (or proved unencodable, or its writes
  // failed for good): a crash in between fetches the batch again instead of losing it. A
  // delivery that lost a sample on the way (a failed sleep-stage query) keeps the anchor
  // back, so that the next fetch brings the sample again.
  encode(family, std::move(samples),
         [weak = weak_from_this(), family, type, settings = std::move(settings), newAnchor,
          generation, more](DataPoints points, bool complete) {
           auto self = weak.lock();
           if (!self) {
             return;
           }
           const std::optional<QueryAnchor> anchor =
               complete ? std::optional<QueryAnchor>(newAnchor) : std::nullopt;
           // A page kept back is not fetched again at once: it would fail the same way.
           auto settled = [weak, family, type, anchor, generation, more = more && complete] {
             if (auto self = weak.lock()) {
               self->settle(type, anchor, generation);
               self->fetchEnded(family, type, generation, more);
             }
           };
           if (points.empty() || !self->isCurrent(generation)) {
             settled();
             return;
           }
           self->writeBatches(family, settings, std::move(points), std::move(settled));
         });
}

void SampleCollector::writeBatches(SampleFamily family, const Settings& settings, DataPoints points,
                                   std::function<void()> settled) {
  const std::size_t files =
      (points.size() + kMaximumDataPointsPerFile - 1) / kMaximumDataPointsPerFile;
  auto remaining = std::make_shared<std::atomic<std::size_t>>(files);
  auto fileServer = settings.api.fileServer();
  for (std::size_t first = 0; first < points.size(); first += kMaximumDataPointsPerFile) {
    const auto last = std::min(points.size(), first + kMaximumDataPointsPerFile);
    nlohmann::json batch = nlohmann::json::array();
    for (auto i = first; i < last; ++i) {
      batch.push_back(std::move(points[i]));
    }
    // Text that is not UTF-8 (from a store value) is replaced rather than failing the batch.
    const auto text = batch.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    auto components = fileServer.makeBatchComponents(filePrefix(family), settings.profileId,
                                                     environment_.clock->now());
    fileServer.writeWithRetry(
        toBytes(text), std::move(components), true, 1,
        [api = settings.api, remaining, settled](std::optional<FileNameComponents> written) {
          if (written) {
            api.upload(*written, true);
          }
          if (remaining->fetch_sub(1) == 1) {
            settled();
          }
        });
  }
}

}  // namespace kestrova
