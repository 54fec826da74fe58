"""What the daemon reports to the statistics channel, compared with what the camera's kernel says."""

import itertools
import json
import time
from collections.abc import Callable
from pathlib import Path

import pytest
from cards import MIB
from conftest import insert_normal, record, wait_daemon
from vcam import Camera, Message, wait_until

MakeCard = Callable[..., Path]
COOL_DOWN_S = 300
TEXT_MAX = 128  # bytes of a file that are reported
EMPTY = {"state": 1, "mmc": None, "block": None, "fs": None}
scenarios = itertools.count(1)


class Reports:
    """Reports seen from now on, as they come in. Objects keep the order of their members."""

    def __init__(self, camera: Camera) -> None:
        self.seen: list[tuple[str, dict[str, object]]] = []
        camera.subscribe("vesk/vesk_sdcard/report/+", self._take)

    def _take(self, message: Message) -> None:
        assert not message.retained
        self.seen.append((message.topic.rsplit("/", 1)[1], json.loads(message.payload)))

    @property
    def names(self) -> list[str]:
        return [name for name, _ in self.seen]

    def of(self, event: str) -> list[dict[str, object]]:
        return [report for name, report in self.seen if name == event]

    @property
    def alerts(self) -> list[dict[str, object]]:
        """Without the count of those that were dropped before."""
        return [{name: value for name, value in alert.items() if name != "cool_down"} for alert in self.of("sdcard.alert")]

    def wait(self, event: str, count: int = 1, deadline: float = 40) -> dict[str, object]:
        wait_until(lambda: len(self.of(event)) >= count, deadline, f"{event} number {count}; seen: {self.seen}")
        return self.of(event)[count - 1]


@pytest.fixture
def reports(camera: Camera) -> Reports:
    """Of a camera whose clock has gone on so far that no earlier alert keeps the next one from being sent."""
    set_clock(camera, int(time.time()) + 4 * COOL_DOWN_S * next(scenarios))
    made = Reports(camera)
    # What the last scenario's card still gave rise to is on its way before the answer to this.
    answers: list[Message] = []
    camera.subscribe("vesk/vesk_sdcard/action/sd_storge/reply", answers.append)
    camera.publish("vesk/vesk_sdcard/action/sd_storge", "{}")
    wait_until(lambda: answers, 30, "the daemon's answer")
    made.seen.clear()
    return made


def restart_daemon(camera: Camera) -> None:
    """Another process, which has sent no alert yet."""
    old = wait_daemon(camera)
    camera.check("/etc/init.d/S60vesk_sdcard stop")
    wait_until(lambda: camera.run("pidof vesk_sdcard").code != 0, 20, "the daemon's end")
    camera.check("/etc/init.d/S60vesk_sdcard start")
    wait_daemon(camera, old)


def set_clock(camera: Camera, seconds: int) -> None:
    camera.check(f"date -s @{seconds}")
    assert 0 <= clock(camera) - seconds < 60, "the kernel sets no clock before its own start"


def clock(camera: Camera) -> int:
    return int(camera.check("date +%s"))


def pull(camera: Camera) -> None:
    camera.pull()
    camera.wait_state("not_exists")


def card_files(camera: Camera) -> list[tuple[str, str]]:
    """The card's files in sysfs in the directory's order, as text."""
    # One shell command: a file a line, its beginning in hexadecimal digits.
    lines = camera.check("cd /sys/block/mmcblk0/device/ && for f in $(find . -maxdepth 1 -type f); do "
                         f"echo $f $(head -c {TEXT_MAX} $f 2>/dev/null | od -An -v -tx1 | tr -d ' \\n'); done").splitlines()
    files = []
    for name, *content in (line.removeprefix("./").split() for line in lines):
        if name != "uevent" and content:
            files.append((name, bytes.fromhex(content[0]).decode().removesuffix("\n")))
    return files


def filesystem(camera: Camera) -> list[tuple[str, int]]:
    words = camera.check("stat -f -c '%t %s %b %f %a %c %d' /mnt/sdcard").split()
    names = ("f_type", "f_bsize", "f_blocks", "f_bfree", "f_bavail", "f_files", "f_ffree")
    return list(zip(names, [int(words[0], 16), *map(int, words[1:])], strict=True))


def disk_stat(camera: Camera) -> list[int]:
    return [int(word) for word in camera.check("cat /sys/block/mmcblk0/stat").split()]


def check_info(camera: Camera, info: dict[str, object], stat_before: list[int]) -> None:
    """A report of the card that is in the slot and mounted, member by member."""
    assert list(info) == ["state", "mmc", "block", "fs"]
    mmc, block, fs = info["mmc"], info["block"], info["fs"]
    assert isinstance(mmc, dict)
    assert isinstance(block, dict)
    assert isinstance(fs, dict)
    assert info["state"] == 0
    assert list(mmc.items()) == card_files(camera)
    assert {"name", "oemid", "manfid", "serial", "date", "cid", "csd", "scr"} <= set(mmc)
    assert list(block) == ["stat", "ro", "force_ro", "size"]
    assert len(block["stat"]) == TEXT_MAX, "the kernel's line is longer"
    counters = block["stat"].split()[:11]
    assert all(a <= int(b) <= c for a, b, c in zip(stat_before[:8], counters, disk_stat(camera), strict=False))
    for name in ("ro", "force_ro", "size"):
        assert block[name] == int(camera.check(f"cat /sys/block/mmcblk0/{name}")), name
    assert list(fs.items()) == filesystem(camera)


