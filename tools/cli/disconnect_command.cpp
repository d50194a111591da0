#include "tools/cli/disconnect_command.h"

#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <vector>

#include "kestrova/facade.h"
#include "platform/log.h"
#include "storage/token_store.h"
#include "tools/cli/library_session.h"

namespace kestrova::cli {
namespace {

constexpr std::string_view kName = "disconnect";
constexpr std::string_view kDescription =
    "Forget the connected profile, its anchors and statistics (upload files stay).";
constexpr std::string_view kJsonHelp = "Print the result as JSON on standard output";
constexpr std::string_view kDisconnected = "Disconnected profile %s.\n";
constexpr std::string_view kNothingConnected = "No profile was connected.\n";
constexpr std::string_view kNotForgotten =
    "kestrova: could not configure the library to disconnect profile %s: %s\n";
constexpr std::string_view kNoStoredToken = "no token is stored for it";
constexpr std::string_view kNoAnswer = "no answer";
// The library forgets a profile only once it is configured in this process, and configuring
// resumes collection; a loopback port that refuses connections and no data types keep that
// from sending anything anywhere.
constexpr std::string_view kOfflineUrl = "http://127.0.0.1:9/api/";
constexpr auto kConfigureTimeout = std::chrono::seconds(30);

// Configures with the token stored for `profile`, so that disconnect() has something to stop.
// Its refused connection is expected, so the log stays quiet about it unless --verbose.
std::optional<std::string> configureOffline(const Platform& platform, const std::string& profile,
                                            const CommonOptions& common) {
  if (!common.verbose) {
    logging::setMinimumLevel(LogLevel::fault);
  }
  TokenStore tokens(platform.secureStore, platform.applicationIdentifier);
  auto stored = tokens.tokenForProfile(profile);
  if (!stored) {
    return stored.error().text();
  }
  if (!stored->has_value()) {
    return std::string(kNoStoredToken);
  }
  const std::string& token = **stored;
  logging::registerSecret(token);
  auto outcome = configureAndWait(
      KestrovaConfig(token, std::string(kOfflineUrl), std::nullopt, std::vector<int>{}),
      kConfigureTimeout);
  if (!outcome) {
    return std::string(kNoAnswer);
  }
  if (!outcome->success) {
    return logging::redact(outcome->error ? outcome->error->localizedDescription : "");
  }
  return std::nullopt;
}

int runDisconnect(bool json, const CommonOptions& common) {
  applyLogLevel(common);
  auto platform = installLibraryPlatform(common);
  if (!platform) {
    std::fprintf(stderr, kSetupFailed.data(), platform.error().text().c_str());
    return kExitSetupFailed;
  }
  const std::optional<std::string> profile = Kestrova::connectedProfileId();
  if (profile) {
    if (auto failure = configureOffline(*platform.value(), *profile, common)) {
      std::fprintf(stderr, kNotForgotten.data(), profile->c_str(), failure->c_str());
      return kExitFailed;
    }
  }
  Kestrova::disconnect();
  if (json) {
    nlohmann::json report = {
        {"disconnected", profile ? nlohmann::json(*profile) : nlohmann::json()},
        {"status", statusName(Kestrova::currentStatus().value)}};
    std::printf("%s\n", report.dump(2).c_str());
  } else if (!common.quiet) {
    if (profile) {
      std::printf(kDisconnected.data(), profile->c_str());
    } else {
      std::printf("%s", kNothingConnected.data());
    }
  }
  std::fflush(stdout);
  return kExitOk;
}

}  // namespace

void addDisconnectCommand(CLI::App& app, const CommonOptions& common, int* exitCode) {
  auto json = std::make_shared<bool>(false);
  CLI::App* command = app.add_subcommand(std::string(kName), std::string(kDescription));
  command->add_flag("--json", *json, std::string(kJsonHelp));
  command->callback([json, &common, exitCode] { *exitCode = runDisconnect(*json, common); });
}

}  // namespace kestrova::cli
