#include "tools/cli/library_session.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <future>

#include "storage/file_server.h"
#include "tools/cli/cli_context.h"

namespace kestrova::cli {
namespace {

constexpr std::string_view kTokenHelp =
    "The profile's bearer token; prefer the KESTROVA_TOKEN environment variable, which keeps "
    "it out of the shell history";
constexpr std::string_view kUrlHelp = "The back end's API base URL (default: the service's)";
constexpr std::string_view kSinceHelp =
    "Collect from this day on, YYYY-MM-DD in UTC (default: 20 days back)";
constexpr std::string_view kTypesHelp =
    "Comma-separated data types to collect, as numbers 0...24 or names such as stepCount "
    "(default: all)";
constexpr std::string_view kTokenEnvironment = "KESTROVA_TOKEN";

constexpr std::string_view kNoToken = "kestrova: no token: set KESTROVA_TOKEN (or pass --token)\n";
constexpr std::string_view kBadSince = "kestrova: --since wants YYYY-MM-DD, not \"%s\"\n";
constexpr std::string_view kBadType =
    "kestrova: --types: \"%s\" is not a data type (0...24, or a name such as stepCount)\n";
constexpr std::string_view kNoAnswer = "kestrova: the library did not answer within %lld s\n";
constexpr std::string_view kConfigureFailed = "kestrova: the configuration was refused: %s\n";
constexpr std::string_view kRejected =
    "kestrova: the back end at %s rejected the token (HTTP 403); check KESTROVA_TOKEN\n";
constexpr std::string_view kUnreachable =
    "kestrova: could not validate the profile with the back end at %s: %s\n";

// A refused profile validation logs this; a network failure does not.
constexpr std::string_view kForbiddenFragment = "403";

constexpr auto kWaitSlice = std::chrono::milliseconds(50);

std::optional<Outcome> waitFor(const std::function<void(Kestrova::GenericCompletion)>& start,
                               std::chrono::milliseconds timeout, const Interrupted& interrupted) {
  auto done = std::make_shared<std::promise<Outcome>>();
  std::future<Outcome> outcome = done->get_future();
  start([done](bool success, std::optional<kestrova::GenericError> error) {
    done->set_value(Outcome{success, std::move(error)});
  });
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (outcome.wait_for(std::min<std::chrono::steady_clock::duration>(
             kWaitSlice, deadline - std::chrono::steady_clock::now())) !=
         std::future_status::ready) {
    if (std::chrono::steady_clock::now() >= deadline || (interrupted && interrupted())) {
      return std::nullopt;
    }
  }
  return outcome.get();
}

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
                  const ErrorLog& log) {
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
  const std::string detail = log.lastError();
  if (detail.find(kForbiddenFragment) != std::string::npos) {
    std::fprintf(stderr, kRejected.data(), url.c_str());
    return kExitRejected;
  }
  std::fprintf(stderr, kUnreachable.data(), url.c_str(),
               detail.empty() ? kNoDetail.data() : detail.c_str());
  return kExitUnreachable;
}

// A data type by its number or its name; none for anything else.
std::optional<int> dataTypeOf(const std::string& text) {
  for (auto type : KestrovaHealthKitDataType::allCases()) {
    if (text == type.name() || text == std::to_string(type.rawValue())) {
      return type.rawValue();
    }
  }
  return std::nullopt;
}

}  // namespace

Result<std::shared_ptr<const Platform>> installLibraryPlatform(const CommonOptions& options) {
  PlatformOptions platformOptions;
  platformOptions.dataDirectory = options.dataDirectory;
  Result<std::shared_ptr<const Platform>> platform = makeLinuxPlatform(platformOptions);
  if (platform) {
    installPlatform(platform.value());
  }
  return platform;
}

