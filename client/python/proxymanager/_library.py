"""The functions of libproxymanager-client, as proxymanager/client.h declares them."""

import ctypes
from ctypes import POINTER, c_char_p, c_int, c_size_t, c_uint, c_uint16, c_void_p

NO_START, ASK_LOCAL, WITH_CREDENTIALS, REFUSE = 1, 2, 4, 8


class Entry(ctypes.Structure):
    _fields_ = [("kind", c_int), ("text", c_char_p), ("url", c_char_p), ("scheme", c_char_p),
                ("credentials", c_char_p), ("host", c_char_p), ("port", c_uint16)]


class Failure(ctypes.Structure):
    _fields_ = [("status", c_int), ("error", c_int), ("name", c_char_p), ("text", c_char_p)]


# CDLL releases the interpreter's lock during a call, so other threads run while one thread waits.
_library = ctypes.CDLL("libproxymanager-client.so.0")


def _function(name, result, *arguments):
    function = _library[f"proxymanager_{name}"]
    function.restype, function.argtypes = result, arguments
    return function


client_new = _function("client_new", c_void_p, c_uint)
client_free = _function("client_free", None, c_void_p)
get = _function("get", c_int, c_void_p, c_char_p, c_uint, POINTER(c_void_p))
answer_unref = _function("answer_unref", None, c_void_p)
answer_mode = _function("answer_mode", c_char_p, c_void_p)
answer_count = _function("answer_count", c_size_t, c_void_p)
answer_entry = _function("answer_entry", POINTER(Entry), c_void_p, c_size_t)
status_text = _function("status_text", c_char_p, c_int)
last_failure = _function("last_failure", POINTER(Failure))
_version = _function("client_version", c_char_p)


def version():
    """Returns the release of the library, such as "0.1.0"."""
    return _version().decode()
