#include "healthstore/import/record_mapper.h"

#include <array>
#include <charconv>

#include "healthstore/import/export_vocabulary.h"

namespace kestrova {
namespace {

using namespace exportxml;

constexpr char kSeparator = '\x1f';
constexpr char kAbsent = '\x1e';
// Real exports hold a few hundred source revisions; a file that holds more only costs the
// mapper some re-parsing once the cache is cleared.
constexpr std::size_t kRevisionCacheLimit = 10000;
constexpr std::string_view kDefaultDurationUnit = "min";

constexpr std::array<std::string_view, kSkipReasonCount> kSkipReasonNames = {
    "unknown type",        "unknown unit",           "unparsable date",
    "unsupported element", "unknown category value", "invalid value",
    "missing attribute",   "rejected by the store",  "unreadable file",
};

Skip skip(SkipReason reason, std::string_view detail) {
  return Skip{reason, std::string(detail)};
}

// The part of a device description that identifies the device: without the object address,
// which changes on every record.
std::string_view deviceIdentity(std::string_view device) {
  const std::size_t opening = device.find(">, ");
  return opening == std::string_view::npos ? device : device.substr(opening + 3);
}

void appendMicros(std::string& out, Date date) {
  std::array<char, 24> buffer{};
  const auto micros =
      std::chrono::duration_cast<std::chrono::microseconds>(date.time_since_epoch()).count();
  const auto [end, error] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), micros);
  out.append(buffer.data(), end);
  out += kSeparator;
}

// The sum of the statistics whose type matches, in the unit of the first; none when there are
// none, an error text (the unit) when a unit cannot be mapped or does not fit `expected`.
std::variant<std::optional<Quantity>, std::string> total(
    const std::vector<ExportedStatistic>& statistics, bool (*matches)(std::string_view),
    const Unit& expected, ImportUnits& units) {
  std::optional<Quantity> sum;
  for (const ExportedStatistic& statistic : statistics) {
    if (!matches(statistic.type) || statistic.sum.empty()) {
      continue;
    }
    const Unit* unit = units.find(statistic.unit);
    const std::optional<double> value = parseNumber(statistic.sum);
    if (unit == nullptr || !unit->isCompatible(expected) || !value) {
      return statistic.unit;
    }
    if (!sum) {
      sum = Quantity(*unit, *value);
    } else {
      sum = Quantity(sum->unit(), sum->doubleValue(sum->unit()).value() +
                                      unit->convert(*value, sum->unit()).value());
    }
  }
  return sum;
}

bool isDistance(std::string_view type) {
  return type.starts_with(kDistanceTypePrefix);
}
bool isActiveEnergy(std::string_view type) {
  return type == kActiveEnergyType;
}

}  // namespace

std::string_view skipReasonName(SkipReason reason) {
  return kSkipReasonNames[static_cast<std::size_t>(reason)];
}

void ExportedObject::clear() {
  hasSourceName = hasSourceVersion = hasStartDate = hasEndDate = false;
  device.clear();
  metadataCount = 0;
}

void ExportedObject::addMetadata(std::string_view key, std::string_view value) {
  if (metadataCount == metadata.size()) {
    metadata.emplace_back();
  }
  metadata[metadataCount].first.assign(key);
  metadata[metadataCount].second.assign(value);
  ++metadataCount;
}

std::optional<ObjectType> RecordMapper::typeOf(std::string_view identifier) {
  // Exports write the records of one type together: the last answer is nearly always right.
  if (lastType_ && identifier == lastTypeIdentifier_) {
    return *lastType_;
  }
  auto found = types_.find(std::string(identifier));
  if (found == types_.end()) {
    found = types_.emplace(std::string(identifier), ObjectType::fromIdentifier(identifier)).first;
  }
  if (found->second) {
    lastTypeIdentifier_.assign(identifier);
    lastType_ = found->second;
  }
  return found->second;
}

