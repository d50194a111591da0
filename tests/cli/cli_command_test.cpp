// The kestrova command as a user runs it: the built binary, the token in KESTROVA_TOKEN, an
// import of a real export, and the reference server on 127.0.0.1 checked afterwards.
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <thread>

#include "server/jwt.h"
#include "server/server.h"
#include "support/child_process.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

constexpr std::string_view kSecret = "cli-test-secret";
constexpr std::string_view kProfile = "cli-profile";
constexpr std::string_view kExport =
    KESTROVA_TEST_DATA "/apple-health/healthkit-to-sqlite/export.xml";

// Long enough for any step of a run on a loaded machine; waits end as soon as they can.
constexpr auto kDeadline = std::chrono::seconds(60);

// A second export, made while watch runs: one body weight, a type the first export lacks.
constexpr std::string_view kLaterExport = R"(<?xml version="1.0" encoding="UTF-8"?>
<HealthData locale="en_US">
 <ExportDate value="2024-06-02 10:00:00 +0000"/>
 <Record type="HKQuantityTypeIdentifierBodyMass" sourceName="Scale" unit="kg"
  creationDate="2024-06-01 08:00:00 +0000" startDate="2024-06-01 08:00:00 +0000"
  endDate="2024-06-01 08:00:00 +0000" value="71.5"/>
</HealthData>
)";

// Step counts only: everything they give is a statistics upload, sent without a file.
constexpr std::string_view kStepsExport = R"(<?xml version="1.0" encoding="UTF-8"?>
<HealthData locale="en_US">
 <ExportDate value="2024-06-02 10:00:00 +0000"/>
 <Record type="HKQuantityTypeIdentifierStepCount" sourceName="Phone" unit="count"
  creationDate="2024-06-01 08:15:00 +0000" startDate="2024-06-01 08:00:00 +0000"
  endDate="2024-06-01 08:10:00 +0000" value="420"/>
 <Record type="HKQuantityTypeIdentifierStepCount" sourceName="Phone" unit="count"
  creationDate="2024-06-01 09:15:00 +0000" startDate="2024-06-01 09:00:00 +0000"
  endDate="2024-06-01 09:10:00 +0000" value="380"/>
</HealthData>
)";

bool eventually(const std::function<bool()>& condition) {
  return testing::eventually(condition, kDeadline);
}

struct CommandRun {
  int exitCode = -1;
  std::string out;
  std::string err;

  nlohmann::json json() const { return nlohmann::json::parse(out); }
};

// The words of a command line; the tests' arguments hold no quoted spaces.
std::vector<std::string> words(const std::string& line) {
  std::vector<std::string> result;
  std::istringstream in(line);
  for (std::string word; in >> word;) {
    result.push_back(word);
  }
  return result;
}

// `kestrova watch --json` running in the background; its events are read as they are written.
class Watch {
 public:
  explicit Watch(std::unique_ptr<testing::ChildProcess> process) : process_(std::move(process)) {}

  bool started() const { return process_->started(); }

  // Every complete line so far.
  std::vector<nlohmann::json> events() const {
    std::vector<nlohmann::json> events;
    std::istringstream lines(process_->out());
    std::string line;
    while (std::getline(lines, line) && !lines.eof()) {
      events.push_back(nlohmann::json::parse(line));
    }
    return events;
  }

  // Waits for an event that satisfies `matches`.
  std::optional<nlohmann::json> awaitEvent(
      const std::function<bool(const nlohmann::json&)>& matches) const {
    std::optional<nlohmann::json> found;
    eventually([&] {
      for (const auto& event : events()) {
        if (matches(event)) {
          found = event;
          return true;
        }
      }
      return false;
    });
    return found;
  }

  // Sends `signal` and returns the exit code; -1 when the command did not end in time.
  int stop(int signal) { return process_->stop(signal, kDeadline).value_or(-1); }
  std::string err() const { return process_->err(); }

