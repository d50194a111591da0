// What the subcommands that drive the library share: the library's platform installed in the
// chosen data directory, the upload files still waiting in it, a blocking wait for the facade's
// completions (which arrive on the library's main queue, not on the command's thread), and for
// sync and watch the connection options, the configure-and-connect sequence and the count of
// the library's delivery events.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "kestrova/facade.h"
#include "platform/log.h"
#include "platform/platform.h"
#include "platform/result.h"

namespace kestrova::cli {

struct CommonOptions;

inline constexpr std::string_view kSetupFailed = "kestrova: cannot set up the data directory: %s\n";
// Said when the library has no error to report.
inline constexpr std::string_view kNoDetail = "no answer (is it running? see --verbose)";

// An upload file the back end has not accepted yet.
struct PendingFile {
  std::string name;
  std::string family;  // see familyOfFile
  std::string profileId;
  bool bulk = false;
  std::uintmax_t bytes = 0;
  std::chrono::seconds age{0};
};

// Installs the Linux platform in the chosen data directory for the facade. Errors: the
// directory cannot be set up.
Result<std::shared_ptr<const Platform>> installLibraryPlatform(const CommonOptions& options);

// Both upload directories, single uploads first, each in name (and so time) order.
std::vector<PendingFile> pendingFiles(const Platform& platform);

struct Outcome {
  bool success = false;
  std::optional<kestrova::GenericError> error;
};

// Asked while a wait goes on; true ends it early, and must stay true once it is.
using Interrupted = std::function<bool()>;

// Blocks until the facade's completion arrives; none after `timeout` or once `interrupted`.
std::optional<Outcome> configureAndWait(const KestrovaConfig& config,
                                        std::chrono::milliseconds timeout,
                                        const Interrupted& interrupted = {});
std::optional<Outcome> connectAndWait(std::chrono::milliseconds timeout,
                                      const Interrupted& interrupted = {});

// "connected", "disconnected" or "not configured".
std::string_view statusName(Kestrova::Status::Case status);

// The options of the subcommands that connect.
struct ConnectionArguments {
  std::string token;
  std::optional<std::string> url;
  std::optional<std::string> since;
  // Numbers 0...24 or names as KestrovaHealthKitDataType spells them.
  std::vector<std::string> types;
};

// Adds --token (or KESTROVA_TOKEN), --url, --since and --types to `command`.
void addConnectionOptions(CLI::App& command, ConnectionArguments& arguments);

// Passes on the lines the chosen verbosity shows and remembers the last error line, which says
// why a validation or an upload failed. Written from any of the library's threads; `mutex_` owns
// the last error.
class ErrorLog : public LogSink {
 public:
  ErrorLog(std::shared_ptr<LogSink> next, LogLevel shownFrom)
      : next_(std::move(next)), shownFrom_(shownFrom) {}

  void write(LogLevel level, std::string_view category, std::string_view message) override;
  std::string lastError() const;

 private:
  const std::shared_ptr<LogSink> next_;
  const LogLevel shownFrom_;
  mutable std::mutex mutex_;  // owns lastError_
  std::string lastError_;
};

// What the library's delivery events said since the listener was installed. Events arrive on
// the library's main queue; `mutex_` owns the counts.
class DeliveryCounts {
 public:
  struct Counts {
    std::map<std::string, std::uint64_t> deliveredPoints;  // per family
    int deliveredFiles = 0;
    // Upload files answered other than 200, or not answered at all.
    int failedUploads = 0;
    int statisticsUploads = 0;
    int failedStatisticsUploads = 0;
    int setAside = 0;
    // The latest time before which the back end asked not to be sent a request again.
    std::optional<std::chrono::system_clock::time_point> retryNotBefore;
    // What the last failed upload was told ("HTTP 400 (body)"), or why it had no answer.
    std::string lastFailure;

    int fileOutcomes() const { return deliveredFiles + failedUploads; }
    int outcomes() const { return fileOutcomes() + statisticsUploads + failedStatisticsUploads; }
  };

  // Makes a counter that the library's delivery listener feeds from now on.
  static std::shared_ptr<DeliveryCounts> listen();
  Counts counts() const;

 private:
  void add(const KestrovaDeliveryEvent& event);

  mutable std::mutex mutex_;  // owns counts_
  Counts counts_;
};

// The reports' names for the number of upload files waiting and set aside.
inline constexpr std::string_view kPendingFilesKey = "pendingFiles";
inline constexpr std::string_view kRejectedFilesKey = "rejectedFiles";

// The counts and the files as the JSON reports show them: "delivered" (data points per family),
// "deliveredFiles", "failedUploads", "statisticsUploads", "setAside", "pendingFiles" and
// "rejectedFiles".
nlohmann::json uploadJson(const DeliveryCounts::Counts& counts, std::size_t pendingFiles,
                          std::size_t rejectedFiles);

// The files set aside in the data directory.
std::size_t rejectedFileCount(const Platform& platform);

struct Connection {
  std::shared_ptr<const Platform> platform;
  std::shared_ptr<ErrorLog> log;
  std::shared_ptr<DeliveryCounts> deliveries;
  std::string url;
  std::string profileId;
  // The wait for the library was given up because `interrupted` said so; nothing failed.
  bool interrupted = false;
};

// Checks the arguments, installs the platform with an ErrorLog as the log sink and a
// DeliveryCounts as the delivery listener, configures and connects, each wait at most `timeout`.
// Returns kExitOk with `connection` filled, or the exit code after saying on standard error what
// went wrong.
int connectLibrary(const ConnectionArguments& arguments, const CommonOptions& common,
                   std::chrono::milliseconds timeout, Connection& connection,
                   const Interrupted& interrupted = {});

}  // namespace kestrova::cli
