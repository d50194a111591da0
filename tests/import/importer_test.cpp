// Imports of real export excerpts and of files written here for the traps of real exports (the
// version 12 DOCTYPE, truncation, localised archive names, newer workouts), read back through
// the store's queries.
#include <gtest/gtest.h>
#include <zip.h>

#include <cmath>

#include "healthstore/import/export_vocabulary.h"
#include "healthstore/sample_codec.h"
#include "import_fixture.h"

namespace kestrova::testing {
namespace {

constexpr std::string_view kStepCount = "HKQuantityTypeIdentifierStepCount";
constexpr std::string_view kHeartRate = "HKQuantityTypeIdentifierHeartRate";
constexpr std::string_view kNoBreakSpace = "\xC2\xA0";

std::uint64_t skips(const ImportSummary& summary, SkipReason reason, std::string_view detail) {
  const auto byReason = summary.skipped.find(std::string(skipReasonName(reason)));
  if (byReason == summary.skipped.end()) {
    return 0;
  }
  const auto found = byReason->second.find(std::string(detail));
  return found == byReason->second.end() ? 0 : found->second.count;
}

using ImporterTest = ImportFixture;

TEST_F(ImporterTest, OlderExportWithoutPrologAndWithWorkoutTotalsAsAttributes) {
  const ImportSummary summary = import(fixturePath("healthkit-to-sqlite/export.xml"));
  ASSERT_TRUE(summary.ok()) << summaryText(summary);
  // Nothing left out: the characteristics, both activity summaries, the route with its points.
  EXPECT_EQ(summary.read, 6u);
  EXPECT_EQ(summary.added, 6u);
  EXPECT_EQ(summary.skippedCount(), 0u);
  EXPECT_EQ(summary.keptByKind, (std::map<std::string, std::uint64_t>{{"ActivitySummary", 2},
                                                                      {"Record", 2},
                                                                      {"Workout", 1},
                                                                      {"WorkoutRoute", 1},
                                                                      {"kept as written", 1}}));
  EXPECT_EQ(summary.exportDate, "2019-07-19 10:36:11 -0700");

  const auto bmi = samplesOf<QuantitySample>("HKQuantityTypeIdentifierBodyMassIndex");
  ASSERT_EQ(bmi.size(), 1u);
  EXPECT_DOUBLE_EQ(valueIn(*bmi[0], "count"), 22.5312);
  EXPECT_EQ(bmi[0]->startDate(), utc(2016, 4, 18, 15, 25, 32));
  EXPECT_EQ(bmi[0]->sourceRevision().source.name, "Health Mate");
  EXPECT_EQ(bmi[0]->sourceRevision().source.bundleIdentifier,
            deriveBundleIdentifier("Health Mate"));
  EXPECT_EQ(bmi[0]->sourceRevision().version, "2160040");
  EXPECT_FALSE(bmi[0]->device().has_value());
  EXPECT_EQ(bmi[0]->metadata().size(), 5u);
  EXPECT_EQ(metadataValue<std::string>(*bmi[0], "Health Mate App Version"), "2.16.0");
  EXPECT_EQ(metadataValue<std::int64_t>(*bmi[0], "Withings User Identifier"), 12345);
  EXPECT_EQ(metadataValue<Date>(*bmi[0], "Modified Date"), utc(2016, 4, 18, 15, 56, 5));
  EXPECT_EQ(metadataValue<std::string>(*bmi[0], "Withings Link"),
            "withings-bd2://timeline/measure?userid=12345&date=482685932&type=1");
  EXPECT_EQ(metadataValue<bool>(*bmi[0], "HKWasUserEntered"), false);

  const auto heart = samplesOf<QuantitySample>(kHeartRate);
  ASSERT_EQ(heart.size(), 1u);
  EXPECT_DOUBLE_EQ(valueIn(*heart[0], "count/min"), 72);
  ASSERT_TRUE(heart[0]->device().has_value());
  EXPECT_EQ(heart[0]->device()->manufacturer, "Apple");
  EXPECT_EQ(heart[0]->device()->hardwareVersion, "Watch2,4");
  EXPECT_EQ(heart[0]->sourceRevision().productType, "Watch2,4");
  EXPECT_EQ(heart[0]->sourceRevision().operatingSystemVersion, (OperatingSystemVersion{4, 3, 1}));
  EXPECT_EQ(metadataValue<std::int64_t>(*heart[0], "HKMetadataKeyHeartRateMotionContext"), 0);

  const auto workouts = samplesOf<Workout>(kWorkoutTypeIdentifier);
  ASSERT_EQ(workouts.size(), 1u);
  const Workout& run = *workouts[0];
  EXPECT_EQ(run.workoutActivityType(), 37u);
  EXPECT_NEAR(run.duration(), 5.19412346680959 * 60, 1e-9);
  EXPECT_NEAR(run.totalDistance()->doubleValue(Unit::meter()).value(), 800.12, 0.01);
  EXPECT_NEAR(run.totalEnergyBurned()->doubleValue(Unit::kilocalorie()).value(), 48.745, 1e-9);
  EXPECT_EQ(run.startDate(), utc(2016, 11, 14, 14, 25, 41));
  EXPECT_EQ(metadataValue<std::string>(run, "HKTimeZone"), "America/Los_Angeles");
  EXPECT_NEAR(metadataValue<Quantity>(run, "HKWeatherTemperature")
                  .doubleValue(Unit::degreeCelsius())
                  .value(),
              13.333, 1e-3);
  EXPECT_NEAR(
      metadataValue<Quantity>(run, "HKWeatherHumidity").doubleValue(Unit::percent()).value(), 0.96,
      1e-12);

  SampleDatabase stored = database();
  const auto routes = stored.workoutRoutes(run.uuid()).value();
  ASSERT_EQ(routes.size(), 1u);
  EXPECT_EQ(routes[0].sourceName, "Simon’s iPhone");
  EXPECT_EQ(routes[0].start, storedTime(utc(2016, 11, 14, 14, 25, 44)));
  ASSERT_EQ(routes[0].locations.size(), 2u);
  EXPECT_DOUBLE_EQ(routes[0].locations[1].latitude, 37.7777);
  EXPECT_DOUBLE_EQ(routes[0].locations[1].longitude, -122.426);
  EXPECT_DOUBLE_EQ(routes[0].locations[1].altitude, 21.2677);
  EXPECT_DOUBLE_EQ(routes[0].locations[1].horizontalAccuracy, 2.40059);
  EXPECT_DOUBLE_EQ(routes[0].locations[1].speed, 2.48034);
  EXPECT_DOUBLE_EQ(routes[0].locations[0].time,
                   static_cast<double>(storedTime(utc(2016, 11, 14, 14, 25, 44))) / 1e6);

  const auto days = stored.activitySummaries().value();
  ASSERT_EQ(days.size(), 2u);
  EXPECT_EQ(days[0], (ActivitySummaryRow{"2016-11-15", 590.252, 630, std::nullopt, std::nullopt, 68,
                                         30, 13, 12}));
  EXPECT_EQ(days[1].day, "2016-11-16");
  EXPECT_EQ(days[1].appleExerciseTime, 39);

  const auto me = stored.keptElements("Me").value();
  ASSERT_EQ(me.size(), 1u);
  EXPECT_NE(me[0].json.find(R"("HKCharacteristicTypeIdentifierDateOfBirth":"1990-02-02")"),
            std::string::npos);
}

TEST_F(ImporterTest, RecentExportWithSleepStagesAndATypeTheLibraryDoesNotReadYet) {
  const ImportSummary summary = import(fixturePath("apple-health-parser/export.xml"));
  ASSERT_TRUE(summary.ok()) << summaryText(summary);
  EXPECT_EQ(summary.read, 9u);
  EXPECT_EQ(summary.added, 9u);
  EXPECT_EQ(summary.skippedCount(), 0u);
  EXPECT_EQ(summary.locale, "en_NL");
  // A type the library does not read yet is stored all the same, in its canonical unit.
  EXPECT_EQ(summary.samplesByType.at("HKQuantityTypeIdentifierAppleStandTime"), 1u);
  const auto standTime = database().sampleRows("HKQuantityTypeIdentifierAppleStandTime").value();
  ASSERT_EQ(standTime.size(), 1u);
  EXPECT_EQ(standTime[0].value, 2);
  EXPECT_EQ(standTime[0].unit, "min");
  EXPECT_EQ(standTime[0].start, storedTime(utc(2023, 12, 31, 23, 10, 0)));

  const auto sleep = samplesOf<CategorySample>(kSleepAnalysisIdentifier);
  ASSERT_EQ(sleep.size(), 2u);
  EXPECT_EQ(sleep[0]->value(), kSleepInBed);
  EXPECT_EQ(sleep[0]->startDate(), utc(2023, 12, 31, 22, 55, 28));
  EXPECT_EQ(sleep[0]->sourceRevision().source.name, "Alexandre's iPhone");
  EXPECT_EQ(metadataValue<std::string>(*sleep[0], "HKTimeZone"), "Europe/Amsterdam");
  EXPECT_EQ(sleep[1]->value(), kSleepAsleepCore);
  EXPECT_EQ(sleep[1]->endDate(), utc(2024, 1, 1, 1, 40, 23));

  const auto energy = samplesOf<QuantitySample>("HKQuantityTypeIdentifierActiveEnergyBurned");
  ASSERT_EQ(energy.size(), 2u);
  EXPECT_DOUBLE_EQ(valueIn(*energy[0], "kcal"), 0.12);
  EXPECT_DOUBLE_EQ(valueIn(*energy[1], "kcal"), 0.08);
  EXPECT_EQ(energy[1]->startDate(), utc(2024, 1, 1, 23, 52, 27));
  EXPECT_EQ(energy[1]->device()->hardwareVersion, "Watch6,7");
  EXPECT_EQ(samples(kHeartRate).size(), 2u);
}

TEST_F(ImporterTest, FrenchExportWithVersion8DoctypeConvertsUnits) {
  const ImportSummary summary = import(fixturePath("healthkit-parser/exporter.xml"));
  ASSERT_TRUE(summary.ok()) << summaryText(summary);
  EXPECT_EQ(summary.added, 14u);
  EXPECT_EQ(summary.skippedCount(), 0u);
  EXPECT_EQ(summary.keptByKind.at("HeartRateVariabilityMetadataList"), 1u);

  // The beat at "08:33:44,67" of a record that starts at 08:33:39.
  const auto variability =
      samplesOf<QuantitySample>("HKQuantityTypeIdentifierHeartRateVariabilitySDNN");
  ASSERT_EQ(variability.size(), 1u);
  const auto beats = database().beatSeries(variability[0]->uuid()).value();
  ASSERT_TRUE(beats.has_value());
  ASSERT_EQ(beats->beats.size(), 1u);
  EXPECT_NEAR(beats->beats[0].secondsSinceStart, 5.67, 1e-9);
  EXPECT_EQ(beats->beats[0].beatsPerMinute, 78);

  const auto height = samplesOf<QuantitySample>("HKQuantityTypeIdentifierHeight");
  ASSERT_EQ(height.size(), 1u);
  EXPECT_NEAR(valueIn(*height[0], "m"), 1.83, 1e-12);
  EXPECT_EQ(height[0]->sourceRevision().source.name, "Foo");

  const auto vo2 = samplesOf<QuantitySample>("HKQuantityTypeIdentifierVO2Max");
  ASSERT_EQ(vo2.size(), 1u);
  EXPECT_NEAR(valueIn(*vo2[0], "mL/(kg*min)"), 42.095, 1e-9);
  EXPECT_EQ(vo2[0]->sourceRevision().source.name, "Apple" + std::string(kNoBreakSpace) + "Watch");
  EXPECT_FALSE(vo2[0]->sourceRevision().version.has_value());
  EXPECT_EQ(metadataValue<std::int64_t>(*vo2[0], "HKVO2MaxTestType"), 2);

  const auto distance = samplesOf<QuantitySample>("HKQuantityTypeIdentifierDistanceWalkingRunning");
  ASSERT_EQ(distance.size(), 1u);
  EXPECT_NEAR(valueIn(*distance[0], "m"), 6855.2, 1e-6);
  EXPECT_EQ(metadataValue<std::string>(*distance[0], "HKExternalUUID"),
            "strava://activities/2071320016");
  // A summer date written with the winter offset of the export: the instant is what counts.
  const auto steps = samplesOf<QuantitySample>(kStepCount);
  ASSERT_EQ(steps.size(), 1u);
  EXPECT_EQ(steps[0]->startDate(), utc(2016, 7, 11, 20, 58, 42));
  EXPECT_EQ(steps[0]->device()->hardwareVersion, "iPhone8,4");
}

TEST_F(ImporterTest, ReimportingAddsNothingAlsoWhenTheExportOffsetChanged) {
  const ImportSummary first = import(fixturePath("healthkit-parser/exporter.xml"));
  ASSERT_TRUE(first.ok());
  const ImportSummary again = import(fixturePath("healthkit-parser/exporter.xml"));
  ASSERT_TRUE(again.ok());
  EXPECT_EQ(again.added, 0u);
  EXPECT_EQ(again.alreadyPresent, 14u);

  // The same step record in an export made in summer: same instants, other offset text.
  const std::string shifted = R"(<HealthData locale="fr_FR">
 <Record type="HKQuantityTypeIdentifierStepCount" sourceName="iPhone" sourceVersion="9.3.2" unit="count" creationDate="2016-07-12 00:03:23 +0200" startDate="2016-07-11 22:58:42 +0200" endDate="2016-07-11 22:59:05 +0200" value="14.0"/>
 <Record type="HKQuantityTypeIdentifierStepCount" sourceName="iPhone" sourceVersion="9.3.2" unit="count" creationDate="2016-07-12 00:03:23 +0200" startDate="2016-07-11 22:59:42 +0200" endDate="2016-07-11 22:59:55 +0200" value="3"/>
</HealthData>
)";
  writeText(dir_.path() / "summer" / "export.xml", shifted);
  const ImportSummary summer = import(dir_.path() / "summer" / "export.xml");
  ASSERT_TRUE(summer.ok()) << summaryText(summer);
  EXPECT_EQ(summer.added, 1u);
  EXPECT_EQ(summer.alreadyPresent, 1u);
  EXPECT_EQ(samples(kStepCount).size(), 2u);
}

// The internal subset of iOS 16.0/16.1 exports: an ATTLIST left open and junk before "]>".
constexpr std::string_view kVersion12Prolog = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE HealthData [
<!-- HealthKit Export Version: 12 -->
<!ELEMENT HealthData (ExportDate,Me,(Record|Correlation|Workout|ActivitySummary|ClinicalRecord|Audiogram|VisionPrescription)*)>
<!ATTLIST HealthData
  locale CDATA #REQUIRED
>
<!ELEMENT VisionPrescription ((RightEye|LeftEye|Attachment|MetadataEntry)*)>
<!ATTLIST VisionPrescription
  type CDATA #REQUIRED
  dateIssued CDATA #REQUIRED
  brand CDATA #IMPLIED
<!ELEMENT RightEye EMPTY>
<!ATTLIST RightEye
  sphere CDATA #IMPLIED
>
<!ENTITY lol "lol">
<!ATTLIST Record
  type CDATA #REQUIRED
>
  device CDATA #IMPLIED
<!ELEMENT MetadataEntry EMPTY>
<!ATTLIST MetadataEntry
  key CDATA #REQUIRED
  value CDATA #REQUIRED
>
>
]>
)";

