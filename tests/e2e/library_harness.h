// The library as a host process runs it, for end-to-end tests: the embedded store and the
// Linux platform in one data directory, installed, with a fresh shared instance; blocking
// forms of configure and connect; and the reference server it talks to. Used from the test's
// main thread only.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "healthstore/embedded_health_store.h"
#include "kestrova/facade.h"
#include "platform/platform.h"
#include "server/server.h"

namespace kestrova::testing {

using Outcome = std::pair<bool, std::optional<KestrovaHealthKitError>>;

// The facade's completion, once it has arrived on the main queue.
Outcome configureAndWait(const KestrovaConfig& config);
Outcome connectAndWait();

struct LibraryProcess {
  std::shared_ptr<EmbeddedHealthStore> store;
  std::shared_ptr<const Platform> platform;
};

// Puts a test's own store in front of the embedded one.
using StoreWrapper = std::function<std::shared_ptr<HealthStore>(std::shared_ptr<HealthStore>)>;

// A new process on `directory`: a new embedded store object on its healthstore.sqlite (in
// Europe/Berlin, polled for changes every 10 ms), a new platform installed (on `clock`, the
// system's when null), and a new shared instance on it. Failures are test failures.
LibraryProcess startLibrary(const std::filesystem::path& directory,
                            const StoreWrapper& wrap = nullptr,
                            std::shared_ptr<Clock> clock = nullptr);
// Disconnects, uninstalls the platform and drops the shared instance.
void stopLibrary();

// A reference server on 127.0.0.1 signing with `secret`; null (and a test failure) when it
// cannot start.
std::unique_ptr<server::KestrovaServer> startServer(std::string secret,
                                                    server::FaultPlan faults = {});

// A quantity sample of `source`, for the store.
SamplePtr quantitySample(std::string_view identifier, double value, std::string_view unit,
                         Date start, Date end, const SourceRevision& source);

}  // namespace kestrova::testing
