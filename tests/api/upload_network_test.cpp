// The back-end client through the real curl session against the reference server on 127.0.0.1,
// whose fault plan answers with chosen statuses, holds answers and drops connections.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "api/api.h"
#include "api/profile_request.h"
#include "kestrova/version.h"
#include "server/jwt.h"
#include "server/server.h"
#include "storage/delivery_store.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

using namespace std::chrono_literals;
using testing::utc;

constexpr auto kPatience = 20s;
// How long a bug gets to show itself where the test checks that something does not happen.
constexpr auto kQuietPeriod = 200ms;
// Longer than any test; the server ends such a wait when it stops.
constexpr std::string_view kHold = "delay:60000";

// Polls `predicate` until it holds or `limit` has passed.
template <class Predicate>
bool eventually(Predicate predicate, std::chrono::milliseconds limit = kPatience) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!predicate() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(1ms);
  }
  return predicate();
}

// One data point as the server accepts it.
std::string dataPoint(std::string_view id) {
  return R"([{"header":{"id":")" + std::string(id) +
         R"(","creation_date_time":"2024-03-01T08:00:00.000","schema_id":{"namespace":"ks",)"
         R"("name":"body-mass","version":"1.0"}},"body":{"date":"2024-03-01"}}])";
}

// A keychain that holds `token` under every name, and fails lookups with `lookupStatus` while it
// is set.
class FlakySecureStore : public SecureStore {
 public:
  explicit FlakySecureStore(std::string token) : token_(std::move(token)) {}
  OSStatus copyMatching(std::string_view service, std::string_view account,
                        SecureItem& result) const override {
    result = SecureItem{std::string(service), std::string(account), toBytes(token_)};
    return lookupStatus.load();
  }
  OSStatus add(const SecureItem&) override { return errSecSuccess; }
  OSStatus update(std::string_view, std::string_view, const Bytes&) override {
    return errSecSuccess;
  }
  OSStatus remove(std::string_view, std::string_view) override { return errSecSuccess; }

  std::atomic<OSStatus> lookupStatus{errSecSuccess};

 private:
  const std::string token_;
};

class UploadNetworkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server::ServerOptions options;
    options.secret = "upload-secret";
    auto started = server::KestrovaServer::start(std::move(options));
    ASSERT_TRUE(started) << started.error().text();
    server_ = std::move(started).value();
    test_ = testing::makeTestPlatform(dir_.path());
    log_ = testing::CapturedLog::install();
    tokens_ = std::make_unique<TokenStore>(test_.platform->secureStore,
                                           test_.platform->applicationIdentifier);
    tokens_->saveToken(server_->tokenFor("p1"), "p1");
    api_ = makeApi(10s, *test_.platform);
  }
  void TearDown() override {
    if (api_ && api_->session()) {
      api_->session()->invalidateAndCancel();
    }
    api_.reset();
    server_->stop();
    log_->uninstall();
    installPlatform(nullptr);
  }

  std::unique_ptr<API> makeApi(std::chrono::milliseconds timeout, const Platform& platform) {
    return std::make_unique<API>(
        *URLComponents::parse(server_->baseUrl()), platform,
        [timeout](URLSessionConfiguration configuration) {
          EXPECT_EQ(configuration.httpMaximumConnectionsPerHost, 1);
          configuration.timeoutIntervalForRequest = timeout;
          return makeURLSession(configuration);
        },
        // Shared: an answer that arrives after the test still finds them.
        [events = events_](const DeliveryEvent& event) {
          std::lock_guard lock(events->mutex);
          events->heard.push_back(event);
        });
  }
  void script(std::string_view faults) {
    server::FaultPlan plan;
    plan.script = server::FaultPlan::parseScript(faults).value();
    server_->setFaults(plan);
  }
  std::vector<DeliveryEvent> events() const {
    std::lock_guard lock(events_->mutex);
    return events_->heard;
  }
  // Uploads the file and returns the event of its answer.
  DeliveryEvent uploadAndWait(const FileNameComponents& file, bool bulk = true) {
    const auto before = events().size();
    api_->upload(file, bulk);
    EXPECT_TRUE(eventually([&] { return events().size() > before; }));
    return events().back();
  }

  FileNameComponents putFile(std::string sampleId, bool bulk = true,
                             std::optional<std::string> contents = std::nullopt,
                             std::string profileId = "p1") {
    FileNameComponents name{std::move(sampleId), std::move(profileId), utc(2024, 3, 1, 8)};
    const auto url = api_->fileServer().fileURL(name, bulk);
    EXPECT_TRUE(url);
    EXPECT_FALSE(test_.platform->files->createFileAtomically(
        *url, toBytes(contents.value_or(dataPoint(name.sampleId)))));
    return name;
  }
  bool exists(const FileNameComponents& name, bool bulk = true) const {
    const auto url = api_->fileServer().fileURL(name, bulk);
    return url && test_.platform->files->readFile(*url).ok();
  }
  bool logged(std::string_view text) const { return log_->contains(text); }

  // The validation's error; none when the profile is valid.
  std::future<std::optional<KestrovaHealthKitError>> validate(const std::string& profileId) {
    auto done = std::make_shared<std::promise<std::optional<KestrovaHealthKitError>>>();
    requestProfile(api_.get(), profileId,
                   [done](bool success, std::optional<KestrovaHealthKitError> error) {
                     EXPECT_EQ(success, !error);
                     done->set_value(std::move(error));
                   });
    return done->get_future();
  }

  std::unique_ptr<server::KestrovaServer> server_;
  testing::TempDir dir_;
  testing::TestPlatform test_;
  std::shared_ptr<testing::CapturedLog> log_;
  std::unique_ptr<TokenStore> tokens_;
  std::unique_ptr<API> api_;
  struct Events {
    std::mutex mutex;  // owns heard
    std::vector<DeliveryEvent> heard;
  };
  const std::shared_ptr<Events> events_ = std::make_shared<Events>();
};

