#include "statistics/data_manager.h"

#include <algorithm>
#include <atomic>
#include <functional>
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

// Bumped by every delete-all; shared by every manager, as the statistics queue is, so that a
// pass of a replaced manager cannot record into a store that was emptied since.
std::atomic<std::uint64_t> epoch{0};

// Ends the tick of a page's request once, answered or dropped unanswered (an operation
// cancelled before it starts never completes), so that the family's next tick cannot wait
// forever.
struct PageAnswer {
  std::function<void(bool accepted, std::optional<Date> retryNotBefore)> finish;
  bool answered = false;

  PageAnswer() = default;
  PageAnswer(const PageAnswer&) = delete;
  PageAnswer& operator=(const PageAnswer&) = delete;
  void answer(bool accepted, std::optional<Date> retryNotBefore) {
    answered = true;
    finish(accepted, retryNotBefore);
  }
  ~PageAnswer() {
    if (answered) {
      return;
    }
    try {
      finish(false, std::nullopt);
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
  manager->queue_->async([store = manager->store_, startDate] {
    store->migrate();
    if (startDate) {
      store->deleteBefore(*startDate);
    }
  });
  // Figures left new by a failed upload or a restart go now: a pass sends only what changed
  // since the last one, so no later batch may come to arm the timers.
  manager->uploadNow();
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
  const auto now = environment_.clock->now();
  if (state.notBefore && *state.notBefore > now) {
    // The tick comes back once the pause is over.
    timer(family).schedule(*state.notBefore - now, std::chrono::nanoseconds{0});
    return;
  }
  state.running = true;
  // Taken on the statistics queue before the first read: a figure stored later is updated
  // after this time and stays new even once its page is marked.
  uploadPage(family, "", environment_.clock->now());
}

void DataManager::tickAnswered(Family family) {
  auto& state = ticks_[static_cast<std::size_t>(family)];
  state.running = false;
  if (std::exchange(state.again, false)) {
    tick(family);
  }
}

void DataManager::uploadPage(Family family, std::string after, Date tickTime) {
  switch (family) {
    case Family::heartRateSamples:
      upload(family, store_->newHeartRateSamples(after, kMaximumDataPointsPerRequest), tickTime,
             [](const HeartRateSample& sample, const std::string& profileId, Date) {
               return encodeHeartRateSample(sample, profileId);
             });
      return;
    case Family::dailyDetailSamples:
      upload(family, store_->newDailyDetailSamples(after, kMaximumDataPointsPerRequest), tickTime,
             [](const DailyDetailSample& sample, const std::string& profileId, Date) {
               return encodeDailyDetailSample(sample, profileId);
             });
      return;
    case Family::dailySummaries:
      upload(family, store_->newDailySummaries(after, kMaximumDataPointsPerRequest), tickTime,
             [](const DailySummary& summary, const std::string& profileId, Date now) {
               return encodeDailySummary(summary, profileId, now);
             });
      return;
  }
}

std::uint64_t DataManager::currentEpoch() {
  return epoch.load();
}

void DataManager::storeHeartRateStatistics(std::vector<Statistics> statistics,
                                           std::uint64_t epoch) {
  queue_->async([store = store_, statistics = std::move(statistics), epoch] {
    if (epoch == currentEpoch()) {
      store->storeHeartRateStatistics(statistics);
    }
  });
  heartRateSamplesTimer().schedule(kUploadDelay, std::chrono::nanoseconds{0});
}

void DataManager::storeDailyDetailStatistics(std::vector<Statistics> statistics,
                                             ObjectType quantityType, std::uint64_t epoch) {
  queue_->async([store = store_, statistics = std::move(statistics), quantityType, epoch] {
    if (epoch == currentEpoch()) {
      store->storeDailyDetailStatistics(statistics, quantityType);
    }
  });
  dailyDetailSamplesTimer().schedule(kUploadDelay, std::chrono::nanoseconds{0});
}

void DataManager::storeDailySummaryStatistics(std::vector<Statistics> statistics,
                                              std::uint64_t epoch) {
  queue_->async([store = store_, statistics = std::move(statistics), epoch] {
    if (epoch == currentEpoch()) {
      store->storeDailySummaryStatistics(statistics);
    }
  });
  dailySummaryTimer().schedule(kUploadDelay, std::chrono::nanoseconds{0});
}

void DataManager::afterRecorded(std::uint64_t epoch, std::function<void(bool current)> then) {
  queue_->async([epoch, then = std::move(then)] { then(epoch == currentEpoch()); });
}

void DataManager::deleteAllStoredStatistics() {
  // Waits: a host that exits (or is killed) right after disconnecting would otherwise keep
  // figures marked as sent, which the next connection then never receives.
  queue_->sync([store = store_] {
    ++epoch;
    store->deleteAll();
  });
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

template <class Record, class Encode>
void DataManager::upload(Family family, StatisticsPage<Record> page, Date tickTime,
                         const Encode& encode) {
  const auto& texts = family == Family::heartRateSamples     ? kHeartRateTexts
                      : family == Family::dailyDetailSamples ? kDailyDetailTexts
                                                             : kDailySummaryTexts;
  const auto profile = ProfileStore(environment_.defaults).storedProfile();
  // Pages whose intervals all lie before the start date hold no records; the next one may.
  if (profile && page.records.empty() && !page.complete) {
    uploadPage(family, page.last, tickTime);
    return;
  }
  if (!profile || page.records.empty()) {
    tickAnswered(family);
    return;
  }
  nlohmann::json points = nlohmann::json::array();
  for (const auto& record : page.records) {
    points.push_back(encode(record, profile->id, tickTime));
  }
  URLRequestInfo info;
  info.path = std::string(kBulkIngestPath);
  info.httpMethod = HttpMethod::POST;
  try {
    info.body = toBytes(points.dump());
  } catch (const std::exception& e) {
    // Never sent; the tick goes on with the next page.
    logError(kCategory, texts.error, {e.what()});
    if (page.complete) {
      tickAnswered(family);
    } else {
      uploadPage(family, page.last, tickTime);
    }
    return;
  }
  points = nullptr;
  info.extraHeaders = HTTPHeaders{{std::string(kSourceHeader), std::string(kSourceValue)},
                                  {std::string(kVersionHeader), std::string(versionText())}};
  const std::uint64_t dataPoints = page.records.size();
  auto answer = std::make_shared<PageAnswer>();
  answer->finish = [weak = weak_from_this(), store = store_, queue = queue_, family, tickTime,
                    sent = std::move(page.records), last = std::move(page.last),
                    complete = page.complete](bool accepted,
                                              std::optional<Date> retryNotBefore) mutable {
    queue->async([weak, store, family, tickTime, sent = std::move(sent), last = std::move(last),
                  complete, accepted, retryNotBefore] {
      auto self = weak.lock();
      if (!self) {
        return;
      }
      self->ticks_[static_cast<std::size_t>(family)].notBefore = retryNotBefore;
      if (!accepted) {
        // What is left stays new and goes with a later tick.
        self->tickAnswered(family);
        return;
      }
      store->markUploaded(sent, tickTime);
      if (complete) {
        self->tickAnswered(family);
      } else {
        self->uploadPage(family, last, tickTime);
      }
    });
  };
  auto completion = [texts, answer, profileId = profile->id, recorder = api_.recorder(),
                     clock = environment_.clock,
                     dataPoints](std::optional<Bytes> data, std::optional<HTTPURLResponse> response,
                                 std::optional<Error> error) {
    // A completion without an HTTP answer counts as success, as for the upload files.
    const bool accepted = isAccepted(response, error);
    if (error) {
      logError(kCategory, texts.error, {error->description});
    } else if (!accepted) {
      logError(kCategory, texts.failure, {profileId});
    } else {
      logInfo(kCategory, texts.success, {profileId});
    }
    const auto notBefore = response ? retryNotBefore(*response, clock->now()) : std::nullopt;
    recorder->statisticsAnswered(dataPoints, accepted, std::move(data), std::move(response),
                                 std::move(error));
    answer->answer(accepted, notBefore);
  };
  // NOTE: the operation carries the profile's token so that the request is authorised with
  // the bearer stored for it: the ingest endpoint refuses requests without one.
  api_.apiQueue()->addOperation(
      std::make_shared<ApiOperation>(std::move(info), api_.session(), Token{true, profile->id},
                                     api_.baseComponents(), api_, std::move(completion)));
}

}  // namespace kestrova
