#include "healthstore/import/record_mapper.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>

#include "healthstore/import/export_vocabulary.h"
#include "healthstore/sample_codec.h"

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
    "unknown unit",      "unparsable date", "unsupported element", "invalid value",
    "missing attribute", "unreadable file", "too large",
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

void appendMicros(std::string& out, std::int64_t micros) {
  std::array<char, 24> buffer{};
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

constexpr std::string_view kDefaultEnergyUnit = "kcal";

// Seconds; none when the number or its unit (minutes when absent) cannot be read.
std::optional<double> durationSeconds(std::string_view text, std::string_view unitText,
                                      ImportUnits& units) {
  const Unit* unit = units.find(unitText.empty() ? kDefaultDurationUnit : unitText);
  const std::optional<double> duration = parseNumber(text);
  if (unit == nullptr || !unit->isCompatible(Unit::second()) || !duration || *duration < 0) {
    return std::nullopt;
  }
  return unit->convert(*duration, Unit::second()).value();
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

KeptElementRow keptElement(std::string_view name, std::string json) {
  std::string identity(name);
  identity += kSeparator;
  identity += json;
  return KeptElementRow{nameBasedUuid(identity), std::string(name), std::move(json)};
}

const std::shared_ptr<const RevisionRecord>& RecordMapper::revisionOf(
    const ExportedObject& object) {
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
  auto made = std::make_shared<RevisionRecord>();
  made->revision.source = Source{object.sourceName, deriveBundleIdentifier(object.sourceName)};
  if (object.hasSourceVersion) {
    made->revision.version = object.sourceVersion;
  }
  made->device = parseDeviceDescription(object.device);
  if (made->device) {
    made->revision.productType = made->device->hardwareVersion;
    if (made->device->softwareVersion) {
      made->revision.operatingSystemVersion = parseSystemVersion(*made->device->softwareVersion);
    }
  }
  return revisions_.emplace(key_, std::move(made)).first->second;
}

Metadata RecordMapper::metadataOf(const ExportedMetadata& entries, std::size_t count) {
  Metadata metadata;
  for (std::size_t i = 0; i < count; ++i) {
    const auto& [key, value] = entries[i];
    // A key written twice (newer workouts repeat their whole block) keeps its first value.
    if (metadata.find(key) == metadata.end()) {
      metadata.emplace(key, typedMetadataValue(key, value, units_));
    }
  }
  return metadata;
}

std::optional<Skip> RecordMapper::commonProperties(const ExportedObject& object,
                                                   std::string_view type, Common& common) {
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
  if (*end < *start) {
    return skip(SkipReason::invalidValue, type);
  }
  common.start = storedTime(*start);
  common.end = storedTime(*end);
  common.revision = revisionOf(object);
  common.metadata = metadataOf(object.metadata, object.metadataCount);
  return std::nullopt;
}

std::optional<Skip> RecordMapper::namedProperties(const ExportedObject& object,
                                                  std::string_view type, Common& common) {
  std::optional<Skip> failure = commonProperties(object, type, common);
  if (!failure) {
    appendMicros(name_, common.start);
    appendMicros(name_, common.end);
  }
  return failure;
}

SampleRow RecordMapper::rowOf(std::string_view type, Common common) {
  SampleRow row;
  row.type = type;
  row.start = common.start;
  row.end = common.end;
  row.revision = std::move(common.revision);
  row.userEntered = wasUserEntered(common.metadata);
  row.metadata = encodeMetadata(common.metadata);
  return row;
}

KeptElementRow RecordMapper::keptRecord(const ExportedRecord& record) {
  nlohmann::ordered_json json;
  json[kType] = record.type;
  if (record.hasUnit) {
    json[kUnit] = record.unit;
  }
  if (record.hasValue) {
    json[kValue] = record.value;
  }
  json[kSourceName] = record.sourceName;
  if (record.hasSourceVersion) {
    json[kSourceVersion] = record.sourceVersion;
  }
  if (!record.device.empty()) {
    json[kDevice] = record.device;
  }
  json[kStartDate] = record.startDate;
  json[kEndDate] = record.endDate;
  for (std::size_t i = 0; i < record.metadataCount; ++i) {
    json[kMetadataEntry].push_back(
        {{kKey, record.metadata[i].first}, {kValue, record.metadata[i].second}});
  }
  for (std::size_t i = 0; i < record.beatCount; ++i) {
    json[kInstantaneousBeats].push_back(
        {{kBeatsPerMinute, record.beats[i].bpm}, {kTime, record.beats[i].time}});
  }
  return keptElement(kRecord, json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

std::vector<BeatRow> RecordMapper::beatsOf(const ExportedRecord& record, const Common& common) {
  // The beat times are local times of day without a date or zone, and the record's dates carry
  // the offset of the export's day, so the two can differ by a whole number of quarter hours
  // (daylight saving time, travel). Beats lie within their record, which lasts about a minute:
  // the difference is the one that puts them there.
  constexpr double kQuarterHour = 900;
  constexpr double kDay = 86400;
  const std::optional<double> startOfDay = exportTimeOfDay(record.startDate);
  const double span = static_cast<double>(common.end - common.start) / 1e6;
  std::vector<BeatRow> beats;
  for (std::size_t i = 0; i < record.beatCount; ++i) {
    const std::optional<double> bpm = parseNumber(record.beats[i].bpm);
    const std::optional<double> time = parseTimeOfDay(record.beats[i].time);
    if (!bpm || !time || !startOfDay) {
      continue;
    }
    double since = std::fmod(*time - *startOfDay + kDay * 1.5, kDay) - kDay / 2;
    if (since < -60 || since > span + 60) {
      since -= kQuarterHour * std::round((since - span / 2) / kQuarterHour);
    }
    beats.push_back(BeatRow{since, *bpm});
  }
  return beats;
}

MappedSample RecordMapper::mapRecord(const ExportedRecord& record, MappedParts* parts) {
  if (record.type.empty()) {
    return skip(SkipReason::missingAttribute, kType);
  }
  const StoredType* type = findStoredType(record.type);
  if (type == nullptr ||
      (type->kind != StoredKind::quantity && type->kind != StoredKind::category)) {
    // An identifier nobody has published yet: kept as written.
    return keptRecord(record);
  }
  // Identity: type, source, instants, value (canonical number or category raw value), unit.
  name_.assign(record.type);
  name_ += kSeparator;
  name_ += record.sourceName;
  name_ += kSeparator;

  if (type->kind == StoredKind::quantity) {
    if (!record.hasUnit) {
      return skip(SkipReason::missingAttribute, kUnit);
    }
    const std::optional<double> value = record.hasValue ? parseNumber(record.value) : std::nullopt;
    if (!value) {
      return skip(SkipReason::invalidValue, record.type);
    }
    // In the canonical unit when the grammar reads both; as written when the unit is the
    // canonical one spelt the same; otherwise the record is kept as written.
    const std::optional<Unit> canonical = type->unit();
    const Unit* unit = units_.find(record.unit);
    std::optional<double> stored;
    if (canonical && unit != nullptr && unit->isCompatible(*canonical)) {
      stored = unit->convert(*value, *canonical).value();
    } else if (record.unit == type->canonicalUnit) {
      stored = *value;
    } else {
      return keptRecord(record);
    }
    Common common;
    if (std::optional<Skip> failure = namedProperties(record, record.type, common)) {
      return std::move(*failure);
    }
    name_ += canonicalNumber(*value);
    name_ += kSeparator;
    name_ += record.unit;
    std::vector<BeatRow> beats;
    if (parts != nullptr && record.hasBeatList) {
      beats = beatsOf(record, common);
    }
    SampleRow row = rowOf(type->identifier, std::move(common));
    row.uuid = nameBasedUuid(name_);
    row.value = stored;
    if (record.unit != type->canonicalUnit) {
      row.originalValue = *value;
    }
    row.unit = record.unit;
    if (parts != nullptr && record.hasBeatList) {
      parts->beats = BeatSeriesRow{row.uuid, std::move(beats)};
    }
    return row;
  }

  int value = 0;  // HKCategoryValueNotApplicable: old exports write no value for those
  if (record.hasValue) {
    if (const std::optional<int> named = exportxml::categoryValue(record.value)) {
      value = *named;
    } else {
      const auto [end, error] =
          std::from_chars(record.value.data(), record.value.data() + record.value.size(), value);
      if (error != std::errc() || end != record.value.data() + record.value.size()) {
        // A value newer than the table: kept as written.
        return keptRecord(record);
      }
    }
  }
  Common common;
  if (std::optional<Skip> failure = namedProperties(record, record.type, common)) {
    return std::move(*failure);
  }
  name_ += std::to_string(value);
  SampleRow row = rowOf(type->identifier, std::move(common));
  row.uuid = nameBasedUuid(name_);
  row.category = value;
  return row;
}

MappedSample RecordMapper::mapWorkout(const ExportedWorkout& workout, MappedParts& parts) {
  Workout::Details details;
  if (workout.activityType.empty()) {
    return skip(SkipReason::missingAttribute, kWorkoutActivityType);
  }
  // An activity newer than this table is still a workout: kept as "other".
  details.workoutActivityType =
      exportxml::workoutActivityType(workout.activityType).value_or(kWorkoutActivityTypeOther);
  if (!workout.duration.empty()) {
    const std::optional<double> duration =
        durationSeconds(workout.duration, workout.durationUnit, units_);
    if (!duration) {
      return skip(SkipReason::invalidValue, kWorkoutTypeIdentifier);
    }
    details.duration = *duration;
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

  name_.assign(kWorkoutTypeIdentifier);
  name_ += kSeparator;
  name_ += workout.sourceName;
  name_ += kSeparator;
  Common common;
  if (std::optional<Skip> failure = namedProperties(workout, kWorkoutTypeIdentifier, common)) {
    return std::move(*failure);
  }
  name_ += std::to_string(details.workoutActivityType);
  name_ += kSeparator;
  name_ += canonicalNumber(details.duration);
  if (details.duration < 0) {
    return skip(SkipReason::invalidValue, kWorkoutTypeIdentifier);
  }
  SampleRow row = rowOf(kWorkoutTypeIdentifier, std::move(common));
  row.uuid = nameBasedUuid(name_);
  row.details = encodeWorkoutDetails(details);

  for (const ExportedWorkoutEvent& event : workout.events) {
    const std::optional<Date> date = parseExportDate(event.date);
    if (!date) {
      continue;
    }
    parts.events.push_back(WorkoutEventRow{
        row.uuid, static_cast<std::int64_t>(parts.events.size()), event.type, storedTime(*date),
        event.duration.empty() ? std::nullopt
                               : durationSeconds(event.duration, event.durationUnit, units_),
        encodeMetadata(metadataOf(event.metadata, event.metadata.size()))});
  }
  for (const ExportedRoute& route : workout.routes) {
    const std::optional<Date> start = parseExportDate(route.startDate);
    const std::optional<Date> end = parseExportDate(route.endDate);
    WorkoutRouteRow made{row.uuid,
                         static_cast<std::int64_t>(parts.routes.size()),
                         start ? storedTime(*start) : row.start,
                         end ? storedTime(*end) : row.end,
                         route.sourceName,
                         encodeMetadata(metadataOf(route.metadata, route.metadataCount)),
                         std::nullopt,
                         route.locations};
    if (!route.filePath.empty()) {
      made.filePath = route.filePath;
    }
    parts.routes.push_back(std::move(made));
  }
  return row;
}

MappedSample RecordMapper::mapCorrelation(const ExportedCorrelation& correlation) {
  const StoredType* type = findStoredType(correlation.type);
  if (correlation.type.empty()) {
    return skip(SkipReason::missingAttribute, kType);
  }
  if (type == nullptr || type->kind != StoredKind::correlation) {
    nlohmann::ordered_json json;
    json[kType] = correlation.type;
    json[kSourceName] = correlation.sourceName;
    json[kStartDate] = correlation.startDate;
    json[kEndDate] = correlation.endDate;
    for (const Uuid& member : correlation.members) {
      json[kRecord].push_back(member.uuidString());
    }
    return keptElement(kCorrelation,
                       json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  }
  // Identity: type, source, instants and the members' identities.
  name_.assign(correlation.type);
  name_ += kSeparator;
  name_ += correlation.sourceName;
  name_ += kSeparator;
  Common common;
  if (std::optional<Skip> failure = namedProperties(correlation, correlation.type, common)) {
    return std::move(*failure);
  }
  std::vector<Uuid> members = correlation.members;
  std::sort(members.begin(), members.end());
  for (const Uuid& member : members) {
    name_ += member.uuidString();
  }
  SampleRow row = rowOf(type->identifier, std::move(common));
  row.uuid = nameBasedUuid(name_);
  return row;
}

std::variant<ActivitySummaryRow, Skip> RecordMapper::mapActivitySummary(
    const std::vector<std::pair<std::string, std::string>>& attributes) {
  ActivitySummaryRow row;
  std::string energyUnit(kDefaultEnergyUnit);
  for (const auto& [key, value] : attributes) {
    if (key == kActiveEnergyBurnedUnit) {
      energyUnit = value;
    }
  }
  const Unit* energy = units_.find(energyUnit);
  if (energy == nullptr || !energy->isCompatible(Unit::kilocalorie())) {
    return skip(SkipReason::unknownUnit, energyUnit);
  }
  struct Field {
    std::string_view name;
    std::optional<double> ActivitySummaryRow::*into;
    bool isEnergy;
  };
  constexpr std::array<Field, 8> kFields = {{
      {kActiveEnergyBurned, &ActivitySummaryRow::activeEnergyBurned, true},
      {kActiveEnergyBurnedGoal, &ActivitySummaryRow::activeEnergyBurnedGoal, true},
      {kAppleMoveTime, &ActivitySummaryRow::appleMoveTime, false},
      {kAppleMoveTimeGoal, &ActivitySummaryRow::appleMoveTimeGoal, false},
      {kAppleExerciseTime, &ActivitySummaryRow::appleExerciseTime, false},
      {kAppleExerciseTimeGoal, &ActivitySummaryRow::appleExerciseTimeGoal, false},
      {kAppleStandHours, &ActivitySummaryRow::appleStandHours, false},
      {kAppleStandHoursGoal, &ActivitySummaryRow::appleStandHoursGoal, false},
  }};
  for (const auto& [key, value] : attributes) {
    if (key == kDateComponents) {
      row.day = value;
      continue;
    }
    for (const Field& field : kFields) {
      if (key != field.name) {
        continue;
      }
      const std::optional<double> number = parseNumber(value);
      if (!number) {
        return skip(SkipReason::invalidValue, kActivitySummary);
      }
      row.*field.into =
          field.isEnergy ? energy->convert(*number, Unit::kilocalorie()).value() : *number;
    }
  }
  if (row.day.empty()) {
    return skip(SkipReason::missingAttribute, kDateComponents);
  }
  return row;
}

}  // namespace kestrova
