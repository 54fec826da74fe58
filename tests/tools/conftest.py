"""What the tests of the tools share: a broker to talk to and a way to run the built programs."""

from __future__ import annotations

import json
import os
import pty
import re
import select
import signal
import socket
import subprocess
import threading
import time
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import IO

import pytest

BIN = Path(os.environ["VESK_BIN"])
EMULATOR = os.environ.get("VESK_EMULATOR", "").split()
LIMIT_S = 60  # no run of a tool takes longer
PUBACK = re.compile(rb"\x40[\x02\x03]\0")  # the broker's answer to a publication whose number is below 256
MORTAL = ["setpriv", "--pdeathsig", "KILL"]  # what stays in the background ends with the tests, however they end


def command(tool: str, *arguments: object) -> list[str]:
    return [*EMULATOR, str(BIN / tool), *map(str, arguments)]


def environment(**more: str) -> dict[str, str]:
    """The caller's, without what would change what the tools print or where they connect to."""
    kept = {name: value for name, value in os.environ.items() if name not in ("VESK_BUS", "NO_COLOR")}
    return kept | {"TERM": "xterm"} | more


def run(tool: str, *arguments: object, **more: str) -> subprocess.CompletedProcess[str]:
    return subprocess.run(command(tool, *arguments), env=environment(**more), capture_output=True, text=True,
                          timeout=LIMIT_S, stdin=subprocess.DEVNULL)


def until(condition: Callable[[], object], what: str, limit_s: float = 20) -> None:
    deadline = time.monotonic() + limit_s
    while not condition():
        assert time.monotonic() < deadline, f"not within {limit_s} s: {what}"
        time.sleep(0.01)


def read_line(stream: IO[bytes] | None, limit_s: float = 20) -> str:
    """The next line of a pipe, read byte by byte: nothing may wait in a buffer that a deadline cannot see."""
    assert stream is not None
    line = b""
    deadline = time.monotonic() + limit_s
    while not line.endswith(b"\n"):
        assert select.select([stream], [], [], max(0, deadline - time.monotonic()))[0], f"only {line!r} came"
        byte = os.read(stream.fileno(), 1)
        assert byte, f"only {line!r} came before the end"
        line += byte
    return line.decode()


class Broker:
    """A real broker on a Unix socket of its own."""

    def __init__(self, folder: Path, more: str = "", files: dict[str, str] | None = None) -> None:
        """more: further lines of its configuration, in which {folder} is where the files lie."""
        for name, text in (files or {}).items():
            (folder / name).write_text(text)
        self.socket = folder / "sock"
        self.address = f"unix:{self.socket}"
        configuration = folder / "conf"
        configuration.write_text(f"allow_anonymous true\nuser root\nlistener 0 {self.socket}\n"
                                 + more.format(folder=folder))
        with (folder / "log").open("w") as log:
            self.process = subprocess.Popen([*MORTAL, "/usr/sbin/mosquitto", "-c", configuration], stdout=log, stderr=log)
        until(self._takes_connections, "the broker takes connections")

    def _takes_connections(self) -> bool:
        assert self.process.poll() is None, "the broker did not start"
        with socket.socket(socket.AF_UNIX) as probe:
            return probe.connect_ex(str(self.socket)) == 0

    def freeze(self) -> None:
        self.process.send_signal(signal.SIGSTOP)
        os.waitid(os.P_PID, self.process.pid, os.WSTOPPED | os.WNOWAIT)

    def end(self) -> None:
        self.process.kill()
        self.process.wait()

    def publish(self, topic: str, payload: bytes | str, keep: bool = False) -> None:
        data = payload.encode() if isinstance(payload, str) else payload
        subprocess.run(["mosquitto_pub", "--unix", self.socket, "-q", "1", "-t", topic, "-s" if data else "-n",
                        *(["-r"] if keep else [])], input=data, check=True, timeout=LIMIT_S)


