/* Kestrova for C: the facade for hosts that cannot use C++.
 *
 * Conventions, stated once for every function below:
 *  - Strings passed in are borrowed for the duration of the call and copied when kept.
 *    Strings handed out are either borrowed (valid only during the callback that receives
 *    them) or owned by the caller, who frees them with kestrova_string_free(); each function
 *    says which.
 *  - Completions and the log callback receive the user-data pointer they were registered with,
 *    untouched. Completions run exactly once, on the library's main queue, never on the calling
 *    thread before the call returns. The main queue is a thread of the library's own, or the
 *    host's loop once kestrova_main_executor_install() has handed it over. The log callback may
 *    run on any thread, concurrently.
 *  - An error is a domain, an integer code and an English description. Errors of the library
 *    have the domain KestrovaLib.KestrovaHealthKitError and the codes KESTROVA_ERROR_*; an
 *    argument the C layer refuses has the domain KESTROVA_C_ERROR_DOMAIN.
 *  - No function aborts or lets a C++ exception out: an unexpected failure is logged and
 *    reported as an error or as the documented fallback value.
 *  - The library is one shared instance that lives until the process ends; nothing needs to be
 *    torn down. The setup calls, kestrova_platform_install() and then
 *    kestrova_main_executor_install(), come before the first call that uses the library
 *    (configure, connect, disconnect, status, profile id, can-connect): that call makes the
 *    instance, on the platform installed at that moment, for good. An executor offered later is
 *    refused with KESTROVA_C_ERROR_TOO_LATE and completions stay on the library's thread.
 *  - Pointers are non-null unless a parameter says "nullable".
 *
 *   static void connected(void* ctx, bool ok, const kestrova_error* error) { ... }
 *   static void configured(void* ctx, bool ok, const kestrova_error* error) {
 *     if (ok) kestrova_library_connect(connected, ctx);
 *   }
 *   kestrova_config_values values = {.token = token};
 *   kestrova_library_configure(&values, configured, ctx, NULL);
 */
#ifndef KESTROVA_KESTROVA_H_
#define KESTROVA_KESTROVA_H_

#include <stdbool.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#define KESTROVA_NOEXCEPT noexcept
#else
#define KESTROVA_NOEXCEPT
#endif

/* The domain of errors about the arguments of a C call. */
#define KESTROVA_C_ERROR_DOMAIN "KestrovaLib.CAPI"
#define KESTROVA_C_ERROR_INVALID_ARGUMENT 1
#define KESTROVA_C_ERROR_UNEXPECTED 2
/* A setup call made after the library was first used. */
#define KESTROVA_C_ERROR_TOO_LATE 3

/* Codes of the domain KestrovaLib.KestrovaHealthKitError. */
#define KESTROVA_ERROR_AUTHORIZATION_NOT_GRANTED 0
#define KESTROVA_ERROR_NO_TOKEN_AVAILABLE_FOR 1
#define KESTROVA_ERROR_INVALID_TOKEN 2
#define KESTROVA_ERROR_FAILED_TO_VALIDATE_PROFILE 3
#define KESTROVA_ERROR_API_URL_NOT_VALID 4
#define KESTROVA_ERROR_BRIDGE_COULD_NOT_BE_SET_UP 5
#define KESTROVA_ERROR_HEALTH_KIT_STORE_NOT_AVAILABLE 6
#define KESTROVA_ERROR_COULD_NOT_START_HEALTH_KIT_QUERY 7
#define KESTROVA_ERROR_INVALID_HOST 8
#define KESTROVA_ERROR_INVALID_SCHEME 9
#define KESTROVA_ERROR_NO_PROFILE_ID_PROVIDED 10

/* The highest data type value; data types are 0 ... KESTROVA_DATA_TYPE_MAX. */
#define KESTROVA_DATA_TYPE_MAX 24

typedef enum kestrova_status {
  KESTROVA_STATUS_NOT_CONFIGURED = 0,
  KESTROVA_STATUS_DISCONNECTED = 1,
  KESTROVA_STATUS_CONNECTED = 2,
} kestrova_status;

