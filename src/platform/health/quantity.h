// An amount in a unit, like the platform's HKQuantity. Immutable value; thread-safe to copy.
#pragma once

#include "platform/health/unit.h"
#include "platform/result.h"

namespace kestrova {

class Quantity {
 public:
  Quantity(Unit unit, double value) : unit_(std::move(unit)), value_(value) {}

  const Unit& unit() const { return unit_; }
  bool isCompatible(const Unit& unit) const { return unit_.isCompatible(unit); }
  // The amount in `unit`; an error when the unit is not compatible (the platform raises).
  Result<double> doubleValue(const Unit& unit) const { return unit_.convert(value_, unit); }

  // Equal amounts (after conversion), whatever the spelling of the units.
  friend bool operator==(const Quantity& a, const Quantity& b);

 private:
  Unit unit_;
  double value_;
};

}  // namespace kestrova
