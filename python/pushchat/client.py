"""Client: one user's connection through the pushchat C interface."""

import asyncio
import atexit
import collections
import ctypes
import itertools
import json
import threading
import time
import weakref
from typing import Any, Deque, Dict, Iterator, List, Optional, Sequence, Union

from . import _native
from .errors import ClosedError, ConfigurationError, QueueFullError, RequestError
from .events import Event

Members = Union[str, Sequence[str]]

# A blocking receive waits in slices this long, so that signals
# (KeyboardInterrupt) reach Python between them.
_SLICE_MS = 500

_live: "weakref.WeakSet[Client]" = weakref.WeakSet()


@atexit.register
def _close_all() -> None:
    # The library's own event loop thread must end before the process does.
    for client in list(_live):
        client.close()


class Client:
    """One user's connection: requests as methods, events to iterate.

    Each operation sends one request and returns its id at once; the
    outcome arrives as an event: ``result`` (``event.result``) or ``error``
    (``event.error``), with ``event.request_id`` the id. ``result(id)``
    waits for it and raises :class:`RequestError` for an error. Everything
    the server sends arrives as events named after the library's callbacks
    (``onMessageReceive``, ``onConnected``, ``onRoomChanged``, ...).

    Iterate ``client.events()`` in one thread (blocking) or with
    ``async for`` in an asyncio loop; requests may come from any thread.
    As a context manager the client logs out and is closed on exit.

    No connection is made before :meth:`login`. Raises
    :class:`ConfigurationError` for a configuration the library refuses.
    """

    def __init__(self, user: str, *, domain: Optional[str] = None, level: int = 0, device: str = "",
                 device_name: str = "", brokers: Sequence[str] = ("127.0.0.1:1883",),
                 tls: Union[bool, Dict[str, Any], None] = None, username: Optional[str] = None,
                 password: Optional[str] = None, max_qos: Optional[int] = None,
                 server_jid: Optional[str] = None, history_base: Optional[str] = None,
                 history_deadline_ms: Optional[int] = None, store: Optional[str] = None,
                 store_sync: Optional[bool] = None, queue_size: Optional[int] = None,
                 max_pending_messages: Optional[int] = None, max_pending_bytes: Optional[int] = None) -> None:
        config = {"user": user, "domain": domain, "level": level, "device": device, "device_name": device_name,
                  "brokers": list(brokers), "tls": tls, "username": username, "password": password,
                  "max_qos": max_qos, "server_jid": server_jid, "history_base": history_base,
                  "history_deadline_ms": history_deadline_ms, "store": store, "store_sync": store_sync,
                  "queue_size": queue_size, "max_pending_messages": max_pending_messages,
                  "max_pending_bytes": max_pending_bytes}
        self._lib = _native.library()
        error = ctypes.create_string_buffer(1024)
        text = json.dumps({k: v for k, v in config.items() if v is not None}).encode()
        self._handle = self._lib.pushchat_client_new(text, error, len(error))
        if not self._handle:
            raise ConfigurationError(error.value.decode(errors="replace"))
        self.level = level
        self._ids = itertools.count(1)
        self._state = threading.Condition()
        self._inside = 0  # calls into the library under way
        self._closed = False
        self._pending: Deque[Event] = collections.deque()  # met while waiting for a result
        _live.add(self)

    # --- life -------------------------------------------------------------

    def close(self) -> None:
        """Logs out in order, wakes every receive waiting and releases the
        client. Idempotent; any thread."""
        with self._state:
            if self._closed:
                return
            self._closed = True
        self._lib.pushchat_client_close(self._handle)
        with self._state:
            self._state.wait_for(lambda: self._inside == 0)
        self._lib.pushchat_client_free(self._handle)
        self._handle = None

    @property
    def closed(self) -> bool:
        """The client was closed."""
        return self._closed

    def __enter__(self) -> "Client":
        return self

    def __exit__(self, *exc_info: Any) -> None:
        self.close()

    def _enter(self) -> Optional[int]:
        with self._state:
            if self._closed:
                return None
            self._inside += 1
            return self._handle

    def _leave(self) -> None:
        with self._state:
            self._inside -= 1
            self._state.notify_all()

    # --- requests and events -----------------------------------------------

    def request(self, op: str, **arguments: Any) -> int:
        """Sends the request ``op`` with ``arguments`` (None ones left out);
        its id. Raises on a refusal: :class:`RequestError` (malformed: the
        error event names the fault), :class:`QueueFullError`, :class:`ClosedError`."""
        request_id = next(self._ids)
        fields = {"op": op, "id": request_id}
        fields.update((key, value) for key, value in arguments.items() if value is not None)
        self.send_raw(json.dumps(fields))
        return request_id

    def send_raw(self, request: Union[str, bytes]) -> None:
        """Sends a request's JSON text as it is."""
        text = request.encode() if isinstance(request, str) else request
        handle = self._enter()
        if handle is None:
            raise ClosedError("the client is closed")
        try:
            status = self._lib.pushchat_send(handle, text)
        finally:
            self._leave()
        if status == -1:
            raise RequestError("malformed request (the error event names the fault): " + text[:200].decode(errors="replace"))
        if status == -2:
            raise ClosedError("the client is closed")
        if status == -3:
            raise QueueFullError("the event queue is full")

    def receive(self, timeout: Optional[float] = None) -> Optional[Event]:
        """The next event, waiting at most ``timeout`` seconds (None: until
        one comes or the client is closed); None if none came."""
        if self._pending:
            return self._pending.popleft()
        return self._receive(timeout)

    def _receive(self, timeout: Optional[float]) -> Optional[Event]:
        deadline = None if timeout is None else time.monotonic() + timeout
        while True:
            left = _SLICE_MS if deadline is None else max(0, min(_SLICE_MS, int((deadline - time.monotonic()) * 1000)))
            handle = self._enter()
            if handle is None:
                return None
            try:
                text = self._lib.pushchat_receive(handle, left)
            finally:
                self._leave()
            if text is not None:
                return Event.from_json(text)
            if self._closed or (deadline is not None and time.monotonic() >= deadline):
                return None

    def result(self, request_id: int, timeout: float = 10.0) -> Any:
        """Waits for the outcome of request ``request_id``: its result, or
        :class:`RequestError` with the error's text; TimeoutError if none
        came within ``timeout`` seconds. Other events met meanwhile are kept,
        in order, for the next receive."""
        deadline = time.monotonic() + timeout
        for event in list(self._pending):
            if event.name in ("result", "error") and event.request_id == request_id:
                self._pending.remove(event)
                return _outcome(event)
        while True:
            event = self._receive(max(0.0, deadline - time.monotonic()))
            if event is None:
                raise TimeoutError(f"no result for request {request_id} within {timeout} s")
            if event.name in ("result", "error") and event.request_id == request_id:
                return _outcome(event)
            self._pending.append(event)

    def wait_for(self, name: str, timeout: float = 10.0, **fields: Any) -> Event:
        """The next event called ``name`` whose fields hold ``fields``;
        others met meanwhile are kept for the next receive. TimeoutError if
        none came in time."""
        deadline = time.monotonic() + timeout
        for event in list(self._pending):
            if event.name == name and all(event.get(k) == v for k, v in fields.items()):
                self._pending.remove(event)
                return event
        while True:
            event = self._receive(max(0.0, deadline - time.monotonic()))
            if event is None:
                raise TimeoutError(f"no {name} within {timeout} s")
            if event.name == name and all(event.get(k) == v for k, v in fields.items()):
                return event
            self._pending.append(event)

    def events(self, timeout: Optional[float] = None) -> "EventStream":
        """The events as they come: ``for event in client.events()`` blocks,
        ``async for event in client.events()`` waits in the running asyncio
        loop. Either ends when the client is closed, the blocking one also
        after ``timeout`` seconds without an event."""
        return EventStream(self, timeout)

    def __iter__(self) -> Iterator[Event]:
        return iter(self.events())

    def fileno(self) -> int:
        """A descriptor readable while an event waits (for select, poll)."""
        handle = self._enter()
        if handle is None:
            raise ClosedError("the client is closed")
        try:
            return self._lib.pushchat_event_fd(handle)
        finally:
            self._leave()

    @staticmethod
    def version() -> str:
        """The library's version."""
        return _native.library().pushchat_version().decode()

    # --- operations ----------------------------------------------------------

    def login(self) -> int:
        """Connects and logs in; ``onConnected`` follows (``onDisconnected``
        with ``error`` and ``errorText`` if it fails)."""
        return self.request("login")

    def logout(self) -> int:
        """Logs out in order (presence, unsubscriptions, connection closed)."""
        return self.request("logout")

    def send_message(self, to: str, text: str, *, level: Optional[int] = None, room: bool = False,
                     key: Optional[str] = None, stamp: Optional[str] = None, body_type: Optional[int] = None) -> int:
        """Sends a chat message to ``to`` (a room's JID with ``room``) at
        ``level`` (the user's by default); the result's ``key`` is the
        message key (a fresh one unless given)."""
        return self.request("chat", to=to, text=text, level=level, room=room, key=key, stamp=stamp,
                            body_type=body_type)

    def send_notice(self, to: str, text: str, *, key: Optional[str] = None, stamp: Optional[str] = None) -> int:
        """Sends a notice, readable by every user."""
        return self.request("notice", to=to, text=text, key=key, stamp=stamp)

    def send_location(self, target: str, first: str, second: str) -> int:
        """Publishes "first:second" on the location topic of ``target``."""
        return self.request("location", target=target, first=first, second=second)

    def set_message_status(self, uuid: str, status: int) -> int:
        """Asks the server to set the status of message ``uuid``."""
        return self.request("status", uuid=uuid, status=status)

    def create_room(self, room: str, name: str, members: Members, *, type: int = 0) -> int:
        """Asks for a new room ``room`` named ``name`` with ``members``."""
        return self.request("room_create", room=room, name=name, members=_names(members), type=type)

    def invite_to_room(self, room: str, members: Members) -> int:
        """Asks to add ``members`` to ``room``."""
        return self.request("room_invite", room=room, members=_names(members))

    def kick_from_room(self, room: str, members: Members) -> int:
        """Asks to remove ``members`` from ``room``."""
        return self.request("room_kick", room=room, members=_names(members))

    def rename_room(self, room: str, name: str) -> int:
        """Asks to rename ``room``."""
        return self.request("room_rename", room=room, name=name)

    def set_room_owner(self, room: str, member: str) -> int:
        """Hands the creator role of ``room`` to ``member``."""
        return self.request("room_owner", room=room, member=member)

    def set_room_type(self, room: str, type: int) -> int:
        """Asks to change the kind of ``room``."""
        return self.request("room_type", room=room, type=type)

    def destroy_room(self, room: str) -> int:
        """Asks to close ``room``."""
        return self.request("room_destroy", room=room)

    def fetch_conversations(self, type: int, *, page: int = 0, page_size: int = 20) -> int:
        """Asks for a page of conversations; ``onConversations`` follows."""
        return self.request("conversations", type=type, page=page, page_size=page_size)

    def fetch_conversation(self, conv_id: str, *, page: int = 0, page_size: int = 20) -> int:
        """Asks for a page of a conversation; ``onConversationDetail`` follows."""
        return self.request("conversation", conv_id=conv_id, page=page, page_size=page_size)

    def pull_history(self, pull_type: int, count: int, *, start: int = 0, uuid: str = "") -> int:
        """A history pull over the broker; ``onHistoryMessages`` follows."""
        return self.request("history_pull", pull_type=pull_type, start=start, count=count, uuid=uuid)

    def sync_history(self, uuid: str = "") -> int:
        """The messages after ``uuid``, over the broker; ``onHistoryMessages`` follows."""
        return self.request("history_sync", uuid=uuid)

    def pull_history_http(self, type: int, count: int, uuid: str = "") -> int:
        """A history pull over HTTP, on the client's own thread;
        ``onHistoryMessages`` then the result (``reason`` when it failed)."""
        return self.request("http_history_pull", type=type, count=count, uuid=uuid)

    def sync_history_http(self, uuid: str = "") -> int:
        """The messages after ``uuid`` over HTTP, like :meth:`pull_history_http`."""
        return self.request("http_history_sync", uuid=uuid)

    def add_friend(self, jid: str, text: str = "") -> int:
        """Asks ``jid`` to become a friend."""
        return self.request("friend_add", jid=jid, text=text)

    def accept_friend(self, jid: str, text: str = "") -> int:
        """Accepts the friend request of ``jid``."""
        return self.request("friend_accept", jid=jid, text=text)

    def delete_friend(self, jid: str) -> int:
        """Ends the friendship with ``jid``."""
        return self.request("friend_delete", jid=jid)

    def set_friend_properties(self, jid: str, text: str) -> int:
        """Asks the server to keep ``text`` for friend ``jid``."""
        return self.request("friend_properties", jid=jid, text=text)

    def list_friends(self, *, type: int = 1, count: int = 20, cursor: str = "") -> int:
        """Asks for a page of the friend list; ``onFriendList`` follows."""
        return self.request("friend_list", type=type, count=count, cursor=cursor)

    def remote_desktop(self, kind: str, jid: str, text: str = "") -> int:
        """Remote-desktop signalling with ``jid``: ``kind`` is "control",
        "be_control", "control_reply" or "be_control_reply"."""
        return self.request("rdp_" + kind, jid=jid, text=text)

    def connection_error(self) -> int:
        """Asks why the connection last failed: the result is the error
        number, with ``errorText`` and the dropped-input counts."""
        return self.request("connection")

    def stored_conversations(self) -> int:
        """The message store's conversations (the result is a list)."""
        return self.request("store_conversations")

    def stored_messages(self, peer: str, *, before: Optional[str] = None, limit: int = 50) -> int:
        """Stored messages of the conversation with ``peer`` (the result is a list)."""
        return self.request("store_messages", peer=peer, before=before, limit=limit)

    def search_stored(self, text: str, *, peer: Optional[str] = None, limit: int = 50) -> int:
        """Stored messages holding every word of ``text`` (the result is a list)."""
        return self.request("store_search", text=text, peer=peer, limit=limit)

    def mark_read(self, peer: str, *, tell_peer: bool = False) -> int:
        """Marks the conversation with ``peer`` read in the store."""
        return self.request("store_mark_read", peer=peer, tell_peer=tell_peer)


class EventStream:
    """The events of a client, blocking or asynchronous (see Client.events)."""

    def __init__(self, client: Client, timeout: Optional[float]) -> None:
        self._client = client
        self._timeout = timeout

    def __iter__(self) -> "EventStream":
        return self

    def __next__(self) -> Event:
        event = self._client.receive(self._timeout)
        if event is None:
            raise StopIteration
        return event

    def __aiter__(self) -> "EventStream":
        return self

    async def __anext__(self) -> Event:
        loop = asyncio.get_running_loop()
        while True:
            event = self._client.receive(0)
            if event is not None:
                return event
            if self._client.closed:
                raise StopAsyncIteration
            ready = loop.create_future()
            fd = self._client.fileno()
            loop.add_reader(fd, lambda: ready.done() or ready.set_result(None))
            try:
                await ready
            finally:
                loop.remove_reader(fd)


def _outcome(event: Event) -> Any:
    if event.name == "error":
        raise RequestError(event.error)
    return event.result


def _names(members: Members) -> List[str]:
    return [members] if isinstance(members, str) else list(members)
