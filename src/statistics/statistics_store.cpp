#include "statistics/statistics_store.h"

#include <algorithm>
#include <array>
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

std::optional<Bytes> encode(const Dates2Value& map, std::string_view key) {
  try {
    return toBytes(toJson(StoredStatistics{map}).dump());
  } catch (const std::exception& e) {
    logError(kCategory, kCouldNotEncode, {std::string(key) + ": " + e.what()});
    return std::nullopt;
  }
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
bool storeSum(Dates2Value& map, const Statistics& statistics, const std::string& intervalKey,
              const Unit& unit, Date now) {
  const auto value = valueIn(statistics.sumQuantity(), unit);
  if (!value) {
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
                                         bool resting) {
  // Each figure covers the whole day, so it carries the day's interval.
  std::vector<HeartRate> heartRates;
  auto add = [&](const std::optional<Quantity>& quantity, body::HeartRate type) {
    if (auto value = valueIn(quantity, unit)) {
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
    auto* all = new std::vector<std::string>(detailKeys());
    all->emplace_back(kHeartRateSamplesKey);
    for (auto& key : summaryKeys()) {
      all->push_back(std::move(key));
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

// The maps a batch touches, each loaded once, and the keys it changed, saved together.
class StatisticsStore::Batch {
 public:
  explicit Batch(StatisticsStore& store) : store_(store) {}

  Dates2Value& map(std::string_view key) {
    auto found = maps_.find(key);
    if (found == maps_.end()) {
      found = maps_.emplace(std::string(key), store_.load(key).value_or(Dates2Value{})).first;
    }
    return found->second;
  }
  void changed(std::string_view key) { changed_.emplace(key); }

  void commit() {
    std::vector<std::pair<std::string, DefaultsValue>> values;
    for (const auto& key : changed_) {
      if (auto bytes = encode(maps_.at(key), key)) {
        values.emplace_back(key, std::move(*bytes));
      }
    }
    if (!values.empty()) {
      store_.defaults_->setObjects(std::move(values));
    }
  }

 private:
  StatisticsStore& store_;
  std::map<std::string, Dates2Value, std::less<>> maps_;
  std::set<std::string, std::less<>> changed_;
};

StatisticsStore::StatisticsStore(std::shared_ptr<DefaultsStore> defaults,
                                 std::shared_ptr<Clock> clock, std::optional<Date> startDate)
    : defaults_(std::move(defaults)), clock_(std::move(clock)), startDate_(startDate) {}

std::optional<Dates2Value> StatisticsStore::load(std::string_view key) const {
  const auto json = loadJson(*defaults_, key);
  if (!json) {
    return std::nullopt;
  }
  auto stored = storedStatisticsFromJson(*json);
  if (!stored) {
    logError(kCategory, kCouldNotDecodeObject,
             {"the data under " + std::string(key) + " is not stored statistics"});
    return std::nullopt;
  }
  return std::move(stored->dates2Value);
}

void StatisticsStore::save(const Dates2Value& map, std::string_view key) {
  if (auto bytes = encode(map, key)) {
    defaults_->setObject(key, std::move(*bytes));
  }
}

void StatisticsStore::storeHeartRateStatistics(const std::vector<Statistics>& statistics) {
  const auto unit = Unit::countPerMinute();
  const auto now = clock_->now();
  Batch batch(*this);
  auto& map = batch.map(kHeartRateSamplesKey);
  for (const auto& interval : statistics) {
    const auto average = valueIn(interval.averageQuantity(), unit);
    const auto minimum = valueIn(interval.minimumQuantity(), unit);
    const auto maximum = valueIn(interval.maximumQuantity(), unit);
    if (!average || !minimum || !maximum) {
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
    batch.changed(kHeartRateSamplesKey);
  }
  batch.commit();
}

void StatisticsStore::storeDailyDetailStatistics(const std::vector<Statistics>& statistics,
                                                 const ObjectType& quantityType) {
  const auto key = detailKey(quantityType.identifier());
  const auto unit = unitOf(quantityType);
  if (!key || !unit) {
    return;
  }
  const auto now = clock_->now();
  Batch batch(*this);
  auto& map = batch.map(*key);
  for (const auto& interval : statistics) {
    if (storeSum(map, interval, timestampString(interval.startDate()), *unit, now)) {
      batch.changed(*key);
    }
  }
  batch.commit();
}

void StatisticsStore::storeDailySummaryStatistics(const std::vector<Statistics>& statistics) {
  const auto now = clock_->now();
  const auto& days = DayFormatter::shared();
  Batch batch(*this);
  for (const auto& day : statistics) {
    const auto& type = day.quantityType();
    const auto unit = unitOf(type);
    if (!unit) {
      continue;
    }
    const auto key = summaryKey(type.identifier());
    auto& map = batch.map(key);
    const auto intervalKey = days.string(day.startDate());
    const bool resting = type.identifier() == kRestingHeartRateIdentifier;
    if (resting || type.identifier() == kHeartRateIdentifier) {
      auto heartRates = summaryHeartRates(day, *unit, resting);
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
      batch.changed(key);
    } else if (storeSum(map, day, intervalKey, *unit, now)) {
      batch.changed(key);
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

std::vector<HeartRateSample> StatisticsStore::heartRateSamples() const {
  std::vector<HeartRateSample> samples;
  for (const auto& [intervalKey, entry] : load(kHeartRateSamplesKey).value_or(Dates2Value{})) {
    if (entry.heartRateSample) {
      samples.push_back(*entry.heartRateSample);
      samples.back().hasNewData = hasNewData(entry);
    }
  }
  return samples;
}

std::vector<DailyDetailSample> StatisticsStore::dailyDetailSamples() const {
  // Assembly: one record per 15-minute interval stored under any detail key; distance is the
  // sum of the five distance types (a person covers each metre in one way only) and the total
  // energy is basal plus active (the platform's two parts of the energy burned). The record is
  // new when any figure behind it is.
  std::map<std::string, DailyDetailSample> byInterval;
  for (const auto& type : kDetailTypes) {
    for (const auto& [intervalKey, entry] : load(type.key).value_or(Dates2Value{})) {
      if (!entry.value) {
        continue;
      }
      const SummedValue summed{entry.startDate, entry.endDate, *entry.value, hasNewData(entry)};
      auto [record, created] = byInterval.try_emplace(intervalKey);
      if (created) {
        record->second.startDate = summed.startDate;
        record->second.endDate = summed.endDate;
      }
      auto& sample = record->second;
      sample.hasNewData = sample.hasNewData || summed.hasNewData;
      switch (type.figure) {
        case Figure::steps:
          sample.stepCount += summed.value;
          break;
        case Figure::distance:
          sample.distance += summed.value;
          break;
        case Figure::basalEnergy:
        case Figure::activeEnergy:
          sample.totalEnergyBurned += summed.value;
          break;
      }
    }
  }
  std::vector<DailyDetailSample> samples;
  samples.reserve(byInterval.size());
  for (auto& [intervalKey, sample] : byInterval) {
    samples.push_back(std::move(sample));
  }
  return samples;
}

std::vector<DailySummary> StatisticsStore::dailySummaries() const {
  // Assembly: one summary per day key under any summary key, sums as in the detail read;
  // heartRates holds the day's average, minimum and maximum heart rate, then its resting
  // heart rate, each framed by the day's interval.
  std::map<std::string, DailySummary> byDay;
  for (const auto& type : dailySummaryTypes()) {
    const auto identifier = type.identifier();
    const auto detail = std::find_if(kDetailTypes.begin(), kDetailTypes.end(),
                                     [&](const auto& d) { return d.identifier == identifier; });
    for (const auto& [day, entry] : load(summaryKey(identifier)).value_or(Dates2Value{})) {
      auto& summary = byDay[day];
      summary.date = day;
      summary.hasNewData = summary.hasNewData || hasNewData(entry);
      if (entry.heartRates) {
        summary.heartRates.insert(summary.heartRates.end(), entry.heartRates->begin(),
                                  entry.heartRates->end());
      }
      if (!entry.value || detail == kDetailTypes.end()) {
        continue;
      }
      switch (detail->figure) {
        case Figure::steps:
          summary.stepCount += *entry.value;
          break;
        case Figure::distance:
          summary.distance += *entry.value;
          break;
        case Figure::basalEnergy:
          summary.basalEnergyBurned += *entry.value;
          summary.totalEnergyBurned += *entry.value;
          break;
        case Figure::activeEnergy:
          summary.activeEnergyBurned += *entry.value;
          summary.totalEnergyBurned += *entry.value;
          break;
      }
    }
  }
  std::vector<DailySummary> summaries;
  summaries.reserve(byDay.size());
  for (auto& [day, summary] : byDay) {
    summaries.push_back(std::move(summary));
  }
  return summaries;
}

void StatisticsStore::markUploaded(const std::vector<std::string>& keys,
                                   const std::vector<std::string>& intervalKeys, Date uploadedAt) {
  Batch batch(*this);
  for (const auto& key : keys) {
    auto& map = batch.map(key);
    for (const auto& intervalKey : intervalKeys) {
      if (auto entry = map.find(intervalKey); entry != map.end()) {
        entry->second.uploadedAt = uploadedAt;
        batch.changed(key);
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
  markUploaded({std::string(kHeartRateSamplesKey)}, intervalKeys, uploadedAt);
}

void StatisticsStore::markUploaded(const std::vector<DailyDetailSample>& records, Date uploadedAt) {
  std::vector<std::string> intervalKeys;
  for (const auto& record : records) {
    intervalKeys.push_back(timestampString(record.startDate));
  }
  markUploaded(detailKeys(), intervalKeys, uploadedAt);
}

void StatisticsStore::markUploaded(const std::vector<DailySummary>& records, Date uploadedAt) {
  std::vector<std::string> intervalKeys;
  for (const auto& record : records) {
    intervalKeys.push_back(record.date);
  }
  markUploaded(summaryKeys(), intervalKeys, uploadedAt);
}

void StatisticsStore::deleteBefore(Date date) {
  // NOTE: a plain text comparison on purpose: a timestamp key of the cut-off day sorts after
  // the day text itself, so the whole cut-off day survives, whatever the entry's time.
  const auto cutOff = DayFormatter::shared().string(date);
  Batch batch(*this);
  for (const auto& key : statisticsKeys()) {
    if (!defaults_->data(key)) {
      continue;
    }
    auto& map = batch.map(key);
    map.erase(map.begin(), map.lower_bound(cutOff));
    batch.changed(key);
  }
  batch.commit();
  logInfo(kCategory, kDeletedBefore, {timestampString(date)});
}

void StatisticsStore::deleteAll() {
  for (const auto& key : statisticsKeys()) {
    defaults_->removeObject(key);
  }
  logInfo(kCategory, kDeletedAll);
}

}  // namespace kestrova
