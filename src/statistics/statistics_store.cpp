#include "statistics/statistics_store.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <set>
#include <utility>

#include "api/units.h"
#include "datapoints/health_units.h"
#include "facade/formatters.h"
#include "healthkit/health_kit_types.h"
#include "platform/log.h"
#include "storage/profile_store.h"

namespace kestrova {
namespace {

constexpr std::string_view kCategory = "statistics";
constexpr std::string_view kCouldNotEncode = "Could not encode object: %@";
constexpr std::string_view kDeletedBefore = "Deleted stored statistics before %{public}@";
constexpr std::string_view kDeletedAll = "Deleted all stored statistics";
constexpr std::string_view kNotFinite =
    "Statistics figure of %{public}@ at %{public}@ is not a finite number; it is not stored";
constexpr std::string_view kMigrated = "Moved %{public}@ stored statistics of %{public}@ into rows";

// Row keys: an entry is "<statistic key>/<interval key>"; the new-data index has
// "statistics-new/<family>/<interval key>/<statistic key>" for each entry not uploaded since it
// changed. '0' is the character after '/', so "<prefix>0" ends the range of "<prefix>/".
constexpr char kSeparator = '/';
constexpr char kAfterSeparator = '0';
constexpr std::string_view kNewDataPrefix = "statistics-new/";
// A page of the index or of a key's entries read at a time by the counts.
constexpr std::size_t kCountPage = 10000;

// Member names of the stored forms.
constexpr std::string_view kDates2Value = "dates2Value";
constexpr std::string_view kStartDate = "startDate";
constexpr std::string_view kEndDate = "endDate";
constexpr std::string_view kUpdatedAt = "updatedAt";
constexpr std::string_view kUploadedAt = "uploadedAt";
constexpr std::string_view kValue = "value";
constexpr std::string_view kHeartRates = "heartRates";
constexpr std::string_view kHeartRateSample = "heartRateSample";

constexpr std::string_view kStepCount = "HKQuantityTypeIdentifierStepCount";
constexpr std::string_view kDistanceCycling = "HKQuantityTypeIdentifierDistanceCycling";
constexpr std::string_view kDistanceSwimming = "HKQuantityTypeIdentifierDistanceSwimming";
constexpr std::string_view kDistanceWheelchair = "HKQuantityTypeIdentifierDistanceWheelchair";
constexpr std::string_view kDistanceWalkingRunning =
    "HKQuantityTypeIdentifierDistanceWalkingRunning";
constexpr std::string_view kDistanceDownhillSnowSports =
    "HKQuantityTypeIdentifierDistanceDownhillSnowSports";
constexpr std::string_view kBasalEnergyBurned = "HKQuantityTypeIdentifierBasalEnergyBurned";
constexpr std::string_view kActiveEnergyBurned = "HKQuantityTypeIdentifierActiveEnergyBurned";

// What each stored sum contributes to the assembled records.
enum class Figure { steps, distance, basalEnergy, activeEnergy };

struct DetailType {
  std::string_view identifier;
  std::string_view key;
  Figure figure;
};

constexpr std::array<DetailType, 8> kDetailTypes = {{
    {kStepCount, "step-count-samples", Figure::steps},
    {kDistanceCycling, "distance-cycling-samples", Figure::distance},
    {kDistanceSwimming, "distance-swimming-samples", Figure::distance},
    {kDistanceWheelchair, "distance-wheelchair-samples", Figure::distance},
    {kDistanceWalkingRunning, "distance-walking-running-samples", Figure::distance},
    {kDistanceDownhillSnowSports, "distance-downhill-snow-sports-samples", Figure::distance},
    {kBasalEnergyBurned, "basal-energy-burned-samples", Figure::basalEnergy},
    {kActiveEnergyBurned, "active-energy-burned-samples", Figure::activeEnergy},
}};

std::optional<Unit> unitOf(const ObjectType& type) {
  const auto units = unitForIdentifier(type.identifier());
  if (!units) {
    return std::nullopt;
  }
  return healthUnit(*units);
}

std::optional<double> valueIn(const std::optional<Quantity>& quantity, const Unit& unit) {
  if (!quantity) {
    return std::nullopt;
  }
  auto value = quantity->doubleValue(unit);
  if (!value) {
    return std::nullopt;
  }
  return *value;
}

nlohmann::json toJson(const StatisticsValueData& entry) {
  nlohmann::json json = {{kStartDate, referenceSeconds(entry.startDate)},
                         {kEndDate, referenceSeconds(entry.endDate)},
                         {kUpdatedAt, referenceSeconds(entry.updatedAt)}};
  if (entry.uploadedAt) {
    json[kUploadedAt] = referenceSeconds(*entry.uploadedAt);
  }
  if (entry.value) {
    json[kValue] = *entry.value;
  }
  if (entry.heartRates) {
    auto list = nlohmann::json::array();
    for (const auto& heartRate : *entry.heartRates) {
      list.push_back(toJson(heartRate));
    }
    json[kHeartRates] = std::move(list);
  }
  if (entry.heartRateSample) {
    json[kHeartRateSample] = toJson(*entry.heartRateSample);
  }
  return json;
}

std::optional<Date> dateMember(const nlohmann::json& json, std::string_view key) {
  const auto found = json.find(key);
  if (found == json.end() || !found->is_number()) {
    return std::nullopt;
  }
  return dateFromReferenceSeconds(found->get<double>());
}

std::optional<StatisticsValueData> entryFromJson(const nlohmann::json& json) {
  if (!json.is_object()) {
    return std::nullopt;
  }
  const auto start = dateMember(json, kStartDate);
  const auto end = dateMember(json, kEndDate);
  const auto updated = dateMember(json, kUpdatedAt);
  if (!start || !end || !updated) {
    return std::nullopt;
  }
  StatisticsValueData entry{*start, *end, *updated, {}, {}, {}, {}};
  if (json.contains(kUploadedAt)) {
    entry.uploadedAt = dateMember(json, kUploadedAt);
    if (!entry.uploadedAt) {
      return std::nullopt;
    }
  }
  if (const auto value = json.find(kValue); value != json.end()) {
    if (!value->is_number()) {
      return std::nullopt;
    }
    entry.value = value->get<double>();
  }
  if (const auto list = json.find(kHeartRates); list != json.end()) {
    if (!list->is_array()) {
      return std::nullopt;
    }
    entry.heartRates.emplace();
    for (const auto& element : *list) {
      auto heartRate = heartRateFromJson(element);
      if (!heartRate) {
        return std::nullopt;
      }
      entry.heartRates->push_back(*heartRate);
    }
  }
  if (const auto sample = json.find(kHeartRateSample); sample != json.end()) {
    entry.heartRateSample = heartRateSampleFromJson(*sample);
    if (!entry.heartRateSample) {
      return std::nullopt;
    }
  }
  return entry;
}

std::optional<Bytes> encode(const StatisticsValueData& entry, std::string_view key) {
  try {
    return toBytes(toJson(entry).dump());
  } catch (const std::exception& e) {
    logError(kCategory, kCouldNotEncode, {std::string(key) + ": " + e.what()});
    return std::nullopt;
  }
}

std::optional<StatisticsValueData> decode(const DefaultsValue& value, std::string_view rowKey) {
  const auto* bytes = std::get_if<Bytes>(&value);
  auto json = bytes ? nlohmann::json::parse(bytes->begin(), bytes->end(), nullptr, false)
                    : nlohmann::json();
  auto entry = entryFromJson(json);
  if (!entry) {
    logError(kCategory, kCouldNotDecodeObject,
             {"the data under " + std::string(rowKey) + " is not a stored statistic"});
  }
  return entry;
}

std::string rowKey(std::string_view key, std::string_view intervalKey) {
  std::string row(key);
  row += kSeparator;
  row += intervalKey;
  return row;
}

std::string rangeEnd(std::string_view prefix) {
  std::string end(prefix);
  end += kAfterSeparator;
  return end;
}

std::string_view familyName(StatisticsFamily family) {
  switch (family) {
    case StatisticsFamily::heartRateSamples:
      return "heart-rate";
    case StatisticsFamily::dailyDetailSamples:
      return "daily-detail";
    case StatisticsFamily::dailySummaries:
      return "daily-summary";
  }
  return "";
}

std::string newDataPrefix(StatisticsFamily family) {
  return std::string(kNewDataPrefix) + std::string(familyName(family));
}

std::string newDataKey(StatisticsFamily family, std::string_view intervalKey,
                       std::string_view key) {
  return rowKey(rowKey(newDataPrefix(family), intervalKey), key);
}

// The interval key inside a row of the new-data index below `prefix`.
std::string_view intervalOfNewDataKey(std::string_view row, std::string_view prefix) {
  row.remove_prefix(prefix.size() + 1);
  return row.substr(0, row.find(kSeparator));
}

std::vector<std::string> detailKeys() {
  std::vector<std::string> keys;
  for (const auto& type : kDetailTypes) {
    keys.emplace_back(type.key);
  }
  return keys;
}

std::vector<std::string> summaryKeys() {
  std::vector<std::string> keys;
  for (const auto& type : dailySummaryTypes()) {
    keys.push_back(summaryKey(type.identifier()));
  }
  return keys;
}

const std::vector<std::string>& keysOf(StatisticsFamily family) {
  static const auto* const heartRate =
      new std::vector<std::string>{std::string(kHeartRateSamplesKey)};
  static const auto* const detail = new std::vector<std::string>(detailKeys());
  static const auto* const summary = new std::vector<std::string>(summaryKeys());
  switch (family) {
    case StatisticsFamily::heartRateSamples:
      return *heartRate;
    case StatisticsFamily::dailyDetailSamples:
      return *detail;
    case StatisticsFamily::dailySummaries:
      break;
  }
  return *summary;
}

StatisticsFamily familyOf(std::string_view key) {
  if (key == kHeartRateSamplesKey) {
    return StatisticsFamily::heartRateSamples;
  }
  return key.starts_with(kSummaryKeyPrefix) ? StatisticsFamily::dailySummaries
                                            : StatisticsFamily::dailyDetailSamples;
}

constexpr std::array<StatisticsFamily, 3> kFamilies = {StatisticsFamily::heartRateSamples,
                                                       StatisticsFamily::dailyDetailSamples,
                                                       StatisticsFamily::dailySummaries};

bool finite(std::optional<double> value, std::string_view key, Date start) {
  if (!value || std::isfinite(*value)) {
    return true;
  }
  logError(kCategory, kNotFinite, {key, timestampString(start)});
  return false;
}

void storeValueEntry(Dates2Value& map, const std::string& intervalKey, Date start, Date end,
                     std::optional<double> value, std::optional<std::vector<HeartRate>> heartRates,
                     std::optional<HeartRateSample> heartRateSample, Date now) {
  std::optional<Date> uploadedAt;
  if (const auto existing = map.find(intervalKey); existing != map.end()) {
    uploadedAt = existing->second.uploadedAt;
  }
  map[intervalKey] = StatisticsValueData{
      start, end, now, uploadedAt, value, std::move(heartRates), std::move(heartRateSample)};
}

// True when the map changed.
bool storeSum(Dates2Value& map, const Statistics& statistics, std::string_view key,
              const std::string& intervalKey, const Unit& unit, Date now) {
  const auto value = valueIn(statistics.sumQuantity(), unit);
  if (!value || !finite(value, key, statistics.startDate())) {
    return false;
  }
  // A day's sums only grow; a smaller recomputation is taken for incomplete data.
  if (const auto existing = map.find(intervalKey);
      existing != map.end() && existing->second.value && *existing->second.value >= *value) {
    return false;
  }
  storeValueEntry(map, intervalKey, statistics.startDate(), statistics.endDate(), *value,
                  std::nullopt, std::nullopt, now);
  return true;
}

std::vector<HeartRate> summaryHeartRates(const Statistics& statistics, const Unit& unit,
                                         std::string_view key, bool resting) {
  // Each figure covers the whole day, so it carries the day's interval.
  std::vector<HeartRate> heartRates;
  auto add = [&](const std::optional<Quantity>& quantity, body::HeartRate type) {
    const auto value = valueIn(quantity, unit);
    if (value && finite(value, key, statistics.startDate())) {
      heartRates.push_back(HeartRate{statistics.startDate(), statistics.endDate(), type, *value});
    }
  };
  if (resting) {
    add(statistics.averageQuantity(), body::HeartRate::resting);
  } else {
    add(statistics.averageQuantity(), body::HeartRate::average);
    add(statistics.minimumQuantity(), body::HeartRate::minimum);
    add(statistics.maximumQuantity(), body::HeartRate::maximum);
  }
  return heartRates;
}

void addFigure(Figure figure, double value, DailyDetailSample& sample) {
  switch (figure) {
    case Figure::steps:
      sample.stepCount += value;
      break;
    case Figure::distance:
      sample.distance += value;
      break;
    case Figure::basalEnergy:
    case Figure::activeEnergy:
      sample.totalEnergyBurned += value;
      break;
  }
}

void addFigure(Figure figure, double value, DailySummary& summary) {
  switch (figure) {
    case Figure::steps:
      summary.stepCount += value;
      break;
    case Figure::distance:
      summary.distance += value;
      break;
    case Figure::basalEnergy:
      summary.basalEnergyBurned += value;
      summary.totalEnergyBurned += value;
      break;
    case Figure::activeEnergy:
      summary.activeEnergyBurned += value;
      summary.totalEnergyBurned += value;
      break;
  }
}

}  // namespace

std::optional<std::string_view> detailKey(std::string_view quantityTypeIdentifier) {
  for (const auto& type : kDetailTypes) {
    if (type.identifier == quantityTypeIdentifier) {
      return type.key;
    }
  }
  return std::nullopt;
}

std::string summaryKey(std::string_view quantityTypeIdentifier) {
  return std::string(kSummaryKeyPrefix) + std::string(quantityTypeIdentifier);
}

const std::vector<std::string>& statisticsKeys() {
  static const auto* const keys = [] {
    auto* all = new std::vector<std::string>();
    for (auto family : kFamilies) {
      all->insert(all->end(), keysOf(family).begin(), keysOf(family).end());
    }
    return all;
  }();
  return *keys;
}

nlohmann::json toJson(const StoredStatistics& stored) {
  nlohmann::json map = nlohmann::json::object();
  for (const auto& [key, entry] : stored.dates2Value) {
    map[key] = toJson(entry);
  }
  return {{kDates2Value, std::move(map)}};
}

std::optional<StoredStatistics> storedStatisticsFromJson(const nlohmann::json& json) {
  const auto map = json.is_object() ? json.find(kDates2Value) : json.end();
  if (!json.is_object() || map == json.end() || !map->is_object()) {
    return std::nullopt;
  }
  StoredStatistics stored;
  for (const auto& [key, value] : map->items()) {
    auto entry = entryFromJson(value);
    if (!entry) {
      return std::nullopt;
    }
    stored.dates2Value.emplace(key, std::move(*entry));
  }
  return stored;
}

// The entries a batch touches, read once per key over the batch's intervals, and the rows it
// changed, written together with their new-data index rows.
class StatisticsStore::Batch {
 public:
  explicit Batch(StatisticsStore& store) : store_(store) {}

