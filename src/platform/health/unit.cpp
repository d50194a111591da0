#include "platform/health/unit.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <optional>
#include <vector>

#include "platform/health/quantity.h"

namespace kestrova {
namespace {

enum Dimension { kMass, kLength, kTime, kTemperature, kCurrent, kPercent };

// Far beyond any real unit ("m^3", "s^-2"), and small enough that no product of the factors of
// a unit text can overflow its dimensions.
constexpr int kLargestExponent = 64;

struct Factor {
  Unit::Dimensions dimensions{};
  double scale = 1;
  double offset = 0;
};

Factor dimension(std::initializer_list<std::pair<Dimension, int>> powers, double scale,
                 double offset = 0) {
  Factor factor;
  for (auto [which, power] : powers) {
    factor.dimensions[which] = power;
  }
  factor.scale = scale;
  factor.offset = offset;
  return factor;
}

// Base units are g, m, s, K and A, so derived SI units carry the factor 1000 of their kg.
const Factor kPascal = dimension({{kMass, 1}, {kLength, -1}, {kTime, -2}}, 1000);
const Factor kJoule = dimension({{kMass, 1}, {kLength, 2}, {kTime, -2}}, 1000);
const Factor kLiter = dimension({{kLength, 3}}, 1e-3);

Factor scaled(const Factor& base, double by) {
  Factor factor = base;
  factor.scale *= by;
  return factor;
}

// Whole symbols that take no prefix; looked up before prefix + SI symbol so that "min", "mi"
// and "mmHg" are not read as milli-something.
std::optional<Factor> nonSiSymbol(std::string_view symbol) {
  struct Entry {
    std::string_view symbol;
    Factor factor;
  };
  // Never destroyed, like every table here: library threads may still convert while the host
  // process exits.
  static const auto& kTable = *new const std::vector<Entry>{
      {"oz", dimension({{kMass, 1}}, 28.3495)},
      {"lb", dimension({{kMass, 1}}, 453.592)},
      {"st", dimension({{kMass, 1}}, 6350.0)},
      {"in", dimension({{kLength, 1}}, 0.0254)},
      {"ft", dimension({{kLength, 1}}, 0.3048)},
      {"yd", dimension({{kLength, 1}}, 0.9144)},
      {"mi", dimension({{kLength, 1}}, 1609.34)},
      {"mmHg", scaled(kPascal, 133.3224)},
      {"cmAq", scaled(kPascal, 98.0665)},
      {"atm", scaled(kPascal, 101325.0)},
      {"inHg", scaled(kPascal, 3386.38816)},
      {"fl_oz_us", scaled(kLiter, 0.0295735295625)},
      {"fl_oz_imp", scaled(kLiter, 0.0284130625)},
      {"pt_us", scaled(kLiter, 0.473176473)},
      {"pt_imp", scaled(kLiter, 0.56826125)},
      {"cup_us", scaled(kLiter, 0.2365882365)},
      {"cup_imp", scaled(kLiter, 0.284130625)},
      {"min", dimension({{kTime, 1}}, 60)},
      {"hr", dimension({{kTime, 1}}, 3600)},
      {"d", dimension({{kTime, 1}}, 86400)},
      {"cal", scaled(kJoule, 4.184)},
      {"kcal", scaled(kJoule, 4184)},
      {"Cal", scaled(kJoule, 4184)},
      {"degC", dimension({{kTemperature, 1}}, 1, 273.15)},
      {"degF", dimension({{kTemperature, 1}}, 1 / 1.8, 459.67 / 1.8)},
      {"count", dimension({}, 1)},
      {"%", dimension({{kPercent, 1}}, 1)},
  };
  for (const Entry& entry : kTable) {
    if (entry.symbol == symbol) {
      return entry.factor;
    }
  }
  return std::nullopt;
}

std::optional<double> prefixValue(std::string_view prefix) {
  static const auto& kPrefixes = *new const std::vector<std::pair<std::string_view, double>>{
      {"", 1},     {"da", 1e1}, {"h", 1e2},  {"k", 1e3},   {"M", 1e6},  {"G", 1e9},   {"T", 1e12},
      {"d", 1e-1}, {"c", 1e-2}, {"m", 1e-3}, {"mc", 1e-6}, {"n", 1e-9}, {"p", 1e-12}, {"f", 1e-15}};
  for (auto [name, value] : kPrefixes) {
    if (name == prefix) {
      return value;
    }
  }
  return std::nullopt;
}

// Prefix + SI symbol, or prefix + "mol<molar mass>": a mole of the given substance is
// treated as its mass in grams, which makes mmol<180.15…>/L and mg/dL compatible as on the
// platform.
std::optional<Factor> siSymbol(std::string_view symbol) {
  if (const std::size_t open = symbol.find("mol<"); open != std::string_view::npos) {
    if (symbol.back() != '>') {
      return std::nullopt;
    }
    const std::string_view massText = symbol.substr(open + 4, symbol.size() - open - 5);
    double molarMass = 0;
    const auto [end, error] =
        std::from_chars(massText.data(), massText.data() + massText.size(), molarMass);
    const std::optional<double> prefix = prefixValue(symbol.substr(0, open));
    if (error != std::errc() || end != massText.data() + massText.size() || molarMass <= 0 ||
        !prefix) {
      return std::nullopt;
    }
    return dimension({{kMass, 1}}, molarMass * *prefix);
  }
  struct Entry {
    std::string_view symbol;
    Factor factor;
  };
  static const auto& kBase = *new const std::vector<Entry>{
      {"g", dimension({{kMass, 1}}, 1)},
      {"m", dimension({{kLength, 1}}, 1)},
      {"L", kLiter},
      {"l", kLiter},
      {"Pa", kPascal},
      {"s", dimension({{kTime, 1}}, 1)},
      {"J", kJoule},
      {"K", dimension({{kTemperature, 1}}, 1)},
      {"Hz", dimension({{kTime, -1}}, 1)},
      {"W", dimension({{kMass, 1}, {kLength, 2}, {kTime, -3}}, 1000)},
      {"V", dimension({{kMass, 1}, {kLength, 2}, {kTime, -3}, {kCurrent, -1}}, 1000)},
      {"A", dimension({{kCurrent, 1}}, 1)},
  };
  for (const Entry& entry : kBase) {
    if (symbol.size() >= entry.symbol.size() && symbol.ends_with(entry.symbol)) {
      if (const std::optional<double> prefix =
              prefixValue(symbol.substr(0, symbol.size() - entry.symbol.size()))) {
        return scaled(entry.factor, *prefix);
      }
    }
  }
  return std::nullopt;
}

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
    text.remove_prefix(1);
  }
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) {
    text.remove_suffix(1);
  }
  return text;
}

