#include "tools/cli/sync_command.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>

#include "kestrova/facade.h"
#include "platform/log.h"
#include "tools/cli/library_session.h"

namespace kestrova::cli {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::string_view kName = "sync";
constexpr std::string_view kDescription =
    "Deliver what the health store holds: configure with the token, connect (the back end "
    "validates the profile), collect, and wait until the back end has accepted every upload "
    "file. Reports what was delivered per family.";
constexpr std::string_view kTokenHelp =
    "The profile's bearer token; prefer the KESTROVA_TOKEN environment variable, which keeps "
    "it out of the shell history";
constexpr std::string_view kUrlHelp = "The back end's API base URL (default: the service's)";
constexpr std::string_view kSinceHelp =
    "Collect from this day on, YYYY-MM-DD in UTC (default: 20 days back)";
constexpr std::string_view kTypesHelp =
    "Comma-separated data type numbers 0...24 to collect (default: all)";
constexpr std::string_view kTimeoutHelp = "Give up after this many seconds with files pending";
constexpr std::string_view kJsonHelp = "Print the report as JSON on standard output";
constexpr std::string_view kTokenEnvironment = "KESTROVA_TOKEN";

constexpr std::string_view kNoToken = "kestrova: no token: set KESTROVA_TOKEN (or pass --token)\n";
constexpr std::string_view kSetupFailed = "kestrova: cannot set up the data directory: %s\n";
constexpr std::string_view kBadSince = "kestrova: --since wants YYYY-MM-DD, not \"%s\"\n";
constexpr std::string_view kNoAnswer = "kestrova: the library did not answer within %s\n";
constexpr std::string_view kConfigureFailed = "kestrova: the configuration was refused: %s\n";
constexpr std::string_view kRejected =
    "kestrova: the back end at %s rejected the token (HTTP 403); check KESTROVA_TOKEN\n";
constexpr std::string_view kUnreachable =
    "kestrova: could not validate the profile with the back end at %s: %s\n";
constexpr std::string_view kNoDetail = "no answer (is it running? see --verbose)";
constexpr std::string_view kTimedOut =
    "kestrova: %zu upload files still pending after %.0f s; they stay and the next sync sends "
    "them. Last error: %s\n";
constexpr std::string_view kProgressTerminal = "\rsync: %zu files pending, %d delivered   ";
constexpr std::string_view kProgressPlain = "sync: %zu files pending, %d delivered\n";
constexpr std::string_view kReportHeader = "Delivered to %s for profile %s:\n";
constexpr std::string_view kReportLine = "  %-10s %d upload files\n";
constexpr std::string_view kReportNothing = "  nothing new\n";
constexpr std::string_view kReportFooter = "%zu files pending, %d uploads failed, %.1f s\n";

// The library's upload lines, the only signal of which file the back end accepted.
constexpr std::string_view kUploadedFragment = " has been uploaded successfully";
constexpr std::string_view kNotUploadedFragment = " has NOT been uploaded successfully";
constexpr std::string_view kFilePrefix = "File ";
// A refused profile validation logs this; a network failure does not.
constexpr std::string_view kForbiddenFragment = "403";

// Seam: statistics are uploaded straight from their store a few seconds after they are
// recorded, without an upload file, and the statistics pipeline does not say when it is idle.
// Until it does, sync counts it idle once neither files nor uploads have changed for this long
// (longer than its upload delay of 3 s).
constexpr auto kSettle = std::chrono::seconds(4);
constexpr auto kPoll = std::chrono::milliseconds(50);
constexpr auto kPlainProgressInterval = std::chrono::seconds(2);

struct SyncArguments {
  std::string token;
  std::optional<std::string> url;
  std::optional<std::string> since;
  std::vector<int> types;
  double timeoutSeconds = 300;
  bool json = false;
};

// Counts the library's upload lines and passes on what the chosen verbosity shows.
class UploadWatchingSink : public LogSink {
 public:
  UploadWatchingSink(std::shared_ptr<LogSink> next, LogLevel shownFrom)
      : next_(std::move(next)), shownFrom_(shownFrom) {}

