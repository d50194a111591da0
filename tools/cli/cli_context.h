// What every `kestrova` subcommand shares: the common options, and the platform services and
// embedded health store they open. Built once per run on the main thread; the store is then
// used from that thread and its own queues.
#pragma once

#include <CLI/CLI.hpp>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "healthstore/embedded_health_store.h"
#include "platform/platform.h"
#include "platform/result.h"

namespace kestrova::cli {

// The store file inside the library's data directory.
inline constexpr std::string_view kHealthStoreFile = "healthstore.sqlite";

// Exit codes of every subcommand.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitSetupFailed = 3;
// The configuration was refused: a malformed token or URL, or a token the back end rejects.
inline constexpr int kExitRejected = 4;
// The back end could not be reached, or failed to validate the profile for another reason.
inline constexpr int kExitUnreachable = 5;
// Upload files were still waiting when --timeout ran out, or statistics uploads failed; what
// is left stays for the next run.
inline constexpr int kExitTimedOut = 6;

struct CommonOptions {
  std::optional<std::filesystem::path> dataDirectory;
  bool verbose = false;
  bool quiet = false;
};

// Adds --data-dir, --verbose and --quiet to `app`; they apply to every subcommand.
void addCommonOptions(CLI::App& app, CommonOptions& options);
// Sets the log level the options ask for (quiet: errors only; verbose: everything).
void applyLogLevel(const CommonOptions& options);

struct Context {
  std::shared_ptr<const Platform> platform;
  std::shared_ptr<EmbeddedHealthStore> store;
};

// The Linux platform in the chosen data directory (default: $XDG_DATA_HOME/kestrova/default)
// and the embedded store in it. Errors: the directory or the store cannot be set up.
Result<Context> openContext(const CommonOptions& options);

}  // namespace kestrova::cli
