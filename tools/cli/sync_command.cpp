#include "tools/cli/sync_command.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <thread>

#include "platform/activity.h"
#include "tools/cli/library_session.h"

namespace kestrova::cli {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::string_view kName = "sync";
constexpr std::string_view kDescription =
    "Deliver what the health store holds: configure with the token, connect (the back end "
    "validates the profile), collect, and wait until every upload has been answered. Reports "
    "the data points delivered per family, the files still pending and those set aside because "
    "the back end refused them again and again (see `kestrova rejected`).";
constexpr std::string_view kTimeoutHelp = "Give up after this many seconds with files pending";
constexpr std::string_view kJsonHelp = "Print the report as JSON on standard output";
constexpr std::string_view kTimedOut =
    "kestrova: %zu upload files still pending after %.0f s; they stay and the next sync sends "
    "them. Last error: %s\n";
constexpr std::string_view kNotTaken =
    "kestrova: %zu upload files still pending: the back end did not take them; they stay and "
    "the next sync sends them. Last error: %s\n";
constexpr std::string_view kSetAside =
    "kestrova: %zu upload files are set aside after repeated refusals; `kestrova rejected` "
    "lists them and says why\n";
constexpr std::string_view kStatisticsFailed =
    "kestrova: %d statistics uploads failed; their figures stay new and the next sync sends "
    "them. Last error: %s\n";
constexpr std::string_view kProgressTerminal = "\rsync: %zu files pending, %d delivered   ";
constexpr std::string_view kProgressPlain = "sync: %zu files pending, %d delivered\n";
constexpr std::string_view kReportHeader = "Delivered to %s for profile %s:\n";
constexpr std::string_view kReportLine = "  %-10s %llu data points\n";
constexpr std::string_view kReportNothing = "  nothing new\n";
constexpr std::string_view kReportFooter =
    "%d upload files, %d statistics uploads; %zu files pending, %zu set aside, %d uploads "
    "failed, %.1f s\n";

// How long the library must stay idle before sync counts the delivery done: a few polls, so
// that one reading is never the whole verdict. Idle means every upload has its answer; files
// the back end did not take stay pending for the next sync.
constexpr auto kSettle = std::chrono::milliseconds(250);
constexpr auto kPoll = std::chrono::milliseconds(50);
constexpr auto kPlainProgressInterval = std::chrono::seconds(2);

struct SyncArguments {
  ConnectionArguments connection;
  double timeoutSeconds = 300;
  bool json = false;
};

int runSync(const SyncArguments& arguments, const CommonOptions& common) {
  const auto started = Clock::now();
  const auto timeout =
      std::chrono::milliseconds(static_cast<long>(arguments.timeoutSeconds * 1000));
  Connection connection;
  if (int failed = connectLibrary(arguments.connection, common, timeout, connection);
      failed != kExitOk) {
    return failed;
  }
  const ErrorLog& log = *connection.log;
  const DeliveryCounts& deliveries = *connection.deliveries;

  const bool terminal = ::isatty(STDERR_FILENO) == 1;
  const bool showProgress = !common.quiet;
  auto busySince = Clock::now();
  auto lastPlainLine = Clock::time_point{};
  std::size_t pending = 0;
  DeliveryCounts::Counts counts;
  bool settled = false;
  while (Clock::now() - started < timeout) {
    pending = pendingFiles(*connection.platform).size();
    counts = deliveries.counts();
    const auto now = Clock::now();
    // Idle also means the statistics timers have fired and their requests are answered.
    if (!activity::idle()) {
      busySince = now;
    } else if (now - busySince >= kSettle) {
      settled = true;
      break;
    }
    if (showProgress && terminal) {
      std::fprintf(stderr, kProgressTerminal.data(), pending, counts.deliveredFiles);
    } else if (showProgress && now - lastPlainLine >= kPlainProgressInterval) {
      std::fprintf(stderr, kProgressPlain.data(), pending, counts.deliveredFiles);
      lastPlainLine = now;
    }
    std::this_thread::sleep_for(kPoll);
  }
  if (showProgress && terminal) {
    std::fputc('\n', stderr);
  }
  counts = deliveries.counts();
  pending = pendingFiles(*connection.platform).size();
  const std::size_t rejected = rejectedFileCount(*connection.platform);
  const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
  if (arguments.json) {
    nlohmann::json report = uploadJson(counts, pending, rejected);
    report["profileId"] = connection.profileId;
    report["url"] = connection.url;
    report["complete"] = settled && pending == 0 && counts.failedStatisticsUploads == 0;
    report["seconds"] = seconds;
    std::printf("%s\n", report.dump(2).c_str());
  } else if (!common.quiet) {
    std::printf(kReportHeader.data(), connection.url.c_str(), connection.profileId.c_str());
    for (const auto& [family, points] : counts.deliveredPoints) {
      std::printf(kReportLine.data(), family.c_str(), static_cast<unsigned long long>(points));
    }
    if (counts.deliveredPoints.empty()) {
      std::printf("%s", kReportNothing.data());
    }
    std::printf(kReportFooter.data(), counts.deliveredFiles, counts.statisticsUploads, pending,
                rejected, counts.failedUploads, seconds);
  }
  std::fflush(stdout);
  const std::string lastError = counts.lastFailure.empty() ? log.lastError() : counts.lastFailure;
  const char* detail = lastError.empty() ? kNoDetail.data() : lastError.c_str();
  if (rejected > 0) {
    std::fprintf(stderr, kSetAside.data(), rejected);
  }
  if (!settled) {
    std::fprintf(stderr, kTimedOut.data(), pending, arguments.timeoutSeconds, detail);
    return kExitTimedOut;
  }
  if (pending > 0) {
    std::fprintf(stderr, kNotTaken.data(), pending, detail);
    return kExitTimedOut;
  }
  // Like a file that stays, a figure whose upload failed waits for the next sync.
  if (counts.failedStatisticsUploads > 0) {
    std::fprintf(stderr, kStatisticsFailed.data(), counts.failedStatisticsUploads, detail);
    return kExitTimedOut;
  }
  return kExitOk;
}

}  // namespace

void addSyncCommand(CLI::App& app, const CommonOptions& common, int* exitCode) {
  auto arguments = std::make_shared<SyncArguments>();
  CLI::App* command = app.add_subcommand(std::string(kName), std::string(kDescription));
  addConnectionOptions(*command, arguments->connection);
  command->add_option("--timeout", arguments->timeoutSeconds, std::string(kTimeoutHelp))
      ->check(CLI::PositiveNumber)
      ->capture_default_str()
      ->type_name("SECONDS");
  command->add_flag("--json", arguments->json, std::string(kJsonHelp));
  command->callback([arguments, &common, exitCode] { *exitCode = runSync(*arguments, common); });
}

}  // namespace kestrova::cli