  void write(LogLevel level, std::string_view category, std::string_view message) override {
    {
      std::lock_guard lock(mutex_);
      if (auto at = message.find(kNotUploadedFragment); at != std::string_view::npos) {
        ++failed_;
        ++activity_;
      } else if (auto at = message.find(kUploadedFragment); at != std::string_view::npos) {
        std::string_view name = message.substr(0, at);
        if (auto start = name.find(kFilePrefix); start != std::string_view::npos) {
          name.remove_prefix(start + kFilePrefix.size());
        }
        ++delivered_[familyOfFile(name)];
        ++activity_;
      }
      if (level >= LogLevel::error) {
        lastError_ = std::string(message);
      }
    }
    if (level >= shownFrom_) {
      next_->write(level, category, message);
    }
  }

  std::map<std::string, int> delivered() const {
    std::lock_guard lock(mutex_);
    return delivered_;
  }
  int deliveredCount() const {
    std::lock_guard lock(mutex_);
    int count = 0;
    for (const auto& [family, files] : delivered_) {
      count += files;
    }
    return count;
  }
  int failed() const {
    std::lock_guard lock(mutex_);
    return failed_;
  }
  long activity() const {
    std::lock_guard lock(mutex_);
    return activity_;
  }
  std::string lastError() const {
    std::lock_guard lock(mutex_);
    return lastError_;
  }

