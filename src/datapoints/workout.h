// Workouts: one data point per workout with its activity, duration, distance, energy and
// metadata, enriched by three queries per workout (heart-rate statistics, heart-rate samples,
// step sum). The per-delivery state is owned by the delivery's queries and guarded by its own
// mutex; see collectWorkoutDetails for the threads.
#pragma once

#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>
#include <vector>

#include "datapoints/heart_rate.h"
#include "datapoints/query_runner.h"
#include "platform/dispatch.h"
#include "platform/health/sample.h"

namespace kestrova {

// The activity type's case name for raw values 1 to 74, "other" for every other value; newer
// activity types deliberately map to "other".
std::string_view activityName(std::uint32_t activityType);

// The schema follows what is present: heart-rate records, a step count, both or neither.
nlohmann::json encodeWorkout(const Workout& workout, const std::vector<HeartRate>& heartRates,
                             std::optional<double> stepCount);

// Runs, for every workout of one delivery, the heart-rate statistics, heart-rate sample and step
// sum queries through `runner` (on the calling thread), and when all have answered encodes the
// workouts in delivery order and calls `completion` once, on `completionQueue` (the main queue
// in the library), also for an empty delivery. Samples that are not workouts are ignored. A
// query that fails leaves its part out; a stopped query means no completion at all.
void collectWorkoutDetails(const std::vector<SamplePtr>& workouts, const QueryRunner& runner,
                           std::shared_ptr<DispatchQueue> completionQueue,
                           DataPointsCompletion completion);

}  // namespace kestrova
