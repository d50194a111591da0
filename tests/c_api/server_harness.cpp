#include "tests/c_api/server_harness.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <string>

#include "healthstore/embedded_health_store.h"
#include "kestrova/facade.h"
#include "platform/dispatch.h"
#include "server/jwt.h"
#include "server/server.h"

namespace {

constexpr std::string_view kSecret = "c-api-test-secret";
constexpr std::string_view kForeignSecret = "some-other-secret";

std::unique_ptr<kestrova::server::KestrovaServer>& server() {
  static std::unique_ptr<kestrova::server::KestrovaServer> instance;
  return instance;
}

std::string& url() {
  static std::string text;
  return text;
}

char* copy(const std::string& text) {
  char* result = static_cast<char*>(std::malloc(text.size() + 1));
  if (result != nullptr) {
    std::memcpy(result, text.c_str(), text.size() + 1);
  }
  return result;
}

// The state C++ reported last; written and read on the main queue, the test's thread.
std::optional<KestrovaSyncState>& cppState() {
  static std::optional<KestrovaSyncState> state;
  return state;
}

double seconds(KestrovaTime time) {
  return std::chrono::duration<double>(time.time_since_epoch()).count();
}

bool sameText(const char* c, const std::string& cpp) {
  return c != nullptr && cpp == c;
}

bool sameFamily(const kestrova_family_state& c, const KestrovaFamilySyncState& cpp) {
  const bool sameError =
      cpp.lastError ? c.last_error != nullptr &&
                          c.last_error->http_status == cpp.lastError->httpStatus.value_or(0) &&
                          sameText(c.last_error->domain, cpp.lastError->domain) &&
                          c.last_error->code == cpp.lastError->code &&
                          sameText(c.last_error->message, cpp.lastError->message) &&
                          c.last_error->at == seconds(cpp.lastError->at)
                    : c.last_error == nullptr;
  const bool sameDelivered =
      cpp.lastDelivered
          ? c.last_delivered != nullptr && *c.last_delivered == seconds(*cpp.lastDelivered)
          : c.last_delivered == nullptr;
  return sameText(c.family, cpp.family) && c.pending_files == cpp.pendingFiles &&
         c.pending_bytes == cpp.pendingBytes &&
         c.oldest_pending_seconds == (cpp.oldestPendingAge ? cpp.oldestPendingAge->count() : -1) &&
         sameDelivered && sameError && c.delivered_points == cpp.deliveredPoints;
}

}  // namespace

extern "C" {

void harness_request_cpp_sync_state(void) {
  Kestrova::syncState([](const KestrovaSyncState& state) { cppState() = state; });
}

bool harness_sync_state_matches(const kestrova_sync_state* state) {
  const auto& cpp = cppState();
  if (!cpp || state->family_count != cpp->families.size() ||
      state->rejected_count != cpp->rejected.size()) {
    return false;
  }
  for (std::size_t i = 0; i < state->family_count; ++i) {
    if (!sameFamily(state->families[i], cpp->families[i])) {
      return false;
    }
  }
  for (std::size_t i = 0; i < state->rejected_count; ++i) {
    const auto& c = state->rejected[i];
    const auto& file = cpp->rejected[i];
    if (!sameText(c.file, file.file) || !sameText(c.family, file.family) ||
        c.http_status != file.httpStatus.value_or(0) || c.attempts != file.attempts ||
        !sameText(c.reason, file.reason) || c.at != seconds(file.at)) {
      return false;
    }
  }
  return true;
}

bool harness_server_start(void) {
  kestrova::server::ServerOptions options;
  options.secret = std::string(kSecret);
  auto started = kestrova::server::KestrovaServer::start(std::move(options));
  if (!started) {
    return false;
  }
  server() = std::move(started).value();
  url() = server()->baseUrl();
  return true;
}

void harness_server_stop(void) {
  server().reset();
}

const char* harness_server_url(void) {
  return url().c_str();
}

char* harness_token_for(const char* profile) {
  return copy(server()->tokenFor(profile));
}

char* harness_foreign_token_for(const char* profile) {
  return copy(kestrova::server::mintToken(kForeignSecret, profile));
}

size_t harness_data_point_count(const char* profile) {
  return server()->dataPoints(profile).size();
}

bool harness_seed_body_mass(const char* data_directory, double seconds_since_1970) {
  using namespace kestrova;
  try {
    auto dispatcher = makeDispatcher();
    EmbeddedHealthStoreOptions options;
    options.path = std::filesystem::path(data_directory) / "healthstore.sqlite";
    options.dispatcher = dispatcher;
    auto store = EmbeddedHealthStore::open(std::move(options));
    if (!store) {
      return false;
    }
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
    if (!sample) {
      return false;
    }
    return store.value()->saveObjects({sample.value()}).ok();
  } catch (const std::exception&) {
    return false;
  }
}

}  // extern "C"
