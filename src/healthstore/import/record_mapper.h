// Turns the attributes of one export element (a Record, a Workout, a Correlation, an activity
// summary, with their children) into rows of the store with name-based identities: a sample of
// the store's vocabulary, the element kept as written when the store has no table for what it
// holds, or the reason it cannot be taken (it is malformed). Caches units, types and source
// revisions: one mapper belongs to one import thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

#include "healthstore/import/export_values.h"
#include "healthstore/stored_rows.h"
#include "healthstore/type_vocabulary.h"
#include "platform/health/sample.h"

namespace kestrova {

// Why an element of the export did not become a sample. The names are those of the summary.
enum class SkipReason {
  unknownUnit,
  unparsableDate,
  unsupportedElement,
  invalidValue,
  missingAttribute,
  unreadableFile,
  tooLarge,
};
inline constexpr std::size_t kSkipReasonCount = 7;
std::string_view skipReasonName(SkipReason reason);

struct Skip {
  SkipReason reason;
  // What was not understood: the unit text, the type identifier, the element name...
  std::string detail;
};

using MappedSample = std::variant<SampleRow, KeptElementRow, Skip>;

using ExportedMetadata = std::vector<std::pair<std::string, std::string>>;

// Attributes shared by Record and Workout, kept as text until the element ends (a Record's
// MetadataEntry children come after its attributes). Strings are reused between elements.
struct ExportedObject {
  std::string sourceName;
  std::string sourceVersion;
  std::string device;
  std::string startDate;
  std::string endDate;
  bool hasSourceName = false;
  bool hasSourceVersion = false;
  bool hasStartDate = false;
  bool hasEndDate = false;
  // Pairs [0, metadataCount) are this element's; the rest are spare capacity.
  std::vector<std::pair<std::string, std::string>> metadata;
  std::size_t metadataCount = 0;

  void clear();
  void addMetadata(std::string_view key, std::string_view value);
};

// An instantaneous heart rate of a heart-rate variability record, as written.
struct ExportedBeat {
  std::string bpm;
  std::string time;  // a local time of day in the phone's format: "08:33:44,67", "6:14:48.94 PM"
};

struct ExportedRecord : ExportedObject {
  std::string type;
  std::string unit;
  std::string value;
  bool hasUnit = false;
  bool hasValue = false;
  // [0, beatCount) are this record's.
  std::vector<ExportedBeat> beats;
  std::size_t beatCount = 0;
  bool hasBeatList = false;
};

struct ExportedStatistic {
  std::string type;
  std::string sum;
  std::string unit;
};

struct ExportedWorkoutEvent {
  std::string type;
  std::string date;
  std::string duration;
  std::string durationUnit;
  ExportedMetadata metadata;
};

struct ExportedRoute : ExportedObject {
  std::string filePath;
  std::vector<RouteLocation> locations;
};

struct ExportedWorkout : ExportedObject {
  std::string activityType;
  std::string duration;
  std::string durationUnit;
  std::string totalDistance;
  std::string totalDistanceUnit;
  std::string totalEnergyBurned;
  std::string totalEnergyBurnedUnit;
  // Statistics that are children of the workout, and those of its activities.
  std::vector<ExportedStatistic> statistics;
  std::vector<ExportedStatistic> activityStatistics;
  std::vector<ExportedWorkoutEvent> events;
  std::vector<ExportedRoute> routes;
};

struct ExportedCorrelation : ExportedObject {
  std::string type;
  std::vector<Uuid> members;
};

// What a workout, a record or a correlation brings besides its sample row.
struct MappedParts {
  std::vector<WorkoutEventRow> events;
  std::vector<WorkoutRouteRow> routes;
  std::optional<BeatSeriesRow> beats;
};

// A top-level element the store has no table for, captured whole as JSON text.
KeptElementRow keptElement(std::string_view name, std::string json);

class RecordMapper {
 public:
  // `parts`, when given, receives the record's heart beats.
  MappedSample mapRecord(const ExportedRecord& record, MappedParts* parts = nullptr);
  MappedSample mapWorkout(const ExportedWorkout& workout, MappedParts& parts);
  MappedSample mapCorrelation(const ExportedCorrelation& correlation);
  // Attributes as written; a skip for a summary without its day or with unreadable figures.
  std::variant<ActivitySummaryRow, Skip> mapActivitySummary(
      const std::vector<std::pair<std::string, std::string>>& attributes);

  ImportUnits& units() { return units_; }

 private:
  struct Common {
    std::int64_t start = 0;
    std::int64_t end = 0;
    std::shared_ptr<const RevisionRecord> revision;
    Metadata metadata;
  };

  const std::shared_ptr<const RevisionRecord>& revisionOf(const ExportedObject& object);
  std::optional<Skip> commonProperties(const ExportedObject& object, std::string_view type,
                                       Common& common);
  // The same, with the instants added to the identity name begun in name_.
  std::optional<Skip> namedProperties(const ExportedObject& object, std::string_view type,
                                      Common& common);
  Metadata metadataOf(const ExportedMetadata& entries, std::size_t count);
  SampleRow rowOf(std::string_view type, Common common);
  KeptElementRow keptRecord(const ExportedRecord& record);
  std::vector<BeatRow> beatsOf(const ExportedRecord& record, const Common& common);

  ImportUnits units_;
  std::unordered_map<std::string, std::shared_ptr<const RevisionRecord>> revisions_;
  std::string key_;   // scratch for cache keys
  std::string name_;  // scratch for identity names
};

}  // namespace kestrova
