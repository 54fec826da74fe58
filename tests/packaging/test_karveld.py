"""The broker with its shipped configuration: it loads, keeps keys over a kill, and tells the roles apart."""

from __future__ import annotations

import os
import pwd
import shutil
import socket
import stat
import subprocess
import tempfile
import time
from collections.abc import Iterator
from pathlib import Path

import pytest

PACKAGING = Path(__file__).resolve().parent.parent.parent / "packaging"
MOSQUITTO = "/usr/sbin/mosquitto"
ROLES = ("viewer", "operator", "admin")


def free_port() -> int:
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Karveld:
    def __init__(self, tcp: bool) -> None:
        # Not below pytest's folder, which the broker's own user may not enter.
        self.root = Path(tempfile.mkdtemp(prefix="karveld."))
        self.root.chmod(0o755)
        self.port = free_port()
        self.socket = self.root / "run/karveld.sock"
        (self.root / "run").mkdir()
        (self.root / "etc/conf.d").mkdir(parents=True)
        if os.getuid() == 0:
            os.chown(self.root / "run", pwd.getpwnam("nobody").pw_uid, -1)
        self.install("karveld.conf", "karveld.conf")
        self.install("karveld.acl", "karveld.acl")
        if tcp:
            self.install("karveld-tcp.conf", "conf.d/tcp.conf")
            for role in ROLES:
                create = [] if (self.root / "etc/passwords").exists() else ["-c"]
                passwords = str(self.root / "etc/passwords")
                subprocess.run(["mosquitto_passwd", *create, "-b", passwords, role, role], check=True, timeout=30)
            (self.root / "etc/passwords").chmod(0o644)
        self.process: subprocess.Popen[bytes] | None = None
        self.start()

    def install(self, name: str, to: str) -> None:
        """Only paths, the port and where the log goes differ from what ships."""
        text = (PACKAGING / name).read_text()
        for old, new in {
            "/run/karveld": str(self.root / "run"),
            "/etc/karveld": str(self.root / "etc"),
            "log_dest syslog": "log_dest stderr",
            "listener 1883\n": f"listener {self.port} 127.0.0.1\n",
        }.items():
            text = text.replace(old, new)
        (self.root / "etc" / to).write_text(text)

    def start(self) -> None:
        with open(self.root / "log", "ab") as log:
            self.process = subprocess.Popen([MOSQUITTO, "-c", str(self.root / "etc/karveld.conf")], stderr=log)
        end = time.monotonic() + 10
        while time.monotonic() < end:
            with socket.socket(socket.AF_UNIX) as probe:
                if self.process.poll() is None and probe.connect_ex(str(self.socket)) == 0:
                    return
            time.sleep(0.02)
        pytest.fail(f"the broker does not start: {(self.root / 'log').read_text()}")

    def kill(self) -> None:
        self.process.kill()
        self.process.wait()

    def close(self) -> None:
        self.kill()
        shutil.rmtree(self.root)

    def where(self, user: str | None) -> list[str]:
        if user is None:
            return ["--unix", str(self.socket)]
        return ["-h", "127.0.0.1", "-p", str(self.port), "-u", user, "-P", user]

    def publish(self, user: str | None, topic: str, payload: str, *more: str) -> subprocess.CompletedProcess[str]:
        command = ["mosquitto_pub", "-V", "5", "-q", "1", *self.where(user), "-t", topic, "-m", payload, *more]
        return subprocess.run(command, capture_output=True, text=True, timeout=20)

    def read_kept(self, user: str | None, filter_: str) -> dict[str, str]:
        command = ["mosquitto_sub", "-W", "1", "-v", *self.where(user), "-t", filter_]
        lines = subprocess.run(command, capture_output=True, text=True, timeout=20).stdout.splitlines()
        return dict(line.split(" ", 1) for line in lines)

    def saved(self, value: str) -> bool:
        file = self.root / "run/karveld.db"
        return file.exists() and value.encode() in file.read_bytes()


class Listener:
    """A subscriber that runs until a last word that everybody may hear."""

    LAST_WORD = "vesk/x/status"

    def __init__(self, karveld: Karveld, user: str | None, filter_: str) -> None:
        self.karveld = karveld
        command = ["mosquitto_sub", "-d", "-v", *karveld.where(user), "-t", filter_, "-t", self.LAST_WORD]
        self.process = subprocess.Popen(["timeout", "30", "stdbuf", "-oL", *command], stdout=subprocess.PIPE, text=True)
        for line in self.process.stdout:
            if line.startswith("Subscribed"):
                return
        pytest.fail("no subscription")

    def heard(self) -> set[str]:
        self.karveld.publish(None, self.LAST_WORD, "end")
        topics = set()
        for line in self.process.stdout:
            if line.startswith("Client "):
                continue
            topic = line.split(" ", 1)[0]
            if topic == self.LAST_WORD:
                break
            topics.add(topic)
        self.process.terminate()
        self.process.wait()
        self.process.stdout.close()
        return topics


@pytest.fixture(scope="module")
def karveld() -> Iterator[Karveld]:
    broker = Karveld(tcp=True)
    yield broker
    broker.close()


