// The kestrova command as a user runs it: the built binary, the token in KESTROVA_TOKEN, an
// import of a real export, and the reference server on 127.0.0.1 checked afterwards.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "server/jwt.h"
#include "server/server.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

constexpr std::string_view kSecret = "cli-test-secret";
constexpr std::string_view kProfile = "cli-profile";
constexpr std::string_view kExport =
    KESTROVA_TEST_DATA "/apple-health/healthkit-to-sqlite/export.xml";

struct CommandRun {
  int exitCode = -1;
  std::string out;
  std::string err;

  nlohmann::json json() const { return nlohmann::json::parse(out); }
};

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
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

  void TearDown() override { ::unsetenv("KESTROVA_TOKEN"); }

  // Runs kestrova with `arguments` (shell words) and the token, if any, in the environment
  // only, as a user is told to.
  CommandRun kestrova(const std::string& arguments, const std::string& token = "") {
    if (token.empty()) {
      ::unsetenv("KESTROVA_TOKEN");
    } else {
      ::setenv("KESTROVA_TOKEN", token.c_str(), 1);
    }
    const auto out = dir_.path() / "out.txt";
    const auto err = dir_.path() / "err.txt";
    const std::string command = std::string(KESTROVA_CLI_PATH) + " " + arguments + " --data-dir " +
                                (dir_.path() / "data").string() + " >" + out.string() + " 2>" +
                                err.string();
    const int status = std::system(command.c_str());
    CommandRun run;
    run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    run.out = readFile(out);
    run.err = readFile(err);
    return run;
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
  int perFamily = 0;
  for (const auto& [family, files] : report["delivered"].items()) {
    perFamily += files.get<int>();
  }
  EXPECT_GT(perFamily, 0);
  EXPECT_EQ(report["deliveredFiles"], perFamily);
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
  failing.rateFault = server::Fault{server::Fault::Kind::status, 503, {}};
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

}  // namespace
}  // namespace kestrova
