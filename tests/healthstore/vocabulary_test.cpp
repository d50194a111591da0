// The platform's health vocabulary the store relies on: unit grammar and conversions, type
// identifiers, predicate windows, and interval grids across daylight saving.
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

TEST(HealthUnit, ConvertsBetweenCompatibleUnits) {
  struct Conversion {
    const char* from;
    double value;
    const char* to;
    double expected;
  };
  const Conversion kCases[] = {
      {"mg/dL", 100, "mmol<180.15588000005408>/L", 5.5507},
      {"degF", 98.6, "degC", 37},
      {"degC", 37, "K", 310.15},
      {"st", 1, "lb", 6350.0 / 453.592},
      {"oz", 16, "lb", 16 * 28.3495 / 453.592},
      {"mi", 1, "km", 1.60934},
      {"cm", 254, "in", 100},
      {"Cal", 1, "kJ", 4.184},
      {"count/min", 60, "Hz", 1},
      {"d", 1, "s", 86400},
      {"mmHg", 750.06, "kPa", 100.0},
      {"mcV", 1, "V", 1e-6},
      {"mL/(kg*min)", 45, "L/(kg.min)", 0.045},
      {"ml/kg.min", 45, "mL/min·kg", 45},
      {"kg/m.s^2", 3, "kg.m^-1.s^-2", 3},
      {"%", 0.97, "%", 0.97},
  };
  for (const Conversion& c : kCases) {
    SCOPED_TRACE(std::string(c.from) + " -> " + c.to);
    const Result<Unit> from = Unit::fromString(c.from);
    const Result<Unit> to = Unit::fromString(c.to);
    ASSERT_TRUE(from.ok() && to.ok());
    const Result<double> converted = from.value().convert(c.value, to.value());
    ASSERT_TRUE(converted.ok());
    EXPECT_NEAR(converted.value(), c.expected, 1e-4 * std::fabs(c.expected));
  }
}

TEST(HealthUnit, RefusesIncompatibleAndMalformedUnits) {
  const std::pair<const char*, const char*> kIncompatible[] = {
      {"%", "count"}, {"count/min", "count"}, {"mg/dL", "kg"}, {"mL/(kg*min)", "mL"}};
  for (const auto& [from, to] : kIncompatible) {
    SCOPED_TRACE(std::string(from) + " vs " + to);
    const Unit a = Unit::fromString(from).value();
    const Unit b = Unit::fromString(to).value();
    EXPECT_FALSE(a.isCompatible(b));
    EXPECT_FALSE(a.convert(1, b).ok());
    EXPECT_FALSE(Quantity(a, 1).doubleValue(b).ok());
  }
  for (const char* text : {"", "furlong", "kg//m", "m/s/s", "kg.", "m^x", "m^0", "xkg",
                           "mmol<abc>/L", "mol<-5>", "(kg", "L^800053026", "m^-65"}) {
    SCOPED_TRACE(text);
    Result<Unit> parsed = Unit::fromString(text);
    ASSERT_FALSE(parsed.ok());
    EXPECT_EQ(parsed.error().domain, kUnitErrorDomain);
  }
}

TEST(HealthUnit, KeepsItsSpellingAndComparesBySize) {
  EXPECT_EQ(Unit::fromString(" count/min ").value().unitString(), "count/min");
  EXPECT_EQ(Unit::fromString("mL/min·kg").value(), Unit::fromString("mL/(kg*min)").value());
  EXPECT_EQ(Unit::fromString("Cal").value(), Unit::kilocalorie());
  EXPECT_FALSE(Unit::fromString("degC").value() == Unit::fromString("K").value());
  EXPECT_EQ(Quantity(Unit::fromString("lb").value(), 10),
            Quantity(Unit::fromString("g").value(), 4535.92));
}

TEST(HealthObjectType, IdentifiersOfAnotherKindOrUnknownGiveNoType) {
  EXPECT_EQ(ObjectType::electrocardiogramType().identifier(),
            "HKDataTypeIdentifierElectrocardiogram");
  EXPECT_FALSE(ObjectType::quantityType("HKCategoryTypeIdentifierSleepAnalysis"));
  EXPECT_FALSE(ObjectType::categoryType("HKQuantityTypeIdentifierStepCount"));
  EXPECT_FALSE(ObjectType::fromIdentifier("HKQuantityTypeIdentifierMadeUp"));
}

