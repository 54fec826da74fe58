"""What the tests of the tools share: a broker to talk to and a way to run the built programs."""

from __future__ import annotations

import json
import os
import select
import signal
import socket
import subprocess
import time
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import IO

import pytest

BIN = Path(os.environ["VESK_BIN"])
EMULATOR = os.environ.get("VESK_EMULATOR", "").split()
LIMIT_S = 60  # no run of a tool takes longer
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

    def __init__(self, folder: Path) -> None:
        self.socket = folder / "sock"
        self.address = f"unix:{self.socket}"
        configuration = folder / "conf"
        configuration.write_text(f"allow_anonymous true\nuser root\nlistener 0 {self.socket}\n")
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


class Listener:
    """Notes every message of the broker, as a plain client sees it."""

    def __init__(self, broker: Broker, topic: str) -> None:
        self._broker = broker
        self._lines: list[str] = []
        self._client = subprocess.Popen(
            [*MORTAL, "mosquitto_sub", "--unix", broker.socket, "-q", "1", "-F", "%r %t %p", "-t", topic, "-t", "test/end"],
            stdout=subprocess.PIPE)
        broker.publish("test/end", "ready", keep=True)  # subscribed once this one arrives, kept or not
        assert read_line(self._client.stdout).endswith("test/end ready\n")

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
