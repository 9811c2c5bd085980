"""Fires one event at a tag server (by default the sandbox, `vntr-sandbox --port 8080`)."""
import sys

import vntr

server = sys.argv[1] if len(sys.argv) > 1 else "http://127.0.0.1:8080/tags"
vntr.set_site_id("12345")
vntr.set_server_url(server)
vntr.set_retry_backoff(True)
vntr.set_logging_callback(lambda level, strings: print("log:", ",".join(strings)))
vntr.user_defaults_set_string("IABConsent_SubjectToGDPR", "0")
vntr.fire_events(["checkout"], "purchase", {"price": 9.99})
# Before exiting, give the event up to 2 s to reach the server; otherwise it stays stored.
delivered = vntr.flush(timeout=2)
print(f"VNTRTagManager {vntr.version()}: event stored for {server}, "
      f"{'delivered' if delivered else 'still queued'}")
