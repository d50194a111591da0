// Turns the attributes of one export element (a Record or a Workout with its children) into a
// sample of the store's vocabulary with its name-based identity, or into the reason it cannot be
// taken. Caches units, types and source revisions: one mapper belongs to one import thread.
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
#include "platform/health/sample.h"

namespace kestrova {

// Why an element of the export did not become a sample. The names are those of the summary.
enum class SkipReason {
  unknownType,
  unknownUnit,
  unparsableDate,
  unsupportedElement,
  unknownCategoryValue,
  invalidValue,
  missingAttribute,
  rejectedByStore,
  unreadableFile,
};
inline constexpr std::size_t kSkipReasonCount = 9;
std::string_view skipReasonName(SkipReason reason);

struct Skip {
  SkipReason reason;
  // What was not understood: the unit text, the type identifier, the element name...
  std::string detail;
};

using MappedSample = std::variant<SamplePtr, Skip>;

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

struct ExportedRecord : ExportedObject {
  std::string type;
  std::string unit;
  std::string value;
  bool hasUnit = false;
  bool hasValue = false;
};

struct ExportedStatistic {
  std::string type;
  std::string sum;
  std::string unit;
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
};

class RecordMapper {
 public:
  MappedSample mapRecord(const ExportedRecord& record);
  MappedSample mapWorkout(const ExportedWorkout& workout);

  ImportUnits& units() { return units_; }

 private:
  struct Revision {
    SourceRevision revision;
    std::optional<Device> device;
  };

  const Revision& revisionOf(const ExportedObject& object);
  std::optional<Skip> commonProperties(const ExportedObject& object, std::string_view type,
                                       SampleProperties& properties);
  Metadata metadataOf(const ExportedObject& object);
  std::optional<ObjectType> typeOf(std::string_view identifier);

  ImportUnits units_;
  std::unordered_map<std::string, std::optional<ObjectType>> types_;
  std::string lastTypeIdentifier_;
  std::optional<ObjectType> lastType_;
  std::unordered_map<std::string, Revision> revisions_;
  std::string key_;   // scratch for cache keys
  std::string name_;  // scratch for identity names
};

}  // namespace kestrova
