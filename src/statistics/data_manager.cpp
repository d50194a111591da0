#include "statistics/data_manager.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <utility>

#include "api/api_constants.h"
#include "api/request_builder.h"
#include "api/upload.h"
#include "platform/log.h"
#include "storage/profile_store.h"

namespace kestrova {
namespace {

constexpr std::string_view kCategory = "statistics";
constexpr std::string_view kBulkIngestPath = "v1.3/ingest/bulk/";
constexpr int kStatusOK = 200;

struct FamilyTexts {
  std::string_view error;
  std::string_view success;
  std::string_view failure;
};

constexpr FamilyTexts kHeartRateTexts{
    "Error executing heart rate samples upload request: %{public}@",
    "Heart rate samples for profile %@ has been uploaded successfully",
    "Heart rate samples for profile %@ has NOT been uploaded successfully"};
constexpr FamilyTexts kDailyDetailTexts{
    "Error executing daily detail samples upload request: %{public}@",
    "Daily detail samples for profile %@ has been uploaded successfully",
    "Daily detail samples for profile %@ has NOT been uploaded successfully"};
constexpr FamilyTexts kDailySummaryTexts{
    "Error executing daily summaries upload request: %{public}@",
    "Daily summaries for profile %@ has been uploaded successfully",
    "Daily summaries for profile %@ has NOT been uploaded successfully"};

constexpr std::string_view kMarkFailed = "Cannot record the statistics uploads: %{public}@";

// The accepted requests of one tick, marked together when the tick ends: one load and save per
// key for the tick instead of one per request, which made a first upload of years of figures
// quadratic. The tick ends when the last of its requests is done with, answered or dropped
// unanswered (an operation cancelled before it starts never completes), so the family's next
// tick cannot wait forever. `accepted` is owned by the statistics queue.
template <class Record>
struct TickMarks {
  std::vector<Record> accepted;
  std::function<void(std::vector<Record>)> finish;

