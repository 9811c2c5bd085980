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

/* The callback runs on the library's main queue, the checks on this thread. Error lines are
 * kept in order (the property list's own lines about a missing file are left out). */
static pthread_mutex_t log_mutex = PTHREAD_MUTEX_INITIALIZER;
enum { MAX_LINES = 64 };
static char error_lines[MAX_LINES][200];
static int error_count = 0;
static int checked = 0; /* error lines the table has looked at; main thread only */

static void on_log(int level, const char* const* strings, size_t count, void* context) {
  (void)context;
  if (level != VNTR_LOG_ERROR || count == 0 || strncmp(strings[0], "The Vantrel", 11) == 0) return;
  pthread_mutex_lock(&log_mutex);
  if (error_count < MAX_LINES) snprintf(error_lines[error_count++], 200, "%s", strings[0]);
  pthread_mutex_unlock(&log_mutex);
}

/* The next error line, waiting (bounded) for it to arrive; "" when none came. */
static const char* next_error_line(void) {
  for (int i = 0; i < 5000; ++i) {
    pthread_mutex_lock(&log_mutex);
    int n = error_count;
    pthread_mutex_unlock(&log_mutex);
    if (n > checked) return error_lines[checked++];
    struct timespec pause = {0, 1000000};
    nanosleep(&pause, NULL);
  }
  return "";
}

static void on_statistic(int64_t statistic, int64_t adjustment, void* context) {
  (void)statistic;
  (void)adjustment;
  (void)context;
}

static const char* const kNoSiteID =
    "The Site ID for the VNTR Tag Manager has not been set.  Please see previous errors for the "
    "reasons this might be happening.";
static const char* const kInvalidData =
    "Sync Event: Invalid event Data provided.  Ensure object is valid using \"isValidJSONObject\".";
static const char* const kBadArgument =
    "vntr_fire_events: NULL or non-UTF-8 event names or event group; call dropped.";

/* Run with "host-site-id", the program sets a site ID and consent first, so the calls reach
 * the later checks; without it every call stops at the site ID. Either way the first failing
 * check is the one line logged, and the status depends on the arguments alone. */
int main(int argc, char** argv) {
  const int host_site_id = argc > 1 && strcmp(argv[1], "host-site-id") == 0;
  const char* events[] = {"launch", "checkout"};
  const char* bad_events[] = {"ok", NULL};
  const char* bad_utf8[] = {"\xff\xfe"};

  CHECK(VNTRTagManagerVersionNumber > 0.0);
  CHECK(strcmp(vntr_version(), (const char*)VNTRTagManagerVersionString) == 0);
  CHECK(strchr(vntr_version(), '.') != NULL);

  vntr_set_log_level(VNTR_LOG_VERBOSE);
  CHECK(vntr_log_level() == VNTR_LOG_VERBOSE);
  vntr_set_log_level(3); /* not a level: ignored */
  CHECK(vntr_log_level() == VNTR_LOG_VERBOSE);
  vntr_set_logging_callback(on_log, NULL);
  vntr_set_delegate(on_statistic, NULL);
  CHECK(vntr_set_server_url("http://127.0.0.1:9/tags") == VNTR_OK);

  CHECK(vntr_set_site_id(NULL) == VNTR_INVALID_ARGUMENT);
  CHECK(vntr_set_site_id("") == VNTR_INVALID_ARGUMENT);
  CHECK(vntr_set_site_id("\xff") == VNTR_INVALID_ARGUMENT);
  checked += 3; /* their three lines */
  if (host_site_id) CHECK(vntr_set_site_id("c-host") == VNTR_OK);
  /* Consent decided locally: no consent check leaves the machine. */
  CHECK(vntr_user_defaults_set_string("IABConsent_SubjectToGDPR", "0") == VNTR_OK);

  const struct {
    const char* const* events;
    size_t count;
    const char* group;
    const char* data;
    vntr_status_t status;
    const char* line_with_site_id; /* NULL: none expected */
  } table[] = {
      {NULL, 1, "group", NULL, VNTR_INVALID_ARGUMENT, kBadArgument},
      {events, 2, NULL, NULL, VNTR_INVALID_ARGUMENT, kBadArgument},
      {bad_events, 2, "group", NULL, VNTR_INVALID_ARGUMENT, kBadArgument},
      {bad_utf8, 1, "group", NULL, VNTR_INVALID_ARGUMENT, kBadArgument},
      {events, 2, "", "[1,2]", VNTR_INVALID_ARGUMENT, "No event group provided"},
      {events, 0, "group", "{not json", VNTR_INVALID_ARGUMENT, "No events provided"},
      {events, 2, "group", "[1,2]", VNTR_INVALID_ARGUMENT, kInvalidData},
      {events, 2, "group", "{not json", VNTR_INVALID_ARGUMENT, kInvalidData},
      {events, 2, "group", "{\"price\": 9.99}", VNTR_OK, NULL},
      {events, 2, "group", NULL, VNTR_OK, NULL},
      {events, 2, "", NULL, VNTR_OK, "No event group provided"},
  };
  for (size_t i = 0; i < sizeof table / sizeof table[0]; ++i) {
    CHECK(vntr_fire_events(table[i].events, table[i].count, table[i].group, table[i].data) ==
          table[i].status);
    const char* expected = table[i].line_with_site_id;
    if (!host_site_id && expected != kBadArgument) expected = kNoSiteID;
    if (expected == NULL) continue;
    const char* line = next_error_line();
    if (strcmp(line, expected) != 0) {
      fprintf(stderr, "row %zu: expected \"%s\", got \"%s\"\n", i, expected, line);
      ++failures;
    }
  }
  /* The library is in use now: the site ID can no longer change. */
  CHECK(vntr_set_site_id("too-late") == VNTR_INVALID_ARGUMENT);

  CHECK(vntr_has_gdpr_consent() == 0 || vntr_has_gdpr_consent() == 1);
  CHECK(vntr_subject_to_gdpr_consent() == 0 || vntr_subject_to_gdpr_consent() == 1);

  CHECK(vntr_set_server_url(NULL) == VNTR_INVALID_ARGUMENT);
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
