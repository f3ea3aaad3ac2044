"""The Python package over the C interface, against a real mosquitto and
the development server (conftest.py)."""

import asyncio
import ctypes
import json
import os
import subprocess
import threading
import time

import pytest

import pushchat
from conftest import DOMAIN, cli, wait_until


def jid(user: str) -> str:
    return f"{user}@{DOMAIN}"


def test_chat_both_ways_with_the_command_line_client(connect, broker, workdir):
    alice = connect("alice")
    lines = workdir / "bob.jsonl"
    with open(lines, "w") as out:
        listener = subprocess.Popen([os.environ["PUSHCHAT_CLI"], "--port", str(broker), "--domain", DOMAIN,
                                     "--user", "bob", "--device", "cli-bob", "listen"], stdout=out,
                                    stderr=subprocess.DEVNULL)
    try:
        wait_until(lambda: '"onConnected"' in lines.read_text(), what="bob's listen")
        request = alice.send_message("bob", "from python ✓", level=5)
        assert alice.result(request) == 1
        heard = wait_until(lambda: [e for e in map(json.loads, lines.read_text().splitlines())
                                    if e.get("event") == "onMessageReceive"], what="bob's message")
        assert (heard[0]["from"], heard[0]["body"]) == (jid("alice"), "from python ✓")
    finally:
        listener.terminate()
        listener.wait()
    assert cli(broker, "bob", "send", "alice", "from the cli").returncode == 0
    event = alice.wait_for("onMessageReceive")
    assert (event.from_, event.to, event.body, event.readable) == (jid("bob"), jid("alice"), "from the cli", True)


def test_rooms_and_history(connect):
    alice, carol = connect("alice2"), connect("carol")
    assert alice.result(alice.create_room("py-room", "Python room", ["carol"])) == 1
    for client in (alice, carol):
        changed = client.wait_for("onRoomChanged", cmd=10)
        assert changed.room["name"] == "Python room"
        members = [member for entry in changed.room["members"] for member in entry.values()]
        assert sorted(m["jid"] for m in members) == [jid("alice2"), jid("carol")]
    room = "py-room@" + DOMAIN
    assert alice.result(alice.send_message(room, "hello room", room=True)) == 1
    heard = carol.wait_for("onMessageReceive", body="hello room")
    assert (heard.from_, heard.to) == (jid("alice2"), room)
    # History from the development server: over the broker and over HTTP.
    carol.fetch_conversations(4)
    answer = json.loads(carol.wait_for("onConversations").json)
    assert [c["conv_id"] for c in answer["conversations"]] == [room]
    request = carol.sync_history_http()
    synced = json.loads(carol.wait_for("onHistoryMessages").json)
    assert "hello room" in [m["body"] for m in synced["messages"]]
    assert carol.result(request) == 1


def test_many_threads_send_while_one_receives(connect):
    sender, receiver = connect("dave", max_pending_messages=100000), connect("erin", queue_size=64)
    threads, each = 8, 150
    accepted = []

    def send(t):
        for i in range(each):
            accepted.append(sender.send_message("erin", f"{t}:{i}"))

    workers = [threading.Thread(target=send, args=(t,)) for t in range(threads)]
    for w in workers:
        w.start()
    bodies = set()
    deadline = time.monotonic() + 60
    while len(bodies) < threads * each and time.monotonic() < deadline:
        event = receiver.receive(1.0)
        if event is not None and event.name == "onMessageReceive":
            assert event.body not in bodies, "delivered twice"
            bodies.add(event.body)
    for w in workers:
        w.join()
    assert len(accepted) == threads * each
    assert bodies == {f"{t}:{i}" for t in range(threads) for i in range(each)}
    assert all(sender.result(r) == 1 for r in accepted)


