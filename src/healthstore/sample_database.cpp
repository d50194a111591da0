#include "healthstore/sample_database.h"

#include <algorithm>
#include <charconv>
#include <limits>

#include "healthstore/sample_codec.h"
#include "platform/log.h"

namespace kestrova {
namespace {

constexpr std::string_view kLogCategory = "HealthStore";
constexpr std::string_view kStoreName = "Health store";

// An importer in another process holds the write lock for the length of one chunk.
constexpr std::chrono::milliseconds kBusyTimeout{10000};

constexpr int kWriterCacheKiB = 8 * 1024;
constexpr int kWriterCheckpointPages = 8192;

// seq is the change position: the rowid of samples and tombstones, drawn from store_state so
// that inserts and deletes share one strictly increasing sequence. The start index carries
// the columns statistics read, so a statistics scan never visits the table.
constexpr const char* kSchema = R"sql(
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
CREATE TABLE IF NOT EXISTS samples (
  seq INTEGER PRIMARY KEY,
  tx INTEGER NOT NULL,
  uuid BLOB NOT NULL UNIQUE,
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

bool wasUserEntered(const Metadata& metadata) {
  const auto found = metadata.find(kMetadataKeyWasUserEntered);
  if (found == metadata.end()) {
    return false;
  }
  if (const bool* flag = std::get_if<bool>(&found->second)) {
    return *flag;
  }
  if (const std::int64_t* number = std::get_if<std::int64_t>(&found->second)) {
    return *number != 0;
  }
  return false;
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
  return database.exec(kSchema);
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

Result<std::int64_t> SampleDatabase::typeId(const ObjectType& type, bool create) {
  const std::string identifier(type.identifier());
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

Result<std::int64_t> SampleDatabase::revisionId(const Sample& sample) {
  const SourceRevision& revision = sample.sourceRevision();
  // Imports repeat a handful of revisions for every sample; comparing fields is far cheaper
  // than building the key, which encodes the device as JSON.
  for (std::size_t i = 0; i < recentRevisions_.size(); ++i) {
    const RecentRevision& recent = recentRevisions_[i];
    if (recent.record.revision == revision && recent.record.device == sample.device()) {
      const std::int64_t id = recent.id;
      std::rotate(recentRevisions_.begin(), recentRevisions_.begin() + static_cast<long>(i),
                  recentRevisions_.begin() + static_cast<long>(i) + 1);
      return id;
    }
  }
  Result<std::int64_t> id = revisionIdByKey(sample);
  if (id) {
    if (recentRevisions_.size() == kRecentRevisions) {
      recentRevisions_.pop_back();
    }
    recentRevisions_.insert(recentRevisions_.begin(),
                            RecentRevision{RevisionRecord{revision, sample.device()}, id.value()});
  }
  return id;
}

Result<std::int64_t> SampleDatabase::revisionIdByKey(const Sample& sample) {
  const SourceRevision& revision = sample.sourceRevision();
  const std::string device = encodeDevice(sample.device());
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
  revisions_[id] = RevisionRecord{revision, sample.device()};
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

Result<std::size_t> SampleDatabase::save(const std::vector<SamplePtr>& samples,
                                         const std::map<Uuid, std::vector<double>>& voltages) {
  Result<std::size_t> saved = insertSamples(samples, voltages);
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

Result<std::size_t> SampleDatabase::insertSamples(
    const std::vector<SamplePtr>& samples, const std::map<Uuid, std::vector<double>>& voltages) {
  Result<SqliteTransaction> transaction = db_.begin(SqliteTransactionKind::immediate);
  if (!transaction) {
    return transaction.error();
  }
  Result<SqliteStatement> state = db_.prepare("SELECT last_seq, last_tx FROM store_state");
  if (!state) {
    return state.error();
  }
  if (Result<bool> row = state.value().step(); !row || !row.value()) {
    return row ? healthError(kHealthErrorDatabaseInaccessible, "The change counter is missing")
               : row.error();
  }
  std::int64_t seq = state.value().columnInt64(0);
  const std::int64_t tx = state.value().columnInt64(1) + 1;
  state.value().reset();

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
  std::optional<ObjectType> lastType;
  std::int64_t lastTypeId = 0;
  for (const SamplePtr& sample : samples) {
    SqliteResetScope resetting(row);
    std::vector<Status> binds;
    // Chunks come grouped by type, so most samples repeat the previous one's type.
    if (!lastType || !(*lastType == sample->sampleType())) {
      Result<std::int64_t> found = typeId(sample->sampleType(), true);
      if (!found) {
        return found.error();
      }
      lastType = sample->sampleType();
      lastTypeId = found.value();
    }
    Result<std::int64_t> revision = revisionId(*sample);
    if (!revision) {
      return revision.error();
    }
    binds.push_back(row.bindInt64(1, seq + 1));
    binds.push_back(row.bindInt64(2, tx));
    binds.push_back(row.bindBlob(3, uuidBytes(sample->uuid())));
    binds.push_back(row.bindInt64(4, lastTypeId));
    binds.push_back(row.bindInt64(5, storedTime(sample->startDate())));
    binds.push_back(row.bindInt64(6, storedTime(sample->endDate())));
    binds.push_back(row.bindInt64(11, revision.value()));
    binds.push_back(row.bindInt64(12, wasUserEntered(sample->metadata()) ? 1 : 0));
    if (std::optional<std::string> metadata = encodeMetadata(sample->metadata())) {
      binds.push_back(row.bindText(13, *metadata));
    }
    switch (sample->sampleType().kind()) {
      case ObjectKind::quantity: {
        const auto& quantitySample = static_cast<const QuantitySample&>(*sample);
        const Quantity& quantity = quantitySample.quantity();
        const Unit canonical = sample->sampleType().canonicalUnit();
        Result<double> value = quantity.doubleValue(canonical);
        if (!value) {
          return value.error();
        }
        binds.push_back(row.bindDouble(7, value.value()));
        if (quantity.unit().unitString() != canonical.unitString()) {
          binds.push_back(row.bindDouble(8, quantity.doubleValue(quantity.unit()).value()));
        }
        binds.push_back(row.bindText(9, quantity.unit().unitString()));
        break;
      }
      case ObjectKind::category:
        binds.push_back(row.bindInt64(10, static_cast<const CategorySample&>(*sample).value()));
        break;
      case ObjectKind::workout:
        binds.push_back(
            row.bindText(14, encodeWorkoutDetails(static_cast<const Workout&>(*sample).details())));
        break;
      case ObjectKind::electrocardiogram:
        binds.push_back(
            row.bindText(14, encodeElectrocardiogramDetails(
                                 static_cast<const Electrocardiogram&>(*sample).details())));
        break;
    }
    binds.push_back(row.run());
    for (const Status& failure : binds) {
      if (failure) {
        return *failure;
      }
    }
    if (db_.changes() == 1) {
      ++seq;
      ++added;
      std::int64_t& duration = longest[lastTypeId];
      duration =
          std::max(duration, storedTime(sample->endDate()) - storedTime(sample->startDate()));
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
  if (added == 0) {
    // Nothing new: no transaction number is used and no observer wakes.
    return added;
  }
  Result<SqliteStatement> update =
      db_.prepare("UPDATE store_state SET last_seq = ?1, last_tx = ?2");
  if (!update) {
    return update.error();
  }
  update.value().bindInt64(1, seq);
  update.value().bindInt64(2, tx);
  if (Status failure = update.value().run()) {
    return *failure;
  }
  if (Status failure = transaction.value().commit()) {
    return *failure;
  }
  return added;
}

Result<std::size_t> SampleDatabase::remove(const std::vector<Uuid>& uuids, Date now) {
  Result<SqliteTransaction> transaction = db_.begin(SqliteTransactionKind::immediate);
  if (!transaction) {
    return transaction.error();
  }
  Result<SqliteStatement> state = db_.prepare("SELECT last_seq, last_tx FROM store_state");
  if (!state) {
    return state.error();
  }
  if (Result<bool> row = state.value().step(); !row || !row.value()) {
    return row ? healthError(kHealthErrorDatabaseInaccessible, "The change counter is missing")
               : row.error();
  }
  std::int64_t seq = state.value().columnInt64(0);
  const std::int64_t tx = state.value().columnInt64(1) + 1;
  state.value().reset();

  Result<SqliteStatement> tombstone = db_.prepare(
      "INSERT INTO deleted_objects (seq, tx, uuid, type_id, start_us, end_us, category, "
      "revision_id, metadata, deleted_at_us) SELECT ?1, ?2, uuid, type_id, start_us, end_us, "
      "category, revision_id, metadata, ?3 FROM samples WHERE uuid = ?4");
  Result<SqliteStatement> erase = db_.prepare("DELETE FROM samples WHERE uuid = ?1");
  Result<SqliteStatement> eraseVoltages = db_.prepare("DELETE FROM voltages WHERE uuid = ?1");
  if (!tombstone || !erase || !eraseVoltages) {
    return !tombstone ? tombstone.error() : !erase ? erase.error() : eraseVoltages.error();
  }
  std::size_t removed = 0;
  for (const Uuid& uuid : uuids) {
    SqliteStatement& insert = tombstone.value();
    SqliteResetScope resetting(insert);
    insert.bindInt64(1, seq + 1);
    insert.bindInt64(2, tx);
    insert.bindInt64(3, storedTime(now));
    insert.bindBlob(4, uuidBytes(uuid));
    if (Status failure = insert.run()) {
      return *failure;
    }
    if (db_.changes() == 0) {
      continue;
    }
    ++seq;
    ++removed;
    for (SqliteStatement* deletion : {&erase.value(), &eraseVoltages.value()}) {
      SqliteResetScope resettingDeletion(*deletion);
      deletion->bindBlob(1, uuidBytes(uuid));
      if (Status failure = deletion->run()) {
        return *failure;
      }
    }
  }
  if (removed == 0) {
    return removed;
  }
  Result<SqliteStatement> update =
      db_.prepare("UPDATE store_state SET last_seq = ?1, last_tx = ?2");
  if (!update) {
    return update.error();
  }
  update.value().bindInt64(1, seq);
  update.value().bindInt64(2, tx);
  if (Status failure = update.value().run()) {
    return *failure;
  }
  if (Status failure = transaction.value().commit()) {
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
  Result<std::int64_t> id = typeId(type, false);
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
  Result<std::int64_t> id = typeId(type, false);
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
