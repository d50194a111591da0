#include "healthstore/import/export_vocabulary.h"

#include <array>
#include <utility>

namespace kestrova::exportxml {
namespace {

template <class T, std::size_t N>
std::optional<T> lookUp(const std::array<std::pair<std::string_view, T>, N>& table,
                        std::string_view name) {
  for (const auto& [key, value] : table) {
    if (key == name) {
      return value;
    }
  }
  return std::nullopt;
}

// Raw values as HealthKit's category value enums. The legacy "Asleep" of exports made before
// sleep stages existed is what HealthKit renamed AsleepUnspecified, raw value 1.
constexpr std::array<std::pair<std::string_view, int>, 45> kCategoryValues = {{
    {"HKCategoryValueNotApplicable", 0},
    {"HKCategoryValueSleepAnalysisInBed", kSleepInBed},
    {"HKCategoryValueSleepAnalysisAsleep", kSleepAsleepUnspecified},
    {"HKCategoryValueSleepAnalysisAsleepUnspecified", kSleepAsleepUnspecified},
    {"HKCategoryValueSleepAnalysisAwake", kSleepAwake},
    {"HKCategoryValueSleepAnalysisAsleepCore", kSleepAsleepCore},
    {"HKCategoryValueSleepAnalysisAsleepDeep", kSleepAsleepDeep},
    {"HKCategoryValueSleepAnalysisAsleepREM", kSleepAsleepREM},
    {"HKCategoryValueAppleStandHourStood", 0},
    {"HKCategoryValueAppleStandHourIdle", 1},
    {"HKCategoryValueEnvironmentalAudioExposureEventMomentaryLimit", 1},
    {"HKCategoryValueHeadphoneAudioExposureEventSevenDayLimit", 1},
    {"HKCategoryValueLowCardioFitnessEventLowFitness", 1},
    {"HKCategoryValueAppleWalkingSteadinessEventInitialLow", 1},
    {"HKCategoryValueAppleWalkingSteadinessEventInitialVeryLow", 2},
    {"HKCategoryValueAppleWalkingSteadinessEventRepeatLow", 3},
    {"HKCategoryValueAppleWalkingSteadinessEventRepeatVeryLow", 4},
    {"HKCategoryValueSeverityUnspecified", 0},
    {"HKCategoryValueSeverityNotPresent", 1},
    {"HKCategoryValueSeverityMild", 2},
    {"HKCategoryValueSeverityModerate", 3},
    {"HKCategoryValueSeveritySevere", 4},
    {"HKCategoryValuePresencePresent", 0},
    {"HKCategoryValuePresenceNotPresent", 1},
    {"HKCategoryValueAppetiteChangesUnspecified", 0},
    {"HKCategoryValueAppetiteChangesNoChange", 1},
    {"HKCategoryValueAppetiteChangesDecreased", 2},
    {"HKCategoryValueAppetiteChangesIncreased", 3},
    {"HKCategoryValueMenstrualFlowUnspecified", 1},
    {"HKCategoryValueMenstrualFlowLight", 2},
    {"HKCategoryValueMenstrualFlowMedium", 3},
    {"HKCategoryValueMenstrualFlowHeavy", 4},
    {"HKCategoryValueMenstrualFlowNone", 5},
    {"HKCategoryValueCervicalMucusQualityDry", 1},
    {"HKCategoryValueCervicalMucusQualitySticky", 2},
    {"HKCategoryValueCervicalMucusQualityCreamy", 3},
    {"HKCategoryValueCervicalMucusQualityWatery", 4},
    {"HKCategoryValueCervicalMucusQualityEggWhite", 5},
    {"HKCategoryValueOvulationTestResultNegative", 1},
    {"HKCategoryValueOvulationTestResultLuteinizingHormoneSurge", 2},
    {"HKCategoryValueOvulationTestResultIndeterminate", 3},
    {"HKCategoryValueOvulationTestResultEstrogenSurge", 4},
    {"HKCategoryValuePregnancyTestResultNegative", 1},
    {"HKCategoryValuePregnancyTestResultPositive", 2},
    {"HKCategoryValuePregnancyTestResultIndeterminate", 3},
}};

// Raw values as HKWorkoutActivityType.
constexpr std::array<std::pair<std::string_view, std::uint32_t>, 83> kActivityTypes = {{
    {"HKWorkoutActivityTypeAmericanFootball", 1},
    {"HKWorkoutActivityTypeArchery", 2},
    {"HKWorkoutActivityTypeAustralianFootball", 3},
    {"HKWorkoutActivityTypeBadminton", 4},
    {"HKWorkoutActivityTypeBaseball", 5},
    {"HKWorkoutActivityTypeBasketball", 6},
    {"HKWorkoutActivityTypeBowling", 7},
    {"HKWorkoutActivityTypeBoxing", 8},
    {"HKWorkoutActivityTypeClimbing", 9},
    {"HKWorkoutActivityTypeCricket", 10},
    {"HKWorkoutActivityTypeCrossTraining", 11},
    {"HKWorkoutActivityTypeCurling", 12},
    {"HKWorkoutActivityTypeCycling", 13},
    {"HKWorkoutActivityTypeDance", 14},
    {"HKWorkoutActivityTypeDanceInspiredTraining", 15},
    {"HKWorkoutActivityTypeElliptical", 16},
    {"HKWorkoutActivityTypeEquestrianSports", 17},
    {"HKWorkoutActivityTypeFencing", 18},
    {"HKWorkoutActivityTypeFishing", 19},
    {"HKWorkoutActivityTypeFunctionalStrengthTraining", 20},
    {"HKWorkoutActivityTypeGolf", 21},
    {"HKWorkoutActivityTypeGymnastics", 22},
    {"HKWorkoutActivityTypeHandball", 23},
    {"HKWorkoutActivityTypeHiking", 24},
    {"HKWorkoutActivityTypeHockey", 25},
    {"HKWorkoutActivityTypeHunting", 26},
    {"HKWorkoutActivityTypeLacrosse", 27},
    {"HKWorkoutActivityTypeMartialArts", 28},
    {"HKWorkoutActivityTypeMindAndBody", 29},
    {"HKWorkoutActivityTypeMixedMetabolicCardioTraining", 30},
    {"HKWorkoutActivityTypePaddleSports", 31},
    {"HKWorkoutActivityTypePlay", 32},
    {"HKWorkoutActivityTypePreparationAndRecovery", 33},
    {"HKWorkoutActivityTypeRacquetball", 34},
    {"HKWorkoutActivityTypeRowing", 35},
    {"HKWorkoutActivityTypeRugby", 36},
    {"HKWorkoutActivityTypeRunning", 37},
    {"HKWorkoutActivityTypeSailing", 38},
    {"HKWorkoutActivityTypeSkatingSports", 39},
    {"HKWorkoutActivityTypeSnowSports", 40},
    {"HKWorkoutActivityTypeSoccer", 41},
    {"HKWorkoutActivityTypeSoftball", 42},
    {"HKWorkoutActivityTypeSquash", 43},
    {"HKWorkoutActivityTypeStairClimbing", 44},
    {"HKWorkoutActivityTypeSurfingSports", 45},
    {"HKWorkoutActivityTypeSwimming", 46},
    {"HKWorkoutActivityTypeTableTennis", 47},
    {"HKWorkoutActivityTypeTennis", 48},
    {"HKWorkoutActivityTypeTrackAndField", 49},
    {"HKWorkoutActivityTypeTraditionalStrengthTraining", 50},
    {"HKWorkoutActivityTypeVolleyball", 51},
    {"HKWorkoutActivityTypeWalking", 52},
    {"HKWorkoutActivityTypeWaterFitness", 53},
    {"HKWorkoutActivityTypeWaterPolo", 54},
    {"HKWorkoutActivityTypeWaterSports", 55},
    {"HKWorkoutActivityTypeWrestling", 56},
    {"HKWorkoutActivityTypeYoga", 57},
    {"HKWorkoutActivityTypeBarre", 58},
    {"HKWorkoutActivityTypeCoreTraining", 59},
    {"HKWorkoutActivityTypeCrossCountrySkiing", 60},
    {"HKWorkoutActivityTypeDownhillSkiing", 61},
    {"HKWorkoutActivityTypeFlexibility", 62},
    {"HKWorkoutActivityTypeHighIntensityIntervalTraining", 63},
    {"HKWorkoutActivityTypeJumpRope", 64},
    {"HKWorkoutActivityTypeKickboxing", 65},
    {"HKWorkoutActivityTypePilates", 66},
    {"HKWorkoutActivityTypeSnowboarding", 67},
    {"HKWorkoutActivityTypeStairs", 68},
    {"HKWorkoutActivityTypeStepTraining", 69},
    {"HKWorkoutActivityTypeWheelchairWalkPace", 70},
    {"HKWorkoutActivityTypeWheelchairRunPace", 71},
    {"HKWorkoutActivityTypeTaiChi", 72},
    {"HKWorkoutActivityTypeMixedCardio", 73},
    {"HKWorkoutActivityTypeHandCycling", 74},
    {"HKWorkoutActivityTypeDiscSports", 75},
    {"HKWorkoutActivityTypeFitnessGaming", 76},
    {"HKWorkoutActivityTypeCardioDance", 77},
    {"HKWorkoutActivityTypeSocialDance", 78},
    {"HKWorkoutActivityTypePickleball", 79},
    {"HKWorkoutActivityTypeCooldown", 80},
    {"HKWorkoutActivityTypeSwimBikeRun", 82},
    {"HKWorkoutActivityTypeTransition", 83},
    {"HKWorkoutActivityTypeOther", kWorkoutActivityTypeOther},
}};

using Classification = Electrocardiogram::Classification;
// English display texts of the Health app; other languages are reported as unrecognized.
constexpr std::array<std::pair<std::string_view, Classification>, 8> kClassifications = {{
    {"Sinus Rhythm", Classification::sinusRhythm},
    {"Atrial Fibrillation", Classification::atrialFibrillation},
    {"Heart Rate Below 50", Classification::inconclusiveLowHeartRate},
    {"Heart Rate Over 150", Classification::inconclusiveHighHeartRate},
    {"Heart Rate Over 120", Classification::inconclusiveHighHeartRate},
    {"Poor Recording", Classification::inconclusivePoorReading},
    {"Inconclusive", Classification::inconclusiveOther},
    {"Not Set", Classification::notSet},
}};

}  // namespace

std::optional<int> categoryValue(std::string_view name) {
  return lookUp(kCategoryValues, name);
}

std::optional<std::uint32_t> workoutActivityType(std::string_view name) {
  return lookUp(kActivityTypes, name);
}

Electrocardiogram::Classification electrocardiogramClassification(std::string_view text) {
  return lookUp(kClassifications, text).value_or(Classification::unrecognized);
}

}  // namespace kestrova::exportxml