 private:
  std::unique_ptr<testing::ChildProcess> process_;
};

class CliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server::ServerOptions options;
    options.secret = std::string(kSecret);
    auto started = server::KestrovaServer::start(std::move(options));
    ASSERT_TRUE(started.ok()) << started.error().text();
    server_ = std::move(started).value();
  }

  // Runs kestrova with `arguments` (words) and the token, if any, in its environment only, as
  // a user is told to.
  CommandRun kestrova(const std::string& arguments, const std::string& token = "") {
    auto process = start(arguments, token, "command");
    const auto exitCode = process->wait(kDeadline);
    return CommandRun{exitCode.value_or(-1), process->out(), process->err()};
  }

  std::unique_ptr<testing::ChildProcess> start(const std::string& arguments,
                                               const std::string& token,
                                               const std::string& outputName) const {
    auto argv = words(arguments);
    argv.insert(argv.begin(), KESTROVA_CLI_PATH);
    argv.push_back("--data-dir");
    argv.push_back(data().string());
    // An empty value, when there is no token, hides one the test's own environment may hold.
    return std::make_unique<testing::ChildProcess>(
        std::move(argv), dir_.path() / (outputName + ".out"), dir_.path() / (outputName + ".err"),
        std::vector<std::string>{"KESTROVA_TOKEN=" + token});
  }

  std::filesystem::path data() const { return dir_.path() / "data"; }

  // Starts `kestrova watch --json` with the token in its environment.
  std::unique_ptr<Watch> watch(const std::string& arguments, const std::string& token) const {
    return std::make_unique<Watch>(
        start("watch --json --since 2010-01-01 --url " + server_->baseUrl() + " " + arguments,
              token, "watch"));
  }

  std::set<std::string> schemasReceived() const {
    std::set<std::string> schemas;
    for (const auto& point : server_->dataPoints(std::string(kProfile))) {
      schemas.insert(point.schemaNamespace + ":" + point.schemaName);
    }
    return schemas;
  }

  // Hidden files anywhere under the data directory's upload folders: half-written uploads.
  std::vector<std::string> temporaryFiles() const {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(data() / "Kestrova")) {
      if (entry.path().filename().string().starts_with(".")) {
        found.push_back(entry.path().string());
      }
    }
    return found;
  }

  std::string syncArguments() const {
    return "sync --since 2010-01-01 --timeout 60 --json --url " + server_->baseUrl();
  }

  testing::TempDir dir_;
  std::unique_ptr<server::KestrovaServer> server_;
};

