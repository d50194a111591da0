#include "kestrova/data_type.h"

#include <utility>

namespace {

constexpr std::array<std::string_view, KestrovaHealthKitDataType::kCaseCount> kNames = {
    "activeEnergyBurned",
    "basalEnergyBurned",
    "bloodGlucose",
    "bloodPressureDiastolic",
    "bloodPressureSystolic",
    "bodyFatPercentage",
    "bodyMass",
    "bodyMassIndex",
    "bodyTemperature",
    "distanceCycling",
    "distanceDownhillSnowSports",
    "distanceSwimming",
    "distanceWalkingRunning",
    "distanceWheelchair",
    "electrocardiogram",
    "heartRate",
    "heartRateVariabilitySDNN",
    "height",
    "mindfulSession",
    "oxygenSaturation",
    "restingHeartRate",
    "sleepAnalysis",
    "stepCount",
    "vo2Max",
    "workout",
};

template <std::size_t... Raw>
constexpr std::array<KestrovaHealthKitDataType, sizeof...(Raw)> makeAllCases(
    std::index_sequence<Raw...>) {
  return {KestrovaHealthKitDataType(static_cast<KestrovaHealthKitDataType::Value>(Raw))...};
}

}  // namespace

const std::array<KestrovaHealthKitDataType, KestrovaHealthKitDataType::kCaseCount>&
KestrovaHealthKitDataType::allCases() {
  static constexpr auto cases =
      makeAllCases(std::make_index_sequence<KestrovaHealthKitDataType::kCaseCount>());
  return cases;
}

std::string_view KestrovaHealthKitDataType::name() const {
  return kNames[static_cast<std::size_t>(value_)];
}
