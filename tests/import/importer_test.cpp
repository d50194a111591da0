// Imports of real export excerpts and of files written here for the traps of real exports (the
// version 12 DOCTYPE, truncation, localised archive names, newer workouts), read back through
// the store's queries.
#include <gtest/gtest.h>
#include <zip.h>

#include <set>

#include "import_fixture.h"

namespace kestrova::testing {
namespace {

constexpr std::string_view kStepCount = "HKQuantityTypeIdentifierStepCount";

using ImporterTest = ImportFixture;

TEST_F(ImporterTest, OlderExportWithoutPrologAndWithWorkoutTotalsAsAttributes) {
  const ImportSummary summary = import(fixturePath("healthkit-to-sqlite/export.xml"));
  ASSERT_TRUE(summary.ok()) << summaryText(summary);
  // Nothing left out: the characteristics, both activity summaries, the route with its points.
  EXPECT_EQ(summary.added, 6u);
  EXPECT_EQ(summary.skippedCount(), 0u);
  EXPECT_EQ(summary.keptByKind, (std::map<std::string, std::uint64_t>{{"ActivitySummary", 2},
                                                                      {"Record", 2},
                                                                      {"Workout", 1},
                                                                      {"WorkoutRoute", 1},
                                                                      {"kept as written", 1}}));

  const auto bmi = only<QuantitySample>("HKQuantityTypeIdentifierBodyMassIndex");
  EXPECT_DOUBLE_EQ(valueIn(*bmi, "count"), 22.5312);
  EXPECT_EQ(bmi->startDate(), utc(2016, 4, 18, 15, 25, 32));
  EXPECT_TRUE(bmi->sourceRevision().source.bundleIdentifier.starts_with(
      "import.apple-health.health-mate."));
  EXPECT_EQ(metadataValue<std::int64_t>(*bmi, "Withings User Identifier"), 12345);
  EXPECT_EQ(metadataValue<Date>(*bmi, "Modified Date"), utc(2016, 4, 18, 15, 56, 5));
  EXPECT_EQ(metadataValue<bool>(*bmi, "HKWasUserEntered"), false);

  const auto run = only<Workout>("HKWorkoutTypeIdentifier");
  EXPECT_EQ(run->workoutActivityType(), 37u);
  EXPECT_NEAR(run->duration(), 5.19412346680959 * 60, 1e-9);
  EXPECT_NEAR(run->totalDistance()->doubleValue(Unit::meter()).value(), 800.12, 0.01);
  EXPECT_NEAR(run->totalEnergyBurned()->doubleValue(Unit::kilocalorie()).value(), 48.745, 1e-9);

  SampleDatabase stored = database();
  const auto routes = stored.workoutRoutes(run->uuid()).value();
  ASSERT_EQ(routes.size(), 1u);
  ASSERT_EQ(routes[0].locations.size(), 2u);
  EXPECT_DOUBLE_EQ(routes[0].locations[1].altitude, 21.2677);
  const auto days = stored.activitySummaries().value();
  ASSERT_EQ(days.size(), 2u);
  EXPECT_EQ(days[0], (ActivitySummaryRow{"2016-11-15", 590.252, 630, std::nullopt, std::nullopt, 68,
                                         30, 13, 12}));
  EXPECT_NE(stored.keptElements("Me").value().at(0).json.find(
                R"("HKCharacteristicTypeIdentifierDateOfBirth":"1990-02-02")"),
            std::string::npos);
}

TEST_F(ImporterTest, FrenchExportWithVersion8DoctypeAndItsReimportAlsoWithAnotherOffset) {
  const ImportSummary summary = import(fixturePath("healthkit-parser/exporter.xml"));
  ASSERT_TRUE(summary.ok()) << summaryText(summary);
  EXPECT_EQ(summary.added, 14u);

  // The beat at "08:33:44,67" of a record that starts at 08:33:39.
  const auto variability = only<QuantitySample>("HKQuantityTypeIdentifierHeartRateVariabilitySDNN");
  const auto beats = database().beatSeries(variability->uuid()).value();
  ASSERT_TRUE(beats.has_value());
  ASSERT_EQ(beats->beats.size(), 1u);
  EXPECT_NEAR(beats->beats[0].secondsSinceStart, 5.67, 1e-9);
  EXPECT_EQ(beats->beats[0].beatsPerMinute, 78);

  const auto vo2 = only<QuantitySample>("HKQuantityTypeIdentifierVO2Max");
  EXPECT_NEAR(valueIn(*vo2, "mL/(kg*min)"), 42.095, 1e-9);
  EXPECT_EQ(vo2->sourceRevision().source.name, "Apple\xC2\xA0Watch");
  // A summer date written with the winter offset of the export: the instant is what counts.
  const auto steps = only<QuantitySample>(kStepCount);
  EXPECT_EQ(steps->startDate(), utc(2016, 7, 11, 20, 58, 42));

  const ImportSummary again = import(fixturePath("healthkit-parser/exporter.xml"));
  ASSERT_TRUE(again.ok());
  EXPECT_EQ(again.added, 0u);
  EXPECT_EQ(again.alreadyPresent, 14u);
  // The same step record in an export made in summer: same instants, other offset text.
  writeText(dir_.path() / "summer" / "export.xml", R"(<HealthData locale="fr_FR">
 <Record type="HKQuantityTypeIdentifierStepCount" sourceName="iPhone" sourceVersion="9.3.2" unit="count" creationDate="2016-07-12 00:03:23 +0200" startDate="2016-07-11 22:58:42 +0200" endDate="2016-07-11 22:59:05 +0200" value="14.0"/>
 <Record type="HKQuantityTypeIdentifierStepCount" sourceName="iPhone" sourceVersion="9.3.2" unit="count" creationDate="2016-07-12 00:03:23 +0200" startDate="2016-07-11 22:59:42 +0200" endDate="2016-07-11 22:59:55 +0200" value="3"/>
</HealthData>
)");
  const ImportSummary summer = import(dir_.path() / "summer" / "export.xml");
  ASSERT_TRUE(summer.ok()) << summaryText(summer);
  EXPECT_EQ(summer.added, 1u);
  EXPECT_EQ(summer.alreadyPresent, 1u);
}

TEST_F(ImporterTest, MalformedVersion12DoctypeControlCharactersAndCorrelations) {
  // The internal subset of iOS 16.0/16.1 exports: an ATTLIST left open and junk before "]>".
  std::string text = R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE HealthData [
<!-- HealthKit Export Version: 12 -->
<!ATTLIST VisionPrescription
  brand CDATA #IMPLIED
<!ENTITY lol "lol">
  device CDATA #IMPLIED
>
]>
)";
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
  // a date is lost, at its line in the file, DOCTYPE included.
  EXPECT_EQ(summary.added, 12u);
  EXPECT_EQ(summary.alreadyPresent, 2u);
  const auto undated = summary.skipped.at("unparsable date").at("HKQuantityTypeIdentifierBodyMass");
  EXPECT_EQ(undated.count, 1u);
  EXPECT_EQ(undated.firstLine, 23u);

