// Delivers a generated export end to end and prints how long it took and what the server
// holds per schema:
//   kestrova-e2e-bench [--years N] [--dir D]
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <map>
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

  // Delivered: nothing left to upload, and the server's count has stopped moving.
  const auto bulk = dataDirectory / "Kestrova" / "UploadBulk";
  std::size_t last = 0;
  auto steadySince = Clock::now();
  const auto deadline = Clock::now() + std::chrono::minutes(30);
  for (;;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const std::size_t total = (*server)->dataPoints("bench").size();
    const bool idle = !std::filesystem::exists(bulk) || std::filesystem::is_empty(bulk);
    if (total != last || !idle) {
      last = total;
      steadySince = Clock::now();
    }
    if ((idle && total > 0 && Clock::now() - steadySince > kSettled) || Clock::now() > deadline) {
      break;
    }
  }
  const double delivered = secondsSince(start) - std::chrono::duration<double>(kSettled).count();
  std::map<std::string, std::size_t> bySchema;
  for (const auto& point : (*server)->dataPoints("bench")) {
    ++bySchema[point.schemaName];
  }
  std::printf("delivered %zu data points in %.1f s (peak RSS %ld MB)\n", last, delivered,
              peakRssMegabytes());
  for (const auto& [schema, count] : bySchema) {
    std::printf("  %-45s %zu\n", schema.c_str(), count);
  }
  const auto stats = (*server)->stats();
  std::printf("requests %lld\n", static_cast<long long>(stats.requestCount));
  Kestrova::disconnect();
  return 0;
}
