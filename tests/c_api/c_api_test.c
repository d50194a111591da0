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

#define DEADLINE_SECONDS 20.0
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
 * waits. host_mutex owns the queue; the other fields are the test thread's. */
typedef struct host_item {
  kestrova_work work;
  void* work_context;
  struct host_item* next;
} host_item;

static pthread_mutex_t host_mutex = PTHREAD_MUTEX_INITIALIZER;
static host_item* host_first = NULL;
static host_item* host_last = NULL;
static pthread_t host_thread;
static bool running_host_item = false;
static int host_items_run = 0;

static void host_executor(void* user_data, kestrova_work work, void* work_context) {
  CHECK(user_data == &host_first);
  host_item* item = malloc(sizeof *item);
  if (item == NULL) {
    ++failures;
    return;
  }
  item->work = work;
  item->work_context = work_context;
  item->next = NULL;
  pthread_mutex_lock(&host_mutex);
  if (host_last == NULL) {
    host_first = item;
  } else {
    host_last->next = item;
  }
  host_last = item;
  pthread_mutex_unlock(&host_mutex);
}

/* Runs what the library has queued so far, in order, on the test's thread. */
static void run_host_items(void) {
  for (;;) {
    pthread_mutex_lock(&host_mutex);
    host_item* item = host_first;
    if (item != NULL) {
      host_first = item->next;
      if (host_first == NULL) {
        host_last = NULL;
      }
    }
    pthread_mutex_unlock(&host_mutex);
    if (item == NULL) {
      return;
    }
    running_host_item = true;
    item->work(item->work_context);
    running_host_item = false;
    ++host_items_run;
    free(item);
  }
}

typedef struct outcome {
  atomic_int calls;
  bool success;
  char domain[128];
  int code;
  char description[512];
} outcome;

static void record(void* user_data, bool success, const kestrova_error* error) {
  /* Every completion comes through the host's loop. */
  CHECK(pthread_equal(pthread_self(), host_thread) && running_host_item);
  outcome* result = user_data;
  result->success = success;
  result->domain[0] = '\0';
  result->description[0] = '\0';
  result->code = -1;
  if (error != NULL) {
    snprintf(result->domain, sizeof result->domain, "%s", error->domain);
    snprintf(result->description, sizeof result->description, "%s", error->description);
    result->code = error->code;
  }
  atomic_fetch_add(&result->calls, 1);
}

static double now_seconds(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (double)now.tv_sec + (double)now.tv_nsec / 1e9;
}

/* One turn of the host's loop. */
static void short_wait(void) {
  run_host_items();
  struct timespec pause = {0, 10 * 1000 * 1000};
  nanosleep(&pause, NULL);
}

static bool wait_for_call(outcome* result) {
  double deadline = now_seconds() + DEADLINE_SECONDS;
  while (atomic_load(&result->calls) == 0 && now_seconds() < deadline) {
    short_wait();
  }
  return atomic_load(&result->calls) == 1;
}

static void reset(outcome* result) {
  memset(result, 0, sizeof *result);
  atomic_init(&result->calls, 0);
}

/* Every log line is searched for the tokens in use: none may ever show up. */
static pthread_mutex_t log_mutex = PTHREAD_MUTEX_INITIALIZER;
static const char* secrets[2];
static int log_lines = 0;
static int leaked_lines = 0;

static void collect_log(void* user_data, kestrova_log_level level, const char* category,
                        const char* message) {
  (void)level;
  (void)category;
  CHECK(user_data == &log_lines);
  pthread_mutex_lock(&log_mutex);
  ++log_lines;
  for (size_t i = 0; i < sizeof secrets / sizeof secrets[0]; ++i) {
    if (secrets[i] != NULL && strstr(message, secrets[i]) != NULL) {
      ++leaked_lines;
    }
  }
  pthread_mutex_unlock(&log_mutex);
}

