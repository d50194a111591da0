#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kestrova/config.h"
#include "kestrova/data_type.h"
#include "kestrova/facade.h"
#include "kestrova/kestrova.h"
#include "platform/log.h"
#include "platform/platform.h"

namespace {

constexpr std::string_view kCategory = "kestrova.c";
constexpr std::string_view kUnexpectedFailure = "Unexpected failure in %{public}@: %{public}@";
constexpr std::string_view kUnknownException = "unknown exception";
constexpr std::string_view kUnexpectedDescription =
    "The call failed unexpectedly; the log says why";
constexpr std::string_view kMissingValues = "The configuration values are missing";
constexpr std::string_view kMissingToken = "The token is missing";
constexpr std::string_view kMissingCompletion = "The completion is missing";
constexpr std::string_view kMissingDataTypes = "data_types is null but data_type_count is not 0";
constexpr std::string_view kBadDataType = "Data type %{public}@ is outside 0...24";
constexpr std::string_view kBadStartDate = "The start date is not a finite number of seconds";
constexpr std::string_view kPlatformFailed = "The data directory could not be set up: %{public}@";
constexpr std::string_view kMissingExecutor = "The executor is missing";
constexpr std::string_view kTooLate =
    "The library is already in use; setup calls come before the first call that uses it";

char* copyString(std::string_view text) {
  auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (copy != nullptr) {
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
  }
  return copy;
}

void fillError(kestrova_error* out, std::string_view domain, int code, std::string_view text) {
  if (out != nullptr) {
    out->domain = copyString(domain);
    out->code = code;
    out->description = copyString(text);
  }
}

void argumentError(kestrova_error* out, std::string_view text) {
  kestrova::logError(kCategory, text);
  fillError(out, KESTROVA_C_ERROR_DOMAIN, KESTROVA_C_ERROR_INVALID_ARGUMENT, text);
}

// The one guard of every entry point: whatever escapes `body` is logged and turned into
// `fallback`, so nothing unwinds into C frames.
template <typename Body, typename Fallback>
auto guarded(std::string_view function, Fallback fallback, Body&& body) noexcept
    -> decltype(body()) {
  try {
    return body();
  } catch (const std::exception& exception) {
    try {
      kestrova::logError(kCategory, kUnexpectedFailure, {function, exception.what()});
    } catch (...) {  // logging must not turn a reported failure into std::terminate
    }
  } catch (...) {
    try {
      kestrova::logError(kCategory, kUnexpectedFailure, {function, kUnknownException});
    } catch (...) {  // as above
    }
  }
  return fallback();
}

// What the host chose through the setup calls, kept so that each of them builds the platform
// with the other's choice too. `mutex` owns every field.
struct HostSetup {
  std::mutex mutex;
  kestrova::PlatformOptions options;
  // Set by the first call that makes the facade's instance; setup is over from then on.
  bool libraryUsed = false;
};

// Never destroyed, like the instance it sets up.
HostSetup& hostSetup() {
  static auto* setup = new HostSetup();
  return *setup;
}

void markLibraryUsed() {
  auto& setup = hostSetup();
  std::lock_guard lock(setup.mutex);
  setup.libraryUsed = true;
}

// Builds and installs the platform `options` describe, and keeps them; false with error_out
// filled when the directory cannot be set up. The caller holds the setup's mutex.
bool installPlatformLocked(HostSetup& setup, kestrova::PlatformOptions options,
                           kestrova_error* errorOut) {
  auto platform = kestrova::makeLinuxPlatform(options);
  if (!platform) {
    const std::string text = kestrova::logging::format(kPlatformFailed, {platform.error().text()});
    kestrova::logError(kCategory, text);
    fillError(errorOut, platform.error().domain, static_cast<int>(platform.error().code), text);
    return false;
  }
  kestrova::installPlatform(platform.value());
  setup.options = std::move(options);
  return true;
}

// One main-queue item on its way through the host's loop: owned by the host from the executor
// call until the host runs it, then freed here.
void runWork(void* context) noexcept {
  std::unique_ptr<std::function<void()>> work(static_cast<std::function<void()>*>(context));
  guarded(
      __func__, [] {}, [&] { (*work)(); });
}

Kestrova::GenericCompletion toGeneric(kestrova_completion completion, void* userData) {
  return [completion, userData](bool success, std::optional<kestrova::GenericError> error) {
    if (!error) {
      completion(userData, success, nullptr);
      return;
    }
    // Borrowed by the callee: the strings live until it returns.
    kestrova_error borrowed{error->domain.data(), error->code, error->localizedDescription.data()};
    completion(userData, success, &borrowed);
  };
}

// Reports a failure the facade never got to see, on the main queue like every completion.
void completeUnexpectedly(kestrova_completion completion, void* userData) {
  auto platform = kestrova::currentPlatform();
  auto report = [completion, userData] {
    kestrova_error error{const_cast<char*>(KESTROVA_C_ERROR_DOMAIN), KESTROVA_C_ERROR_UNEXPECTED,
                         const_cast<char*>(kUnexpectedDescription.data())};
    completion(userData, false, &error);
  };
  if (platform) {
    platform->dispatcher->mainQueue()->async(report);
  }
}

double secondsSince1970(KestrovaTime time) {
  return std::chrono::duration<double>(time.time_since_epoch()).count();
}

// The C form of a sync state; its pointers point into this object, which must not move.
class CSyncState {
 public:
  explicit CSyncState(const KestrovaSyncState& state) : source_(state) {
    errors_.reserve(source_.families.size());
    delivered_.reserve(source_.families.size());
    for (const auto& family : source_.families) {
      kestrova_family_state entry{};
      entry.family = family.family.c_str();
      entry.pending_files = family.pendingFiles;
      entry.pending_bytes = family.pendingBytes;
      entry.oldest_pending_seconds =
          family.oldestPendingAge ? family.oldestPendingAge->count() : -1;
      if (family.lastDelivered) {
        entry.last_delivered = &delivered_.emplace_back(secondsSince1970(*family.lastDelivered));
      }
      if (const auto& error = family.lastError) {
        entry.last_error = &errors_.emplace_back(kestrova_delivery_error{
            error->httpStatus.value_or(0), error->domain.c_str(), error->code,
            error->message.c_str(), secondsSince1970(error->at)});
      }
      entry.delivered_points = family.deliveredPoints;
      families_.push_back(entry);
    }
    for (const auto& file : source_.rejected) {
      rejected_.push_back(kestrova_rejected_file{file.file.c_str(), file.family.c_str(),
                                                 file.httpStatus.value_or(0), file.attempts,
                                                 file.reason.c_str(), secondsSince1970(file.at)});
    }
  }
  CSyncState(const CSyncState&) = delete;
  CSyncState& operator=(const CSyncState&) = delete;

