#include "healthstore/sample_database.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <set>

#include "healthstore/sample_codec.h"
#include "platform/log.h"

namespace kestrova {
namespace {

constexpr std::string_view kLogCategory = "HealthStore";
constexpr std::string_view kStoreName = "Health store";
constexpr std::string_view kLogMigrating =
    "Converting the health store to the current schema (once; takes a while for long histories)";

// An importer in another process holds the write lock for the length of one chunk.
constexpr std::chrono::milliseconds kBusyTimeout{10000};

constexpr int kWriterCacheKiB = 8 * 1024;
constexpr int kWriterCheckpointPages = 8192;

// seq is the change position: the rowid of samples and tombstones, drawn from store_state so
// that inserts and deletes share one strictly increasing sequence. The start index carries
// the columns statistics read, so a statistics scan never visits the table.
//
// Identity is the UUID, kept unique within (type, start): imports write each type in time
// order, so checking and inserting identities touches the pages at the end of each type's
// range instead of random pages of an index over random UUIDs (which stopped fitting in the
// cache and made imports super-linear). A UUID names its content, so its type and start.
//
// The tables after voltages keep what belongs to samples (by their UUID) and what the export
// holds besides samples.
constexpr int kSchemaVersion = 2;
constexpr std::string_view kSampleTable = R"sql((
  seq INTEGER PRIMARY KEY,
  tx INTEGER NOT NULL,
  uuid BLOB NOT NULL,
  type_id INTEGER NOT NULL,
  start_us INTEGER NOT NULL,
  end_us INTEGER NOT NULL,
  value REAL,
  original_value REAL,
  unit TEXT,
  category INTEGER,
  revision_id INTEGER NOT NULL,
  user_entered INTEGER NOT NULL,
  metadata TEXT,
  details TEXT);
)sql";
constexpr std::string_view kSchemaHead = R"sql(
CREATE TABLE IF NOT EXISTS store_state (
  id INTEGER PRIMARY KEY CHECK (id = 1),
  last_seq INTEGER NOT NULL,
  last_tx INTEGER NOT NULL);
INSERT OR IGNORE INTO store_state (id, last_seq, last_tx) VALUES (1, 0, 0);
CREATE TABLE IF NOT EXISTS types (
  id INTEGER PRIMARY KEY,
  identifier TEXT NOT NULL UNIQUE,
  max_duration_us INTEGER NOT NULL DEFAULT 0);
CREATE TABLE IF NOT EXISTS revisions (
  id INTEGER PRIMARY KEY,
  key TEXT NOT NULL UNIQUE,
  source_name TEXT NOT NULL,
  bundle_identifier TEXT NOT NULL,
  version TEXT,
  product_type TEXT,
  os_major INTEGER NOT NULL,
  os_minor INTEGER NOT NULL,
  os_patch INTEGER NOT NULL,
  device TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS samples )sql";
constexpr std::string_view kSchemaTail = R"sql(
CREATE UNIQUE INDEX IF NOT EXISTS samples_identity ON samples (type_id, start_us, uuid);
CREATE INDEX IF NOT EXISTS samples_by_type_start
  ON samples (type_id, start_us, end_us, value, revision_id, user_entered);
CREATE INDEX IF NOT EXISTS samples_by_type ON samples (type_id);
CREATE TABLE IF NOT EXISTS deleted_objects (
  seq INTEGER PRIMARY KEY,
  tx INTEGER NOT NULL,
  uuid BLOB NOT NULL,
  type_id INTEGER NOT NULL,
  start_us INTEGER NOT NULL,
  end_us INTEGER NOT NULL,
  category INTEGER,
  revision_id INTEGER NOT NULL,
  metadata TEXT,
  deleted_at_us INTEGER NOT NULL);
CREATE INDEX IF NOT EXISTS deleted_objects_by_type ON deleted_objects (type_id);
CREATE TABLE IF NOT EXISTS voltages (
  uuid BLOB PRIMARY KEY,
  volts BLOB NOT NULL) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS workout_events (
  workout_uuid BLOB NOT NULL,
  position INTEGER NOT NULL,
  type TEXT NOT NULL,
  date_us INTEGER NOT NULL,
  duration_s REAL,
  metadata TEXT,
  PRIMARY KEY (workout_uuid, position)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS workout_routes (
  workout_uuid BLOB NOT NULL,
  position INTEGER NOT NULL,
  start_us INTEGER NOT NULL,
  end_us INTEGER NOT NULL,
  source_name TEXT NOT NULL,
  metadata TEXT,
  file_path TEXT,
  locations BLOB,
  PRIMARY KEY (workout_uuid, position)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS beat_series (
  sample_uuid BLOB PRIMARY KEY,
  beats BLOB NOT NULL) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS correlation_members (
  correlation_uuid BLOB NOT NULL,
  member_uuid BLOB NOT NULL,
  PRIMARY KEY (correlation_uuid, member_uuid)) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS activity_summaries (
  day TEXT PRIMARY KEY,
  active_energy_burned REAL,
  active_energy_burned_goal REAL,
  apple_move_time REAL,
  apple_move_time_goal REAL,
  apple_exercise_time REAL,
  apple_exercise_time_goal REAL,
  apple_stand_hours REAL,
  apple_stand_hours_goal REAL) WITHOUT ROWID;
CREATE TABLE IF NOT EXISTS kept_elements (
  uuid BLOB PRIMARY KEY,
  name TEXT NOT NULL,
  json TEXT NOT NULL) WITHOUT ROWID;
CREATE INDEX IF NOT EXISTS kept_elements_by_name ON kept_elements (name);
)sql";

// Stores of the first schema kept the UUID unique across the whole table. The table is copied
// into the current form once, in change order, so every anchor handed out stays valid.
constexpr std::string_view kMigrationHead = "CREATE TABLE samples_current ";
constexpr std::string_view kMigrationTail = R"sql(
INSERT INTO samples_current SELECT seq, tx, uuid, type_id, start_us, end_us, value,
  original_value, unit, category, revision_id, user_entered, metadata, details
  FROM samples ORDER BY seq;
DROP TABLE samples;
ALTER TABLE samples_current RENAME TO samples;
)sql";

constexpr std::string_view kSampleColumns =
    "seq, uuid, type_id, start_us, end_us, value, original_value, unit, category, revision_id, "
    "metadata, details";
enum Column {
  kSeq,
  kUuid,
  kTypeId,
  kStart,
  kEnd,
  kValue,
  kOriginalValue,
  kUnit,
  kCategory,
  kRevisionId,
  kMetadata,
  kDetails,
  kDeletedFlag,
};

// ?2..?4 are the predicate's window, with open bounds bound as the extremes.
constexpr std::string_view kWindowSql = "start_us >= ?2 AND start_us < ?3 AND end_us >= ?4";

std::string anchoredSql() {
  return std::string("SELECT ") + std::string(kSampleColumns) +
         ", 0 FROM samples WHERE type_id = ?1 AND seq > ?5 AND " + std::string(kWindowSql) +
         " UNION ALL SELECT seq, uuid, type_id, start_us, end_us, NULL, NULL, NULL, category, "
         "revision_id, metadata, NULL, 1 FROM deleted_objects WHERE type_id = ?1 AND seq > ?5 "
         "AND " +
         std::string(kWindowSql) + " ORDER BY seq";
}