TEST_F(CliTest, SyncDeliversAnImportAndTheReportingCommandsAgree) {
  ASSERT_EQ(kestrova("import --quiet " + std::string(kExport)).exitCode, 0);
  const std::string token = server_->tokenFor(std::string(kProfile));

  const CommandRun synced = kestrova(syncArguments(), token);
  ASSERT_EQ(synced.exitCode, 0) << synced.err;
  const auto report = synced.json();
  EXPECT_TRUE(report["complete"].get<bool>());
  EXPECT_EQ(report["profileId"], kProfile);
  EXPECT_EQ(report["pendingFiles"], 0);
  EXPECT_EQ(report["failedUploads"], 0);
  EXPECT_EQ(report["rejectedFiles"], 0);
  EXPECT_GT(report["deliveredFiles"].get<int>(), 0);
  // The events count data points, not files: as many as the server received.
  std::int64_t perFamily = 0;
  for (const auto& [family, points] : report["delivered"].items()) {
    perFamily += points.get<std::int64_t>();
  }
  const auto received = server_->stats().store;
  EXPECT_EQ(perFamily, received.dataPoints + received.duplicates) << synced.out;
  // The export holds workouts and body measurements; both reached the server.
  EXPECT_GT(report["delivered"].value("workout", 0), 0);
  EXPECT_GT(report["delivered"].value("body", 0), 0);
  std::set<std::string> schemas;
  for (const auto& point : server_->dataPoints(std::string(kProfile))) {
    schemas.insert(point.schemaNamespace + ":" + point.schemaName);
  }
  EXPECT_TRUE(schemas.contains("granola:hk-workout")) << synced.out;
  EXPECT_TRUE(schemas.contains("omh:body-mass-index")) << synced.out;
  EXPECT_EQ(synced.err.find(token), std::string::npos);

  const auto status = kestrova("status --json").json();
  EXPECT_EQ(status["status"], "connected");
  EXPECT_EQ(status["profileId"], kProfile);
  EXPECT_EQ(status["pendingFiles"], 0);
  // The state kept by the library says the same as the sync's events.
  for (const auto& [family, points] : report["delivered"].items()) {
    const auto& delivery = status["delivery"][family];
    EXPECT_EQ(delivery["deliveredPoints"], points) << family;
    EXPECT_TRUE(delivery["lastDelivered"].is_string()) << family;
    EXPECT_TRUE(delivery["lastError"].is_null()) << family;
    EXPECT_EQ(delivery["pendingFiles"], 0) << family;
  }
  EXPECT_EQ(status["rejected"], nlohmann::json::array());
  EXPECT_EQ(kestrova("pending --json").json(), nlohmann::json::array());

  const CommandRun disconnect = kestrova("disconnect --json");
  ASSERT_EQ(disconnect.exitCode, 0);
  EXPECT_EQ(disconnect.json()["disconnected"], kProfile);
  EXPECT_EQ(kestrova("status --json").json()["status"], "disconnected");
  EXPECT_TRUE(kestrova("disconnect --json").json()["disconnected"].is_null());
}

TEST_F(CliTest, FilesKeptWhileTheBackEndFailsAreListedAndDeliveredByTheNextSync) {
  ASSERT_EQ(kestrova("import --quiet " + std::string(kExport)).exitCode, 0);
  const std::string token = server_->tokenFor(std::string(kProfile));
  // The profile check passes; every ingest after it fails.
  server::FaultPlan failing;
  failing.script = server::FaultPlan::parseScript("pass").value();
  failing.rate = 1.0;
  failing.rateFault = server::Fault{server::Fault::Kind::status, 503, {}, {}};
  server_->setFaults(failing);

  const CommandRun stuck =
      kestrova("sync --since 2010-01-01 --timeout 3 --url " + server_->baseUrl(), token);
  EXPECT_EQ(stuck.exitCode, 6) << stuck.err;
  EXPECT_NE(stuck.err.find("still pending"), std::string::npos) << stuck.err;
  const auto pending = kestrova("pending --json").json();
  ASSERT_FALSE(pending.empty());
  for (const auto& file : pending) {
    EXPECT_EQ(file["profileId"], kProfile);
    EXPECT_GT(file["bytes"].get<int>(), 0);
  }
  EXPECT_EQ(kestrova("status --json").json()["pendingFiles"], pending.size());

  server_->setFaults({});
  const CommandRun recovered = kestrova(syncArguments(), token);
  ASSERT_EQ(recovered.exitCode, 0) << recovered.err;
  EXPECT_EQ(recovered.json()["pendingFiles"], 0);
  EXPECT_EQ(kestrova("pending --json").json(), nlohmann::json::array());
  EXPECT_FALSE(server_->dataPoints(std::string(kProfile)).empty());
}