std::vector<PendingFile> pendingFiles(const Platform& platform) {
  std::vector<PendingFile> files;
  FileServer server(platform.files, FileServer::sharedWriteQueue(*platform.dispatcher));
  const auto now = std::filesystem::file_time_type::clock::now();
  for (bool bulk : {false, true}) {
    auto directory = server.directoryURL(bulk);
    std::error_code error;
    if (!directory || !std::filesystem::is_directory(*directory, error)) {
      continue;
    }
    std::vector<PendingFile> found;
    for (const auto& entry : std::filesystem::directory_iterator(*directory, error)) {
      std::error_code statError;
      if (!entry.is_regular_file(statError)) {
        continue;
      }
      PendingFile file;
      file.name = entry.path().filename().string();
      file.family = kSingleSampleFamily;
      if (auto components = FileNameComponents::parse(file.name)) {
        file.family = familyOfFile(*components);
        file.profileId = components->profileId;
      }
      file.bulk = bulk;
      file.bytes = entry.file_size(statError);
      const auto written = entry.last_write_time(statError);
      if (!statError) {
        file.age = std::max(std::chrono::seconds(0),
                            std::chrono::duration_cast<std::chrono::seconds>(now - written));
      }
      found.push_back(std::move(file));
    }
    std::sort(found.begin(), found.end(),
              [](const PendingFile& a, const PendingFile& b) { return a.name < b.name; });
    files.insert(files.end(), found.begin(), found.end());
  }
  return files;
}

std::optional<Outcome> configureAndWait(const KestrovaConfig& config,
                                        std::chrono::milliseconds timeout,
                                        const Interrupted& interrupted) {
  return waitFor(
      [&config](Kestrova::GenericCompletion completion) {
        Kestrova::_configure(config, std::move(completion));
      },
      timeout, interrupted);
}

std::optional<Outcome> connectAndWait(std::chrono::milliseconds timeout,
                                      const Interrupted& interrupted) {
  return waitFor(
      [](Kestrova::GenericCompletion completion) { Kestrova::_connect(std::move(completion)); },
      timeout, interrupted);
}

std::string_view statusName(Kestrova::Status::Case status) {
  switch (status) {
    case Kestrova::Status::Case::connected:
      return "connected";
    case Kestrova::Status::Case::disconnected:
      return "disconnected";
    case Kestrova::Status::Case::notConfigured:
      return "not configured";
  }
  return "not configured";
}

void addConnectionOptions(CLI::App& command, ConnectionArguments& arguments) {
  command.add_option("--token", arguments.token, std::string(kTokenHelp))
      ->envname(std::string(kTokenEnvironment))
      ->type_name("TOKEN");
  command.add_option("--url", arguments.url, std::string(kUrlHelp))->type_name("URL");
  command.add_option("--since", arguments.since, std::string(kSinceHelp))->type_name("DATE");
  command.add_option("--types", arguments.types, std::string(kTypesHelp))
      ->delimiter(',')
      ->type_name("LIST");
}

void ErrorLog::write(LogLevel level, std::string_view category, std::string_view message) {
  if (level >= LogLevel::error) {
    std::lock_guard lock(mutex_);
    lastError_ = std::string(message);
  }
  if (level >= shownFrom_) {
    next_->write(level, category, message);
  }
}

std::string ErrorLog::lastError() const {
  std::lock_guard lock(mutex_);
  return lastError_;
}

std::shared_ptr<DeliveryCounts> DeliveryCounts::listen() {
  auto counts = std::make_shared<DeliveryCounts>();
  Kestrova::setDeliveryListener(
      [counts](const KestrovaDeliveryEvent& event) { counts->add(event); });
  return counts;
}