TEST_F(ImporterTest, MalformedVersion12DoctypeControlCharactersAndCorrelations) {
  std::string text(kVersion12Prolog);
  text += R"(<HealthData locale="en_US">
 <ExportDate value="2022-10-02 09:00:00 -0700"/>
 <Record type="HKQuantityTypeIdentifierBloodPressureSystolic" sourceName="Omron)";
  text += "\x0b";  // a vertical tab inside a source name, as old exports have
  text +=
      R"(" unit="mmHg" startDate="2022-09-30 08:00:00 -0700" endDate="2022-09-30 08:00:00 -0700" value="121"/>
 <Record type="HKQuantityTypeIdentifierBloodPressureDiastolic" sourceName="Omron" unit="mmHg" startDate="2022-09-30 08:00:00 -0700" endDate="2022-09-30 08:00:00 -0700" value="79"/>
 <Correlation type="HKCorrelationTypeIdentifierBloodPressure" sourceName="Omron" startDate="2022-09-30 08:00:00 -0700" endDate="2022-09-30 08:00:00 -0700">
  <Record type="HKQuantityTypeIdentifierBloodPressureSystolic" sourceName="Omron" unit="mmHg" startDate="2022-09-30 08:00:00 -0700" endDate="2022-09-30 08:00:00 -0700" value="121"/>
  <Record type="HKQuantityTypeIdentifierBloodPressureDiastolic" sourceName="Omron" unit="mmHg" startDate="2022-09-30 08:00:00 -0700" endDate="2022-09-30 08:00:00 -0700" value="79"/>
 </Correlation>
 <Record type="HKQuantityTypeIdentifierBloodGlucose" sourceName="Meter" unit="mmol&lt;180.1558800000541&gt;/L" startDate="2022-09-30 09:00:00 -0700" endDate="2022-09-30 09:00:00 -0700" value="5.5"/>
 <Record type="HKQuantityTypeIdentifierBodyTemperature" sourceName="Thermo" unit="degF" startDate="2022-09-30 10:00:00 -0700" endDate="2022-09-30 10:00:00 -0700" value="98.6"/>
 <Record type="HKQuantityTypeIdentifierOxygenSaturation" sourceName="Watch" unit="%" startDate="2022-09-30 11:00:00 -0700" endDate="2022-09-30 11:00:00 -0700" value="0.96"/>
 <Record type="HKQuantityTypeIdentifierBodyMass" sourceName="Scale" unit="furlong" startDate="2022-09-30 11:00:00 -0700" endDate="2022-09-30 11:00:00 -0700" value="3"/>
 <Record type="HKQuantityTypeIdentifierBodyMass" sourceName="Scale" unit="st" startDate="2022-09-30 11:00:00 -0700" endDate="2022-09-30 11:00:00 -0700" value="11"/>
 <Record type="HKQuantityTypeIdentifierBodyMass" sourceName="Scale" unit="kg" startDate="30/09/2022" endDate="2022-09-30 11:00:00 -0700" value="70"/>
 <Record type="HKCategoryTypeIdentifierMindfulSession" sourceName="Breathe" startDate="2019-06-01 08:00:00 -0700" endDate="2019-06-01 08:01:00 -0700"/>
 <Record type="HKCategoryTypeIdentifierSleepAnalysis" sourceName="iPhone" startDate="2019-06-01 00:00:00 -0700" endDate="2019-06-01 06:00:00 -0700" value="HKCategoryValueSleepAnalysisAsleep"/>
 <Record type="HKCategoryTypeIdentifierSleepAnalysis" sourceName="iPhone" startDate="2019-06-02 00:00:00 -0700" endDate="2019-06-02 06:00:00 -0700" value="HKCategoryValueSleepAnalysisDaydreaming"/>
 <Record type="HKQuantityTypeIdentifierFutureThing" sourceName="Watch" unit="count" startDate="2022-09-30 11:00:00 -0700" endDate="2022-09-30 11:00:00 -0700" value="7">
  <MetadataEntry key="HKFutureKey" value="a &amp; b"/>
 </Record>
</HealthData>
)";
  writeText(dir_.path() / "v12" / "export.xml", text);
  const ImportSummary summary = import(dir_.path() / "v12" / "export.xml");
  ASSERT_TRUE(summary.ok()) << summaryText(summary);
  // The correlation and its two records (the same as the top-level ones), the unit, the
  // category value and the identifier nobody knows kept as written; only the record without
  // a date is lost.
  EXPECT_EQ(summary.added, 12u);
  EXPECT_EQ(summary.alreadyPresent, 2u);
  EXPECT_EQ(summary.keptByKind.at("kept as written"), 3u);
  EXPECT_EQ(summary.skippedCount(), 1u);
  EXPECT_EQ(skips(summary, SkipReason::unparsableDate, "HKQuantityTypeIdentifierBodyMass"), 1u);
  // Line numbers are those of the file, DOCTYPE included.
  EXPECT_EQ(summary.skipped.at("unparsable date").at("HKQuantityTypeIdentifierBodyMass").firstLine,
            42u);

  const auto systolic = samplesOf<QuantitySample>("HKQuantityTypeIdentifierBloodPressureSystolic");
  ASSERT_EQ(systolic.size(), 1u);
  EXPECT_EQ(systolic[0]->sourceRevision().source.name, "Omron");
  const auto diastolic =
      samplesOf<QuantitySample>("HKQuantityTypeIdentifierBloodPressureDiastolic");
  ASSERT_EQ(diastolic.size(), 1u);
  SampleDatabase stored = database();
  const auto pressure = stored.sampleRows("HKCorrelationTypeIdentifierBloodPressure").value();
  ASSERT_EQ(pressure.size(), 1u);
  auto members = stored.correlationMembers(pressure[0].uuid).value();
  std::sort(members.begin(), members.end());
  std::vector<Uuid> expected = {systolic[0]->uuid(), diastolic[0]->uuid()};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(members, expected);
  const auto asWritten = stored.keptElements("Record").value();
  ASSERT_EQ(asWritten.size(), 3u);
  EXPECT_NE(asWritten[0].json.find("HKCategoryValueSleepAnalysisDaydreaming"), std::string::npos);
  EXPECT_NE(asWritten[1].json.find(R"("unit":"furlong")"), std::string::npos);
  EXPECT_EQ(asWritten[2].json,
            R"({"type":"HKQuantityTypeIdentifierFutureThing","unit":"count","value":"7",)"
            R"("sourceName":"Watch","startDate":"2022-09-30 11:00:00 -0700",)"
            R"("endDate":"2022-09-30 11:00:00 -0700","MetadataEntry":[{"key":"HKFutureKey",)"
            R"("value":"a & b"}]})");

  const auto glucose = samplesOf<QuantitySample>("HKQuantityTypeIdentifierBloodGlucose");
  ASSERT_EQ(glucose.size(), 1u);
  EXPECT_NEAR(valueIn(*glucose[0], "mg/dL"), 99.0857, 1e-3);
  const auto temperature = samplesOf<QuantitySample>("HKQuantityTypeIdentifierBodyTemperature");
  EXPECT_NEAR(valueIn(*temperature.at(0), "degC"), 37, 1e-9);
  // Fractions stay fractions, as HealthKit keeps percentages.
  const auto oxygen = samplesOf<QuantitySample>("HKQuantityTypeIdentifierOxygenSaturation");
  EXPECT_DOUBLE_EQ(valueIn(*oxygen.at(0), "%"), 0.96);
  const auto mass = samplesOf<QuantitySample>("HKQuantityTypeIdentifierBodyMass");
  ASSERT_EQ(mass.size(), 1u);
  EXPECT_NEAR(valueIn(*mass[0], "kg"), 69.85, 1e-9);

  const auto mindful = samplesOf<CategorySample>(kMindfulSessionIdentifier);
  ASSERT_EQ(mindful.size(), 1u);
  EXPECT_EQ(mindful[0]->value(), 0);
  const auto sleep = samplesOf<CategorySample>(kSleepAnalysisIdentifier);
  ASSERT_EQ(sleep.size(), 1u);
  EXPECT_EQ(sleep[0]->value(), kSleepAsleepUnspecified);
}