TEST_F(CliTest, FailedStatisticsUploadsMakeSyncIncompleteAndTheNextSyncSendsThem) {
  const auto steps = dir_.path() / "steps.xml";
  std::ofstream(steps) << kStepsExport;
  ASSERT_EQ(kestrova("import --quiet " + steps.string()).exitCode, 0);
  const std::string token = server_->tokenFor(std::string(kProfile));
  server::FaultPlan failing;
  failing.script = server::FaultPlan::parseScript("pass").value();
  failing.rate = 1.0;
  failing.rateFault = server::Fault{server::Fault::Kind::status, 503, {}, {}};
  server_->setFaults(failing);

  const CommandRun failed = kestrova(syncArguments(), token);
  EXPECT_EQ(failed.exitCode, 6) << failed.err;
  EXPECT_NE(failed.err.find("statistics uploads failed"), std::string::npos) << failed.err;
  EXPECT_FALSE(failed.json()["complete"].get<bool>());
  EXPECT_EQ(failed.json()["pendingFiles"], 0);
  EXPECT_TRUE(server_->dataPoints(std::string(kProfile)).empty());

  server_->setFaults({});
  const CommandRun recovered = kestrova(syncArguments(), token);
  ASSERT_EQ(recovered.exitCode, 0) << recovered.err;
  EXPECT_TRUE(recovered.json()["complete"].get<bool>());
  EXPECT_TRUE(schemasReceived().contains("ks:ks-daily-detail"));
}

TEST_F(CliTest, ARejectedTokenFailsClearlyWithoutPrintingIt) {
  // Well formed, so only the back end can refuse it.
  const std::string foreign = server::mintToken("another-secret", "x");
  const CommandRun run = kestrova(syncArguments(), foreign);
  EXPECT_EQ(run.exitCode, 4) << run.err;
  EXPECT_NE(run.err.find("rejected the token"), std::string::npos) << run.err;
  EXPECT_EQ(run.err.find(foreign), std::string::npos) << run.err;
  EXPECT_TRUE(server_->dataPoints("x").empty());

  const std::string malformed = server_->tokenFor(std::string(kProfile)).substr(0, 10);
  const CommandRun refused = kestrova(syncArguments(), malformed);
  EXPECT_EQ(refused.exitCode, 4) << refused.err;
  EXPECT_NE(refused.err.find("configuration was refused"), std::string::npos) << refused.err;
  EXPECT_EQ(refused.err.find(malformed), std::string::npos) << refused.err;
}

TEST_F(CliTest, AnUnreachableBackEndAndBadArgumentsFailWithoutAborting) {
  const std::string token = server_->tokenFor(std::string(kProfile));
  const std::string url = server_->baseUrl();
  server_->stop();
  const CommandRun unreachable = kestrova("sync --timeout 20 --url " + url, token);
  EXPECT_EQ(unreachable.exitCode, 5) << unreachable.err;
  EXPECT_NE(unreachable.err.find("could not validate"), std::string::npos) << unreachable.err;

  const CommandRun badType = kestrova("sync --types 3,25 --url " + url, token);
  EXPECT_NE(badType.exitCode, 0);
  EXPECT_LT(badType.exitCode, 128) << "killed by a signal";
  EXPECT_NE(badType.err.find("25"), std::string::npos) << badType.err;

  const CommandRun badDate = kestrova("sync --since 2024-13-01 --url " + url, token);
  EXPECT_EQ(badDate.exitCode, 1);
  EXPECT_NE(badDate.err.find("YYYY-MM-DD"), std::string::npos);

  const CommandRun noToken = kestrova("sync --url " + url);
  EXPECT_NE(noToken.exitCode, 0);
  EXPECT_NE(noToken.err.find("KESTROVA_TOKEN"), std::string::npos) << noToken.err;
}