std::string samplesSql() {
  return std::string("SELECT ") + std::string(kSampleColumns) +
         " FROM samples WHERE type_id = ?1 AND " + std::string(kWindowSql) + " ORDER BY seq";
}

std::string statisticsRowsSql() {
  return "SELECT start_us, end_us, value, revision_id, user_entered FROM samples "
         "WHERE type_id = ?1 AND " +
         std::string(kWindowSql);
}

constexpr std::string_view kChangesSql =
    "SELECT seq, tx, type_id, start_us, end_us, category, 0 FROM samples WHERE seq > ?1 "
    "UNION ALL SELECT seq, tx, type_id, start_us, end_us, category, 1 FROM deleted_objects "
    "WHERE seq > ?1 ORDER BY seq";

// What a deleted sample takes with it.
constexpr std::array<std::string_view, 5> kPartsByUuid = {
    "DELETE FROM voltages WHERE uuid = ?1",
    "DELETE FROM workout_events WHERE workout_uuid = ?1",
    "DELETE FROM workout_routes WHERE workout_uuid = ?1",
    "DELETE FROM beat_series WHERE sample_uuid = ?1",
    "DELETE FROM correlation_members WHERE correlation_uuid = ?1",
};

constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

// `longest`: the longest sample of the type ever saved, when known. It turns "ends at or after
// A" into a lower bound on the start, so that overlap predicates also scan only a range of the
// start index.
Status bindWindow(SqliteStatement& statement, const std::optional<Predicate>& predicate,
                  std::optional<std::int64_t> longest = std::nullopt) {
  const SampleWindow window = predicate ? predicate->window() : SampleWindow{};
  const auto bound = [](const std::optional<Date>& date, std::int64_t open) {
    return date ? storedTime(*date) : open;
  };
  std::int64_t startAtLeast = bound(window.startAtLeast, kMin);
  if (longest && window.endAtLeast) {
    startAtLeast = std::max(startAtLeast, storedTime(*window.endAtLeast) - *longest);
  }
  if (Status failure = statement.bindInt64(2, startAtLeast)) {
    return failure;
  }
  if (Status failure = statement.bindInt64(3, bound(window.startBefore, kMax))) {
    return failure;
  }
  return statement.bindInt64(4, bound(window.endAtLeast, kMin));
}

PredicateFields rowFields(const SqliteStatement& row) {
  PredicateFields fields{dateFromStored(row.columnInt64(kStart)),
                         dateFromStored(row.columnInt64(kEnd)), std::nullopt};
  if (!row.columnIsNull(kCategory)) {
    fields.categoryValue = static_cast<int>(row.columnInt64(kCategory));
  }
  return fields;
}

std::span<const std::uint8_t> uuidBytes(const Uuid& uuid) {
  return {uuid.bytes().data(), uuid.bytes().size()};
}

Result<Uuid> uuidFrom(std::span<const std::uint8_t> bytes) {
  Uuid::Bytes16 raw{};
  if (bytes.size() != raw.size()) {
    return healthError(kHealthErrorDatabaseInaccessible, "A stored UUID has the wrong size");
  }
  std::copy(bytes.begin(), bytes.end(), raw.begin());
  return Uuid(raw);
}

Status setUpDatabase(SqliteDatabase& database) {
  if (Status failure = database.setBusyTimeout(kBusyTimeout)) {
    return failure;
  }
  // WAL lets queries read while an importer writes; NORMAL sync loses no commit when the
  // process dies.
  if (Result<std::string> mode = database.pragma("journal_mode", "WAL"); !mode) {
    return mode.error();
  }
  if (Result<std::string> sync = database.pragma("synchronous", "NORMAL"); !sync) {
    return sync.error();
  }
  Result<SqliteTransaction> transaction = database.begin(SqliteTransactionKind::immediate);
  if (!transaction) {
    return transaction.error();
  }
  Result<std::string> version = database.pragma("user_version");
  if (!version) {
    return version.error();
  }
  if (version.value() == std::to_string(kSchemaVersion)) {
    return transaction.value().commit();
  }
  Result<SqliteStatement> legacy =
      database.prepare("SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = 'samples'");
  if (!legacy) {
    return legacy.error();
  }
  Result<bool> hasSamples = legacy.value().step();
  if (!hasSamples) {
    return hasSamples.error();
  }
  legacy.value().reset();
  if (hasSamples.value()) {
    logInfo(kLogCategory, kLogMigrating, {});
    if (Status failure = database.exec(std::string(kMigrationHead) + std::string(kSampleTable) +
                                       std::string(kMigrationTail))) {
      return failure;
    }
  }
  if (Status failure = database.exec(
          std::string(kSchemaHead) + std::string(kSampleTable) + std::string(kSchemaTail) +
          "PRAGMA user_version = " + std::to_string(kSchemaVersion) + ";")) {
    return failure;
  }
  return transaction.value().commit();
}

}  // namespace

Result<SampleDatabase> SampleDatabase::open(const std::filesystem::path& path) {
  std::error_code ignored;
  std::filesystem::create_directories(path.parent_path(), ignored);
  Result<SqliteDatabase> database = openSqliteStore(
      SqliteStoreOpening{path, kLogCategory, kStoreName, [] { return Status(); }, setUpDatabase});
  if (!database) {
    return database.error();
  }
  return SampleDatabase(std::move(database).value());
}

Status SampleDatabase::tuneForWriting() {
  // Duplicate checks probe the identity index at random, so the default 2 MB cache re-reads most
  // of its pages from the file; 8 MB keeps an import's peak memory under 64 MB.
  if (Result<std::string> cache = db_.pragma("cache_size", std::to_string(-kWriterCacheKiB));
      !cache) {
    return cache.error();
  }
  // Every commit of a large chunk rewrites most identity index pages; checkpointing less often
  // copies each such page into the database once for several commits instead of once each.
  if (Result<std::string> pages =
          db_.pragma("wal_autocheckpoint", std::to_string(kWriterCheckpointPages));
      !pages) {
    return pages.error();
  }
  return Status();
}

Result<SqliteStatement*> SampleDatabase::statement(SqliteStatement& slot, std::string_view sql) {
  if (!slot.valid()) {
    Result<SqliteStatement> prepared = db_.prepare(sql, true);
    if (!prepared) {
      return prepared.error();
    }
    slot = std::move(prepared).value();
  }
  return &slot;
}

Result<std::int64_t> SampleDatabase::typeId(std::string_view identifierText, bool create) {
  const std::string identifier(identifierText);
  if (const auto found = typeIds_.find(identifier); found != typeIds_.end()) {
    return found->second;
  }
  if (create) {
    Result<SqliteStatement> insert =
        db_.prepare("INSERT OR IGNORE INTO types (identifier) VALUES (?1)");
    if (!insert) {
      return insert.error();
    }
    if (Status failure = insert.value().bindText(1, identifier)) {
      return *failure;
    }
    if (Status failure = insert.value().run()) {
      return *failure;
    }
  }
  Result<SqliteStatement> select = db_.prepare("SELECT id FROM types WHERE identifier = ?1");
  if (!select) {
    return select.error();
  }
  if (Status failure = select.value().bindText(1, identifier)) {
    return *failure;
  }
  Result<bool> row = select.value().step();
  if (!row) {
    return row.error();
  }
  if (!row.value()) {
    return std::int64_t{-1};
  }
  const std::int64_t id = select.value().columnInt64(0);
  typeIds_[identifier] = id;
  typeIdentifiers_[id] = identifier;
  return id;
}