TEST_F(ImporterTest, NewerWorkoutsPreferStatisticsAndSumActivities) {
  const std::string text = R"(<?xml version="1.0" encoding="UTF-8"?>
<HealthData locale="en_US">
 <Workout workoutActivityType="HKWorkoutActivityTypeRunning" duration="60.5" durationUnit="min" totalDistance="1" totalDistanceUnit="mi" totalEnergyBurned="1" totalEnergyBurnedUnit="kcal" sourceName="Watch" sourceVersion="10.0" startDate="2025-09-16 16:14:50 +0100" endDate="2025-09-16 17:20:00 +0100">
  <MetadataEntry key="HKIndoorWorkout" value="0"/>
  <WorkoutEvent type="HKWorkoutEventTypeSegment" date="2025-09-16 16:14:50 +0100" duration="6.42" durationUnit="min"/>
  <WorkoutActivity uuid="0C822588-0000-0000-0000-000000000000" startDate="2025-09-16 16:14:50 +0100" endDate="2025-09-16 17:20:00 +0100" duration="60" durationUnit="min">
   <WorkoutEvent type="HKWorkoutEventTypeLap" date="2025-09-16 16:20:00 +0100"/>
   <WorkoutStatistics type="HKQuantityTypeIdentifierDistanceWalkingRunning" startDate="2025-09-16 16:14:50 +0100" endDate="2025-09-16 17:20:00 +0100" sum="100" unit="km"/>
   <MetadataEntry key="WOIntervalStepKeyPath" value="0.0.0"/>
  </WorkoutActivity>
  <WorkoutStatistics type="HKQuantityTypeIdentifierDistanceWalkingRunning" startDate="2025-09-16 16:14:50 +0100" endDate="2025-09-16 17:20:00 +0100" sum="8.95512" unit="km"/>
  <WorkoutStatistics type="HKQuantityTypeIdentifierActiveEnergyBurned" startDate="2025-09-16 16:14:50 +0100" endDate="2025-09-16 17:20:00 +0100" sum="560.5" unit="Cal"/>
  <WorkoutStatistics type="HKQuantityTypeIdentifierHeartRate" startDate="2025-09-16 16:14:50 +0100" endDate="2025-09-16 17:20:00 +0100" average="130.153" minimum="87" maximum="139" unit="count/min"/>
  <WorkoutRoute sourceName="iPhone" startDate="2025-09-16 16:14:50 +0100" endDate="2025-09-16 17:20:00 +0100">
   <MetadataEntry key="HKMetadataKeySyncIdentifier" value="780F3459"/>
   <FileReference path="/workout-routes/route_2025-09-16_6.15pm.gpx"/>
  </WorkoutRoute>
  <MetadataEntry key="HKIndoorWorkout" value="0"/>
  <MetadataEntry key="HKTimeZone" value="Europe/Paris"/>
 </Workout>
 <Workout workoutActivityType="HKWorkoutActivityTypeSwimBikeRun" duration="7200" durationUnit="s" sourceName="Watch" startDate="2025-07-14 08:00:00 +0100" endDate="2025-07-14 10:00:00 +0100">
  <WorkoutActivity startDate="2025-07-14 08:00:00 +0100" endDate="2025-07-14 08:30:00 +0100">
   <WorkoutStatistics type="HKQuantityTypeIdentifierDistanceSwimming" sum="1500" unit="m"/>
   <WorkoutStatistics type="HKQuantityTypeIdentifierActiveEnergyBurned" sum="1000" unit="kJ"/>
  </WorkoutActivity>
  <WorkoutActivity startDate="2025-07-14 08:30:00 +0100" endDate="2025-07-14 10:00:00 +0100">
   <WorkoutStatistics type="HKQuantityTypeIdentifierDistanceCycling" sum="40" unit="km"/>
  </WorkoutActivity>
 </Workout>
 <Workout workoutActivityType="HKWorkoutActivityTypeUnderwaterBasketWeaving" duration="30" durationUnit="min" sourceName="Strava" startDate="2025-07-15 08:00:00 +0100" endDate="2025-07-15 08:30:00 +0100"/>
</HealthData>
)";
  writeText(dir_.path() / "workouts.xml", text);
  // The route's points are in its file, UTC times, longitude first.
  writeText(dir_.path() / "workout-routes" / "route_2025-09-16_6.15pm.gpx",
            R"(<?xml version="1.0" encoding="UTF-8"?>
<gpx version="1.1" creator="Apple Health Export" xmlns="http://www.topografix.com/GPX/1/1">
 <metadata><time>2026-02-12T12:58:48Z</time></metadata>
 <trk><name>Route 2025-09-16 6:15pm</name><trkseg>
  <trkpt lon="2.35" lat="48.85"><ele>35.5</ele><time>2025-09-16T15:14:50Z</time><extensions><speed>2.5</speed><course>90</course><hAcc>4.5</hAcc><vAcc>3.5</vAcc></extensions></trkpt>
  <trkpt lon="2.36" lat="48.86"><time>2025-09-16T15:14:51.5Z</time></trkpt>
 </trkseg></trk>
</gpx>
)");
  const ImportSummary summary = import(dir_.path() / "workouts.xml");
  ASSERT_TRUE(summary.ok()) << summaryText(summary);
  EXPECT_EQ(summary.added, 3u);
  EXPECT_EQ(summary.skippedCount(), 0u);
  EXPECT_EQ(summary.keptByKind.at("WorkoutEvent"), 2u);
  EXPECT_EQ(summary.keptByKind.at("route file"), 1u);

  const auto workouts = samplesOf<Workout>(kWorkoutTypeIdentifier);
  ASSERT_EQ(workouts.size(), 3u);
  const Workout& triathlon = *workouts[0];
  EXPECT_EQ(triathlon.workoutActivityType(), 82u);
  EXPECT_DOUBLE_EQ(triathlon.duration(), 7200);
  EXPECT_NEAR(triathlon.totalDistance()->doubleValue(Unit::meter()).value(), 41500, 1e-6);
  EXPECT_NEAR(triathlon.totalEnergyBurned()->doubleValue(Unit::kilocalorie()).value(), 239.006,
              1e-3);
  EXPECT_FALSE(triathlon.sourceRevision().version.has_value());

  const Workout& strava = *workouts[1];
  EXPECT_EQ(strava.workoutActivityType(), exportxml::kWorkoutActivityTypeOther);
  EXPECT_FALSE(strava.totalDistance().has_value());
  EXPECT_FALSE(strava.totalEnergyBurned().has_value());

  const Workout& run = *workouts[2];
  EXPECT_EQ(run.workoutActivityType(), 37u);
  EXPECT_DOUBLE_EQ(run.duration(), 3630);
  EXPECT_NEAR(run.totalDistance()->doubleValue(Unit::meter()).value(), 8955.12, 1e-6);
  EXPECT_NEAR(run.totalEnergyBurned()->doubleValue(Unit::kilocalorie()).value(), 560.5, 1e-9);
  EXPECT_EQ(run.startDate(), utc(2025, 9, 16, 15, 14, 50));
  // The workout's own metadata, once each; none of its activity's or route's.
  EXPECT_EQ(run.metadata().size(), 2u);

  // Its events, also those of its activity, in the order written, and its route.
  SampleDatabase stored = database();
  const auto events = stored.workoutEvents(run.uuid()).value();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].type, "HKWorkoutEventTypeSegment");
  EXPECT_EQ(events[0].date, storedTime(utc(2025, 9, 16, 15, 14, 50)));
  EXPECT_NEAR(events[0].durationSeconds.value(), 385.2, 1e-9);
  EXPECT_EQ(events[1].type, "HKWorkoutEventTypeLap");
  EXPECT_FALSE(events[1].durationSeconds.has_value());
  EXPECT_TRUE(stored.workoutEvents(triathlon.uuid()).value().empty());
  const auto routes = stored.workoutRoutes(run.uuid()).value();
  ASSERT_EQ(routes.size(), 1u);
  EXPECT_EQ(routes[0].filePath, "/workout-routes/route_2025-09-16_6.15pm.gpx");
  EXPECT_NE(routes[0].metadata.value_or("").find("780F3459"), std::string::npos);
  ASSERT_EQ(routes[0].locations.size(), 2u);
  EXPECT_DOUBLE_EQ(routes[0].locations[0].latitude, 48.85);
  EXPECT_DOUBLE_EQ(routes[0].locations[0].longitude, 2.35);
  EXPECT_DOUBLE_EQ(routes[0].locations[0].altitude, 35.5);
  EXPECT_DOUBLE_EQ(routes[0].locations[0].verticalAccuracy, 3.5);
  EXPECT_DOUBLE_EQ(routes[0].locations[1].time - routes[0].locations[0].time, 1.5);
  EXPECT_TRUE(std::isnan(routes[0].locations[1].speed));

  // Again: nothing new, and the route keeps its points once.
  const ImportSummary again = import(dir_.path() / "workouts.xml");
  EXPECT_EQ(again.added, 0u);
  EXPECT_EQ(again.alreadyPresent, 3u);
  EXPECT_EQ(stored.workoutRoutes(run.uuid()).value().at(0).locations.size(), 2u);
  EXPECT_EQ(stored.workoutEvents(run.uuid()).value().size(), 2u);
  EXPECT_EQ(metadataValue<std::string>(run, "HKTimeZone"), "Europe/Paris");
  EXPECT_EQ(metadataValue<std::int64_t>(run, "HKIndoorWorkout"), 0);
}

