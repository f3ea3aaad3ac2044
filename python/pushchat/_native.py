"""The shared library, loaded once per process with ctypes.

``PUSHCHAT_LIBRARY`` names the file to load (a build tree's
``src/libpushchat.so.0``); otherwise the system's loader finds the installed
``libpushchat.so.0``.
"""

import ctypes
import os
import threading
from typing import Optional

_lock = threading.Lock()
_library: Optional[ctypes.CDLL] = None


class LibraryNotFound(OSError):
    """libpushchat.so.0 could not be loaded."""


def library() -> ctypes.CDLL:
    """The loaded library, with the C interface's prototypes declared."""
    global _library
    with _lock:
        if _library is None:
            _library = _load(os.environ.get("PUSHCHAT_LIBRARY") or "libpushchat.so.0")
        return _library


def _load(name: str) -> ctypes.CDLL:
    try:
        lib = ctypes.CDLL(name)
    except OSError as error:
        raise LibraryNotFound(
            f"cannot load {name} ({error}); install libpushchat0 or set PUSHCHAT_LIBRARY") from error
    client = ctypes.c_void_p
    lib.pushchat_version.restype = ctypes.c_char_p
    lib.pushchat_version.argtypes = []
    lib.pushchat_client_new.restype = client
    lib.pushchat_client_new.argtypes = [ctypes.c_char_p, ctypes.c_char_p, ctypes.c_size_t]
    lib.pushchat_send.restype = ctypes.c_int
    lib.pushchat_send.argtypes = [client, ctypes.c_char_p]
    # A copy is made at once: the text lives until the next receive.
    lib.pushchat_receive.restype = ctypes.c_char_p
    lib.pushchat_receive.argtypes = [client, ctypes.c_int]
    lib.pushchat_event_fd.restype = ctypes.c_int
    lib.pushchat_event_fd.argtypes = [client]
    lib.pushchat_client_close.restype = None
    lib.pushchat_client_close.argtypes = [client]
    lib.pushchat_client_free.restype = None
    lib.pushchat_client_free.argtypes = [client]
    return lib
