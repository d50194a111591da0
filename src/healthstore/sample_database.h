// The embedded health store's SQLite file: samples, deletion tombstones, sources, voltages and
// the change counter, with the reads the queries need. One object is one connection and is
// used by one owner at a time (the store names the mutex or queue that owns each).
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "platform/health/predicate.h"
#include "platform/health/sample.h"
#include "platform/linux/sqlite.h"
#include "platform/result.h"

namespace kestrova {

// One saved or deleted sample in the change history.
struct StoredChange {
  std::uint64_t seq = 0;
  // Changes committed together share a transaction number.
  std::uint64_t transaction = 0;
  ObjectType type;
  PredicateFields fields;
  bool deleted = false;
};

struct AnchoredRows {
  std::vector<SamplePtr> samples;
  std::vector<DeletedObject> deletedObjects;
  // The position of the last row returned; none when nothing was.
  std::optional<std::uint64_t> lastSeq;
};

// The columns statistics need, without decoding whole samples.
struct StatisticsRow {
  Date start;
  Date end;
  double value = 0;  // in the type's canonical unit
  std::int64_t revisionId = 0;
  bool userEntered = false;
};

struct RevisionRecord {
  SourceRevision revision;
  std::optional<Device> device;
};

class SampleDatabase {
 public:
  // Opens or creates the file in WAL mode with the schema; a damaged file is moved aside.
  static Result<SampleDatabase> open(const std::filesystem::path& path);

  SampleDatabase(SampleDatabase&&) noexcept = default;
  SampleDatabase& operator=(SampleDatabase&&) noexcept = default;

  // Sizes the page cache and checkpointing for the one connection that writes.
  Status tuneForWriting();

  // One transaction; samples whose UUID is already stored are skipped. Voltages are kept for
  // the electrocardiograms named in `voltages`. Returns how many samples were added.
  Result<std::size_t> save(const std::vector<SamplePtr>& samples,
                           const std::map<Uuid, std::vector<double>>& voltages);
  // One transaction; each deleted sample leaves a tombstone. Returns how many were deleted.
  Result<std::size_t> remove(const std::vector<Uuid>& uuids, Date now);
  Status purgeDeletedObjects(Date deletedBefore);

  // Samples and tombstones of `type` after `after` that match, merged in change order, at
  // most `limit` (0: all).
  Result<AnchoredRows> anchored(const ObjectType& type, const std::optional<Predicate>& predicate,
                                std::uint64_t after, std::size_t limit);
  // Matching samples in the order they were saved.
  Result<std::vector<SamplePtr>> samples(const ObjectType& type,
                                         const std::optional<Predicate>& predicate);
  Result<std::vector<StatisticsRow>> statisticsRows(const ObjectType& type,
                                                    const std::optional<Predicate>& predicate);
  Result<RevisionRecord> revision(std::int64_t id);
  // None when no voltages are stored for the sample.
  Result<std::optional<std::vector<double>>> voltages(const Uuid& uuid);

  Result<std::vector<StoredChange>> changesAfter(std::uint64_t seq);
  Result<std::uint64_t> lastChange();
  // Changes whenever another connection commits (PRAGMA data_version).
  Result<std::int64_t> dataVersion();

  // (query name, SQLite's plan) for each read this class makes, for checking that they use
  // the indexes.
  Result<std::vector<std::pair<std::string, std::string>>> queryPlans();

 private:
  explicit SampleDatabase(SqliteDatabase db) : db_(std::move(db)) {}

  Result<SqliteStatement*> statement(SqliteStatement& slot, std::string_view sql);
  // Steps through the rows of `type` in the predicate's time window, in one read snapshot,
  // handing each to `visit`; stops at the first error.
  Status scanWindow(const ObjectType& type, const std::optional<Predicate>& predicate,
                    SqliteStatement& slot, std::string_view sql,
                    const std::function<Status(SqliteStatement&)>& visit);
  Result<std::int64_t> typeId(const ObjectType& type, bool create);
  Result<std::optional<ObjectType>> typeOf(std::int64_t id);
  Result<std::int64_t> longestDuration(std::int64_t typeId);
  Result<std::int64_t> revisionId(const Sample& sample);
  Result<std::int64_t> revisionIdByKey(const Sample& sample);
  Result<SamplePtr> decodeSample(const SqliteStatement& row);
  Result<std::size_t> insertSamples(const std::vector<SamplePtr>& samples,
                                    const std::map<Uuid, std::vector<double>>& voltages);
  Result<Unit> unit(std::string_view text);

  SqliteDatabase db_;
  std::unordered_map<std::string, std::int64_t> typeIds_;
  std::unordered_map<std::int64_t, std::string> typeIdentifiers_;
  std::unordered_map<std::string, std::int64_t> revisionIds_;
  std::unordered_map<std::int64_t, RevisionRecord> revisions_;
  // The revisions saved most recently, most recent first; like the maps above, forgotten when
  // a save rolls back.
  struct RecentRevision {
    RevisionRecord record;
    std::int64_t id = 0;
  };
  static constexpr std::size_t kRecentRevisions = 8;
  std::vector<RecentRevision> recentRevisions_;
  std::unordered_map<std::string, Unit> units_;
  SqliteStatement insertSample_;
  SqliteStatement anchored_;
  SqliteStatement samples_;
  SqliteStatement statisticsRows_;
  SqliteStatement changes_;
};

}  // namespace kestrova