  SampleDatabase stored = database();
  const auto pressure = stored.sampleRows("HKCorrelationTypeIdentifierBloodPressure").value();
  ASSERT_EQ(pressure.size(), 1u);
  const auto members = stored.correlationMembers(pressure[0].uuid).value();
  EXPECT_EQ(std::set<Uuid>(members.begin(), members.end()),
            (std::set<Uuid>{
                only<QuantitySample>("HKQuantityTypeIdentifierBloodPressureSystolic")->uuid(),
                only<QuantitySample>("HKQuantityTypeIdentifierBloodPressureDiastolic")->uuid()}));
  const auto asWritten = stored.keptElements("Record").value();
  ASSERT_EQ(asWritten.size(), 3u);
  EXPECT_EQ(asWritten[2].json,
            R"({"type":"HKQuantityTypeIdentifierFutureThing","unit":"count","value":"7",)"
            R"("sourceName":"Watch","startDate":"2022-09-30 11:00:00 -0700",)"
            R"("endDate":"2022-09-30 11:00:00 -0700","MetadataEntry":[{"key":"HKFutureKey",)"
            R"("value":"a & b"}]})");

  EXPECT_NEAR(valueIn(*only<QuantitySample>("HKQuantityTypeIdentifierBloodGlucose"), "mg/dL"),
              99.0857, 1e-3);
  EXPECT_NEAR(valueIn(*only<QuantitySample>("HKQuantityTypeIdentifierBodyTemperature"), "degC"), 37,
              1e-9);
  // Fractions stay fractions, as the store keeps percentages.
  EXPECT_DOUBLE_EQ(valueIn(*only<QuantitySample>("HKQuantityTypeIdentifierOxygenSaturation"), "%"),
                   0.96);
  EXPECT_NEAR(valueIn(*only<QuantitySample>("HKQuantityTypeIdentifierBodyMass"), "kg"), 69.85,
              1e-9);
  EXPECT_EQ(only<CategorySample>("HKCategoryTypeIdentifierSleepAnalysis")->value(),
            kSleepAsleepUnspecified);
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