static void expect_refused(const kestrova_config_values* values, const char* described) {
  outcome never;
  reset(&never);
  kestrova_error error = {NULL, 0, NULL};
  CHECK(!kestrova_library_configure(values, record, &never, &error));
  CHECK(error.domain != NULL && strcmp(error.domain, KESTROVA_C_ERROR_DOMAIN) == 0);
  CHECK(error.code == KESTROVA_C_ERROR_INVALID_ARGUMENT);
  CHECK(error.description != NULL && strstr(error.description, described) != NULL);
  kestrova_error_clear(&error);
  CHECK(error.domain == NULL && error.description == NULL);
  /* Completions run in order on the main queue: once a later one has arrived, a refused call
   * has had every chance to call its own. */
  outcome later;
  reset(&later);
  kestrova_library_connect(record, &later);
  CHECK(wait_for_call(&later));
  CHECK(atomic_load(&never.calls) == 0);
}

static void test_refused_arguments(void) {
  CHECK(kestrova_status_get() == KESTROVA_STATUS_DISCONNECTED);
  CHECK(kestrova_profile_id_copy() == NULL);
  const int out_of_range[] = {3, 25};
  const int negative[] = {-1};
  const int valid[] = {3};
  double not_a_date = NAN;

  kestrova_config_values values = {.token = "t", .data_types = out_of_range, .data_type_count = 2};
  expect_refused(&values, "25");
  values.data_types = negative;
  values.data_type_count = 1;
  expect_refused(&values, "-1");
  values.data_types = NULL;
  values.data_type_count = 3;
  expect_refused(&values, "data_type_count");
  values.data_types = valid;
  values.data_type_count = 1;
  values.start_date = &not_a_date;
  expect_refused(&values, "start date");
  values.start_date = NULL;
  values.token = NULL;
  expect_refused(&values, "token");
  expect_refused(NULL, "values");
  /* An error_out of NULL is allowed. */
  CHECK(!kestrova_library_configure(NULL, record, NULL, NULL));
}

static void test_library_errors_reach_c(void) {
  outcome result;
  reset(&result);
  kestrova_config_values values = {.token = "not-a-token", .url = harness_server_url()};
  CHECK(kestrova_library_configure(&values, record, &result, NULL));
  CHECK(wait_for_call(&result));
  CHECK(!result.success);
  CHECK(strcmp(result.domain, LIBRARY_DOMAIN) == 0);
  CHECK(result.code == KESTROVA_ERROR_INVALID_TOKEN);
  CHECK(strlen(result.description) > 0);

  /* Well formed, but the back end refuses it: configure passes, connect does not. */
  char* foreign = harness_foreign_token_for(PROFILE);
  secrets[1] = foreign;
  values.token = foreign;
  reset(&result);
  CHECK(kestrova_library_configure(&values, record, &result, NULL));
  CHECK(wait_for_call(&result));
  CHECK(result.success);
  reset(&result);
  kestrova_library_connect(record, &result);
  CHECK(wait_for_call(&result));
  CHECK(!result.success);
  CHECK(strcmp(result.domain, LIBRARY_DOMAIN) == 0);
  CHECK(result.code == KESTROVA_ERROR_FAILED_TO_VALIDATE_PROFILE);
  CHECK(kestrova_status_get() != KESTROVA_STATUS_CONNECTED);
  CHECK(kestrova_profile_id_copy() == NULL);
}

/* What the delivery listener heard; the test's thread only (it runs the host's loop). */
typedef struct deliveries {
  int events;
  unsigned long long body_points;
  int body_status;
} deliveries;

static void on_delivery(void* user_data, const kestrova_delivery_event* event) {
  CHECK(pthread_equal(pthread_self(), host_thread) && running_host_item);
  deliveries* heard = user_data;
  ++heard->events;
  if (event->accepted && strcmp(event->family, "body") == 0) {
    heard->body_points += event->data_points;
    heard->body_status = event->http_status;
    CHECK(event->error == NULL);
    CHECK(!event->set_aside);
  }
}

typedef struct state_check {
  int calls;
  bool matches_cpp;
  unsigned long long body_points;
  bool body_delivered;
  size_t body_pending;
  size_t family_count;
} state_check;

static void on_state(void* user_data, const kestrova_sync_state* state) {
  CHECK(pthread_equal(pthread_self(), host_thread) && running_host_item);
  state_check* check = user_data;
  ++check->calls;
  check->matches_cpp = harness_sync_state_matches(state);
  check->family_count = state->family_count;
  for (size_t i = 0; i < state->family_count; ++i) {
    if (strcmp(state->families[i].family, "body") == 0) {
      check->body_points = state->families[i].delivered_points;
      check->body_delivered = state->families[i].last_delivered != NULL;
      check->body_pending = state->families[i].pending_files;
    }
  }
}

