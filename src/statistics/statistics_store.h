// The statistics store: every statistics figure in the defaults store, one JSON-encoded
// `StoredStatistics` per key, with when it was last changed and last uploaded; the uploads
// ask it which figures are new. It keeps no state of its own (the defaults store is
// thread-safe), but a load-modify-save must not interleave with another: every write runs
// on the statistics queue (DataManager), and so do the reads of the upload ticks.
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
using Dates2Value = std::map<std::string, StatisticsValueData>;

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

class StatisticsStore {
 public:
  // `startDate` is the configured start of the data range: without one nothing is new.
  StatisticsStore(std::shared_ptr<DefaultsStore> defaults, std::shared_ptr<Clock> clock,
                  std::optional<Date> startDate);

  // The decoded map; none when absent or when it does not decode (logged).
  std::optional<Dates2Value> load(std::string_view key) const;
  // Encoding failures are logged and write nothing.
  void save(const Dates2Value& map, std::string_view key);

  // A whole delivered list at a time: each key is loaded once and all changed keys are saved
  // in one write, with the same outcome as storing the objects one by one in list order.
  void storeHeartRateStatistics(const std::vector<Statistics>& statistics);
  void storeDailyDetailStatistics(const std::vector<Statistics>& statistics,
                                  const ObjectType& quantityType);
  void storeDailySummaryStatistics(const std::vector<Statistics>& statistics);

  // Reads with `hasNewData` set by the new-data rule, in time order.
  std::vector<HeartRateSample> heartRateSamples() const;
  std::vector<DailyDetailSample> dailyDetailSamples() const;
  std::vector<DailySummary> dailySummaries() const;

  // Sets `uploadedAt` of the entries behind the records to `uploadedAt`.
  void markUploaded(const std::vector<HeartRateSample>& records, Date uploadedAt);
  void markUploaded(const std::vector<DailyDetailSample>& records, Date uploadedAt);
  void markUploaded(const std::vector<DailySummary>& records, Date uploadedAt);

  // Keeps the entries whose interval key sorts at or after the day text of `date`.
  void deleteBefore(Date date);
  void deleteAll();

  // The new-data rule of one entry.
  bool hasNewData(const StatisticsValueData& entry) const;

 private:
  class Batch;

  void markUploaded(const std::vector<std::string>& keys,
                    const std::vector<std::string>& intervalKeys, Date uploadedAt);

  const std::shared_ptr<DefaultsStore> defaults_;
  const std::shared_ptr<Clock> clock_;
  const std::optional<Date> startDate_;
};

}  // namespace kestrova