  TickMarks() = default;
  TickMarks(const TickMarks&) = delete;
  TickMarks& operator=(const TickMarks&) = delete;
  ~TickMarks() {
    try {
      finish(std::move(accepted));
    } catch (const std::exception& e) {
      logError(kCategory, kMarkFailed, {e.what()});
    }
  }
};

}  // namespace

std::shared_ptr<DataManager> DataManager::make(API api, std::optional<Date> startDate,
                                               Environment environment) {
  auto manager = std::shared_ptr<DataManager>(
      new DataManager(std::move(api), startDate, std::move(environment)));
  // Files kept by a failed upload, a lost token or a restart get their next try now.
  manager->api_.uploadPending();
  if (startDate) {
    manager->queue_->async(
        [store = manager->store_, date = *startDate] { store->deleteBefore(date); });
  }
  return manager;
}

DataManager::DataManager(API api, std::optional<Date> startDate, Environment environment)
    : api_(std::move(api)),
      environment_(std::move(environment)),
      store_(
          std::make_shared<StatisticsStore>(environment_.defaults, environment_.clock, startDate)),
      queue_(environment_.dispatcher->sharedSerialQueue(kStatisticsQueueLabel,
                                                        QualityOfService::utility)) {}

DataManager::~DataManager() = default;

Timer& DataManager::timer(Family family) {
  std::lock_guard lock(mutex_);
  auto& slot = family == Family::heartRateSamples     ? heartRateSamplesTimer_
               : family == Family::dailyDetailSamples ? dailyDetailSamplesTimer_
                                                      : dailySummaryTimer_;
  if (!slot) {
    // NOTE: the tick runs on the statistics queue rather than a concurrent one, so it reads
    // the store only between whole batches and never misses a result still queued.
    slot = environment_.clock->makeTimer(queue_, [weak = weak_from_this(), family] {
      if (auto self = weak.lock()) {
        self->tick(family);
      }
    });
  }
  return *slot;
}

void DataManager::tick(Family family) {
  // NOTE: one tick of a family at a time: a tick while the previous one is unanswered would
  // send again everything that is not marked yet. It runs once the last answer is in.
  auto& state = ticks_[static_cast<std::size_t>(family)];
  if (state.running) {
    state.again = true;
    return;
  }
  switch (family) {
    case Family::heartRateSamples:
      uploadHeartRateSamples();
      break;
    case Family::dailyDetailSamples:
      uploadDailyDetailSamples();
      break;
    case Family::dailySummaries:
      uploadDailySummaries();
      break;
  }
}

void DataManager::tickAnswered(Family family) {
  auto& state = ticks_[static_cast<std::size_t>(family)];
  state.running = false;
  if (std::exchange(state.again, false)) {
    tick(family);
  }
}

void DataManager::storeHeartRateStatistics(std::vector<Statistics> statistics) {
  queue_->async([store = store_, statistics = std::move(statistics)] {
    store->storeHeartRateStatistics(statistics);
  });
  heartRateSamplesTimer().schedule(kUploadDelay, std::chrono::nanoseconds{0});
}

void DataManager::storeDailyDetailStatistics(std::vector<Statistics> statistics,
                                             ObjectType quantityType) {
  queue_->async([store = store_, statistics = std::move(statistics), quantityType] {
    store->storeDailyDetailStatistics(statistics, quantityType);
  });
  dailyDetailSamplesTimer().schedule(kUploadDelay, std::chrono::nanoseconds{0});
}

void DataManager::storeDailySummaryStatistics(std::vector<Statistics> statistics) {
  queue_->async([store = store_, statistics = std::move(statistics)] {
    store->storeDailySummaryStatistics(statistics);
  });
  dailySummaryTimer().schedule(kUploadDelay, std::chrono::nanoseconds{0});
}

void DataManager::deleteAllStoredStatistics() {
  // Waits: a host that exits (or is killed) right after disconnecting would otherwise keep
  // figures marked as sent, which the next connection then never receives.
  queue_->sync([store = store_] { store->deleteAll(); });
}

void DataManager::uploadNow() {
  for (auto family :
       {Family::heartRateSamples, Family::dailyDetailSamples, Family::dailySummaries}) {
    queue_->async([weak = weak_from_this(), family] {
      if (auto self = weak.lock()) {
        self->tick(family);
      }
    });
  }
}

void DataManager::uploadHeartRateSamples() {
  upload(Family::heartRateSamples, store_->heartRateSamples(),
         [](const HeartRateSample& sample, const std::string& profileId, Date) {
           return encodeHeartRateSample(sample, profileId);
         });
}

void DataManager::uploadDailyDetailSamples() {
  upload(Family::dailyDetailSamples, store_->dailyDetailSamples(),
         [](const DailyDetailSample& sample, const std::string& profileId, Date) {
           return encodeDailyDetailSample(sample, profileId);
         });
}

void DataManager::uploadDailySummaries() {
  upload(Family::dailySummaries, store_->dailySummaries(),
         [](const DailySummary& summary, const std::string& profileId, Date now) {
           return encodeDailySummary(summary, profileId, now);
         });
}

template <class Record, class Encode>
void DataManager::upload(Family family, std::vector<Record> records, const Encode& encode) {
  const auto& texts = family == Family::heartRateSamples     ? kHeartRateTexts
                      : family == Family::dailyDetailSamples ? kDailyDetailTexts
                                                             : kDailySummaryTexts;
  const auto profile = ProfileStore(environment_.defaults).storedProfile();
  if (!profile) {
    return;
  }
  std::erase_if(records, [](const Record& record) { return !record.hasNewData; });
  if (records.empty()) {
    return;
  }
  // Taken on the statistics queue after the read: a figure stored later is updated after
  // this time and stays new even once this upload is marked.
  const auto tickTime = environment_.clock->now();
  auto marks = std::make_shared<TickMarks<Record>>();
  marks->finish = [weak = weak_from_this(), store = store_, queue = queue_, family,
                   tickTime](std::vector<Record> accepted) {
    auto record = [weak, store, family, tickTime, accepted = std::move(accepted)] {
      auto self = weak.lock();
      if (!self) {
        return;
      }
      if (!accepted.empty()) {
        store->markUploaded(accepted, tickTime);
      }
      self->tickAnswered(family);
    };
    // Mostly the last accepted answer lets go last, on the statistics queue: recorded at once,
    // in the same work item.
    if (queue->isCurrent()) {
      record();
    } else {
      queue->async(std::move(record));
    }
  };
  ticks_[static_cast<std::size_t>(family)].running = true;
  for (std::size_t first = 0; first < records.size(); first += kMaximumDataPointsPerRequest) {
    const auto last = std::min(records.size(), first + kMaximumDataPointsPerRequest);
    std::vector<Record> sent(records.begin() + static_cast<std::ptrdiff_t>(first),
                             records.begin() + static_cast<std::ptrdiff_t>(last));
    nlohmann::json points = nlohmann::json::array();
    for (const auto& record : sent) {
      points.push_back(encode(record, profile->id, tickTime));
    }
    URLRequestInfo info;
    info.path = std::string(kBulkIngestPath);
    info.httpMethod = HttpMethod::POST;
    try {
      info.body = toBytes(points.dump());
    } catch (const std::exception& e) {
      // Never sent; the other requests of the tick still go.
      logError(kCategory, texts.error, {e.what()});
      continue;
    }
    info.extraHeaders = HTTPHeaders{{std::string(kSourceHeader), std::string(kSourceValue)},
                                    {std::string(kVersionHeader), std::string(versionText())}};
    auto completion = [queue = queue_, texts, marks, profileId = profile->id,
                       sent = std::move(sent)](std::optional<Bytes>,
                                               std::optional<HTTPURLResponse> response,
                                               std::optional<Error> error) mutable {
      if (error) {
        logError(kCategory, texts.error, {error->description});
        return;
      }
      // A completion without an HTTP answer counts as success, as for the upload files.
      if (response && response->statusCode != kStatusOK) {
        logError(kCategory, texts.failure, {profileId});
        return;
      }
      logInfo(kCategory, texts.success, {profileId});
      queue->async([marks, sent = std::move(sent)]() mutable {
        marks->accepted.insert(marks->accepted.end(), std::make_move_iterator(sent.begin()),
                               std::make_move_iterator(sent.end()));
        marks.reset();  // the last answer of the tick records it here, on the queue
      });
    };
    // NOTE: the operation carries the profile's token so that the request is authorised with
    // the bearer stored for it: the ingest endpoint refuses requests without one.
    api_.apiQueue()->addOperation(
        std::make_shared<ApiOperation>(std::move(info), api_.session(), Token{true, profile->id},
                                       api_.baseComponents(), api_, std::move(completion)));
  }
}

}  // namespace kestrova
