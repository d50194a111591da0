// The platform's health vocabulary the store relies on: the unit grammar beyond what exports
// use, predicate windows, and calendar interval grids.
#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "platform/health/object_type.h"
#include "platform/health/predicate.h"
#include "platform/health/statistics.h"
#include "platform/health/unit.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

using testing::utc;

TEST(HealthUnit, GrammarConversionsAndRefusals) {
  // Export units are covered with the importer's unit table; these are the other forms.
  const std::tuple<const char*, double, const char*, double> kConversions[] = {
      {"count/min", 60, "Hz", 1},         {"d", 1, "s", 86400},
      {"mmHg", 750.06, "kPa", 100.0},     {"mcV", 1, "V", 1e-6},
      {"degC", 37, "K", 310.15},          {"mL/(kg*min)", 45, "L/(kg.min)", 0.045},
      {"kg/m.s^2", 3, "kg.m^-1.s^-2", 3},
  };
  for (const auto& [from, value, to, expected] : kConversions) {
    const Result<double> converted =
        Unit::fromString(from).value().convert(value, Unit::fromString(to).value());
    ASSERT_TRUE(converted.ok()) << from << " -> " << to;
    EXPECT_NEAR(converted.value(), expected, 1e-4 * std::fabs(expected)) << from << " -> " << to;
  }
  for (const auto& [from, to] : {std::pair{"%", "count"}, {"count/min", "count"}, {"V", "W"}}) {
    const Unit a = Unit::fromString(from).value();
    EXPECT_FALSE(a.isCompatible(Unit::fromString(to).value())) << from << " vs " << to;
    EXPECT_FALSE(Quantity(a, 1).doubleValue(Unit::fromString(to).value()).ok()) << from;
  }
  for (const char* text : {"", "furlong", "kg//m", "m/s/s", "kg.", "m^x", "m^0", "xkg",
                           "mmol<abc>/L", "mol<-5>", "(kg", "L^800053026", "m^-65"}) {
    const Result<Unit> parsed = Unit::fromString(text);
    ASSERT_FALSE(parsed.ok()) << text;
    EXPECT_EQ(parsed.error().domain, kUnitErrorDomain) << text;
  }
  EXPECT_FALSE(ObjectType::quantityType("HKCategoryTypeIdentifierSleepAnalysis"));
  // Units keep their spelling and compare by size.
  EXPECT_EQ(Unit::fromString(" count/min ").value().unitString(), "count/min");
  EXPECT_FALSE(Unit::fromString("degC").value() == Unit::fromString("K").value());
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
  const Predicate from = predicateForSamples(a, std::nullopt, QueryOptions::strictStartDate);
  EXPECT_TRUE(from.evaluate(PredicateFields{utc(2030, 1, 1), utc(2030, 1, 1), std::nullopt}));
  EXPECT_FALSE(from.evaluate(PredicateFields{before, after, std::nullopt}));
}

TEST(HealthPredicate, CategoryValuesAndCompositionWithWindows) {
  const Date a = utc(2024, 5, 1, 22);
  const Date b = utc(2024, 5, 2, 6);
  const PredicateFields deep{utc(2024, 5, 2, 1), utc(2024, 5, 2, 2), kSleepAsleepDeep};
  const PredicateFields inBed{utc(2024, 5, 2, 1), utc(2024, 5, 2, 2), kSleepInBed};
  const Predicate asleep = predicateForCategorySamples(allAsleepValues());
  EXPECT_TRUE(asleep.evaluate(deep));
  EXPECT_FALSE(asleep.evaluate(inBed));
  EXPECT_FALSE(asleep.evaluate(PredicateFields{a, b, std::nullopt}));
  EXPECT_TRUE(predicateForCategorySamples(ComparisonOperator::greaterThan, 3).evaluate(deep));
  EXPECT_FALSE(predicateForCategorySamples(ComparisonOperator::notEqualTo, 4).evaluate(deep));
  const Predicate night = predicateForSamples(a, b, QueryOptions::strictStartDate);
  EXPECT_FALSE(andPredicate({asleep, night}).evaluate(inBed));
  EXPECT_TRUE(orPredicate({asleep, night}).evaluate(inBed));
  // The index window of an AND is the tightest of its parts; an OR with an unbounded part
  // has no window.
  const SampleWindow window =
      andPredicate({night, predicateForSamples(utc(2024, 5, 2), std::nullopt,
                                               QueryOptions::strictStartDate)})
          .window();
  EXPECT_EQ(window.startAtLeast, utc(2024, 5, 2));
  EXPECT_EQ(window.startBefore, b);
  EXPECT_FALSE(orPredicate({asleep, night}).window().startBefore);
}

TEST(IntervalGrid, DaysAcrossDaylightSavingAndMonthsFromTheEndOfJanuary) {
  const TimeZone berlin = TimeZone::named("Europe/Berlin").value();
  // Local midnight of 2024-03-30 is 23:00 UTC the day before.
  const IntervalGrid days =
      IntervalGrid::make(utc(2024, 3, 29, 23), DateComponents{.day = 1}, berlin).value();
  EXPECT_EQ(days.end(1) - days.start(1), std::chrono::hours(23));  // spring forward
  EXPECT_EQ(days.start(2), utc(2024, 3, 31, 22));                  // 2024-04-01 00:00 CEST
  EXPECT_EQ(days.indexContaining(utc(2024, 3, 31, 21, 59)), 1);
  EXPECT_EQ(days.indexContaining(utc(2024, 3, 29, 22)), -1);
  const IntervalGrid months =
      IntervalGrid::make(utc(2024, 1, 30, 23), DateComponents{.month = 1}, berlin).value();
  EXPECT_EQ(months.start(1), utc(2024, 2, 28, 23));  // 31 January + 1 month = 29 February
  EXPECT_EQ(months.start(2), utc(2024, 3, 30, 23));  // 31 March, still CET at midnight
  EXPECT_FALSE(IntervalGrid::make(utc(2024, 3, 29, 23), DateComponents{}, berlin));
}

}  // namespace
}  // namespace kestrova