  const auto workouts = samplesOf<Workout>("HKWorkoutTypeIdentifier");
  ASSERT_EQ(workouts.size(), 3u);
  const Workout& triathlon = *workouts[0];
  EXPECT_EQ(triathlon.workoutActivityType(), 82u);
  EXPECT_NEAR(triathlon.totalDistance()->doubleValue(Unit::meter()).value(), 41500, 1e-6);
  const Workout& run = *workouts[2];
  EXPECT_DOUBLE_EQ(run.duration(), 3630);
  EXPECT_NEAR(run.totalDistance()->doubleValue(Unit::meter()).value(), 8955.12, 1e-6);
  EXPECT_NEAR(run.totalEnergyBurned()->doubleValue(Unit::kilocalorie()).value(), 560.5, 1e-9);
  // The workout's own metadata, once each; none of its activity's or route's.
  EXPECT_EQ(run.metadata().size(), 2u);
  EXPECT_EQ(metadataValue<std::int64_t>(run, "HKIndoorWorkout"), 0);

  // Its events, also those of its activity, in the order written, and its route.
  SampleDatabase stored = database();
  const auto events = stored.workoutEvents(run.uuid()).value();
  ASSERT_EQ(events.size(), 2u);
  EXPECT_NEAR(events[0].durationSeconds.value(), 385.2, 1e-9);
  EXPECT_FALSE(events[1].durationSeconds.has_value());
  const auto route = stored.workoutRoutes(run.uuid()).value().at(0);
  ASSERT_EQ(route.locations.size(), 2u);
  EXPECT_DOUBLE_EQ(route.locations[1].time - route.locations[0].time, 1.5);

