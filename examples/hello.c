/* Fires one event at a tag server (by default the sandbox, `vntr-sandbox --port 8080`). */
#include <inttypes.h>
#include <stdio.h>
#include <vntr/vntr.h>

static void on_statistic(int64_t statistic, int64_t adjustment, void* context) {
  (void)context;
  printf("statistic %" PRId64 " %+" PRId64 "\n", statistic, adjustment);
}

int main(int argc, char** argv) {
  const char* server = argc > 1 ? argv[1] : "http://127.0.0.1:8080/tags";
  const char* events[] = {"checkout"};

  /* Before the first event: the site ID, used unless VantrelTagManagerSDKInfo.plist beside the
   * executable has one. */
  vntr_set_site_id("12345");
  vntr_set_log_level(VNTR_LOG_INFO);
  vntr_set_server_url(server);
  vntr_set_retry_backoff(1); /* recommended: a failing server is not hammered */
  vntr_set_delegate(on_statistic, NULL);
  /* What the app's consent component would write; without consent every event is refused. */
  vntr_user_defaults_set_string("IABConsent_SubjectToGDPR", "0");

  if (vntr_fire_events(events, 1, "purchase", "{\"price\": 9.99}") != VNTR_OK) return 1;
  /* Before exiting, give the event up to 2 s to reach the server; otherwise it stays stored and
   * goes out with the next run. */
  const int delivered = vntr_flush(2000) == VNTR_OK;
  printf("VNTRTagManager %s: event stored for %s, %s\n", vntr_version(), server,
         delivered ? "delivered" : "still queued");
  return 0;
}