  kestrova_sync_state view() const {
    return kestrova_sync_state{families_.data(), families_.size(), rejected_.data(),
                               rejected_.size()};
  }

 private:
  const KestrovaSyncState source_;
  // Reserved up front: entries point at their elements.
  std::vector<kestrova_delivery_error> errors_;
  std::vector<double> delivered_;
  std::vector<kestrova_family_state> families_;
  std::vector<kestrova_rejected_file> rejected_;
};

class CallbackSink : public kestrova::LogSink {
 public:
  CallbackSink(kestrova_log_callback callback, void* userData)
      : callback_(callback), userData_(userData) {}

  void write(kestrova::LogLevel level, std::string_view category,
             std::string_view message) override {
    const std::string categoryText(category);
    const std::string messageText(message);
    callback_(userData_, static_cast<kestrova_log_level>(level), categoryText.c_str(),
              messageText.c_str());
  }

 private:
  kestrova_log_callback callback_;
  void* userData_;
};

std::optional<std::vector<int>> checkedDataTypes(const kestrova_config_values& values,
                                                 kestrova_error* errorOut) {
  if (values.data_types == nullptr) {
    if (values.data_type_count != 0) {
      argumentError(errorOut, kMissingDataTypes);
    }
    return std::nullopt;
  }
  std::vector<int> types(values.data_types, values.data_types + values.data_type_count);
  for (int type : types) {
    if (!KestrovaHealthKitDataType::fromRawValue(type)) {
      const std::string text = kestrova::logging::format(kBadDataType, {std::to_string(type)});
      argumentError(errorOut, text);
      return std::nullopt;
    }
  }
  return types;
}

}  // namespace

