"""veskctl: what it prints as text and as JSON, and its exit codes."""

from __future__ import annotations

import json
import re
import signal
import struct
import subprocess
import time
from pathlib import Path

import pytest
from conftest import BIN, MORTAL, Broker, command, environment, make_list, objects, on_terminal, read_line, run, until

START = 1795226400  # 2026-11-21T02:00:00Z
STATUS = "karvel/mem/default/sdcard_status"
ACCESS = "karvel/mem/default/sdcard_rw"
TIME = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ"
ESCAPE = "\033["


# --- status -----------------------------------------------------------------------------------------------------------

STATES = [("0", "normal"), ("1", "not_exists"), ("2", "full"), ("3", "broken"), ("4", "formatting"), ("5", "eject"),
          ("6", "fixing"), ("7", "ejecting")]


@pytest.mark.parametrize("number, name", STATES)
def test_status_names_the_state(broker: Broker, number: str, name: str) -> None:
    broker.publish(STATUS, number, keep=True)
    broker.publish(ACCESS, "rdonly", keep=True)
    done = run("veskctl", "--bus", broker.address, "status")
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout.startswith(f"state     {name} ({number})\nwritable  rdonly\n")
    seen = json.loads(run("veskctl", "--json", "--bus", broker.address, "status").stdout)
    assert (seen["state"], seen["state_number"], seen["writable"]) == (name, int(number), "rdonly")


@pytest.mark.parametrize("value", ["", "8", "-1", "x", "3x", "99999999999999999999", "\x1b[31m"])
def test_status_of_no_known_state(broker: Broker, value: str) -> None:
    broker.publish(STATUS, value, keep=True)
    done = run("veskctl", "--bus", broker.address, "status")
    assert done.returncode == 0
    assert done.stdout.startswith("state     not known\nwritable  not known\n") and ESCAPE not in done.stdout


def test_status_does_not_print_what_a_terminal_would_obey(broker: Broker) -> None:
    broker.publish(ACCESS, b"\x1b[31m\xff", keep=True)
    done = subprocess.run(command("veskctl", "--bus", broker.address, "status"), env=environment(), capture_output=True)
    assert done.stdout.splitlines()[1] == b"writable  ?[31m?"
    told = subprocess.run(command("veskctl", "--json", "--bus", broker.address, "status"), env=environment(),
                          capture_output=True)
    assert b"\x1b" not in told.stdout and json.loads(told.stdout)["writable"] == "\x1b[31m\ufffd"


def test_status_without_keys_or_card(broker: Broker) -> None:
    done = run("veskctl", "status", "--json", VESK_BUS=broker.address)
    assert (done.returncode, done.stderr) == (0, "")
    assert json.loads(done.stdout) == dict.fromkeys(
        ["state", "state_number", "writable", "total", "free", "used", "clips", "oldest", "newest"])
    assert done.stdout.count("\n") == 1


def test_status_without_service(tmp_path: Path) -> None:
    done = run("veskctl", "--json", "--bus", f"unix:{tmp_path}/nobody", "status")
    assert done.returncode == 3
    assert done.stderr == f"veskctl: the configuration service does not answer at unix:{tmp_path}/nobody\n"
    assert json.loads(done.stdout)["state"] is None


def test_status_with_a_frozen_service(broker: Broker) -> None:
    broker.publish(STATUS, "0", keep=True)
    broker.freeze()
    before = time.monotonic()
    done = run("veskctl", "--bus", broker.address, "status")
    assert done.returncode == 3 and "does not answer" in done.stderr
    assert time.monotonic() - before < 15


# --- watch ------------------------------------------------------------------------------------------------------------