std::string stepExport(int records) {
  std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<HealthData locale=\"en_US\">\n";
  text += " <ExportDate value=\"2024-01-01 00:00:00 +0000\"/>\n";
  for (int i = 0; i < records; ++i) {
    const int minute = i % 60, hour = (i / 60) % 24, day = 1 + i / 1440;
    char line[320];
    std::snprintf(line, sizeof line,
                  " <Record type=\"HKQuantityTypeIdentifierStepCount\" sourceName=\"Phone\" "
                  "unit=\"count\" startDate=\"2023-03-%02d %02d:%02d:00 +0000\" "
                  "endDate=\"2023-03-%02d %02d:%02d:30 +0000\" value=\"%d\"/>\n",
                  day, hour, minute, day, hour, minute, i + 1);
    text += line;
  }
  return text + "</HealthData>\n";
}

TEST_F(ImporterTest, TruncatedFileKeepsCommittedChunksAndCompletesOnTheNextRun) {
  constexpr int kRecords = 12000;
  constexpr int kCut = 7500;  // the record cut in half
  const std::string whole = stepExport(kRecords);
  // Line 4 holds the first record.
  std::size_t at = 0;
  for (int line = 1; line < 4 + kCut; ++line) {
    at = whole.find('\n', at) + 1;
  }
  const std::filesystem::path path = dir_.path() / "export.xml";
  writeText(path, whole.substr(0, at + 60));

  ImportOptions options;
  options.chunkSize = 1000;
  const ImportSummary broken = import(path, options);
  ASSERT_FALSE(broken.ok());
  EXPECT_EQ(broken.failure->domain, kImportErrorDomain);
  EXPECT_EQ(broken.failure->code, kImportErrorMalformed);
  ASSERT_TRUE(broken.stoppedAt.has_value());
  EXPECT_EQ(broken.stoppedAt->line, static_cast<std::uint64_t>(4 + kCut));
  EXPECT_EQ(broken.added, static_cast<std::uint64_t>(kCut));
  EXPECT_NE(summaryText(broken).find("stopped at line 7504"), std::string::npos)
      << summaryText(broken);
  EXPECT_EQ(samples(kStepCount).size(), static_cast<std::size_t>(kCut));

  writeText(path, whole);
  const ImportSummary completed = import(path, options);
  ASSERT_TRUE(completed.ok()) << summaryText(completed);
  EXPECT_EQ(completed.added, static_cast<std::uint64_t>(kRecords - kCut));
  EXPECT_EQ(completed.alreadyPresent, static_cast<std::uint64_t>(kCut));
  const auto steps = samplesOf<QuantitySample>(kStepCount);
  ASSERT_EQ(steps.size(), static_cast<std::size_t>(kRecords));
  EXPECT_DOUBLE_EQ(valueIn(*steps[kCut], "count"), kCut + 1);
  EXPECT_EQ(steps[kCut]->startDate(), utc(2023, 3, 6, 5, 0, 0));
}

