"""Python interface to VNTRTagManager, the event-tagging library, over its C API (ctypes).

    import vntr
    vntr.set_site_id("12345")                       # before the first event
    vntr.set_server_url("https://tags.example.com/tags")
    vntr.user_defaults_set_string("IABConsent_SubjectToGDPR", "0")
    vntr.fire_events(["checkout"], "purchase", {"price": 9.99})
    vntr.flush(timeout=5.0)                         # before a short program exits

Calls never block on the network; rejections are log lines (see `set_logging_callback`).
Wrong arguments raise TypeError or ValueError. The library is loaded at import, from
$VNTR_LIBRARY if set, else from where the dynamic loader and the usual prefixes have it.
"""

import atexit
import ctypes
import json
import threading

from ._library import LIBRARY_ENV, LOG_CALLBACK, STATISTIC_CALLBACK, LibraryNotFoundError, load

__all__ = [
    "LibraryNotFoundError", "LIBRARY_ENV", "LOG_FATAL", "LOG_ERROR", "LOG_WARNING", "LOG_INFO",
    "LOG_DEBUG", "LOG_VERBOSE", "Statistic", "version", "fire_events", "set_site_id",
    "set_server_url", "set_consent_check_url", "set_retry_backoff", "set_request_timeout", "set_log_level", "log_level", "set_logging_callback",
    "set_delegate", "user_defaults_set_string", "user_defaults_set_double",
    "user_defaults_set_bool", "set_main_bundle_path", "set_documents_directory",
    "set_user_defaults_path", "has_gdpr_consent", "subject_to_gdpr_consent",
    "use_host_reachability", "update_reachability_flags", "flush", "shutdown",
]

_lib = load()

LOG_FATAL, LOG_ERROR, LOG_WARNING, LOG_INFO, LOG_DEBUG, LOG_VERBOSE = 1, 2, 4, 8, 16, 32
_OK, _INVALID_ARGUMENT, _TIMED_OUT, _SHUT_DOWN = 0, 1, 2, 3


class Statistic:
    """The counters the delegate receives (raw values)."""

    BATCH_REQUEST_SENT = 0
    EVENTS_SENT = 1
    RESPONSE_RECEIVED = 2
    REQUEST_FAILED = 3
    RESPONSE_EMPTY = 4
    RESPONSE_DATA_RECEIVED = 5
    RESPONSE_PARSED = 6
    RESPONSE_UNPARSABLE = 7
    EVENT_RESULT_PROCESSED = 8
    EVENT_CREATED = 9


def _text(value, what):
    if not isinstance(value, str):
        raise TypeError(f"{what} must be str, not {type(value).__name__}")
    if "\0" in value:
        raise ValueError(f"{what} must not contain NUL characters")
    return value.encode("utf-8")


def _check(status, what):
    if status != _OK:
        raise ValueError(f"{what} was refused (the library's log says why)")


def version():
    """The library's version, "major.minor.patch"."""
    return _lib.vntr_version().decode()


def fire_events(events, event_group, event_data=None):
    """Records `events` (names) of `event_group` with `event_data` (a dict, JSON text, or None).

    Returns at once: True when the library took the call (whether it was admitted, by site ID,
    consent and qualified events, is only logged, as in every language), False after
    `shutdown`. TypeError/ValueError for arguments that can never work.
    """
    if isinstance(events, str):
        raise TypeError("events must be a list of names, not one str")
    names = [_text(name, "event name") for name in events]
    if event_data is None or isinstance(event_data, str):
        data = event_data
    elif isinstance(event_data, dict):
        data = json.dumps(event_data, allow_nan=False)
    else:
        raise TypeError(f"event_data must be a dict, JSON text or None, not {type(event_data).__name__}")
    array = (ctypes.c_char_p * max(1, len(names)))(*names)
    status = _lib.vntr_fire_events(
        array, len(names), _text(event_group, "event_group"),
        None if data is None else _text(data, "event_data"))
    if status == _SHUT_DOWN:
        return False
    _check(status, "fire_events (event_data must be a JSON object)")
    return True


def set_site_id(site_id):
    """The site ID used when VantrelTagManagerSDKInfo.plist gives none; before first use.
    False (with a log line) when empty or too late."""
    return _lib.vntr_set_site_id(_text(site_id, "site_id")) == _OK


def set_server_url(url):
    _check(_lib.vntr_set_server_url(_text(url, "url")), "set_server_url")