TEST_F(CliTest, WatchStopsCleanlyOnSigtermAndDeliversWhatAnotherProcessImports) {
  ASSERT_EQ(kestrova("import --quiet " + std::string(kExport)).exitCode, 0);
  const std::string token = server_->tokenFor(std::string(kProfile));
  const auto connected = [](const auto& event) { return event["event"] == "connected"; };

  // Stopped while the first deliveries are being written: nothing is cut off half-way.
  auto first = watch("", token);
  ASSERT_TRUE(first->awaitEvent(connected));
  EXPECT_EQ(first->stop(SIGTERM), 0) << first->err();
  ASSERT_FALSE(first->events().empty());
  EXPECT_EQ(first->events().back()["event"], "stopped");
  EXPECT_EQ(first->events().back()["signal"], "SIGTERM");
  EXPECT_EQ(temporaryFiles(), std::vector<std::string>{});
  const CommandRun status = kestrova("status --json");
  ASSERT_EQ(status.exitCode, 0) << status.err;
  const auto afterStop = status.json();
  EXPECT_TRUE(afterStop["anchors"].is_array());
  for (const auto* family : {"heartRateSamples", "dailyDetailSamples", "dailySummaries"}) {
    const auto& counts = afterStop["statistics"][family];
    EXPECT_LE(counts["withNewData"].get<int>(), counts["entries"].get<int>()) << family;
  }

  // The next run delivers whatever the first did not, then what another process commits.
  auto second = watch("", token);
  ASSERT_TRUE(second->awaitEvent(connected));
  EXPECT_TRUE(eventually([&] {
    return schemasReceived().contains("granola:hk-workout") &&
           schemasReceived().contains("omh:body-mass-index");
  }));
  const auto later = dir_.path() / "later.xml";
  std::ofstream(later) << kLaterExport;
  ASSERT_EQ(kestrova("import --quiet " + later.string()).exitCode, 0);
  EXPECT_TRUE(eventually([&] { return schemasReceived().contains("omh:body-weight"); }));
  EXPECT_TRUE(second->awaitEvent([](const auto& event) {
    return event["event"] == "progress" && event["delivered"].value("body", 0) > 0;
  }));
  EXPECT_EQ(second->stop(SIGTERM), 0) << second->err();
  EXPECT_EQ(temporaryFiles(), std::vector<std::string>{});

  const auto report = kestrova("status --json").json();
  EXPECT_EQ(report["status"], "connected");
  std::set<std::string> anchored;
  for (const auto& anchor : report["anchors"]) {
    EXPECT_TRUE(anchor["position"].is_number_unsigned()) << anchor;
    anchored.insert(anchor["name"].get<std::string>());
  }
  EXPECT_TRUE(anchored.contains("bodyMass")) << report["anchors"];
  EXPECT_TRUE(anchored.contains("workout")) << report["anchors"];
  EXPECT_NE(kestrova("status").out.find("bodyMass"), std::string::npos);
}

TEST_F(CliTest, WatchRetriesKeptFilesWithBackoffAndDeliversThemOnceTheBackEndRecovers) {
  ASSERT_EQ(kestrova("import --quiet " + std::string(kExport)).exitCode, 0);
  server::FaultPlan failing;
  failing.script = server::FaultPlan::parseScript("pass").value();
  failing.rate = 1.0;
  failing.rateFault = server::Fault{server::Fault::Kind::status, 503, {}, {}};
  server_->setFaults(failing);

  auto watch = this->watch("--max-retry-delay 0.5", server_->tokenFor(std::string(kProfile)));
  ASSERT_TRUE(watch->started());
  const auto retried = watch->awaitEvent([](const auto& event) {
    return event["event"] == "retry" && event["attempt"] >= 2 && event["pendingFiles"] > 0;
  });
  ASSERT_TRUE(retried) << watch->err();
  EXPECT_TRUE(server_->dataPoints(std::string(kProfile)).empty());

  server_->setFaults({});
  const auto delivered = watch->awaitEvent([](const auto& event) {
    return event["event"] == "progress" && event["pendingFiles"] == 0 &&
           event["deliveredFiles"] > 0;
  });
  EXPECT_TRUE(delivered) << watch->err();
  EXPECT_TRUE(schemasReceived().contains("granola:hk-workout"));

  EXPECT_EQ(watch->stop(SIGINT), 0);
  const auto events = watch->events();
  const auto retries = std::count_if(events.begin(), events.end(),
                                     [](const auto& event) { return event["event"] == "retry"; });
  EXPECT_GE(retries, 2);
  EXPECT_EQ(events.back()["retries"], retries);
  EXPECT_GT(events.back()["failedUploads"].get<int>(), 0);
  EXPECT_EQ(kestrova("pending --json").json(), nlohmann::json::array());
}

