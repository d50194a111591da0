#include "healthkit/health_kit_types.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace kestrova {
namespace {

constexpr std::array<std::string_view, 10> kDailySummaryIdentifiers = {
    "HKQuantityTypeIdentifierStepCount",
    "HKQuantityTypeIdentifierDistanceCycling",
    "HKQuantityTypeIdentifierDistanceDownhillSnowSports",
    "HKQuantityTypeIdentifierDistanceSwimming",
    "HKQuantityTypeIdentifierDistanceWalkingRunning",
    "HKQuantityTypeIdentifierDistanceWheelchair",
    "HKQuantityTypeIdentifierBasalEnergyBurned",
    "HKQuantityTypeIdentifierActiveEnergyBurned",
    "HKQuantityTypeIdentifierHeartRate",
    "HKQuantityTypeIdentifierRestingHeartRate",
};

constexpr std::array<std::string_view, 11> kBodyMeasurementIdentifiers = {
    "HKQuantityTypeIdentifierBodyMassIndex",
    "HKQuantityTypeIdentifierHeight",
    "HKQuantityTypeIdentifierBodyMass",
    "HKQuantityTypeIdentifierBodyFatPercentage",
    "HKQuantityTypeIdentifierBodyTemperature",
    "HKQuantityTypeIdentifierBloodGlucose",
    "HKQuantityTypeIdentifierBloodPressureSystolic",
    "HKQuantityTypeIdentifierBloodPressureDiastolic",
    "HKQuantityTypeIdentifierOxygenSaturation",
    "HKQuantityTypeIdentifierVO2Max",
    "HKQuantityTypeIdentifierHeartRateVariabilitySDNN",
};

// Indexed by raw value; electrocardiogram and workout are not quantity or category types.
constexpr std::array<std::string_view, KestrovaHealthKitDataType::kCaseCount> kDataTypeIdentifiers =
    {
        "HKQuantityTypeIdentifierActiveEnergyBurned",
        "HKQuantityTypeIdentifierBasalEnergyBurned",
        "HKQuantityTypeIdentifierBloodGlucose",
        "HKQuantityTypeIdentifierBloodPressureDiastolic",
        "HKQuantityTypeIdentifierBloodPressureSystolic",
        "HKQuantityTypeIdentifierBodyFatPercentage",
        "HKQuantityTypeIdentifierBodyMass",
        "HKQuantityTypeIdentifierBodyMassIndex",
        "HKQuantityTypeIdentifierBodyTemperature",
        "HKQuantityTypeIdentifierDistanceCycling",
        "HKQuantityTypeIdentifierDistanceDownhillSnowSports",
        "HKQuantityTypeIdentifierDistanceSwimming",
        "HKQuantityTypeIdentifierDistanceWalkingRunning",
        "HKQuantityTypeIdentifierDistanceWheelchair",
        kElectrocardiogramTypeIdentifier,
        "HKQuantityTypeIdentifierHeartRate",
        "HKQuantityTypeIdentifierHeartRateVariabilitySDNN",
        "HKQuantityTypeIdentifierHeight",
        kMindfulSessionIdentifier,
        "HKQuantityTypeIdentifierOxygenSaturation",
        "HKQuantityTypeIdentifierRestingHeartRate",
        kSleepAnalysisIdentifier,
        "HKQuantityTypeIdentifierStepCount",
        "HKQuantityTypeIdentifierVO2Max",
        kWorkoutTypeIdentifier,
};

// An identifier the store does not know is left out, as the platform does.
template <std::size_t N>
std::vector<ObjectType> quantityTypes(const std::array<std::string_view, N>& identifiers) {
  std::vector<ObjectType> types;
  for (auto identifier : identifiers) {
    if (auto type = ObjectType::quantityType(identifier)) {
      types.push_back(*type);
    }
  }
  return types;
}

}  // namespace

const std::vector<ObjectType>& dailySummaryTypes() {
  static const auto* types = new std::vector<ObjectType>(quantityTypes(kDailySummaryIdentifiers));
  return *types;
}

const std::vector<ObjectType>& dailyDetailTypes() {
  static const auto* types = [] {
    auto* detail = new std::vector<ObjectType>();
    for (const auto& type : dailySummaryTypes()) {
      if (type.identifier() != kHeartRateIdentifier &&
          type.identifier() != kRestingHeartRateIdentifier) {
        detail->push_back(type);
      }
    }
    return detail;
  }();
  return *types;
}

const std::vector<ObjectType>& bodyMeasurementTypes() {
  static const auto* types =
      new std::vector<ObjectType>(quantityTypes(kBodyMeasurementIdentifiers));
  return *types;
}

std::vector<ObjectType> readTypes(SystemVersion system) {
  std::vector<ObjectType> types = {ObjectType::workoutType()};
  if (auto sleep = ObjectType::categoryType(kSleepAnalysisIdentifier)) {
    types.push_back(*sleep);
  }
  if (auto mindful = ObjectType::categoryType(kMindfulSessionIdentifier)) {
    types.push_back(*mindful);
  }
  if (system.isAtLeast(kElectrocardiogramSystemMajor)) {
    types.push_back(ObjectType::electrocardiogramType());
  }
  for (const auto* set : {&dailySummaryTypes(), &dailyDetailTypes(), &bodyMeasurementTypes()}) {
    for (const auto& type : *set) {
      if (std::find(types.begin(), types.end(), type) == types.end()) {
        types.push_back(type);
      }
    }
  }
  return types;
}

std::optional<ObjectType> objectType(KestrovaHealthKitDataType dataType, SystemVersion system) {
  if (dataType == KestrovaHealthKitDataType::electrocardiogram &&
      !system.isAtLeast(kElectrocardiogramSystemMajor)) {
    return std::nullopt;
  }
  return ObjectType::fromIdentifier(
      kDataTypeIdentifiers[static_cast<std::size_t>(dataType.rawValue())]);
}

}  // namespace kestrova
