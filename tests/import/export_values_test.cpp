// The value grammars of exports: timestamps, device descriptions, units, typed metadata,
// derived bundle identifiers, and electrocardiogram files.
#include "healthstore/import/export_values.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "healthstore/import/ecg_csv.h"
#include "healthstore/import/export_reader.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

using testing::utc;

TEST(ExportValues, DatesAndTimesOfDay) {
  const std::pair<std::string_view, std::optional<Date>> dates[] = {
      {"2019-05-14 19:05:29 -0400", utc(2019, 5, 14, 23, 5, 29)},
      {"2024-01-01 01:01:36 +0200", utc(2023, 12, 31, 23, 1, 36)},
      {"2019-01-01 00:30:00 +0530", utc(2018, 12, 31, 19, 0, 0)},
      {"2019-13-14 19:05:29 -0400", std::nullopt},
      {"2019-05-14 19:05:29 +0000 ", std::nullopt},
  };
  for (const auto& [text, expected] : dates) {
    EXPECT_EQ(parseExportDate(text), expected) << text;
  }
  // Beat times of the phone's formats and GPX times.
  const std::pair<std::string_view, std::optional<double>> times[] = {
      {"08:33:44,67", 8 * 3600 + 33 * 60 + 44.67},
      {"6:14:48.94 PM", 18 * 3600 + 14 * 60 + 48.94},
      {"12:00:01 AM", 1},
      {"24:00:00", std::nullopt},
      {"13:00:00 PM", std::nullopt},
  };
  for (const auto& [text, seconds] : times) {
    const std::optional<double> parsed = parseTimeOfDay(text);
    ASSERT_EQ(parsed.has_value(), seconds.has_value()) << text;
    if (parsed) {
      EXPECT_NEAR(*parsed, *seconds, 1e-9) << text;
    }
  }
  const double at =
      std::chrono::duration<double>(utc(2019, 6, 11, 22, 0, 42).time_since_epoch()).count();
  EXPECT_EQ(parseUtcTimestamp("2019-06-11T22:00:42Z"), at);
  EXPECT_FALSE(parseUtcTimestamp("2019-06-11T22:00:42+02:00").has_value());
  EXPECT_EQ(exportTimeOfDay("2018-11-19 08:33:39 +0100"), 8 * 3600 + 33 * 60 + 39);
}

TEST(ExportValues, ControlCharactersAreDroppedWhereverTheyAreKeepingLineBreaksAndTabs) {
  // Strays at the start, inside and at the end of eight-byte words, and in the tail.
  for (std::size_t at = 0; at < 20; ++at) {
    std::string text = "<Record a=\"x\ty\"/>\r\n<R/>";
    const std::string expected = text;
    text.insert(at, 1, '\x0b');
    text += '\x01';
    EXPECT_EQ(text.substr(0, removeControlCharacters(text.data(), text.size())), expected) << at;
  }
  std::string clean(100, 'a');
  EXPECT_EQ(removeControlCharacters(clean.data(), clean.size()), 100u);
}

TEST(ExportValues, DeviceDescriptionsSplitOnlyBeforeKnownKeys) {
  // A key that follows the last known one ("creation date") stays out of the software version.
  EXPECT_EQ(parseDeviceDescription(
                "<<HKDevice: 0xc937f6fa0>, name:Apple Watch, manufacturer:Apple Inc., "
                "model:Watch, hardware:Watch7,2, software:11.6.1, creation date:2025-08-14 "
                "23:49:07 +0000>")
                ->softwareVersion,
            "11.6.1");
  EXPECT_EQ(parseDeviceDescription("Dummy device")->name, "Dummy device");
  EXPECT_FALSE(parseDeviceDescription("").has_value());
}

TEST(ExportValues, UnitsOfRealFiles) {
  ImportUnits units;
  struct Case {
    std::string_view text;
    double value;
    std::string_view target;
    double expected;
  };
  const Case cases[] = {
      {"kJ", 418.4, "kcal", 100},
      {"kcal/hr-kg", 9.1945, "kcal/(hr*kg)", 9.1945},
      {"km/hr", 36, "m/s", 10},
  };
  for (const Case& c : cases) {
    const Unit* unit = units.find(c.text);
    ASSERT_NE(unit, nullptr) << c.text;
    const Result<double> converted = unit->convert(c.value, Unit::fromString(c.target).value());
    ASSERT_TRUE(converted.ok()) << c.text;
    EXPECT_NEAR(converted.value(), c.expected, 1e-3 * std::max(1.0, c.expected)) << c.text;
  }
  // Logarithmic and unknown units are reported, not guessed.
  for (std::string_view text : {"dBASPL", "dBHL", "IU", "", "furlong"}) {
    EXPECT_EQ(units.find(text), nullptr) << text;
  }
}

