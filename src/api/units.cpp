#include "api/units.h"

#include <cstdio>
#include <utility>

namespace kestrova {
namespace {

struct UnitRow {
  Units unit;
  std::string_view text;
  int decimals;
};

// In the order of the Units cases.
constexpr std::array<UnitRow, 17> kUnitRows = {{
    {Units::cm, "cm", 0},
    {Units::m, "m", 0},
    {Units::kcal, "kcal", 10},
    {Units::kg, "kg", 10},
    {Units::l, "l", 10},
    {Units::Pa, "Pa", 10},
    {Units::sec, "sec", 10},
    {Units::C, "C", 10},
    {Units::F, "F", 10},
    {Units::count, "", 0},
    {Units::percent, "%", 0},
    {Units::bpm, "beats/min", 0},
    {Units::bmi, "kg/m^2", 0},
    {Units::mgdL, "mg/dL", 10},
    {Units::mmHg, "mmHg", 10},
    {Units::mlPerKgMin, "mL/(kg*min)", 10},
    {Units::ms, "ms", 10},
}};

// Compared in this order; the first equal identifier wins.
constexpr std::array<std::pair<std::string_view, Units>, 21> kIdentifierUnits = {{
    {"HKQuantityTypeIdentifierActiveEnergyBurned", Units::kcal},
    {"HKQuantityTypeIdentifierBasalEnergyBurned", Units::kcal},
    {"HKQuantityTypeIdentifierBloodGlucose", Units::mgdL},
    {"HKQuantityTypeIdentifierBloodPressureDiastolic", Units::mmHg},
    {"HKQuantityTypeIdentifierBloodPressureSystolic", Units::mmHg},
    {"HKQuantityTypeIdentifierBodyFatPercentage", Units::percent},
    {"HKQuantityTypeIdentifierOxygenSaturation", Units::percent},
    {"HKQuantityTypeIdentifierBodyMass", Units::kg},
    {"HKQuantityTypeIdentifierBodyMassIndex", Units::bmi},
    // Fahrenheit on purpose: the back end expects body temperature in it.
    {"HKQuantityTypeIdentifierBodyTemperature", Units::F},
    {"HKQuantityTypeIdentifierDistanceCycling", Units::m},
    {"HKQuantityTypeIdentifierDistanceDownhillSnowSports", Units::m},
    {"HKQuantityTypeIdentifierDistanceSwimming", Units::m},
    {"HKQuantityTypeIdentifierDistanceWalkingRunning", Units::m},
    {"HKQuantityTypeIdentifierDistanceWheelchair", Units::m},
    {"HKQuantityTypeIdentifierHeartRate", Units::bpm},
    {"HKQuantityTypeIdentifierRestingHeartRate", Units::bpm},
    {"HKQuantityTypeIdentifierHeight", Units::cm},
    {"HKQuantityTypeIdentifierHeartRateVariabilitySDNN", Units::ms},
    {"HKQuantityTypeIdentifierStepCount", Units::count},
    {"HKQuantityTypeIdentifierVO2Max", Units::mlPerKgMin},
}};

constexpr bool rowsFollowTheCases() {
  for (std::size_t i = 0; i < kUnitRows.size(); ++i) {
    if (static_cast<std::size_t>(kUnitRows[i].unit) != i || kAllUnits[i] != kUnitRows[i].unit) {
      return false;
    }
  }
  return true;
}
static_assert(rowsFollowTheCases(), "the unit table is indexed by the case");

const UnitRow& row(Units unit) {
  return kUnitRows[static_cast<std::size_t>(unit)];
}

}  // namespace

std::string_view rawValue(Units unit) {
  return row(unit).text;
}

std::optional<Units> unitsFromRawValue(std::string_view text) {
  for (const auto& entry : kUnitRows) {
    if (entry.text == text) {
      return entry.unit;
    }
  }
  return std::nullopt;
}

int decimals(Units unit) {
  return row(unit).decimals;
}

std::optional<Units> unitForIdentifier(std::string_view quantityTypeIdentifier) {
  for (const auto& [identifier, unit] : kIdentifierUnits) {
    if (identifier == quantityTypeIdentifier) {
      return unit;
    }
  }
  return std::nullopt;
}

std::string formatWithUnit(double value, Units unit) {
  const std::string text(rawValue(unit));
  const int precision = decimals(unit);
  const int length = std::snprintf(nullptr, 0, "%.*f %s", precision, value, text.c_str());
  if (length < 0) {
    return {};
  }
  std::string out(static_cast<std::size_t>(length) + 1, '\0');
  std::snprintf(out.data(), out.size(), "%.*f %s", precision, value, text.c_str());
  out.pop_back();
  return out;
}

}  // namespace kestrova