TEST_F(CliTest, FilesRefusedFiveTimesAreSetAsideAndComeBackWithRetry) {
  ASSERT_EQ(kestrova("import --quiet " + std::string(kExport)).exitCode, 0);
  const std::string token = server_->tokenFor(std::string(kProfile));
  // Every ingest is refused; the profile checks pass.
  server::FaultPlan refusing;
  refusing.rate = 1.0;
  refusing.rateFault = server::Fault{server::Fault::Kind::status, 400, {}, {}};
  refusing.pathPrefix = "/api/v1.3/ingest/";
  const auto refuseIngests = [&] { server_->setFaults(refusing); };

  for (int run = 1; run < 5; ++run) {
    refuseIngests();
    const CommandRun refused = kestrova(syncArguments(), token);
    EXPECT_EQ(refused.exitCode, 6) << refused.err;
    EXPECT_GT(refused.json()["pendingFiles"].get<int>(), 0) << run;
    EXPECT_EQ(refused.json()["rejectedFiles"], 0) << run;
  }
  const auto before = kestrova("status --json").json();
  const auto waiting = before["pendingFiles"].get<int>();
  EXPECT_EQ(before["delivery"]["body"]["lastError"]["httpStatus"], 400) << before["delivery"];
  EXPECT_TRUE(before["delivery"]["body"]["lastDelivered"].is_null());
  EXPECT_GT(before["delivery"]["body"]["pendingFiles"].get<int>(), 0);
  EXPECT_EQ(before["rejected"], nlohmann::json::array());

  // The fifth refusal in a row sets every file aside: the sync no longer waits for them.
  refuseIngests();
  const CommandRun fifth = kestrova(syncArguments(), token);
  EXPECT_EQ(fifth.json()["pendingFiles"], 0) << fifth.out;
  EXPECT_EQ(fifth.json()["rejectedFiles"], waiting) << fifth.out;
  EXPECT_NE(fifth.err.find("set aside"), std::string::npos) << fifth.err;
  const auto after = kestrova("status --json").json();
  EXPECT_EQ(after["pendingFiles"], 0);
  ASSERT_EQ(after["rejected"].size(), static_cast<std::size_t>(waiting)) << after;
  std::set<std::string> families;
  for (const auto& file : after["rejected"]) {
    EXPECT_EQ(file["httpStatus"], 400) << file;
    EXPECT_EQ(file["attempts"], 5) << file;
    EXPECT_NE(file["reason"].get<std::string>().find("injected fault"), std::string::npos) << file;
    families.insert(file["family"].get<std::string>());
  }
  EXPECT_TRUE(families.contains("workout") && families.contains("body")) << after["rejected"];
  const auto& bodyError = after["delivery"]["body"]["lastError"];
  EXPECT_EQ(bodyError["domain"], "KestrovaLib.HTTPStatus");
  EXPECT_EQ(bodyError["code"], 400);
  EXPECT_NE(bodyError["message"].get<std::string>().find("injected fault"), std::string::npos);
  EXPECT_EQ(kestrova("rejected --json").json(), after["rejected"]);
  EXPECT_NE(kestrova("status").out.find("Set aside:     " + std::to_string(waiting)),
            std::string::npos);
  EXPECT_TRUE(server_->dataPoints(std::string(kProfile)).empty());

  // Once the back end takes them again, they go back and one sync delivers them all.
  server_->setFaults({});
  const CommandRun retried = kestrova("rejected --retry --json");
  ASSERT_EQ(retried.exitCode, 0) << retried.err;
  EXPECT_EQ(retried.json()["restored"].size(), static_cast<std::size_t>(waiting));
  EXPECT_EQ(kestrova("rejected --json").json(), nlohmann::json::array());
  EXPECT_EQ(kestrova("pending --json").json().size(), static_cast<std::size_t>(waiting));
  const CommandRun delivered = kestrova(syncArguments(), token);
  ASSERT_EQ(delivered.exitCode, 0) << delivered.err;
  EXPECT_EQ(delivered.json()["pendingFiles"], 0);
  EXPECT_EQ(delivered.json()["rejectedFiles"], 0);
  EXPECT_EQ(delivered.json()["deliveredFiles"], waiting);
  EXPECT_TRUE(schemasReceived().contains("granola:hk-workout"));
  EXPECT_TRUE(schemasReceived().contains("omh:body-mass-index"));
  const auto recovered = kestrova("status --json").json();
  EXPECT_TRUE(recovered["delivery"]["body"]["lastDelivered"].is_string());
  EXPECT_EQ(recovered["delivery"]["body"]["deliveredPoints"],
            delivered.json()["delivered"]["body"]);
}

