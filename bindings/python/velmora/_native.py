"""The shared library and the prototypes of its C interface (<velmora.h>)."""

import ctypes
import os
import sysconfig

SONAME = "libvelmora.so.4"
LIBRARY_VARIABLE = "VELMORA_LIBRARY"


class Stats(ctypes.Structure):
    _fields_ = [
        ("queued", ctypes.c_uint64),
        ("delivered", ctypes.c_uint64),
        ("retried", ctypes.c_uint64),
        ("dropped", ctypes.c_uint64),
        ("waiting", ctypes.c_uint64),
        ("last_status", ctypes.c_int32),
        ("last_delivered", ctypes.c_int64),
    ]


def _candidates():
    """$VELMORA_LIBRARY; else the library of the prefix this package is installed under
    (<prefix>/lib/python3/dist-packages/velmora), in lib/<multiarch> or lib; else the loader's
    search path."""
    override = os.environ.get(LIBRARY_VARIABLE)
    if override:
        return [override]
    prefix = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", "..", "..", ".."))
    found = []
    multiarch = sysconfig.get_config_var("MULTIARCH")
    for libdir in ([os.path.join("lib", multiarch)] if multiarch else []) + ["lib"]:
        path = os.path.join(prefix, libdir, SONAME)
        if os.path.exists(path):
            found.append(path)
    return found + [SONAME]


def load():
    errors = []
    for candidate in _candidates():
        try:
            return _declare(ctypes.CDLL(candidate))
        except OSError as error:
            errors.append(str(error))
    raise ImportError("velmora: cannot load the Velmora library (%s); install libvelmora4 or set $%s"
                      % ("; ".join(errors), LIBRARY_VARIABLE))


c_char_p, c_void_p, c_int, c_double = ctypes.c_char_p, ctypes.c_void_p, ctypes.c_int, ctypes.c_double
# Callbacks: c_void_p is the user data, which carries the token of a pending result.
TEXT_DONE = ctypes.CFUNCTYPE(None, c_char_p, c_void_p)
INT_DONE = ctypes.CFUNCTYPE(None, c_int, c_void_p)
MAP_DONE = ctypes.CFUNCTYPE(None, c_void_p, c_void_p)
WINDOW_SIZE = ctypes.CFUNCTYPE(c_int, ctypes.POINTER(c_double), ctypes.POINTER(c_double), c_void_p)
INTERNET = ctypes.CFUNCTYPE(c_int, c_void_p)
LOG = ctypes.CFUNCTYPE(None, c_int, c_char_p, c_void_p)

