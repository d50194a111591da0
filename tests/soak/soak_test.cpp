// `kestrova watch` against a back end that fails at random (5xx, 403, slow answers, dropped
// connections), then recovers: every data point a clean run delivers must arrive, whatever
// the faults did. KESTROVA_SOAK_SECONDS sets how long the faults last (a long run: 600).
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "e2e/library_harness.h"
#include "export_generator.h"
#include "platform/log.h"
#include "server/server.h"
#include "support/kestrova_command.h"
#include "support/test_support.h"

namespace kestrova {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr std::string_view kProfile = "soak-profile";
constexpr std::string_view kSince = "2021-01-01";
// The export comes in parts of consecutive weeks, one imported every few seconds of the
// faults, so that deliveries keep meeting them; more parts in a longer run.
constexpr int kExportDays = 7;
constexpr int kSecondsPerPart = 8;
// About 30% server errors, 5% refusals, and some slow answers and dropped connections. A long
// run can afford answers slower than the client's request timeout of 60 s, and gets them.
constexpr std::string_view kFaultMix = "500=0.15,503=0.15,403=0.05,delay:1500=0.03,drop=0.03";
constexpr std::string_view kLongRunFaultMix =
    "500=0.15,503=0.15,403=0.05,delay:1500=0.02,delay:65000=0.01,drop=0.03";
constexpr int kLongRunSeconds = 300;
constexpr std::uint64_t kFaultSeed = 20240601;
constexpr int kDefaultSoakSeconds = 40;
// Keeps the waits after the faults short; the backoff itself is what is under test.
constexpr std::string_view kMaxRetryDelay = "4";
constexpr auto kStepTimeout = std::chrono::milliseconds(3min);
constexpr std::string_view kLoopbackUrl = "http://127.0.0.1:";

int soakSeconds() {
  const char* value = std::getenv("KESTROVA_SOAK_SECONDS");
  return value != nullptr && std::atoi(value) > 0 ? std::atoi(value) : kDefaultSoakSeconds;
}

// The complete JSON lines of `text`.
std::vector<nlohmann::json> events(const std::string& text) {
  std::vector<nlohmann::json> parsed;
  std::istringstream lines(text);
  std::string line;
  while (std::getline(lines, line) && !lines.eof()) {
    parsed.push_back(nlohmann::json::parse(line));
  }
  return parsed;
}

std::set<std::string> headerIds(const server::KestrovaServer& server) {
  std::set<std::string> ids;
  for (const auto& point : server.dataPoints(std::string(kProfile))) {
    ids.insert(point.id);
  }
  return ids;
}

// The requests the server saw per answer ("200", "503", "dropped", ...).
std::map<std::string, std::int64_t> answers(const server::ServerStats& stats) {
  std::map<std::string, std::int64_t> counts;
  for (const auto& [path, given] : stats.requests) {
    for (const auto& [answer, times] : given) {
      counts[answer] += times;
    }
  }
  return counts;
}

class SoakTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // The in-process servers would log every request.
    logging::setMinimumLevel(LogLevel::error);
    for (int part = 0; part < std::max(2, soakSeconds() / kSecondsPerPart); ++part) {
      bench::GeneratorOptions options;
      options.days = kExportDays;
      options.firstDay = part * kExportDays;
      auto generated =
          bench::generateExport(dir_.path() / ("export-" + std::to_string(part)), options);
      ASSERT_TRUE(generated) << generated.error().text();
      parts_.push_back(generated->folder);
    }
  }

  // kestrova on the data directory `side`, with the profile's token of `server`.
  testing::KestrovaCommand kestrova(const std::string& side,
                                    const server::KestrovaServer& server) const {
    return {KESTROVA_CLI_PATH, dir_.path() / side, server.tokenFor(std::string(kProfile))};
  }

  testing::TempDir dir_;
  std::vector<fs::path> parts_;
};

