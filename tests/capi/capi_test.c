#define _POSIX_C_SOURCE 200809L
/* Exercises the C interface from a C11 program: the header compiles as C, the functions link,
 * bad arguments are refused, callbacks arrive. */
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <vntr/vntr.h>

static int failures = 0;
#define CHECK(cond)                                                            \
  do {                                                                         \
    if (!(cond)) {                                                             \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      ++failures;                                                              \
    }                                                                          \
  } while (0)

/* The callback runs on the library's main queue, the checks on this thread. */
static pthread_mutex_t log_mutex = PTHREAD_MUTEX_INITIALIZER;
static int lines_seen = 0;
static char last_line[256];

static void on_log(int level, const char* const* strings, size_t count, void* context) {
  (void)context;
  pthread_mutex_lock(&log_mutex);
  if (count > 0 && level == VNTR_LOG_ERROR) {
    snprintf(last_line, sizeof last_line, "%s", strings[0]);
  }
  ++lines_seen;
  pthread_mutex_unlock(&log_mutex);
}

static int seen(void) {
  pthread_mutex_lock(&log_mutex);
  int n = lines_seen;
  pthread_mutex_unlock(&log_mutex);
  return n;
}

static int last_line_is(const char* expected) {
  pthread_mutex_lock(&log_mutex);
  int same = strcmp(last_line, expected) == 0;
  pthread_mutex_unlock(&log_mutex);
  return same;
}

static void on_statistic(int64_t statistic, int64_t adjustment, void* context) {
  (void)statistic;
  (void)adjustment;
  (void)context;
}

static void wait_for_lines(int n) {
  for (int i = 0; i < 2000 && seen() < n; ++i) {
    struct timespec pause = {0, 1000000};
    nanosleep(&pause, NULL);
  }
}

int main(void) {
  const char* events[] = {"launch", "checkout"};
  const char* bad_events[] = {"ok", NULL};
  const char* bad_utf8[] = {"\xff\xfe"};

  CHECK(VNTRTagManagerVersionNumber > 0.0);
  CHECK(strlen((const char*)VNTRTagManagerVersionString) > 0);

  vntr_set_log_level(VNTR_LOG_VERBOSE);
  CHECK(vntr_log_level() == VNTR_LOG_VERBOSE);
  vntr_set_log_level(3); /* not a level: ignored */
  CHECK(vntr_log_level() == VNTR_LOG_VERBOSE);
  vntr_set_logging_callback(on_log, NULL);
  vntr_set_delegate(on_statistic, NULL);

  CHECK(vntr_fire_events(NULL, 1, "group", NULL) == VNTR_INVALID_ARGUMENT);
  CHECK(vntr_fire_events(events, 2, NULL, NULL) == VNTR_INVALID_ARGUMENT);
  CHECK(vntr_fire_events(bad_events, 2, "group", NULL) == VNTR_INVALID_ARGUMENT);
  CHECK(vntr_fire_events(bad_utf8, 1, "group", NULL) == VNTR_INVALID_ARGUMENT);
  CHECK(vntr_fire_events(events, 2, "group", "[1,2]") == VNTR_INVALID_ARGUMENT);
  CHECK(vntr_fire_events(events, 2, "group", "{not json") == VNTR_INVALID_ARGUMENT);
  wait_for_lines(2);
  CHECK(
      last_line_is("Sync Event: Invalid event Data provided.  Ensure object is valid using "
                   "\"isValidJSONObject\"."));

  CHECK(vntr_fire_events(events, 0, "group", "{\"price\": 9.99}") == VNTR_OK);
  CHECK(vntr_fire_events(events, 2, "group", "{\"price\": 9.99}") == VNTR_OK);
  CHECK(vntr_fire_events(events, 2, "group", NULL) == VNTR_OK);

  CHECK(vntr_has_gdpr_consent() == 0 || vntr_has_gdpr_consent() == 1);
  CHECK(vntr_subject_to_gdpr_consent() == 0 || vntr_subject_to_gdpr_consent() == 1);

  CHECK(vntr_set_server_url(NULL) == VNTR_INVALID_ARGUMENT);
  CHECK(vntr_set_server_url("http://127.0.0.1:9/tags") == VNTR_OK);
  vntr_set_request_timeout(-1.0);
  vntr_set_request_timeout(5.0);
  CHECK(vntr_set_consent_check_url("\xff") == VNTR_INVALID_ARGUMENT);
  CHECK(vntr_set_consent_check_url("http://127.0.0.1:9/gdpr/check/json/current") == VNTR_OK);
  CHECK(vntr_set_consent_check_url(NULL) == VNTR_OK);
  vntr_set_retry_backoff(1);
  vntr_set_retry_backoff(0);

  vntr_set_logging_callback(NULL, NULL);
  vntr_set_delegate(NULL, NULL);
  if (failures == 0) printf("1 passed, 0 failed\n");
  return failures == 0 ? 0 : 1;
}