const RecordMapper::Revision& RecordMapper::revisionOf(const ExportedObject& object) {
  key_.assign(object.sourceName);
  key_ += kSeparator;
  if (object.hasSourceVersion) {
    key_ += object.sourceVersion;
  } else {
    key_ += kAbsent;
  }
  key_ += kSeparator;
  key_ += deviceIdentity(object.device);
  if (const auto found = revisions_.find(key_); found != revisions_.end()) {
    return found->second;
  }
  if (revisions_.size() >= kRevisionCacheLimit) {
    revisions_.clear();
  }
  Revision made;
  made.revision.source = Source{object.sourceName, deriveBundleIdentifier(object.sourceName)};
  if (object.hasSourceVersion) {
    made.revision.version = object.sourceVersion;
  }
  made.device = parseDeviceDescription(object.device);
  if (made.device) {
    made.revision.productType = made.device->hardwareVersion;
    if (made.device->softwareVersion) {
      made.revision.operatingSystemVersion = parseSystemVersion(*made.device->softwareVersion);
    }
  }
  return revisions_.emplace(key_, std::move(made)).first->second;
}

Metadata RecordMapper::metadataOf(const ExportedObject& object) {
  Metadata metadata;
  for (std::size_t i = 0; i < object.metadataCount; ++i) {
    const auto& [key, value] = object.metadata[i];
    // A key written twice (newer workouts repeat their whole block) keeps its first value.
    if (metadata.find(key) == metadata.end()) {
      metadata.emplace(key, typedMetadataValue(key, value, units_));
    }
  }
  return metadata;
}

std::optional<Skip> RecordMapper::commonProperties(const ExportedObject& object,
                                                   std::string_view type,
                                                   SampleProperties& properties) {
  if (!object.hasSourceName) {
    return skip(SkipReason::missingAttribute, kSourceName);
  }
  if (!object.hasStartDate) {
    return skip(SkipReason::missingAttribute, kStartDate);
  }
  if (!object.hasEndDate) {
    return skip(SkipReason::missingAttribute, kEndDate);
  }
  const std::optional<Date> start = parseExportDate(object.startDate);
  const std::optional<Date> end = parseExportDate(object.endDate);
  if (!start || !end) {
    return skip(SkipReason::unparsableDate, type);
  }
  properties.startDate = *start;
  properties.endDate = *end;
  const Revision& revision = revisionOf(object);
  properties.sourceRevision = revision.revision;
  properties.device = revision.device;
  properties.metadata = metadataOf(object);
  return std::nullopt;
}

MappedSample RecordMapper::mapRecord(const ExportedRecord& record) {
  if (record.type.empty()) {
    return skip(SkipReason::missingAttribute, kType);
  }
  const std::optional<ObjectType> type = typeOf(record.type);
  if (!type) {
    return skip(SkipReason::unknownType, record.type);
  }
  // Identity: type, source, instants, value (canonical number or category raw value), unit.
  name_.assign(record.type);
  name_ += kSeparator;
  name_ += record.sourceName;
  name_ += kSeparator;

  if (type->kind() == ObjectKind::quantity) {
    if (!record.hasUnit) {
      return skip(SkipReason::missingAttribute, kUnit);
    }
    const Unit* unit = units_.find(record.unit);
    if (unit == nullptr || !unit->isCompatible(type->canonicalUnit())) {
      return skip(SkipReason::unknownUnit, record.unit);
    }
    const std::optional<double> value = record.hasValue ? parseNumber(record.value) : std::nullopt;
    if (!value) {
      return skip(SkipReason::invalidValue, record.type);
    }
    SampleProperties properties = unnamedProperties();
    if (std::optional<Skip> failure = commonProperties(record, record.type, properties)) {
      return std::move(*failure);
    }
    appendMicros(name_, properties.startDate);
    appendMicros(name_, properties.endDate);
    name_ += canonicalNumber(*value);
    name_ += kSeparator;
    name_ += record.unit;
    properties.uuid = nameBasedUuid(name_);
    auto made = QuantitySample::make(*type, Quantity(*unit, *value), std::move(properties));
    if (!made) {
      return skip(SkipReason::rejectedByStore, record.type);
    }
    return SamplePtr(std::move(made).value());
  }

  if (type->kind() == ObjectKind::category) {
    int value = 0;  // HKCategoryValueNotApplicable: old exports write no value for those
    if (record.hasValue) {
      if (const std::optional<int> named = exportxml::categoryValue(record.value)) {
        value = *named;
      } else {
        const auto [end, error] =
            std::from_chars(record.value.data(), record.value.data() + record.value.size(), value);
        if (error != std::errc() || end != record.value.data() + record.value.size()) {
          return skip(SkipReason::unknownCategoryValue, record.value);
        }
      }
    }
    SampleProperties properties = unnamedProperties();
    if (std::optional<Skip> failure = commonProperties(record, record.type, properties)) {
      return std::move(*failure);
    }
    appendMicros(name_, properties.startDate);
    appendMicros(name_, properties.endDate);
    name_ += std::to_string(value);
    properties.uuid = nameBasedUuid(name_);
    auto made = CategorySample::make(*type, value, std::move(properties));
    if (!made) {
      return skip(SkipReason::rejectedByStore, record.type);
    }
    return SamplePtr(std::move(made).value());
  }
  // Workouts and electrocardiograms have elements and files of their own.
  return skip(SkipReason::unknownType, record.type);
}