Result<std::optional<ObjectType>> SampleDatabase::typeOf(std::int64_t id) {
  auto found = typeIdentifiers_.find(id);
  if (found == typeIdentifiers_.end()) {
    Result<SqliteStatement> select = db_.prepare("SELECT identifier FROM types WHERE id = ?1");
    if (!select) {
      return select.error();
    }
    select.value().bindInt64(1, id);
    Result<bool> row = select.value().step();
    if (!row) {
      return row.error();
    }
    if (!row.value()) {
      return std::optional<ObjectType>();
    }
    found = typeIdentifiers_.emplace(id, select.value().columnText(0)).first;
    typeIds_[found->second] = id;
  }
  return ObjectType::fromIdentifier(found->second);
}

Result<std::int64_t> SampleDatabase::revisionId(const RevisionRecord& record) {
  // Imports repeat a handful of revisions for every sample; comparing fields is far cheaper
  // than building the key, which encodes the device as JSON.
  for (std::size_t i = 0; i < recentRevisions_.size(); ++i) {
    const RecentRevision& recent = recentRevisions_[i];
    if (recent.record.revision == record.revision && recent.record.device == record.device) {
      const std::int64_t id = recent.id;
      std::rotate(recentRevisions_.begin(), recentRevisions_.begin() + static_cast<long>(i),
                  recentRevisions_.begin() + static_cast<long>(i) + 1);
      return id;
    }
  }
  Result<std::int64_t> id = revisionIdByKey(record);
  if (id) {
    if (recentRevisions_.size() == kRecentRevisions) {
      recentRevisions_.pop_back();
    }
    recentRevisions_.insert(recentRevisions_.begin(), RecentRevision{record, id.value()});
  }
  return id;
}

Result<std::int64_t> SampleDatabase::revisionIdByKey(const RevisionRecord& record) {
  const SourceRevision& revision = record.revision;
  const std::string device = encodeDevice(record.device);
  const OperatingSystemVersion& os = revision.operatingSystemVersion;
  std::string key = revision.source.name + '\x1f' + revision.source.bundleIdentifier + '\x1f' +
                    revision.version.value_or("\x1e") + '\x1f' +
                    revision.productType.value_or("\x1e") + '\x1f' +
                    std::to_string(os.majorVersion) + '.' + std::to_string(os.minorVersion) + '.' +
                    std::to_string(os.patchVersion) + '\x1f' + device;
  if (const auto found = revisionIds_.find(key); found != revisionIds_.end()) {
    return found->second;
  }
  Result<SqliteStatement> insert = db_.prepare(
      "INSERT INTO revisions (key, source_name, bundle_identifier, version, product_type, "
      "os_major, os_minor, os_patch, device) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9) "
      "ON CONFLICT (key) DO UPDATE SET key = excluded.key RETURNING id");
  if (!insert) {
    return insert.error();
  }
  SqliteStatement& statement = insert.value();
  statement.bindText(1, key);
  statement.bindText(2, revision.source.name);
  statement.bindText(3, revision.source.bundleIdentifier);
  revision.version ? statement.bindText(4, *revision.version) : statement.bindNull(4);
  revision.productType ? statement.bindText(5, *revision.productType) : statement.bindNull(5);
  statement.bindInt64(6, os.majorVersion);
  statement.bindInt64(7, os.minorVersion);
  statement.bindInt64(8, os.patchVersion);
  statement.bindText(9, device);
  Result<bool> row = statement.step();
  if (!row) {
    return row.error();
  }
  const std::int64_t id = statement.columnInt64(0);
  statement.reset();
  revisionIds_.emplace(std::move(key), id);
  revisions_[id] = record;
  return id;
}

Result<std::int64_t> SampleDatabase::longestDuration(std::int64_t typeId) {
  Result<SqliteStatement> select = db_.prepare("SELECT max_duration_us FROM types WHERE id = ?1");
  if (!select) {
    return select.error();
  }
  select.value().bindInt64(1, typeId);
  Result<bool> row = select.value().step();
  if (!row) {
    return row.error();
  }
  return row.value() ? select.value().columnInt64(0) : 0;
}

Result<RevisionRecord> SampleDatabase::revision(std::int64_t id) {
  if (const auto found = revisions_.find(id); found != revisions_.end()) {
    return found->second;
  }
  Result<SqliteStatement> select = db_.prepare(
      "SELECT source_name, bundle_identifier, version, product_type, os_major, os_minor, "
      "os_patch, device FROM revisions WHERE id = ?1");
  if (!select) {
    return select.error();
  }
  SqliteStatement& row = select.value();
  row.bindInt64(1, id);
  Result<bool> found = row.step();
  if (!found) {
    return found.error();
  }
  if (!found.value()) {
    return healthError(kHealthErrorDatabaseInaccessible,
                       "Source revision " + std::to_string(id) + " is missing");
  }
  RevisionRecord record;
  record.revision.source = Source{row.columnText(0), row.columnText(1)};
  if (!row.columnIsNull(2)) {
    record.revision.version = row.columnText(2);
  }
  if (!row.columnIsNull(3)) {
    record.revision.productType = row.columnText(3);
  }
  record.revision.operatingSystemVersion = {static_cast<int>(row.columnInt64(4)),
                                            static_cast<int>(row.columnInt64(5)),
                                            static_cast<int>(row.columnInt64(6))};
  Result<std::optional<Device>> device = decodeDevice(row.columnTextView(7));
  if (!device) {
    return device.error();
  }
  record.device = device.value();
  revisions_[id] = record;
  return record;
}

Result<Unit> SampleDatabase::unit(std::string_view text) {
  const std::string key(text);
  if (const auto found = units_.find(key); found != units_.end()) {
    return found->second;
  }
  Result<Unit> parsed = Unit::fromString(text);
  if (parsed) {
    units_.emplace(key, parsed.value());
  }
  return parsed;
}

Result<SampleRow> sampleRow(const Sample& sample) {
  SampleRow row;
  row.uuid = sample.uuid();
  row.type = sample.sampleType().identifier();
  row.start = storedTime(sample.startDate());
  row.end = storedTime(sample.endDate());
  row.revision =
      std::make_shared<RevisionRecord>(RevisionRecord{sample.sourceRevision(), sample.device()});
  row.userEntered = wasUserEntered(sample.metadata());
  row.metadata = encodeMetadata(sample.metadata());
  switch (sample.sampleType().kind()) {
    case ObjectKind::quantity: {
      const Quantity& quantity = static_cast<const QuantitySample&>(sample).quantity();
      const Unit canonical = sample.sampleType().canonicalUnit();
      Result<double> value = quantity.doubleValue(canonical);
      if (!value) {
        return value.error();
      }
      row.value = value.value();
      if (quantity.unit().unitString() != canonical.unitString()) {
        row.originalValue = quantity.doubleValue(quantity.unit()).value();
      }
      row.unit = quantity.unit().unitString();
      break;
    }
    case ObjectKind::category:
      row.category = static_cast<const CategorySample&>(sample).value();
      break;
    case ObjectKind::workout:
      row.details = encodeWorkoutDetails(static_cast<const Workout&>(sample).details());
      break;
    case ObjectKind::electrocardiogram:
      row.details =
          encodeElectrocardiogramDetails(static_cast<const Electrocardiogram&>(sample).details());
      break;
  }
  return row;
}