// Splits a product at ".", "*" and the middle dot, but not inside "<…>" (molar masses have
// decimal points).
std::optional<std::vector<std::string_view>> splitFactors(std::string_view text) {
  std::vector<std::string_view> parts;
  std::size_t begin = 0;
  bool inMolarMass = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '<') {
      inMolarMass = true;
    } else if (c == '>') {
      inMolarMass = false;
    }
    if (inMolarMass) {
      continue;
    }
    std::size_t separator = 0;
    if (c == '.' || c == '*') {
      separator = 1;
    } else if (static_cast<unsigned char>(c) == 0xC2 && i + 1 < text.size() &&
               static_cast<unsigned char>(text[i + 1]) == 0xB7) {
      separator = 2;
    }
    if (separator != 0) {
      parts.push_back(trim(text.substr(begin, i - begin)));
      begin = i + separator;
      i += separator - 1;
    }
  }
  parts.push_back(trim(text.substr(begin)));
  for (std::string_view part : parts) {
    if (part.empty()) {
      return std::nullopt;
    }
  }
  return parts;
}

bool multiplyProduct(std::string_view text, int sign, Factor& into, int& temperatureFactors) {
  text = trim(text);
  if (text.size() >= 2 && text.front() == '(' && text.back() == ')') {
    text = trim(text.substr(1, text.size() - 2));
  }
  const std::optional<std::vector<std::string_view>> parts = splitFactors(text);
  if (!parts) {
    return false;
  }
  for (std::string_view part : *parts) {
    int power = 1;
    if (const std::size_t caret = part.find('^'); caret != std::string_view::npos) {
      const std::string_view exponent = part.substr(caret + 1);
      const auto [end, error] =
          std::from_chars(exponent.data(), exponent.data() + exponent.size(), power);
      if (error != std::errc() || end != exponent.data() + exponent.size() || power == 0 ||
          std::abs(power) > kLargestExponent) {
        return false;
      }
      part = part.substr(0, caret);
    }
    std::optional<Factor> factor = nonSiSymbol(part);
    if (!factor) {
      factor = siSymbol(part);
    }
    if (!factor) {
      return false;
    }
    if (factor->dimensions[kTemperature] != 0) {
      ++temperatureFactors;
    }
    const int exponent = sign * power;
    for (std::size_t i = 0; i < into.dimensions.size(); ++i) {
      into.dimensions[i] += factor->dimensions[i] * exponent;
    }
    into.scale *= std::pow(factor->scale, exponent);
    if (exponent == 1) {
      into.offset = factor->offset;
    }
  }
  return true;
}