class Relay:
    """A service in front of the broker's that fails one client at one request.

    text: part of the request. then: "lost" ends the session in the request's place, "lost after the answer" once the
    broker has acknowledged it, "silent" keeps the session and says no more.
    """

    def __init__(self, broker: Broker, folder: Path, text: bytes, then: str) -> None:
        self._broker = broker
        self._text = text
        self._then = then
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.bind(str(folder / "relay"))
        self._socket.listen()
        self.address = f"unix:{folder / 'relay'}"
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def _serve(self) -> None:
        while True:
            try:
                client, _ = self._socket.accept()  # a client may begin with a connection that only looks whether it can
            except OSError:
                return
            with client, socket.socket(socket.AF_UNIX) as broker:
                broker.connect(str(self._broker.socket))
                self._pass_on(client, broker)

    def _pass_on(self, client: socket.socket, broker: socket.socket) -> None:
        asked = False
        while ready := select.select([client, broker], [], [], LIMIT_S)[0]:
            data = ready[0].recv(65536)
            if not data:
                return
            if ready[0] is broker:
                client.sendall(data)
                if asked and PUBACK.search(data):
                    # A close would reset the connection and may overtake the answer.
                    client.shutdown(socket.SHUT_WR)
                    while client.recv(65536):
                        pass
                    return
                continue
            asked = asked or self._text in data
            if asked and self._then == "lost":
                return
            if not asked or self._then != "silent":
                broker.sendall(data)

    def end(self) -> None:
        self._socket.shutdown(socket.SHUT_RDWR)
        self._thread.join(10)
        self._socket.close()


class Listener:
    """Notes every message of the broker, as a plain client sees it."""

    def __init__(self, broker: Broker, topic: str) -> None:
        self._broker = broker
        self._lines: list[str] = []
        self._client = subprocess.Popen(
            [*MORTAL, "mosquitto_sub", "--unix", broker.socket, "-q", "1", "-F", "%r %t %p", "-t", topic, "-t", "test/end"],
            stdout=subprocess.PIPE)
        broker.publish("test/end", "ready", keep=True)  # subscribed once this one arrives, kept or not
        while not (line := read_line(self._client.stdout)).endswith("test/end ready\n"):
            self._lines.append(line.rstrip("\n"))

    def messages(self) -> list[str]:
        """All so far, each as "<kept 0 or 1> <topic> <payload>"."""
        self._broker.publish("test/end", "last")
        while (line := read_line(self._client.stdout).rstrip("\n")) and not line.endswith("test/end last"):
            if " test/end " not in line:
                self._lines.append(line)
        return self._lines

    def end(self) -> None:
        self._client.kill()
        self._client.wait()
        assert self._client.stdout is not None
        self._client.stdout.close()


@pytest.fixture
def broker(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Broker]:
    it = Broker(tmp_path_factory.mktemp("broker"))
    yield it
    it.end()


@pytest.fixture
def relay(broker: Broker, tmp_path_factory: pytest.TempPathFactory) -> Iterator[Callable[[bytes, str], Relay]]:
    """Puts a failing service before the broker, with Relay's arguments behind the folder."""
    made: list[Relay] = []

    def make(text: bytes, then: str) -> Relay:
        made.append(Relay(broker, tmp_path_factory.mktemp("relay"), text, then))
        return made[-1]
    yield make
    for it in made:
        it.end()


@pytest.fixture
def card(tmp_path: Path) -> Path:
    """A recordings folder."""
    folder = tmp_path / "ZOLTA_RECORD_VIDEO"
    folder.mkdir()
    return folder


def files(folder: Path) -> list[str]:
    return sorted(str(path.relative_to(folder)) for path in folder.rglob("*") if path.is_file())


def make_list(folder: Path, *announcements: str) -> None:
    subprocess.run(command("make_list", folder, *announcements), check=True, timeout=LIMIT_S)


def objects(text: str) -> list[dict]:
    return [json.loads(line) for line in text.splitlines()]