Result<std::size_t> SampleDatabase::save(const std::vector<SamplePtr>& samples,
                                         const std::map<Uuid, std::vector<double>>& voltages) {
  ImportBatch batch;
  batch.samples.reserve(samples.size());
  for (const SamplePtr& sample : samples) {
    Result<SampleRow> row = sampleRow(*sample);
    if (!row) {
      return row.error();
    }
    batch.samples.push_back(std::move(row).value());
  }
  Result<BatchOutcome> saved = saveBatch(batch, voltages);
  if (!saved) {
    return saved.error();
  }
  return saved.value().added;
}

Result<BatchOutcome> SampleDatabase::saveBatch(
    const ImportBatch& batch, const std::map<Uuid, std::vector<double>>& voltages) {
  Result<BatchOutcome> saved = insertBatch(batch, voltages);
  if (!saved) {
    // Ids cached during a transaction that rolled back name rows that do not exist.
    typeIds_.clear();
    typeIdentifiers_.clear();
    revisionIds_.clear();
    revisions_.clear();
    recentRevisions_.clear();
  }
  return saved;
}

Result<SampleDatabase::Write> SampleDatabase::beginWrite() {
  Result<SqliteTransaction> transaction = db_.begin(SqliteTransactionKind::immediate);
  if (!transaction) {
    return transaction.error();
  }
  Result<std::pair<std::int64_t, std::int64_t>> counter = changeCounter();
  if (!counter) {
    return counter.error();
  }
  return Write{std::move(transaction).value(), counter.value().first, counter.value().second + 1};
}

Result<std::pair<std::int64_t, std::int64_t>> SampleDatabase::changeCounter() {
  Result<SqliteStatement> state = db_.prepare("SELECT last_seq, last_tx FROM store_state");
  if (!state) {
    return state.error();
  }
  Result<bool> row = state.value().step();
  if (!row || !row.value()) {
    return row ? healthError(kHealthErrorDatabaseInaccessible, "The change counter is missing")
               : row.error();
  }
  return std::pair{state.value().columnInt64(0), state.value().columnInt64(1)};
}

Status SampleDatabase::storeChangeCounter(std::int64_t seq, std::int64_t tx) {
  Result<SqliteStatement> update =
      db_.prepare("UPDATE store_state SET last_seq = ?1, last_tx = ?2");
  if (!update) {
    return update.error();
  }
  update.value().bindInt64(1, seq);
  update.value().bindInt64(2, tx);
  return update.value().run();
}

Result<std::size_t> SampleDatabase::insertSampleRows(const std::vector<SampleRow>& samples,
                                                     std::int64_t& seq, std::int64_t tx) {
  Result<SqliteStatement*> insert =
      statement(insertSample_,
                "INSERT OR IGNORE INTO samples (seq, tx, uuid, type_id, start_us, end_us, value, "
                "original_value, unit, category, revision_id, user_entered, metadata, details) "
                "VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14)");
  if (!insert) {
    return insert.error();
  }
  SqliteStatement& row = *insert.value();
  std::size_t added = 0;
  std::map<std::int64_t, std::int64_t> longest;  // per type id, of the samples added
  std::string_view lastType;
  std::int64_t lastTypeId = 0;
  const RevisionRecord* lastRevision = nullptr;
  std::int64_t lastRevisionId = 0;
  for (const SampleRow& sample : samples) {
    SqliteResetScope resetting(row);
    // Chunks come grouped by type, and imports share one revision object among the samples
    // of one source, so most samples repeat the previous one's.
    if (lastType.empty() || sample.type != lastType) {
      Result<std::int64_t> found = typeId(sample.type, true);
      if (!found) {
        return found.error();
      }
      lastType = sample.type;
      lastTypeId = found.value();
    }
    if (sample.revision.get() != lastRevision) {
      if (!sample.revision) {
        return healthError(kHealthErrorInvalidArgument, "A sample without a source");
      }
      Result<std::int64_t> revision = revisionId(*sample.revision);
      if (!revision) {
        return revision.error();
      }
      lastRevision = sample.revision.get();
      lastRevisionId = revision.value();
    }
    std::array<Status, 16> binds;
    std::size_t bound = 0;
    binds[bound++] = row.bindInt64(1, seq + 1);
    binds[bound++] = row.bindInt64(2, tx);
    binds[bound++] = row.bindBlob(3, uuidBytes(sample.uuid));
    binds[bound++] = row.bindInt64(4, lastTypeId);
    binds[bound++] = row.bindInt64(5, sample.start);
    binds[bound++] = row.bindInt64(6, sample.end);
    if (sample.value) {
      binds[bound++] = row.bindDouble(7, *sample.value);
    }
    if (sample.originalValue) {
      binds[bound++] = row.bindDouble(8, *sample.originalValue);
    }
    if (!sample.unit.empty()) {
      binds[bound++] = row.bindText(9, sample.unit, SqliteCopy::borrow);
    }
    if (sample.category) {
      binds[bound++] = row.bindInt64(10, *sample.category);
    }
    binds[bound++] = row.bindInt64(11, lastRevisionId);
    binds[bound++] = row.bindInt64(12, sample.userEntered ? 1 : 0);
    if (sample.metadata) {
      binds[bound++] = row.bindText(13, *sample.metadata, SqliteCopy::borrow);
    }
    if (sample.details) {
      binds[bound++] = row.bindText(14, *sample.details, SqliteCopy::borrow);
    }
    binds[bound++] = row.run();
    for (std::size_t i = 0; i < bound; ++i) {
      if (binds[i]) {
        return *binds[i];
      }
    }
    if (db_.changes() == 1) {
      ++seq;
      ++added;
      std::int64_t& duration = longest[lastTypeId];
      duration = std::max(duration, sample.end - sample.start);
    }
  }
  for (const auto& [type, duration] : longest) {
    Result<SqliteStatement> widen =
        db_.prepare("UPDATE types SET max_duration_us = MAX(max_duration_us, ?2) WHERE id = ?1");
    if (!widen) {
      return widen.error();
    }
    widen.value().bindInt64(1, type);
    widen.value().bindInt64(2, duration);
    if (Status failure = widen.value().run()) {
      return *failure;
    }
  }
  return added;
}