Unit::Dimensions kNone{};

}  // namespace

Result<Unit> Unit::fromString(std::string_view text) {
  const std::string_view trimmed = trim(text);
  const auto invalid = [&] {
    return Error{std::string(kUnitErrorDomain), 1,
                 "Unable to parse unit string \"" + std::string(text) + "\""};
  };
  if (trimmed.empty()) {
    return invalid();
  }
  const std::size_t slash = trimmed.find('/');
  if (slash != std::string_view::npos && trimmed.find('/', slash + 1) != std::string_view::npos) {
    return invalid();
  }
  Factor factor;
  int temperatureFactors = 0;
  if (!multiplyProduct(trimmed.substr(0, slash), 1, factor, temperatureFactors)) {
    return invalid();
  }
  if (slash != std::string_view::npos &&
      !multiplyProduct(trimmed.substr(slash + 1), -1, factor, temperatureFactors)) {
    return invalid();
  }
  // An offset only makes sense for a temperature standing alone; in a compound unit such as
  // degC/min it measures a difference.
  Dimensions alone = kNone;
  alone[kTemperature] = 1;
  if (temperatureFactors != 1 || slash != std::string_view::npos || factor.dimensions != alone) {
    factor.offset = 0;
  }
  return Unit(std::string(trimmed), factor.dimensions, factor.scale, factor.offset);
}

namespace {
Unit known(std::string_view text) {
  return Unit::fromString(text).value();
}
}  // namespace

Unit Unit::count() {
  return known("count");
}
Unit Unit::percent() {
  return known("%");
}
Unit Unit::meter() {
  return known("m");
}
Unit Unit::gram() {
  return known("g");
}
Unit Unit::second() {
  return known("s");
}
Unit Unit::kilocalorie() {
  return known("kcal");
}
Unit Unit::hertz() {
  return known("Hz");
}
Unit Unit::volt() {
  return known("V");
}
Unit Unit::degreeCelsius() {
  return known("degC");
}
Unit Unit::countPerMinute() {
  return known("count/min");
}

Result<double> Unit::convert(double value, const Unit& target) const {
  if (!isCompatible(target)) {
    return Error{std::string(kUnitErrorDomain), 2,
                 "Attempt to convert incompatible units: " + text_ + ", " + target.text_};
  }
  return (value * scale_ + offset_ - target.offset_) / target.scale_;
}

bool operator==(const Unit& a, const Unit& b) {
  const auto close = [](double x, double y) {
    return std::fabs(x - y) <= 1e-12 * std::max(std::fabs(x), std::fabs(y));
  };
  return a.dimensions_ == b.dimensions_ && close(a.scale_, b.scale_) && close(a.offset_, b.offset_);
}

bool operator==(const Quantity& a, const Quantity& b) {
  const Result<double> other = b.doubleValue(a.unit());
  if (!other) {
    return false;
  }
  const double x = a.doubleValue(a.unit()).value();
  return std::fabs(x - *other) <= 1e-9 * std::max(1.0, std::fabs(x));
}

}  // namespace kestrova
