// The embedded health store's SQLite file: samples, deletion tombstones, sources, voltages and
// the change counter, with the reads the queries need. One object is one connection and is
// used by one owner at a time (the store names the mutex or queue that owns each).
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "healthstore/stored_rows.h"
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

// The row of a sample, for saving it.
Result<SampleRow> sampleRow(const Sample& sample);

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
  // The same for rows of any type of the store's vocabulary and what belongs to them. Sorted
  // by type and start, the identities are checked and inserted in index order.
  Result<BatchOutcome> saveBatch(const ImportBatch& batch,
                                 const std::map<Uuid, std::vector<double>>& voltages = {});
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

  // What the store keeps besides the platform's samples, by the sample it belongs to.
  Result<std::vector<WorkoutEventRow>> workoutEvents(const Uuid& workout);
  Result<std::vector<WorkoutRouteRow>> workoutRoutes(const Uuid& workout);
  // None when the sample has no beats stored.
  Result<std::optional<BeatSeriesRow>> beatSeries(const Uuid& sample);
  Result<std::vector<Uuid>> correlationMembers(const Uuid& correlation);
  Result<std::vector<ActivitySummaryRow>> activitySummaries();
  Result<std::vector<KeptElementRow>> keptElements(std::string_view name);
  // Samples of any stored type, also one the platform's type table does not know, in the
  // order they were saved; their revisions are left out.
  Result<std::vector<SampleRow>> sampleRows(std::string_view typeIdentifier);

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
  Result<std::int64_t> typeId(std::string_view identifier, bool create);
  Result<std::optional<ObjectType>> typeOf(std::int64_t id);
  Result<std::int64_t> longestDuration(std::int64_t typeId);
  Result<std::int64_t> revisionId(const RevisionRecord& record);
  Result<std::int64_t> revisionIdByKey(const RevisionRecord& record);
  Result<SamplePtr> decodeSample(const SqliteStatement& row);
  Result<BatchOutcome> insertBatch(const ImportBatch& batch,
                                   const std::map<Uuid, std::vector<double>>& voltages);
  // Adds the rows that are new, numbering them from seq + 1; returns how many were.
  Result<std::size_t> insertSampleRows(const std::vector<SampleRow>& samples, std::int64_t& seq,
                                       std::int64_t tx);
  template <class T, class Read>
  Result<std::vector<T>> readEach(std::string_view sql,
                                  std::optional<std::span<const std::uint8_t>> key, Read read);
  template <class T, class Bind>
  Result<std::size_t> insertEach(std::string_view sql, const std::vector<T>& items, Bind bind);
  // An immediate transaction with the change counter read in it: the last change's position
  // and the number of this transaction.
  struct Write {
    SqliteTransaction transaction;
    std::int64_t seq = 0;
    std::int64_t tx = 0;
  };
  Result<Write> beginWrite();
  // (last seq, last transaction number).
  Result<std::pair<std::int64_t, std::int64_t>> changeCounter();
  Status storeChangeCounter(std::int64_t seq, std::int64_t tx);
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