TEST_F(UploadNetworkTest, OnlyA200AnswerDeletesTheFileAndA403LogsTheHeadersRedacted) {
  struct Case {
    std::string fault;
    std::optional<int> status;  // none: no answer
    std::string error;          // how the description of the transport error starts
  };
  // A dropped connection first: what a kept-alive connection dropped, curl sends again once.
  const std::vector<Case> cases = {{"drop", std::nullopt, "curl error 52:"},
                                   {"201", 201, ""},
                                   {"202", 202, ""},
                                   {"500", 500, ""},
                                   {"503", 503, ""},
                                   {"403", 403, ""},
                                   {std::string(kHold), std::nullopt, "no byte moved for 300 ms"}};
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const auto& [fault, status, error] = cases[i];
    if (fault == kHold) {
      api_->session()->invalidateAndCancel();
      api_ = makeApi(300ms, *test_.platform);
    }
    script(fault);
    const auto file = putFile("file-" + std::to_string(i), false);
    const auto event = uploadAndWait(file, false);
    EXPECT_FALSE(event.accepted) << fault;
    EXPECT_EQ(event.httpStatus, status) << fault;
    EXPECT_EQ(event.error ? event.error->description.substr(0, error.size()) : "", error);
    EXPECT_EQ(logged("File " + file.fileName() + " has NOT been uploaded successfully"),
              status.has_value())
        << fault;
    EXPECT_TRUE(exists(file, false)) << fault;
    // The server's 503 asks for a second's pause.
    EXPECT_EQ(event.retryNotBefore.has_value(), status == 503) << fault;
  }
  const auto lines = log_->matching("Unauthorized access, invalid token - ");
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].level, LogLevel::info);
  EXPECT_EQ(lines[0].message,
            "Unauthorized access, invalid token - [\"Content-Type\": \"application/json\", "
            "\"Authorization\": \"Bearer <redacted>\", \"Source\": \"Apple\", \"Version\": \"" +
                std::string(KESTROVA_VERSION_STRING) + "\"]");
}

TEST_F(UploadNetworkTest, AFileOfAProfileWithoutTokenIsDeletedWithoutAnyRequest) {
  const auto orphan = putFile("orphan", true, std::nullopt, "gone");
  api_->upload(orphan, true);
  ASSERT_TRUE(eventually(
      [&] { return logged("No token found anymore for profile gone, going to delete file"); }));
  EXPECT_TRUE(eventually([&] { return !exists(orphan); }));
  EXPECT_TRUE(server_->requestLog().empty());
}

TEST_F(UploadNetworkTest, SecureStoreFailureKeepsTheFileForTheNextSweep) {
  auto platform = std::make_shared<Platform>(*test_.platform);
  auto keychain = std::make_shared<FlakySecureStore>(server_->tokenFor("p1"));
  platform->secureStore = keychain;
  api_->session()->invalidateAndCancel();
  api_ = makeApi(10s, *platform);

  // A busy or broken keychain is not a profile without a token: nothing is sent or deleted.
  for (const OSStatus status : {errSecInteractionNotAllowed, errSecIO, errSecDecode}) {
    log_->clear();
    keychain->lookupStatus = status;
    const auto file = putFile("keychain" + std::to_string(status));
    EXPECT_TRUE(uploadAndWait(file).error) << status;
    EXPECT_TRUE(logged("Error keychain token lookup for User+p1 with error: ")) << status;
    EXPECT_FALSE(logged("going to delete file")) << status;
    EXPECT_TRUE(exists(file)) << status;
  }
  EXPECT_TRUE(server_->requestLog().empty());

  // Once the keychain answers, the next sweep sends them all, single files first.
  const auto single = putFile("single", false);
  keychain->lookupStatus = errSecSuccess;
  api_->uploadPending();
  ASSERT_TRUE(eventually([&] { return server_->requestLog().size() == 4; }));
  EXPECT_EQ(server_->requestLog().front().path, "/api/v1.3/ingest/");
  EXPECT_TRUE(eventually([&] { return api_->fileServer().list(true).empty(); }));
  EXPECT_TRUE(eventually([&] { return !exists(single, false); }));
}