  // Reads the entries of `key` between the first and last interval keys (inclusive).
  Dates2Value& map(std::string_view key, std::string_view first, std::string_view last) {
    auto found = maps_.find(key);
    if (found != maps_.end()) {
      return found->second;
    }
    Dates2Value map;
    const auto prefix = rowKey(key, "");
    for (auto& [row, value] :
         store_.defaults_->objects(rowKey(key, first), rowKey(key, last) + kAfterSeparator, 0)) {
      if (auto entry = decode(value, row)) {
        map.emplace(row.substr(prefix.size()), std::move(*entry));
      }
    }
    return maps_.emplace(std::string(key), std::move(map)).first->second;
  }
  void changed(std::string_view key, const std::string& intervalKey) {
    changed_.emplace(std::string(key), intervalKey);
  }

  void commit() {
    std::vector<DefaultsChange> changes;
    for (const auto& [key, intervalKey] : changed_) {
      const auto& entry = maps_.find(key)->second.at(intervalKey);
      auto bytes = encode(entry, key);
      if (!bytes) {
        continue;
      }
      changes.emplace_back(rowKey(key, intervalKey), std::move(*bytes));
      // The index holds the upload-time part of the new-data rule; the start date is applied
      // when reading, as it may change between configurations.
      auto index = newDataKey(familyOf(key), intervalKey, key);
      const bool isNew = !entry.uploadedAt || *entry.uploadedAt <= entry.updatedAt;
      changes.emplace_back(std::move(index), std::nullopt);
      if (isNew) {
        changes.back().second.emplace(std::in_place_type<std::int64_t>, 1);
      }
    }
    store_.defaults_->update(std::move(changes));
  }

