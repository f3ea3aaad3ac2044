"""The package's exceptions."""


class PushchatError(Exception):
    """Base of every error this package raises."""


class ConfigurationError(PushchatError):
    """The configuration was refused; the text says why."""


class RequestError(PushchatError):
    """A request was refused or failed; the text says why."""


class ClosedError(PushchatError):
    """The client is closed."""


class QueueFullError(PushchatError):
    """The client's event queue is full: receive events, then send again."""
