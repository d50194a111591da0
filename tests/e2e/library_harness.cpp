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

LibraryProcess startLibrary(const std::filesystem::path& directory, const StoreWrapper& wrap,
                            std::shared_ptr<Clock> clock) {
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
  options.clock = std::move(clock);
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

std::unique_ptr<server::KestrovaServer> startServer(std::string secret, server::FaultPlan faults) {
  server::ServerOptions options;
  options.secret = std::move(secret);
  options.faults = std::move(faults);
  auto started = server::KestrovaServer::start(std::move(options));
  if (!started) {
    ADD_FAILURE() << started.error().text();
    return nullptr;
  }
  return std::move(started).value();
}

SamplePtr quantitySample(std::string_view identifier, double value, std::string_view unit,
                         Date start, Date end, const SourceRevision& source) {
  SampleProperties properties;
  properties.startDate = start;
  properties.endDate = end;
  properties.sourceRevision = source;
  return QuantitySample::make(ObjectType::quantityType(identifier).value(),
                              Quantity(Unit::fromString(unit).value(), value), properties)
      .value();
}

}  // namespace kestrova::testing
