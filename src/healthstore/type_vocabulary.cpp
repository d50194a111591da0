#include "healthstore/type_vocabulary.h"

#include <array>
#include <memory>
#include <unordered_map>

#include "platform/health/object_type.h"

namespace kestrova {
namespace {

// The units are HealthKit's own canonical units (HKTypeIdentifiers.h); where the platform's type
// table has the type too, its unit is the same (checked by the vocabulary test).
constexpr std::array kStoredTypes = {
    StoredType{"HKQuantityTypeIdentifierBodyMassIndex", StoredKind::quantity, "count"},
    StoredType{"HKQuantityTypeIdentifierBodyFatPercentage", StoredKind::quantity, "%"},
    StoredType{"HKQuantityTypeIdentifierHeight", StoredKind::quantity, "m"},
    StoredType{"HKQuantityTypeIdentifierBodyMass", StoredKind::quantity, "kg"},
    StoredType{"HKQuantityTypeIdentifierLeanBodyMass", StoredKind::quantity, "kg"},
    StoredType{"HKQuantityTypeIdentifierWaistCircumference", StoredKind::quantity, "m"},
    StoredType{"HKQuantityTypeIdentifierAppleSleepingWristTemperature", StoredKind::quantity,
               "degC"},
    StoredType{"HKQuantityTypeIdentifierStepCount", StoredKind::quantity, "count"},
    StoredType{"HKQuantityTypeIdentifierDistanceWalkingRunning", StoredKind::quantity, "m"},
    StoredType{"HKQuantityTypeIdentifierDistanceCycling", StoredKind::quantity, "m"},
    StoredType{"HKQuantityTypeIdentifierDistanceWheelchair", StoredKind::quantity, "m"},
    StoredType{"HKQuantityTypeIdentifierBasalEnergyBurned", StoredKind::quantity, "kcal"},
    StoredType{"HKQuantityTypeIdentifierActiveEnergyBurned", StoredKind::quantity, "kcal"},
    StoredType{"HKQuantityTypeIdentifierFlightsClimbed", StoredKind::quantity, "count"},
    StoredType{"HKQuantityTypeIdentifierNikeFuel", StoredKind::quantity, "count"},
    StoredType{"HKQuantityTypeIdentifierAppleExerciseTime", StoredKind::quantity, "min"},
    StoredType{"HKQuantityTypeIdentifierAppleMoveTime", StoredKind::quantity, "min"},
    StoredType{"HKQuantityTypeIdentifierAppleStandTime", StoredKind::quantity, "min"},
    StoredType{"HKQuantityTypeIdentifierPushCount", StoredKind::quantity, "count"},
    StoredType{"HKQuantityTypeIdentifierDistanceSwimming", StoredKind::quantity, "m"},
    StoredType{"HKQuantityTypeIdentifierSwimmingStrokeCount", StoredKind::quantity, "count"},
    StoredType{"HKQuantityTypeIdentifierVO2Max", StoredKind::quantity, "mL/(kg*min)"},
    StoredType{"HKQuantityTypeIdentifierDistanceDownhillSnowSports", StoredKind::quantity, "m"},
    StoredType{"HKQuantityTypeIdentifierWalkingSpeed", StoredKind::quantity, "m/s"},
    StoredType{"HKQuantityTypeIdentifierWalkingDoubleSupportPercentage", StoredKind::quantity, "%"},
    StoredType{"HKQuantityTypeIdentifierWalkingAsymmetryPercentage", StoredKind::quantity, "%"},
    StoredType{"HKQuantityTypeIdentifierWalkingStepLength", StoredKind::quantity, "m"},
    StoredType{"HKQuantityTypeIdentifierSixMinuteWalkTestDistance", StoredKind::quantity, "m"},
    StoredType{"HKQuantityTypeIdentifierStairAscentSpeed", StoredKind::quantity, "m/s"},
    StoredType{"HKQuantityTypeIdentifierStairDescentSpeed", StoredKind::quantity, "m/s"},
    StoredType{"HKQuantityTypeIdentifierAppleWalkingSteadiness", StoredKind::quantity, "%"},
    StoredType{"HKQuantityTypeIdentifierRunningStrideLength", StoredKind::quantity, "m"},
    StoredType{"HKQuantityTypeIdentifierRunningVerticalOscillation", StoredKind::quantity, "m"},
    StoredType{"HKQuantityTypeIdentifierRunningGroundContactTime", StoredKind::quantity, "s"},
    StoredType{"HKQuantityTypeIdentifierRunningPower", StoredKind::quantity, "W"},
    StoredType{"HKQuantityTypeIdentifierRunningSpeed", StoredKind::quantity, "m/s"},
    StoredType{"HKQuantityTypeIdentifierCyclingSpeed", StoredKind::quantity, "m/s"},
    StoredType{"HKQuantityTypeIdentifierCyclingPower", StoredKind::quantity, "W"},
    StoredType{"HKQuantityTypeIdentifierCyclingFunctionalThresholdPower", StoredKind::quantity,
               "W"},
    StoredType{"HKQuantityTypeIdentifierCyclingCadence", StoredKind::quantity, "count/min"},
    StoredType{"HKQuantityTypeIdentifierPhysicalEffort", StoredKind::quantity, "kcal/(kg*hr)"},
    StoredType{"HKQuantityTypeIdentifierDistanceRowing", StoredKind::quantity, "m"},
    StoredType{"HKQuantityTypeIdentifierDistancePaddleSports", StoredKind::quantity, "m"},
    StoredType{"HKQuantityTypeIdentifierDistanceCrossCountrySkiing", StoredKind::quantity, "m"},
    StoredType{"HKQuantityTypeIdentifierDistanceSkatingSports", StoredKind::quantity, "m"},
    StoredType{"HKQuantityTypeIdentifierRowingSpeed", StoredKind::quantity, "m/s"},
    StoredType{"HKQuantityTypeIdentifierPaddleSportsSpeed", StoredKind::quantity, "m/s"},
    StoredType{"HKQuantityTypeIdentifierCrossCountrySkiingSpeed", StoredKind::quantity, "m/s"},
    StoredType{"HKQuantityTypeIdentifierEstimatedWorkoutEffortScore", StoredKind::quantity,
               "appleEffortScore"},
    StoredType{"HKQuantityTypeIdentifierWorkoutEffortScore", StoredKind::quantity,
               "appleEffortScore"},
    StoredType{"HKQuantityTypeIdentifierTimeInDaylight", StoredKind::quantity, "min"},
    StoredType{"HKQuantityTypeIdentifierUnderwaterDepth", StoredKind::quantity, "m"},
    StoredType{"HKQuantityTypeIdentifierWaterTemperature", StoredKind::quantity, "degC"},
    StoredType{"HKQuantityTypeIdentifierHeartRate", StoredKind::quantity, "count/min"},
    StoredType{"HKQuantityTypeIdentifierRestingHeartRate", StoredKind::quantity, "count/min"},
    StoredType{"HKQuantityTypeIdentifierWalkingHeartRateAverage", StoredKind::quantity,
               "count/min"},
    StoredType{"HKQuantityTypeIdentifierHeartRateVariabilitySDNN", StoredKind::quantity, "ms"},
    StoredType{"HKQuantityTypeIdentifierHeartRateRecoveryOneMinute", StoredKind::quantity,
               "count/min"},
    StoredType{"HKQuantityTypeIdentifierAtrialFibrillationBurden", StoredKind::quantity, "%"},
    StoredType{"HKQuantityTypeIdentifierOxygenSaturation", StoredKind::quantity, "%"},
    StoredType{"HKQuantityTypeIdentifierBodyTemperature", StoredKind::quantity, "degC"},
    StoredType{"HKQuantityTypeIdentifierBasalBodyTemperature", StoredKind::quantity, "degC"},
    StoredType{"HKQuantityTypeIdentifierBloodPressureSystolic", StoredKind::quantity, "mmHg"},
    StoredType{"HKQuantityTypeIdentifierBloodPressureDiastolic", StoredKind::quantity, "mmHg"},
    StoredType{"HKQuantityTypeIdentifierRespiratoryRate", StoredKind::quantity, "count/min"},
    StoredType{"HKQuantityTypeIdentifierPeripheralPerfusionIndex", StoredKind::quantity, "%"},
    StoredType{"HKQuantityTypeIdentifierBloodGlucose", StoredKind::quantity, "mg/dL"},
    StoredType{"HKQuantityTypeIdentifierNumberOfTimesFallen", StoredKind::quantity, "count"},
    StoredType{"HKQuantityTypeIdentifierElectrodermalActivity", StoredKind::quantity, "S"},
    StoredType{"HKQuantityTypeIdentifierInhalerUsage", StoredKind::quantity, "count"},
    StoredType{"HKQuantityTypeIdentifierInsulinDelivery", StoredKind::quantity, "IU"},
    StoredType{"HKQuantityTypeIdentifierBloodAlcoholContent", StoredKind::quantity, "%"},
    StoredType{"HKQuantityTypeIdentifierForcedVitalCapacity", StoredKind::quantity, "L"},
    StoredType{"HKQuantityTypeIdentifierForcedExpiratoryVolume1", StoredKind::quantity, "L"},
    StoredType{"HKQuantityTypeIdentifierPeakExpiratoryFlowRate", StoredKind::quantity, "L/min"},
    StoredType{"HKQuantityTypeIdentifierEnvironmentalAudioExposure", StoredKind::quantity,
               "dBASPL"},
    StoredType{"HKQuantityTypeIdentifierHeadphoneAudioExposure", StoredKind::quantity, "dBASPL"},
    StoredType{"HKQuantityTypeIdentifierEnvironmentalSoundReduction", StoredKind::quantity,
               "dBASPL"},
    StoredType{"HKQuantityTypeIdentifierNumberOfAlcoholicBeverages", StoredKind::quantity, "count"},
    StoredType{"HKQuantityTypeIdentifierUVExposure", StoredKind::quantity, "count"},
    StoredType{"HKQuantityTypeIdentifierAppleSleepingBreathingDisturbances", StoredKind::quantity,
               "count"},
    StoredType{"HKQuantityTypeIdentifierDietaryFatTotal", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryFatPolyunsaturated", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryFatMonounsaturated", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryFatSaturated", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryCholesterol", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietarySodium", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryCarbohydrates", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryFiber", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietarySugar", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryEnergyConsumed", StoredKind::quantity, "kcal"},
    StoredType{"HKQuantityTypeIdentifierDietaryProtein", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryVitaminA", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryVitaminB6", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryVitaminB12", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryVitaminC", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryVitaminD", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryVitaminE", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryVitaminK", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryCalcium", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryIron", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryThiamin", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryRiboflavin", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryNiacin", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryFolate", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryBiotin", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryPantothenicAcid", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryPhosphorus", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryIodine", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryMagnesium", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryZinc", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietarySelenium", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryCopper", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryManganese", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryChromium", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryMolybdenum", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryChloride", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryPotassium", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryCaffeine", StoredKind::quantity, "g"},
    StoredType{"HKQuantityTypeIdentifierDietaryWater", StoredKind::quantity, "mL"},
    StoredType{"HKCategoryTypeIdentifierSleepAnalysis", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierAppleStandHour", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierCervicalMucusQuality", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierOvulationTestResult", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierPregnancyTestResult", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierProgesteroneTestResult", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierMenstrualFlow", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierIntermenstrualBleeding", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierInfrequentMenstrualCycles", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierIrregularMenstrualCycles", StoredKind::category, {}},
    StoredType{
        "HKCategoryTypeIdentifierPersistentIntermenstrualBleeding", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierProlongedMenstrualPeriods", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierContraceptive", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierLactation", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierPregnancy", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierSexualActivity", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierMindfulSession", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierHighHeartRateEvent", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierLowHeartRateEvent", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierIrregularHeartRhythmEvent", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierAudioExposureEvent", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierToothbrushingEvent", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierEnvironmentalAudioExposureEvent", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierHeadphoneAudioExposureEvent", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierHandwashingEvent", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierLowCardioFitnessEvent", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierAppleWalkingSteadinessEvent", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierSleepApneaEvent", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierBleedingAfterPregnancy", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierBleedingDuringPregnancy", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierAbdominalCramps", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierAcne", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierAppetiteChanges", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierBladderIncontinence", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierBloating", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierBreastPain", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierChestTightnessOrPain", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierChills", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierConstipation", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierCoughing", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierDiarrhea", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierDizziness", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierDrySkin", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierFainting", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierFatigue", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierFever", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierGeneralizedBodyAche", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierHairLoss", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierHeadache", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierHeartburn", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierHotFlashes", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierLossOfSmell", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierLossOfTaste", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierLowerBackPain", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierMemoryLapse", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierMoodChanges", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierNausea", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierNightSweats", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierPelvicPain", StoredKind::category, {}},
    StoredType{
        "HKCategoryTypeIdentifierRapidPoundingOrFlutteringHeartbeat", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierRunnyNose", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierShortnessOfBreath", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierSinusCongestion", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierSkippedHeartbeat", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierSleepChanges", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierSoreThroat", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierVaginalDryness", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierVomiting", StoredKind::category, {}},
    StoredType{"HKCategoryTypeIdentifierWheezing", StoredKind::category, {}},
    StoredType{"HKDataTypeSleepDurationGoal", StoredKind::quantity, "hr"},
    StoredType{"HKCorrelationTypeIdentifierBloodPressure", StoredKind::correlation, {}},
    StoredType{"HKCorrelationTypeIdentifierFood", StoredKind::correlation, {}},
    StoredType{kWorkoutTypeIdentifier, StoredKind::workout, {}},
    StoredType{kElectrocardiogramTypeIdentifier, StoredKind::electrocardiogram, {}},
};

struct Index {
  std::unordered_map<std::string_view, const StoredType*> byIdentifier;
  std::unordered_map<const StoredType*, std::optional<Unit>> units;
};

// Never destroyed: library threads may still look types up while the host process exits.
const Index& index() {
  static const Index* const kIndex = [] {
    auto* made = new Index;
    for (const StoredType& type : kStoredTypes) {
      made->byIdentifier.emplace(type.identifier, &type);
      std::optional<Unit> unit;
      if (type.kind == StoredKind::quantity) {
        if (Result<Unit> parsed = Unit::fromString(type.canonicalUnit)) {
          unit = parsed.value();
        }
      }
      made->units.emplace(&type, unit);
    }
    return made;
  }();
  return *kIndex;
}

}  // namespace

std::optional<Unit> StoredType::unit() const {
  const auto found = index().units.find(this);
  return found == index().units.end() ? std::nullopt : found->second;
}

std::span<const StoredType> storedTypes() {
  return kStoredTypes;
}

const StoredType* findStoredType(std::string_view identifier) {
  const auto found = index().byIdentifier.find(identifier);
  return found == index().byIdentifier.end() ? nullptr : found->second;
}

}  // namespace kestrova
