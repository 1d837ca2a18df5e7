"""Velmora in-app measurement for Python applications on Linux.

A thin layer over the library's C interface (libvelmora.so.4) with ctypes. Every call returns at
once and raises nothing about the library's work (problems become log lines); only a wrong
argument type raises TypeError. Context data is a dict of str keys and str, int, float or bool
values. Asynchronous results are concurrent.futures.Future objects, completed on a library thread.
Functions given to configure() run on the library's threads; an exception they raise is logged
(logger "velmora") and never reaches the library.

    import velmora
    velmora.configure(package_directory="/opt/app", application_name="App", application_version="1.0.0.0")
    velmora.track_state("Home", {"section": "front page", "items": 3})
    velmora.shutdown(timeout=2.0)
"""

import atexit
import datetime
import enum
import os
import threading
from dataclasses import dataclass
from typing import Optional

from . import _native
from ._bridge import (INT_DONE, MAP_DONE, TEXT_DONE, Map, call_async, decode, encode, guarded, lib, read_map,
                      take_text)

__all__ = [
    "Privacy", "LogLevel", "Stats", "MediaSettings", "version", "configure", "flush", "shutdown", "stats",
    "get_debug_logging", "set_debug_logging", "collect_lifecycle_data", "pause_collecting_lifecycle_data",
    "get_lifetime_value", "get_privacy_status", "set_privacy_status", "get_user_identifier", "set_user_identifier",
    "track_state", "track_action", "track_location", "track_lifetime_value_increase", "track_timed_action_start",
    "track_timed_action_update", "track_timed_action_end", "tracking_timed_action_exists",
    "get_tracking_identifier", "clear_queue", "get_queue_size", "media_settings_with", "media_ad_settings_with",
    "media_open", "media_close", "media_play", "media_complete", "media_stop", "media_click", "media_track",
    "vantor_load_request", "vantor_load_order_confirm_request", "vantor_clear_cookies", "vantor_get_pc_id",
    "vantor_get_session_id", "cohorta_get_visitor_profile", "cohorta_get_dpid", "cohorta_get_dpuuid",
    "cohorta_set_dpid_and_dpuuid", "cohorta_submit_signal",
]


class Privacy(enum.IntEnum):
    """The user's choice about measurement."""
    OPT_IN = 1   #: hits are sent
    OPT_OUT = 2  #: tracking is dropped and the queue emptied
    UNKNOWN = 3  #: hits wait in the queue until OPT_IN


class LogLevel(enum.IntEnum):
    DEBUG = 0
    WARNING = 1
    ERROR = 2


@dataclass(frozen=True)
class Stats:
    """What the hit queue has done since the library started in this process."""
    queued: int
    delivered: int
    retried: int
    dropped: int
    waiting: int
    last_status: int  #: HTTP status of the last attempt (408 time-out), 0 none
    last_delivered: Optional[datetime.datetime]  #: UTC, None when none


# Offer parameter and cookie names (the C++ Vantor::...Key() functions).
ORDER_ID_KEY, ORDER_TOTAL_KEY, PRODUCT_PURCHASED_ID_KEY = "orderId", "orderTotal", "productPurchasedId"
CATEGORY_ID_KEY, THIRD_PARTY_ID_KEY, PAGE_VALUE_KEY = "categoryId", "mbox3rdPartyId", "mboxPageValue"
PC_KEY, SESSION_KEY, HOST_KEY = "mboxPC", "mboxSession", "mboxHost"

_host_callbacks = []  # ctypes thunks the library may call until the process ends
_started = threading.Event()


def version():
    """The library's version, "4.0.0"."""
    return decode(lib.velmora_version())


__version__ = version()


def configure(package_directory=None, local_directory=None, device_manufacturer=None, device_model=None,
              language_tag=None, application_name=None, application_version=None, os_version=None,
              connect_to=(), window_size=None, internet=None, log=None):
    """Sets the host's options; call it once, before any other call. Returns True when taken, False
    once the library has started. Unset options take the library's defaults.

    window_size() returns (width, height) in pixels or None; internet() returns whether the device
    is online; log(level, line) receives every log line (a LogLevel and the line with its level
    prefix). They are called on the library's threads and must return quickly."""
    options = lib.velmora_options_new()
    try:
        for setter, path in ((lib.velmora_options_set_package_directory, package_directory),
                             (lib.velmora_options_set_local_directory, local_directory)):
            if path is not None:
                setter(options, os.fsencode(path))
        lib.velmora_options_set_language_tag(options, encode(language_tag))
        lib.velmora_options_set_os_version(options, encode(os_version))
        lib.velmora_options_set_device(options, encode(device_manufacturer), encode(device_model))
        lib.velmora_options_set_application(options, encode(application_name), encode(application_version))
        for entry in connect_to:
            lib.velmora_options_add_connect_to(options, encode(entry))
        _install_callbacks(options, window_size, internet, log)
    except BaseException:
        lib.velmora_options_free(options)
        raise
    taken = lib.velmora_configure(options) == 1
    if taken and (window_size or internet or log):
        _started.set()  # callbacks into Python: stop the library before the interpreter goes
    return taken