typedef enum kestrova_log_level {
  KESTROVA_LOG_DEBUG = 0,
  KESTROVA_LOG_INFO = 1,
  KESTROVA_LOG_ERROR = 2,
  KESTROVA_LOG_FAULT = 3,
} kestrova_log_level;

/* As a completion receives it the strings are borrowed; filled in by a call's error_out
 * parameter they are owned, and kestrova_error_clear() frees them. */
typedef struct kestrova_error {
  char* domain;
  int code;
  char* description;
} kestrova_error;

/* error is null on success. */
typedef void (*kestrova_completion)(void* user_data, bool success, const kestrova_error* error);
/* category and message are borrowed; tokens never appear in them. */
typedef void (*kestrova_log_callback)(void* user_data, kestrova_log_level level,
                                      const char* category, const char* message);

/* One item of main-queue work; the host runs it by calling work(work_context). */
typedef void (*kestrova_work)(void* work_context);
/* The host's loop: keeps work and work_context to run later, on the host's own thread, and
 * returns without running it. The host runs every item exactly once, in the order received, one
 * at a time; an item never run keeps its completion from arriving and its memory. */
typedef void (*kestrova_main_executor)(void* user_data, kestrova_work work, void* work_context);

typedef struct kestrova_config_values {
  const char* token;
  /* Nullable: the service's endpoint. */
  const char* url;
  /* Nullable: 20 calendar days before now. Seconds since 1970-01-01T00:00:00Z. */
  const double* start_date;
  /* Nullable: every data type. Otherwise data_type_count values in 0 ... KESTROVA_DATA_TYPE_MAX,
   * kept in order; a count of 0 enables nothing. */
  const int* data_types;
  size_t data_type_count;
} kestrova_config_values;

/* Chooses the data directory and the application identifier (both nullable: the defaults)
 * before first use, keeping an executor installed earlier. False, with error_out (nullable)
 * filled, when the directory cannot be set up. */
bool kestrova_platform_install(const char* data_directory, const char* application_id,
                               kestrova_error* error_out) KESTROVA_NOEXCEPT;

/* Runs the library's main queue, and so every completion, on the host's loop: from now on the
 * library hands each main-queue item to executor, with user_data untouched. Call it after
 * kestrova_platform_install(), whose data directory and application identifier it keeps
 * (without that call it sets up the defaults). False, with error_out (nullable) filled and
 * nothing changed, for a null executor, when the directory cannot be set up, or when the
 * library has already been used (KESTROVA_C_ERROR_TOO_LATE). */
bool kestrova_main_executor_install(kestrova_main_executor executor, void* user_data,
                                    kestrova_error* error_out) KESTROVA_NOEXCEPT;

/* Validates and installs the configuration. False, with error_out (nullable) filled and the
 * completion never called, when the C layer refuses the values; otherwise the completion
 * reports the library's answer. */
bool kestrova_library_configure(const kestrova_config_values* values,
                                kestrova_completion completion, void* user_data,
                                kestrova_error* error_out) KESTROVA_NOEXCEPT;
/* Validates the configured profile with the back end and starts collection. */
void kestrova_library_connect(kestrova_completion completion, void* user_data) KESTROVA_NOEXCEPT;
/* Stops collection and forgets the connected profile, on the calling thread. */
void kestrova_library_disconnect(void) KESTROVA_NOEXCEPT;

kestrova_status kestrova_status_get(void) KESTROVA_NOEXCEPT;
/* The connected profile's id, owned by the caller; null when none is connected. */
char* kestrova_profile_id_copy(void) KESTROVA_NOEXCEPT;
bool kestrova_health_data_can_connect(void) KESTROVA_NOEXCEPT;

/* Sends every log line to callback from now on; a null callback restores the default sink
 * (standard error). */
void kestrova_log_set_callback(kestrova_log_callback callback, void* user_data) KESTROVA_NOEXCEPT;
/* Lines below level are dropped before any sink sees them. */
void kestrova_log_set_level(kestrova_log_level level) KESTROVA_NOEXCEPT;

/* Both accept null. */
void kestrova_string_free(char* string) KESTROVA_NOEXCEPT;
void kestrova_error_clear(kestrova_error* error) KESTROVA_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* KESTROVA_KESTROVA_H_ */