extern "C" {

bool kestrova_platform_install(const char* data_directory, const char* application_id,
                               kestrova_error* error_out) noexcept {
  return guarded(
      __func__, [] { return false; },
      [&] {
        auto& setup = hostSetup();
        std::lock_guard lock(setup.mutex);
        kestrova::PlatformOptions options = setup.options;
        options.dataDirectory.reset();
        options.applicationIdentifier.reset();
        if (data_directory != nullptr) {
          options.dataDirectory = std::filesystem::path(data_directory);
        }
        if (application_id != nullptr) {
          options.applicationIdentifier = std::string(application_id);
        }
        return installPlatformLocked(setup, std::move(options), error_out);
      });
}

bool kestrova_main_executor_install(kestrova_main_executor executor, void* user_data,
                                    kestrova_error* error_out) noexcept {
  return guarded(
      __func__, [] { return false; },
      [&] {
        if (executor == nullptr) {
          argumentError(error_out, kMissingExecutor);
          return false;
        }
        auto& setup = hostSetup();
        std::lock_guard lock(setup.mutex);
        if (setup.libraryUsed) {
          kestrova::logError(kCategory, kTooLate);
          fillError(error_out, KESTROVA_C_ERROR_DOMAIN, KESTROVA_C_ERROR_TOO_LATE, kTooLate);
          return false;
        }
        kestrova::PlatformOptions options = setup.options;
        options.mainExecutor = [executor, user_data](std::function<void()> work) {
          executor(user_data, runWork, new std::function<void()>(std::move(work)));
        };
        return installPlatformLocked(setup, std::move(options), error_out);
      });
}

bool kestrova_library_configure(const kestrova_config_values* values,
                                kestrova_completion completion, void* user_data,
                                kestrova_error* error_out) noexcept {
  return guarded(
      __func__, [] { return false; },
      [&] {
        if (completion == nullptr) {
          argumentError(error_out, kMissingCompletion);
          return false;
        }
        if (values == nullptr) {
          argumentError(error_out, kMissingValues);
          return false;
        }
        if (values->token == nullptr) {
          argumentError(error_out, kMissingToken);
          return false;
        }
        std::optional<KestrovaConfig::Date> startDate;
        if (values->start_date != nullptr) {
          if (!std::isfinite(*values->start_date)) {
            argumentError(error_out, kBadStartDate);
            return false;
          }
          startDate =
              KestrovaConfig::Date(std::chrono::duration_cast<KestrovaConfig::Date::duration>(
                  std::chrono::duration<double>(*values->start_date)));
        }
        std::optional<std::string> url;
        if (values->url != nullptr) {
          url = std::string(values->url);
        }
        const bool allTypes = values->data_types == nullptr && values->data_type_count == 0;
        std::optional<std::vector<int>> types = checkedDataTypes(*values, error_out);
        if (!allTypes && !types) {
          return false;
        }
        markLibraryUsed();
        if (types) {
          Kestrova::_configure(KestrovaConfig(values->token, std::move(url), startDate, *types),
                               toGeneric(completion, user_data));
        } else {
          Kestrova::_configure(KestrovaConfig(values->token, std::move(url), startDate),
                               toGeneric(completion, user_data));
        }
        return true;
      });
}

void kestrova_library_connect(kestrova_completion completion, void* user_data) noexcept {
  if (completion == nullptr) {
    guarded(
        __func__, [] {}, [] { argumentError(nullptr, kMissingCompletion); });
    return;
  }
  guarded(
      __func__, [&] { completeUnexpectedly(completion, user_data); },
      [&] {
        markLibraryUsed();
        Kestrova::_connect(toGeneric(completion, user_data));
      });
}

void kestrova_library_disconnect(void) noexcept {
  guarded(
      __func__, [] {},
      [] {
        markLibraryUsed();
        Kestrova::disconnect();
      });
}

kestrova_status kestrova_status_get(void) noexcept {
  return guarded(
      __func__, [] { return KESTROVA_STATUS_NOT_CONFIGURED; },
      [] {
        markLibraryUsed();
        return static_cast<kestrova_status>(Kestrova::_currentStatus());
      });
}

char* kestrova_profile_id_copy(void) noexcept {
  return guarded(
      __func__, []() -> char* { return nullptr; },
      []() -> char* {
        markLibraryUsed();
        auto profile = Kestrova::connectedProfileId();
        return profile ? copyString(*profile) : nullptr;
      });
}

bool kestrova_health_data_can_connect(void) noexcept {
  return guarded(
      __func__, [] { return false; },
      [] {
        markLibraryUsed();
        return Kestrova::canConnectToHealthData();
      });
}

void kestrova_sync_state_get(kestrova_sync_state_callback callback, void* user_data) noexcept {
  if (callback == nullptr) {
    guarded(
        __func__, [] {}, [] { argumentError(nullptr, kMissingCompletion); });
    return;
  }
  guarded(
      __func__, [] {},
      [&] {
        markLibraryUsed();
        Kestrova::syncState([callback, user_data](const KestrovaSyncState& state) {
          const CSyncState converted(state);
          const kestrova_sync_state view = converted.view();
          callback(user_data, &view);
        });
      });
}

void kestrova_delivery_listener_set(kestrova_delivery_listener listener, void* user_data) noexcept {
  guarded(
      __func__, [] {},
      [&] {
        markLibraryUsed();
        if (listener == nullptr) {
          Kestrova::setDeliveryListener({});
          return;
        }
        Kestrova::setDeliveryListener([listener, user_data](const KestrovaDeliveryEvent& event) {
          std::optional<kestrova_error> error;
          if (event.error) {
            error =
                kestrova_error{const_cast<char*>(event.error->domain.c_str()), event.error->code,
                               const_cast<char*>(event.error->localizedDescription.c_str())};
          }
          std::optional<double> retry;
          if (event.retryNotBefore) {
            retry = secondsSince1970(*event.retryNotBefore);
          }
          const kestrova_delivery_event converted{
              event.family.c_str(),         event.dataPoints,          event.accepted,
              event.httpStatus.value_or(0), error ? &*error : nullptr, event.setAside,
              retry ? &*retry : nullptr};
          listener(user_data, &converted);
        });
      });
}

void kestrova_log_set_callback(kestrova_log_callback callback, void* user_data) noexcept {
  guarded(
      __func__, [] {},
      [&] {
        if (callback == nullptr) {
          kestrova::logging::setSink(kestrova::makeStderrLogSink());
        } else {
          kestrova::logging::setSink(std::make_shared<CallbackSink>(callback, user_data));
        }
      });
}

void kestrova_log_set_level(kestrova_log_level level) noexcept {
  guarded(
      __func__, [] {},
      [&] {
        const int raw = static_cast<int>(level);
        const int clamped = raw < KESTROVA_LOG_DEBUG   ? KESTROVA_LOG_DEBUG
                            : raw > KESTROVA_LOG_FAULT ? KESTROVA_LOG_FAULT
                                                       : raw;
        kestrova::logging::setMinimumLevel(static_cast<kestrova::LogLevel>(clamped));
      });
}

void kestrova_string_free(char* string) noexcept {
  std::free(string);
}

void kestrova_error_clear(kestrova_error* error) noexcept {
  if (error != nullptr) {
    std::free(error->domain);
    std::free(error->description);
    error->domain = nullptr;
    error->description = nullptr;
    error->code = 0;
  }
}

}  // extern "C"
