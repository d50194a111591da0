// Units of measure as the platform health store spells them ("count/min", "mg/dL",
// "mmol<180.15588000005408>/L", "mL/(kg*min)", "%"), with compatibility and conversion.
// Immutable values: no shared state, safe to copy between threads.
#pragma once

#include <array>
#include <string>
#include <string_view>

#include "platform/result.h"

namespace kestrova {

inline constexpr std::string_view kUnitErrorDomain = "HealthUnit";

class Unit {
 public:
  // Exponents of mass, length, time, temperature, electric current and percent. Percent is a
  // dimension of its own: a percent value is a fraction (0.97 for 97 %) and converts to nothing
  // but percent.
  using Dimensions = std::array<int, 6>;

  // Parses the unit grammar: prefixed SI symbols, the platform's non-SI symbols, factors joined
  // by ".", "*" or "·", integral powers with "^", one "/" with an optional parenthesised
  // denominator. Unknown symbols and malformed text give an error naming the text.
  static Result<Unit> fromString(std::string_view text);

  static Unit count();
  static Unit percent();
  static Unit meter();
  static Unit gram();
  static Unit second();
  static Unit kilocalorie();
  static Unit hertz();
  static Unit volt();
  static Unit degreeCelsius();
  static Unit countPerMinute();

  // The text the unit was made from, trimmed.
  const std::string& unitString() const { return text_; }
  const Dimensions& dimensions() const { return dimensions_; }

  bool isCompatible(const Unit& other) const { return dimensions_ == other.dimensions_; }
  // `value` in this unit expressed in `target`; an error when the units are not compatible.
  Result<double> convert(double value, const Unit& target) const;

  // Same dimensions and the same size (spelling does not matter: "mL/(kg*min)" equals
  // "mL/min·kg").
  friend bool operator==(const Unit& a, const Unit& b);

 private:
  Unit(std::string text, Dimensions dimensions, double scale, double offset)
      : text_(std::move(text)), dimensions_(dimensions), scale_(scale), offset_(offset) {}

  std::string text_;
  Dimensions dimensions_{};
  // value in base units (g, m, s, K, A) = value * scale_ + offset_
  double scale_ = 1;
  double offset_ = 0;
};

}  // namespace kestrova