def test_the_card_as_the_kernel_has_it(camera: Camera, card: MakeCard, reports: Reports) -> None:
    insert_normal(camera, card("fat", 128 * MIB))
    check_info(camera, reports.wait("sdcard.info"), [0] * 11)
    record(camera, 2, "200k")
    camera.check("sync")
    before = disk_stat(camera)
    restart_daemon(camera)
    check_info(camera, reports.wait("sdcard.info", 2), before)
    assert reports.alerts == []


def test_an_empty_slot_at_the_start(camera: Camera, reports: Reports) -> None:
    restart_daemon(camera)
    assert reports.wait("sdcard.info") == EMPTY
    assert reports.seen[0] == ("sdcard.alert", {"type": 5}), "the start is told like a loss, and before the details"
    assert len(reports.seen) == 2


def test_pulled_cards(camera: Camera, card: MakeCard, reports: Reports) -> None:
    made = card("fat")
    insert_normal(camera, made)
    restart_daemon(camera)
    reports.wait("sdcard.info", 2)
    start = clock(camera)
    pull(camera)
    assert reports.wait("sdcard.alert") == {"type": 5}

    insert_normal(camera, made)
    pull(camera)  # silent
    insert_normal(camera, made)
    assert reports.wait("sdcard.info", 4)["state"] == 0
    assert clock(camera) < start + COOL_DOWN_S, "too slow a machine for this scenario"
    assert len(reports.of("sdcard.alert")) == 1
    set_clock(camera, start + COOL_DOWN_S + 1)
    pull(camera)
    assert list(reports.wait("sdcard.alert", 2).items()) == [("type", 5), ("cool_down", 1)]
    assert reports.names[2:] == ["sdcard.alert", "sdcard.info", "sdcard.info", "sdcard.alert"], "no details of a lost card"


def test_a_card_that_may_not_be_written(camera: Camera, card: MakeCard, reports: Reports) -> None:
    camera.insert(card("fat"), write_protected=True)
    camera.wait_state("broken")
    info = reports.wait("sdcard.info")
    assert reports.names == ["sdcard.alert", "sdcard.info"]
    assert reports.alerts == [{"type": 4}]
    assert list(info) == ["state", "mmc", "block", "fs"]
    assert (info["state"], info["fs"]) == (3, None)
    assert info["mmc"] == dict(card_files(camera))
    assert info["block"]["force_ro"] == 1  # type: ignore[index]
    pull(camera)
    # The same cool-down: that the card is gone is not told any more.
    insert_normal(camera, card("fat"))
    assert reports.wait("sdcard.info", 2)["state"] == 0
    assert len(reports.alerts) == 1


def test_an_ejected_card_is_taken_out_without_an_alert(camera: Camera, card: MakeCard, reports: Reports) -> None:
    insert_normal(camera, card("fat"))
    camera.publish("vesk/vesk_sdcard/action/sd_umount", "{}")
    camera.wait_state("eject")
    pull(camera)
    assert reports.wait("sdcard.info", 2) == EMPTY
    assert reports.names == ["sdcard.info", "sdcard.info"]


def test_a_card_that_is_held(camera: Camera, card: MakeCard, reports: Reports) -> None:
    insert_normal(camera, card("fat"))
    holder = camera.spawn("exec sleep 600 > /mnt/sdcard/held")
    wait_until(lambda: camera.run("test -e /mnt/sdcard/held").code == 0, 20, "the holder")
    camera.publish("vesk/vesk_sdcard/action/sd_umount", "{}")
    held = reports.wait("sdcard.alert", deadline=120)
    camera.check(f"kill {holder}")
    assert list(held.items())[:2] == [("type", 2), ("fuser", ["sleep"])]
    camera.wait_state("eject", 60)


def test_reports_wait_for_a_broker_that_is_away(camera: Camera, card: MakeCard, reports: Reports) -> None:
    made = card("fat")
    insert_normal(camera, made)
    reports.wait("sdcard.info")
    mark = camera.log_mark()
    camera.check("/etc/init.d/S50karveld stop")
    camera.pull()
    # The mount goes, then the state is looked at: twice the same, for the card that comes as well.
    refreshed = "refresh sdcard state due to Mountinfo changed."
    camera.wait_log(refreshed, 40, mark)
    camera.insert(made)
    wait_until(lambda: camera.log_since(mark).count(refreshed) >= 2, 40, "the other mount")
    camera.check("kill -STOP $(pidof vesk_sdcard)")  # until somebody listens
    camera.check("/etc/init.d/S50karveld start")
    watched = Reports(camera)
    camera.check("kill -CONT $(pidof vesk_sdcard)")
    info = watched.wait("sdcard.info")
    assert watched.alerts == [{"type": 5}]
    assert watched.names == ["sdcard.alert", "sdcard.info"], "in the order in which they arose"
    check_info(camera, info, [0] * 11)
