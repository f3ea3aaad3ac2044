"""Events: what the library reports, one object per callback or result."""

import json
import re
from typing import Any, Dict


class Event:
    """One event of a client.

    ``name`` is the callback's name (``"onMessageReceive"``, ``"onConnected"``,
    ...), or ``"result"`` / ``"error"`` for the outcome of a request. The
    arguments are attributes in snake case (``event.message_key`` for
    ``"messageKey"``; ``event.from_`` for ``"from"``) and items under their
    own names (``event["from"]``). ``fields`` holds them all.
    """

    __slots__ = ("name", "fields")

    def __init__(self, name: str, fields: Dict[str, Any]) -> None:
        self.name = name
        self.fields = fields

    @classmethod
    def from_json(cls, text: bytes) -> "Event":
        """The event of the library's JSON text."""
        fields = json.loads(text)
        return cls(fields.pop("event"), fields)

    @property
    def request_id(self) -> Any:
        """The id of the request a result or error answers, else None."""
        return self.fields.get("id")

    def __getitem__(self, key: str) -> Any:
        return self.fields[key]

    def get(self, key: str, default: Any = None) -> Any:
        """The argument ``key``, or ``default``."""
        return self.fields.get(key, default)

    def __getattr__(self, attribute: str) -> Any:
        key = _camel(attribute.rstrip("_"))
        try:
            return self.fields[key]
        except KeyError:
            raise AttributeError(f"{self.name} has no {attribute!r}") from None

    def __eq__(self, other: object) -> bool:
        return isinstance(other, Event) and (self.name, self.fields) == (other.name, other.fields)

    def __repr__(self) -> str:
        return f"Event({self.name!r}, {self.fields!r})"


def _camel(name: str) -> str:
    return re.sub(r"_([a-z])", lambda match: match.group(1).upper(), name)