// Runs `bind` then the statement for each item, counting the rows it changed.
template <class T, class Bind>
Result<std::size_t> SampleDatabase::insertEach(std::string_view sql, const std::vector<T>& items,
                                               Bind bind) {
  if (items.empty()) {
    return std::size_t{0};
  }
  Result<SqliteStatement> prepared = db_.prepare(sql);
  if (!prepared) {
    return prepared.error();
  }
  SqliteStatement& statement = prepared.value();
  std::size_t changed = 0;
  for (const T& item : items) {
    SqliteResetScope resetting(statement);
    bind(statement, item);
    if (Status failure = statement.run()) {
      return *failure;
    }
    changed += static_cast<std::size_t>(db_.changes());
  }
  return changed;
}

Result<BatchOutcome> SampleDatabase::insertBatch(
    const ImportBatch& batch, const std::map<Uuid, std::vector<double>>& voltages) {
  Result<Write> write = beginWrite();
  if (!write) {
    return write.error();
  }
  std::int64_t seq = write.value().seq;
  const std::int64_t tx = write.value().tx;

  Result<std::size_t> samples = insertSampleRows(batch.samples, seq, tx);
  if (!samples) {
    return samples.error();
  }
  const auto optionalDouble = [](SqliteStatement& statement, int index,
                                 const std::optional<double>& value) {
    value ? statement.bindDouble(index, *value) : statement.bindNull(index);
  };
  const auto optionalText = [](SqliteStatement& statement, int index,
                               const std::optional<std::string>& text) {
    text ? statement.bindText(index, *text) : statement.bindNull(index);
  };
  // Parts of samples: written again by a repeated import, so kept once.
  Result<std::size_t> parts[] = {
      insertEach("INSERT OR IGNORE INTO workout_events (workout_uuid, position, type, date_us, "
                 "duration_s, metadata) VALUES (?1, ?2, ?3, ?4, ?5, ?6)",
                 batch.workoutEvents,
                 [&](SqliteStatement& statement, const WorkoutEventRow& event) {
                   statement.bindBlob(1, uuidBytes(event.workout));
                   statement.bindInt64(2, event.position);
                   statement.bindText(3, event.type);
                   statement.bindInt64(4, event.date);
                   optionalDouble(statement, 5, event.durationSeconds);
                   optionalText(statement, 6, event.metadata);
                 }),
      // A route's points may come later than the route (from its file): those replace none.
      insertEach("INSERT INTO workout_routes (workout_uuid, position, start_us, end_us, "
                 "source_name, metadata, file_path, locations) VALUES (?1, ?2, ?3, ?4, ?5, ?6, "
                 "?7, ?8) ON CONFLICT DO UPDATE SET locations = excluded.locations WHERE "
                 "excluded.locations IS NOT NULL AND locations IS NULL",
                 batch.workoutRoutes,
                 [&](SqliteStatement& statement, const WorkoutRouteRow& route) {
                   statement.bindBlob(1, uuidBytes(route.workout));
                   statement.bindInt64(2, route.position);
                   statement.bindInt64(3, route.start);
                   statement.bindInt64(4, route.end);
                   statement.bindText(5, route.sourceName);
                   optionalText(statement, 6, route.metadata);
                   optionalText(statement, 7, route.filePath);
                   route.locations.empty()
                       ? statement.bindNull(8)
                       : statement.bindBlob(8, encodeLocations(route.locations));
                 }),
      insertEach("INSERT OR IGNORE INTO beat_series (sample_uuid, beats) VALUES (?1, ?2)",
                 batch.beatSeries,
                 [&](SqliteStatement& statement, const BeatSeriesRow& series) {
                   statement.bindBlob(1, uuidBytes(series.sample));
                   statement.bindBlob(2, encodeBeats(series.beats));
                 }),
      insertEach("INSERT OR IGNORE INTO correlation_members (correlation_uuid, member_uuid) "
                 "VALUES (?1, ?2)",
                 batch.correlationLinks,
                 [&](SqliteStatement& statement, const CorrelationLink& link) {
                   statement.bindBlob(1, uuidBytes(link.correlation));
                   statement.bindBlob(2, uuidBytes(link.member));
                 }),
  };
  for (const Result<std::size_t>& part : parts) {
    if (!part) {
      return part.error();
    }
  }
  // A newer export has today's rings further along: the day's row takes the newer figures.
  Result<std::size_t> summaries = insertEach(
      "INSERT INTO activity_summaries (day, active_energy_burned, active_energy_burned_goal, "
      "apple_move_time, apple_move_time_goal, apple_exercise_time, apple_exercise_time_goal, "
      "apple_stand_hours, apple_stand_hours_goal) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9) "
      "ON CONFLICT (day) DO UPDATE SET active_energy_burned = excluded.active_energy_burned, "
      "active_energy_burned_goal = excluded.active_energy_burned_goal, apple_move_time = "
      "excluded.apple_move_time, apple_move_time_goal = excluded.apple_move_time_goal, "
      "apple_exercise_time = excluded.apple_exercise_time, apple_exercise_time_goal = "
      "excluded.apple_exercise_time_goal, apple_stand_hours = excluded.apple_stand_hours, "
      "apple_stand_hours_goal = excluded.apple_stand_hours_goal WHERE (active_energy_burned, "
      "active_energy_burned_goal, apple_move_time, apple_move_time_goal, apple_exercise_time, "
      "apple_exercise_time_goal, apple_stand_hours, apple_stand_hours_goal) IS NOT "
      "(excluded.active_energy_burned, excluded.active_energy_burned_goal, "
      "excluded.apple_move_time, excluded.apple_move_time_goal, excluded.apple_exercise_time, "
      "excluded.apple_exercise_time_goal, excluded.apple_stand_hours, "
      "excluded.apple_stand_hours_goal)",
      batch.activitySummaries, [&](SqliteStatement& statement, const ActivitySummaryRow& day) {
        statement.bindText(1, day.day);
        int index = 2;
        for (const std::optional<double>* value :
             {&day.activeEnergyBurned, &day.activeEnergyBurnedGoal, &day.appleMoveTime,
              &day.appleMoveTimeGoal, &day.appleExerciseTime, &day.appleExerciseTimeGoal,
              &day.appleStandHours, &day.appleStandHoursGoal}) {
          optionalDouble(statement, index++, *value);
        }
      });
  Result<std::size_t> kept = insertEach(
      "INSERT OR IGNORE INTO kept_elements (uuid, name, json) VALUES (?1, ?2, ?3)",
      batch.keptElements, [&](SqliteStatement& statement, const KeptElementRow& element) {
        statement.bindBlob(1, uuidBytes(element.uuid));
        statement.bindText(2, element.name);
        statement.bindText(3, element.json);
      });
  if (!summaries || !kept) {
    return !summaries ? summaries.error() : kept.error();
  }
  for (const auto& [uuid, volts] : voltages) {
    Result<SqliteStatement> store =
        db_.prepare("INSERT OR REPLACE INTO voltages (uuid, volts) VALUES (?1, ?2)");
    if (!store) {
      return store.error();
    }
    store.value().bindBlob(1, uuidBytes(uuid));
    store.value().bindBlob(2, encodeVoltages(volts));
    if (Status failure = store.value().run()) {
      return *failure;
    }
  }
  BatchOutcome outcome;
  outcome.added = samples.value() + summaries.value() + kept.value();
  outcome.alreadyPresent = batch.samples.size() + batch.activitySummaries.size() +
                           batch.keptElements.size() - outcome.added;
  if (samples.value() != 0) {
    // Only new samples use a transaction number and wake observers.
    if (Status failure = storeChangeCounter(seq, tx)) {
      return *failure;
    }
  }
  if (Status failure = write.value().transaction.commit()) {
    return *failure;
  }
  return outcome;
}

