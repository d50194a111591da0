// The statistics store: every statistics figure in the defaults store, one row per statistic
// key and interval, with when it was last changed and last uploaded, and a row in the new-data
// index for each figure not uploaded since it changed, so that a batch, an upload and a mark
// cost what they touch, not the whole history. It keeps no state of its own (the defaults
// store is thread-safe), but a read-modify-write must not interleave with another: every write
// runs on the statistics queue (DataManager), and so do the reads of the upload ticks.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/clock.h"
#include "platform/defaults_store.h"
#include "platform/health/statistics.h"
#include "statistics/statistics_records.h"

namespace kestrova {

struct StatisticsValueData {
  Date startDate;
  Date endDate;
  Date updatedAt;
  std::optional<Date> uploadedAt;
  std::optional<double> value;
  std::optional<std::vector<HeartRate>> heartRates;
  std::optional<HeartRateSample> heartRateSample;
};

// Interval key → entry. Interval keys are timestamp texts (GMT) for 15-minute figures and
// day texts of the day formatter for daily summary figures, so text order is time order.
using Dates2Value = std::map<std::string, StatisticsValueData, std::less<>>;

struct StoredStatistics {
  Dates2Value dates2Value;
};

// One interval of one key as the assembly reads it.
struct SummedValue {
  Date startDate;
  Date endDate;
  double value = 0;
  bool hasNewData = false;
};

inline constexpr std::string_view kHeartRateSamplesKey = "heart-rate-samples";
inline constexpr std::string_view kSummaryKeyPrefix = "summary-";

// The key of a 15-minute sum of a quantity type; none for a type the store does not keep.
std::optional<std::string_view> detailKey(std::string_view quantityTypeIdentifier);
// The key of a quantity type's daily summary figures: the prefix and the type's identifier.
std::string summaryKey(std::string_view quantityTypeIdentifier);
// Every key the store writes: the detail keys, the heart-rate samples and the summary keys.
const std::vector<std::string>& statisticsKeys();

nlohmann::json toJson(const StoredStatistics& stored);
std::optional<StoredStatistics> storedStatisticsFromJson(const nlohmann::json& json);

enum class StatisticsFamily { heartRateSamples, dailyDetailSamples, dailySummaries };

// Up to a limit of records with new data, in time order, and where the next read goes on.
template <class Record>
struct StatisticsPage {
  std::vector<Record> records;
  // The interval key of the last interval looked at; the next page starts after it.
  std::string last;
  // True when there was nothing more to read after `last`.
  bool complete = true;
};

class StatisticsStore {
 public:
  // `startDate` is the configured start of the data range: without one nothing is new.
  StatisticsStore(std::shared_ptr<DefaultsStore> defaults, std::shared_ptr<Clock> clock,
                  std::optional<Date> startDate);

  // Moves the maps of the former layout (one JSON map per statistic key) into rows, a key at a
  // time in one write each; a map that does not decode is logged and dropped.
  void migrate();

  // A whole delivered list at a time: each key is read once over the list's intervals and the
  // changes are written together, with the same outcome as storing the objects one by one in
  // list order. Values that are not finite numbers are refused with a log line.
  void storeHeartRateStatistics(const std::vector<Statistics>& statistics);
  void storeDailyDetailStatistics(const std::vector<Statistics>& statistics,
                                  const ObjectType& quantityType);
  void storeDailySummaryStatistics(const std::vector<Statistics>& statistics);

  // The records with new data by the new-data rule whose interval key sorts after `after`
  // ("" for the first page), at most `limit` intervals looked at.
  StatisticsPage<HeartRateSample> newHeartRateSamples(std::string_view after,
                                                      std::size_t limit) const;
  StatisticsPage<DailyDetailSample> newDailyDetailSamples(std::string_view after,
                                                          std::size_t limit) const;
  StatisticsPage<DailySummary> newDailySummaries(std::string_view after, std::size_t limit) const;

  // Sets `uploadedAt` of the entries behind the records to `uploadedAt`.
  void markUploaded(const std::vector<HeartRateSample>& records, Date uploadedAt);
  void markUploaded(const std::vector<DailyDetailSample>& records, Date uploadedAt);
  void markUploaded(const std::vector<DailySummary>& records, Date uploadedAt);

  // Keeps the entries whose interval key sorts at or after the day text of `date`.
  void deleteBefore(Date date);
  void deleteAll();

  // One stored entry; none when absent or when it does not decode (logged).
  std::optional<StatisticsValueData> entry(std::string_view key,
                                           std::string_view intervalKey) const;
  // The new-data rule of one entry.
  bool hasNewData(const StatisticsValueData& entry) const;

  struct Count {
    std::size_t entries = 0;
    std::size_t withNewData = 0;
  };
  // The records of a family and how many of them wait for an upload, whatever their date.
  Count count(StatisticsFamily family) const;

 private:
  class Batch;

  void markUploaded(StatisticsFamily family, const std::vector<std::string>& intervalKeys,
                    Date uploadedAt);
  // The entries of the family's keys over the intervals, by key then interval key.
  std::map<std::string, Dates2Value, std::less<>> entries(
      StatisticsFamily family, const std::vector<std::string>& intervalKeys) const;
  // The intervals of the family with a row in the new-data index after `after`.
  std::vector<std::string> newIntervals(StatisticsFamily family, std::string_view after,
                                        std::size_t limit, bool& complete) const;

  const std::shared_ptr<DefaultsStore> defaults_;
  const std::shared_ptr<Clock> clock_;
  const std::optional<Date> startDate_;
};

}  // namespace kestrova
