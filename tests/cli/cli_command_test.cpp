// The kestrova command as a user runs it: the built binary, the token in KESTROVA_TOKEN, an
// import of a real export, and the reference server on 127.0.0.1 checked afterwards.
#include <gtest/gtest.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "server/jwt.h"
#include "server/server.h"
#include "support/kestrova_command.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

constexpr std::string_view kSecret = "cli-test-secret";
constexpr std::string_view kProfile = "cli-profile";
constexpr std::string_view kExport =
    KESTROVA_TEST_DATA "/apple-health/healthkit-to-sqlite/export.xml";

// Long enough for any step of a run on a loaded machine; waits end as soon as they can.
constexpr auto kDeadline = std::chrono::seconds(60);

using testing::CommandRun;

// The words of a command line; the tests' arguments hold no quoted spaces.
std::vector<std::string> words(const std::string& line) {
  std::vector<std::string> result;
  std::istringstream in(line);
  for (std::string word; in >> word;) {
    result.push_back(word);
  }
  return result;
}

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
    return testing::KestrovaCommand(KESTROVA_CLI_PATH, dir_.path() / "data", token)
        .run(words(arguments), kDeadline);
  }

  void import() { ASSERT_EQ(kestrova("import --quiet " + std::string(kExport)).exitCode, 0); }

  std::string token() const { return server_->tokenFor(std::string(kProfile)); }

  // Every ingest is answered with `status`; the profile checks pass.
  void failIngests(int status) {
    server::FaultPlan failing;
    failing.rate = 1.0;
    failing.rateFault = server::Fault{server::Fault::Kind::status, status, {}, {}};
    failing.pathPrefix = "/api/v1.3/ingest/";
    server_->setFaults(failing);
  }

  std::set<std::string> schemasReceived() const {
    std::set<std::string> schemas;
    for (const auto& point : server_->dataPoints(std::string(kProfile))) {
      schemas.insert(point.schemaNamespace + ":" + point.schemaName);
    }
    return schemas;
  }

  std::string syncArguments() const {
    return "sync --since 2010-01-01 --timeout 60 --json --url " + server_->baseUrl();
  }

  testing::TempDir dir_;
  std::unique_ptr<server::KestrovaServer> server_;
};

TEST_F(CliTest, SyncDeliversAnImportAndTheReportingCommandsAgree) {
  import();
  const CommandRun synced = kestrova(syncArguments(), token());
  ASSERT_EQ(synced.exitCode, 0) << synced.err;
  const auto report = synced.json();
  EXPECT_TRUE(report["complete"].get<bool>());
  EXPECT_GT(report["deliveredFiles"].get<int>(), 0);
  // The events count data points, not files: as many as the server received.
  std::int64_t perFamily = 0;
  for (const auto& [family, points] : report["delivered"].items()) {
    perFamily += points.get<std::int64_t>();
  }
  const auto received = server_->stats().store;
  EXPECT_EQ(perFamily, received.dataPoints + received.duplicates) << synced.out;
  EXPECT_TRUE(schemasReceived().contains("granola:hk-workout") &&
              schemasReceived().contains("omh:body-mass-index"))
      << synced.out;
  EXPECT_EQ(synced.err.find(token()), std::string::npos);

  const auto status = kestrova("status --json").json();
  EXPECT_EQ(status["status"], "connected");
  EXPECT_EQ(status["profileId"], kProfile);
  // The state kept by the library says the same as the sync's events.
  for (const auto& [family, points] : report["delivered"].items()) {
    const auto& delivery = status["delivery"][family];
    EXPECT_EQ(delivery["deliveredPoints"], points) << family;
    EXPECT_TRUE(delivery["lastDelivered"].is_string()) << family;
  }
  std::set<std::string> anchored;
  for (const auto& anchor : status["anchors"]) {
    EXPECT_TRUE(anchor["position"].is_number_unsigned()) << anchor;
    anchored.insert(anchor["name"].get<std::string>());
  }
  EXPECT_TRUE(anchored.contains("bodyMass") && anchored.contains("workout")) << status;

  const CommandRun disconnect = kestrova("disconnect --json");
  ASSERT_EQ(disconnect.exitCode, 0);
  EXPECT_EQ(disconnect.json()["disconnected"], kProfile);
  EXPECT_EQ(kestrova("status --json").json()["status"], "disconnected");
  EXPECT_TRUE(kestrova("disconnect --json").json()["disconnected"].is_null());
}

