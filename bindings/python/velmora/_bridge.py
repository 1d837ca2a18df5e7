"""Between Python and the C interface: texts, context-data maps, and the callbacks that complete
futures or call the application's functions on the library's threads."""

import concurrent.futures
import ctypes
import itertools
import logging
import threading

from . import _native

log = logging.getLogger("velmora")
lib = _native.load()

_INT64 = (-(1 << 63), (1 << 63) - 1)


def encode(text):
    """UTF-8 for the library; lone surrogates pass through and become U+FFFD there."""
    if text is None:
        return None
    if not isinstance(text, str):
        raise TypeError("velmora: expected a str, got %s" % type(text).__name__)
    return text.encode("utf-8", "surrogatepass")


def decode(data):
    return data.decode("utf-8", "replace") if data is not None else ""


def take_text(pointer):
    """A string the library returned, freed once read."""
    if not pointer:
        return ""
    try:
        return decode(ctypes.string_at(pointer))
    finally:
        lib.velmora_free(pointer)


class Map:
    """A velmora_map_t made from a dict of str keys and str, int, float or bool values."""

    def __init__(self, data):
        if data is not None and not isinstance(data, dict):
            raise TypeError("velmora: context data is a dict, not %s" % type(data).__name__)
        self.handle = None
        if not data:
            return
        self.handle = lib.velmora_map_new()
        try:
            for key, value in data.items():
                self._set(encode(key), value)
        except BaseException:
            self.close()
            raise

    def _set(self, key, value):
        if isinstance(value, bool):
            lib.velmora_map_set_bool(self.handle, key, int(value))
        elif isinstance(value, int):
            if _INT64[0] <= value <= _INT64[1]:
                lib.velmora_map_set_int(self.handle, key, value)
            else:  # beyond 64 bits: the same decimal text on the wire
                lib.velmora_map_set_string(self.handle, key, str(value).encode())
        elif isinstance(value, float):
            lib.velmora_map_set_double(self.handle, key, value)
        elif isinstance(value, str):
            lib.velmora_map_set_string(self.handle, key, encode(value))
        else:
            raise TypeError("velmora: the value of %r is a %s; context data takes str, int, float and bool"
                            % (decode(key), type(value).__name__))

    def close(self):
        if self.handle:
            lib.velmora_map_free(self.handle)
            self.handle = None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()


def read_map(handle):
    """A dict of the texts of a velmora_map_t; None for NULL."""
    if not handle:
        return None
    return {decode(lib.velmora_map_key(handle, i)): decode(lib.velmora_map_text(handle, i))
            for i in range(lib.velmora_map_size(handle))}


class _Pending:
    """Futures waiting for a library callback, by the token passed as the callback's user data."""

    def __init__(self):
        self._lock = threading.Lock()
        self._futures = {}
        self._tokens = itertools.count(1)

    def add(self, convert):
        future = concurrent.futures.Future()
        future.set_running_or_notify_cancel()
        with self._lock:
            token = next(self._tokens)
            self._futures[token] = (future, convert)
        return token, future

    def discard(self, token):
        with self._lock:
            self._futures.pop(token, None)

    def complete(self, token, value):
        with self._lock:
            future, convert = self._futures.pop(token or 0, (None, None))
        if future is None:
            log.error("velmora: a result came for no pending call (%r)", token)
            return
        try:
            future.set_result(convert(value))
        except Exception as error:  # a failed conversion must reach the waiter, not the library
            future.set_exception(error)


pending = _Pending()


def _completer(value_of):
    def complete(value, token):
        try:
            pending.complete(token, value_of(value))
        except Exception:  # nothing may unwind into the library's thread
            log.exception("velmora: a result could not be delivered")
    return complete


# One thunk per signature, alive as long as the module: the library may call them at any time.
TEXT_DONE = _native.TEXT_DONE(_completer(decode))
INT_DONE = _native.INT_DONE(_completer(lambda value: value))
MAP_DONE = _native.MAP_DONE(_completer(read_map))


def call_async(start, convert=lambda value: value):
    """Runs `start(done_token)` and returns the future that the library's callback completes."""
    token, future = pending.add(convert)
    try:
        start(ctypes.c_void_p(token))
    except BaseException:
        pending.discard(token)
        raise
    return future


def guarded(function, fallback, what):
    """The application's function for a library thread: an exception is logged, never raised."""
    def call(*arguments):
        try:
            return function(*arguments)
        except Exception:
            log.exception("velmora: the %s callback raised; using %r", what, fallback)
            return fallback
    return call