/* The state as C gets it, beside the state C++ got just before: the same. */
static void check_sync_state(unsigned long long body_points) {
  harness_request_cpp_sync_state();
  state_check check = {0};
  kestrova_sync_state_get(on_state, &check);
  double deadline = now_seconds() + DEADLINE_SECONDS;
  while (check.calls == 0 && now_seconds() < deadline) {
    short_wait();
  }
  CHECK(check.calls == 1);
  CHECK(check.matches_cpp);
  CHECK(check.family_count == 6);
  CHECK(check.body_points == body_points);
  CHECK(check.body_delivered);
  CHECK(check.body_pending == 0);
}

static void test_connect_delivers_and_disconnect_forgets(const char* data_directory) {
  deliveries heard = {0};
  kestrova_delivery_listener_set(on_delivery, &heard);
  double now = (double)time(NULL);
  CHECK(harness_seed_body_mass(data_directory, now - 86400.0));
  char* token = harness_token_for(PROFILE);
  secrets[0] = token;
  double start = now - 2 * 86400.0;
  kestrova_config_values values = {
      .token = token, .url = harness_server_url(), .start_date = &start};

  outcome result;
  reset(&result);
  CHECK(kestrova_library_configure(&values, record, &result, NULL));
  CHECK(wait_for_call(&result));
  CHECK(result.success);
  reset(&result);
  kestrova_library_connect(record, &result);
  CHECK(wait_for_call(&result));
  CHECK(result.success);
  CHECK(kestrova_status_get() == KESTROVA_STATUS_CONNECTED);
  char* profile = kestrova_profile_id_copy();
  CHECK(profile != NULL && strcmp(profile, PROFILE) == 0);
  kestrova_string_free(profile);
  CHECK(kestrova_health_data_can_connect());

  double deadline = now_seconds() + DEADLINE_SECONDS;
  while (harness_data_point_count(PROFILE) == 0 && now_seconds() < deadline) {
    short_wait();
  }
  CHECK(harness_data_point_count(PROFILE) >= 1);
  deadline = now_seconds() + DEADLINE_SECONDS;
  while (heard.body_points == 0 && now_seconds() < deadline) {
    short_wait();
  }
  CHECK(heard.body_points == 1);
  CHECK(heard.body_status == 200);
  check_sync_state(heard.body_points);
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
  CHECK(kestrova_platform_install(directory, "com.example.c", &error));
  kestrova_error_clear(&error);
  host_thread = pthread_self();
  CHECK(!kestrova_main_executor_install(NULL, NULL, &error));
  CHECK(error.code == KESTROVA_C_ERROR_INVALID_ARGUMENT);
  kestrova_error_clear(&error);
  CHECK(kestrova_main_executor_install(host_executor, &host_first, &error));
  kestrova_log_set_level(KESTROVA_LOG_DEBUG);
  kestrova_log_set_callback(collect_log, &log_lines);

  test_refused_arguments();
  test_library_errors_reach_c();
  test_connect_delivers_and_disconnect_forgets(directory);

  /* Once the library is in use its main queue stays where it is. */
  CHECK(host_items_run > 0);
  CHECK(!kestrova_main_executor_install(host_executor, &host_first, &error));
  CHECK(error.domain != NULL && strcmp(error.domain, KESTROVA_C_ERROR_DOMAIN) == 0);
  CHECK(error.code == KESTROVA_C_ERROR_TOO_LATE);
  kestrova_error_clear(&error);

  kestrova_log_set_callback(NULL, NULL);
  pthread_mutex_lock(&log_mutex);
  CHECK(log_lines > 0);
  CHECK(leaked_lines == 0);
  pthread_mutex_unlock(&log_mutex);
  harness_server_stop();
  free((void*)secrets[0]);
  free((void*)secrets[1]);

  char command[128];
  snprintf(command, sizeof command, "rm -rf %s", directory);
  if (system(command) != 0) {
    fprintf(stderr, "c_api_test: could not remove %s\n", directory);
  }
  printf(failures == 0 ? "[  PASSED  ] c_api_test\n" : "[  FAILED  ] c_api_test: %d checks\n",
         failures);
  return failures == 0 ? 0 : 1;
}
