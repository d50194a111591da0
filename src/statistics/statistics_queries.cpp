#include "statistics/statistics_queries.h"

#include <algorithm>
#include <atomic>
#include <string>

#include "facade/formatters.h"
#include "healthkit/health_kit_types.h"
#include "platform/health/predicate.h"
#include "platform/health/query.h"
#include "platform/log.h"
#include "statistics/statistics_records.h"
#include "storage/profile_store.h"

namespace kestrova {
namespace {

constexpr std::string_view kCategory = "statistics";
constexpr std::string_view kChangesError =
    "Changes of %{public}@ since the last statistics pass could not be read: %{public}@";
constexpr std::string_view kRecomputing = "Statistics of %{public}@ are recomputed from %{public}@";
constexpr std::string_view kPassCompleted = "Statistics pass completed";
constexpr std::string_view kNewRange =
    "Statistics pass covers the whole range: start date or profile changed";

// Members of the stored range.
constexpr std::string_view kRangeStartDate = "startDate";
constexpr std::string_view kRangeProfile = "profileId";

enum class QueryFamily { heartRate, dailyDetail, summary };

struct QueryTexts {
  std::string_view error;
  std::string_view empty;
};

constexpr QueryTexts kHeartRateQueryTexts{
    "Heart rate statistics query for %{public}@ resulted in an error: %{public}@",
    "Heart rate statistics query for %{public}@ does not have any results"};
constexpr QueryTexts kDailyDetailQueryTexts{
    "Daily detail statistics query for %{public}@ resulted in an error: %{public}@",
    "Daily detail statistics query for %{public}@ does not have any results"};
constexpr QueryTexts kSummaryQueryTexts{
    "Summary statistics query for %{public}@ resulted in an error: %{public}@",
    "Summary statistics query for %{public}@ does not have any results"};

constexpr DateComponents kQuarterHour{0, 0, 0, 0, 0, 15, 0};
constexpr DateComponents kOneDay{0, 0, 0, 1, 0, 0, 0};
constexpr auto kDiscreteFigures = StatisticsOptions::discreteAverage |
                                  StatisticsOptions::discreteMin | StatisticsOptions::discreteMax;

const QueryTexts& textsOf(QueryFamily family) {
  switch (family) {
    case QueryFamily::heartRate:
      return kHeartRateQueryTexts;
    case QueryFamily::dailyDetail:
      return kDailyDetailQueryTexts;
    case QueryFamily::summary:
      return kSummaryQueryTexts;
  }
  return kSummaryQueryTexts;
}

StatisticsOptions summaryOptions(const ObjectType& type) {
  if (type.identifier() == kHeartRateIdentifier) {
    return kDiscreteFigures;
  }
  if (type.identifier() == kRestingHeartRateIdentifier) {
    return StatisticsOptions::discreteAverage;
  }
  return StatisticsOptions::cumulativeSum;
}

std::vector<QueryFamily> familiesOf(const ObjectType& type) {
  std::vector<QueryFamily> families;
  // NOTE: heart rate is read only when the connection reads it: the host's choice of types
  // is what keeps a type's data on the device.
  if (type.identifier() == kHeartRateIdentifier) {
    families.push_back(QueryFamily::heartRate);
  }
  // A cumulative sum of a discrete type is refused by the store; such types get no detail
  // query rather than an error line at every pass.
  if (!isDiscrete(type.aggregationStyle())) {
    families.push_back(QueryFamily::dailyDetail);
  }
  families.push_back(QueryFamily::summary);
  return families;
}

// The local midnight that begins the month after `date`'s.
Date nextMonthStart(Date date, const TimeZone& zone) {
  const auto civil = zone.civil(date);
  CivilTime next;
  next.year = civil.month == 12 ? civil.year + 1 : civil.year;
  next.month = civil.month == 12 ? 1 : civil.month + 1;
  return zone.date(next);
}

}  // namespace

Date statisticsAnchorDate(Date date, const TimeZone& zone) {
  auto civil = zone.civil(date);
  civil.hour = 0;
  civil.minute = 0;
  civil.second = 0;
  civil.millisecond = 0;
  return zone.date(civil);
}

// One pass. Its fields are used by one callback at a time, each handing the pass to the next;
// only `outstanding` and `failed` are shared by the queries of a window.
struct StatisticsPass::Pass {
  struct TypeState {
    ObjectType type = ObjectType::workoutType();
    QueryAnchor newAnchor{0};
    bool wholeRange = false;
    std::optional<Date> earliestChange;
    // Where recomputing starts; none when nothing changed.
    std::optional<Date> start;
    // Whether its changes were read; only then does its anchor move.
    bool scanned = false;
  };

