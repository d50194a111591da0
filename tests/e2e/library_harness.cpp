#include "e2e/library_harness.h"

#include <gtest/gtest.h>

#include <future>

#include "facade/kestrova_testing.h"

namespace kestrova::testing {

Outcome configureAndWait(const KestrovaConfig& config) {
  std::promise<Outcome> done;
  Kestrova::configure(config, [&](bool ok, auto error) { done.set_value({ok, error}); });
  return done.get_future().get();
}

Outcome connectAndWait() {
  std::promise<Outcome> done;
  Kestrova::connect([&](bool ok, auto error) { done.set_value({ok, error}); });
  return done.get_future().get();
}

LibraryProcess startLibrary(const std::filesystem::path& directory, const StoreWrapper& wrap) {
  LibraryProcess process;
  const auto berlin = makeFixedTimeZoneSource(*TimeZone::named("Europe/Berlin"));
  EmbeddedHealthStoreOptions storeOptions;
  storeOptions.path = directory / "healthstore.sqlite";
  storeOptions.dispatcher = makeDispatcher();  // held by the store
  storeOptions.timeZone = berlin;
  storeOptions.changePollInterval = std::chrono::milliseconds(10);
  auto store = EmbeddedHealthStore::open(std::move(storeOptions));
  if (!store) {
    ADD_FAILURE() << store.error().text();
    return process;
  }
  process.store = std::move(store).value();

  PlatformOptions options;
  options.applicationIdentifier = "com.example.host";
  options.dataDirectory = directory;
  options.timeZone = berlin;
  options.healthStore = wrap ? wrap(process.store) : process.store;
  auto platform = makeLinuxPlatform(std::move(options));
  if (!platform) {
    ADD_FAILURE() << platform.error().text();
    return process;
  }
  process.platform = *platform;
  installPlatform(process.platform);
  resetSharedInstanceForTesting();
  return process;
}

void stopLibrary() {
  Kestrova::disconnect();
  installPlatform(nullptr);
  resetSharedInstanceForTesting();
}

}  // namespace kestrova::testing
