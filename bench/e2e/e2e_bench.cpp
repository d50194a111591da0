// Delivers a generated export end to end and prints how long it took and what the server
// holds per schema; then imports the same export with one more day and times the delivery of
// what it added (the incremental sync of a user's next export):
//   kestrova-e2e-bench [--years N] [--dir D]
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <string>
#include <thread>

#include "export_generator.h"
#include "healthstore/embedded_health_store.h"
#include "healthstore/import/apple_health_importer.h"
#include "kestrova/facade.h"
#include "platform/log.h"
#include "platform/platform.h"
#include "server/server.h"

namespace {

using Clock = std::chrono::steady_clock;

// Deliveries that need further queries (workouts, sleep, electrocardiograms) come in a while
// after the first files; the run counts as delivered once nothing has moved for this long.
constexpr auto kSettled = std::chrono::seconds(90);

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

long peakRssMegabytes() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss / 1024;
}

struct Delivery {
  std::size_t dataPoints = 0;  // on the server in all
  double seconds = 0;          // until the last of them arrived
};

// Delivered: nothing left to upload, and the server's count has stopped moving.
Delivery waitForDelivery(const kestrova::server::KestrovaServer& server,
                         const std::filesystem::path& dataDirectory, std::size_t before) {
  const auto start = Clock::now();
  const auto bulk = dataDirectory / "Kestrova" / "UploadBulk";
  Delivery delivery{before, 0};
  auto steadySince = Clock::now();
  const auto deadline = Clock::now() + std::chrono::minutes(30);
  for (;;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    // The server's counters, not its data points: reading those back every time would cost
    // more than the delivery being measured.
    const auto total = static_cast<std::size_t>(server.stats().store.dataPoints);
    const bool idle = !std::filesystem::exists(bulk) || std::filesystem::is_empty(bulk);
    if (total != delivery.dataPoints || !idle) {
      delivery.dataPoints = total;
      steadySince = Clock::now();
    }
    if ((idle && total > before && Clock::now() - steadySince > kSettled) ||
        Clock::now() > deadline) {
      break;
    }
  }
  delivery.seconds = secondsSince(start) - std::chrono::duration<double>(kSettled).count();
  return delivery;
}

int fail(const std::string& message) {
  std::fprintf(stderr, "e2e-bench: %s\n", message.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  int years = 1;
  std::filesystem::path dir = std::filesystem::temp_directory_path() / "kestrova-e2e-bench";
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string option = argv[i];
    if (option == "--years") {
      years = std::atoi(argv[i + 1]);
    } else if (option == "--dir") {
      dir = argv[i + 1];
    } else {
      return fail("unknown option " + option);
    }
  }
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  kestrova::logging::setMinimumLevel(kestrova::LogLevel::error);

  auto start = Clock::now();
  kestrova::bench::GeneratorOptions generator;
  generator.years = years;
  auto generated = kestrova::bench::generateExport(dir / "export", generator);
  if (!generated) {
    return fail(generated.error().text());
  }
  std::printf("generated %llu records (%.1f MB) in %.1f s\n",
              static_cast<unsigned long long>(generated->records), generated->bytes / 1e6,
              secondsSince(start));

  const auto dataDirectory = dir / "data";
  auto dispatcher = kestrova::makeDispatcher();
  kestrova::EmbeddedHealthStoreOptions storeOptions;
  storeOptions.path = dataDirectory / "healthstore.sqlite";
  storeOptions.dispatcher = dispatcher;
  std::filesystem::create_directories(dataDirectory);
  auto store = kestrova::EmbeddedHealthStore::open(storeOptions);
  if (!store) {
    return fail(store.error().text());
  }
  start = Clock::now();
  kestrova::AppleHealthImporter importer(*store);
  const auto summary = importer.importExport(generated->xml);
  if (!summary.ok()) {
    return fail("import failed");
  }
  std::printf("imported in %.1f s\n", secondsSince(start));

  kestrova::server::ServerOptions serverOptions;
  serverOptions.secret = "e2e-bench-secret";
  serverOptions.database = dir / "server.sqlite";
  auto server = kestrova::server::KestrovaServer::start(serverOptions);
  if (!server) {
    return fail(server.error().text());
  }
  kestrova::PlatformOptions platformOptions;
  platformOptions.dataDirectory = dataDirectory;
  platformOptions.healthStore = *store;
  auto platform = kestrova::makeLinuxPlatform(platformOptions);
  if (!platform) {
    return fail(platform.error().text());
  }
  kestrova::installPlatform(*platform);

  start = Clock::now();
  const auto firstDay = kestrova::TimeZone::gmt().date(kestrova::CivilTime{2021, 1, 1});
  std::promise<bool> configured;
  Kestrova::configure(KestrovaConfig((*server)->tokenFor("bench"), (*server)->baseUrl(), firstDay),
                      [&](bool ok, auto) { configured.set_value(ok); });
  std::promise<bool> connected;
  if (configured.get_future().get()) {
    Kestrova::connect([&](bool ok, auto) { connected.set_value(ok); });
  } else {
    return fail("configure failed");
  }
  if (!connected.get_future().get()) {
    return fail("connect failed");
  }

  const auto delivery = waitForDelivery(**server, dataDirectory, 0);
  const auto stats = (*server)->stats();
  std::printf("delivered %zu data points in %.1f s (peak RSS %ld MB)\n", delivery.dataPoints,
              delivery.seconds, peakRssMegabytes());
  for (const auto& [schema, count] : stats.store.bySchema) {
    std::printf("  %-45s %lld\n", schema.c_str(), static_cast<long long>(count));
  }
  std::printf("requests %lld, duplicates %lld\n", static_cast<long long>(stats.requestCount),
              static_cast<long long>(stats.store.duplicates));

  generator.days = 365 * years + 1;
  auto next = kestrova::bench::generateExport(dir / "export-next", generator);
  if (!next) {
    return fail(next.error().text());
  }
  start = Clock::now();
  const auto nextSummary = importer.importExport(next->xml);
  if (!nextSummary.ok()) {
    return fail("import of the next export failed");
  }
  std::printf("next export (one more day): imported in %.1f s, %llu records added\n",
              secondsSince(start), static_cast<unsigned long long>(nextSummary.added));
  const auto increment = waitForDelivery(**server, dataDirectory, delivery.dataPoints);
  std::printf("incremental sync: %zu more data points in %.1f s (peak RSS %ld MB)\n",
              increment.dataPoints - delivery.dataPoints, increment.seconds, peakRssMegabytes());
  Kestrova::disconnect();
  return 0;
}