TEST(ExportValues, MetadataKeepsItsTypes) {
  ImportUnits units;
  const Unit percent = Unit::percent();
  const struct {
    std::string_view key;
    std::string_view text;
    MetadataValue expected;
  } cases[] = {
      {"HKTimeZone", "Europe/Paris", std::string("Europe/Paris")},
      {"HKVO2MaxTestType", "2", std::int64_t{2}},
      {"HKAverageMETs", "6.5", 6.5},
      {"HKWeatherTemperature", "56 degF", Quantity(Unit::degreeCelsius(), 40.0 / 3)},
      {"HKElevationAscended", "6575 cm", Quantity(Unit::meter(), 65.75)},
      // Newer exports write a humidity of 96 % as "9600 %" (older ones "96 %").
      {"HKWeatherHumidity", "9600 %", Quantity(percent, 0.96)},
      // A decibel level has no linear unit: it stays text rather than being guessed.
      {"HKMetadataKeyAudioExposureLevel", "98.5993 dBASPL", std::string("98.5993 dBASPL")},
  };
  for (const auto& c : cases) {
    EXPECT_TRUE(typedMetadataValue(c.key, c.text, units) == c.expected) << c.key << " " << c.text;
  }
}

TEST(ExportValues, DerivedBundleIdentifiersAndNameBasedUuids) {
  const std::string straight = deriveBundleIdentifier("Alexandre's Apple Watch");
  const std::string curly = deriveBundleIdentifier("Alexandre\xE2\x80\x99s Apple Watch");
  EXPECT_TRUE(straight.starts_with("import.apple-health.alexandre-s-apple-watch."));
  EXPECT_TRUE(curly.starts_with("import.apple-health.alexandre-s-apple-watch."));
  EXPECT_NE(straight, curly);
  // Version 5, RFC 4122 variant.
  EXPECT_EQ(nameBasedUuid("a").bytes()[6] >> 4, 5);
  EXPECT_EQ(nameBasedUuid("a").bytes()[8] >> 6, 2);
}

// A recording with the keys translated, as phones set to another language write them.
std::string translated(std::string_view rate, std::string_view classification, int count) {
  std::string text =
      "Nom,X\nNaissance,\"1 Jan 2000\"\nDate,2021-12-17 12:58:58 +0800\nClassement," +
      std::string(classification) + "\nSympt,\nLogiciel,1.90\nAppareil,\"Watch5,1\"\nTaux," +
      std::string(rate) + "\n\n\nDerivation,I\nUnite,\xC2\xB5V\n\n";
  for (int i = 0; i < count; ++i) {
    // Whole numbers, dot decimals and comma decimals mixed, as in real files.
    text += i % 3 == 0 ? std::to_string(i) : std::to_string(i) + (i % 3 == 1 ? ",5" : ".25");
    text += '\n';
  }
  return text;
}

TEST(ElectrocardiogramCsv, TranslatedKeysAndBrokenFiles) {
  // The English files are read by the archive import; the classification of another language
  // is not guessed.
  Result<ParsedElectrocardiogram> parsed =
      parseElectrocardiogramCsv(translated("513.625 hertz", "Ritmo Sinusal", 15409), "ecg.csv");
  ASSERT_TRUE(parsed.ok()) << parsed.error().text();
  const Electrocardiogram& sample = *parsed.value().sample;
  EXPECT_EQ(sample.numberOfVoltageMeasurements(), 15409);
  EXPECT_NEAR(std::chrono::duration<double>(sample.endDate() - sample.startDate()).count(),
              15409 / 513.625, 1e-6);
  EXPECT_NEAR(parsed.value().volts[1], 1.5e-6, 1e-15);
  EXPECT_NEAR(parsed.value().volts[2], 2.25e-6, 1e-15);
  EXPECT_EQ(sample.classification(), Electrocardiogram::Classification::unrecognized);
  Result<ParsedElectrocardiogram> broken = parseElectrocardiogramCsv(
      translated("512 hertz", "Sinus Rhythm", 3) + "1,5,2\n", "ecg_x.csv");
  ASSERT_FALSE(broken.ok());
  EXPECT_NE(broken.error().description.find("ecg_x.csv: line 17"), std::string::npos)
      << broken.error().description;
  EXPECT_FALSE(parseElectrocardiogramCsv(translated("fast", "Sinus Rhythm", 3), "e").ok());
}

}  // namespace
}  // namespace kestrova
