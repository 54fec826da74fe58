"""Another card in the slot in the middle of a held job. Nobody who pulls a card may lose another one: the job fails, and
the card that came in is mounted as it is."""

import time
from collections.abc import Callable
from pathlib import Path

import pytest

from cards import FIRST_SECTOR, SECTOR
from conftest import insert_normal, wait_daemon
from jobs import hold, request, wait_job
from stand_ins import HOLDER, Tools
from vcam import Camera, wait_until

MakeCard = Callable[..., Path]

HELD_MS = 6000  # ten tries half a second apart, and nine runs of fuser
LINE = "{}: the sdcard is not the one that the job began with"


def identity(card: Path) -> tuple[bytes, bytes, bytes]:
    """What fdisk and mkfs.fat make new: the partition table with the disk's number, and the volume's, at the places that
    FAT16 and FAT32 have for it."""
    with card.open("rb") as file:
        table = file.read(SECTOR)
        file.seek(FIRST_SECTOR * SECTOR)
        boot = file.read(SECTOR)
    return table, boot[0x27:0x2B], boot[0x43:0x47]


def swapped_after(camera: Camera, operation: str, job: str, seconds: float, first: Path, other: Path) -> str:
    """The held first card is to be formatted or ejected, and that long afterwards the other one takes its place; the log
    of it. The job fails in any case: the card stays held."""
    insert_normal(camera, first)
    hold(camera)
    mark = request(camera, operation)
    time.sleep(seconds)
    camera.swap(other)
    wait_job(camera, job, "failed", mark)
    camera.wait_log("New block mmcblk0p1", since=mark)
    camera.wait_state("normal")
    assert camera.check("cat /sys/block/mmcblk0/ro /sys/block/mmcblk0/mmcblk0p1/ro").split() == ["0", "0"]
    text = camera.log_since(mark)
    camera.check(f"killall {HOLDER}")
    camera.pull()
    camera.wait_state("not_exists")
    return text


@pytest.mark.parametrize(("operation", "job"), [("format", "mkfs"), ("eject", "eject")])
def test_a_card_that_comes_in_during_a_job_is_left_alone(camera: Camera, card: MakeCard, operation: str, job: str,
                                                         pytestconfig: pytest.Config) -> None:
    """--swap-ms 200 takes a quarter of an hour, and more on a busy host."""
    moments = range(0, HELD_MS, int(pytestconfig.getoption("--swap-ms")))
    pid = wait_daemon(camera)
    first, other = card("fat"), card("fat", 128 << 20)
    whole = identity(first), identity(other)
    refused = 0
    for moment in moments:
        text = swapped_after(camera, operation, job, moment / 1000, first, other)
        assert (identity(first), identity(other)) == whole, f"swapped after {moment} ms:\n{text}"
        refused += LINE.format(job) in text
    assert refused > len(moments) / 2, f"{refused} jobs met the other card"
    assert wait_daemon(camera) == pid


def test_a_card_that_comes_in_while_fdisk_runs_is_left_alone(camera: Camera, card: MakeCard, tools: Tools) -> None:
    """fdisk has the first card open and ends when the other one is in, while the daemon sleeps: it then hears of the
    end first, and of the swap only by the device node."""
    first, other = card("fat"), card("fat", 128 << 20)
    whole = identity(other)
    insert_normal(camera, first)
    tools.stop_after("fdisk")
    mark = request(camera, "format")
    tools.wait_stopped("fdisk")
    camera.check("kill -STOP $(pidof vesk_sdcard)")
    camera.swap(other)
    wait_until(lambda: camera.run("test -b /dev/mmcblk0p1").code == 0, 20, "the other card's node")
    tools.go("fdisk")
    ended = "! pidof fdisk || grep -q '(fdisk) Z' /proc/$(pidof fdisk)/stat"
    wait_until(lambda: camera.run(ended).code == 0, 20, "the end of fdisk")
    camera.check("kill -CONT $(pidof vesk_sdcard)")
    assert LINE.format("mkfs") in wait_job(camera, "mkfs", "failed", mark)
    camera.wait_state("normal")
    assert identity(other) == whole