def on_terminal(broker: Broker, *arguments: str, **more: str) -> str:
    """What a person sees: standard output is a terminal."""
    master, slave = pty.openpty()
    running = subprocess.Popen(command("veskctl", "--bus", broker.address, *arguments), env=environment(**more),
                               stdout=slave, stdin=subprocess.DEVNULL)
    os.close(slave)
    seen = b""
    try:
        while part := os.read(master, 4096):
            seen += part
    except OSError:  # EIO: the other end is closed
        pass
    os.close(master)
    assert running.wait(timeout=20) == 0
    return seen.decode()


class StandIn:
    """Answers on the bus as the daemon does, from a script of the test's own.

    `jobs` maps a request ("spec_sdcard_format", "spec_sdcard_unmount") to what is published for it, in order: a number is
    a state, "end" the answer, a float a pause in seconds, a function is called. `actions` maps an action to the answer,
    a number being a code; None: no answer.
    """

    def __init__(self, broker: Broker, jobs: dict[str, list] | None = None, actions: dict[str, object] | None = None,
                 state: int = 0) -> None:
        self._broker = broker
        self._jobs = jobs or {}
        self._actions = actions or {}
        self.asked: list[tuple[str, str]] = []
        broker.publish("karvel/mem/default/sdcard_status", str(state), keep=True)
        broker.publish("vesk/vesk_sdcard/status", "online", keep=True)
        topics = ["karvel/mem/default/spec_sdcard_format", "karvel/mem/default/spec_sdcard_unmount",
                  "vesk/vesk_sdcard/action/+", "test/begin"]
        self._client = subprocess.Popen(
            [*MORTAL, "mosquitto_sub", "--unix", broker.socket, "-V", "5", "-q", "1", "-F", "%t %R %D %p",
             *(word for topic in topics for word in ("-t", topic))], stdout=subprocess.PIPE)
        broker.publish("test/begin", "", keep=False)
        # Subscribed once a message that is published again and again has come.
        deadline = time.monotonic() + 20
        while not select.select([self._client.stdout], [], [], 0.05)[0]:
            assert time.monotonic() < deadline, "the stand-in did not start"
            broker.publish("test/begin", "x")
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def _serve(self) -> None:
        assert self._client.stdout is not None
        for line in self._client.stdout:
            topic, response, correlation, payload = line.decode().rstrip("\n").split(" ", 3)
            name = topic.rsplit("/", 1)[1]
            if topic.startswith("vesk/"):
                self.asked.append((name, payload))
                self._answer(name, response, correlation)
            elif payload.startswith("start"):
                self.asked.append((name, payload))
                for item in self._jobs.get(name, []):
                    self._play(topic, item)

    def _play(self, topic: str, item: object) -> None:
        if isinstance(item, float):
            time.sleep(item)
        elif isinstance(item, int):
            self._broker.publish("karvel/mem/default/sdcard_status", str(item), keep=True)
        elif item == "end":
            self._broker.publish(topic, f"end{int(time.time())}", keep=True)
        else:
            assert callable(item)
            item()

    def _answer(self, name: str, response: str, correlation: str) -> None:
        answer = self._actions.get(name, -38)
        if answer is None:
            return
        text = json.dumps({"code": answer}) if isinstance(answer, int) else answer
        subprocess.run(["mosquitto_pub", "--unix", self._broker.socket, "-V", "5", "-q", "1", "-t", response, "-D", "publish",
                        "correlation-data", correlation, "-m", text], check=True, timeout=LIMIT_S)

    def end(self) -> None:
        self._client.kill()
        self._client.wait()
        self._thread.join(10)
        assert self._client.stdout is not None
        self._client.stdout.close()


@pytest.fixture
def daemon(broker: Broker) -> Iterator[Callable[..., StandIn]]:
    """Makes stand-ins for the daemon, with StandIn's arguments behind the broker."""
    made: list[StandIn] = []

    def make(**script: object) -> StandIn:
        made.append(StandIn(broker, **script))  # type: ignore[arg-type]
        return made[-1]
    yield make
    for it in made:
        it.end()