TEST(HealthPredicate, DateRangeOptionsFollowThePlatformTable) {
  const Date a = utc(2024, 5, 1, 9);
  const Date b = utc(2024, 5, 1, 10);
  const Date before = utc(2024, 5, 1, 8, 30);
  const Date after = utc(2024, 5, 1, 10, 30);
  struct Case {
    const char* name;
    Date start;
    Date end;
    bool none;
    bool strictStart;
    bool strictEnd;
    bool both;
  };
  const Case kCases[] = {
      {"inside", utc(2024, 5, 1, 9, 10), utc(2024, 5, 1, 9, 20), true, true, true, true},
      {"ends exactly at A", before, a, true, false, true, false},
      {"starts exactly at B", b, after, false, false, false, false},
      {"instant at A", a, a, true, true, true, true},
      {"instant at B", b, b, false, false, false, false},
      {"began before, ended inside", before, utc(2024, 5, 1, 9, 30), true, false, true, false},
      {"began inside, ended after", utc(2024, 5, 1, 9, 30), after, true, true, false, false},
      {"spans the window", before, after, true, false, false, false},
  };
  const Predicate none = predicateForSamples(a, b, QueryOptions::none);
  const Predicate strictStart = predicateForSamples(a, b, QueryOptions::strictStartDate);
  const Predicate strictEnd = predicateForSamples(a, b, QueryOptions::strictEndDate);
  const Predicate both =
      predicateForSamples(a, b, QueryOptions::strictStartDate | QueryOptions::strictEndDate);
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.name);
    const PredicateFields fields{c.start, c.end, std::nullopt};
    EXPECT_EQ(none.evaluate(fields), c.none);
    EXPECT_EQ(strictStart.evaluate(fields), c.strictStart);
    EXPECT_EQ(strictEnd.evaluate(fields), c.strictEnd);
    EXPECT_EQ(both.evaluate(fields), c.both);
  }
  // Open bounds.
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
  EXPECT_TRUE(predicateForCategorySamples(ComparisonOperator::equalTo, 0).evaluate(inBed));
  EXPECT_TRUE(predicateForCategorySamples(ComparisonOperator::greaterThan, 3).evaluate(deep));
  EXPECT_FALSE(predicateForCategorySamples(ComparisonOperator::notEqualTo, 4).evaluate(deep));

  const Predicate night = predicateForSamples(a, b, QueryOptions::strictStartDate);
  const Predicate both = andPredicate({asleep, night});
  EXPECT_TRUE(both.evaluate(deep));
  EXPECT_FALSE(both.evaluate(inBed));
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

TEST(IntervalGrid, CalendarDaysAndElapsedQuarterHoursAcrossDaylightSaving) {
  const TimeZone berlin = TimeZone::named("Europe/Berlin").value();
  // Local midnight of 2024-03-30 is 23:00 UTC the day before.
  const Date anchor = utc(2024, 3, 29, 23);
  const IntervalGrid days = IntervalGrid::make(anchor, DateComponents{.day = 1}, berlin).value();
  EXPECT_EQ(days.start(1), utc(2024, 3, 30, 23));                  // 2024-03-31 00:00 CET
  EXPECT_EQ(days.end(1) - days.start(1), std::chrono::hours(23));  // spring forward
  EXPECT_EQ(days.start(2), utc(2024, 3, 31, 22));                  // 2024-04-01 00:00 CEST
  EXPECT_EQ(days.indexContaining(utc(2024, 3, 31, 21, 59)), 1);
  EXPECT_EQ(days.indexContaining(utc(2024, 3, 31, 22)), 2);
  EXPECT_EQ(days.indexContaining(utc(2024, 3, 29, 22)), -1);

  const IntervalGrid months =
      IntervalGrid::make(utc(2024, 1, 30, 23), DateComponents{.month = 1}, berlin).value();
  EXPECT_EQ(months.start(1), utc(2024, 2, 28, 23));  // 31 January + 1 month = 29 February
  EXPECT_EQ(months.start(2), utc(2024, 3, 30, 23));  // 31 March, still CET at midnight

  const IntervalGrid quarters =
      IntervalGrid::make(anchor, DateComponents{.minute = 15}, berlin).value();
  // 01:45 CET is followed by 03:00 CEST: fifteen minutes of elapsed time.
  const Date quarterTo2 = utc(2024, 3, 31, 0, 45);
  const std::int64_t index = quarters.indexContaining(quarterTo2);
  EXPECT_EQ(quarters.start(index), quarterTo2);
  EXPECT_EQ(berlin.civil(quarters.start(index + 1)).hour, 3);
  EXPECT_EQ(berlin.civil(quarters.start(index + 1)).minute, 0);

  EXPECT_FALSE(IntervalGrid::make(anchor, DateComponents{}, berlin));
}

}  // namespace
}  // namespace kestrova
