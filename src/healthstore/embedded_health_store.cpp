#include "healthstore/embedded_health_store.h"

#include <algorithm>

#include "healthstore/statistics_engine.h"
#include "platform/log.h"

namespace kestrova {
namespace {

constexpr std::string_view kLogCategory = "HealthStore";
constexpr std::string_view kScanFailed = "Health store could not read its changes: %{public}@";
constexpr std::string_view kPollFailed = "Health store could not check for changes: %{public}@";
constexpr std::string_view kPurgeFailed =
    "Health store could not forget old deleted objects: %{public}@";

// Unacknowledged deliveries after which a background registration counts as suspended.
constexpr int kMaximumUnacknowledgedDeliveries = 3;

// Source classes of the default priority order, best first.
enum SourceClass : std::int64_t { kUserEntered = 0, kWatch = 1, kPhone = 2, kOtherSource = 3 };

bool startsWith(const std::optional<std::string>& text, std::string_view prefix) {
  return text && text->starts_with(prefix);
}

SourceClass classOf(const RevisionRecord& record, bool userEntered) {
  if (userEntered) {
    return kUserEntered;
  }
  const std::optional<std::string> model = record.device ? record.device->model : std::nullopt;
  if (startsWith(record.revision.productType, "Watch") || startsWith(model, "Watch")) {
    return kWatch;
  }
  if (startsWith(record.revision.productType, "iPhone") || startsWith(model, "iPhone")) {
    return kPhone;
  }
  return kOtherSource;
}

UpdateFrequency cappedFrequency(const ObjectType& type, UpdateFrequency frequency) {
  // The platform delivers step counts at most hourly whatever was asked for.
  if (type.identifier() == kStepCountIdentifier && frequency == UpdateFrequency::immediate) {
    return UpdateFrequency::hourly;
  }
  return frequency;
}

}  // namespace

struct EmbeddedHealthStore::RunningQuery {
  std::shared_ptr<Query> query;
  // Handlers of one query run one at a time, in order, on a queue of their own, so a slow
  // handler holds up neither the store nor other queries.
  std::shared_ptr<DispatchQueue> handlerQueue;
  std::atomic<bool> stopped{false};
  std::uint64_t anchor = 0;  // long-running anchored queries; owned by queryQueue_
};

struct EmbeddedHealthStore::StatisticsInput {
  std::vector<StatisticsSample> samples;
  std::vector<Source> sources;
};

Result<std::shared_ptr<EmbeddedHealthStore>> EmbeddedHealthStore::open(
    EmbeddedHealthStoreOptions options) {
  if (!options.dispatcher) {
    return healthError(kHealthErrorInvalidArgument, "The health store needs a dispatcher");
  }
  if (!options.clock) {
    options.clock = makeSystemClock();
  }
  if (!options.timeZone) {
    options.timeZone = makeSystemTimeZoneSource();
  }
  // The writer opens first so that the schema exists before the other connections read it.
  Result<SampleDatabase> writer = SampleDatabase::open(options.path);
  if (!writer) {
    return writer.error();
  }
  if (Status failure = writer.value().tuneForWriting()) {
    return *failure;
  }
  if (Status failure = writer.value().purgeDeletedObjects(options.clock->now() -
                                                          options.deletedObjectRetention)) {
    logError(kLogCategory, kPurgeFailed, {failure->text()});
  }
  Result<SampleDatabase> reader = SampleDatabase::open(options.path);
  if (!reader) {
    return reader.error();
  }
  Result<SampleDatabase> watcher = SampleDatabase::open(options.path);
  if (!watcher) {
    return watcher.error();
  }
  Result<std::uint64_t> last = watcher.value().lastChange();
  if (!last) {
    return last.error();
  }
  Result<std::int64_t> version = watcher.value().dataVersion();
  if (!version) {
    return version.error();
  }
  std::shared_ptr<EmbeddedHealthStore> store(
      new EmbeddedHealthStore(std::move(options), std::move(writer).value(),
                              std::move(reader).value(), std::move(watcher).value()));
  store->scannedThrough_ = last.value();
  store->dataVersion_ = version.value();
  store->startPolling();
  return store;
}

EmbeddedHealthStore::EmbeddedHealthStore(EmbeddedHealthStoreOptions options, SampleDatabase writer,
                                         SampleDatabase reader, SampleDatabase watcher)
    : options_(std::move(options)),
      queryQueue_(options_.dispatcher->makeSerialQueue("kestrova.healthstore.query",
                                                       QualityOfService::utility)),
      changeQueue_(options_.dispatcher->makeSerialQueue("kestrova.healthstore.changes",
                                                        QualityOfService::utility)),
      completionQueue_(options_.dispatcher->makeSerialQueue("kestrova.healthstore.completion",
                                                            QualityOfService::utility)),
      writer_(std::move(writer)),
      reader_(std::move(reader)),
      watcher_(std::move(watcher)) {}

EmbeddedHealthStore::~EmbeddedHealthStore() {
  // No queue work can run now (each holds the store while it runs), so the timer is ours.
  pollTimer_.reset();
}

void EmbeddedHealthStore::startPolling() {
  std::weak_ptr<EmbeddedHealthStore> weak = weak_from_this();
  changeQueue_->async([weak] {
    if (auto self = weak.lock()) {
      self->pollTimer_ = self->options_.clock->makeTimer(
          self->changeQueue_,
          [weak] {
            if (auto store = weak.lock()) {
              store->poll();
            }
          },
          TimerPurpose::watches);
      self->pollTimer_->schedule(self->options_.changePollInterval);
    }
  });
}

void EmbeddedHealthStore::poll() {
  Result<std::int64_t> version = watcher_.dataVersion();
  if (!version) {
    logError(kLogCategory, kPollFailed, {version.error().text()});
  } else if (version.value() != dataVersion_ && scanChanges()) {
    // Only a successful scan settles the version; a failed one is retried at the next poll.
    dataVersion_ = version.value();
  }
  pollTimer_->schedule(options_.changePollInterval);
}

bool EmbeddedHealthStore::canRead(const ObjectType& type) const {
  std::lock_guard lock(stateMutex_);
  return !policy_.denyAllReads && !policy_.deniedReadTypes.contains(std::string(type.identifier()));
}

void EmbeddedHealthStore::complete(HealthStoreCompletion completion) {
  if (completion) {
    completionQueue_->async(
        [completion = std::move(completion)] { completion(true, std::nullopt); });
  }
}

void EmbeddedHealthStore::requestAuthorization(std::set<ObjectType> /*toShare*/,
                                               std::set<ObjectType> read,
                                               HealthStoreCompletion completion) {
  {
    std::lock_guard lock(stateMutex_);
    requestedRead_.insert(read.begin(), read.end());
  }
  complete(std::move(completion));
}

std::set<ObjectType> EmbeddedHealthStore::requestedReadTypes() const {
  std::lock_guard lock(stateMutex_);
  return requestedRead_;
}

void EmbeddedHealthStore::setAuthorizationPolicy(AuthorizationPolicy policy) {
  std::lock_guard lock(stateMutex_);
  policy_ = std::move(policy);
}

void EmbeddedHealthStore::setSourcePriority(const ObjectType& type,
                                            std::vector<std::string> bundleIdentifiers) {
  std::lock_guard lock(stateMutex_);
  sourcePriorities_[std::string(type.identifier())] = std::move(bundleIdentifiers);
}

void EmbeddedHealthStore::enableBackgroundDelivery(ObjectType type, UpdateFrequency frequency,
                                                   HealthStoreCompletion completion) {
  {
    std::lock_guard lock(stateMutex_);
    registrations_[std::string(type.identifier())] =
        BackgroundDeliveryRegistration{cappedFrequency(type, frequency), 0, false};
  }
  complete(std::move(completion));
}

void EmbeddedHealthStore::disableBackgroundDelivery(ObjectType type,
                                                    HealthStoreCompletion completion) {
  {
    std::lock_guard lock(stateMutex_);
    registrations_.erase(std::string(type.identifier()));
  }
  complete(std::move(completion));
}

void EmbeddedHealthStore::disableAllBackgroundDelivery(HealthStoreCompletion completion) {
  {
    std::lock_guard lock(stateMutex_);
    registrations_.clear();
  }
  complete(std::move(completion));
}

std::optional<BackgroundDeliveryRegistration> EmbeddedHealthStore::backgroundDeliveryRegistration(
    const ObjectType& type) const {
  std::lock_guard lock(stateMutex_);
  const auto found = registrations_.find(std::string(type.identifier()));
  if (found == registrations_.end()) {
    return std::nullopt;
  }
  return found->second;
}

Result<std::size_t> EmbeddedHealthStore::saveObjects(const std::vector<SamplePtr>& samples) {
  Result<std::size_t> saved = [&] {
    std::lock_guard lock(writeMutex_);
    return writer_.save(samples, {});
  }();
  afterWrite(saved);
  return saved;
}

Result<std::size_t> EmbeddedHealthStore::saveElectrocardiogram(
    std::shared_ptr<const Electrocardiogram> sample, std::vector<double> volts) {
  std::map<Uuid, std::vector<double>> voltages;
  voltages.emplace(sample->uuid(), std::move(volts));
  Result<std::size_t> saved = [&] {
    std::lock_guard lock(writeMutex_);
    return writer_.save({sample}, voltages);
  }();
  afterWrite(saved);
  return saved;
}

Result<BatchOutcome> EmbeddedHealthStore::saveBatch(const ImportBatch& batch) {
  Result<BatchOutcome> saved = [&] {
    std::lock_guard lock(writeMutex_);
    return writer_.saveBatch(batch);
  }();
  // Observers hear of new samples only; what else a batch holds is not queried by them.
  afterWrite(saved ? Result<std::size_t>(saved.value().added) : Result<std::size_t>(saved.error()));
  return saved;
}

Result<std::size_t> EmbeddedHealthStore::deleteObjects(const std::vector<Uuid>& uuids) {
  Result<std::size_t> removed = [&] {
    std::lock_guard lock(writeMutex_);
    return writer_.remove(uuids, options_.clock->now());
  }();
  afterWrite(removed);
  return removed;
}

void EmbeddedHealthStore::afterWrite(const Result<std::size_t>& written) {
  if (!written || written.value() == 0) {
    return;
  }
  // The same scan that finds other processes' commits reports ours, so every commit is
  // reported once, in commit order, whoever wrote it.
  std::weak_ptr<EmbeddedHealthStore> weak = weak_from_this();
  changeQueue_->async([weak] {
    if (auto self = weak.lock()) {
      self->scanChanges();
    }
  });
}

void EmbeddedHealthStore::executeQuery(std::shared_ptr<Query> query) {
  if (!query) {
    return;
  }
  auto running = std::make_shared<RunningQuery>();
  running->query = query;
  running->handlerQueue = options_.dispatcher->makeSerialQueue("kestrova.healthstore.handler",
                                                               QualityOfService::utility);
  {
    std::lock_guard lock(stateMutex_);
    if (!running_.emplace(query.get(), running).second) {
      return;
    }
  }
  std::weak_ptr<EmbeddedHealthStore> weak = weak_from_this();
  const auto onQueryQueue =
      [&](void (EmbeddedHealthStore::*run)(const std::shared_ptr<RunningQuery>&)) {
        queryQueue_->async([weak, running, run] {
          if (auto self = weak.lock()) {
            ((*self).*run)(running);
          }
        });
      };
  switch (query->kind()) {
    case QueryKind::observer: {
      // The first delivery says "maybe changed" for every type, as the platform's first call
      // after execute does in practice.
      auto observer = std::static_pointer_cast<ObserverQuery>(query);
      std::vector<ObjectType> all;
      for (const QueryDescriptor& descriptor : observer->descriptors()) {
        all.push_back(descriptor.sampleType);
      }
      changeQueue_->async([weak, running, all] {
        if (auto self = weak.lock()) {
          self->deliverObserver(running, all);
        }
      });
      break;
    }
    case QueryKind::anchoredObject:
      onQueryQueue(&EmbeddedHealthStore::runAnchored);
      break;
    case QueryKind::sample:
      onQueryQueue(&EmbeddedHealthStore::runSample);
      break;
    case QueryKind::statistics:
      onQueryQueue(&EmbeddedHealthStore::runStatistics);
      break;
    case QueryKind::statisticsCollection:
      onQueryQueue(&EmbeddedHealthStore::runStatisticsCollection);
      break;
    case QueryKind::electrocardiogram:
      onQueryQueue(&EmbeddedHealthStore::runElectrocardiogram);
      break;
  }
}

void EmbeddedHealthStore::stopQuery(const std::shared_ptr<Query>& query) {
  std::lock_guard lock(stateMutex_);
  const auto found = running_.find(query.get());
  if (found != running_.end()) {
    found->second->stopped = true;
    running_.erase(found);
  }
}

void EmbeddedHealthStore::finish(const std::shared_ptr<RunningQuery>& running) {
  std::lock_guard lock(stateMutex_);
  const auto found = running_.find(running->query.get());
  if (found != running_.end() && found->second == running) {
    running_.erase(found);
  }
}

void EmbeddedHealthStore::deliverObserver(const std::shared_ptr<RunningQuery>& running,
                                          std::vector<ObjectType> changedTypes) {
  if (running->stopped) {
    return;
  }
  // One token per delivery; only its first call counts.
  auto acknowledged = std::make_shared<std::atomic<bool>>(false);
  std::vector<std::string> tracked;
  {
    std::lock_guard lock(stateMutex_);
    for (const ObjectType& type : changedTypes) {
      const auto found = registrations_.find(std::string(type.identifier()));
      if (found == registrations_.end()) {
        continue;
      }
      BackgroundDeliveryRegistration& registration = found->second;
      if (registration.unacknowledgedDeliveries >= kMaximumUnacknowledgedDeliveries) {
        registration.suspended = true;
      }
      ++registration.unacknowledgedDeliveries;
      tracked.push_back(found->first);
    }
  }
  std::weak_ptr<EmbeddedHealthStore> weak = weak_from_this();
  ObserverCompletionHandler completion = [weak, acknowledged, tracked] {
    if (acknowledged->exchange(true)) {
      return;
    }
    if (auto self = weak.lock()) {
      std::lock_guard lock(self->stateMutex_);
      for (const std::string& identifier : tracked) {
        if (auto found = self->registrations_.find(identifier);
            found != self->registrations_.end()) {
          found->second.unacknowledgedDeliveries = 0;
        }
      }
    }
  };
  running->handlerQueue->async(
      [running, changedTypes = std::move(changedTypes), completion = std::move(completion)] {
        if (running->stopped) {
          return;
        }
        auto query = std::static_pointer_cast<ObserverQuery>(running->query);
        query->updateHandler()(query, changedTypes, completion, std::nullopt);
      });
}

bool EmbeddedHealthStore::scanChanges() {
  Result<std::vector<StoredChange>> changes = watcher_.changesAfter(scannedThrough_);
  if (!changes) {
    logError(kLogCategory, kScanFailed, {changes.error().text()});
    return false;
  }
  if (changes.value().empty()) {
    return true;
  }
  scannedThrough_ = changes.value().back().seq;

  std::vector<std::shared_ptr<RunningQuery>> observers;
  std::vector<std::shared_ptr<RunningQuery>> anchored;
  {
    std::lock_guard lock(stateMutex_);
    for (const auto& [key, running] : running_) {
      if (running->query->kind() == QueryKind::observer) {
        observers.push_back(running);
      } else if (running->query->kind() == QueryKind::anchoredObject &&
                 std::static_pointer_cast<AnchoredObjectQuery>(running->query)->updateHandler()) {
        anchored.push_back(running);
      }
    }
  }
  std::set<std::string> changedTypes;
  const std::vector<StoredChange>& all = changes.value();
  for (std::size_t begin = 0; begin < all.size();) {
    std::size_t end = begin;
    while (end < all.size() && all[end].transaction == all[begin].transaction) {
      changedTypes.insert(std::string(all[end].type.identifier()));
      ++end;
    }
    for (const auto& running : observers) {
      auto query = std::static_pointer_cast<ObserverQuery>(running->query);
      std::vector<ObjectType> matched;
      for (const QueryDescriptor& descriptor : query->descriptors()) {
        if (!canRead(descriptor.sampleType)) {
          continue;
        }
        const bool matches = std::any_of(
            all.begin() + static_cast<std::ptrdiff_t>(begin),
            all.begin() + static_cast<std::ptrdiff_t>(end), [&](const StoredChange& change) {
              return change.type == descriptor.sampleType &&
                     (!descriptor.predicate || descriptor.predicate->evaluate(change.fields));
            });
        if (matches) {
          matched.push_back(descriptor.sampleType);
        }
      }
      if (!matched.empty()) {
        deliverObserver(running, std::move(matched));
      }
    }
    begin = end;
  }
  for (const auto& running : anchored) {
    if (changedTypes.contains(std::string(running->query->objectType()->identifier()))) {
      std::weak_ptr<EmbeddedHealthStore> weak = weak_from_this();
      queryQueue_->async([weak, running] {
        if (auto self = weak.lock()) {
          self->refreshAnchored(running);
        }
      });
    }
  }
  return true;
}

void EmbeddedHealthStore::runAnchored(const std::shared_ptr<RunningQuery>& running) {
  auto query = std::static_pointer_cast<AnchoredObjectQuery>(running->query);
  const auto deliver = [running, query](Result<AnchoredObjectResults> results) {
    running->handlerQueue->async([running, query, results = std::move(results)]() mutable {
      if (!running->stopped) {
        query->resultsHandler()(query, std::move(results));
      }
    });
  };
  if (query->updateHandler() && query->limit() != kObjectQueryNoLimit) {
    finish(running);
    deliver(healthError(kHealthErrorInvalidArgument,
                        "An anchored object query with an update handler cannot have a limit"));
    return;
  }
  const std::uint64_t anchor = query->anchor() ? query->anchor()->position() : 0;
  AnchoredObjectResults results;
  results.newAnchor = QueryAnchor(anchor);
  if (canRead(*query->objectType())) {
    Result<AnchoredRows> rows =
        reader_.anchored(*query->objectType(), query->predicate(), anchor, query->limit());
    if (!rows) {
      finish(running);
      deliver(rows.error());
      return;
    }
    results.samples = std::move(rows.value().samples);
    results.deletedObjects = std::move(rows.value().deletedObjects);
    if (rows.value().lastSeq) {
      results.newAnchor = QueryAnchor(*rows.value().lastSeq);
    }
  }
  running->anchor = results.newAnchor.position();
  if (!query->updateHandler()) {
    finish(running);
  }
  deliver(std::move(results));
}

void EmbeddedHealthStore::refreshAnchored(const std::shared_ptr<RunningQuery>& running) {
  if (running->stopped) {
    return;
  }
  auto query = std::static_pointer_cast<AnchoredObjectQuery>(running->query);
  if (!canRead(*query->objectType())) {
    return;
  }
  Result<AnchoredRows> rows =
      reader_.anchored(*query->objectType(), query->predicate(), running->anchor, 0);
  Result<AnchoredObjectResults> results = [&]() -> Result<AnchoredObjectResults> {
    if (!rows) {
      return rows.error();
    }
    AnchoredObjectResults found;
    found.samples = std::move(rows.value().samples);
    found.deletedObjects = std::move(rows.value().deletedObjects);
    found.newAnchor = QueryAnchor(rows.value().lastSeq.value_or(running->anchor));
    return found;
  }();
  if (results && results.value().samples.empty() && results.value().deletedObjects.empty()) {
    return;
  }
  if (results) {
    running->anchor = results.value().newAnchor.position();
  }
  running->handlerQueue->async([running, query, results = std::move(results)]() mutable {
    if (!running->stopped) {
      (*query->updateHandler())(query, std::move(results));
    }
  });
}

void EmbeddedHealthStore::runSample(const std::shared_ptr<RunningQuery>& running) {
  auto query = std::static_pointer_cast<SampleQuery>(running->query);
  finish(running);
  Result<std::vector<SamplePtr>> samples = std::vector<SamplePtr>();
  if (canRead(*query->objectType())) {
    samples = reader_.samples(*query->objectType(), query->predicate());
  }
  if (samples) {
    std::vector<SamplePtr>& found = samples.value();
    const auto keyOf = [](const Sample& sample, SortKey key) -> double {
      switch (key) {
        case SortKey::startDate:
          return static_cast<double>(sample.startDate().time_since_epoch().count());
        case SortKey::endDate:
          return static_cast<double>(sample.endDate().time_since_epoch().count());
        case SortKey::workoutDuration:
          if (const auto* workout = dynamic_cast<const Workout*>(&sample)) {
            return workout->duration();
          }
          return 0;
      }
      return 0;
    };
    if (!query->sortDescriptors().empty()) {
      // Stable: equal keys keep the order in which the samples were saved.
      std::stable_sort(found.begin(), found.end(), [&](const SamplePtr& a, const SamplePtr& b) {
        for (const SortDescriptor& sort : query->sortDescriptors()) {
          const double left = keyOf(*a, sort.key);
          const double right = keyOf(*b, sort.key);
          if (left != right) {
            return sort.ascending ? left < right : left > right;
          }
        }
        return false;
      });
    }
    if (query->limit() != kObjectQueryNoLimit && found.size() > query->limit()) {
      found.resize(query->limit());
    }
  }
  running->handlerQueue->async([running, query, samples = std::move(samples)]() mutable {
    if (!running->stopped) {
      query->resultsHandler()(query, std::move(samples));
    }
  });
}

Result<EmbeddedHealthStore::StatisticsInput> EmbeddedHealthStore::statisticsInput(
    const ObjectType& type, const std::optional<Predicate>& predicate) {
  StatisticsInput input;
  if (!canRead(type)) {
    return input;
  }
  Result<std::vector<StatisticsRow>> rows = reader_.statisticsRows(type, predicate);
  if (!rows) {
    return rows.error();
  }
  std::vector<std::string> preferred;
  {
    std::lock_guard lock(stateMutex_);
    if (auto found = sourcePriorities_.find(std::string(type.identifier()));
        found != sourcePriorities_.end()) {
      preferred = found->second;
    }
  }
  // Per revision: its source's index, and the source's newest revision (for "most recently
  // added first" among other sources).
  struct RevisionInfo {
    std::uint32_t source;
    RevisionRecord record;
  };
  std::unordered_map<std::int64_t, RevisionInfo> revisions;
  std::unordered_map<std::string, std::uint32_t> sourceIndex;
  std::vector<std::int64_t> newestRevision;
  for (const StatisticsRow& row : rows.value()) {
    if (revisions.contains(row.revisionId)) {
      continue;
    }
    Result<RevisionRecord> record = reader_.revision(row.revisionId);
    if (!record) {
      return record.error();
    }
    const Source& source = record.value().revision.source;
    auto [found, added] = sourceIndex.emplace(source.bundleIdentifier,
                                              static_cast<std::uint32_t>(input.sources.size()));
    if (added) {
      input.sources.push_back(source);
      newestRevision.push_back(row.revisionId);
    }
    newestRevision[found->second] = std::max(newestRevision[found->second], row.revisionId);
    revisions.emplace(row.revisionId, RevisionInfo{found->second, record.value()});
  }
  constexpr std::int64_t kClassSpan = std::int64_t{1} << 40;
  const auto priorityOf = [&](const RevisionInfo& info, bool userEntered) -> std::int64_t {
    const Source& source = input.sources[info.source];
    const auto listed = std::find(preferred.begin(), preferred.end(), source.bundleIdentifier);
    if (listed != preferred.end()) {
      return listed - preferred.begin();
    }
    return static_cast<std::int64_t>(preferred.size()) +
           classOf(info.record, userEntered) * kClassSpan +
           (kClassSpan - 1 - newestRevision[info.source]);
  };
  input.samples.reserve(rows.value().size());
  for (const StatisticsRow& row : rows.value()) {
    const RevisionInfo& info = revisions.at(row.revisionId);
    input.samples.push_back(StatisticsSample{row.start, row.end, row.value, info.source,
                                             priorityOf(info, row.userEntered)});
  }
  return input;
}

namespace {

std::vector<std::pair<Source, StatisticsValues>> bySource(const IntervalStatistics& interval,
                                                          const std::vector<Source>& sources) {
  std::vector<std::pair<Source, StatisticsValues>> values;
  for (const auto& [index, sourceValues] : interval.bySource) {
    values.emplace_back(sources[index], sourceValues);
  }
  return values;
}

}  // namespace

void EmbeddedHealthStore::runStatistics(const std::shared_ptr<RunningQuery>& running) {
  auto query = std::static_pointer_cast<StatisticsQuery>(running->query);
  finish(running);
  const ObjectType& type = *query->objectType();
  Result<Statistics> statistics = [&]() -> Result<Statistics> {
    if (Status invalid = validateStatisticsOptions(type, query->options())) {
      return *invalid;
    }
    Result<StatisticsInput> input = statisticsInput(type, query->predicate());
    if (!input) {
      return input.error();
    }
    if (input.value().samples.empty()) {
      return healthError(kHealthErrorNoData, "No data available for the specified predicate.");
    }
    Date start = Date::max();
    Date end = Date::min();
    for (const StatisticsSample& sample : input.value().samples) {
      start = std::min(start, sample.start);
      end = std::max(end, sample.end);
    }
    const auto computed = computeStatistics(input.value().samples, type.aggregationStyle(),
                                            query->options(), nullptr);
    const IntervalStatistics& only = computed.begin()->second;
    return Statistics(type, start, end, only.merged, bySource(only, input.value().sources));
  }();
  running->handlerQueue->async([running, query, statistics = std::move(statistics)]() mutable {
    if (!running->stopped) {
      query->completionHandler()(query, std::move(statistics));
    }
  });
}

void EmbeddedHealthStore::runStatisticsCollection(const std::shared_ptr<RunningQuery>& running) {
  auto query = std::static_pointer_cast<StatisticsCollectionQuery>(running->query);
  finish(running);
  const ObjectType& type = *query->objectType();
  Result<StatisticsCollection> collection = [&]() -> Result<StatisticsCollection> {
    if (Status invalid = validateStatisticsOptions(type, query->options())) {
      return *invalid;
    }
    std::optional<IntervalGrid> grid = IntervalGrid::make(
        query->anchorDate(), query->intervalComponents(), options_.timeZone->current());
    if (!grid) {
      return healthError(kHealthErrorInvalidArgument,
                         "The interval components of a statistics collection must not be empty");
    }
    Result<StatisticsInput> input = statisticsInput(type, query->predicate());
    if (!input) {
      return input.error();
    }
    const auto computed =
        computeStatistics(input.value().samples, type.aggregationStyle(), query->options(), &*grid);
    std::vector<std::pair<std::int64_t, Statistics>> populated;
    populated.reserve(computed.size());
    for (const auto& [index, interval] : computed) {
      populated.emplace_back(index,
                             Statistics(type, grid->start(index), grid->end(index), interval.merged,
                                        bySource(interval, input.value().sources)));
    }
    return StatisticsCollection(type, *grid, std::move(populated));
  }();
  running->handlerQueue->async([running, query, collection = std::move(collection)]() mutable {
    if (!running->stopped) {
      query->initialResultsHandler()(query, std::move(collection));
    }
  });
}

void EmbeddedHealthStore::runElectrocardiogram(const std::shared_ptr<RunningQuery>& running) {
  auto query = std::static_pointer_cast<ElectrocardiogramQuery>(running->query);
  const std::shared_ptr<const Electrocardiogram>& sample = query->electrocardiogram();
  Result<std::optional<std::vector<double>>> volts = std::optional<std::vector<double>>();
  if (sample && canRead(sample->sampleType())) {
    volts = reader_.voltages(sample->uuid());
  }
  double frequency = 0;
  if (sample && sample->samplingFrequency()) {
    Result<double> hertz = sample->samplingFrequency()->doubleValue(Unit::hertz());
    frequency = hertz ? hertz.value() : 0;
  }
  if (frequency <= 0 && sample && sample->numberOfVoltageMeasurements() > 0) {
    const double span =
        std::chrono::duration<double>(sample->endDate() - sample->startDate()).count();
    frequency = span > 0 ? sample->numberOfVoltageMeasurements() / span : 0;
  }
  running->handlerQueue->async(
      [weak = weak_from_this(), running, query, volts = std::move(volts), frequency] {
        if (auto self = weak.lock()) {
          self->finish(running);
        }
        if (running->stopped) {
          return;
        }
        if (!volts) {
          query->dataHandler()(query, volts.error());
          return;
        }
        if (volts.value()) {
          const std::vector<double>& trace = *volts.value();
          for (std::size_t i = 0; i < trace.size(); ++i) {
            // Stopping ends the enumeration silently, between two measurements.
            if (running->stopped) {
              return;
            }
            const double time = frequency > 0 ? static_cast<double>(i) / frequency : 0;
            query->dataHandler()(query, VoltageMeasurement{time, trace[i]});
          }
        }
        query->dataHandler()(query, ElectrocardiogramQueryDone{});
      });
}

}  // namespace kestrova