TEST_F(ImporterTest, DocumentsThatAreNotExportsFailCleanly) {
  writeText(dir_.path() / "other.xml", "<?xml version=\"1.0\"?>\n<ClinicalDocument/>\n");
  const ImportSummary other = import(dir_.path() / "other.xml");
  ASSERT_FALSE(other.ok());
  EXPECT_EQ(other.failure->code, kImportErrorNotAnExport);

  const ImportSummary missing = import(dir_.path() / "nowhere.zip");
  ASSERT_FALSE(missing.ok());
  EXPECT_EQ(missing.failure->code, kImportErrorCannotOpen);

  // An entity declared before the root must never be expanded.
  writeText(dir_.path() / "entity.xml",
            "<!DOCTYPE HealthData [<!ENTITY e SYSTEM \"file:///etc/passwd\">]>\n"
            "<HealthData><Record type=\"&e;\" sourceName=\"x\" startDate=\"\" endDate=\"\"/>"
            "</HealthData>\n");
  const ImportSummary entity = import(dir_.path() / "entity.xml");
  ASSERT_FALSE(entity.ok());
  EXPECT_EQ(entity.failure->code, kImportErrorMalformed);
  EXPECT_EQ(entity.stoppedAt->line, 2u);
}

// ---- Archives -----------------------------------------------------------------------------

