#!/usr/bin/env python3
"""Figures of the Python package, beside the C++ ones of the same run.

    PUSHCHAT_LIBRARY=build/src/libpushchat.so.0 python3 bench/bench_python.py build [--quick]

In one run, through one private mosquitto on loopback:
  events into Python   the results of vcard requests (no network) taken as
                       Event objects, events per second; and 20 000 chat
                       messages from one Python client to another, sent
                       as fast as the sender's queue allows: received per
                       second;
  echo round trip      alice sends, bob's thread answers, alice's receive
                       returns the answer: median of 500, in Python;
then build/bench/bench_capi (its own broker) for the same round trip in C++
with the façade and through the C interface, and the C interface's events
per second without Python.
"""

import statistics
import subprocess
import sys
import tempfile
import threading
import time
from pathlib import Path

root = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(root / "python"))
sys.path.insert(0, str(root / "tests" / "python"))

import pushchat  # noqa: E402
from conftest import start_broker  # noqa: E402


def client(port: int, user: str, **config) -> pushchat.Client:
    made = pushchat.Client(user, domain="im", device=f"bench-py-{user}", brokers=[f"127.0.0.1:{port}"], **config)
    made.login()
    made.wait_for("onConnected")
    return made


def local_events(count: int) -> float:
    with pushchat.Client("events", device="bench-py-events") as c:
        started = time.perf_counter()
        for _ in range(count // 1000):
            for _ in range(1000):
                c.request("vcard", text="v")
            for _ in range(1000):
                c.receive(1)
        return count / (time.perf_counter() - started)


def chat_flood(port: int, count: int) -> float:
    with client(port, "flood-a", max_pending_messages=100000) as a, client(port, "flood-b") as b:
        def send():
            for i in range(count):
                while True:
                    try:
                        a.send_message("flood-b", str(i))
                        break
                    except pushchat.QueueFullError:
                        while a.receive(0):
                            pass
        sender = threading.Thread(target=send)
        started = time.perf_counter()
        sender.start()
        got = 0
        while got < count:
            event = b.receive(10)
            if event is None:
                raise RuntimeError(f"only {got} of {count} arrived")
            got += event.name == "onMessageReceive"
        elapsed = time.perf_counter() - started
        sender.join()
        return count / elapsed


def round_trip(port: int, count: int) -> float:
    with client(port, "rt-a") as a, client(port, "rt-b") as b:
        def echo():
            for event in b.events():
                if event.name == "onMessageReceive":
                    b.send_message(event.from_, event.body)
        threading.Thread(target=echo, daemon=True).start()
        times = []
        for i in range(count):
            started = time.perf_counter()
            a.send_message("rt-b", str(i))
            a.wait_for("onMessageReceive", body=str(i))
            times.append(time.perf_counter() - started)
        return statistics.median(times) * 1e6


def main() -> int:
    build = Path(sys.argv[1] if len(sys.argv) > 1 else root / "build")
    quick = "--quick" in sys.argv
    with tempfile.TemporaryDirectory(prefix="pushchat-bench-") as work:
        broker, port = start_broker(Path(work))
        try:
            print(f"events into Python, local (vcard results): {local_events(10000 if quick else 100000):,.0f} events/s")
            print(f"chat into Python through mosquitto: {chat_flood(port, 1000 if quick else 20000):,.0f} msg/s")
            print(f"echo round trip, Python: {round_trip(port, 50 if quick else 500):,.0f} us (median)")
        finally:
            broker.stop()
    subprocess.run([str(build / "bench" / "bench_capi")] + (["--benchmark_min_time=0.01"] if quick else []),
                   check=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
