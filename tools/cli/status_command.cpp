#include "tools/cli/status_command.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "kestrova/facade.h"
#include "tools/cli/library_session.h"

namespace kestrova::cli {
namespace {

constexpr std::string_view kStatusName = "status";
constexpr std::string_view kStatusDescription =
    "Show the connection state, the connected profile and the upload files still waiting.";
constexpr std::string_view kPendingName = "pending";
constexpr std::string_view kPendingDescription =
    "List the upload files the back end has not accepted yet, with sizes and ages.";
constexpr std::string_view kJsonHelp = "Print the report as JSON on standard output";
constexpr std::string_view kSetupFailed = "kestrova: cannot set up the data directory: %s\n";
constexpr std::string_view kStatusLine = "Status:        %s\n";
constexpr std::string_view kProfileLine = "Profile:       %s\n";
constexpr std::string_view kNoProfile = "-";
constexpr std::string_view kDataLine = "Data:          %s\n";
constexpr std::string_view kPendingLine = "Pending files: %zu (%ju bytes, oldest %lld s)\n";
constexpr std::string_view kFileLine = "%-8s %10ju bytes %8lld s  %s\n";
constexpr std::string_view kNoFiles = "No upload files pending.\n";

nlohmann::json fileJson(const PendingFile& file) {
  return {{"name", file.name}, {"family", file.family}, {"profileId", file.profileId},
          {"bulk", file.bulk}, {"bytes", file.bytes},   {"ageSeconds", file.age.count()}};
}

int runStatus(bool json, const CommonOptions& common) {
  applyLogLevel(common);
  auto platform = installLibraryPlatform(common);
  if (!platform) {
    std::fprintf(stderr, kSetupFailed.data(), platform.error().text().c_str());
    return kExitSetupFailed;
  }
  const Kestrova::Status status = Kestrova::currentStatus();
  const auto files = pendingFiles(*platform.value());
  std::uintmax_t bytes = 0;
  long long oldest = 0;
  for (const auto& file : files) {
    bytes += file.bytes;
    oldest = std::max<long long>(oldest, file.age.count());
  }
  const std::string directory = platform.value()->dataDirectory.string();
  if (json) {
    nlohmann::json report = {
        {"status", statusName(status.value)},
        {"profileId", status.profileId ? nlohmann::json(*status.profileId) : nlohmann::json()},
        {"dataDirectory", directory},
        {"pendingFiles", files.size()},
        {"pendingBytes", bytes},
        {"oldestPendingSeconds", oldest}};
    std::printf("%s\n", report.dump(2).c_str());
  } else {
    std::printf(kStatusLine.data(), std::string(statusName(status.value)).c_str());
    std::printf(kProfileLine.data(), status.profileId.value_or(std::string(kNoProfile)).c_str());
    std::printf(kDataLine.data(), directory.c_str());
    std::printf(kPendingLine.data(), files.size(), bytes, oldest);
  }
  std::fflush(stdout);
  return kExitOk;
}

int runPending(bool json, const CommonOptions& common) {
  applyLogLevel(common);
  auto platform = installLibraryPlatform(common);
  if (!platform) {
    std::fprintf(stderr, kSetupFailed.data(), platform.error().text().c_str());
    return kExitSetupFailed;
  }
  const auto files = pendingFiles(*platform.value());
  if (json) {
    nlohmann::json list = nlohmann::json::array();
    for (const auto& file : files) {
      list.push_back(fileJson(file));
    }
    std::printf("%s\n", list.dump(2).c_str());
  } else if (files.empty()) {
    std::printf("%s", kNoFiles.data());
  } else {
    for (const auto& file : files) {
      std::printf(kFileLine.data(), file.family.c_str(), file.bytes,
                  static_cast<long long>(file.age.count()), file.name.c_str());
    }
  }
  std::fflush(stdout);
  return kExitOk;
}

}  // namespace

void addStatusCommand(CLI::App& app, const CommonOptions& common, int* exitCode) {
  auto json = std::make_shared<bool>(false);
  CLI::App* command = app.add_subcommand(std::string(kStatusName), std::string(kStatusDescription));
  command->add_flag("--json", *json, std::string(kJsonHelp));
  command->callback([json, &common, exitCode] { *exitCode = runStatus(*json, common); });
}

void addPendingCommand(CLI::App& app, const CommonOptions& common, int* exitCode) {
  auto json = std::make_shared<bool>(false);
  CLI::App* command =
      app.add_subcommand(std::string(kPendingName), std::string(kPendingDescription));
  command->add_flag("--json", *json, std::string(kJsonHelp));
  command->callback([json, &common, exitCode] { *exitCode = runPending(*json, common); });
}

}  // namespace kestrova::cli