struct ZipEntry {
  std::string name;
  std::string content;
};

struct ArchiveDiscarder {
  void operator()(zip_t* archive) const { zip_discard(archive); }
};

void writeZip(const std::filesystem::path& path, const std::vector<ZipEntry>& entries) {
  int error = 0;
  std::unique_ptr<zip_t, ArchiveDiscarder> archive(
      zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error));
  ASSERT_NE(archive, nullptr) << error;
  for (const ZipEntry& entry : entries) {
    zip_source_t* source =
        zip_source_buffer(archive.get(), entry.content.data(), entry.content.size(), 0);
    ASSERT_NE(source, nullptr);
    ASSERT_GE(zip_file_add(archive.get(), entry.name.c_str(), source, ZIP_FL_ENC_UTF_8), 0)
        << zip_strerror(archive.get());
  }
  // zip_close writes and frees the archive on success only.
  ASSERT_EQ(zip_close(archive.get()), 0) << zip_strerror(archive.get());
  archive.release();
}

std::string electrocardiogram513(int count) {
  std::string text =
      "Name,X\nDate of Birth,\"25 Sep 2006\"\nRecorded Date,2021-12-17 12:58:58 +0800\n"
      "Classification,Sinus Rhythm\nSymptoms,\nSoftware Version,1.90\nDevice,\"Watch5,1\"\n"
      "Sample Rate,513.625 hertz\n\n\nLead,Lead I\nUnit,\xC2\xB5V\n\n";
  for (int i = 0; i < count; ++i) {
    text += std::to_string(i % 200 - 100) + "," + std::to_string(i % 1000) + "\n";
  }
  return text;
}

