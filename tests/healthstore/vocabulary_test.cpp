// The platform's health vocabulary the store relies on: the unit grammar beyond what exports
// use, and predicate windows.
#include <gtest/gtest.h>

#include <string>

#include "platform/health/predicate.h"
#include "platform/health/unit.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

using testing::utc;

TEST(HealthUnit, GrammarConversionsAndRefusals) {
  // Export units are covered with the importer's unit table; these are the other forms.
  EXPECT_NEAR(Unit::fromString("kg/m.s^2")
                  .value()
                  .convert(3, Unit::fromString("kg.m^-1.s^-2").value())
                  .value(),
              3, 1e-12);
  for (const auto& [from, to] : {std::pair{"%", "count"}, {"V", "W"}}) {
    const Unit a = Unit::fromString(from).value();
    EXPECT_FALSE(a.isCompatible(Unit::fromString(to).value())) << from << " vs " << to;
    EXPECT_FALSE(Quantity(a, 1).doubleValue(Unit::fromString(to).value()).ok()) << from;
  }
  for (const char* text : {"", "kg//m", "m/s/s", "kg.", "m^x", "m^0", "xkg", "mmol<abc>/L",
                           "mol<-5>", "(kg", "L^800053026", "m^-65"}) {
    const Result<Unit> parsed = Unit::fromString(text);
    ASSERT_FALSE(parsed.ok()) << text;
    EXPECT_EQ(parsed.error().domain, kUnitErrorDomain) << text;
  }
  // Units keep their spelling and compare by size.
  EXPECT_EQ(Unit::fromString(" count/min ").value().unitString(), "count/min");
  EXPECT_EQ(Quantity(Unit::fromString("lb").value(), 10),
            Quantity(Unit::fromString("g").value(), 4535.92));
}

TEST(HealthPredicate, DateRangeOptionsFollowThePlatformTable) {
  const Date a = utc(2024, 5, 1, 9);
  const Date b = utc(2024, 5, 1, 10);
  const Date before = utc(2024, 5, 1, 8, 30);
  const Date inside = utc(2024, 5, 1, 9, 30);
  const Date after = utc(2024, 5, 1, 10, 30);
  const Predicate predicates[] = {
      predicateForSamples(a, b, QueryOptions::none),
      predicateForSamples(a, b, QueryOptions::strictStartDate),
      predicateForSamples(a, b, QueryOptions::strictEndDate),
      predicateForSamples(a, b, QueryOptions::strictStartDate | QueryOptions::strictEndDate)};
  // Whether each predicate above matches, in order: "1" for yes.
  const std::tuple<const char*, Date, Date, std::string_view> kCases[] = {
      {"inside", inside, inside, "1111"},
      {"ends exactly at A", before, a, "1010"},
      {"starts exactly at B", b, after, "0000"},
      {"instant at A", a, a, "1111"},
      {"instant at B", b, b, "0000"},
      {"began before, ended inside", before, inside, "1010"},
      {"began inside, ended after", inside, after, "1100"},
      {"spans the window", before, after, "1000"},
  };
  for (const auto& [name, start, end, matches] : kCases) {
    for (std::size_t i = 0; i < 4; ++i) {
      EXPECT_EQ(predicates[i].evaluate(PredicateFields{start, end, std::nullopt}),
                matches[i] == '1')
          << name << ", predicate " << i;
    }
  }
}

}  // namespace
}  // namespace kestrova
