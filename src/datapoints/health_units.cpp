#include "datapoints/health_units.h"

#include <array>
#include <cstddef>
#include <string_view>
#include <vector>

namespace kestrova {
namespace {

struct HealthUnitRow {
  Units unit;
  std::string_view text;  // in the health store's unit grammar
};

// In the order of the Units cases.
constexpr std::array<HealthUnitRow, kAllUnits.size()> kHealthUnits = {{
    {Units::cm, "cm"},
    {Units::m, "m"},
    {Units::kcal, "kcal"},
    {Units::kg, "kg"},
    {Units::l, "L"},
    {Units::Pa, "Pa"},
    {Units::sec, "s"},
    {Units::C, "degC"},
    {Units::F, "degF"},
    {Units::count, "count"},
    {Units::percent, "%"},
    {Units::bpm, "count/min"},
    {Units::bmi, "count"},
    {Units::mgdL, "mg/dL"},
    {Units::mmHg, "mmHg"},
    {Units::mlPerKgMin, "mL/(kg*min)"},
    {Units::ms, "ms"},
}};

constexpr bool rowsFollowTheCases() {
  for (std::size_t i = 0; i < kHealthUnits.size(); ++i) {
    if (kHealthUnits[i].unit != kAllUnits[i]) {
      return false;
    }
  }
  return true;
}
static_assert(rowsFollowTheCases(), "the health unit table is indexed by the case");

}  // namespace

Unit healthUnit(Units unit) {
  // Built once and never destroyed, so encoders running during process exit stay safe.
  static const auto* const units = [] {
    auto* parsed = new std::vector<Unit>();
    parsed->reserve(kHealthUnits.size());
    for (const HealthUnitRow& row : kHealthUnits) {
      // The texts above are fixed and valid: a failure here is a broken table.
      parsed->push_back(Unit::fromString(row.text).value());
    }
    return parsed;
  }();
  return (*units)[static_cast<std::size_t>(unit)];
}

}  // namespace kestrova