TEST_F(ImporterTest, ZipWithLocalisedNameMacArtefactsAndElectrocardiograms) {
  const std::string document = readText(fixturePath("apple-health-parser/export.xml"));
  const std::string realEcg = readText(fixturePath("ecg-comma-decimal/ecg_2024-08-19.csv"));
  // A resource fork bigger than the document and looking like it, to prove it is never read.
  const std::string fork = "<HealthData>" + std::string(document.size() * 2, ' ');
  const std::filesystem::path zip = dir_.path() / "exportar.zip";
  writeZip(zip,
           {
               {"apple_health_export/\xE5\xAF\xBC\xE5\x87\xBA.xml", document},
               {"apple_health_export/export_cda.xml", "<?xml version=\"1.0\"?><ClinicalDocument/>"},
               {"apple_health_export/electrocardiograms/ecg_2024-08-19.csv", realEcg},
               {"apple_health_export/electrocardiograms/ecg_2021-12-17.csv",
                electrocardiogram513(15409)},
               {"__MACOSX/apple_health_export/._\xE5\xAF\xBC\xE5\x87\xBA.xml", fork},
               {"__MACOSX/apple_health_export/electrocardiograms/._ecg_2024-08-19.csv", "x"},
               {"apple_health_export/.DS_Store", "junk"},
           });
  const ImportSummary summary = import(zip);
  ASSERT_TRUE(summary.ok()) << summaryText(summary);
  EXPECT_EQ(summary.mainDocument, "apple_health_export/\xE5\xAF\xBC\xE5\x87\xBA.xml");
  EXPECT_EQ(summary.electrocardiograms, 2u);
  EXPECT_EQ(summary.added, 11u);

  const auto recordings = samplesOf<Electrocardiogram>(kElectrocardiogramTypeIdentifier);
  ASSERT_EQ(recordings.size(), 2u);
  EXPECT_EQ(recordings[0]->numberOfVoltageMeasurements(), 15409);
  EXPECT_DOUBLE_EQ(recordings[0]->samplingFrequency()->doubleValue(Unit::hertz()).value(), 513.625);
  EXPECT_EQ(recordings[1]->numberOfVoltageMeasurements(), 15360);

  // The voltage query delivers volts, one per measurement.
  std::promise<std::vector<double>> promise;
  auto volts = std::make_shared<std::vector<double>>();
  store_->executeQuery(ElectrocardiogramQuery::make(
      recordings[0], [&, volts](const auto&, const ElectrocardiogramQueryResult& result) {
        if (const auto* measurement = std::get_if<VoltageMeasurement>(&result)) {
          volts->push_back(measurement->volts);
        } else {
          promise.set_value(*volts);
        }
      }));
  std::future<std::vector<double>> future = promise.get_future();
  ASSERT_EQ(future.wait_for(kQueryWait), std::future_status::ready);
  const std::vector<double> trace = future.get();
  ASSERT_EQ(trace.size(), 15409u);
  EXPECT_NEAR(trace[1], -99.1e-6, 1e-12);  // "-99,1"

  // A second import of the same archive finds everything there.
  const ImportSummary again = import(zip);
  ASSERT_TRUE(again.ok());
  EXPECT_EQ(again.added, 0u);
  EXPECT_EQ(again.alreadyPresent, 11u);
}

TEST_F(ImporterTest, UnpackedFolderFindsTheDocumentByContent) {
  const std::filesystem::path root = dir_.path() / "unpacked" / "apple_health_export";
  writeText(root / "Export.xml", readText(fixturePath("healthkit-to-sqlite/export.xml")));
  writeText(root / "export_cda.xml", "<?xml version=\"1.0\"?><ClinicalDocument/>");
  writeText(root / "electrocardiograms" / "ecg_2021-12-17.csv", electrocardiogram513(100));
  writeText(dir_.path() / "unpacked" / "__MACOSX" / "big.xml",
            "<HealthData>" + std::string(9000, ' '));
  const ImportSummary summary = import(dir_.path() / "unpacked");
  ASSERT_TRUE(summary.ok()) << summaryText(summary);
  EXPECT_EQ(summary.mainDocument, "apple_health_export/Export.xml");
  EXPECT_EQ(summary.added, 7u);
  EXPECT_EQ(summary.electrocardiograms, 1u);
}

}  // namespace
}  // namespace kestrova::testing