TEST_F(UploadNetworkTest, UploadsWaitForAValidationUnderWayAndACancelledSessionKeepsTheFile) {
  script(kHold);
  auto validation = validate("p1");
  const auto file = putFile("waiting");
  api_->upload(file, true);
  ASSERT_TRUE(eventually([&] { return api_->apiQueue()->operationCount() == 1; }));
  EXPECT_FALSE(eventually([&] { return api_->apiQueue()->operationCount() == 0; }, kQuietPeriod));

  // The cancelled validation fails and releases the queue; the upload then fails as well.
  api_->session()->invalidateAndCancel();
  EXPECT_EQ(validation.get(), KestrovaHealthKitError::failedToValidateProfile("p1"));
  ASSERT_TRUE(eventually([&] { return events().size() == 1; }));
  ASSERT_TRUE(events()[0].error);
  EXPECT_EQ(events()[0].error->code, static_cast<std::int64_t>(URLErrorCode::cancelled));
  EXPECT_TRUE(exists(file));
}

TEST_F(UploadNetworkTest, ProfileIsValidOn2xxAndOtherAnswersFailWithoutHoldingTheQueue) {
  script("202");
  EXPECT_EQ(validate("p1").get(), std::nullopt);
  script("500");
  EXPECT_EQ(validate("p1").get(), KestrovaHealthKitError::failedToValidateProfile("p1"));
  EXPECT_TRUE(logged("Error executing profile request: "));
  EXPECT_FALSE(api_->apiQueue()->isSuspended());
  EXPECT_FALSE(logged("Profile not accessible"));
}

TEST_F(UploadNetworkTest, RefusedProfileCancelsWhatWaitsAndKeepsTheQueueHeld) {
  // An upload waits in the queue as it would behind a validation under way; the validation's
  // token is one the server did not sign.
  api_->apiQueue()->setSuspended(true);
  const auto file = putFile("never-sent");
  api_->upload(file, true);
  ASSERT_TRUE(eventually([&] { return api_->apiQueue()->operationCount() == 1; }));
  tokens_->saveToken(server::mintToken("another-secret", "p1"), "p1");
  EXPECT_EQ(validate("p1").get(), KestrovaHealthKitError::failedToValidateProfile("p1"));
  EXPECT_TRUE(logged("Profile not accessible"));
  EXPECT_TRUE(api_->apiQueue()->isSuspended());

  // What waited was cancelled and is never sent, also when more comes.
  const auto after = putFile("after");
  api_->upload(after, true);
  EXPECT_FALSE(eventually([&] { return server_->requestLog().size() > 1; }, kQuietPeriod));

  // A later validation that succeeds releases the queue: the cancelled upload leaves it
  // without running or holding its slot, and what came after it, or comes later, is sent.
  tokens_->saveToken(server_->tokenFor("p1"), "p1");
  ASSERT_FALSE(validate("p1").get());
  const auto later = putFile("later");
  api_->upload(later, true);
  ASSERT_TRUE(eventually([&] { return !exists(after) && !exists(later); }));
  EXPECT_TRUE(eventually([&] { return api_->apiQueue()->operationCount() == 0; }));
  EXPECT_EQ(server_->dataPoints("p1").size(), 2u);
  EXPECT_TRUE(exists(file));
}