Result<std::size_t> SampleDatabase::remove(const std::vector<Uuid>& uuids, Date now) {
  Result<Write> write = beginWrite();
  if (!write) {
    return write.error();
  }
  std::int64_t seq = write.value().seq;
  const std::int64_t tx = write.value().tx;

  // Identities are indexed within their type and start only (see the schema), so the rows
  // are found in one pass over the identity index, however many UUIDs are asked for.
  std::set<Uuid> wanted(uuids.begin(), uuids.end());
  std::vector<std::pair<std::int64_t, Uuid>> found;
  {
    Result<SqliteStatement> scan =
        db_.prepare("SELECT seq, uuid FROM samples INDEXED BY samples_identity");
    if (!scan) {
      return scan.error();
    }
    while (found.size() < wanted.size()) {
      Result<bool> next = scan.value().step();
      if (!next) {
        return next.error();
      }
      if (!next.value()) {
        break;
      }
      Result<Uuid> uuid = uuidFrom(scan.value().columnBlobView(1));
      if (uuid && wanted.contains(uuid.value())) {
        found.emplace_back(scan.value().columnInt64(0), uuid.value());
      }
    }
  }
  // Deletions in the order asked, as the tombstones' positions tell.
  std::map<Uuid, std::int64_t> rowOf;
  for (const auto& [row, uuid] : found) {
    rowOf.emplace(uuid, row);
  }
  Result<SqliteStatement> tombstone = db_.prepare(
      "INSERT INTO deleted_objects (seq, tx, uuid, type_id, start_us, end_us, category, "
      "revision_id, metadata, deleted_at_us) SELECT ?1, ?2, uuid, type_id, start_us, end_us, "
      "category, revision_id, metadata, ?3 FROM samples WHERE seq = ?4");
  Result<SqliteStatement> erase = db_.prepare("DELETE FROM samples WHERE seq = ?1");
  if (!tombstone || !erase) {
    return !tombstone ? tombstone.error() : erase.error();
  }
  std::size_t removed = 0;
  for (const Uuid& uuid : uuids) {
    const auto row = rowOf.find(uuid);
    if (row == rowOf.end()) {
      continue;
    }
    SqliteStatement& insert = tombstone.value();
    SqliteResetScope resetting(insert);
    insert.bindInt64(1, seq + 1);
    insert.bindInt64(2, tx);
    insert.bindInt64(3, storedTime(now));
    insert.bindInt64(4, row->second);
    if (Status failure = insert.run()) {
      return *failure;
    }
    SqliteResetScope resettingErase(erase.value());
    erase.value().bindInt64(1, row->second);
    if (Status failure = erase.value().run()) {
      return *failure;
    }
    rowOf.erase(row);
    ++seq;
    ++removed;
    for (std::string_view sql : kPartsByUuid) {
      Result<SqliteStatement> part = db_.prepare(sql);
      if (!part) {
        return part.error();
      }
      part.value().bindBlob(1, uuidBytes(uuid));
      if (Status failure = part.value().run()) {
        return *failure;
      }
    }
  }
  if (removed == 0) {
    return removed;
  }
  if (Status failure = storeChangeCounter(seq, tx)) {
    return *failure;
  }
  if (Status failure = write.value().transaction.commit()) {
    return *failure;
  }
  return removed;
}

Status SampleDatabase::purgeDeletedObjects(Date deletedBefore) {
  Result<SqliteStatement> purge =
      db_.prepare("DELETE FROM deleted_objects WHERE deleted_at_us < ?1");
  if (!purge) {
    return purge.error();
  }
  purge.value().bindInt64(1, storedTime(deletedBefore));
  return purge.value().run();
}

Result<SamplePtr> SampleDatabase::decodeSample(const SqliteStatement& row) {
  Result<std::optional<ObjectType>> type = typeOf(row.columnInt64(kTypeId));
  if (!type) {
    return type.error();
  }
  if (!type.value()) {
    return healthError(kHealthErrorDatabaseInaccessible, "A stored sample has an unknown type");
  }
  Result<Uuid> uuid = uuidFrom(row.columnBlobView(kUuid));
  if (!uuid) {
    return uuid.error();
  }
  Result<RevisionRecord> revision = this->revision(row.columnInt64(kRevisionId));
  if (!revision) {
    return revision.error();
  }
  SampleProperties properties{uuid.value(),
                              dateFromStored(row.columnInt64(kStart)),
                              dateFromStored(row.columnInt64(kEnd)),
                              {},
                              revision.value().revision,
                              revision.value().device};
  if (!row.columnIsNull(kMetadata)) {
    Result<Metadata> metadata = decodeMetadata(row.columnTextView(kMetadata));
    if (!metadata) {
      return metadata.error();
    }
    properties.metadata = std::move(metadata).value();
  }
  const ObjectType& sampleType = *type.value();
  const auto widen = [](auto made) -> Result<SamplePtr> {
    if (!made) {
      return made.error();
    }
    return SamplePtr(made.value());
  };
  switch (sampleType.kind()) {
    case ObjectKind::quantity: {
      Result<Unit> original = unit(row.columnTextView(kUnit));
      if (!original) {
        return original.error();
      }
      double value = row.columnDouble(kValue);
      if (!row.columnIsNull(kOriginalValue)) {
        value = row.columnDouble(kOriginalValue);
      }
      return widen(QuantitySample::make(sampleType, Quantity(original.value(), value),
                                        std::move(properties)));
    }
    case ObjectKind::category:
      return widen(CategorySample::make(sampleType, static_cast<int>(row.columnInt64(kCategory)),
                                        std::move(properties)));
    case ObjectKind::workout: {
      Result<Workout::Details> details = decodeWorkoutDetails(row.columnTextView(kDetails));
      if (!details) {
        return details.error();
      }
      return widen(Workout::make(details.value(), std::move(properties)));
    }
    case ObjectKind::electrocardiogram: {
      Result<Electrocardiogram::Details> details =
          decodeElectrocardiogramDetails(row.columnTextView(kDetails));
      if (!details) {
        return details.error();
      }
      return widen(Electrocardiogram::make(details.value(), std::move(properties)));
    }
  }
  return healthError(kHealthErrorDatabaseInaccessible, "A stored sample has an unknown kind");
}

