// Health object types by the identifiers the platform uses ("HKQuantityTypeIdentifierStepCount",
// "HKWorkoutTypeIdentifier", ...), with each quantity type's aggregation style and unit.
// Immutable values over a constant table: no shared mutable state, safe on any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/health/unit.h"

namespace kestrova {

inline constexpr std::string_view kWorkoutTypeIdentifier = "HKWorkoutTypeIdentifier";
inline constexpr std::string_view kElectrocardiogramTypeIdentifier =
    "HKDataTypeIdentifierElectrocardiogram";
inline constexpr std::string_view kSleepAnalysisIdentifier =
    "HKCategoryTypeIdentifierSleepAnalysis";
inline constexpr std::string_view kMindfulSessionIdentifier =
    "HKCategoryTypeIdentifierMindfulSession";
inline constexpr std::string_view kStepCountIdentifier = "HKQuantityTypeIdentifierStepCount";
inline constexpr std::string_view kHeartRateIdentifier = "HKQuantityTypeIdentifierHeartRate";
inline constexpr std::string_view kRestingHeartRateIdentifier =
    "HKQuantityTypeIdentifierRestingHeartRate";

enum class ObjectKind { quantity, category, workout, electrocardiogram };

// How statistics combine a quantity type's samples. Raw values as the platform's.
enum class AggregationStyle {
  cumulative = 0,
  discreteArithmetic = 1,
  discreteTemporallyWeighted = 2,
  discreteEquivalentContinuousLevel = 3,
};

inline bool isDiscrete(AggregationStyle style) {
  return style != AggregationStyle::cumulative;
}

struct ObjectTypeInfo;

class ObjectType {
 public:
  // None for identifiers the store does not know or of another kind.
  static std::optional<ObjectType> quantityType(std::string_view identifier);
  static std::optional<ObjectType> categoryType(std::string_view identifier);
  static ObjectType workoutType();
  static ObjectType electrocardiogramType();
  // Any kind.
  static std::optional<ObjectType> fromIdentifier(std::string_view identifier);

  std::string_view identifier() const;
  ObjectKind kind() const;
  // Quantity types only; cumulative for other kinds.
  AggregationStyle aggregationStyle() const;
  // The unit in which the store keeps values of a quantity type and reports statistics; count
  // for other kinds.
  Unit canonicalUnit() const;

  friend bool operator==(const ObjectType& a, const ObjectType& b) { return a.info_ == b.info_; }
  friend bool operator<(const ObjectType& a, const ObjectType& b) {
    return a.identifier() < b.identifier();
  }

 private:
  explicit ObjectType(const ObjectTypeInfo* info) : info_(info) {}
  const ObjectTypeInfo* info_;
};

struct ObjectTypeHash {
  std::size_t operator()(const ObjectType& type) const {
    return std::hash<std::string_view>()(type.identifier());
  }
};

}  // namespace kestrova