TEST_F(UploadNetworkTest, OnlyFiveRefusalsInARowSetAFileAside) {
  const auto refused = putFile("workout-1", true, R"([{"a":1},{"b":[2,3]},{}])");
  const auto forbidden = putFile("body-1");
  const auto rejectedDirectory = dir_.path() / "Kestrova" / "Rejected";
  // Four refusals, then an answer that is none (the row starts again), then four more.
  for (const std::string fault :
       {"400", "422", "400", "400", "503:retry-after=0", "400", "400", "404", "400"}) {
    script(fault);
    const auto event = uploadAndWait(refused);
    EXPECT_FALSE(event.accepted);
    EXPECT_EQ(event.httpStatus, std::stoi(fault));
    EXPECT_EQ(event.family, "workout");
    EXPECT_EQ(event.dataPoints, 3u);
    EXPECT_FALSE(event.setAside) << fault;
  }
  EXPECT_TRUE(exists(refused));
  script("400");
  EXPECT_TRUE(uploadAndWait(refused).setAside);
  EXPECT_FALSE(exists(refused));
  EXPECT_TRUE(std::filesystem::exists(rejectedDirectory / refused.fileName()));
  const auto rejected = api_->fileServer().listRejected();
  ASSERT_EQ(rejected.size(), 1u);
  EXPECT_EQ(rejected[0].attempts, 5);
  EXPECT_EQ(rejected[0].httpStatus, 400);
  EXPECT_EQ(rejected[0].reason, R"({"error":"injected fault","status":400})");

  // Refusals of the token, of slow or of too many requests say nothing about the data.
  for (const std::string fault :
       {"401", "403", "408", "429:retry-after=0", "401", "403", "408", "429:retry-after=0"}) {
    script(fault);
    EXPECT_FALSE(uploadAndWait(forbidden).setAside) << fault;
  }
  EXPECT_TRUE(exists(forbidden));

  // Accepted at last: the file goes, and the state keeps the last failure and what was delivered.
  const auto accepted = uploadAndWait(forbidden);
  EXPECT_TRUE(accepted.accepted);
  EXPECT_EQ(accepted.dataPoints, 1u);
  EXPECT_TRUE(logged("File " + forbidden.fileName() + " has been uploaded successfully"));
  EXPECT_FALSE(exists(forbidden));
  EXPECT_EQ(server_->requestLog().back().path, "/api/v1.3/ingest/bulk/");
  EXPECT_EQ(server_->dataPoint("p1", "body-1")->source, "Apple");
  EXPECT_EQ(server_->dataPoint("p1", "body-1")->version, KESTROVA_VERSION_STRING);
  const DeliveryStore store(test_.platform->defaults);
  EXPECT_EQ(store.family("workout").lastError->httpStatus, 400);
  EXPECT_EQ(store.family("body").lastError->httpStatus, 429);
  EXPECT_EQ(store.family("body").deliveredPoints, 1u);
  EXPECT_EQ(store.family("body").lastDelivered, test_.clock->now());
}

TEST_F(UploadNetworkTest, AFileIsNotSentBeforeTheTimeItsRetryAfterNamed) {
  const auto file = putFile("body-1");
  DeliveryStore(test_.platform->defaults)
      .setAttempts(file.fileName(), UploadAttempts{0, test_.clock->now() + 2s});
  api_->upload(file, true);
  api_->uploadPending();
  test_.clock->advance(1999ms);
  EXPECT_EQ(test_.clock->armedTimerCount(), 1u);
  EXPECT_TRUE(server_->requestLog().empty());
  test_.clock->advance(1ms);
  ASSERT_TRUE(eventually([&] { return !events().empty(); }));
  EXPECT_TRUE(events()[0].accepted);
  // Both sends waited for the one pause, and became one.
  EXPECT_FALSE(eventually([&] { return server_->requestLog().size() > 1; }, kQuietPeriod));
}

TEST(RetryAfter, TakesSecondsAndHttpDatesOnlyOn429And503) {
  const Date now = utc(2024, 3, 1, 8);
  const auto after = [&](std::string value, int status = 503) {
    return retryNotBefore(HTTPURLResponse{"", status, {{"retry-after", std::move(value)}}}, now);
  };
  EXPECT_EQ(after("2"), now + 2s);
  EXPECT_EQ(after(" 0 ", 429), now);
  EXPECT_EQ(after("Fri, 01 Mar 2024 08:00:30 GMT"), utc(2024, 3, 1, 8, 0, 30));
  // A date already past allows the next attempt at once; a far one is cut to an hour.
  EXPECT_EQ(after("Thu, 29 Feb 2024 08:00:00 GMT"), utc(2024, 2, 29, 8));
  EXPECT_EQ(after("86400"), now + 1h);
  for (const char* bad : {"", "soon", "-1", "1.5", "Fri, 31 Feb 2024 08:00:30 GMT",
                          "Fri, 01 Mar 2024 08:00:30 CET", "99999999999999999999"}) {
    EXPECT_FALSE(after(bad)) << bad;
  }
  EXPECT_FALSE(after("2", 500));
  EXPECT_FALSE(retryNotBefore(HTTPURLResponse{"", 503, {}}, now));
}

}  // namespace
}  // namespace kestrova
