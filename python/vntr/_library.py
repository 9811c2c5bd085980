"""Finds and loads libVNTRTagManager.so.0 and declares the C functions it uses."""

import ctypes
import ctypes.util
import os
import sysconfig

LIBRARY_ENV = "VNTR_LIBRARY"
SONAME = "libVNTRTagManager.so.0"


class LibraryNotFoundError(ImportError):
    """libVNTRTagManager.so.0 could not be loaded; the message says where it was looked for."""


def _candidates():
    """Where the shared library may be, most specific first."""
    yield SONAME  # the dynamic loader's own search: LD_LIBRARY_PATH, the ldconfig cache
    found = ctypes.util.find_library("VNTRTagManager")
    if found:
        yield found
    multiarch = sysconfig.get_config_var("MULTIARCH") or ""
    for prefix in ("/usr/local", "/usr"):
        for libdir in ("lib/" + multiarch if multiarch else None, "lib", "lib64"):
            if libdir:
                yield os.path.join(prefix, libdir, SONAME)


def load():
    """The library: $VNTR_LIBRARY if set (and only it), else the usual places."""
    explicit = os.environ.get(LIBRARY_ENV)
    candidates = [explicit] if explicit else list(dict.fromkeys(_candidates()))
    errors = []
    for candidate in candidates:
        try:
            return _declare(ctypes.CDLL(candidate))
        except (OSError, AttributeError) as error:
            errors.append(f"  {candidate}: {error}")
    hint = (
        f"{LIBRARY_ENV} names a file that cannot be loaded"
        if explicit
        else "install the library (the libvntrtagmanager0 package, or `cmake --install` into a "
        f"prefix and run ldconfig), or set {LIBRARY_ENV} to the path of {SONAME}"
    )
    raise LibraryNotFoundError(
        f"vntr: cannot load {SONAME}; {hint}. Tried:\n" + "\n".join(errors)
    )


LOG_CALLBACK = ctypes.CFUNCTYPE(
    None, ctypes.c_int, ctypes.POINTER(ctypes.c_char_p), ctypes.c_size_t, ctypes.c_void_p
)
STATISTIC_CALLBACK = ctypes.CFUNCTYPE(None, ctypes.c_int64, ctypes.c_int64, ctypes.c_void_p)

_c = ctypes  # short name for the table below
_SIGNATURES = {
    "vntr_version": (_c.c_char_p, []),
    "vntr_fire_events": (
        _c.c_int,
        [_c.POINTER(_c.c_char_p), _c.c_size_t, _c.c_char_p, _c.c_char_p],
    ),
    "vntr_set_site_id": (_c.c_int, [_c.c_char_p]),
    "vntr_subject_to_gdpr_consent": (_c.c_int, []),
    "vntr_has_gdpr_consent": (_c.c_int, []),
    "vntr_set_log_level": (None, [_c.c_int]),
    "vntr_log_level": (_c.c_int, []),
    "vntr_set_logging_callback": (None, [LOG_CALLBACK, _c.c_void_p]),
    "vntr_set_delegate": (None, [STATISTIC_CALLBACK, _c.c_void_p]),
    "vntr_set_server_url": (_c.c_int, [_c.c_char_p]),
    "vntr_set_request_timeout": (None, [_c.c_double]),
    "vntr_user_defaults_set_string": (_c.c_int, [_c.c_char_p, _c.c_char_p]),
    "vntr_user_defaults_set_double": (_c.c_int, [_c.c_char_p, _c.c_double]),
    "vntr_user_defaults_set_bool": (_c.c_int, [_c.c_char_p, _c.c_int]),
    "vntr_set_main_bundle_path": (_c.c_int, [_c.c_char_p]),
    "vntr_set_documents_directory": (_c.c_int, [_c.c_char_p]),
    "vntr_set_user_defaults_path": (_c.c_int, [_c.c_char_p]),
    "vntr_use_host_reachability": (_c.c_int, [_c.c_uint32]),
    "vntr_update_reachability_flags": (None, [_c.c_uint32]),
    "vntr_set_consent_check_url": (_c.c_int, [_c.c_char_p]),
    "vntr_set_retry_backoff": (None, [_c.c_int]),
}
# Present only in libraries that have them; their wrappers say so when they are missing.
_OPTIONAL_SIGNATURES = {
    "vntr_flush": (_c.c_int, [_c.c_uint32]),
    "vntr_shutdown": (_c.c_int, [_c.c_uint32]),
}


def _declare(lib):
    for name, (restype, argtypes) in _SIGNATURES.items():
        function = getattr(lib, name)  # AttributeError: a library too old for this package
        function.restype, function.argtypes = restype, argtypes
    for name, (restype, argtypes) in _OPTIONAL_SIGNATURES.items():
        if hasattr(lib, name):
            function = getattr(lib, name)
            function.restype, function.argtypes = restype, argtypes
    return lib
