// The store's tables below the platform's queries: its type vocabulary against the platform's,
// the conversion of stores written by the first schema, and what import batches keep.
#include <gtest/gtest.h>

#include "healthstore/sample_codec.h"
#include "healthstore/sample_database.h"
#include "healthstore/type_vocabulary.h"
#include "platform/linux/sqlite.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

using testing::TempDir;

TEST(StoredTypes, CoverThePlatformTableWithTheSameUnits) {
  for (const StoredType& type : storedTypes()) {
    EXPECT_EQ(findStoredType(type.identifier), &type) << type.identifier;
    const std::optional<ObjectType> platform = ObjectType::fromIdentifier(type.identifier);
    if (!platform || platform->kind() != ObjectKind::quantity) {
      continue;
    }
    // Values the library reads later must already be in the unit it reads them in.
    ASSERT_EQ(type.kind, StoredKind::quantity) << type.identifier;
    ASSERT_TRUE(type.unit().has_value()) << type.identifier;
    EXPECT_EQ(*type.unit(), platform->canonicalUnit()) << type.identifier;
  }
  for (std::string_view identifier : std::initializer_list<std::string_view>{
           "HKQuantityTypeIdentifierUVExposure", "HKQuantityTypeIdentifierNumberOfTimesFallen",
           "HKQuantityTypeIdentifierAppleStandTime", "HKCategoryTypeIdentifierHandwashingEvent",
           kStepCountIdentifier, kSleepAnalysisIdentifier, kWorkoutTypeIdentifier}) {
    EXPECT_NE(findStoredType(identifier), nullptr) << identifier;
  }
  EXPECT_EQ(findStoredType("HKQuantityTypeIdentifierFutureThing"), nullptr);
}

SampleRow stepRow(std::uint8_t id, std::int64_t start, double steps) {
  Uuid::Bytes16 bytes{};
  bytes[0] = id;
  SampleRow row;
  row.uuid = Uuid(bytes);
  row.type = kStepCountIdentifier;
  row.start = start;
  row.end = start + 60'000'000;
  row.value = steps;
  row.unit = "count";
  auto revision = std::make_shared<RevisionRecord>();
  revision->revision.source = Source{"Phone", "com.phone"};
  row.revision = revision;
  return row;
}

TEST(SampleDatabaseSchema, StoreOfTheFirstSchemaIsConvertedOnOpen) {
  TempDir dir;
  const auto path = dir.path() / "healthstore.sqlite";
  {
    // The first schema: the UUID unique over the whole table, no schema version.
    Result<SqliteDatabase> old = SqliteDatabase::open(path);
    ASSERT_TRUE(old.ok());
    ASSERT_FALSE(old.value().exec(R"sql(
      CREATE TABLE store_state (id INTEGER PRIMARY KEY, last_seq INTEGER NOT NULL,
        last_tx INTEGER NOT NULL);
      INSERT INTO store_state VALUES (1, 7, 3);
      CREATE TABLE types (id INTEGER PRIMARY KEY, identifier TEXT NOT NULL UNIQUE,
        max_duration_us INTEGER NOT NULL DEFAULT 0);
      INSERT INTO types VALUES (1, 'HKQuantityTypeIdentifierStepCount', 60000000);
      CREATE TABLE revisions (id INTEGER PRIMARY KEY, key TEXT NOT NULL UNIQUE,
        source_name TEXT NOT NULL, bundle_identifier TEXT NOT NULL, version TEXT,
        product_type TEXT, os_major INTEGER NOT NULL, os_minor INTEGER NOT NULL,
        os_patch INTEGER NOT NULL, device TEXT NOT NULL);
      CREATE TABLE samples (seq INTEGER PRIMARY KEY, tx INTEGER NOT NULL,
        uuid BLOB NOT NULL UNIQUE, type_id INTEGER NOT NULL, start_us INTEGER NOT NULL,
        end_us INTEGER NOT NULL, value REAL, original_value REAL, unit TEXT, category INTEGER,
        revision_id INTEGER NOT NULL, user_entered INTEGER NOT NULL, metadata TEXT,
        details TEXT);
      INSERT INTO samples VALUES (7, 3, X'01000000000000000000000000000000', 1, 0, 60000000, 42,
        NULL, 'count', NULL, 1, 0, NULL, NULL);
    )sql"));
  }
  Result<SampleDatabase> opened = SampleDatabase::open(path);
  ASSERT_TRUE(opened.ok()) << opened.error().text();
  SampleDatabase& database = opened.value();
  // Rows and anchors as they were: the next change comes after every anchor handed out.
  EXPECT_EQ(database.lastChange().value(), 7u);
  const auto rows = database.sampleRows(kStepCountIdentifier).value();
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].value, 42);

  // Identities stay unique, and new rows come after the converted ones.
  ImportBatch batch;
  batch.samples = {stepRow(1, 0, 42), stepRow(2, 60'000'000, 10)};
  const BatchOutcome saved = database.saveBatch(batch).value();
  EXPECT_EQ(saved.added, 1u);
  EXPECT_EQ(saved.alreadyPresent, 1u);
  EXPECT_EQ(database.lastChange().value(), 8u);
  const auto plans = database.queryPlans().value();
  for (const auto& [name, plan] : plans) {
    EXPECT_EQ(plan.find("SCAN samples"), std::string::npos) << name << ": " << plan;
  }

  // Deleting by UUID finds rows without an index of their own.
  EXPECT_EQ(
      database.remove({stepRow(1, 0, 0).uuid, stepRow(9, 0, 0).uuid}, testing::utc(2024, 1, 1))
          .value(),
      1u);
  EXPECT_EQ(database.sampleRows(kStepCountIdentifier).value().size(), 1u);
  EXPECT_EQ(database.lastChange().value(), 9u);

  // A second open finds the current schema and changes nothing.
  Result<SampleDatabase> again = SampleDatabase::open(path);
  ASSERT_TRUE(again.ok());
  EXPECT_EQ(again.value().sampleRows(kStepCountIdentifier).value().size(), 1u);
}

