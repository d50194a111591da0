/* The C API end to end, compiled as C: a host that only has kestrova.h runs the library's main
 * queue on its own loop, configures, connects and disconnects against the reference server, and
 * the data it holds arrives there. */
#define _POSIX_C_SOURCE 200809L

#include <math.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "kestrova/kestrova.h"
#include "tests/c_api/server_harness.h"

#define LIBRARY_DOMAIN "KestrovaLib.KestrovaHealthKitError"
#define PROFILE "c-profile"

static int failures = 0;

#define CHECK(condition)                                                            \
  do {                                                                              \
    if (!(condition)) {                                                             \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
      ++failures;                                                                   \
    }                                                                               \
  } while (0)

/* The host's loop: the executor queues main-queue items, the test's thread runs them while it
 * waits. host_mutex owns the ring and its indexes; the other fields are the test thread's. */
typedef struct host_item {
  kestrova_work work;
  void* context;
} host_item;

#define HOST_CAPACITY 4096
static pthread_mutex_t host_mutex = PTHREAD_MUTEX_INITIALIZER;
static host_item host_items[HOST_CAPACITY];
static size_t host_head = 0;
static size_t host_tail = 0;
static pthread_t host_thread;
static bool running_host_item = false;
static int host_items_run = 0;

static void host_executor(void* user_data, kestrova_work work, void* work_context) {
  CHECK(user_data == host_items);
  pthread_mutex_lock(&host_mutex);
  CHECK(host_tail - host_head < HOST_CAPACITY);
  host_items[host_tail++ % HOST_CAPACITY] = (host_item){work, work_context};
  pthread_mutex_unlock(&host_mutex);
}

/* One turn of the host's loop: runs what the library has queued so far, in order, then pauses. */
static void host_turn(void) {
  for (;;) {
    pthread_mutex_lock(&host_mutex);
    const host_item item =
        host_head != host_tail ? host_items[host_head++ % HOST_CAPACITY] : (host_item){NULL, NULL};
    pthread_mutex_unlock(&host_mutex);
    if (item.work == NULL) {
      break;
    }
    running_host_item = true;
    item.work(item.context);
    running_host_item = false;
    ++host_items_run;
  }
  struct timespec pause = {0, 10 * 1000 * 1000};
  nanosleep(&pause, NULL);
}

/* Turns the host's loop until condition holds, for 20 seconds or more. */
#define WAIT_UNTIL(condition)                                   \
  for (int turns_ = 0; !(condition) && turns_ < 2000; ++turns_) \
  host_turn()

/* Every completion and listener call comes through the host's loop. */
#define CHECK_ON_HOST_LOOP() CHECK(pthread_equal(pthread_self(), host_thread) && running_host_item)

typedef struct outcome {
  int calls;
  bool success;
  char domain[128];
  int code;
} outcome;

static void record(void* user_data, bool success, const kestrova_error* error) {
  CHECK_ON_HOST_LOOP();
  outcome* result = user_data;
  ++result->calls;
  result->success = success;
  result->code = error != NULL ? error->code : -1;
  snprintf(result->domain, sizeof result->domain, "%s", error != NULL ? error->domain : "");
  CHECK(error == NULL || strlen(error->description) > 0);
}

/* Waits for the one call of a completion. */
static outcome wait_for(outcome* result) {
  WAIT_UNTIL(result->calls > 0);
  CHECK(result->calls == 1);
  return *result;
}

static outcome configure(const kestrova_config_values* values) {
  outcome result = {0};
  CHECK(kestrova_library_configure(values, record, &result, NULL));
  return wait_for(&result);
}

static outcome connect_library(void) {
  outcome result = {0};
  kestrova_library_connect(record, &result);
  return wait_for(&result);
}

/* Every log line is searched for the token in use, which is set before logging starts: it may
 * never show up. */
static char* secret;
static atomic_int log_lines;
static atomic_int leaked_lines;

static void collect_log(void* user_data, kestrova_log_level level, const char* category,
                        const char* message) {
  (void)level;
  (void)category;
  CHECK(user_data == &log_lines);
  ++log_lines;
  leaked_lines += strstr(message, secret) != NULL;
}

static void expect_refused(const kestrova_config_values* values, kestrova_completion completion,
                           const char* described) {
  outcome never = {0};
  kestrova_error error = {NULL, 0, NULL};
  CHECK(!kestrova_library_configure(values, completion, &never, &error));
  CHECK(error.domain != NULL && strcmp(error.domain, KESTROVA_C_ERROR_DOMAIN) == 0);
  CHECK(error.code == KESTROVA_C_ERROR_INVALID_ARGUMENT);
  CHECK(error.description != NULL && strstr(error.description, described) != NULL);
  kestrova_error_clear(&error);
  CHECK(error.domain == NULL && error.description == NULL);
  /* Completions run in order on the main queue: once a later one has arrived, a refused call
   * has had every chance to call its own. */
  CHECK(!connect_library().success);
  CHECK(never.calls == 0);
}