TEST_F(CliTest, AFileAnsweredWithRetryAfterIsNotSentAgainSooner) {
  const auto later = dir_.path() / "later.xml";
  std::ofstream(later) << kLaterExport;
  ASSERT_EQ(kestrova("import --quiet " + later.string()).exitCode, 0);
  server::FaultPlan busy;
  busy.script = server::FaultPlan::parseScript("503:retry-after=2").value();
  busy.pathPrefix = "/api/v1.3/ingest/";
  server_->setFaults(busy);

  // Backoff alone would send it again within a fifth of a second.
  auto watch = this->watch("--types bodyMass --max-retry-delay 0.2",
                           server_->tokenFor(std::string(kProfile)));
  ASSERT_TRUE(watch->started());
  EXPECT_TRUE(watch->awaitEvent([](const auto& event) {
    return event["event"] == "progress" && event["pendingFiles"] == 0 &&
           event["deliveredFiles"] == 1;
  })) << watch->err();
  EXPECT_EQ(watch->stop(SIGTERM), 0);

  const auto log = server_->requestLog();
  const auto refused = std::find_if(log.begin(), log.end(),
                                    [](const auto& request) { return request.outcome == "503"; });
  ASSERT_NE(refused, log.end());
  const auto again = std::find_if(refused + 1, log.end(), [&](const auto& request) {
    return request.path == refused->path && request.bodyHash == refused->bodyHash;
  });
  ASSERT_NE(again, log.end());
  EXPECT_EQ(again->outcome, "200");
  EXPECT_GE(again->arrived - refused->arrived, std::chrono::seconds(2));
  EXPECT_TRUE(schemasReceived().contains("omh:body-weight"));
}

TEST_F(CliTest, TypesTakeNamesAsWellAsNumbers) {
  ASSERT_EQ(kestrova("import --quiet " + std::string(kExport)).exitCode, 0);
  const CommandRun named =
      kestrova(syncArguments() + " --types workout,bodyMassIndex", server_->tokenFor("named"));
  ASSERT_EQ(named.exitCode, 0) << named.err;
  std::set<std::string> schemas;
  for (const auto& point : server_->dataPoints("named")) {
    schemas.insert(point.schemaNamespace + ":" + point.schemaName);
  }
  EXPECT_TRUE(schemas.contains("granola:hk-workout")) << named.out;
  EXPECT_TRUE(schemas.contains("omh:body-mass-index")) << named.out;
  const CommandRun unknown =
      kestrova(syncArguments() + " --types stepcount", server_->tokenFor("x"));
  EXPECT_EQ(unknown.exitCode, 1);
  EXPECT_NE(unknown.err.find("\"stepcount\" is not a data type"), std::string::npos) << unknown.err;
}

}  // namespace
}  // namespace kestrova
