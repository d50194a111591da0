// The rows of the store's tables as writers hand them over: samples of any type of the store's
// vocabulary (also types the platform's type table does not know yet), and what belongs to a
// sample or to no sample (workout events and routes, heart-beat series, correlation members,
// activity summaries, export elements kept as written). Plain values: owned by whoever holds
// them.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/health/sample.h"

namespace kestrova {

struct RevisionRecord {
  SourceRevision revision;
  std::optional<Device> device;
};

// One row of the samples table. Times are stored times (see sample_codec.h).
struct SampleRow {
  Uuid uuid{Uuid::Bytes16{}};
  // An identifier of static storage: the platform's type table or the store's vocabulary.
  std::string_view type;
  std::int64_t start = 0;
  std::int64_t end = 0;
  // Quantities: the value in the type's canonical unit, and the value as written when its
  // unit is another one.
  std::optional<double> value;
  std::optional<double> originalValue;
  std::string unit;
  std::optional<std::int64_t> category;
  std::shared_ptr<const RevisionRecord> revision;
  bool userEntered = false;
  std::optional<std::string> metadata;  // encoded (sample_codec.h)
  std::optional<std::string> details;
};

struct WorkoutEventRow {
  Uuid workout;
  std::int64_t position = 0;  // order within the workout
  std::string type;           // "HKWorkoutEventTypeSegment", as written
  std::int64_t date = 0;
  std::optional<double> durationSeconds;
  std::optional<std::string> metadata;
};

// One point of a route; absent measurements are NaN.
struct RouteLocation {
  double time = 0;  // seconds since 1970
  double latitude = 0;
  double longitude = 0;
  double altitude = 0;
  double horizontalAccuracy = 0;
  double verticalAccuracy = 0;
  double course = 0;
  double speed = 0;
};

struct WorkoutRouteRow {
  Uuid workout;
  std::int64_t position = 0;  // order within the workout
  std::int64_t start = 0;
  std::int64_t end = 0;
  std::string sourceName;
  std::optional<std::string> metadata;
  // The route file inside the export ("/workout-routes/route_….gpx"), when the route is one.
  std::optional<std::string> filePath;
  std::vector<RouteLocation> locations;
};

// The instantaneous heart rates behind a heart-rate variability sample.
struct BeatRow {
  double secondsSinceStart = 0;
  double beatsPerMinute = 0;
};
struct BeatSeriesRow {
  Uuid sample;
  std::vector<BeatRow> beats;
};

struct CorrelationLink {
  Uuid correlation;
  Uuid member;
};

// A day's rings. Energy in kilocalories, times in minutes, stand hours as a count.
struct ActivitySummaryRow {
  std::string day;  // "2016-11-15", the date components as written
  std::optional<double> activeEnergyBurned;
  std::optional<double> activeEnergyBurnedGoal;
  std::optional<double> appleMoveTime;
  std::optional<double> appleMoveTimeGoal;
  std::optional<double> appleExerciseTime;
  std::optional<double> appleExerciseTimeGoal;
  std::optional<double> appleStandHours;
  std::optional<double> appleStandHoursGoal;

  friend bool operator==(const ActivitySummaryRow&, const ActivitySummaryRow&) = default;
};

// An export element the store has no table for (an identifier nobody knows yet, a clinical
// record, an audiogram...), kept whole as JSON so that a later version can read it.
struct KeptElementRow {
  Uuid uuid;  // name-based, from the content
  std::string name;
  std::string json;
};

// What one transaction of an import writes.
struct ImportBatch {
  std::vector<SampleRow> samples;
  std::vector<WorkoutEventRow> workoutEvents;
  std::vector<WorkoutRouteRow> workoutRoutes;
  std::vector<BeatSeriesRow> beatSeries;
  std::vector<CorrelationLink> correlationLinks;
  std::vector<ActivitySummaryRow> activitySummaries;
  std::vector<KeptElementRow> keptElements;

  bool empty() const {
    return samples.empty() && workoutEvents.empty() && workoutRoutes.empty() &&
           beatSeries.empty() && correlationLinks.empty() && activitySummaries.empty() &&
           keptElements.empty();
  }
};

struct BatchOutcome {
  // Samples, activity summaries (new or changed) and kept elements that were new.
  std::size_t added = 0;
  // Of those, the ones the store had already.
  std::size_t alreadyPresent = 0;
};

}  // namespace kestrova
