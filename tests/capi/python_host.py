"""A Python host of the C API through ctypes, as a user would write one: it sets the delegate and
the log callback, fires events and exits at once. Used by the lifecycle tests.

    python3 python_host.py <libVNTRTagManager.so> <dataDir> <serverURL> <events> [flush|shutdown]

dataDir/bundle holds the site ID; the queue goes to dataDir/documents. With "flush" or
"shutdown" the host calls that before it exits and prints the status."""
import ctypes
import sys

lib_path, data_dir, server_url, count = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4])
ending = sys.argv[5] if len(sys.argv) > 5 else ""
lib = ctypes.CDLL(lib_path)

LOG = ctypes.CFUNCTYPE(None, ctypes.c_int, ctypes.POINTER(ctypes.c_char_p), ctypes.c_size_t,
                       ctypes.c_void_p)
STAT = ctypes.CFUNCTYPE(None, ctypes.c_int64, ctypes.c_int64, ctypes.c_void_p)
counts = [0] * 10
lines = []


def on_log(level, strings, n, context):
    lines.append(b",".join(strings[i] for i in range(n)))


def on_statistic(statistic, adjustment, context):
    counts[statistic] += adjustment


log_callback, statistic_callback = LOG(on_log), STAT(on_statistic)
lib.vntr_set_main_bundle_path((data_dir + "/bundle").encode())
lib.vntr_set_documents_directory((data_dir + "/documents").encode())
lib.vntr_set_user_defaults_path((data_dir + "/defaults.json").encode())
lib.vntr_use_host_reachability(2)
lib.vntr_set_server_url(server_url.encode())
lib.vntr_set_log_level(32)
lib.vntr_set_logging_callback(log_callback, None)
lib.vntr_set_delegate(statistic_callback, None)
lib.vntr_user_defaults_set_string(b"IABConsent_SubjectToGDPR", b"0")
events = (ctypes.c_char_p * 1)(b"launch")
for n in range(count):
    lib.vntr_fire_events(events, 1, b"app", b'{"seq": %d}' % n)
if ending:
    status = getattr(lib, "vntr_" + ending)(ctypes.c_uint32(5000))
    print(ending, status, "created", counts[9], flush=True)
