// The health-store unit in which the encoders read a quantity before naming it with a `Units`
// text. Constant table: thread-safe.
#pragma once

#include "api/units.h"
#include "platform/health/unit.h"

namespace kestrova {

// NOTE: body mass index is a plain count in the health store, so `bmi` reads as count even
// though its wire text is "kg/m^2"; any other choice would make every BMI sample
// incompatible and drop it.
Unit healthUnit(Units unit);

}  // namespace kestrova
