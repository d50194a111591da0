#include "tools/cli/status_command.h"

#include <cstdio>
#include <ctime>
#include <future>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "healthkit/health_kit_types.h"
#include "kestrova/facade.h"
#include "statistics/statistics_store.h"
#include "storage/anchor_store.h"
#include "storage/file_server.h"
#include "tools/cli/library_session.h"

namespace kestrova::cli {
namespace {

constexpr std::string_view kStatusName = "status";
constexpr std::string_view kStatusDescription =
    "Show the connection state, the connected profile, the upload files still waiting, the "
    "delivery state of each family (last delivery, last error, data points delivered), the "
    "files set aside, the types with a saved query anchor and the stored statistics not "
    "uploaded yet.";
constexpr std::string_view kPendingName = "pending";
constexpr std::string_view kPendingDescription =
    "List the upload files the back end has not accepted yet, with sizes and ages.";
constexpr std::string_view kRejectedName = "rejected";
constexpr std::string_view kRejectedDescription =
    "List the upload files set aside because the back end refused them again and again, with "
    "its last answer; --retry moves them back so that the next sync sends them again.";
constexpr std::string_view kRetryHelp = "Move every set-aside file back for the next sync";
constexpr std::string_view kJsonHelp = "Print the report as JSON on standard output";
constexpr std::string_view kDeliveryLine = "Delivery:\n";
constexpr std::string_view kDeliveryFamilyLine =
    "  %-10s %llu points delivered, last %s; %zu pending (%ju bytes, oldest %lld s)\n";
constexpr std::string_view kDeliveryErrorLine = "  %-10s last error %s at %s: %s\n";
constexpr std::string_view kNever = "never";
constexpr std::string_view kRejectedLine = "Set aside:     %zu files (kestrova rejected)\n";
constexpr std::string_view kRejectedFileLine = "%-8s HTTP %-4s %2d attempts  %s\n    %s\n";
constexpr std::string_view kNoRejected = "No upload files set aside.\n";
constexpr std::string_view kRestoredLine = "%zu files moved back; the next sync sends them.\n";
constexpr std::string_view kNoState = "kestrova: the library did not report its state\n";
constexpr auto kStateTimeout = std::chrono::seconds(30);
constexpr std::string_view kStatusLine = "Status:        %s\n";
constexpr std::string_view kProfileLine = "Profile:       %s\n";
constexpr std::string_view kNoProfile = "-";
constexpr std::string_view kDataLine = "Data:          %s\n";
constexpr std::string_view kPendingLine = "Pending files: %zu (%ju bytes, oldest %lld s)\n";
constexpr std::string_view kFileLine = "%-8s %10ju bytes %8lld s  %s\n";
constexpr std::string_view kNoFiles = "No upload files pending.\n";
constexpr std::string_view kAnchorsLine = "Anchors:       %zu types\n";
constexpr std::string_view kAnchorLine = "  %-32s %s\n";
constexpr std::string_view kUnreadableAnchor = "unreadable";
constexpr std::string_view kStatisticsLine = "Statistics:    %zu entries with new data of %zu\n";
constexpr std::string_view kFamilyLine = "  %-32s %zu of %zu\n";

// A type with a saved query anchor. `name` is the data type's ("bodyMass"), or the type's
// identifier when no data type stands for it.
struct AnchorState {
  std::string typeIdentifier;
  std::optional<int> dataType;
  std::string name;
  std::optional<std::uint64_t> position;  // none when the stored anchor does not decode
};

// Every type with a saved query anchor, in identifier order.
std::vector<AnchorState> anchorStates(const Platform& platform) {
  std::map<std::string, KestrovaHealthKitDataType, std::less<>> dataTypes;
  for (auto dataType : KestrovaHealthKitDataType::allCases()) {
    if (auto type = objectType(dataType, platform.systemVersion)) {
      dataTypes.emplace(std::string(type->identifier()), dataType);
    }
  }
  AnchorStore anchors(platform.defaults);
  std::vector<AnchorState> states;
  for (const auto& key : platform.defaults->keys(AnchorStore::kKeyPrefix)) {
    AnchorState state;
    state.typeIdentifier = key.substr(AnchorStore::kKeyPrefix.size());
    state.name = state.typeIdentifier;
    if (auto found = dataTypes.find(state.typeIdentifier); found != dataTypes.end()) {
      state.dataType = found->second.rawValue();
      state.name = std::string(found->second.name());
    }
    if (auto anchor = anchors.storedAnchor(state.typeIdentifier)) {
      state.position = anchor->position();
    }
    states.push_back(std::move(state));
  }
  return states;
}

struct FamilyCount {
  std::string_view family;
  std::size_t entries = 0;
  std::size_t withNewData = 0;
};

// The stored statistics records per family and how many of them wait for an upload. The
// configured start date is not stored, so every record counts, whatever its date.
std::vector<FamilyCount> statisticsCounts(const Platform& platform) {
  const StatisticsStore store(platform.defaults, platform.clock, Date::min());
  std::vector<FamilyCount> counts;
  for (const auto& [family, name] :
       {std::pair{StatisticsFamily::heartRateSamples, "heartRateSamples"},
        std::pair{StatisticsFamily::dailyDetailSamples, "dailyDetailSamples"},
        std::pair{StatisticsFamily::dailySummaries, "dailySummaries"}}) {
    const auto count = store.count(family);
    counts.push_back({name, count.entries, count.withNewData});
  }
  return counts;
}

// "2024-06-01T08:00:00Z".
std::string isoTime(KestrovaTime time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

nlohmann::json optionalJson(const std::optional<int>& value) {
  return value ? nlohmann::json(*value) : nlohmann::json();
}

std::optional<KestrovaSyncState> syncState() {
  auto done = std::make_shared<std::promise<KestrovaSyncState>>();
  auto state = done->get_future();
  Kestrova::syncState([done](const KestrovaSyncState& value) { done->set_value(value); });
  if (state.wait_for(kStateTimeout) != std::future_status::ready) {
    return std::nullopt;
  }
  return state.get();
}

nlohmann::json deliveryJson(const KestrovaSyncState& state) {
  nlohmann::json delivery = nlohmann::json::object();
  for (const auto& family : state.families) {
    nlohmann::json error;
    if (const auto& failure = family.lastError) {
      error = {{"httpStatus", optionalJson(failure->httpStatus)},
               {"domain", failure->domain},
               {"code", failure->code},
               {"message", failure->message},
               {"at", isoTime(failure->at)}};
    }
    delivery[family.family] = {
        {kPendingFilesKey, family.pendingFiles},
        {"pendingBytes", family.pendingBytes},
        {"oldestPendingSeconds", family.oldestPendingAge
                                     ? nlohmann::json(family.oldestPendingAge->count())
                                     : nlohmann::json()},
        {"lastDelivered",
         family.lastDelivered ? nlohmann::json(isoTime(*family.lastDelivered)) : nlohmann::json()},
        {"lastError", error},
        {"deliveredPoints", family.deliveredPoints}};
  }
  return delivery;
}

nlohmann::json rejectedJson(const KestrovaSyncState& state) {
  nlohmann::json rejected = nlohmann::json::array();
  for (const auto& file : state.rejected) {
    rejected.push_back({{"file", file.file},
                        {"family", file.family},
                        {"httpStatus", optionalJson(file.httpStatus)},
                        {"attempts", file.attempts},
                        {"reason", file.reason}});
  }
  return rejected;
}

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
  const auto anchors = anchorStates(*platform.value());
  const auto statistics = statisticsCounts(*platform.value());
  const auto state = syncState();
  if (!state) {
    std::fprintf(stderr, "%s", kNoState.data());
    return kExitFailed;
  }
  if (json) {
    nlohmann::json report = {
        {"status", statusName(status.value)},
        {"profileId", status.profileId ? nlohmann::json(*status.profileId) : nlohmann::json()},
        {"dataDirectory", directory},
        {kPendingFilesKey, files.size()},
        {"pendingBytes", bytes},
        {"oldestPendingSeconds", oldest},
        {"delivery", deliveryJson(*state)},
        {"rejected", rejectedJson(*state)},
        {"anchors", nlohmann::json::array()},
        {"statistics", nlohmann::json::object()}};
    for (const auto& anchor : anchors) {
      report["anchors"].push_back(
          {{"typeIdentifier", anchor.typeIdentifier},
           {"dataType", anchor.dataType ? nlohmann::json(*anchor.dataType) : nlohmann::json()},
           {"name", anchor.name},
           {"position", anchor.position ? nlohmann::json(*anchor.position) : nlohmann::json()}});
    }
    for (const auto& count : statistics) {
      report["statistics"][count.family] = {{"entries", count.entries},
                                            {"withNewData", count.withNewData}};
    }
    std::printf("%s\n", report.dump(2).c_str());
  } else {
    std::printf(kStatusLine.data(), std::string(statusName(status.value)).c_str());
    std::printf(kProfileLine.data(), status.profileId.value_or(std::string(kNoProfile)).c_str());
    std::printf(kDataLine.data(), directory.c_str());
    std::printf(kPendingLine.data(), files.size(), bytes, oldest);
    std::printf("%s", kDeliveryLine.data());
    for (const auto& family : state->families) {
      const std::string last =
          family.lastDelivered ? isoTime(*family.lastDelivered) : std::string(kNever);
      std::printf(kDeliveryFamilyLine.data(), family.family.c_str(),
                  static_cast<unsigned long long>(family.deliveredPoints), last.c_str(),
                  family.pendingFiles, family.pendingBytes,
                  static_cast<long long>(
                      family.oldestPendingAge.value_or(std::chrono::seconds(0)).count()));
      if (const auto& failure = family.lastError) {
        const std::string what = failure->httpStatus
                                     ? "HTTP " + std::to_string(*failure->httpStatus)
                                     : failure->domain + " " + std::to_string(failure->code);
        std::printf(kDeliveryErrorLine.data(), "", what.c_str(), isoTime(failure->at).c_str(),
                    failure->message.c_str());
      }
    }
    std::printf(kRejectedLine.data(), state->rejected.size());
    std::printf(kAnchorsLine.data(), anchors.size());
    for (const auto& anchor : anchors) {
      const std::string position =
          anchor.position ? std::to_string(*anchor.position) : std::string(kUnreadableAnchor);
      std::printf(kAnchorLine.data(), anchor.name.c_str(), position.c_str());
    }
    std::size_t entries = 0;
    std::size_t withNewData = 0;
    for (const auto& count : statistics) {
      entries += count.entries;
      withNewData += count.withNewData;
    }
    std::printf(kStatisticsLine.data(), withNewData, entries);
    for (const auto& count : statistics) {
      std::printf(kFamilyLine.data(), std::string(count.family).c_str(), count.withNewData,
                  count.entries);
    }
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

void printRejected(const std::vector<KestrovaRejectedFile>& files) {
  if (files.empty()) {
    std::printf("%s", kNoRejected.data());
  }
  for (const auto& file : files) {
    const std::string status = file.httpStatus ? std::to_string(*file.httpStatus) : "-";
    std::printf(kRejectedFileLine.data(), file.family.c_str(), status.c_str(), file.attempts,
                file.file.c_str(), file.reason.c_str());
  }
}

int runRejected(bool json, bool retry, const CommonOptions& common) {
  applyLogLevel(common);
  auto platform = installLibraryPlatform(common);
  if (!platform) {
    std::fprintf(stderr, kSetupFailed.data(), platform.error().text().c_str());
    return kExitSetupFailed;
  }
  if (retry) {
    FileServer files(platform.value()->files,
                     FileServer::sharedWriteQueue(*platform.value()->dispatcher));
    const auto restored = files.restoreRejected();
    if (json) {
      nlohmann::json list = nlohmann::json::array();
      for (const auto& file : restored) {
        list.push_back(file.components.fileName());
      }
      std::printf("%s\n", nlohmann::json{{"restored", list}}.dump(2).c_str());
    } else {
      std::printf(kRestoredLine.data(), restored.size());
    }
    std::fflush(stdout);
    return kExitOk;
  }
  const auto state = syncState();
  if (!state) {
    std::fprintf(stderr, "%s", kNoState.data());
    return kExitFailed;
  }
  if (json) {
    std::printf("%s\n", rejectedJson(*state).dump(2).c_str());
  } else {
    printRejected(state->rejected);
  }
  std::fflush(stdout);
  return kExitOk;
}

}  // namespace

void addRejectedCommand(CLI::App& app, const CommonOptions& common, int* exitCode) {
  struct Arguments {
    bool json = false;
    bool retry = false;
  };
  auto arguments = std::make_shared<Arguments>();
  CLI::App* command =
      app.add_subcommand(std::string(kRejectedName), std::string(kRejectedDescription));
  command->add_flag("--json", arguments->json, std::string(kJsonHelp));
  command->add_flag("--retry", arguments->retry, std::string(kRetryHelp));
  command->callback([arguments, &common, exitCode] {
    *exitCode = runRejected(arguments->json, arguments->retry, common);
  });
}

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
