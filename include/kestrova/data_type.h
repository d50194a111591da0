// KestrovaHealthKitDataType: the kinds of health data the library can collect. The raw values
// are part of the public integer interface and never change. A plain value; thread-safe.
#pragma once

#include <array>
#include <optional>
#include <string_view>

class KestrovaHealthKitDataType {
 public:
  // Alphabetical by name; the raw values follow that order.
  enum Value : int {
    activeEnergyBurned = 0,
    basalEnergyBurned = 1,
    bloodGlucose = 2,
    bloodPressureDiastolic = 3,
    bloodPressureSystolic = 4,
    bodyFatPercentage = 5,
    bodyMass = 6,
    bodyMassIndex = 7,
    bodyTemperature = 8,
    distanceCycling = 9,
    distanceDownhillSnowSports = 10,
    distanceSwimming = 11,
    distanceWalkingRunning = 12,
    distanceWheelchair = 13,
    electrocardiogram = 14,
    heartRate = 15,
    heartRateVariabilitySDNN = 16,
    height = 17,
    mindfulSession = 18,
    oxygenSaturation = 19,
    restingHeartRate = 20,
    sleepAnalysis = 21,
    stepCount = 22,
    vo2Max = 23,
    workout = 24,
  };
  static constexpr int kCaseCount = 25;

  constexpr KestrovaHealthKitDataType(Value value) : value_(value) {}  // NOLINT: implicit by design

  // None for anything outside 0...24.
  static constexpr std::optional<KestrovaHealthKitDataType> fromRawValue(int rawValue) {
    if (rawValue < 0 || rawValue >= kCaseCount) {
      return std::nullopt;
    }
    return KestrovaHealthKitDataType(static_cast<Value>(rawValue));
  }

  // Every case, in raw-value order.
  static const std::array<KestrovaHealthKitDataType, kCaseCount>& allCases();

  constexpr int rawValue() const { return value_; }
  constexpr operator Value() const { return value_; }  // NOLINT: lets a switch name the cases
  // The case name, e.g. "stepCount".
  std::string_view name() const;

 private:
  Value value_;
};
