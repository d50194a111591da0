// The Linux defaults of the platform bundle.
#include <sys/stat.h>

#include <cstdlib>

#include "platform/platform.h"

namespace kestrova {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kDefaultsFile = "defaults.sqlite";
constexpr std::string_view kKeychainFile = "keychain/keychain.sqlite";

Result<fs::path> defaultDataDirectory(const std::string& applicationIdentifier) {
  fs::path base;
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg != nullptr && *xdg == '/') {
    base = xdg;
  } else if (const char* home = std::getenv("HOME"); home != nullptr && *home == '/') {
    base = fs::path(home) / ".local" / "share";
  } else {
    return Error{"Kestrova", 0, "Neither XDG_DATA_HOME nor HOME names a data directory"};
  }
  return base / "kestrova" / applicationIdentifier;
}

}  // namespace

Result<std::shared_ptr<const Platform>> makeLinuxPlatform(PlatformOptions options) {
  auto platform = std::make_shared<Platform>();
  platform->applicationIdentifier =
      options.applicationIdentifier.value_or(std::string(kDefaultApplicationIdentifier));
  if (options.dataDirectory) {
    platform->dataDirectory = *options.dataDirectory;
  } else {
    auto directory = defaultDataDirectory(platform->applicationIdentifier);
    if (!directory) {
      return directory.error();
    }
    platform->dataDirectory = *directory;
  }
  std::error_code error;
  fs::create_directories(platform->dataDirectory, error);
  if (error) {
    return Error{"POSIX", error.value(),
                 "Cannot create data directory " + platform->dataDirectory.string() + ": " +
                     error.message()};
  }
  // Health data lives here: nobody but the owner has any business in it.
  ::chmod(platform->dataDirectory.c_str(), 0700);

  platform->systemVersion = options.systemVersion.value_or(SystemVersion{});
  platform->clock = options.clock ? options.clock : makeSystemClock();
  platform->timeZone = options.timeZone ? options.timeZone : makeSystemTimeZoneSource();
  DispatcherOptions dispatcherOptions;
  dispatcherOptions.mainExecutor = options.mainExecutor;
  platform->dispatcher = makeDispatcher(std::move(dispatcherOptions));
  platform->files = makeLocalFileSystem(platform->dataDirectory);
  platform->healthStore = std::move(options.healthStore);

  auto defaults = openSqliteDefaultsStore(platform->dataDirectory / kDefaultsFile);
  if (!defaults) {
    return defaults.error();
  }
  platform->defaults = std::move(defaults).value();
  auto secureStore = openSqliteSecureStore(platform->dataDirectory / kKeychainFile);
  if (!secureStore) {
    return secureStore.error();
  }
  platform->secureStore = std::move(secureStore).value();
  return std::shared_ptr<const Platform>(std::move(platform));
}

}  // namespace kestrova