MappedSample RecordMapper::mapWorkout(const ExportedWorkout& workout) {
  Workout::Details details;
  if (workout.activityType.empty()) {
    return skip(SkipReason::missingAttribute, kWorkoutActivityType);
  }
  // An activity newer than this table is still a workout: kept as "other".
  details.workoutActivityType =
      exportxml::workoutActivityType(workout.activityType).value_or(kWorkoutActivityTypeOther);
  if (!workout.duration.empty()) {
    const std::string_view unitText = workout.durationUnit.empty()
                                          ? kDefaultDurationUnit
                                          : std::string_view(workout.durationUnit);
    const Unit* unit = units_.find(unitText);
    const std::optional<double> duration = parseNumber(workout.duration);
    if (unit == nullptr || !unit->isCompatible(Unit::second())) {
      return skip(SkipReason::unknownUnit, unitText);
    }
    if (!duration || *duration < 0) {
      return skip(SkipReason::invalidValue, kWorkoutTypeIdentifier);
    }
    details.duration = unit->convert(*duration, Unit::second()).value();
  }

  // Statistics win over the older total attributes; the workout's own statistics over the sum
  // of its activities'.
  struct Total {
    bool (*matches)(std::string_view);
    Unit expected;
    const std::string& value;
    const std::string& unit;
    std::optional<Quantity>& into;
  };
  std::array<Total, 2> totals = {{
      {isDistance, Unit::meter(), workout.totalDistance, workout.totalDistanceUnit,
       details.totalDistance},
      {isActiveEnergy, Unit::kilocalorie(), workout.totalEnergyBurned,
       workout.totalEnergyBurnedUnit, details.totalEnergyBurned},
  }};
  for (Total& wanted : totals) {
    for (const std::vector<ExportedStatistic>* statistics :
         {&workout.statistics, &workout.activityStatistics}) {
      auto found = total(*statistics, wanted.matches, wanted.expected, units_);
      if (const std::string* badUnit = std::get_if<std::string>(&found)) {
        return skip(SkipReason::unknownUnit, *badUnit);
      }
      if (auto& quantity = std::get<std::optional<Quantity>>(found)) {
        wanted.into = std::move(quantity);
        break;
      }
    }
    if (!wanted.into && !wanted.value.empty()) {
      const Unit* unit = units_.find(wanted.unit);
      const std::optional<double> value = parseNumber(wanted.value);
      if (unit == nullptr || !unit->isCompatible(wanted.expected)) {
        return skip(SkipReason::unknownUnit, wanted.unit);
      }
      if (!value) {
        return skip(SkipReason::invalidValue, kWorkoutTypeIdentifier);
      }
      wanted.into = Quantity(*unit, *value);
    }
  }

  SampleProperties properties = unnamedProperties();
  if (std::optional<Skip> failure = commonProperties(workout, kWorkoutTypeIdentifier, properties)) {
    return std::move(*failure);
  }
  name_.assign(kWorkoutTypeIdentifier);
  name_ += kSeparator;
  name_ += workout.sourceName;
  name_ += kSeparator;
  appendMicros(name_, properties.startDate);
  appendMicros(name_, properties.endDate);
  name_ += std::to_string(details.workoutActivityType);
  name_ += kSeparator;
  name_ += canonicalNumber(details.duration);
  properties.uuid = nameBasedUuid(name_);
  auto made = Workout::make(std::move(details), std::move(properties));
  if (!made) {
    return skip(SkipReason::rejectedByStore, kWorkoutTypeIdentifier);
  }
  return SamplePtr(std::move(made).value());
}

}  // namespace kestrova