 private:
  StatisticsStore& store_;
  std::map<std::string, Dates2Value, std::less<>> maps_;
  std::set<std::pair<std::string, std::string>> changed_;
};

StatisticsStore::StatisticsStore(std::shared_ptr<DefaultsStore> defaults,
                                 std::shared_ptr<Clock> clock, std::optional<Date> startDate)
    : defaults_(std::move(defaults)), clock_(std::move(clock)), startDate_(startDate) {}

void StatisticsStore::migrate() {
  for (const auto& key : statisticsKeys()) {
    if (!defaults_->object(key)) {
      continue;
    }
    const auto json = loadJson(*defaults_, key);
    auto stored = json ? storedStatisticsFromJson(*json) : std::nullopt;
    std::vector<DefaultsChange> changes;
    if (!stored) {
      logError(kCategory, kCouldNotDecodeObject,
               {"the data under " + key + " is not stored statistics"});
    } else {
      for (const auto& [intervalKey, entry] : stored->dates2Value) {
        if (auto bytes = encode(entry, key)) {
          changes.emplace_back(rowKey(key, intervalKey), std::move(*bytes));
          if (!entry.uploadedAt || *entry.uploadedAt <= entry.updatedAt) {
            changes.emplace_back(newDataKey(familyOf(key), intervalKey, key),
                                 DefaultsValue(std::int64_t{1}));
          }
        }
      }
      logInfo(kCategory, kMigrated, {std::to_string(stored->dates2Value.size()), key});
    }
    changes.emplace_back(key, std::nullopt);
    defaults_->update(std::move(changes));
  }
}

std::optional<StatisticsValueData> StatisticsStore::entry(std::string_view key,
                                                          std::string_view intervalKey) const {
  const auto row = rowKey(key, intervalKey);
  const auto value = defaults_->object(row);
  return value ? decode(*value, row) : std::nullopt;
}

void StatisticsStore::storeHeartRateStatistics(const std::vector<Statistics>& statistics) {
  if (statistics.empty()) {
    return;
  }
  const auto unit = Unit::countPerMinute();
  const auto now = clock_->now();
  Batch batch(*this);
  auto& map = batch.map(kHeartRateSamplesKey, timestampString(statistics.front().startDate()),
                        timestampString(statistics.back().startDate()));
  for (const auto& interval : statistics) {
    const auto average = valueIn(interval.averageQuantity(), unit);
    const auto minimum = valueIn(interval.minimumQuantity(), unit);
    const auto maximum = valueIn(interval.maximumQuantity(), unit);
    if (!average || !minimum || !maximum) {
      continue;
    }
    if (!finite(average, kHeartRateSamplesKey, interval.startDate()) ||
        !finite(minimum, kHeartRateSamplesKey, interval.startDate()) ||
        !finite(maximum, kHeartRateSamplesKey, interval.startDate())) {
      continue;
    }
    HeartRateSample sample{
        interval.startDate(), interval.endDate(), *average, *minimum, *maximum, true};
    const auto intervalKey = timestampString(interval.startDate());
    // An unchanged figure keeps its `updatedAt`, so it is not uploaded again.
    if (const auto existing = map.find(intervalKey);
        existing != map.end() && existing->second.heartRateSample &&
        sameFigures(*existing->second.heartRateSample, sample)) {
      continue;
    }
    storeValueEntry(map, intervalKey, interval.startDate(), interval.endDate(), std::nullopt,
                    std::nullopt, sample, now);
    batch.changed(kHeartRateSamplesKey, intervalKey);
  }
  batch.commit();
}

void StatisticsStore::storeDailyDetailStatistics(const std::vector<Statistics>& statistics,
                                                 const ObjectType& quantityType) {
  const auto key = detailKey(quantityType.identifier());
  const auto unit = unitOf(quantityType);
  if (!key || !unit || statistics.empty()) {
    return;
  }
  const auto now = clock_->now();
  Batch batch(*this);
  auto& map = batch.map(*key, timestampString(statistics.front().startDate()),
                        timestampString(statistics.back().startDate()));
  for (const auto& interval : statistics) {
    const auto intervalKey = timestampString(interval.startDate());
    if (storeSum(map, interval, *key, intervalKey, *unit, now)) {
      batch.changed(*key, intervalKey);
    }
  }
  batch.commit();
}

void StatisticsStore::storeDailySummaryStatistics(const std::vector<Statistics>& statistics) {
  const auto now = clock_->now();
  const auto& days = DayFormatter::shared();
  // The day range of each key first, so that each key is read once.
  std::map<std::string, std::pair<std::string, std::string>, std::less<>> ranges;
  for (const auto& day : statistics) {
    const auto intervalKey = days.string(day.startDate());
    auto [range, created] =
        ranges.try_emplace(summaryKey(day.quantityType().identifier()), intervalKey, intervalKey);
    range->second.first = std::min(range->second.first, intervalKey);
    range->second.second = std::max(range->second.second, intervalKey);
  }
  Batch batch(*this);
  for (const auto& day : statistics) {
    const auto& type = day.quantityType();
    const auto unit = unitOf(type);
    if (!unit) {
      continue;
    }
    const auto key = summaryKey(type.identifier());
    const auto& range = ranges.find(key)->second;
    auto& map = batch.map(key, range.first, range.second);
    const auto intervalKey = days.string(day.startDate());
    const bool resting = type.identifier() == kRestingHeartRateIdentifier;
    if (resting || type.identifier() == kHeartRateIdentifier) {
      auto heartRates = summaryHeartRates(day, *unit, key, resting);
      if (heartRates.empty()) {
        continue;
      }
      // NOTE: the equal-figure rule of the heart-rate samples applies here too: without it
      // every pass would mark each day with heart rates as changed and upload it again.
      if (const auto existing = map.find(intervalKey);
          existing != map.end() && existing->second.heartRates == heartRates) {
        continue;
      }
      storeValueEntry(map, intervalKey, day.startDate(), day.endDate(), std::nullopt,
                      std::move(heartRates), std::nullopt, now);
      batch.changed(key, intervalKey);
    } else if (storeSum(map, day, key, intervalKey, *unit, now)) {
      batch.changed(key, intervalKey);
    }
  }
  batch.commit();
}

bool StatisticsStore::hasNewData(const StatisticsValueData& entry) const {
  if (!startDate_ || entry.startDate < *startDate_) {
    return false;
  }
  // Equal times count as new.
  return !entry.uploadedAt || *entry.uploadedAt <= entry.updatedAt;
}

std::vector<std::string> StatisticsStore::newIntervals(StatisticsFamily family,
                                                       std::string_view after, std::size_t limit,
                                                       bool& complete) const {
  const auto prefix = newDataPrefix(family);
  const auto from = after.empty() ? rowKey(prefix, "") : rowKey(prefix, after) + kAfterSeparator;
  // Each interval has up to one index row per key of the family.
  const auto rowLimit = limit * keysOf(family).size();
  const auto rows = defaults_->objects(from, rangeEnd(prefix), rowLimit);
  std::vector<std::string> intervals;
  for (const auto& [row, value] : rows) {
    const auto interval = intervalOfNewDataKey(row, prefix);
    if (!intervals.empty() && intervals.back() == interval) {
      continue;
    }
    if (intervals.size() == limit) {
      complete = false;
      return intervals;
    }
    intervals.emplace_back(interval);
  }
  complete = rows.size() < rowLimit;
  return intervals;
}

std::map<std::string, Dates2Value, std::less<>> StatisticsStore::entries(
    StatisticsFamily family, const std::vector<std::string>& intervalKeys) const {
  std::map<std::string, Dates2Value, std::less<>> byKey;
  if (intervalKeys.empty()) {
    return byKey;
  }
  // One range read per key: the intervals asked for lie close together.
  Batch batch(const_cast<StatisticsStore&>(*this));
  for (const auto& key : keysOf(family)) {
    auto& map = batch.map(key, intervalKeys.front(), intervalKeys.back());
    auto& kept = byKey[key];
    for (const auto& intervalKey : intervalKeys) {
      if (auto found = map.find(intervalKey); found != map.end()) {
        kept.emplace(intervalKey, std::move(found->second));
      }
    }
  }
  return byKey;
}

StatisticsPage<HeartRateSample> StatisticsStore::newHeartRateSamples(std::string_view after,
                                                                     std::size_t limit) const {
  StatisticsPage<HeartRateSample> page;
  const auto intervals =
      newIntervals(StatisticsFamily::heartRateSamples, after, limit, page.complete);
  page.last = intervals.empty() ? std::string(after) : intervals.back();
  for (const auto& [key, map] : entries(StatisticsFamily::heartRateSamples, intervals)) {
    for (const auto& [intervalKey, entry] : map) {
      if (entry.heartRateSample && hasNewData(entry)) {
        page.records.push_back(*entry.heartRateSample);
        page.records.back().hasNewData = true;
      }
    }
  }
  return page;
}

StatisticsPage<DailyDetailSample> StatisticsStore::newDailyDetailSamples(std::string_view after,
                                                                         std::size_t limit) const {
  // Assembly: one record per 15-minute interval stored under any detail key; distance is the
  // sum of the five distance types (a person covers each metre in one way only) and the total
  // energy is basal plus active (the platform's two parts of the energy burned). The record is
  // new when any figure behind it is.
  StatisticsPage<DailyDetailSample> page;
  const auto intervals =
      newIntervals(StatisticsFamily::dailyDetailSamples, after, limit, page.complete);
  page.last = intervals.empty() ? std::string(after) : intervals.back();
  const auto byKey = entries(StatisticsFamily::dailyDetailSamples, intervals);
  std::map<std::string, DailyDetailSample, std::less<>> byInterval;
  for (const auto& type : kDetailTypes) {
    const auto found = byKey.find(type.key);
    if (found == byKey.end()) {
      continue;
    }
    for (const auto& [intervalKey, entry] : found->second) {
      if (!entry.value) {
        continue;
      }
      auto [record, created] = byInterval.try_emplace(intervalKey);
      if (created) {
        record->second.startDate = entry.startDate;
        record->second.endDate = entry.endDate;
      }
      record->second.hasNewData = record->second.hasNewData || hasNewData(entry);
      addFigure(type.figure, *entry.value, record->second);
    }
  }
  for (auto& [intervalKey, sample] : byInterval) {
    if (sample.hasNewData) {
      page.records.push_back(std::move(sample));
    }
  }
  return page;
}

StatisticsPage<DailySummary> StatisticsStore::newDailySummaries(std::string_view after,
                                                                std::size_t limit) const {
  // Assembly: one summary per day key under any summary key, sums as in the detail read;
  // heartRates holds the day's average, minimum and maximum heart rate, then its resting
  // heart rate, each framed by the day's interval.
  StatisticsPage<DailySummary> page;
  const auto intervals =
      newIntervals(StatisticsFamily::dailySummaries, after, limit, page.complete);
  page.last = intervals.empty() ? std::string(after) : intervals.back();
  const auto byKey = entries(StatisticsFamily::dailySummaries, intervals);
  std::map<std::string, DailySummary, std::less<>> byDay;
  for (const auto& type : dailySummaryTypes()) {
    const auto identifier = type.identifier();
    const auto found = byKey.find(summaryKey(identifier));
    if (found == byKey.end()) {
      continue;
    }
    const auto detail = std::find_if(kDetailTypes.begin(), kDetailTypes.end(),
                                     [&](const auto& d) { return d.identifier == identifier; });
    for (const auto& [day, entry] : found->second) {
      auto& summary = byDay[day];
      summary.date = day;
      summary.hasNewData = summary.hasNewData || hasNewData(entry);
      if (entry.heartRates) {
        summary.heartRates.insert(summary.heartRates.end(), entry.heartRates->begin(),
                                  entry.heartRates->end());
      }
      if (entry.value && detail != kDetailTypes.end()) {
        addFigure(detail->figure, *entry.value, summary);
      }
    }
  }
  for (auto& [day, summary] : byDay) {
    if (summary.hasNewData) {
      page.records.push_back(std::move(summary));
    }
  }
  return page;
}

void StatisticsStore::markUploaded(StatisticsFamily family,
                                   const std::vector<std::string>& intervalKeys, Date uploadedAt) {
  if (intervalKeys.empty()) {
    return;
  }
  Batch batch(*this);
  for (const auto& key : keysOf(family)) {
    auto& map = batch.map(key, intervalKeys.front(), intervalKeys.back());
    for (const auto& intervalKey : intervalKeys) {
      if (auto entry = map.find(intervalKey); entry != map.end()) {
        entry->second.uploadedAt = uploadedAt;
        batch.changed(key, intervalKey);
      }
    }
  }
  batch.commit();
}

void StatisticsStore::markUploaded(const std::vector<HeartRateSample>& records, Date uploadedAt) {
  std::vector<std::string> intervalKeys;
  for (const auto& record : records) {
    intervalKeys.push_back(timestampString(record.startDate));
  }
  markUploaded(StatisticsFamily::heartRateSamples, intervalKeys, uploadedAt);
}

void StatisticsStore::markUploaded(const std::vector<DailyDetailSample>& records, Date uploadedAt) {
  std::vector<std::string> intervalKeys;
  for (const auto& record : records) {
    intervalKeys.push_back(timestampString(record.startDate));
  }
  markUploaded(StatisticsFamily::dailyDetailSamples, intervalKeys, uploadedAt);
}

void StatisticsStore::markUploaded(const std::vector<DailySummary>& records, Date uploadedAt) {
  std::vector<std::string> intervalKeys;
  for (const auto& record : records) {
    intervalKeys.push_back(record.date);
  }
  markUploaded(StatisticsFamily::dailySummaries, intervalKeys, uploadedAt);
}

void StatisticsStore::deleteBefore(Date date) {
  // NOTE: a plain text comparison on purpose: a timestamp key of the cut-off day sorts after
  // the day text itself, so the whole cut-off day survives, whatever the entry's time.
  const auto cutOff = DayFormatter::shared().string(date);
  for (const auto& key : statisticsKeys()) {
    defaults_->removeObjects(rowKey(key, ""), rowKey(key, cutOff));
  }
  for (auto family : kFamilies) {
    defaults_->removeObjects(rowKey(newDataPrefix(family), ""),
                             rowKey(newDataPrefix(family), cutOff));
  }
  logInfo(kCategory, kDeletedBefore, {timestampString(date)});
}

void StatisticsStore::deleteAll() {
  for (const auto& key : statisticsKeys()) {
    defaults_->removeObjects(rowKey(key, ""), rangeEnd(key));
    defaults_->removeObject(key);
  }
  defaults_->removeObjects(kNewDataPrefix,
                           rangeEnd(kNewDataPrefix.substr(0, kNewDataPrefix.size() - 1)));
  logInfo(kCategory, kDeletedAll);
}

StatisticsStore::Count StatisticsStore::count(StatisticsFamily family) const {
  // Paged, so that years of figures are never held at once.
  Count count;
  auto countIntervals = [&](const std::string& from, const std::string& end,
                            std::size_t prefixSize) {
    std::set<std::string, std::less<>> intervals;
    std::string next = from;
    for (;;) {
      const auto rows = defaults_->objects(next, end, kCountPage);
      for (const auto& [row, value] : rows) {
        auto interval = std::string_view(row).substr(prefixSize + 1);
        intervals.emplace(interval.substr(0, interval.find(kSeparator)));
      }
      if (rows.size() < kCountPage) {
        return intervals;
      }
      next = rows.back().first + '\0';
    }
  };
  std::set<std::string, std::less<>> all;
  for (const auto& key : keysOf(family)) {
    all.merge(countIntervals(rowKey(key, ""), rangeEnd(key), key.size()));
  }
  count.entries = all.size();
  const auto prefix = newDataPrefix(family);
  count.withNewData = countIntervals(rowKey(prefix, ""), rangeEnd(prefix), prefix.size()).size();
  return count;
}

}  // namespace kestrova
