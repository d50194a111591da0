#include "platform/health/object_type.h"

#include <array>
#include <vector>

namespace kestrova {

struct ObjectTypeInfo {
  std::string_view identifier;
  ObjectKind kind;
  AggregationStyle style;
  std::string_view unit;
};

namespace {

constexpr AggregationStyle kSum = AggregationStyle::cumulative;
constexpr AggregationStyle kMean = AggregationStyle::discreteArithmetic;
constexpr AggregationStyle kWeighted = AggregationStyle::discreteTemporallyWeighted;
constexpr ObjectKind kQuantity = ObjectKind::quantity;
constexpr ObjectKind kCategory = ObjectKind::category;

constexpr std::array kTypes = {
    ObjectTypeInfo{kStepCountIdentifier, kQuantity, kSum, "count"},
    ObjectTypeInfo{"HKQuantityTypeIdentifierDistanceWalkingRunning", kQuantity, kSum, "m"},
    ObjectTypeInfo{"HKQuantityTypeIdentifierDistanceCycling", kQuantity, kSum, "m"},
    ObjectTypeInfo{"HKQuantityTypeIdentifierDistanceSwimming", kQuantity, kSum, "m"},
    ObjectTypeInfo{"HKQuantityTypeIdentifierDistanceWheelchair", kQuantity, kSum, "m"},
    ObjectTypeInfo{"HKQuantityTypeIdentifierDistanceDownhillSnowSports", kQuantity, kSum, "m"},
    ObjectTypeInfo{"HKQuantityTypeIdentifierActiveEnergyBurned", kQuantity, kSum, "kcal"},
    ObjectTypeInfo{"HKQuantityTypeIdentifierBasalEnergyBurned", kQuantity, kSum, "kcal"},
    ObjectTypeInfo{"HKQuantityTypeIdentifierFlightsClimbed", kQuantity, kSum, "count"},
    ObjectTypeInfo{"HKQuantityTypeIdentifierAppleExerciseTime", kQuantity, kSum, "min"},
    ObjectTypeInfo{"HKQuantityTypeIdentifierDietaryWater", kQuantity, kSum, "mL"},
    ObjectTypeInfo{kHeartRateIdentifier, kQuantity, kWeighted, "count/min"},
    ObjectTypeInfo{kRestingHeartRateIdentifier, kQuantity, kMean, "count/min"},
    ObjectTypeInfo{"HKQuantityTypeIdentifierWalkingHeartRateAverage", kQuantity, kMean,
                   "count/min"},
    ObjectTypeInfo{"HKQuantityTypeIdentifierHeartRateVariabilitySDNN", kQuantity, kMean, "ms"},
    ObjectTypeInfo{"HKQuantityTypeIdentifierRespiratoryRate", kQuantity, kMean, "count/min"},
    ObjectTypeInfo{"HKQuantityTypeIdentifierBodyMassIndex", kQuantity, kMean, "count"},
    ObjectTypeInfo{"HKQuantityTypeIdentifierHeight", kQuantity, kMean, "m"},
    ObjectTypeInfo{"HKQuantityTypeIdentifierBodyMass", kQuantity, kMean, "kg"},
    ObjectTypeInfo{"HKQuantityTypeIdentifierLeanBodyMass", kQuantity, kMean, "kg"},
    ObjectTypeInfo{"HKQuantityTypeIdentifierWaistCircumference", kQuantity, kMean, "m"},
    ObjectTypeInfo{"HKQuantityTypeIdentifierBodyFatPercentage", kQuantity, kMean, "%"},
    ObjectTypeInfo{"HKQuantityTypeIdentifierBodyTemperature", kQuantity, kMean, "degC"},
    ObjectTypeInfo{"HKQuantityTypeIdentifierBloodGlucose", kQuantity, kMean, "mg/dL"},
    ObjectTypeInfo{"HKQuantityTypeIdentifierBloodPressureSystolic", kQuantity, kMean, "mmHg"},
    ObjectTypeInfo{"HKQuantityTypeIdentifierBloodPressureDiastolic", kQuantity, kMean, "mmHg"},
    ObjectTypeInfo{"HKQuantityTypeIdentifierOxygenSaturation", kQuantity, kMean, "%"},
    ObjectTypeInfo{"HKQuantityTypeIdentifierVO2Max", kQuantity, kMean, "mL/(kg*min)"},
    ObjectTypeInfo{kSleepAnalysisIdentifier, kCategory, kSum, "count"},
    ObjectTypeInfo{kMindfulSessionIdentifier, kCategory, kSum, "count"},
    ObjectTypeInfo{"HKCategoryTypeIdentifierHighHeartRateEvent", kCategory, kSum, "count"},
    ObjectTypeInfo{"HKCategoryTypeIdentifierLowHeartRateEvent", kCategory, kSum, "count"},
    ObjectTypeInfo{"HKCategoryTypeIdentifierIrregularHeartRhythmEvent", kCategory, kSum, "count"},
    ObjectTypeInfo{"HKCategoryTypeIdentifierAppleStandHour", kCategory, kSum, "count"},
    ObjectTypeInfo{kWorkoutTypeIdentifier, ObjectKind::workout, kSum, "count"},
    ObjectTypeInfo{kElectrocardiogramTypeIdentifier, ObjectKind::electrocardiogram, kSum, "count"},
};

const ObjectTypeInfo* find(std::string_view identifier) {
  for (const ObjectTypeInfo& info : kTypes) {
    if (info.identifier == identifier) {
      return &info;
    }
  }
  return nullptr;
}

std::optional<ObjectType> ofKind(std::string_view identifier, ObjectKind kind) {
  std::optional<ObjectType> type = ObjectType::fromIdentifier(identifier);
  if (type && type->kind() != kind) {
    return std::nullopt;
  }
  return type;
}

}  // namespace

std::optional<ObjectType> ObjectType::fromIdentifier(std::string_view identifier) {
  const ObjectTypeInfo* info = find(identifier);
  if (info == nullptr) {
    return std::nullopt;
  }
  return ObjectType(info);
}

std::optional<ObjectType> ObjectType::quantityType(std::string_view identifier) {
  return ofKind(identifier, ObjectKind::quantity);
}

std::optional<ObjectType> ObjectType::categoryType(std::string_view identifier) {
  return ofKind(identifier, ObjectKind::category);
}

ObjectType ObjectType::workoutType() {
  return ObjectType(find(kWorkoutTypeIdentifier));
}

ObjectType ObjectType::electrocardiogramType() {
  return ObjectType(find(kElectrocardiogramTypeIdentifier));
}

std::string_view ObjectType::identifier() const {
  return info_->identifier;
}

ObjectKind ObjectType::kind() const {
  return info_->kind;
}

AggregationStyle ObjectType::aggregationStyle() const {
  return info_->style;
}

Unit ObjectType::canonicalUnit() const {
  // Parsed once: statistics and saves ask for it per sample. Never destroyed: library threads
  // may still ask while the host process exits.
  static const auto* const kUnits = [] {
    auto* units = new std::vector<Unit>;
    for (const ObjectTypeInfo& info : kTypes) {
      units->push_back(Unit::fromString(info.unit).value());
    }
    return units;
  }();
  return (*kUnits)[static_cast<std::size_t>(info_ - kTypes.data())];
}

}  // namespace kestrova