def set_consent_check_url(url):
    """None or "" derives it from the server URL (path "/gdpr/check/json/current")."""
    _check(_lib.vntr_set_consent_check_url(None if url is None else _text(url, "url")),
           "set_consent_check_url")


def set_retry_backoff(enabled):
    """Backoff after failed batches (recommended)."""
    _lib.vntr_set_retry_backoff(1 if enabled else 0)


def set_request_timeout(seconds):
    """Seconds per request; values that are not positive finite numbers are refused (logged)."""
    _lib.vntr_set_request_timeout(float(seconds))


def set_log_level(level):
    _lib.vntr_set_log_level(int(level))


def log_level():
    return _lib.vntr_log_level()


def user_defaults_set_string(key, value):
    """Sets a user-defaults string (None removes the key), e.g. the IAB consent keys."""
    _check(_lib.vntr_user_defaults_set_string(
        _text(key, "key"), None if value is None else _text(value, "value")), "user_defaults_set_string")


def user_defaults_set_double(key, value):
    _check(_lib.vntr_user_defaults_set_double(_text(key, "key"), float(value)), "user_defaults_set_double")


def user_defaults_set_bool(key, value):
    _check(_lib.vntr_user_defaults_set_bool(_text(key, "key"), 1 if value else 0), "user_defaults_set_bool")


def set_main_bundle_path(directory):
    """Before first use; False afterwards."""
    return _lib.vntr_set_main_bundle_path(_text(str(directory), "directory")) == _OK


def set_documents_directory(directory):
    """Where the queue lives; before first use; False afterwards."""
    return _lib.vntr_set_documents_directory(_text(str(directory), "directory")) == _OK


def set_user_defaults_path(file):
    """Before first use; False afterwards."""
    return _lib.vntr_set_user_defaults_path(_text(str(file), "file")) == _OK


def has_gdpr_consent():
    return _lib.vntr_has_gdpr_consent() == 1


def subject_to_gdpr_consent():
    return _lib.vntr_subject_to_gdpr_consent() == 1


def use_host_reachability(initial_flags):
    """The host reports reachability (reachable 0x2); before first use; False afterwards."""
    return _lib.vntr_use_host_reachability(int(initial_flags)) == _OK


def update_reachability_flags(flags):
    _lib.vntr_update_reachability_flags(int(flags))


# Every callback object ever handed to the library stays alive for the life of the process: a
# library thread may be inside the previous one while it is replaced.
_callbacks_lock = threading.Lock()
_callbacks = []


def _keep(callback):
    with _callbacks_lock:
        _callbacks.append(callback)
    return callback


def set_logging_callback(callback):
    """`callback(level, strings)` receives every log message (a list of str), on the library's
    main-queue thread; None restores the default (stderr)."""
    if callback is None:
        _lib.vntr_set_logging_callback(LOG_CALLBACK(), None)
        return

    def trampoline(level, strings, count, _context):
        callback(level, [strings[i].decode("utf-8", "replace") for i in range(count)])

    _lib.vntr_set_logging_callback(_keep(LOG_CALLBACK(trampoline)), None)


def set_delegate(callback):
    """`callback(statistic, adjustment)` receives counter increments (see `Statistic`), on
    library threads; None clears it."""
    if callback is None:
        _lib.vntr_set_delegate(STATISTIC_CALLBACK(), None)
        return
    _lib.vntr_set_delegate(_keep(STATISTIC_CALLBACK(lambda s, a, _c: callback(s, a))), None)


def _timeout_ms(timeout):
    seconds = float(timeout)
    if not 0 <= seconds <= 4_294_967:
        raise ValueError("timeout must be 0 to 4294967 seconds")
    return int(seconds * 1000)


def _lifecycle(name, timeout):
    function = getattr(_lib, name, None)
    if function is None:
        raise NotImplementedError(f"this libVNTRTagManager ({version()}) has no {name}")
    return function(_timeout_ms(timeout)) == _OK


def flush(timeout=5.0):
    """Sends what is queued now and waits up to `timeout` seconds; True when the queue is empty."""
    return _lifecycle("vntr_flush", timeout)


def shutdown(timeout=5.0):
    """Flushes, then stops the library; later calls are refused. True when the queue was empty."""
    return _lifecycle("vntr_shutdown", timeout)


@atexit.register
def _detach_callbacks():
    # Library threads outlive the interpreter: they must not call into it once it is gone.
    _lib.vntr_set_logging_callback(LOG_CALLBACK(), None)
    _lib.vntr_set_delegate(STATISTIC_CALLBACK(), None)