class Watch:
    """A running `veskctl watch` that is known to be subscribed: it has shown what was kept."""

    def __init__(self, broker: Broker, *before: str) -> None:
        broker.publish(STATUS, "1", keep=True)
        self.process = subprocess.Popen([*MORTAL, *command("veskctl", *before, "--bus", broker.address, "watch")],
                                        env=environment(), stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.first = self.line()

    def line(self) -> str:
        return read_line(self.process.stdout)

    def end(self) -> tuple[int, str, str]:
        self.process.send_signal(signal.SIGINT)
        out, err = self.process.communicate(timeout=20)
        return self.process.returncode, out.decode(), err.decode()


def test_watch_shows_keys_and_reports_as_they_happen(broker: Broker) -> None:
    watch = Watch(broker)
    assert re.fullmatch(TIME + r" mem/default/sdcard_status = 1 not_exists\n", watch.first)
    # Subscriptions are answered in order; keys come first, so a report may be sent once a key was seen twice.
    for topic, payload, keep, shown in [
            (STATUS, "0", True, "mem/default/sdcard_status = 0 normal"),
            ("karvel/mem/default/sdcard_kyt", "1795226400,10", False, "mem/default/sdcard_kyt = 1795226400,10"),
            ("karvel/disk/other/key", "a\x1b[31m\nb\u009bc", False, "disk/other/key = a?[31m?b?c"),
            (STATUS, "", True, "mem/default/sdcard_status = "),
            ("vesk/vesk_sdcard/status", "online", True, "vesk/vesk_sdcard/status = online"),
            ("vesk/vesk_sdcard/report/alert", '{"code": 4}', False, 'vesk/vesk_sdcard/report/alert = {"code": 4}')]:
        broker.publish(topic, payload, keep)
        assert re.fullmatch(TIME + " " + re.escape(shown) + "\n", watch.line()), shown
    assert watch.end() == (0, "", "")


def test_watch_shows_no_actions(broker: Broker) -> None:
    watch = Watch(broker)
    broker.publish("vesk/vesk_sdcard/action/format", "{}")
    broker.publish("vesk/vesk_sdcard/action/format/reply", "{}")
    broker.publish(STATUS, "4", keep=True)
    assert watch.line().endswith("sdcard_status = 4 formatting\n")
    assert watch.end()[0] == 0


def test_watch_as_json(broker: Broker) -> None:
    watch = Watch(broker, "--json")
    seen = json.loads(watch.first)
    assert re.fullmatch(TIME, seen.pop("time"))
    assert seen == {"topic": STATUS, "value": "1", "kept": True}
    for payload, value in [(b"0", "0"), (b'{"a": [1, null]}', {"a": [1, None]}), (b"{broken", "{broken"), (b"", None),
                           (b"a\xffb\xc0\x80", "a\ufffdb\ufffd\ufffd"), (b"\xed\xa0\x80", "\ufffd\ufffd\ufffd"),
                           ('"é"\n'.encode(), '"é"\n'), (b'{"a": "\xff"}', '{"a": "\ufffd"}'), (b"a\0b", "a\0b")]:
        broker.publish("vesk/vesk_sdcard/report/test", payload)
        line = watch.line()
        seen = json.loads(line)
        assert (seen["topic"], seen["value"], seen["kept"]) == ("vesk/vesk_sdcard/report/test", value, False), line
    assert watch.end() == (0, "", "")


def test_watch_ends_after_count(broker: Broker) -> None:
    for i in range(5):
        broker.publish(f"karvel/mem/default/key{i}", str(i), keep=True)
    done = run("veskctl", "--json", "--bus", broker.address, "watch", "--count", 3)
    assert (done.returncode, done.stderr) == (0, "")
    assert len(objects(done.stdout)) == 3


def test_watch_ends_after_timeout(broker: Broker) -> None:
    before = time.monotonic()
    done = run("veskctl", "--bus", broker.address, "watch", "--timeout", 0.5)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    assert 0.5 <= time.monotonic() - before < 10


def test_watch_tells_a_script_that_the_count_was_not_reached(broker: Broker) -> None:
    broker.publish(STATUS, "0", keep=True)
    done = run("veskctl", "--bus", broker.address, "watch", "--count", 2, "--timeout", 0.5)
    assert done.returncode == 1 and len(done.stdout.splitlines()) == 1
    assert done.stderr == "veskctl: 1 of 2 messages came within 0.5 s\n"


def test_watch_without_service(tmp_path: Path) -> None:
    before = time.monotonic()
    done = run("veskctl", "--bus", f"unix:{tmp_path}/nobody", "watch")
    assert (done.returncode, done.stdout) == (3, "")
    assert done.stderr == f"veskctl: the configuration service does not answer at unix:{tmp_path}/nobody\n"
    assert time.monotonic() - before < 15


def test_watch_with_a_frozen_service(broker: Broker) -> None:
    broker.freeze()
    done = run("veskctl", "--bus", broker.address, "watch")
    assert (done.returncode, done.stdout) == (3, "") and "does not answer" in done.stderr


def test_watch_goes_on_when_the_service_comes_back(tmp_path: Path) -> None:
    broker = Broker(tmp_path)
    watch = Watch(broker)
    broker.end()
    assert "the configuration service went away" in read_line(watch.process.stderr)
    again = Broker(tmp_path)
    again.publish(STATUS, "3", keep=True)
    assert watch.line().endswith("sdcard_status = 3 broken\n")
    assert watch.end() == (0, "", "")
    again.end()


def test_watch_ends_with_its_reader(broker: Broker) -> None:
    watch = Watch(broker)
    assert watch.process.stdout is not None
    watch.process.stdout.close()
    broker.publish(STATUS, "0", keep=True)
    until(lambda: watch.process.poll() is not None, "the end of watch")
    assert watch.process.stderr is not None
    watch.process.stderr.close()


@pytest.mark.parametrize("arguments", [["--count", "x"], ["--count", "-1"], ["--count", "0"], ["--count", "4294967296"],
                                       ["--timeout", "nan"], ["--timeout", "-1"], ["--timeout", "0"],
                                       ["--timeout", ""]])
def test_watch_bad_value(arguments: list[str]) -> None:
    done = run("veskctl", "watch", *arguments)
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr == f'veskctl: {arguments[0]} cannot be "{arguments[1]}"\n'


# --- clips ------------------------------------------------------------------------------------------------------------


@pytest.fixture
def recorded(card: Path) -> Path:
    make_list(card, f"{START + 3600},255,1", f"{START},10", f"{START + 60}")
    return card


def test_clips_as_text(recorded: Path) -> None:
    done = run("veskctl", "clips", recorded)
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout == ("time                  length  mark       clip\n"
                           "2026-11-21T02:00:00Z    10 s  -          2026112102/20261121_020000\n"
                           "2026-11-21T02:01:00Z       -  -          2026112102/20261121_020100\n"
                           "2026-11-21T03:00:00Z   255 s  protected  2026112103/20261121_030000\n")


def test_clips_as_json(recorded: Path) -> None:
    for arguments in (["--json", "clips", recorded], ["clips", "--json", recorded], ["clips", recorded, "--json"]):
        done = run("veskctl", *arguments)
        assert (done.returncode, done.stderr) == (0, "")
        assert json.loads(done.stdout) == [
            {"ts": START, "time": "2026-11-21T02:00:00Z", "seconds": 10, "persistent": False,
             "path": "2026112102/20261121_020000"},
            {"ts": START + 60, "time": "2026-11-21T02:01:00Z", "seconds": None, "persistent": False,
             "path": "2026112102/20261121_020100"},
            {"ts": START + 3600, "time": "2026-11-21T03:00:00Z", "seconds": 255, "persistent": True,
             "path": "2026112103/20261121_030000"}]


def test_clips_of_an_empty_index(card: Path) -> None:
    make_list(card)
    assert run("veskctl", "clips", card).stdout == "time                  length  mark       clip\n"
    assert json.loads(run("veskctl", "--json", "clips", card).stdout) == []


def test_clips_changes_nothing(recorded: Path) -> None:
    def picture() -> list[tuple[str, bytes, int]]:
        return [(path.name, path.read_bytes(), path.stat().st_mtime_ns) for path in sorted(recorded.iterdir())]
    before = picture()
    (recorded / before[0][0]).chmod(0o444)
    recorded.chmod(0o555)
    assert run("veskctl", "clips", recorded).returncode == 0
    recorded.chmod(0o755)
    assert picture() == before


@pytest.mark.parametrize("there", [False, True])
def test_clips_without_index(tmp_path: Path, there: bool) -> None:
    folder = tmp_path / "folder"
    if there:
        folder.mkdir()
    for json_option in ([], ["--json"]):
        done = run("veskctl", *json_option, "clips", folder)
        assert (done.returncode, done.stdout) == (4, "")
        assert done.stderr == f"veskctl: {folder}: no clip index there\n"


def test_clips_of_the_camera_without_a_card() -> None:
    if Path("/mnt/sdcard/ZOLTA_RECORD_VIDEO").exists():
        pytest.fail("this machine has a recordings folder of a camera")
    done = run("veskctl", "clips")
    assert done.returncode == 4
    assert done.stderr == "veskctl: /mnt/sdcard/ZOLTA_RECORD_VIDEO: no clip index there\n"


def list_file(folder: Path) -> Path:
    (path,) = folder.glob("*.LST")
    return path


@pytest.mark.parametrize("damage", [
    lambda data: b"", lambda data: bytes(len(data)), lambda data: data[:40], lambda data: b"\xa5" * len(data),
    lambda data: data[:12] + struct.pack("<I", 99) + data[16:]], ids=["empty", "zeros", "short", "noise", "version"])
def test_clips_of_a_list_that_cannot_be_read(recorded: Path, damage) -> None:
    path = list_file(recorded)
    damaged = damage(path.read_bytes())
    path.write_bytes(damaged)
    for json_option in ([], ["--json"]):
        done = run("veskctl", *json_option, "clips", recorded)
        assert (done.returncode, done.stdout) == (5, "")
        assert done.stderr == f"veskctl: {recorded}: the clip index cannot be read\n"
    assert path.read_bytes() == damaged


def test_clips_leaves_out_damaged_records(recorded: Path) -> None:
    path = list_file(recorded)
    data = bytearray(path.read_bytes())
    assert len(data) > 4096 + 24
    data[4096 + 8:4096 + 16] = b"\xa5" * 8
    path.write_bytes(data)
    done = run("veskctl", "--json", "clips", recorded)
    assert done.returncode == 0
    times = {clip["ts"] for clip in json.loads(done.stdout)}
    assert len(times) == 2 and times < {START, START + 60, START + 3600}


def test_clips_that_cannot_be_printed(recorded: Path) -> None:
    with open("/dev/full", "w") as full:
        done = subprocess.run(command("veskctl", "clips", recorded), env=environment(), stdout=full,
                              stderr=subprocess.PIPE, text=True, timeout=60)
    assert done.returncode == 1
    assert done.stderr == "veskctl: standard output: No space left on device\n"


# --- the command line -------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("arguments", [
    [], ["--json"], ["what"], ["--what"], ["--bus"], ["--bus", "nonsense", "status"], ["status", "more"],
    ["status", "--what"], ["clips", "a", "b"], ["clips", "--what"], ["watch", "more"], ["watch", "--what"],
    ["watch", "--count"]])