TEST(SampleDatabaseSchema, BatchesKeepSummariesPartsAndElementsOnce) {
  TempDir dir;
  SampleDatabase database = SampleDatabase::open(dir.path() / "healthstore.sqlite").value();
  ImportBatch batch;
  batch.samples = {stepRow(1, 0, 5)};
  batch.activitySummaries = {ActivitySummaryRow{"2024-01-01", 300, 600, {}, {}, 20, 30, 8, 12}};
  batch.keptElements = {KeptElementRow{stepRow(3, 0, 0).uuid, "Audiogram", "{}"}};
  batch.beatSeries = {BeatSeriesRow{stepRow(1, 0, 0).uuid, {{0.5, 61}, {1.5, 62}}}};
  batch.workoutEvents = {WorkoutEventRow{stepRow(4, 0, 0).uuid, 0, "HKWorkoutEventTypeLap", 5,
                                         std::nullopt, std::nullopt}};
  EXPECT_EQ(database.saveBatch(batch).value().added, 3u);

  // The same again: nothing new; a day whose rings moved on takes the newer figures.
  const BatchOutcome same = database.saveBatch(batch).value();
  EXPECT_EQ(same.added, 0u);
  EXPECT_EQ(same.alreadyPresent, 3u);
  batch.activitySummaries[0].activeEnergyBurned = 450;
  const BatchOutcome later = database.saveBatch(batch).value();
  EXPECT_EQ(later.added, 1u);
  EXPECT_EQ(database.activitySummaries().value().at(0).activeEnergyBurned, 450);
  EXPECT_EQ(database.activitySummaries().value().size(), 1u);
  EXPECT_EQ(database.beatSeries(stepRow(1, 0, 0).uuid).value()->beats.size(), 2u);
  EXPECT_EQ(database.workoutEvents(stepRow(4, 0, 0).uuid).value().size(), 1u);
  EXPECT_EQ(database.keptElements("Audiogram").value().size(), 1u);

  // What belongs to a sample goes with it.
  EXPECT_EQ(database.remove({stepRow(1, 0, 0).uuid}, testing::utc(2024, 1, 2)).value(), 1u);
  EXPECT_FALSE(database.beatSeries(stepRow(1, 0, 0).uuid).value().has_value());
}

}  // namespace
}  // namespace kestrova
