#include "datapoints/workout.h"

#include <algorithm>
#include <array>
#include <mutex>
#include <string>

#include "api/units.h"
#include "datapoints/envelope.h"
#include "datapoints/health_units.h"
#include "datapoints/log_texts.h"
#include "platform/dispatch_group.h"
#include "platform/health/predicate.h"
#include "platform/health/statistics.h"
#include "platform/log.h"

namespace kestrova {
namespace {

inline constexpr std::string_view kKeyActivityName = "activity_name";
inline constexpr std::string_view kKeyDuration = "duration";

inline constexpr std::string_view kActivityOther = "other";

// Raw values 1 to 74 in order. Fixed at these entries on purpose: the back end knows no others.
constexpr std::array<std::string_view, 74> kActivityNames = {
    "americanFootball",
    "archery",
    "australianFootball",
    "badminton",
    "baseball",
    "basketball",
    "bowling",
    "boxing",
    "climbing",
    "cricket",
    "crossTraining",
    "curling",
    "cycling",
    "dance",
    "danceInspiredTraining",
    "elliptical",
    "equestrianSports",
    "fencing",
    "fishing",
    "functionalStrengthTraining",
    "golf",
    "gymnastics",
    "handball",
    "hiking",
    "hockey",
    "hunting",
    "lacrosse",
    "martialArts",
    "mindAndBody",
    "mixedMetabolicCardioTraining",
    "paddleSports",
    "play",
    "preparationAndRecovery",
    "racquetball",
    "rowing",
    "rugby",
    "running",
    "sailing",
    "skatingSports",
    "snowSports",
    "soccer",
    "softball",
    "squash",
    "stairClimbing",
    "surfingSports",
    "swimming",
    "tableTennis",
    "tennis",
    "trackAndField",
    "traditionalStrengthTraining",
    "volleyball",
    "walking",
    "waterFitness",
    "waterPolo",
    "waterSports",
    "wrestling",
    "yoga",
    "barre",
    "coreTraining",
    "crossCountrySkiing",
    "downhillSkiing",
    "flexibility",
    "highIntensityIntervalTraining",
    "jumpRope",
    "kickboxing",
    "pilates",
    "snowboarding",
    "stairs",
    "stepTraining",
    "wheelchairWalkPace",
    "wheelchairRunPace",
    "taiChi",
    "mixedCardio",
    "handCycling",
};

constexpr StatisticsOptions kHeartRateStatistics = StatisticsOptions::discreteAverage |
                                                   StatisticsOptions::discreteMin |
                                                   StatisticsOptions::discreteMax;

// What the three queries of one workout found.
struct Found {
  std::optional<Statistics> heartRateStatistics;
  std::vector<SamplePtr> heartRateSamples;
  std::optional<double> stepCount;
};

// One delivery. `workouts` is fixed at creation; `found` is owned by `mutex`.
struct WorkoutBatch {
  std::vector<std::shared_ptr<const Workout>> workouts;
  std::mutex mutex;
  std::vector<Found> found;
};

void logQueryError(const Error& error) {
  // No data is the normal answer for a workout without heart rate or steps.
  if (error.domain != kHealthErrorDomain || error.code != kHealthErrorNoData) {
    logError(kDataPointsLogCategory, kLogWorkoutQueryFailed, {error.text()});
  }
}

// NOTE: "heart_rate_data" holds one record per heart-rate sample of the workout, each a point in
// time at the sample's start (no end, no descriptive_statistic), in start order; then the
// workout's average, minimum and maximum, each over the workout's own start and end and tagged
// with its descriptive_statistic. The back end can thus plot the curve and show the summary
// without recomputing it.
std::vector<HeartRate> heartRateRecords(const Workout& workout, const Found& found) {
  std::vector<HeartRate> records;
  const Unit bpm = healthUnit(Units::bpm);
  std::vector<SamplePtr> samples = found.heartRateSamples;
  std::stable_sort(samples.begin(), samples.end(), [](const SamplePtr& a, const SamplePtr& b) {
    return a->startDate() < b->startDate();
  });
  for (const SamplePtr& sample : samples) {
    const auto* quantitySample = dynamic_cast<const QuantitySample*>(sample.get());
    if (quantitySample == nullptr) {
      continue;
    }
    if (Result<double> value = quantitySample->quantity().doubleValue(bpm)) {
      records.push_back(HeartRate{sample->startDate(), std::nullopt, std::nullopt, value.value()});
    }
  }
  if (found.heartRateStatistics) {
    const Statistics& statistics = *found.heartRateStatistics;
    const std::array<std::pair<std::optional<Quantity>, body::HeartRate>, 3> summary = {{
        {statistics.averageQuantity(), body::HeartRate::average},
        {statistics.minimumQuantity(), body::HeartRate::minimum},
        {statistics.maximumQuantity(), body::HeartRate::maximum},
    }};
    for (const auto& [quantity, type] : summary) {
      if (!quantity) {
        continue;
      }
      if (Result<double> value = quantity->doubleValue(bpm)) {
        records.push_back(HeartRate{workout.startDate(), workout.endDate(), type, value.value()});
      }
    }
  }
  return records;
}

}  // namespace

std::string_view activityName(std::uint32_t activityType) {
  if (activityType < 1 || activityType > kActivityNames.size()) {
    return kActivityOther;
  }
  return kActivityNames[activityType - 1];
}

nlohmann::json encodeWorkout(const Workout& workout, const std::vector<HeartRate>& heartRates,
                             std::optional<double> stepCount) {
  nlohmann::json body{
      {kKeyEffectiveTimeFrame, makeEffectiveTimeFrame(workout)},
      {kKeyActivityName, activityName(workout.workoutActivityType())},
      {kKeyDuration, makeValueWithUnit(workout.duration(), Units::sec)},
      {kKeyMetadata, makeMetadataList(workout)},
  };
  if (const auto& distance = workout.totalDistance();
      distance && distance->isCompatible(healthUnit(Units::m))) {
    body[kKeyDistance] =
        makeValueWithUnit(distance->doubleValue(healthUnit(Units::m)).value(), Units::m);
  }
  if (const auto& energy = workout.totalEnergyBurned();
      energy && energy->isCompatible(healthUnit(Units::kcal))) {
    body[kKeyKcalBurned] =
        makeValueWithUnit(energy->doubleValue(healthUnit(Units::kcal)).value(), Units::kcal);
  }
  const bool hasHeartRates = !heartRates.empty();
  if (hasHeartRates) {
    const std::optional<std::string> zone = sampleZoneIdentifier(workout);
    nlohmann::json records = nlohmann::json::array();
    for (const HeartRate& heartRate : heartRates) {
      records.push_back(encodeHeartRate(heartRate, zone));
    }
    body[kKeyHeartRateData] = std::move(records);
  }
  if (stepCount) {
    body[kKeyStepCount] = *stepCount;
  }
  const SchemaId& schema = hasHeartRates ? (stepCount ? kSchemaWorkoutWithHeartRateAndSteps
                                                      : kSchemaWorkoutWithHeartRate)
                                         : (stepCount ? kSchemaWorkoutWithSteps : kSchemaWorkout);
  return makeDataPoint(makeHeader(schema, workout), std::move(body));
}

void collectWorkoutDetails(const std::vector<SamplePtr>& workouts, const QueryRunner& runner,
                           std::shared_ptr<DispatchQueue> completionQueue,
                           DataPointsCompletion completion) {
  auto batch = std::make_shared<WorkoutBatch>();
  for (const SamplePtr& sample : workouts) {
    if (auto workout = std::dynamic_pointer_cast<const Workout>(sample)) {
      batch->workouts.push_back(std::move(workout));
    }
  }
  batch->found.resize(batch->workouts.size());
  const ObjectType heartRate = ObjectType::quantityType(kHeartRateIdentifier).value();
  const ObjectType steps = ObjectType::quantityType(kStepCountIdentifier).value();
  const auto finished = runner.finished;
  // The group lives outside the batch: its pending notification holds the batch, so a batch
  // holding the group would keep itself alive for ever when a query is stopped unanswered.
  auto group = std::make_shared<DispatchGroup>();
  const auto done = [finished, group](const std::shared_ptr<Query>& query) {
    if (finished) {
      finished(query);
    }
    group->leave();
  };

  // Every query enters the group before any starts, so an early answer cannot empty it.
  for (std::size_t i = 0; i < batch->workouts.size() * 3; ++i) {
    group->enter();
  }
  for (std::size_t index = 0; index < batch->workouts.size(); ++index) {
    const Workout& workout = *batch->workouts[index];
    // No options: samples that merely overlap the workout count too.
    const Predicate during =
        predicateForSamples(workout.startDate(), workout.endDate(), QueryOptions::none);

    runner.execute(StatisticsQuery::make(
        heartRate, during, kHeartRateStatistics,
        [batch, index, done](const std::shared_ptr<StatisticsQuery>& query,
                             Result<Statistics> statistics) {
          if (statistics) {
            std::lock_guard lock(batch->mutex);
            batch->found[index].heartRateStatistics = std::move(statistics).value();
          } else {
            logQueryError(statistics.error());
          }
          done(query);
        }));
    runner.execute(SampleQuery::make(heartRate, during, kObjectQueryNoLimit, {},
                                     [batch, index, done](const std::shared_ptr<SampleQuery>& query,
                                                          Result<std::vector<SamplePtr>> samples) {
                                       if (samples) {
                                         std::lock_guard lock(batch->mutex);
                                         batch->found[index].heartRateSamples =
                                             std::move(samples).value();
                                       } else {
                                         logQueryError(samples.error());
                                       }
                                       done(query);
                                     }));
    runner.execute(StatisticsQuery::make(
        steps, during, StatisticsOptions::cumulativeSum,
        [batch, index, done](const std::shared_ptr<StatisticsQuery>& query,
                             Result<Statistics> statistics) {
          if (statistics) {
            if (std::optional<Quantity> sum = statistics->sumQuantity()) {
              if (Result<double> count = sum->doubleValue(healthUnit(Units::count))) {
                std::lock_guard lock(batch->mutex);
                batch->found[index].stepCount = count.value();
              }
            }
          } else {
            logQueryError(statistics.error());
          }
          done(query);
        }));
  }
  group->notify(std::move(completionQueue), [batch, completion = std::move(completion)] {
    std::vector<nlohmann::json> points;
    {
      std::lock_guard lock(batch->mutex);
      points.reserve(batch->workouts.size());
      for (std::size_t i = 0; i < batch->workouts.size(); ++i) {
        const Workout& workout = *batch->workouts[i];
        points.push_back(encodeWorkout(workout, heartRateRecords(workout, batch->found[i]),
                                       batch->found[i].stepCount));
      }
      // The queries keep their handlers, and so this batch, until the
      // caller lets them go: keep only what is small.
      batch->found.clear();
    }
    completion(std::move(points));
  });
}

}  // namespace kestrova