TEST_F(SoakTest, WatchLosesNothingWhileTheBackEndFailsAtRandomAndThenRecovers) {
  // The reference: what a sync delivers to a back end without faults.
  auto clean = testing::startServer("soak-secret");
  ASSERT_TRUE(clean);
  const auto reference = kestrova("clean", *clean);
  for (const auto& part : parts_) {
    ASSERT_EQ(reference.run({"import", "--quiet", part.string()}, kStepTimeout).exitCode, 0);
  }
  const auto sync = reference.run({"sync", "--url", clean->baseUrl(), "--since",
                                   std::string(kSince), "--timeout", "240", "--json", "--quiet"},
                                  kStepTimeout);
  ASSERT_EQ(sync.exitCode, 0) << sync.err;
  const auto expected = headerIds(*clean);
  ASSERT_FALSE(expected.empty());

  // The profile check of the connection passes; every API request after it meets the mix.
  server::FaultPlan faults;
  faults.script = server::FaultPlan::parseScript("pass").value();
  const auto mix = soakSeconds() >= kLongRunSeconds ? kLongRunFaultMix : kFaultMix;
  faults.mix = server::FaultPlan::parseMix(mix).value();
  faults.seed = kFaultSeed;
  auto faulty = testing::startServer("soak-secret", faults);
  ASSERT_TRUE(faulty);
  const auto command = kestrova("faulty", *faulty);
  auto watch =
      command.start({"watch", "--json", "--quiet", "--url", faulty->baseUrl(), "--since",
                     std::string(kSince), "--max-retry-delay", std::string(kMaxRetryDelay)});
  ASSERT_TRUE(watch->started());
  const auto soak = std::chrono::seconds(soakSeconds());
  for (const auto& part : parts_) {
    ASSERT_EQ(command.run({"import", "--quiet", part.string()}, kStepTimeout).exitCode, 0);
    ASSERT_EQ(watch->wait(soak / parts_.size()), std::nullopt)
        << "watch ended during the faults: " << watch->err();
  }

  faulty->setFaults({});
  std::set<std::string> missing;
  const bool complete = testing::eventually(
      [&] {
        const auto received = headerIds(*faulty);
        missing.clear();
        std::set_difference(expected.begin(), expected.end(), received.begin(), received.end(),
                            std::inserter(missing, missing.end()));
        const auto seen = events(watch->out());
        return missing.empty() && !seen.empty() && seen.back()["pendingFiles"] == 0;
      },
      kStepTimeout);
  EXPECT_TRUE(complete) << missing.size() << " data points missing: " << watch->err();
  EXPECT_EQ(watch->stop(SIGTERM, kStepTimeout), 0) << watch->err();

  const auto seen = events(watch->out());
  ASSERT_GE(seen.size(), 2u);
  const auto& connected = seen.front();
  const auto& stopped = seen.back();
  ASSERT_EQ(connected["event"], "connected");
  ASSERT_EQ(stopped["event"], "stopped");
  // Every request went to the server on the loopback address: the configured URL names it, and
  // the server saw at least every request whose outcome the client counted (plus the profile
  // checks), so none went elsewhere.
  EXPECT_TRUE(connected["url"].get<std::string>().starts_with(kLoopbackUrl)) << connected;
  const auto stats = faulty->stats();
  const int uploads = stopped["deliveredFiles"].get<int>() + stopped["failedUploads"].get<int>() +
                      stopped["statisticsUploads"].get<int>();
  const auto answered = answers(stats);
  std::int64_t requests = 0;
  for (const auto& [answer, times] : answered) {
    requests += times;
  }
  EXPECT_GE(requests, uploads + 1);
  EXPECT_GT(stopped["failedUploads"].get<int>(), 0) << "the faults never hit an upload";

  std::printf(
      "soak: %lld s of faults (%s), %zu data points expected, %zu lost; client: %d upload "
      "requests with an outcome, %d retries; server: %lld API requests %s, %lld "
      "duplicates\n",
      static_cast<long long>(soak.count()), mix.data(), expected.size(), missing.size(), uploads,
      stopped["retries"].get<int>(), static_cast<long long>(requests),
      nlohmann::json(answered).dump().c_str(), static_cast<long long>(stats.store.duplicates));
  std::map<std::string, int> missingBySchema;
  for (const auto& point : clean->dataPoints(std::string(kProfile))) {
    missingBySchema[point.schemaName] += missing.contains(point.id) ? 1 : 0;
  }
  EXPECT_EQ(missing.size(), 0u) << nlohmann::json(missingBySchema).dump();
}

}  // namespace
}  // namespace kestrova
