// What the subcommands that drive the library share: the library's platform installed in the
// chosen data directory, the upload files still waiting in it, a blocking wait for the facade's
// completions (which arrive on the library's main queue, not on the command's thread), and for
// sync and watch the connection options, the configure-and-connect sequence and the count of
// what the library reports about uploads.
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
  std::string family;  // "body", "sleep", ..., or "sample" for single uploads
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

// The family of an upload file name: the batch prefix of its sample id.
std::string familyOfFile(std::string_view fileName);

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
  std::vector<int> types;
};

// Adds --token (or KESTROVA_TOKEN), --url, --since and --types to `command`.
void addConnectionOptions(CLI::App& command, ConnectionArguments& arguments);

// Counts the library's upload lines (the only signal of which file the back end took, and of
// the statistics requests) and passes on the lines the chosen verbosity shows. Written from any of
// the library's threads; `mutex_` owns the counts.
class UploadLog : public LogSink {
 public:
  struct Counts {
    std::map<std::string, int> delivered;  // upload files per family
    int deliveredFiles = 0;
    // Upload files answered other than 200, or not answered at all.
    int failedUploads = 0;
    // Requests of stored statistics (sent without upload files) accepted, and refused.
    int statisticsUploads = 0;
    int failedStatisticsUploads = 0;

    int fileOutcomes() const { return deliveredFiles + failedUploads; }
    int outcomes() const { return fileOutcomes() + statisticsUploads + failedStatisticsUploads; }
  };

  UploadLog(std::shared_ptr<LogSink> next, LogLevel shownFrom)
      : next_(std::move(next)), shownFrom_(shownFrom) {}

  void write(LogLevel level, std::string_view category, std::string_view message) override;

  Counts counts() const;
  std::string lastError() const;

 private:
  const std::shared_ptr<LogSink> next_;
  const LogLevel shownFrom_;
  mutable std::mutex mutex_;  // owns the fields below
  Counts counts_;
  std::string lastError_;
};

// The reports' name for the number of upload files waiting.
inline constexpr std::string_view kPendingFilesKey = "pendingFiles";

// The counts and the files still pending as the JSON reports show them: "delivered" (files per
// family), "deliveredFiles", "failedUploads", "statisticsUploads" and "pendingFiles".
nlohmann::json uploadJson(const UploadLog::Counts& counts, std::size_t pendingFiles);

struct Connection {
  std::shared_ptr<const Platform> platform;
  std::shared_ptr<UploadLog> log;
  std::string url;
  std::string profileId;
  // The wait for the library was given up because `interrupted` said so; nothing failed.
  bool interrupted = false;
};

// Checks the arguments, installs the platform with an UploadLog as the log sink, configures
// and connects, each wait at most `timeout`. Returns kExitOk with `connection` filled, or the
// exit code after saying on standard error what went wrong.
int connectLibrary(const ConnectionArguments& arguments, const CommonOptions& common,
                   std::chrono::milliseconds timeout, Connection& connection,
                   const Interrupted& interrupted = {});

}  // namespace kestrova::cli