static void test_refused_arguments(void) {
  CHECK(kestrova_status_get() == KESTROVA_STATUS_DISCONNECTED);
  CHECK(kestrova_profile_id_copy() == NULL);
  const int out_of_range[] = {3, 25};
  double not_a_date = NAN;

  kestrova_config_values values = {.token = "t", .data_types = out_of_range, .data_type_count = 2};
  expect_refused(&values, record, "25");
  values.data_types = NULL;
  expect_refused(&values, record, "data_type_count");
  values.data_type_count = 0;
  values.start_date = &not_a_date;
  expect_refused(&values, record, "start date");
  values.start_date = NULL;
  expect_refused(&values, NULL, "completion");
  values.token = NULL;
  expect_refused(&values, record, "token");
  expect_refused(NULL, record, "values");
  /* An error_out of NULL is allowed; so are null callbacks, which are logged and dropped. */
  CHECK(!kestrova_library_configure(NULL, record, NULL, NULL));
  kestrova_library_connect(NULL, NULL);
  kestrova_sync_state_get(NULL, NULL);

  /* The library's own errors reach C with their domain and code. */
  values = (kestrova_config_values){.token = "not-a-token", .url = harness_server_url()};
  outcome result = configure(&values);
  CHECK(!result.success);
  CHECK(strcmp(result.domain, LIBRARY_DOMAIN) == 0);
  CHECK(result.code == KESTROVA_ERROR_INVALID_TOKEN);
}

/* What the delivery listener heard of the body family. */
static void on_delivery(void* user_data, const kestrova_delivery_event* event) {
  CHECK_ON_HOST_LOOP();
  if (strcmp(event->family, "body") == 0) {
    CHECK(event->accepted && event->http_status == 200 && event->error == NULL);
    CHECK(!event->set_aside && event->retry_not_before == NULL);
    *(unsigned long long*)user_data += event->data_points;
  }
}

static void on_state(void* user_data, const kestrova_sync_state* state) {
  CHECK_ON_HOST_LOOP();
  CHECK(state->family_count == 6 && state->rejected_count == 0);
  const kestrova_family_state* body = &state->families[4];
  CHECK(strcmp(body->family, "body") == 0 && body->delivered_points == 1);
  CHECK(body->last_delivered != NULL && body->last_error == NULL);
  CHECK(body->pending_files == 0 && body->oldest_pending_seconds == -1);
  ++*(int*)user_data;
}

static void test_connect_delivers_and_disconnect_forgets(const char* data_directory) {
  unsigned long long body_points = 0;
  kestrova_delivery_listener_set(on_delivery, &body_points);
  double now = (double)time(NULL);
  CHECK(harness_seed_body_mass(data_directory, now - 86400.0));
  double start = now - 2 * 86400.0;
  kestrova_config_values values = {
      .token = secret, .url = harness_server_url(), .start_date = &start};
  CHECK(configure(&values).success);
  CHECK(connect_library().success);
  CHECK(kestrova_status_get() == KESTROVA_STATUS_CONNECTED);
  char* profile = kestrova_profile_id_copy();
  CHECK(profile != NULL && strcmp(profile, PROFILE) == 0);
  kestrova_string_free(profile);
  CHECK(kestrova_health_data_can_connect());

  WAIT_UNTIL(body_points > 0 && harness_data_point_count(PROFILE) > 0);
  CHECK(harness_data_point_count(PROFILE) == 1);
  CHECK(body_points == 1);
  int states = 0;
  kestrova_sync_state_get(on_state, &states);
  WAIT_UNTIL(states > 0);
  CHECK(states == 1);
  kestrova_delivery_listener_set(NULL, NULL);

  kestrova_library_disconnect();
  CHECK(kestrova_status_get() == KESTROVA_STATUS_DISCONNECTED);
  CHECK(kestrova_profile_id_copy() == NULL);
}

int main(void) {
  char directory[] = "/tmp/kestrova-c-api-XXXXXX";
  if (mkdtemp(directory) == NULL || !harness_server_start()) {
    fprintf(stderr, "c_api_test: cannot set up the directory or the server\n");
    return 1;
  }
  kestrova_error error = {NULL, 0, NULL};
  CHECK(!kestrova_platform_install("/dev/null/kestrova", "com.example.c", &error));
  CHECK(error.description != NULL && strstr(error.description, "could not be set up") != NULL);
  kestrova_error_clear(&error);
  CHECK(kestrova_platform_install(directory, "com.example.c", &error));
  host_thread = pthread_self();
  CHECK(!kestrova_main_executor_install(NULL, NULL, &error));
  CHECK(error.code == KESTROVA_C_ERROR_INVALID_ARGUMENT);
  kestrova_error_clear(&error);
  CHECK(kestrova_main_executor_install(host_executor, host_items, &error));
  secret = harness_token_for(PROFILE);
  kestrova_log_set_level(KESTROVA_LOG_DEBUG);
  kestrova_log_set_callback(collect_log, &log_lines);

  test_refused_arguments();
  test_connect_delivers_and_disconnect_forgets(directory);

  /* Once the library is in use its main queue stays where it is. */
  CHECK(host_items_run > 0);
  CHECK(!kestrova_main_executor_install(host_executor, host_items, &error));
  CHECK(error.domain != NULL && strcmp(error.domain, KESTROVA_C_ERROR_DOMAIN) == 0);
  CHECK(error.code == KESTROVA_C_ERROR_TOO_LATE);
  kestrova_error_clear(&error);

  kestrova_log_set_callback(NULL, NULL);
  CHECK(log_lines > 0 && leaked_lines == 0);
  harness_server_stop();
  free(secret);

  char command[128];
  snprintf(command, sizeof command, "rm -rf %s", directory);
  if (system(command) != 0) {
    fprintf(stderr, "c_api_test: could not remove %s\n", directory);
  }
  printf(failures == 0 ? "[  PASSED  ] c_api_test\n" : "[  FAILED  ] c_api_test: %d checks\n",
         failures);
  return failures == 0 ? 0 : 1;
}
