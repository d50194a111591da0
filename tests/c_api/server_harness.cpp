#include "tests/c_api/server_harness.h"

#include <chrono>
#include <cstring>
#include <memory>
#include <string>

#include "healthstore/embedded_health_store.h"
#include "platform/dispatch.h"
#include "server/server.h"

namespace {

constexpr std::string_view kSecret = "c-api-test-secret";

// Started and stopped by the test's main thread, which alone uses them.
std::unique_ptr<kestrova::server::KestrovaServer> server;
std::string url;

}  // namespace

extern "C" {

bool harness_server_start(void) {
  kestrova::server::ServerOptions options;
  options.secret = std::string(kSecret);
  auto started = kestrova::server::KestrovaServer::start(std::move(options));
  if (!started) {
    return false;
  }
  server = std::move(started).value();
  url = server->baseUrl();
  return true;
}

void harness_server_stop(void) {
  server.reset();
}

const char* harness_server_url(void) {
  return url.c_str();
}

char* harness_token_for(const char* profile) {
  return strdup(server->tokenFor(profile).c_str());
}

size_t harness_data_point_count(const char* profile) {
  return server->dataPoints(profile).size();
}

bool harness_seed_body_mass(const char* data_directory, double seconds_since_1970) {
  using namespace kestrova;
  // Throws only on a broken build; a C caller would end the test there anyway.
  EmbeddedHealthStoreOptions options;
  options.path = std::filesystem::path(data_directory) / "healthstore.sqlite";
  options.dispatcher = makeDispatcher();
  auto store = EmbeddedHealthStore::open(std::move(options));
  const Date when(std::chrono::duration_cast<Date::duration>(
      std::chrono::duration<double>(seconds_since_1970)));
  SampleProperties properties;
  properties.startDate = when;
  properties.endDate = when;
  properties.sourceRevision =
      SourceRevision{Source{"Scale", "com.example.scale"}, "1.0", "Scale1,1", {1, 0, 0}};
  auto sample =
      QuantitySample::make(ObjectType::quantityType("HKQuantityTypeIdentifierBodyMass").value(),
                           Quantity(Unit::fromString("kg").value(), 70.5), properties);
  return store && sample && store.value()->saveObjects({sample.value()}).ok();
}

}  // extern "C"