Result<AnchoredRows> SampleDatabase::anchored(const ObjectType& type,
                                              const std::optional<Predicate>& predicate,
                                              std::uint64_t after, std::size_t limit) {
  AnchoredRows rows;
  Result<std::int64_t> id = typeId(type.identifier(), false);
  if (!id) {
    return id.error();
  }
  if (id.value() < 0) {
    return rows;
  }
  Result<SqliteStatement*> prepared = statement(anchored_, anchoredSql());
  if (!prepared) {
    return prepared.error();
  }
  SqliteStatement& row = *prepared.value();
  SqliteResetScope resetting(row);
  row.bindInt64(1, id.value());
  if (Status failure = bindWindow(row, predicate)) {
    return *failure;
  }
  row.bindInt64(5, static_cast<std::int64_t>(after));
  while (limit == 0 || rows.samples.size() + rows.deletedObjects.size() < limit) {
    Result<bool> next = row.step();
    if (!next) {
      return next.error();
    }
    if (!next.value()) {
      break;
    }
    if (predicate && !predicate->evaluate(rowFields(row))) {
      continue;
    }
    rows.lastSeq = static_cast<std::uint64_t>(row.columnInt64(kSeq));
    if (row.columnInt64(kDeletedFlag) != 0) {
      Result<Uuid> uuid = uuidFrom(row.columnBlobView(kUuid));
      if (!uuid) {
        return uuid.error();
      }
      DeletedObject deleted{uuid.value(), {}};
      if (!row.columnIsNull(kMetadata)) {
        Result<Metadata> metadata = decodeMetadata(row.columnTextView(kMetadata));
        if (!metadata) {
          return metadata.error();
        }
        deleted.metadata = std::move(metadata).value();
      }
      rows.deletedObjects.push_back(std::move(deleted));
      continue;
    }
    Result<SamplePtr> sample = decodeSample(row);
    if (!sample) {
      return sample.error();
    }
    rows.samples.push_back(std::move(sample).value());
  }
  return rows;
}

Status SampleDatabase::scanWindow(const ObjectType& type, const std::optional<Predicate>& predicate,
                                  SqliteStatement& slot, std::string_view sql,
                                  const std::function<Status(SqliteStatement&)>& visit) {
  // One snapshot for the longest duration and the scan that relies on it.
  Result<SqliteTransaction> snapshot = db_.begin(SqliteTransactionKind::deferred);
  if (!snapshot) {
    return snapshot.error();
  }
  Result<std::int64_t> id = typeId(type.identifier(), false);
  if (!id) {
    return id.error();
  }
  if (id.value() < 0) {
    return std::nullopt;
  }
  Result<SqliteStatement*> prepared = statement(slot, sql);
  if (!prepared) {
    return prepared.error();
  }
  Result<std::int64_t> longest = longestDuration(id.value());
  if (!longest) {
    return longest.error();
  }
  SqliteStatement& row = *prepared.value();
  SqliteResetScope resetting(row);
  row.bindInt64(1, id.value());
  if (Status failure = bindWindow(row, predicate, longest.value())) {
    return failure;
  }
  while (true) {
    Result<bool> next = row.step();
    if (!next) {
      return next.error();
    }
    if (!next.value()) {
      return std::nullopt;
    }
    if (Status failure = visit(row)) {
      return failure;
    }
  }
}

Result<std::vector<SamplePtr>> SampleDatabase::samples(const ObjectType& type,
                                                       const std::optional<Predicate>& predicate) {
  std::vector<SamplePtr> found;
  Status failure =
      scanWindow(type, predicate, samples_, samplesSql(), [&](SqliteStatement& row) -> Status {
        if (predicate && !predicate->evaluate(rowFields(row))) {
          return std::nullopt;
        }
        Result<SamplePtr> sample = decodeSample(row);
        if (!sample) {
          return sample.error();
        }
        found.push_back(std::move(sample).value());
        return std::nullopt;
      });
  if (failure) {
    return *failure;
  }
  return found;
}

Result<std::vector<StatisticsRow>> SampleDatabase::statisticsRows(
    const ObjectType& type, const std::optional<Predicate>& predicate) {
  std::vector<StatisticsRow> rows;
  Status failure = scanWindow(
      type, predicate, statisticsRows_, statisticsRowsSql(), [&](SqliteStatement& row) -> Status {
        StatisticsRow entry{dateFromStored(row.columnInt64(0)), dateFromStored(row.columnInt64(1)),
                            row.columnDouble(2), row.columnInt64(3), row.columnInt64(4) != 0};
        if (!predicate ||
            predicate->evaluate(PredicateFields{entry.start, entry.end, std::nullopt})) {
          rows.push_back(entry);
        }
        return std::nullopt;
      });
  if (failure) {
    return *failure;
  }
  return rows;
}

Result<std::optional<std::vector<double>>> SampleDatabase::voltages(const Uuid& uuid) {
  Result<SqliteStatement> select = db_.prepare("SELECT volts FROM voltages WHERE uuid = ?1");
  if (!select) {
    return select.error();
  }
  select.value().bindBlob(1, uuidBytes(uuid));
  Result<bool> row = select.value().step();
  if (!row) {
    return row.error();
  }
  if (!row.value()) {
    return std::optional<std::vector<double>>();
  }
  return std::optional<std::vector<double>>(decodeVoltages(select.value().columnBlobView(0)));
}

template <class T, class Read>
Result<std::vector<T>> SampleDatabase::readEach(std::string_view sql,
                                                std::optional<std::span<const std::uint8_t>> key,
                                                Read read) {
  Result<SqliteStatement> select = db_.prepare(sql);
  if (!select) {
    return select.error();
  }
  if (key) {
    select.value().bindBlob(1, *key);
  }
  std::vector<T> rows;
  while (true) {
    Result<bool> next = select.value().step();
    if (!next) {
      return next.error();
    }
    if (!next.value()) {
      return rows;
    }
    Result<T> row = read(select.value());
    if (!row) {
      return row.error();
    }
    rows.push_back(std::move(row).value());
  }
}

namespace {

std::optional<double> optionalColumn(const SqliteStatement& row, int column) {
  return row.columnIsNull(column) ? std::nullopt : std::optional(row.columnDouble(column));
}
std::optional<std::string> optionalTextColumn(const SqliteStatement& row, int column) {
  return row.columnIsNull(column) ? std::nullopt : std::optional(row.columnText(column));
}

}  // namespace

Result<std::vector<WorkoutEventRow>> SampleDatabase::workoutEvents(const Uuid& workout) {
  return readEach<WorkoutEventRow>(
      "SELECT position, type, date_us, duration_s, metadata FROM workout_events WHERE "
      "workout_uuid = ?1 ORDER BY position",
      uuidBytes(workout), [&](const SqliteStatement& row) -> Result<WorkoutEventRow> {
        return WorkoutEventRow{workout,
                               row.columnInt64(0),
                               row.columnText(1),
                               row.columnInt64(2),
                               optionalColumn(row, 3),
                               optionalTextColumn(row, 4)};
      });
}

Result<std::vector<WorkoutRouteRow>> SampleDatabase::workoutRoutes(const Uuid& workout) {
  return readEach<WorkoutRouteRow>(
      "SELECT position, start_us, end_us, source_name, metadata, file_path, locations FROM "
      "workout_routes WHERE workout_uuid = ?1 ORDER BY position",
      uuidBytes(workout), [&](const SqliteStatement& row) -> Result<WorkoutRouteRow> {
        return WorkoutRouteRow{workout,
                               row.columnInt64(0),
                               row.columnInt64(1),
                               row.columnInt64(2),
                               row.columnText(3),
                               optionalTextColumn(row, 4),
                               optionalTextColumn(row, 5),
                               decodeLocations(row.columnBlobView(6))};
      });
}