def test_bad_command_line(arguments: list[str]) -> None:
    done = run("veskctl", *arguments)
    assert (done.returncode, done.stdout) == (2, "") and done.stderr


def test_help_and_version() -> None:
    helped = run("veskctl", "--help")
    assert helped.returncode == 0 and helped.stderr == ""
    for said in ("status", "watch", "clips", "--bus", "--json", "--count", "--timeout", "exit codes: 0 done"):
        assert said in helped.stdout
    assert run("veskctl", "--version").stdout.startswith("veskctl ")


@pytest.mark.parametrize("arguments", [["status"], ["watch", "--count", "1"]])
def test_colours(broker: Broker, arguments: list[str]) -> None:
    broker.publish(STATUS, "3", keep=True)
    assert "\033[31mbroken\033[0m" in on_terminal(broker, *arguments)
    assert "\033[31mbroken\033[0m" in on_terminal(broker, *arguments, NO_COLOR="")
    for plain in (on_terminal(broker, *arguments, NO_COLOR="1"), on_terminal(broker, "--json", *arguments),
                  run("veskctl", "--bus", broker.address, *arguments).stdout):
        assert ESCAPE not in plain and ("broken" in plain or '"3"' in plain)


def test_needs_no_cxx_run_time() -> None:
    needed = subprocess.run(["objdump", "-p", BIN / "veskctl"], capture_output=True, text=True, check=True).stdout
    assert "NEEDED" in needed and "libstdc++" not in needed