  std::uint64_t generation = 0;
  std::uint64_t epoch = 0;
  Settings settings;
  std::vector<TypeState> types;
  // The type whose changes are being read.
  std::size_t next = 0;
  std::optional<Date> windowStart;
  std::atomic<bool> failed{false};
  std::atomic<std::size_t> outstanding{0};
};

std::shared_ptr<StatisticsPass> StatisticsPass::make(Environment environment) {
  return std::shared_ptr<StatisticsPass>(new StatisticsPass(std::move(environment)));
}

void StatisticsPass::run(std::vector<ObjectType> types) {
  {
    std::lock_guard lock(mutex_);
    if (running_) {
      for (auto& type : types) {
        if (std::find(pending_.begin(), pending_.end(), type) == pending_.end()) {
          pending_.push_back(std::move(type));
        }
      }
      return;
    }
    running_ = true;
  }
  begin(std::move(types));
}

void StatisticsPass::stop() {
  std::vector<std::shared_ptr<Query>> queries;
  {
    std::lock_guard lock(mutex_);
    ++generation_;
    running_ = false;
    pending_.clear();
    queries.swap(queries_);
  }
  for (const auto& query : queries) {
    environment_.store->stopQuery(query);
  }
}

bool StatisticsPass::isRunning() const {
  std::lock_guard lock(mutex_);
  return running_;
}

bool StatisticsPass::isCurrent(const Pass& pass) const {
  std::lock_guard lock(mutex_);
  return pass.generation == generation_;
}

std::shared_ptr<StatisticsPass> StatisticsPass::answered(const std::weak_ptr<StatisticsPass>& weak,
                                                         const Query& query, const Pass& pass) {
  auto self = weak.lock();
  if (!self) {
    return nullptr;
  }
  self->forget(query);
  return self->isCurrent(pass) ? self : nullptr;
}

void StatisticsPass::execute(std::shared_ptr<Query> query) {
  {
    std::lock_guard lock(mutex_);
    queries_.push_back(query);
  }
  environment_.store->executeQuery(std::move(query));
}

void StatisticsPass::forget(const Query& query) {
  std::lock_guard lock(mutex_);
  std::erase_if(queries_, [&](const auto& running) { return running.get() == &query; });
}

void StatisticsPass::begin(std::vector<ObjectType> types) {
  auto settings = environment_.settings ? environment_.settings() : std::nullopt;
  if (!settings || !settings->dataManager) {
    finish();
    return;
  }
  auto pass = std::make_shared<Pass>();
  {
    std::lock_guard lock(mutex_);
    pass->generation = generation_;
  }
  pass->epoch = DataManager::currentEpoch();
  pass->settings = std::move(*settings);
  for (auto& type : types) {
    if (type.kind() == ObjectKind::quantity) {
      auto& state = pass->types.emplace_back();
      state.type = std::move(type);
    }
  }
  resetAnchorsForNewRange(pass->settings);
  nextType(pass);
}

void StatisticsPass::resetAnchorsForNewRange(const Settings& settings) {
  const nlohmann::json range = {{kRangeStartDate, referenceSeconds(settings.startDate)},
                                {kRangeProfile, settings.profileId}};
  if (loadJson(*environment_.defaults, kRangeKey) == range) {
    return;
  }
  // Figures of another range were computed over other days: every day is looked at again.
  logInfo(kCategory, kNewRange);
  for (const auto& type : dailySummaryTypes()) {
    environment_.anchors->deleteAnchor(type.identifier());
  }
  storeJson(*environment_.defaults, kRangeKey, range);
}

void StatisticsPass::nextType(const std::shared_ptr<Pass>& pass) {
  if (!isCurrent(*pass)) {
    return;
  }
  if (pass->next == pass->types.size()) {
    startWindows(pass);
    return;
  }
  auto& state = pass->types[pass->next++];
  const auto stored = environment_.anchors->storedAnchor(state.type.identifier());
  state.newAnchor = stored.value_or(QueryAnchor(0));
  state.wholeRange = !stored;
  scanChanges(pass, stored);
}

void StatisticsPass::scanChanges(const std::shared_ptr<Pass>& pass,
                                 std::optional<QueryAnchor> from) {
  auto& state = pass->types[pass->next - 1];
  auto predicate =
      predicateForSamples(pass->settings.startDate, std::nullopt, QueryOptions::strictStartDate);
  execute(AnchoredObjectQuery::make(
      state.type, std::move(predicate), from, kChangesPerPage,
      [weak = weak_from_this(), pass, &state](const std::shared_ptr<AnchoredObjectQuery>& query,
                                              Result<AnchoredObjectResults> results) {
        auto self = answered(weak, *query, *pass);
        if (!self) {
          return;
        }
        const std::string identifier(state.type.identifier());
        if (!results) {
          // Nothing is recomputed and the anchor stays: the next pass reads these changes again.
          logError(kCategory, kChangesError, {identifier, results.error().description});
          self->nextType(pass);
          return;
        }
        for (const auto& sample : results->samples) {
          state.earliestChange =
              std::min(state.earliestChange.value_or(sample->startDate()), sample->startDate());
        }
        // A deletion does not say when its sample was: every day may have changed.
        state.wholeRange = state.wholeRange || !results->deletedObjects.empty();
        state.newAnchor = results->newAnchor;
        if (results->samples.size() + results->deletedObjects.size() >= kChangesPerPage) {
          self->scanChanges(pass, results->newAnchor);
          return;
        }
        state.scanned = true;
        const auto& settings = pass->settings;
        if (state.wholeRange) {
          state.start = settings.startDate;
        } else if (state.earliestChange) {
          state.start = std::max(settings.startDate,
                                 statisticsAnchorDate(*state.earliestChange, settings.zone));
        }
        if (state.start) {
          logInfo(kCategory, kRecomputing, {identifier, timestampString(*state.start)});
        }
        self->nextType(pass);
      }));
}

void StatisticsPass::startWindows(const std::shared_ptr<Pass>& pass) {
  for (const auto& state : pass->types) {
    if (state.start) {
      pass->windowStart = std::min(pass->windowStart.value_or(*state.start), *state.start);
    }
  }
  if (!pass->windowStart) {
    logInfo(kCategory, kPassCompleted);
    finish();
    return;
  }
  nextWindow(pass);
}

void StatisticsPass::nextWindow(const std::shared_ptr<Pass>& pass) {
  // NOTE: every changed type of a window before the next window, so that a day's summary,
  // which combines the types, is complete once its window is recorded.
  const auto& settings = pass->settings;
  const auto start = *pass->windowStart;
  // The last window is open: samples dated ahead of the clock count as they always did.
  std::optional<Date> end = nextMonthStart(start, settings.zone);
  if (*end > environment_.clock->now()) {
    end.reset();
  }
  const auto anchor = statisticsAnchorDate(settings.startDate, settings.zone);
  std::vector<std::pair<const Pass::TypeState*, QueryFamily>> queries;
  for (const auto& state : pass->types) {
    if (state.start && (!end || *state.start < *end)) {
      for (auto family : familiesOf(state.type)) {
        queries.emplace_back(&state, family);
      }
    }
  }
  if (queries.empty()) {
    windowRecorded(pass, end);
    return;
  }
  pass->outstanding = queries.size();
  // Not a structured binding: clang 14 cannot capture one in a lambda.
  for (const auto& planned : queries) {
    const auto* state = planned.first;
    const auto family = planned.second;
    const auto& type = state->type;
    const auto options = family == QueryFamily::heartRate     ? kDiscreteFigures
                         : family == QueryFamily::dailyDetail ? StatisticsOptions::cumulativeSum
                                                              : summaryOptions(type);
    const auto interval = family == QueryFamily::summary ? kOneDay : kQuarterHour;
    auto handler = [weak = weak_from_this(), pass, family, type, end](
                       const std::shared_ptr<StatisticsCollectionQuery>& query,
                       Result<StatisticsCollection> collection) {
      auto self = answered(weak, *query, *pass);
      if (!self) {
        return;
      }
      const auto& texts = textsOf(family);
      const std::string identifier(type.identifier());
      const auto& manager = pass->settings.dataManager;
      if (!collection) {
        logError(kCategory, texts.error, {identifier, collection.error().description});
        pass->failed = true;
      } else if (auto statistics = collection->statistics(); statistics.empty()) {
        logInfo(kCategory, texts.empty, {identifier});
      } else {
        switch (family) {
          case QueryFamily::heartRate:
            manager->storeHeartRateStatistics(std::move(statistics), pass->epoch);
            break;
          case QueryFamily::dailyDetail:
            manager->storeDailyDetailStatistics(std::move(statistics), type, pass->epoch);
            break;
          case QueryFamily::summary:
            manager->storeDailySummaryStatistics(std::move(statistics), pass->epoch);
            break;
        }
      }
      if (pass->outstanding.fetch_sub(1) == 1) {
        self->windowRecorded(pass, end);
      }
    };
    const auto predicate =
        predicateForSamples(std::max(start, *state->start), end, QueryOptions::strictStartDate);
    execute(StatisticsCollectionQuery::make(type, predicate, options, anchor, interval,
                                            std::move(handler)));
  }
}

void StatisticsPass::windowRecorded(const std::shared_ptr<Pass>& pass, std::optional<Date> end) {
  // The next window starts once this one is in the store, so that one window's figures at
  // most wait in memory.
  pass->settings.dataManager->afterRecorded(
      pass->epoch, [weak = weak_from_this(), pass, end](bool current) {
        auto self = weak.lock();
        if (!self || !current || !self->isCurrent(*pass)) {
          return;
        }
        if (end) {
          pass->windowStart = *end;
          self->nextWindow(pass);
          return;
        }
        // Every changed day is recomputed and stored: the changes are done with. A failed
        // query keeps the anchors, so that the next pass recomputes those days again.
        if (!pass->failed) {
          for (const auto& state : pass->types) {
            if (state.scanned) {
              self->environment_.anchors->storeAnchor(state.newAnchor, state.type.identifier());
            }
          }
        }
        logInfo(kCategory, kPassCompleted);
        self->finish();
      });
}

void StatisticsPass::finish() {
  std::vector<ObjectType> pending;
  {
    std::lock_guard lock(mutex_);
    pending.swap(pending_);
    running_ = !pending.empty();
  }
  if (!pending.empty()) {
    begin(std::move(pending));
  }
}

}  // namespace kestrova
