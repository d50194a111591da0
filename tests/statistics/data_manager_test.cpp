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

// How the scripted session answers a request.
struct Answer {
  std::optional<int> status;  // none: a completion without an HTTP response
  bool transportError = false;
  std::optional<std::string> retryAfter = std::nullopt;
};

// Records every request and completes it with the next scripted answer (200 when the script is
// empty): at once, or with 200 on release() while held. Its mutex owns the requests, the
// script and the held answers.
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
      const HTTPURLResponse ok{request.url, 200, {}};
      if (hold_) {
        held_.push_back([ok, completion] { completion(Bytes{}, ok, std::nullopt); });
        return;
      }
      Answer answer{200};
      if (!script_.empty()) {
        answer = script_.front();
        script_.pop_front();
      }
      lock.unlock();
      HTTPHeaders headers;
      if (answer.retryAfter) {
        headers.emplace_back("Retry-After", *answer.retryAfter);
      }
      if (answer.transportError) {
        completion(std::nullopt, std::nullopt, Error{"NSURLErrorDomain", -1004, "refused"});
      } else if (!answer.status) {
        completion(std::nullopt, std::nullopt, std::nullopt);
      } else {
        completion(Bytes{}, HTTPURLResponse{request.url, *answer.status, headers}, std::nullopt);
      }
    };
    return task;
  }
  void invalidateAndCancel() override {}

  void script(std::vector<Answer> answers) {
    std::lock_guard lock(mutex_);
    script_.assign(answers.begin(), answers.end());
  }
  std::vector<URLRequest> requests() const {
    std::lock_guard lock(mutex_);
    return requests_;
  }
  void hold() {
    std::lock_guard lock(mutex_);
    hold_ = true;
  }
  // Answers the held requests and the next ones at once.
  void release() {
    std::unique_lock lock(mutex_);
    hold_ = false;
    auto held = std::exchange(held_, {});
    lock.unlock();
    for (const auto& answer : held) {
      answer();
    }
  }

 private:
  mutable std::mutex mutex_;
  bool hold_ = false;
  std::vector<std::function<void()>> held_;
  std::vector<URLRequest> requests_;
  std::deque<Answer> script_;
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
    list.emplace_back(type(kHeartRateIdentifier), start, start + minutes(15), values,
                      std::vector<std::pair<Source, StatisticsValues>>{});
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

std::string schemaOf(const URLRequest& request) {
  return body(request).at(0)["header"]["schema_id"]["name"];
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
  EXPECT_EQ(request.httpMethod, "POST");
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

  // Uploaded and unchanged: later ticks send nothing.
  storeBeats(3, nine_);
  advance(seconds(3));
  EXPECT_EQ(sent(), 1u);
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
    EXPECT_EQ(schemaOf(session_->requests().back()), schema);
  }
}

TEST_F(DataManagerTest, OnlyStatus200OrANonHttpAnswerMarksTheRecords) {
  struct Case {
    const char* name;
    Answer answer;
    bool marked;
  };
  const Case cases[] = {
      {"201", {201}, false},
      {"204", {204}, false},
      {"500", {500}, false},
      {"transport error", {std::nullopt, true}, false},
      {"no HTTP response", {std::nullopt}, true},
  };
  for (const auto& c : cases) {
    // On the queue that owns the store: the previous case may still be marking.
    queue()->sync(
        [&] { StatisticsStore(test_.platform->defaults, test_.clock, std::nullopt).deleteAll(); });
    manager_ = make(utc(2024, 1, 1));
    storeBeats(1, nine_);
    session_->script({c.answer});
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

TEST_F(DataManagerTest, AFamilyIsNotSentAgainBeforeItsRetryAfterEnds) {
  storeBeats(1, nine_);
  session_->script({{503, false, "10"}});
  advance(seconds(3));
  ASSERT_EQ(sent(), 1u);
  // The next batch arms the tick 3 s on, but the pause runs 10 s from the answer; another
  // family is not held back.
  storeBeats(1, nine_);
  manager_->storeDailySummaryStatistics(steps(nine_, nine_ + minutes(10), 5),
                                        DataManager::currentEpoch());
  advance(seconds(3));
  EXPECT_EQ(sent(), 2u);
  advance(seconds(6) + milliseconds(999));
  EXPECT_EQ(sent(), 2u);
  advance(milliseconds(1));
  ASSERT_EQ(sent(), 3u);
  EXPECT_EQ(schemaOf(session_->requests()[2]), "ks-heart-rate-sample");
}

TEST_F(DataManagerTest, LargeUploadsAreSplitAndEachPartIsMarkedOnItsOwn) {
  storeBeats(5001, nine_);
  session_->script({{200}, {503}});
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
  session_->hold();
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
  session_->release();
  testing::eventually([&] { return sent() == 2; }, seconds(20));
  settle();
  ASSERT_EQ(sent(), 2u);
  const auto resent = body(session_->requests()[1]);
  ASSERT_EQ(resent.size(), 1u);
  EXPECT_EQ(resent[0]["body"]["avg"], 75);
}

TEST_F(DataManagerTest, NothingIsSentWithoutAProfileAfterTheManagerIsGoneOrForAnEndedConnection) {
  ProfileStore(test_.platform->defaults).remove();
  storeBeats(2, nine_);
  advance(seconds(3));
  EXPECT_EQ(sent(), 0u);

  ProfileStore(test_.platform->defaults).store(Profile{"p1"});
  storeBeats(2, nine_);
  manager_.reset();
  advance(seconds(3));
  EXPECT_EQ(sent(), 0u);
  // Work already queued does not depend on the manager: the figures were recorded and are
  // still new for the next manager.
  manager_ = make(utc(2024, 1, 1));
  storeBeats(1, nine_);
  advance(seconds(3));
  ASSERT_EQ(sent(), 1u);
  EXPECT_EQ(body(session_->requests()[0]).size(), 2u);

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

TEST_F(DataManagerTest, ConstructionPrunesOldStatisticsAndSendsTheRest) {
  manager_->storeDailyDetailStatistics(steps(utc(2024, 2, 29, 22), utc(2024, 2, 29, 22, 15), 9),
                                       type(kStepCountIdentifier), DataManager::currentEpoch());
  manager_->storeDailyDetailStatistics(steps(nine_, nine_ + minutes(15), 10),
                                       type(kStepCountIdentifier), DataManager::currentEpoch());
  settle();
  manager_.reset();

  // Starting on 2024-03-01 (Berlin): the interval of 23:00 Berlin the day before goes.
  manager_ = make(utc(2024, 3, 1, 8));
  settle();
  // The figure left new goes without a new batch; the pruned one is not in it.
  ASSERT_EQ(sent(), 1u);
  const auto figures = body(session_->requests()[0]);
  ASSERT_EQ(figures.size(), 1u);
  EXPECT_EQ(figures[0]["header"]["id"], "p1-ks-daily-detail-2024-03-01T10:00:00.000");
  EXPECT_EQ(test_.platform->defaults->keys("step-count-samples"),
            std::vector<std::string>{"step-count-samples/2024-03-01T09:00:00.000"});
}

}  // namespace
}  // namespace kestrova
