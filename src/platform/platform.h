// The bundle of platform services through which the library reaches the system. The host
// installs one before first use, or the library builds the Linux defaults on first use. The
// installed bundle is immutable and shared; replacing it is for tests and start-up only.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "platform/clock.h"
#include "platform/defaults_store.h"
#include "platform/dispatch.h"
#include "platform/file_system.h"
#include "platform/log.h"
#include "platform/result.h"
#include "platform/secure_store.h"
#include "platform/time_zone.h"

namespace kestrova {

class HealthStore;

// The phone system version whose behaviour the library follows (some data types exist only
// from a given version on). The default is the newest behaviour.
struct SystemVersion {
  int major = 18;
  int minor = 0;

  bool isAtLeast(int wantedMajor, int wantedMinor = 0) const {
    return major > wantedMajor || (major == wantedMajor && minor >= wantedMinor);
  }
};

struct Platform {
  // The host application's identifier (a phone's bundle identifier).
  std::string applicationIdentifier;
  std::filesystem::path dataDirectory;
  SystemVersion systemVersion;
  std::shared_ptr<Clock> clock;
  std::shared_ptr<TimeZoneSource> timeZone;
  std::shared_ptr<Dispatcher> dispatcher;
  std::shared_ptr<DefaultsStore> defaults;
  std::shared_ptr<SecureStore> secureStore;
  std::shared_ptr<FileSystem> files;
  // The health store to read; none lets the library open its embedded store in the data
  // directory.
  std::shared_ptr<HealthStore> healthStore;
};

// What a host may choose; everything left out gets the Linux default.
struct PlatformOptions {
  // Default "default", as for an application without an identifier.
  std::optional<std::string> applicationIdentifier;
  // Default $XDG_DATA_HOME/kestrova/<application identifier>, or
  // ~/.local/share/kestrova/<application identifier>.
  std::optional<std::filesystem::path> dataDirectory;
  std::optional<SystemVersion> systemVersion;
  std::shared_ptr<Clock> clock;
  std::shared_ptr<TimeZoneSource> timeZone;
  std::optional<MainExecutor> mainExecutor;
  std::shared_ptr<HealthStore> healthStore;
};

inline constexpr std::string_view kDefaultApplicationIdentifier = "default";

// Builds the Linux services: the data directory is created, the defaults store is
// "defaults.sqlite" in it and the secure store "keychain/keychain.sqlite" (owner-only).
Result<std::shared_ptr<const Platform>> makeLinuxPlatform(PlatformOptions options = {});

// Installs the bundle used from now on.
void installPlatform(std::shared_ptr<const Platform> platform);
// The installed bundle, built with the Linux defaults on first use; null (with an error logged)
// when those cannot be built, for instance when the data directory is not writable.
std::shared_ptr<const Platform> currentPlatform();

}  // namespace kestrova
