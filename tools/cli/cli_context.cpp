#include "tools/cli/cli_context.h"

#include "platform/log.h"

namespace kestrova::cli {
namespace {

constexpr std::string_view kDataDirHelp =
    "Directory of the library's data (default: $XDG_DATA_HOME/kestrova/default, or "
    "~/.local/share/kestrova/default); the health store is healthstore.sqlite in it";
constexpr std::string_view kVerboseHelp = "Log everything, including debug lines";
constexpr std::string_view kQuietHelp = "No progress and no text summary; errors only";

}  // namespace

void addCommonOptions(CLI::App& app, CommonOptions& options) {
  app.add_option("--data-dir", options.dataDirectory, std::string(kDataDirHelp))->type_name("DIR");
  auto* verbose = app.add_flag("-v,--verbose", options.verbose, std::string(kVerboseHelp));
  auto* quiet = app.add_flag("-q,--quiet", options.quiet, std::string(kQuietHelp));
  verbose->excludes(quiet);
}

void applyLogLevel(const CommonOptions& options) {
  // Info lines would break up the progress bar; the summary says what they would.
  logging::setMinimumLevel(options.verbose ? LogLevel::debug : LogLevel::error);
}

Result<Context> openContext(const CommonOptions& options) {
  PlatformOptions platformOptions;
  platformOptions.dataDirectory = options.dataDirectory;
  Result<std::shared_ptr<const Platform>> platform = makeLinuxPlatform(platformOptions);
  if (!platform) {
    return platform.error();
  }
  EmbeddedHealthStoreOptions storeOptions;
  storeOptions.path = platform.value()->dataDirectory / kHealthStoreFile;
  storeOptions.dispatcher = platform.value()->dispatcher;
  storeOptions.clock = platform.value()->clock;
  storeOptions.timeZone = platform.value()->timeZone;
  Result<std::shared_ptr<EmbeddedHealthStore>> store =
      EmbeddedHealthStore::open(std::move(storeOptions));
  if (!store) {
    return store.error();
  }
  return Context{platform.value(), store.value()};
}

}  // namespace kestrova::cli
