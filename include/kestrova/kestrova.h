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
 *    (configure, connect, disconnect, status, profile id, can-connect, sync state, delivery
 *    listener): that call makes the
 *    instance, on the platform installed at that moment, for good. An executor offered later is
 *    refused with KESTROVA_C_ERROR_TOO_LATE and completions stay on the library's thread.
 *  - Pointers are non-null unless a parameter or field says "nullable".
 *  - Times are seconds since 1970-01-01T00:00:00Z.
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

/* Why the last upload of a family failed; strings borrowed. */
typedef struct kestrova_delivery_error {
  /* 0 when the back end did not answer: domain and code are the transport error's then.
   * Otherwise the domain is KestrovaLib.HTTPStatus and the code the status. */
  int http_status;
  const char* domain;
  int code;
  /* The back end's answer (cut short), or the transport error's description. */
  const char* message;
  double at;
} kestrova_delivery_error;

/* Families: "workout", "sleep", "mindful", "ecg", "body" and "statistics". */
typedef struct kestrova_family_state {
  const char* family;
  /* Upload files waiting for the back end; set-aside files are not among them. */
  size_t pending_files;
  unsigned long long pending_bytes;
  /* Since the oldest waiting file was written; -1 when nothing waits. */
  long long oldest_pending_seconds;
  /* Nullable: nothing delivered yet. */
  const double* last_delivered;
  /* Nullable: no failure yet. */
  const kestrova_delivery_error* last_error;
  /* Accepted by the back end since the data directory was first used. */
  unsigned long long delivered_points;
} kestrova_family_state;

/* An upload file refused again and again, set aside and no longer sent. */
typedef struct kestrova_rejected_file {
  const char* file;
  const char* family;
  /* 0 when unknown. */
  int http_status;
  int attempts;
  /* The back end's last answer, cut short. */
  const char* reason;
  double at;
} kestrova_rejected_file;

typedef struct kestrova_sync_state {
  const kestrova_family_state* families;
  size_t family_count;
  const kestrova_rejected_file* rejected;
  size_t rejected_count;
} kestrova_sync_state;

/* state and everything it points to are borrowed. */
typedef void (*kestrova_sync_state_callback)(void* user_data, const kestrova_sync_state* state);

/* One upload answered by the back end, or failed without an answer; strings borrowed. */
typedef struct kestrova_delivery_event {
  const char* family;
  unsigned long long data_points;
  bool accepted;
  /* 0 when the back end did not answer; error says why then. */
  int http_status;
  /* Nullable. */
  const kestrova_error* error;
  /* This refusal set the file aside. */
  bool set_aside;
  /* Nullable: the time before which the back end asked (Retry-After) not to be sent it again. */
  const double* retry_not_before;
} kestrova_delivery_event;

/* event is borrowed. */
typedef void (*kestrova_delivery_listener)(void* user_data, const kestrova_delivery_event* event);

/* Reads the delivery state kept in the data directory, after every upload outcome already
 * received is recorded, and hands it to callback once, on the main queue. */
void kestrova_sync_state_get(kestrova_sync_state_callback callback,
                             void* user_data) KESTROVA_NOEXCEPT;
/* Replaces the one delivery listener (nullable: removes it); it hears every upload outcome from
 * then on, on the main queue, with user_data untouched. */
void kestrova_delivery_listener_set(kestrova_delivery_listener listener,
                                    void* user_data) KESTROVA_NOEXCEPT;

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
