// DataManager with a manual clock and a scripted URL session: debouncing per family, what a
// tick sends, which answers mark records uploaded, request splitting, and construction.
#include "statistics/data_manager.h"

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <future>

#include "api/api.h"
#include "api/request_builder.h"
#include "storage/profile_store.h"
#include "storage/token_store.h"
#include "support/child_process.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;
using testing::utc;

// Scripted answers besides HTTP statuses: a transport error, or a completion without an HTTP
// response.
constexpr int kTransportError = -1;
constexpr int kNoResponse = 0;

// Records every request and completes it with the next scripted answer (200 when the script is
// empty), or keeps the completions while held. Its mutex owns the requests, the
// script and the held completions.
class ScriptedSession : public URLSession {
 public:
  struct Task : URLSessionDataTask {
    std::function<void()> run;
    void resume() override { run(); }
    void cancel() override {}
  };

  std::shared_ptr<URLSessionDataTask> dataTask(URLRequest request,
                                               DataTaskCompletion completion) override {
    auto task = std::make_shared<Task>();
    task->run = [this, request = std::move(request), completion] {
      std::unique_lock lock(mutex_);
      requests_.push_back(request);
      int status = 200;
      if (!script_.empty()) {
        status = script_.front();
        script_.pop_front();
      }
      auto complete = [status, completion, url = request.url] {
        if (status == kTransportError) {
          completion(std::nullopt, std::nullopt, Error{"NSURLErrorDomain", -1004, "refused"});
        } else if (status == kNoResponse) {
          completion(std::nullopt, std::nullopt, std::nullopt);
        } else {
          completion(Bytes{}, HTTPURLResponse{url, status, {}}, std::nullopt);
        }
      };
      if (hold_) {
        held_.push_back(std::move(complete));
        return;
      }
      lock.unlock();
      complete();
    };
    return task;
  }
  void invalidateAndCancel() override {}

  void script(std::vector<int> statuses) {
    std::lock_guard lock(mutex_);
    script_.assign(statuses.begin(), statuses.end());
  }
  std::vector<URLRequest> requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
  }
  // While holding, answers wait; ending the hold gives them and the next ones at once.
  void hold(bool holding) {
    std::unique_lock lock(mutex_);
    hold_ = holding;
    auto held = std::exchange(held_, {});
    lock.unlock();
    for (const auto& complete : held) {
      complete();
    }
  }

 private:
  mutable std::mutex mutex_;
  bool hold_ = false;
  std::vector<std::function<void()>> held_;
  std::vector<URLRequest> requests_;
  std::deque<int> script_;
};

ObjectType type(std::string_view identifier) {
  return ObjectType::quantityType(identifier).value();
}

std::vector<Statistics> heartRates(Date from, int count, double average = 70) {
  std::vector<Statistics> list;
  for (int i = 0; i < count; ++i) {
    StatisticsValues values;
    values.average = average;
    values.minimum = average - 10;
    values.maximum = average + 10;
    const auto start = from + minutes(15 * i);
    list.push_back(Statistics(type(kHeartRateIdentifier), start, start + minutes(15), values, {}));
  }
  return list;
}

std::vector<Statistics> steps(Date start, Date end, double value) {
  StatisticsValues values;
  values.sum = value;
  return {Statistics(type(kStepCountIdentifier), start, end, values, {})};
}

nlohmann::json body(const URLRequest& request) {
  return nlohmann::json::parse(request.httpBody.value());
}

class DataManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    test_ = testing::makeTestPlatform(dir_.path());
    log_ = testing::CapturedLog::install();
    session_ = std::make_shared<ScriptedSession>();
    api_ =
        std::make_shared<API>(*URLComponents::parse("https://kestrova.test/api/"), *test_.platform,
                              [session = session_](URLSessionConfiguration) { return session; });
    ProfileStore(test_.platform->defaults).store(Profile{"p1"});
    TokenStore(test_.platform->secureStore, test_.platform->applicationIdentifier)
        .saveToken("token-of-profile-p1", "p1");
    manager_ = make(utc(2024, 1, 1));
  }
  void TearDown() override {
    manager_.reset();
    log_->uninstall();
    installPlatform(nullptr);
  }

  std::shared_ptr<DataManager> make(std::optional<Date> startDate) {
    return DataManager::make(*api_, startDate,
                             DataManager::Environment{test_.platform->defaults, test_.clock,
                                                      test_.platform->dispatcher});
  }
  std::shared_ptr<DispatchQueue> queue() const {
    return test_.platform->dispatcher->sharedSerialQueue(DataManager::kStatisticsQueueLabel,
                                                         QualityOfService::utility);
  }

  // Moves the clock and lets everything it set off finish: the ticks on the statistics queue,
  // the requests on the API queue and the marking back on the statistics queue.
  void advance(std::chrono::nanoseconds by) {
    queue()->sync([] {});
    test_.clock->advance(by);
    settle();
  }
  // A tick sends its pages one after the other: each accepted page queues the next.
  void settle() {
    do {
      queue()->sync([] {});
      testing::eventually([&] { return api_->apiQueue()->operationCount() == 0; }, seconds(20));
      queue()->sync([] {});
    } while (api_->apiQueue()->operationCount() != 0);
  }
  std::size_t sent() const { return session_->requests().size(); }
  void storeBeats(int count, Date from, double average = 70) {
    manager_->storeHeartRateStatistics(heartRates(from, count, average),
                                       DataManager::currentEpoch());
  }

  testing::TempDir dir_;
  testing::TestPlatform test_;
  std::shared_ptr<testing::CapturedLog> log_;
  std::shared_ptr<ScriptedSession> session_;
  std::shared_ptr<API> api_;
  std::shared_ptr<DataManager> manager_;
  const Date nine_ = utc(2024, 3, 1, 9);
};

TEST_F(DataManagerTest, BatchesOneSecondApartUploadOnceThreeSecondsAfterTheLast) {
  for (int batch = 0; batch < 3; ++batch) {
    storeBeats(1, nine_ + minutes(15 * batch));
    advance(seconds(1));
  }
  advance(milliseconds(1999));
  EXPECT_EQ(sent(), 0u);
  advance(milliseconds(1));
  ASSERT_EQ(sent(), 1u);

  const auto request = session_->requests()[0];
  EXPECT_EQ(request.url, "https://kestrova.test/api/v1.3/ingest/bulk/");
  const HTTPHeaders expected = {{"Content-Type", "application/json"},
                                {"Authorization", "Bearer token-of-profile-p1"},
                                {"Source", "Apple"},
                                {"Version", std::string(versionText())}};
  EXPECT_EQ(request.headers, expected);
  const auto points = body(request);
  ASSERT_EQ(points.size(), 3u);
  EXPECT_EQ(points[0]["header"]["id"], "p1-ks-heart-rate-sample-2024-03-01T10:00:00.000");
  EXPECT_EQ(points[2]["header"]["id"], "p1-ks-heart-rate-sample-2024-03-01T10:30:00.000");
  EXPECT_TRUE(log_->contains("Heart rate samples for profile p1 has been uploaded successfully"));
}

TEST_F(DataManagerTest, EachFamilyArmsOnlyItsOwnTimer) {
  const std::pair<std::function<void()>, std::string> families[] = {
      {[&] {
         manager_->storeDailySummaryStatistics(
             steps(utc(2024, 2, 29, 23), utc(2024, 3, 1, 23), 8000), DataManager::currentEpoch());
       },
       "daily-summary"},
      {[&] {
         manager_->storeDailyDetailStatistics(steps(nine_, nine_ + minutes(15), 120),
                                              type(kStepCountIdentifier),
                                              DataManager::currentEpoch());
       },
       "ks-daily-detail"},
      {[&] { storeBeats(1, nine_); }, "ks-heart-rate-sample"},
  };
  for (const auto& [store, schema] : families) {
    const auto before = sent();
    store();
    queue()->sync([] {});
    EXPECT_EQ(test_.clock->armedTimerCount(), 1u) << schema;
    advance(seconds(3));
    ASSERT_EQ(sent(), before + 1) << schema;
    EXPECT_EQ(body(session_->requests().back()).at(0)["header"]["schema_id"]["name"], schema);
  }
}

TEST_F(DataManagerTest, OnlyStatus200OrANonHttpAnswerMarksTheRecords) {
  struct Case {
    const char* name;
    int status;
    bool marked;
  };
  const Case cases[] = {
      {"201", 201, false},
      {"500", 500, false},
      {"transport error", kTransportError, false},
      {"no HTTP response", kNoResponse, true},
  };
  for (const auto& c : cases) {
    // On the queue that owns the store: the previous case may still be marking.
    queue()->sync(
        [&] { StatisticsStore(test_.platform->defaults, test_.clock, std::nullopt).deleteAll(); });
    manager_ = make(utc(2024, 1, 1));
    storeBeats(1, nine_);
    session_->script({c.status});
    const auto before = sent();
    advance(seconds(3));
    ASSERT_EQ(sent(), before + 1) << c.name;

    // The next tick, armed by an unchanged batch, resends only what was not marked.
    storeBeats(1, nine_);
    advance(seconds(3));
    EXPECT_EQ(sent(), before + (c.marked ? 1 : 2)) << c.name;
  }
  EXPECT_TRUE(
      log_->contains("Heart rate samples for profile p1 has NOT been uploaded successfully"));
  EXPECT_TRUE(log_->contains("Error executing heart rate samples upload request: refused"));
}