void DeliveryCounts::add(const KestrovaDeliveryEvent& event) {
  std::lock_guard lock(mutex_);
  const bool statistics = event.family == kStatisticsFamily;
  if (event.accepted) {
    counts_.deliveredPoints[event.family] += event.dataPoints;
    ++(statistics ? counts_.statisticsUploads : counts_.deliveredFiles);
  } else {
    ++(statistics ? counts_.failedStatisticsUploads : counts_.failedUploads);
    counts_.lastFailure =
        event.httpStatus ? "HTTP " + std::to_string(*event.httpStatus) + " (" + event.family + ")"
        : event.error    ? event.error->localizedDescription
                         : std::string();
  }
  counts_.setAside += event.setAside ? 1 : 0;
  if (event.retryNotBefore) {
    counts_.retryNotBefore =
        std::max(counts_.retryNotBefore.value_or(*event.retryNotBefore), *event.retryNotBefore);
  }
}

DeliveryCounts::Counts DeliveryCounts::counts() const {
  std::lock_guard lock(mutex_);
  return counts_;
}

nlohmann::json uploadJson(const DeliveryCounts::Counts& counts, std::size_t pendingFiles,
                          std::size_t rejectedFiles) {
  return {{"delivered", counts.deliveredPoints},   {"deliveredFiles", counts.deliveredFiles},
          {"failedUploads", counts.failedUploads}, {"statisticsUploads", counts.statisticsUploads},
          {"setAside", counts.setAside},           {kPendingFilesKey, pendingFiles},
          {kRejectedFilesKey, rejectedFiles}};
}

std::size_t rejectedFileCount(const Platform& platform) {
  return FileServer(platform.files, FileServer::sharedWriteQueue(*platform.dispatcher))
      .listRejected()
      .size();
}

int connectLibrary(const ConnectionArguments& arguments, const CommonOptions& common,
                   std::chrono::milliseconds timeout, Connection& connection,
                   const Interrupted& interrupted) {
  if (arguments.token.empty()) {
    std::fprintf(stderr, "%s", kNoToken.data());
    return kExitFailed;
  }
  // Error lines reach the sink, which shows them only when verbose or above the quiet level.
  logging::setMinimumLevel(common.verbose ? LogLevel::debug : LogLevel::error);
  connection.log = std::make_shared<ErrorLog>(makeStderrLogSink(),
                                              common.verbose ? LogLevel::debug : LogLevel::error);
  logging::setSink(connection.log);
  logging::registerSecret(arguments.token);

  auto platform = installLibraryPlatform(common);
  if (!platform) {
    std::fprintf(stderr, kSetupFailed.data(), platform.error().text().c_str());
    return kExitSetupFailed;
  }
  connection.platform = platform.value();
  // Before configure: its sweep's answers are deliveries too.
  connection.deliveries = DeliveryCounts::listen();
  std::vector<int> types;
  for (const auto& text : arguments.types) {
    const auto type = dataTypeOf(text);
    if (!type) {
      std::fprintf(stderr, kBadType.data(), text.c_str());
      return kExitFailed;
    }
    types.push_back(*type);
  }
  std::optional<KestrovaConfig::Date> since;
  if (arguments.since) {
    since = parseDay(*arguments.since);
    if (!since) {
      std::fprintf(stderr, kBadSince.data(), arguments.since->c_str());
      return kExitFailed;
    }
  }
  const KestrovaConfig config = types.empty()
                                    ? KestrovaConfig(arguments.token, arguments.url, since)
                                    : KestrovaConfig(arguments.token, arguments.url, since, types);
  connection.url = config.url();

  auto outcome = configureAndWait(config, timeout, interrupted);
  if (outcome && outcome->success) {
    outcome = connectAndWait(timeout, interrupted);
  }
  if (!outcome && interrupted && interrupted()) {
    connection.interrupted = true;
    return kExitOk;
  }
  if (!outcome) {
    std::fprintf(
        stderr, kNoAnswer.data(),
        static_cast<long long>(std::chrono::duration_cast<std::chrono::seconds>(timeout).count()));
    return kExitTimedOut;
  }
  if (!outcome->success) {
    return reportFailure(config.url(), outcome->error.value_or(kestrova::GenericError{}),
                         *connection.log);
  }
  connection.profileId = Kestrova::connectedProfileId().value_or("");
  return kExitOk;
}

}  // namespace kestrova::cli