  // Again: nothing new, and the route and the events are kept once.
  EXPECT_EQ(import(dir_.path() / "workouts.xml").alreadyPresent, 3u);
  EXPECT_EQ(stored.workoutRoutes(run.uuid()).value().at(0).locations.size(), 2u);
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
  EXPECT_EQ(broken.failure->code, kImportErrorMalformed);
  EXPECT_EQ(broken.added, static_cast<std::uint64_t>(kCut));
  EXPECT_NE(summaryText(broken).find("stopped at line 7504"), std::string::npos)
      << summaryText(broken);

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
  EXPECT_EQ(import(dir_.path() / "other.xml").failure->code, kImportErrorNotAnExport);
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

// ---- Archives and unpacked folders ----------------------------------------------------------

struct ZipEntry {
  std::string name;
  std::string content;
};

void writeZip(const std::filesystem::path& path, const std::vector<ZipEntry>& entries) {
  int error = 0;
  zip_t* archive = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
  ASSERT_NE(archive, nullptr) << error;
  for (const ZipEntry& entry : entries) {
    zip_source_t* source =
        zip_source_buffer(archive, entry.content.data(), entry.content.size(), 0);
    ASSERT_TRUE(source != nullptr &&
                zip_file_add(archive, entry.name.c_str(), source, ZIP_FL_ENC_UTF_8) >= 0)
        << zip_strerror(archive);
  }
  // zip_close writes and frees the archive on success only.
  if (zip_close(archive) != 0) {
    ADD_FAILURE() << zip_strerror(archive);
    zip_discard(archive);
  }
}

TEST_F(ImporterTest, RecentExportZippedWithLocalisedNameMacArtefactsAndElectrocardiograms) {
  const std::string document = readText(fixturePath("apple-health-parser/export.xml"));
  // A resource fork bigger than the document and looking like it, to prove it is never read.
  const std::string fork = "<HealthData>" + std::string(document.size() * 2, ' ');
  const std::filesystem::path zip = dir_.path() / "exportar.zip";
  writeZip(zip,
           {
               {"apple_health_export/\xE5\xAF\xBC\xE5\x87\xBA.xml", document},
               {"apple_health_export/export_cda.xml", "<?xml version=\"1.0\"?><ClinicalDocument/>"},
               {"apple_health_export/electrocardiograms/ecg_2024-08-19.csv",
                readText(fixturePath("ecg-comma-decimal/ecg_2024-08-19.csv"))},
               {"__MACOSX/apple_health_export/._\xE5\xAF\xBC\xE5\x87\xBA.xml", fork},
               {"__MACOSX/apple_health_export/electrocardiograms/._ecg_2024-08-19.csv", "x"},
               {"apple_health_export/.DS_Store", "junk"},
           });
  const ImportSummary summary = import(zip);
  ASSERT_TRUE(summary.ok()) << summaryText(summary);
  EXPECT_EQ(summary.mainDocument, "apple_health_export/\xE5\xAF\xBC\xE5\x87\xBA.xml");
  EXPECT_EQ(summary.electrocardiograms, 1u);
  EXPECT_EQ(summary.added, 10u);

  // The recent export inside: sleep stages, and a type the library does not read yet stored
  // all the same, in its canonical unit.
  const auto sleep = samplesOf<CategorySample>("HKCategoryTypeIdentifierSleepAnalysis");
  ASSERT_EQ(sleep.size(), 2u);
  EXPECT_EQ(sleep[0]->value(), kSleepInBed);
  EXPECT_EQ(sleep[0]->startDate(), utc(2023, 12, 31, 22, 55, 28));
  EXPECT_EQ(sleep[1]->value(), kSleepAsleepCore);
  const auto energy = samplesOf<QuantitySample>("HKQuantityTypeIdentifierActiveEnergyBurned");
  ASSERT_EQ(energy.size(), 2u);
  EXPECT_DOUBLE_EQ(valueIn(*energy[1], "kcal"), 0.08);
  const auto standTime = database().sampleRows("HKQuantityTypeIdentifierAppleStandTime").value();
  ASSERT_EQ(standTime.size(), 1u);
  EXPECT_EQ(standTime[0].value, 2);
  EXPECT_EQ(standTime[0].unit, "min");

  // The real recording: comma decimals, its device and the zone of its date.
  const auto recording = only<Electrocardiogram>("HKDataTypeIdentifierElectrocardiogram");
  EXPECT_EQ(recording->numberOfVoltageMeasurements(), 15360);
  EXPECT_EQ(recording->startDate(), utc(2024, 8, 19, 20, 48, 31));
  EXPECT_EQ(recording->sourceRevision().productType, "Watch7,2");

  const ImportSummary again = import(zip);
  EXPECT_EQ(again.added, 0u);
  EXPECT_EQ(again.alreadyPresent, 10u);
}

}  // namespace
}  // namespace kestrova::testing