 private:
  const std::shared_ptr<LogSink> next_;
  const LogLevel shownFrom_;
  mutable std::mutex mutex_;  // owns the fields below
  std::map<std::string, int> delivered_;
  int failed_ = 0;
  long activity_ = 0;
  std::string lastError_;
};

std::optional<KestrovaConfig::Date> parseDay(const std::string& text) {
  int year = 0;
  unsigned month = 0;
  unsigned day = 0;
  char rest = 0;
  if (std::sscanf(text.c_str(), "%4d-%2u-%2u%c", &year, &month, &day, &rest) != 3) {
    return std::nullopt;
  }
  const std::chrono::year_month_day date{std::chrono::year(year), std::chrono::month(month),
                                         std::chrono::day(day)};
  if (!date.ok()) {
    return std::nullopt;
  }
  return std::chrono::sys_days(date);
}

int reportFailure(const std::string& url, const kestrova::GenericError& error,
                  const UploadWatchingSink& sink) {
  using Code = KestrovaHealthKitError::Code;
  if (error.code != static_cast<int>(Code::failedToValidateProfile)) {
    // Some descriptions carry the token itself.
    const std::string description = logging::redact(error.localizedDescription);
    std::fprintf(stderr, kConfigureFailed.data(), description.c_str());
    return error.code == static_cast<int>(Code::noProfileIdProvided) ||
                   error.code == static_cast<int>(Code::invalidToken) ||
                   error.code == static_cast<int>(Code::apiURLNotValid) ||
                   error.code == static_cast<int>(Code::invalidHost) ||
                   error.code == static_cast<int>(Code::invalidScheme)
               ? kExitRejected
               : kExitFailed;
  }
  const std::string detail = sink.lastError();
  if (detail.find(kForbiddenFragment) != std::string::npos) {
    std::fprintf(stderr, kRejected.data(), url.c_str());
    return kExitRejected;
  }
  std::fprintf(stderr, kUnreachable.data(), url.c_str(),
               detail.empty() ? kNoDetail.data() : detail.c_str());
  return kExitUnreachable;
}

int runSync(const SyncArguments& arguments, const CommonOptions& common) {
  if (arguments.token.empty()) {
    std::fprintf(stderr, "%s", kNoToken.data());
    return kExitFailed;
  }
  // Upload lines are info lines: let them through to the counting sink, show only errors.
  logging::setMinimumLevel(common.verbose ? LogLevel::debug : LogLevel::info);
  auto sink = std::make_shared<UploadWatchingSink>(
      makeStderrLogSink(), common.verbose ? LogLevel::debug : LogLevel::error);
  logging::setSink(sink);
  logging::registerSecret(arguments.token);

  auto platform = installLibraryPlatform(common);
  if (!platform) {
    std::fprintf(stderr, kSetupFailed.data(), platform.error().text().c_str());
    return kExitSetupFailed;
  }
  std::optional<KestrovaConfig::Date> since;
  if (arguments.since) {
    since = parseDay(*arguments.since);
    if (!since) {
      std::fprintf(stderr, kBadSince.data(), arguments.since->c_str());
      return kExitFailed;
    }
  }
  const auto timeout =
      std::chrono::milliseconds(static_cast<long>(arguments.timeoutSeconds * 1000));
  const std::string timeoutText =
      std::to_string(static_cast<long>(arguments.timeoutSeconds)) + " s";
  const KestrovaConfig config =
      arguments.types.empty()
          ? KestrovaConfig(arguments.token, arguments.url, since)
          : KestrovaConfig(arguments.token, arguments.url, since, arguments.types);

  const auto started = Clock::now();
  auto outcome = configureAndWait(config, timeout);
  if (outcome && outcome->success) {
    outcome = connectAndWait(timeout);
  }
  if (!outcome) {
    std::fprintf(stderr, kNoAnswer.data(), timeoutText.c_str());
    return kExitTimedOut;
  }
  if (!outcome->success) {
    return reportFailure(config.url(), outcome->error.value_or(kestrova::GenericError{}), *sink);
  }

  const bool terminal = ::isatty(STDERR_FILENO) == 1;
  const bool showProgress = !common.quiet;
  auto lastChange = Clock::now();
  auto lastPlainLine = Clock::time_point{};
  std::size_t lastPending = 0;
  long lastActivity = -1;
  std::size_t pending = 0;
  bool settled = false;
  while (Clock::now() - started < timeout) {
    pending = pendingFiles(*platform.value()).size();
    const long activity = sink->activity();
    const auto now = Clock::now();
    if (pending != lastPending || activity != lastActivity) {
      lastChange = now;
      lastPending = pending;
      lastActivity = activity;
    }
    if (pending == 0 && now - lastChange >= kSettle) {
      settled = true;
      break;
    }
    if (showProgress && terminal) {
      std::fprintf(stderr, kProgressTerminal.data(), pending, sink->deliveredCount());
    } else if (showProgress && now - lastPlainLine >= kPlainProgressInterval) {
      std::fprintf(stderr, kProgressPlain.data(), pending, sink->deliveredCount());
      lastPlainLine = now;
    }
    std::this_thread::sleep_for(kPoll);
  }
  if (showProgress && terminal) {
    std::fputc('\n', stderr);
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - started).count();
  const std::string profile = Kestrova::connectedProfileId().value_or("");
  if (arguments.json) {
    nlohmann::json report = {{"profileId", profile},
                             {"url", config.url()},
                             {"delivered", sink->delivered()},
                             {"deliveredFiles", sink->deliveredCount()},
                             {"failedUploads", sink->failed()},
                             {"pendingFiles", pending},
                             {"complete", settled},
                             {"seconds", seconds}};
    std::printf("%s\n", report.dump(2).c_str());
  } else if (!common.quiet) {
    std::printf(kReportHeader.data(), config.url().c_str(), profile.c_str());
    const auto delivered = sink->delivered();
    for (const auto& [family, files] : delivered) {
      std::printf(kReportLine.data(), family.c_str(), files);
    }
    if (delivered.empty()) {
      std::printf("%s", kReportNothing.data());
    }
    std::printf(kReportFooter.data(), pending, sink->failed(), seconds);
  }
  std::fflush(stdout);
  if (!settled) {
    const std::string lastError = sink->lastError();
    std::fprintf(stderr, kTimedOut.data(), pending, arguments.timeoutSeconds,
                 lastError.empty() ? kNoDetail.data() : lastError.c_str());
    return kExitTimedOut;
  }
  return kExitOk;
}

}  // namespace

void addSyncCommand(CLI::App& app, const CommonOptions& common, int* exitCode) {
  auto arguments = std::make_shared<SyncArguments>();
  CLI::App* command = app.add_subcommand(std::string(kName), std::string(kDescription));
  command->add_option("--token", arguments->token, std::string(kTokenHelp))
      ->envname(std::string(kTokenEnvironment))
      ->type_name("TOKEN");
  command->add_option("--url", arguments->url, std::string(kUrlHelp))->type_name("URL");
  command->add_option("--since", arguments->since, std::string(kSinceHelp))->type_name("DATE");
  command->add_option("--types", arguments->types, std::string(kTypesHelp))
      ->delimiter(',')
      ->check(CLI::Range(0, 24))
      ->type_name("LIST");
  command->add_option("--timeout", arguments->timeoutSeconds, std::string(kTimeoutHelp))
      ->check(CLI::PositiveNumber)
      ->capture_default_str()
      ->type_name("SECONDS");
  command->add_flag("--json", arguments->json, std::string(kJsonHelp));
  command->callback([arguments, &common, exitCode] { *exitCode = runSync(*arguments, common); });
}

}  // namespace kestrova::cli