def _install_callbacks(options, window_size, internet, log):
    if window_size is not None:
        def size(width, height, _):
            answer = window_size()
            if answer is None:
                return 0
            width[0], height[0] = float(answer[0]), float(answer[1])
            return 1
        thunk = _native.WINDOW_SIZE(guarded(size, 0, "window_size"))
        lib.velmora_options_set_window_size_func(options, thunk, None)
        _host_callbacks.append(thunk)
    if internet is not None:
        thunk = _native.INTERNET(guarded(lambda _: 1 if internet() else 0, 1, "internet"))
        lib.velmora_options_set_internet_func(options, thunk, None)
        _host_callbacks.append(thunk)
    if log is not None:
        thunk = _native.LOG(guarded(lambda level, line, _: log(LogLevel(level), decode(line)), None, "log"))
        lib.velmora_options_set_log_func(options, thunk, None)
        _host_callbacks.append(thunk)


def _milliseconds(timeout):
    return max(0, min(int(timeout * 1000), 2**31 - 1))


def flush(timeout=5.0):
    """Waits at most `timeout` seconds until what was tracked has been handled and the sender is
    idle. True when no hit is left queued."""
    return lib.velmora_flush(_milliseconds(timeout)) == 1


def shutdown(timeout=2.0):
    """Delivers what it can within `timeout` seconds, saves the queue and stops the library; later
    calls are ignored. True when no hit is left queued."""
    _started.clear()
    return lib.velmora_shutdown(_milliseconds(timeout)) == 1


@atexit.register
def _stop_before_the_interpreter():
    if _started.is_set():
        shutdown(0.25)


def stats():
    """The delivery counters of this process, at once (a Stats)."""
    s = lib.velmora_stats()
    delivered = (datetime.datetime.fromtimestamp(s.last_delivered, datetime.timezone.utc)
                 if s.last_delivered else None)
    return Stats(s.queued, s.delivered, s.retried, s.dropped, s.waiting, s.last_status, delivered)


def get_debug_logging():
    return lib.velmora_get_debug_logging() != 0


def set_debug_logging(enabled):
    lib.velmora_set_debug_logging(1 if enabled else 0)


def collect_lifecycle_data():
    lib.velmora_collect_lifecycle_data()


def pause_collecting_lifecycle_data():
    lib.velmora_pause_collecting_lifecycle_data()


def get_lifetime_value():
    return lib.velmora_get_lifetime_value()


def get_privacy_status():
    """A Future of the Privacy in force (0 when the configuration cannot be read)."""
    _started.set()
    return call_async(lambda token: lib.velmora_get_privacy_status(INT_DONE, token),
                      lambda value: Privacy(value) if value in Privacy._value2member_map_ else value)


def set_privacy_status(status):
    lib.velmora_set_privacy_status(int(status))


def get_user_identifier():
    return take_text(lib.velmora_get_user_identifier())


def set_user_identifier(identifier):
    lib.velmora_set_user_identifier(encode(identifier))


def _track(function, name, data):
    with Map(data) as context:
        function(encode(name), context.handle)


def track_state(name, data=None):
    _track(lib.velmora_track_state, name, data)


def track_action(name, data=None):
    _track(lib.velmora_track_action, name, data)


def track_location(latitude, longitude, horizontal_accuracy, data=None):
    with Map(data) as context:
        lib.velmora_track_location(latitude, longitude, horizontal_accuracy, context.handle)


def track_lifetime_value_increase(amount, data=None):
    with Map(data) as context:
        lib.velmora_track_lifetime_value_increase(amount, context.handle)


def track_timed_action_start(action, data=None):
    _track(lib.velmora_track_timed_action_start, action, data)


def track_timed_action_update(action, data=None):
    _track(lib.velmora_track_timed_action_update, action, data)


def track_timed_action_end(action):
    lib.velmora_track_timed_action_end(encode(action))


def tracking_timed_action_exists(action):
    """A Future of whether the timed action runs."""
    _started.set()
    name = encode(action)
    return call_async(lambda token: lib.velmora_tracking_timed_action_exists(name, INT_DONE, token), bool)


def get_tracking_identifier():
    """A Future of the installation's anonymous identifier ("" when the library cannot answer)."""
    _started.set()
    return call_async(lambda token: lib.velmora_get_tracking_identifier(TEXT_DONE, token))


def clear_queue():
    lib.velmora_clear_queue()


def get_queue_size():
    """The number of queued hits, once the calls made before have reached the queue."""
    return lib.velmora_get_queue_size()