def test_free_wakes_a_waiting_receive(broker):
    lib = pushchat._native.library()
    config = {"user": "frank", "domain": DOMAIN, "device": "py-frank", "brokers": [f"127.0.0.1:{broker}"]}
    handle = lib.pushchat_client_new(json.dumps(config).encode(), None, 0)
    lib.pushchat_send(handle, b'{"op":"login"}')
    wait_until(lambda: b"onConnected" in lib.pushchat_receive(handle, 100), what="frank's login")
    returned = []
    waiter = threading.Thread(target=lambda: returned.append(lib.pushchat_receive(handle, -1)))
    waiter.start()
    time.sleep(0.3)
    assert waiter.is_alive()
    started = time.monotonic()
    lib.pushchat_client_free(handle)
    waiter.join(5)
    assert not waiter.is_alive() and returned == [None]
    assert time.monotonic() - started < 3
    # The same through Python: closing ends a blocking iteration.
    client = pushchat.Client("frank", device="py-frank")
    ended = threading.Event()
    threading.Thread(target=lambda: (list(client.events()), ended.set())).start()
    time.sleep(0.3)
    client.close()
    assert ended.wait(5)
    with pytest.raises(pushchat.ClosedError):
        client.login()


@pytest.mark.parametrize("request_text, error", [
    ('{"op":"chat",', 'request not JSON: '),
    ('[1,2]', 'request not a JSON object'),
    ('{"id":7}', 'request: "op" is missing'),
    ('{"id":7,"op":"teleport"}', 'unknown operation "teleport"'),
    ('{"id":7,"op":"chat","to":5,"text":"x"}', 'chat: "to" must be a string'),
    ('{"id":7,"op":"chat","text":"x"}', 'chat: "to" is missing'),
    ('{"id":7,"op":"conversations","type":1.5}', 'conversations: "type" must be an integer'),
    ('{"id":7,"op":"room_invite","room":"r","members":["a",2]}',
     'room_invite: "members" must be a string or an array of strings'),
    ('{"id":7,"op":"friend_add","jid":"x","txt":"hi"}', 'friend_add: unknown field "txt"'),
    ('{"id":{},"op":"logout"}', 'request: "id" must be a string or a number'),
])
def test_malformed_requests_give_their_error_event(request_text, error):
    with pushchat.Client("grace", device="py-grace") as client:
        with pytest.raises(pushchat.RequestError):
            client.send_raw(request_text)
        event = client.receive(5)
        assert event.name == "error" and event.error.startswith(error), event
        assert event.request_id == (7 if '"id":7' in request_text else None)
        assert client.receive(0) is None


@pytest.mark.parametrize("config, error", [
    ({}, 'configuration: "user" is missing'),
    ({"user": "h", "brokers": ["localhost"]}, 'configuration: broker "localhost" is not host:port'),
    ({"user": "h", "level": "5"}, 'configuration: "level" must be an integer'),
    ({"user": "h", "tls": {"ca": "x"}}, 'configuration: tls: unknown field "ca"'),
    ({"user": "h", "queue_size": 0}, 'configuration: "queue_size" must be 1 or more'),
])
def test_unusable_configurations_are_refused(config, error):
    lib = pushchat._native.library()
    buffer = ctypes.create_string_buffer(200)
    assert not lib.pushchat_client_new(json.dumps(config).encode(), buffer, len(buffer))
    assert buffer.value.decode() == error


def test_asyncio_iterator_under_a_flood(connect):
    sender, receiver = connect("heidi", max_pending_messages=100000), connect("ivan", queue_size=32)
    count = 3000

    async def collect():
        bodies = []
        async for event in receiver.events():
            if event.name == "onMessageReceive":
                bodies.append(event.body)
                if len(bodies) == count:
                    return bodies

    def flood():
        for i in range(count):
            while True:
                try:
                    sender.send_message("ivan", str(i))
                    break
                except pushchat.QueueFullError:  # the sender's results wait too
                    while sender.receive(0) is not None:
                        pass

    threading.Thread(target=flood).start()
    bodies = asyncio.run(asyncio.wait_for(collect(), 90))
    assert bodies == [str(i) for i in range(count)]
