#include "datapoints/sleep.h"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <set>
#include <string>
#include <utility>

#include "datapoints/envelope.h"
#include "datapoints/log_texts.h"
#include "datapoints/schema_id.h"
#include "platform/dispatch_group.h"
#include "platform/health/predicate.h"
#include "platform/log.h"

namespace kestrova {
namespace {

inline constexpr std::string_view kKeySleepStageState = "sleep_stage_state";
inline constexpr std::string_view kKeyTotalSleepTime = "total_sleep_time";
inline constexpr std::string_view kKeySleepStagesData = "sleep_stages_data";
inline constexpr std::string_view kKeySleepAwake = "sleep_awake";
inline constexpr std::string_view kKeySleepLight = "sleep_light";
inline constexpr std::string_view kKeySleepRem = "sleep_rem";
inline constexpr std::string_view kKeySleepDeep = "sleep_deep";

inline constexpr std::string_view kStageUnknown = "unknown";
inline constexpr std::string_view kStageAwake = "awake";
inline constexpr std::string_view kStageLight = "light";
inline constexpr std::string_view kStageDeep = "deep";
inline constexpr std::string_view kStageRem = "rem";

// From this system version on the store records core, deep and REM sleep.
constexpr int kSleepStagesMajorVersion = 16;

bool hasSleepStages(const SystemVersion& system) {
  return system.isAtLeast(kSleepStagesMajorVersion);
}

Predicate stageValuePredicate(const SystemVersion& system) {
  if (hasSleepStages(system)) {
    return predicateForCategorySamples(std::set<int>{kSleepAwake, kSleepAsleepCore, kSleepAsleepREM,
                                                     kSleepAsleepDeep, kSleepAsleepUnspecified});
  }
  return predicateForCategorySamples(ComparisonOperator::equalTo, kSleepAsleepUnspecified);
}

using Span = std::pair<Date, Date>;

// Seconds covered by at least one span.
double coveredSeconds(std::vector<Span> spans) {
  std::sort(spans.begin(), spans.end());
  double seconds = 0;
  std::optional<Span> open;
  for (const Span& span : spans) {
    if (open && span.first <= open->second) {
      open->second = std::max(open->second, span.second);
      continue;
    }
    if (open) {
      seconds += std::chrono::duration<double>(open->second - open->first).count();
    }
    open = span;
  }
  if (open) {
    seconds += std::chrono::duration<double>(open->second - open->first).count();
  }
  return seconds;
}

struct EpisodeResult {
  bool answered = false;
  std::vector<SamplePtr> stages;
};

// One delivery. `episodes` and `system` are fixed at creation; `results` is owned by
// `mutex`.
struct SleepBatch {
  std::vector<std::shared_ptr<const CategorySample>> episodes;
  SystemVersion system;
  std::mutex mutex;
  std::vector<EpisodeResult> results;
};

}  // namespace

std::optional<std::string_view> sleepStageName(int value, const SystemVersion& system) {
  switch (value) {
    case kSleepAsleepUnspecified:
      return kStageUnknown;
    case kSleepAwake:
      return kStageAwake;
    case kSleepAsleepCore:
      return hasSleepStages(system) ? std::optional(kStageLight) : std::nullopt;
    case kSleepAsleepDeep:
      return hasSleepStages(system) ? std::optional(kStageDeep) : std::nullopt;
    case kSleepAsleepREM:
      return hasSleepStages(system) ? std::optional(kStageRem) : std::nullopt;
    default:
      return std::nullopt;
  }
}

SleepStageSums sumSleepStages(const Sample& episode, const std::vector<SamplePtr>& stages,
                              const SystemVersion& system) {
  std::vector<Span> awake;
  std::vector<Span> light;
  std::vector<Span> rem;
  std::vector<Span> deep;
  std::vector<Span> asleep;
  for (const SamplePtr& sample : stages) {
    const auto* stage = dynamic_cast<const CategorySample*>(sample.get());
    if (stage == nullptr || !sleepStageName(stage->value(), system)) {
      continue;
    }
    const Date start = std::max(stage->startDate(), episode.startDate());
    const Date end = std::min(stage->endDate(), episode.endDate());
    if (end <= start) {
      continue;
    }
    const Span span{start, end};
    switch (stage->value()) {
      case kSleepAwake:
        awake.push_back(span);
        break;
      case kSleepAsleepCore:
        light.push_back(span);
        asleep.push_back(span);
        break;
      case kSleepAsleepREM:
        rem.push_back(span);
        asleep.push_back(span);
        break;
      case kSleepAsleepDeep:
        deep.push_back(span);
        asleep.push_back(span);
        break;
      case kSleepAsleepUnspecified:
        asleep.push_back(span);
        break;
      default:
        break;
    }
  }
  return SleepStageSums{coveredSeconds(std::move(awake)), coveredSeconds(std::move(light)),
                        coveredSeconds(std::move(rem)), coveredSeconds(std::move(deep)),
                        coveredSeconds(std::move(asleep))};
}

nlohmann::json encodeSleepEpisode(const CategorySample& episode, const SleepStageSums& sums) {
  nlohmann::json body{{kKeyEffectiveTimeFrame, makeEffectiveTimeFrame(episode)},
                      {kKeyTotalSleepTime, makeValueWithUnit(sums.totalSleepTime, Units::sec)}};
  const bool hasStages = sums.awake != 0 || sums.light != 0 || sums.rem != 0 || sums.deep != 0;
  if (hasStages) {
    body[kKeySleepStagesData] = nlohmann::json{
        {kKeySleepAwake, makeValueWithUnit(sums.awake, Units::sec)},
        {kKeySleepLight, makeValueWithUnit(sums.light, Units::sec)},
        {kKeySleepRem, makeValueWithUnit(sums.rem, Units::sec)},
        {kKeySleepDeep, makeValueWithUnit(sums.deep, Units::sec)},
    };
  }
  return makeDataPoint(
      makeHeader(hasStages ? kSchemaSleepEpisodeWithStages : kSchemaSleepEpisode, episode),
      std::move(body));
}

std::optional<nlohmann::json> encodeSleepDetail(const CategorySample& stage,
                                                const SystemVersion& system) {
  const std::optional<std::string_view> name = sleepStageName(stage.value(), system);
  if (!name) {
    return std::nullopt;
  }
  return makeDataPoint(makeHeader(kSchemaSleepDetail, stage),
                       nlohmann::json{{kKeyEffectiveTimeFrame, makeEffectiveTimeFrame(stage)},
                                      {kKeySleepStageState, *name}});
}

void collectSleepEpisodes(const std::vector<SamplePtr>& samples, const SystemVersion& system,
                          const QueryRunner& runner, std::shared_ptr<DispatchQueue> completionQueue,
                          SleepCompletion completion) {
  auto batch = std::make_shared<SleepBatch>();
  batch->system = system;
  for (const SamplePtr& sample : samples) {
    auto category = std::dynamic_pointer_cast<const CategorySample>(sample);
    if (category && category->value() == kSleepInBed) {
      batch->episodes.push_back(std::move(category));
    }
  }
  batch->results.resize(batch->episodes.size());
  const ObjectType sleepType = ObjectType::categoryType(kSleepAnalysisIdentifier).value();
  const auto finished = runner.finished;

  // The group lives outside the batch: its pending notification holds the batch, so a batch
  // holding the group would keep itself alive for ever when a query is stopped unanswered.
  auto group = std::make_shared<DispatchGroup>();
  // Every query enters the group before any starts, so an early answer cannot empty it.
  for (std::size_t i = 0; i < batch->episodes.size(); ++i) {
    group->enter();
  }
  for (std::size_t index = 0; index < batch->episodes.size(); ++index) {
    const CategorySample& episode = *batch->episodes[index];
    // Strict start: a stage belongs to the episode in which it begins.
    Predicate predicate = andPredicate(
        {stageValuePredicate(system), predicateForSamples(episode.startDate(), episode.endDate(),
                                                          QueryOptions::strictStartDate)});
    runner.execute(SampleQuery::make(
        sleepType, std::move(predicate), kObjectQueryNoLimit,
        {SortDescriptor{SortKey::startDate, true}},
        [batch, group, index, finished](const std::shared_ptr<SampleQuery>& query,
                                        Result<std::vector<SamplePtr>> stages) {
          if (stages) {
            std::lock_guard lock(batch->mutex);
            batch->results[index] = EpisodeResult{true, std::move(stages).value()};
          } else {
            logError(kDataPointsLogCategory, kLogSleepQueryFailed, {stages.error().text()});
          }
          if (finished) {
            finished(query);
          }
          group->leave();
        }));
  }
  group->notify(std::move(completionQueue), [batch, completion = std::move(completion)] {
    std::vector<nlohmann::json> points;
    bool allEpisodes = true;
    {
      std::lock_guard lock(batch->mutex);
      std::set<Uuid> sent;
      for (std::size_t i = 0; i < batch->episodes.size(); ++i) {
        const EpisodeResult& result = batch->results[i];
        if (!result.answered) {
          allEpisodes = false;
          continue;
        }
        const CategorySample& episode = *batch->episodes[i];
        points.push_back(
            encodeSleepEpisode(episode, sumSleepStages(episode, result.stages, batch->system)));
        for (const SamplePtr& sample : result.stages) {
          const auto* stage = dynamic_cast<const CategorySample*>(sample.get());
          if (stage == nullptr || !sent.insert(stage->uuid()).second) {
            continue;
          }
          if (std::optional<nlohmann::json> detail = encodeSleepDetail(*stage, batch->system)) {
            points.push_back(std::move(*detail));
          }
        }
      }
      // The queries keep their handlers, and so this batch, until the caller lets them go:
      // keep only what is small.
      batch->results.clear();
    }
    completion(std::move(points), allEpisodes);
  });
}

}  // namespace kestrova
