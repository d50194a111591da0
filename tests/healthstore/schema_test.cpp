// The store's tables below the platform's queries: the conversion of stores written by the first
// schema, and what import batches keep.
#include <gtest/gtest.h>

#include "healthstore/sample_codec.h"
#include "healthstore/sample_database.h"
#include "platform/linux/sqlite.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

using testing::TempDir;

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
}

TEST(SampleDatabaseSchema, BatchesKeepSummariesPartsAndElementsOnce) {
  TempDir dir;
  SampleDatabase database = SampleDatabase::open(dir.path() / "healthstore.sqlite").value();
  ImportBatch batch;
  batch.samples = {stepRow(1, 0, 5)};
  batch.activitySummaries = {ActivitySummaryRow{"2024-01-01", 300, 600, {}, {}, 20, 30, 8, 12}};
  batch.beatSeries = {BeatSeriesRow{stepRow(1, 0, 0).uuid, {{0.5, 61}, {1.5, 62}}}};
  EXPECT_EQ(database.saveBatch(batch).value().added, 2u);

  // The same again: nothing new; a day whose rings moved on takes the newer figures.
  EXPECT_EQ(database.saveBatch(batch).value().alreadyPresent, 2u);
  batch.activitySummaries[0].activeEnergyBurned = 450;
  EXPECT_EQ(database.saveBatch(batch).value().added, 1u);
  EXPECT_EQ(database.activitySummaries().value().at(0).activeEnergyBurned, 450);
  EXPECT_EQ(database.activitySummaries().value().size(), 1u);

  // What belongs to a sample goes with it.
  EXPECT_EQ(database.remove({stepRow(1, 0, 0).uuid}, testing::utc(2024, 1, 2)).value(), 1u);
  EXPECT_FALSE(database.beatSeries(stepRow(1, 0, 0).uuid).value().has_value());
}

}  // namespace
}  // namespace kestrova