TEST_F(CliTest, FailedStatisticsUploadsMakeSyncIncompleteAndTheNextSyncSendsThem) {
  import();
  // Heart rate alone is uploaded as statistics, without a file.
  const auto heartRateSync = syncArguments() + " --types heartRate";
  failIngests(503);
  const CommandRun failed = kestrova(heartRateSync, token());
  EXPECT_EQ(failed.exitCode, 6) << failed.err;
  EXPECT_NE(failed.err.find("statistics uploads failed"), std::string::npos) << failed.err;
  EXPECT_FALSE(failed.json()["complete"].get<bool>());
  EXPECT_EQ(failed.json()["pendingFiles"], 0);
  EXPECT_TRUE(schemasReceived().empty());

  server_->setFaults({});
  const CommandRun recovered = kestrova(heartRateSync, token());
  ASSERT_EQ(recovered.exitCode, 0) << recovered.err;
  EXPECT_TRUE(recovered.json()["complete"].get<bool>());
  EXPECT_EQ(schemasReceived(),
            (std::set<std::string>{"ks:daily-summary-with-heart-rate", "ks:ks-heart-rate-sample"}));
}

TEST_F(CliTest, BadTokensArgumentsAndAnUnreachableBackEndFailClearlyWithoutAborting) {
  const std::string url = server_->baseUrl();
  // Well formed, so only the back end can refuse it.
  const std::string foreign = server::mintToken("another-secret", "x");
  const std::string malformed = token().substr(0, 10);
  struct Case {
    std::string arguments;
    std::string token;
    int exitCode;
    std::string message;
  };
  const Case cases[] = {
      {syncArguments(), foreign, 4, "rejected the token"},
      {syncArguments(), malformed, 4, "configuration was refused"},
      {"sync --types 3,25 --url " + url, token(), 1, "25"},
      {syncArguments() + " --types stepcount", token(), 1, "\"stepcount\" is not a data type"},
      {"sync --since 2024-13-01 --url " + url, token(), 1, "YYYY-MM-DD"},
      {"sync --url " + url, "", 1, "KESTROVA_TOKEN"},
  };
  for (const auto& c : cases) {
    const CommandRun run = kestrova(c.arguments, c.token);
    EXPECT_EQ(run.exitCode, c.exitCode) << c.arguments << "\n" << run.err;
    EXPECT_NE(run.err.find(c.message), std::string::npos) << run.err;
    if (!c.token.empty()) {
      EXPECT_EQ(run.err.find(c.token), std::string::npos) << "token printed: " << run.err;
    }
  }
  EXPECT_TRUE(server_->dataPoints("x").empty());

  server_->stop();
  const CommandRun unreachable = kestrova("sync --timeout 20 --url " + url, token());
  EXPECT_EQ(unreachable.exitCode, 5) << unreachable.err;
  EXPECT_NE(unreachable.err.find("could not validate"), std::string::npos) << unreachable.err;
}

TEST_F(CliTest, FilesRefusedFiveTimesAreSetAsideAndComeBackWithRetry) {
  import();
  for (int run = 1; run < 5; ++run) {
    failIngests(400);
    const CommandRun refused = kestrova(syncArguments(), token());
    EXPECT_EQ(refused.exitCode, 6) << refused.err;
    EXPECT_GT(refused.json()["pendingFiles"].get<int>(), 0) << run;
    EXPECT_EQ(refused.json()["rejectedFiles"], 0) << run;
  }
  const auto pending = kestrova("pending --json").json();
  const auto waiting = static_cast<int>(pending.size());
  ASSERT_GT(waiting, 0);

  // The fifth refusal in a row sets every file aside: the sync no longer waits for them.
  failIngests(400);
  const CommandRun fifth = kestrova(syncArguments(), token());
  EXPECT_EQ(fifth.json()["pendingFiles"], 0) << fifth.out;
  EXPECT_EQ(fifth.json()["rejectedFiles"], waiting) << fifth.out;
  EXPECT_NE(fifth.err.find("set aside"), std::string::npos) << fifth.err;
  const auto after = kestrova("status --json").json();
  ASSERT_EQ(after["rejected"].size(), static_cast<std::size_t>(waiting)) << after;
  std::set<std::string> families;
  for (const auto& file : after["rejected"]) {
    EXPECT_EQ(file["attempts"], 5) << file;
    families.insert(file["family"].get<std::string>());
  }
  EXPECT_EQ(families, (std::set<std::string>{"body", "workout"}));
  EXPECT_EQ(after["delivery"]["body"]["lastError"]["httpStatus"], 400) << after["delivery"];
  EXPECT_EQ(kestrova("rejected --json").json(), after["rejected"]);
  EXPECT_NE(kestrova("status").out.find("Set aside:     " + std::to_string(waiting)),
            std::string::npos);

  // Once the back end takes them again, they go back and one sync delivers them all.
  server_->setFaults({});
  const CommandRun retried = kestrova("rejected --retry --json");
  ASSERT_EQ(retried.exitCode, 0) << retried.err;
  EXPECT_EQ(retried.json()["restored"].size(), static_cast<std::size_t>(waiting));
  EXPECT_EQ(kestrova("rejected --json").json(), nlohmann::json::array());
  const CommandRun delivered = kestrova(syncArguments(), token());
  ASSERT_EQ(delivered.exitCode, 0) << delivered.err;
  EXPECT_EQ(delivered.json()["deliveredFiles"], waiting);
  EXPECT_EQ(kestrova("pending --json").json(), nlohmann::json::array());
}

}  // namespace
}  // namespace kestrova
