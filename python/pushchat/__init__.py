"""pushchat for Python: instant messaging over an MQTT broker.

Pure Python over the library's C interface (ctypes): ``Client`` sends the
library's requests and yields its events. See docs/python.md.
"""

from .client import Client, EventStream
from .errors import ClosedError, ConfigurationError, PushchatError, QueueFullError, RequestError
from .events import Event
from ._native import LibraryNotFound

__all__ = ["Client", "ClosedError", "ConfigurationError", "Event", "EventStream", "LibraryNotFound",
           "PushchatError", "QueueFullError", "RequestError"]
__version__ = "0.1.0"
