"""The Python tests' real parts: one mosquitto on a free loopback port and
the development server on it, for the whole session, stopped by PID.

The build's files come from the environment (tests/python/CMakeLists.txt
sets them): PUSHCHAT_LIBRARY (the shared library), PUSHCHAT_CLI and
PUSHCHAT_DEVSERVER.
"""

import json
import os
import signal
import socket
import subprocess
import sys
import tempfile
import time
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "python"))

import pushchat  # noqa: E402

DOMAIN = "im.test"


def free_port() -> int:
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_until(check, seconds: float = 10.0, what: str = "condition"):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        value = check()
        if value:
            return value
        time.sleep(0.05)
    raise TimeoutError(f"{what} not within {seconds} s")


class Process:
    """A child process stopped by its PID (SIGTERM, then wait)."""

    def __init__(self, args, **kwargs):
        self.popen = subprocess.Popen(args, **kwargs)

    def stop(self):
        if self.popen.poll() is None:
            os.kill(self.popen.pid, signal.SIGTERM)
            try:
                self.popen.wait(10)
            except subprocess.TimeoutExpired:
                os.kill(self.popen.pid, signal.SIGKILL)
                self.popen.wait()


@pytest.fixture(scope="session")
def workdir():
    with tempfile.TemporaryDirectory(prefix="pushchat-python-") as path:
        os.environ["XDG_CONFIG_HOME"] = path  # the command-line client's device ids
        yield Path(path)


def start_broker(workdir: Path):
    """A mosquitto on a free loopback port: (its Process, the port)."""
    port = free_port()
    config = workdir / "mosquitto.conf"
    config.write_text(f"listener {port} 127.0.0.1\nallow_anonymous true\nset_tcp_nodelay true\n"
                      "max_queued_messages 100000\nmax_inflight_messages 0\n"
                      + ("user root\n" if os.getuid() == 0 else ""))
    with open(workdir / "mosquitto.log", "w") as log:
        process = Process(["mosquitto", "-c", str(config)], stdout=log, stderr=subprocess.STDOUT)

    def accepts():
        try:
            socket.create_connection(("127.0.0.1", port), 0.2).close()
            return True
        except OSError:
            return False

    wait_until(accepts, 5, "the broker")
    return process, port


@pytest.fixture(scope="session")
def broker(workdir):
    process, port = start_broker(workdir)
    yield port
    process.stop()


@pytest.fixture(scope="session")
def devserver(broker, workdir):
    lines = workdir / "server.jsonl"
    out = open(lines, "w")
    process = Process([os.environ["PUSHCHAT_DEVSERVER"], "--port", str(broker),
                       "--server-jid", f"server@{DOMAIN}", "--db", str(workdir / "server.db"), "--http-port", "0"],
                      stdout=out, stderr=subprocess.DEVNULL)

    def ready():
        for line in lines.read_text().splitlines():
            event = json.loads(line)
            if event.get("event") == "ready":
                return event["http_port"]
        return 0

    http_port = wait_until(ready, 10, "the development server")
    yield http_port
    process.stop()
    out.close()


@pytest.fixture
def connect(broker, devserver):
    """connect(user, **config): a logged-in Client, closed after the test."""
    made = []

    def make(user: str, **config) -> pushchat.Client:
        client = pushchat.Client(user, domain=DOMAIN, brokers=[f"127.0.0.1:{broker}"], device=f"py-{user}",
                                 history_base=f"http://127.0.0.1:{devserver}", **config)
        made.append(client)
        client.login()
        client.wait_for("onConnected")
        return client

    yield make
    for client in made:
        client.close()


def cli(broker: int, user: str, *args: str, timeout: int = 10) -> subprocess.CompletedProcess:
    """Runs the command-line client as `user`."""
    return subprocess.run([os.environ["PUSHCHAT_CLI"], "--port", str(broker), "--domain", DOMAIN, "--user", user,
                           "--device", f"cli-{user}", "--timeout", str(timeout), *args],
                          capture_output=True, text=True, timeout=timeout + 20)