def test_listens_on_nothing_but_its_socket_unless_asked() -> None:
    broker = Karveld(tcp=False)
    try:
        own = {os.readlink(link) for link in Path(f"/proc/{broker.process.pid}/fd").iterdir()}
        tables = "".join(Path(f"/proc/net/{name}").read_text() for name in ("tcp", "tcp6"))
        inodes = {f"socket:[{line.split()[9]}]" for line in tables.splitlines() if ":" in line}
        assert own & inodes == set()
        mode = stat.S_IMODE(broker.socket.stat().st_mode)
        assert mode & stat.S_IRWXO == 0, "anyone on the camera could format the card"
        if os.getuid() == 0:
            assert broker.socket.owner() == "nobody"
    finally:
        broker.close()


def test_does_not_log_who_comes_and_goes() -> None:
    broker = Karveld(tcp=True)
    try:
        for user in (None, None, "admin"):
            broker.publish(user, "karvel/mem/default/sdcard_status", "1", "-r")
        lines = (broker.root / "log").read_text().splitlines()
        assert [line for line in lines if "Loading config file" not in line] == []
    finally:
        broker.close()


def test_keeps_keys_when_it_is_killed() -> None:
    broker = Karveld(tcp=True)
    try:
        for value in ("first-value", "second-value"):
            broker.publish(None, "karvel/mem/default/sdcard_status", value, "-r")
        end = time.monotonic() + 10
        while not broker.saved("second-value") and time.monotonic() < end:
            time.sleep(0.01)
        broker.kill()
        broker.start()
        kept = {"karvel/mem/default/sdcard_status": "second-value"}
        assert broker.read_kept(None, "karvel/#") == kept
        assert broker.read_kept("viewer", "karvel/#") == kept

        broker.publish(None, "karvel/mem/default/sdcard_status", "", "-r")  # taken away stays away
        while broker.saved("second-value") and time.monotonic() < end:
            time.sleep(0.01)
        broker.kill()
        broker.start()
        assert broker.read_kept(None, "karvel/#") == {}
    finally:
        broker.close()


def test_lets_a_request_that_is_too_large_through_to_be_answered(karveld: Karveld) -> None:
    large = karveld.root / "large"
    large.write_bytes(b"x" * ((1 << 20) + 1))
    listener = Listener(karveld, None, "vesk/app/action/large")
    command = ["mosquitto_pub", *karveld.where(None), "-q", "1", "-t", "vesk/app/action/large", "-f", str(large)]
    assert subprocess.run(command, timeout=20).returncode == 0
    assert listener.heard() == {"vesk/app/action/large"}


@pytest.mark.parametrize("credentials", [[], ["-u", "viewer", "-P", "wrong"], ["-u", "nobody", "-P", "nobody"]])
def test_the_network_needs_a_password(karveld: Karveld, credentials: list[str]) -> None:
    where = ["-h", "127.0.0.1", "-p", str(karveld.port), *credentials]
    result = subprocess.run(["mosquitto_pub", *where, "-t", "a", "-m", "b"], capture_output=True, text=True, timeout=20)
    assert result.returncode != 0
    assert "uthori" in result.stderr  # "not authorised", in the words of either protocol version


APP = "vesk/vesk_sdcard"
WRITERS = {  # who may write what; the camera's own programs, on the socket, may write all of it
    f"{APP}/action/sd_format": {"admin"},
    f"{APP}/action/deleteVideo": {"admin"},
    f"{APP}/action/deleteSaveVideo": {"admin"},
    f"{APP}/action/some_action_to_come": {"admin"},
    f"{APP}/action/sd_storge": {"admin", "operator"},
    f"{APP}/action/saveVideo": {"admin", "operator"},
    f"{APP}/action/sd_umount": {"admin", "operator"},
    "karvel/mem/default/spec_sdcard_format": {"admin"},
    "karvel/mem/default/spec_sdcard_unmount": {"admin", "operator"},
    "karvel/mem/default/sdcard_kyt": {"admin", "operator"},
    "karvel/mem/default/sdcard_status": {"admin"},
    "karvel/wifi/default/key": {"admin"},
    f"{APP}/status": set(),
    f"{APP}/report/sdcard.alert": set(),
    f"{APP}/action/sd_format/reply": set(),
    "reply/operator/1": set(),
    "anything/else": set(),
}
READERS = {
    "karvel/mem/default/sdcard_status": {"viewer", "operator", "admin"},
    f"{APP}/report/sdcard.alert": {"viewer", "operator", "admin"},
    f"{APP}/status": {"viewer", "operator", "admin"},
    f"{APP}/action/sd_storge/reply": {"operator", "admin"},
    f"{APP}/action/sd_format": set(),
    "karvel/wifi/default/key": {"admin"},
    "reply/operator/1": {"operator"},
    "reply/viewer/1": {"viewer"},
    "anything/else": set(),
}


@pytest.mark.parametrize("user", [None, *ROLES])
def test_who_may_write(karveld: Karveld, user: str | None) -> None:
    listener = Listener(karveld, None, "#")
    for topic in WRITERS:
        result = karveld.publish(user, topic, "x")
        allowed = user is None or user in WRITERS[topic]
        assert ("uthori" in result.stderr) != allowed, f"{user} {topic}: {result.stderr}"
    assert listener.heard() == {topic for topic, writers in WRITERS.items() if user is None or user in writers}


@pytest.mark.parametrize("filter_", ["#", "$share/group/#"])
@pytest.mark.parametrize("user", [None, *ROLES])
def test_who_may_read(karveld: Karveld, user: str | None, filter_: str) -> None:
    listener = Listener(karveld, user, filter_)
    for topic in READERS:
        karveld.publish(None, topic, "x")
    assert listener.heard() == {topic for topic, readers in READERS.items() if user is None or user in readers}
