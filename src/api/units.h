// Units: the measurement units that data points name, with their JSON unit texts, the decimals
// used when a value is written as text, and the unit of each health-store quantity type.
// Constant tables only: thread-safe.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

namespace kestrova {

enum class Units {
  cm,
  m,
  kcal,
  kg,
  l,
  Pa,
  sec,
  C,
  F,
  count,
  percent,
  bpm,
  bmi,
  mgdL,
  mmHg,
  mlPerKgMin,
  ms,
};

inline constexpr std::array<Units, 17> kAllUnits = {
    Units::cm,  Units::m,    Units::kcal, Units::kg,         Units::l,       Units::Pa,
    Units::sec, Units::C,    Units::F,    Units::count,      Units::percent, Units::bpm,
    Units::bmi, Units::mgdL, Units::mmHg, Units::mlPerKgMin, Units::ms};

// The unit text written into JSON; empty for `count`.
std::string_view rawValue(Units unit);
// None for a text that names no unit.
std::optional<Units> unitsFromRawValue(std::string_view text);
// Decimals of the text form of a value in this unit.
int decimals(Units unit);

// The unit of a health-store quantity type identifier; none for any other identifier.
std::optional<Units> unitForIdentifier(std::string_view quantityTypeIdentifier);

// "%.<decimals>f <unit text>" applied to `value`: 72 bpm gives "72 beats/min", 1.5 kg gives
// "1.5000000000 kg", and a count ends in one space.
std::string formatWithUnit(double value, Units unit);

}  // namespace kestrova