Result<std::optional<BeatSeriesRow>> SampleDatabase::beatSeries(const Uuid& sample) {
  Result<std::vector<BeatSeriesRow>> found = readEach<BeatSeriesRow>(
      "SELECT beats FROM beat_series WHERE sample_uuid = ?1", uuidBytes(sample),
      [&](const SqliteStatement& row) -> Result<BeatSeriesRow> {
        return BeatSeriesRow{sample, decodeBeats(row.columnBlobView(0))};
      });
  if (!found) {
    return found.error();
  }
  if (found.value().empty()) {
    return std::optional<BeatSeriesRow>();
  }
  return std::optional<BeatSeriesRow>(std::move(found.value().front()));
}

Result<std::vector<Uuid>> SampleDatabase::correlationMembers(const Uuid& correlation) {
  return readEach<Uuid>("SELECT member_uuid FROM correlation_members WHERE correlation_uuid = ?1",
                        uuidBytes(correlation),
                        [](const SqliteStatement& row) { return uuidFrom(row.columnBlobView(0)); });
}

Result<std::vector<ActivitySummaryRow>> SampleDatabase::activitySummaries() {
  return readEach<ActivitySummaryRow>(
      "SELECT day, active_energy_burned, active_energy_burned_goal, apple_move_time, "
      "apple_move_time_goal, apple_exercise_time, apple_exercise_time_goal, apple_stand_hours, "
      "apple_stand_hours_goal FROM activity_summaries ORDER BY day",
      std::nullopt, [](const SqliteStatement& row) -> Result<ActivitySummaryRow> {
        return ActivitySummaryRow{
            row.columnText(0),      optionalColumn(row, 1), optionalColumn(row, 2),
            optionalColumn(row, 3), optionalColumn(row, 4), optionalColumn(row, 5),
            optionalColumn(row, 6), optionalColumn(row, 7), optionalColumn(row, 8)};
      });
}

Result<std::vector<KeptElementRow>> SampleDatabase::keptElements(std::string_view name) {
  Result<std::vector<KeptElementRow>> all = readEach<KeptElementRow>(
      "SELECT uuid, name, json FROM kept_elements ORDER BY name, json", std::nullopt,
      [](const SqliteStatement& row) -> Result<KeptElementRow> {
        Result<Uuid> uuid = uuidFrom(row.columnBlobView(0));
        if (!uuid) {
          return uuid.error();
        }
        return KeptElementRow{uuid.value(), row.columnText(1), row.columnText(2)};
      });
  if (!all) {
    return all.error();
  }
  std::erase_if(all.value(), [&](const KeptElementRow& row) { return row.name != name; });
  return all;
}

Result<std::vector<SampleRow>> SampleDatabase::sampleRows(std::string_view typeIdentifier) {
  Result<std::int64_t> id = typeId(typeIdentifier, false);
  if (!id) {
    return id.error();
  }
  Result<SqliteStatement> select = db_.prepare(
      "SELECT uuid, start_us, end_us, value, original_value, unit, category, user_entered, "
      "metadata, details FROM samples WHERE type_id = ?1 ORDER BY seq");
  if (!select) {
    return select.error();
  }
  select.value().bindInt64(1, id.value());
  std::vector<SampleRow> rows;
  while (true) {
    Result<bool> next = select.value().step();
    if (!next) {
      return next.error();
    }
    if (!next.value()) {
      return rows;
    }
    const SqliteStatement& row = select.value();
    Result<Uuid> uuid = uuidFrom(row.columnBlobView(0));
    if (!uuid) {
      return uuid.error();
    }
    SampleRow sample;
    sample.uuid = uuid.value();
    sample.start = row.columnInt64(1);
    sample.end = row.columnInt64(2);
    sample.value = optionalColumn(row, 3);
    sample.originalValue = optionalColumn(row, 4);
    sample.unit = optionalTextColumn(row, 5).value_or("");
    if (!row.columnIsNull(6)) {
      sample.category = row.columnInt64(6);
    }
    sample.userEntered = row.columnInt64(7) != 0;
    sample.metadata = optionalTextColumn(row, 8);
    sample.details = optionalTextColumn(row, 9);
    rows.push_back(std::move(sample));
  }
}

Result<std::vector<StoredChange>> SampleDatabase::changesAfter(std::uint64_t seq) {
  std::vector<StoredChange> changes;
  Result<SqliteStatement*> prepared = statement(changes_, kChangesSql);
  if (!prepared) {
    return prepared.error();
  }
  SqliteStatement& row = *prepared.value();
  SqliteResetScope resetting(row);
  row.bindInt64(1, static_cast<std::int64_t>(seq));
  while (true) {
    Result<bool> next = row.step();
    if (!next) {
      return next.error();
    }
    if (!next.value()) {
      break;
    }
    Result<std::optional<ObjectType>> type = typeOf(row.columnInt64(2));
    if (!type) {
      return type.error();
    }
    if (!type.value()) {
      continue;
    }
    StoredChange change{
        static_cast<std::uint64_t>(row.columnInt64(0)),
        static_cast<std::uint64_t>(row.columnInt64(1)),
        *type.value(),
        {dateFromStored(row.columnInt64(3)), dateFromStored(row.columnInt64(4)), std::nullopt},
        row.columnInt64(6) != 0};
    if (!row.columnIsNull(5)) {
      change.fields.categoryValue = static_cast<int>(row.columnInt64(5));
    }
    changes.push_back(change);
  }
  return changes;
}

Result<std::vector<std::pair<std::string, std::string>>> SampleDatabase::queryPlans() {
  const std::pair<std::string, std::string> kQueries[] = {
      {"anchored", anchoredSql()},
      {"samples", samplesSql()},
      {"statistics", statisticsRowsSql()},
      {"changes", std::string(kChangesSql)},
  };
  std::vector<std::pair<std::string, std::string>> plans;
  for (const auto& [name, sql] : kQueries) {
    Result<SqliteStatement> explain = db_.prepare("EXPLAIN QUERY PLAN " + sql);
    if (!explain) {
      return explain.error();
    }
    std::string plan;
    while (true) {
      Result<bool> row = explain.value().step();
      if (!row) {
        return row.error();
      }
      if (!row.value()) {
        break;
      }
      plan += (plan.empty() ? "" : "; ") + explain.value().columnText(3);
    }
    plans.emplace_back(name, plan);
  }
  return plans;
}

Result<std::uint64_t> SampleDatabase::lastChange() {
  Result<SqliteStatement> select = db_.prepare("SELECT last_seq FROM store_state");
  if (!select) {
    return select.error();
  }
  Result<bool> row = select.value().step();
  if (!row) {
    return row.error();
  }
  return row.value() ? static_cast<std::uint64_t>(select.value().columnInt64(0)) : 0;
}

Result<std::int64_t> SampleDatabase::dataVersion() {
  Result<std::string> version = db_.pragma("data_version");
  if (!version) {
    return version.error();
  }
  std::int64_t number = 0;
  const std::string& text = version.value();
  if (std::from_chars(text.data(), text.data() + text.size(), number).ec != std::errc()) {
    return healthError(kHealthErrorDatabaseInaccessible, "Unreadable data version " + text);
  }
  return number;
}

}  // namespace kestrova