@dataclass
class MediaSettings:
    """A media item's settings (the C++ MediaSettings), made by media_settings_with() or
    media_ad_settings_with() and given to media_open()."""
    name: str
    length: float = 0.0
    player_name: str = ""
    player_id: str = ""
    channel: str = ""
    milestones: str = ""         #: comma-separated percentages, "25,50,75"
    offset_milestones: str = ""  #: comma-separated seconds, "10,30"
    segment_by_milestones: bool = False
    segment_by_offset_milestones: bool = False
    track_seconds: int = 0
    complete_close_offset_threshold: int = 1
    parent_name: str = ""
    parent_pod: str = ""
    cpm: str = ""
    parent_pod_position: float = 0.0
    is_media_ad: bool = False


def media_settings_with(name, length, player_name, player_id):
    return MediaSettings(name, length, player_name, player_id)


def media_ad_settings_with(name, length, player_name, parent_name, parent_pod, parent_pod_position, cpm):
    return MediaSettings(name, length, player_name, parent_name=parent_name, parent_pod=parent_pod,
                         parent_pod_position=parent_pod_position, cpm=cpm, is_media_ad=True)


def media_open(settings):
    s = settings
    if s.is_media_ad:
        handle = lib.velmora_media_ad_settings_new(encode(s.name), s.length, encode(s.player_name),
                                                   encode(s.parent_name), encode(s.parent_pod),
                                                   s.parent_pod_position, encode(s.cpm))
    else:
        handle = lib.velmora_media_settings_new(encode(s.name), s.length, encode(s.player_name),
                                                encode(s.player_id))
    try:
        lib.velmora_media_settings_set_channel(handle, encode(s.channel))
        lib.velmora_media_settings_set_milestones(handle, encode(s.milestones))
        lib.velmora_media_settings_set_offset_milestones(handle, encode(s.offset_milestones))
        lib.velmora_media_settings_set_segment_by_milestones(handle, int(s.segment_by_milestones))
        lib.velmora_media_settings_set_segment_by_offset_milestones(handle, int(s.segment_by_offset_milestones))
        lib.velmora_media_settings_set_track_seconds(handle, s.track_seconds)
        lib.velmora_media_settings_set_complete_close_offset_threshold(handle, s.complete_close_offset_threshold)
        lib.velmora_media_open(handle)
    finally:
        lib.velmora_media_settings_free(handle)


def media_close(name):
    lib.velmora_media_close(encode(name))


def media_play(name, offset):
    lib.velmora_media_play(encode(name), offset)


def media_complete(name, offset):
    lib.velmora_media_complete(encode(name), offset)


def media_stop(name, offset):
    lib.velmora_media_stop(encode(name), offset)


def media_click(name, offset):
    lib.velmora_media_click(encode(name), offset)


def media_track(name, data):
    _track(lib.velmora_media_track, name, data)


def vantor_load_request(name, default_content="", parameters=None):
    """A Future of the offer content for a location; `default_content` when the service gives none."""
    _started.set()
    with Map(parameters) as context:
        name, default = encode(name), encode(default_content)
        return call_async(lambda token: lib.velmora_vantor_load_request(name, default, context.handle, TEXT_DONE,
                                                                        token))


def vantor_load_order_confirm_request(name, order_id, order_total, product_purchased_id, parameters=None):
    """A Future of the offer content for an order confirmation."""
    _started.set()
    with Map(parameters) as context:
        texts = [encode(text) for text in (name, order_id, order_total, product_purchased_id)]
        return call_async(lambda token: lib.velmora_vantor_load_order_confirm_request(*texts, context.handle,
                                                                                      TEXT_DONE, token))


def vantor_clear_cookies():
    lib.velmora_vantor_clear_cookies()


def vantor_get_pc_id():
    return take_text(lib.velmora_vantor_get_pc_id())


def vantor_get_session_id():
    return take_text(lib.velmora_vantor_get_session_id())


def cohorta_get_visitor_profile():
    """The stored audience profile as a dict, or None."""
    handle = lib.velmora_cohorta_get_visitor_profile()
    try:
        return read_map(handle)
    finally:
        lib.velmora_map_free(handle)


def cohorta_get_dpid():
    return take_text(lib.velmora_cohorta_get_dpid())


def cohorta_get_dpuuid():
    return take_text(lib.velmora_cohorta_get_dpuuid())


def cohorta_set_dpid_and_dpuuid(dpid, dpuuid):
    lib.velmora_cohorta_set_dpid_and_dpuuid(encode(dpid), encode(dpuuid))


def cohorta_submit_signal(traits):
    """A Future of the segments the audience service answers with (a dict), or None."""
    _started.set()
    with Map(traits) as context:
        return call_async(lambda token: lib.velmora_cohorta_submit_signal(context.handle, MAP_DONE, token))

