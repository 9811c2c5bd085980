#define _POSIX_C_SOURCE 200809L
/* Exercises the C interface from a C11 program: the header compiles as C, the functions link,
 * bad arguments are refused, callbacks arrive. */
#include <stdatomic.h>
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

/* Counts error lines, which arrive on the library's main queue (the property list's own lines
 * about a missing file are left out). */
static atomic_int error_lines;
static void on_log(int level, const char* const* strings, size_t count, void* context) {
  (void)context;
  if (level == VNTR_LOG_ERROR && count > 0 && strncmp(strings[0], "The Vantrel", 11) != 0) {
    atomic_fetch_add(&error_lines, 1);
  }
}

/* Run with "host-site-id", the program sets a site ID and consent first, so the calls reach
 * the later checks; without it every call stops at the site ID. Either way each refused call
 * logs one line, and the status depends on the arguments alone. */
int main(int argc, char** argv) {
  const int host_site_id = argc > 1 && strcmp(argv[1], "host-site-id") == 0;
  const char* events[] = {"launch", "checkout"};
  const char* bad_utf8[] = {"ok", "\xff\xfe"};

  CHECK(VNTRTagManagerVersionNumber > 0.0);
  CHECK(strcmp(vntr_version(), (const char*)VNTRTagManagerVersionString) == 0);
  vntr_set_log_level(VNTR_LOG_VERBOSE);
  vntr_set_log_level(3); /* not a level: ignored */
  CHECK(vntr_log_level() == VNTR_LOG_VERBOSE);
  vntr_set_logging_callback(on_log, NULL);
  CHECK(vntr_set_server_url("http://127.0.0.1:9/tags") == VNTR_OK);
  CHECK(vntr_set_site_id(NULL) == VNTR_INVALID_ARGUMENT);
  CHECK(vntr_set_site_id("") == VNTR_INVALID_ARGUMENT);
  CHECK(vntr_set_site_id("\xff") == VNTR_INVALID_ARGUMENT);
  int expected_lines = 3;
  if (host_site_id) CHECK(vntr_set_site_id("c-host") == VNTR_OK);
  /* Consent decided locally: no consent check leaves the machine. */
  CHECK(vntr_user_defaults_set_string("IABConsent_SubjectToGDPR", "0") == VNTR_OK);

  const struct {
    const char* const* events;
    size_t count;
    const char* group;
    const char* data;
    vntr_status_t status;
    int logs_with_site_id; /* without one, every call logs */
  } table[] = {
      {NULL, 1, "group", NULL, VNTR_INVALID_ARGUMENT, 1},
      {events, 2, NULL, NULL, VNTR_INVALID_ARGUMENT, 1},
      {bad_utf8, 2, "group", NULL, VNTR_INVALID_ARGUMENT, 1},
      {events, 2, "", "[1,2]", VNTR_INVALID_ARGUMENT, 1},          /* no group */
      {events, 0, "group", "{not json", VNTR_INVALID_ARGUMENT, 1}, /* no events */
      {events, 2, "group", "{not json", VNTR_INVALID_ARGUMENT, 1},
      {events, 2, "group", "{\"price\": 9.99}", VNTR_OK, 0},
      {events, 2, "group", NULL, VNTR_OK, 0},
      {events, 2, "", NULL, VNTR_OK, 1},
  };
  for (size_t i = 0; i < sizeof table / sizeof table[0]; ++i) {
    CHECK(vntr_fire_events(table[i].events, table[i].count, table[i].group, table[i].data) ==
          table[i].status);
    expected_lines += host_site_id ? table[i].logs_with_site_id : 1;
  }
  /* The library is in use now: the site ID can no longer change. */
  CHECK(vntr_set_site_id("too-late") == VNTR_INVALID_ARGUMENT);
  ++expected_lines;
  for (int i = 0; i < 5000 && atomic_load(&error_lines) < expected_lines; ++i) {
    nanosleep(&(struct timespec){0, 1000000}, NULL);
  }
  CHECK(atomic_load(&error_lines) == expected_lines);

  CHECK(vntr_has_gdpr_consent() == 0 || vntr_has_gdpr_consent() == 1);
  CHECK(vntr_subject_to_gdpr_consent() == 0 || vntr_subject_to_gdpr_consent() == 1);
  CHECK(vntr_set_server_url(NULL) == VNTR_INVALID_ARGUMENT);
  CHECK(vntr_set_consent_check_url("\xff") == VNTR_INVALID_ARGUMENT);
  CHECK(vntr_set_consent_check_url(NULL) == VNTR_OK);
  vntr_set_retry_backoff(0);
  vntr_set_logging_callback(NULL, NULL);
  if (failures == 0) printf("1 passed, 0 failed\n");
  return failures == 0 ? 0 : 1;
}