_PROTOTYPES = {
    # name: (result, arguments); strings the library returns are c_void_p, to be freed.
    "velmora_version": (c_char_p, []),
    "velmora_free": (None, [c_void_p]),
    "velmora_options_new": (c_void_p, []),
    "velmora_options_free": (None, [c_void_p]),
    "velmora_options_set_package_directory": (None, [c_void_p, c_char_p]),
    "velmora_options_set_local_directory": (None, [c_void_p, c_char_p]),
    "velmora_options_set_device": (None, [c_void_p, c_char_p, c_char_p]),
    "velmora_options_set_language_tag": (None, [c_void_p, c_char_p]),
    "velmora_options_set_application": (None, [c_void_p, c_char_p, c_char_p]),
    "velmora_options_set_os_version": (None, [c_void_p, c_char_p]),
    "velmora_options_add_connect_to": (None, [c_void_p, c_char_p]),
    "velmora_options_set_window_size_func": (None, [c_void_p, WINDOW_SIZE, c_void_p]),
    "velmora_options_set_internet_func": (None, [c_void_p, INTERNET, c_void_p]),
    "velmora_options_set_log_func": (None, [c_void_p, LOG, c_void_p]),
    "velmora_configure": (c_int, [c_void_p]),
    "velmora_flush": (c_int, [ctypes.c_int32]),
    "velmora_shutdown": (c_int, [ctypes.c_int32]),
    "velmora_stats": (Stats, []),
    "velmora_map_new": (c_void_p, []),
    "velmora_map_free": (None, [c_void_p]),
    "velmora_map_set_string": (None, [c_void_p, c_char_p, c_char_p]),
    "velmora_map_set_int": (None, [c_void_p, c_char_p, ctypes.c_int64]),
    "velmora_map_set_double": (None, [c_void_p, c_char_p, c_double]),
    "velmora_map_set_bool": (None, [c_void_p, c_char_p, c_int]),
    "velmora_map_size": (ctypes.c_size_t, [c_void_p]),
    "velmora_map_key": (c_char_p, [c_void_p, ctypes.c_size_t]),
    "velmora_map_text": (c_char_p, [c_void_p, ctypes.c_size_t]),
    "velmora_get_debug_logging": (c_int, []),
    "velmora_set_debug_logging": (None, [c_int]),
    "velmora_collect_lifecycle_data": (None, []),
    "velmora_pause_collecting_lifecycle_data": (None, []),
    "velmora_get_lifetime_value": (c_double, []),
    "velmora_get_privacy_status": (None, [INT_DONE, c_void_p]),
    "velmora_set_privacy_status": (None, [c_int]),
    "velmora_get_user_identifier": (c_void_p, []),
    "velmora_set_user_identifier": (None, [c_char_p]),
    "velmora_track_state": (None, [c_char_p, c_void_p]),
    "velmora_track_action": (None, [c_char_p, c_void_p]),
    "velmora_track_location": (None, [c_double, c_double, c_double, c_void_p]),
    "velmora_track_lifetime_value_increase": (None, [ctypes.c_float, c_void_p]),
    "velmora_track_timed_action_start": (None, [c_char_p, c_void_p]),
    "velmora_track_timed_action_update": (None, [c_char_p, c_void_p]),
    "velmora_track_timed_action_end": (None, [c_char_p]),
    "velmora_tracking_timed_action_exists": (None, [c_char_p, INT_DONE, c_void_p]),
    "velmora_get_tracking_identifier": (None, [TEXT_DONE, c_void_p]),
    "velmora_clear_queue": (None, []),
    "velmora_get_queue_size": (ctypes.c_uint32, []),
    "velmora_media_settings_new": (c_void_p, [c_char_p, c_double, c_char_p, c_char_p]),
    "velmora_media_ad_settings_new": (c_void_p, [c_char_p, c_double, c_char_p, c_char_p, c_char_p, c_double,
                                                 c_char_p]),
    "velmora_media_settings_free": (None, [c_void_p]),
    "velmora_media_settings_set_channel": (None, [c_void_p, c_char_p]),
    "velmora_media_settings_set_milestones": (None, [c_void_p, c_char_p]),
    "velmora_media_settings_set_offset_milestones": (None, [c_void_p, c_char_p]),
    "velmora_media_settings_set_segment_by_milestones": (None, [c_void_p, c_int]),
    "velmora_media_settings_set_segment_by_offset_milestones": (None, [c_void_p, c_int]),
    "velmora_media_settings_set_track_seconds": (None, [c_void_p, ctypes.c_int32]),
    "velmora_media_settings_set_complete_close_offset_threshold": (None, [c_void_p, ctypes.c_int32]),
    "velmora_media_open": (None, [c_void_p]),
    "velmora_media_close": (None, [c_char_p]),
    "velmora_media_play": (None, [c_char_p, c_double]),
    "velmora_media_complete": (None, [c_char_p, c_double]),
    "velmora_media_stop": (None, [c_char_p, c_double]),
    "velmora_media_click": (None, [c_char_p, c_double]),
    "velmora_media_track": (None, [c_char_p, c_void_p]),
    "velmora_vantor_load_request": (None, [c_char_p, c_char_p, c_void_p, TEXT_DONE, c_void_p]),
    "velmora_vantor_load_order_confirm_request": (None, [c_char_p, c_char_p, c_char_p, c_char_p, c_void_p,
                                                         TEXT_DONE, c_void_p]),
    "velmora_vantor_clear_cookies": (None, []),
    "velmora_vantor_get_pc_id": (c_void_p, []),
    "velmora_vantor_get_session_id": (c_void_p, []),
    "velmora_cohorta_get_visitor_profile": (c_void_p, []),
    "velmora_cohorta_get_dpid": (c_void_p, []),
    "velmora_cohorta_get_dpuuid": (c_void_p, []),
    "velmora_cohorta_set_dpid_and_dpuuid": (None, [c_char_p, c_char_p]),
    "velmora_cohorta_submit_signal": (None, [c_void_p, MAP_DONE, c_void_p]),
}


def _declare(library):
    for name, (result, arguments) in _PROTOTYPES.items():
        function = getattr(library, name)
        function.restype = result
        function.argtypes = arguments
    return library