TEST_F(DataManagerTest, LargeUploadsAreSplitAndEachPartIsMarkedOnItsOwn) {
  storeBeats(5001, nine_);
  session_->script({200, 503});
  advance(seconds(3));
  ASSERT_EQ(sent(), 2u);
  EXPECT_EQ(body(session_->requests()[0]).size(), 5000u);
  EXPECT_EQ(body(session_->requests()[1]).size(), 1u);

  storeBeats(1, nine_);
  advance(seconds(3));
  ASSERT_EQ(sent(), 3u);
  const auto resent = body(session_->requests()[2]);
  ASSERT_EQ(resent.size(), 1u);
  EXPECT_EQ(resent[0], body(session_->requests()[1])[0]);
}

TEST_F(DataManagerTest, ATickWaitsForThePreviousAnswerAndAFigureGrownMeanwhileStaysNew) {
  session_->hold(true);
  storeBeats(2, nine_);
  queue()->sync([] {});
  test_.clock->advance(seconds(3));
  testing::eventually([&] { return sent() == 1; }, seconds(20));
  ASSERT_EQ(sent(), 1u);
  // While the first request is unanswered the first figure changes and its tick comes.
  test_.clock->advance(seconds(1));
  storeBeats(1, nine_, 75);
  queue()->sync([] {});
  test_.clock->advance(seconds(3));
  queue()->sync([] {});
  EXPECT_EQ(sent(), 1u);

  // The answer marks what was read at the first tick; the changed figure goes with the next.
  // The tick ends when its last request is released, which the operation queue may do after
  // the count reaches zero.
  session_->hold(false);
  testing::eventually([&] { return sent() == 2; }, seconds(20));
  settle();
  ASSERT_EQ(sent(), 2u);
  const auto resent = body(session_->requests()[1]);
  ASSERT_EQ(resent.size(), 1u);
  EXPECT_EQ(resent[0]["body"]["avg"], 75);
}

TEST_F(DataManagerTest,
       NothingIsSentWithoutAProfileOrAManagerOrForAnEndedConnectionAndTheNextManagerSendsTheRest) {
  ProfileStore(test_.platform->defaults).remove();
  storeBeats(2, nine_);
  advance(seconds(3));
  EXPECT_EQ(sent(), 0u);

  ProfileStore(test_.platform->defaults).store(Profile{"p1"});
  storeBeats(2, nine_);
  storeBeats(1, utc(2024, 2, 29, 22));
  manager_.reset();
  advance(seconds(3));
  EXPECT_EQ(sent(), 0u);
  // Work already queued does not depend on the manager: the figures were recorded. The next
  // manager, starting on 2024-03-01 (Berlin), prunes the day before and sends the figures
  // still new without waiting for a new batch.
  manager_ = make(utc(2024, 3, 1, 8));
  settle();
  ASSERT_EQ(sent(), 1u);
  EXPECT_EQ(body(session_->requests()[0]).size(), 2u);
  EXPECT_EQ(test_.platform->defaults->keys("heart-rate-samples/"),
            (std::vector<std::string>{"heart-rate-samples/2024-03-01T09:00:00.000",
                                      "heart-rate-samples/2024-03-01T09:15:00.000"}));

  // A pass started before a disconnect delivers after it: nothing of it may come back.
  const auto ended = DataManager::currentEpoch();
  manager_->deleteAllStoredStatistics();
  manager_->storeHeartRateStatistics(heartRates(nine_, 2), ended);
  std::promise<bool> current;
  manager_->afterRecorded(ended, [&](bool isCurrent) { current.set_value(isCurrent); });
  EXPECT_FALSE(current.get_future().get());
  advance(seconds(3));
  EXPECT_EQ(sent(), 1u);
  EXPECT_TRUE(test_.platform->defaults->keys("heart-rate-samples").empty());
}

}  // namespace
}  // namespace kestrova
