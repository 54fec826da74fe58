"""A slow card's alert, with real figures from the kernel's statistics. Not in the default run: it takes minutes.

A 32-bit kernel's tick counter begins five minutes before its overflow, and until then the busy time of a disk stays 0:
in these minutes no card counts as slow, on a camera as well.
"""

from collections.abc import Callable
from pathlib import Path

from cards import MIB
from conftest import insert_normal
from test_reports import Reports, disk_stat, reports, restart_daemon  # noqa: F401
from vcam import Camera, wait_until

MakeCard = Callable[..., Path]
KERNEL_START_S = 310


def test_a_slow_card(camera: Camera, card: MakeCard, reports: Reports) -> None:  # noqa: F811
    wait_until(lambda: float(camera.check("cut -d' ' -f1 /proc/uptime")) > KERNEL_START_S, KERNEL_START_S,
               "the kernel to count a disk's busy time", 5)
    insert_normal(camera, card("fat", 128 * MIB))
    restart_daemon(camera)  # its first sample comes a second later, its first speed after another minute
    camera.slow(bps_wr=100_000)
    before = disk_stat(camera)
    writer = camera.spawn("while true; do dd if=/dev/zero of=/mnt/sdcard/filler bs=16k count=8 conv=fsync; sleep 1; done")
    slow = reports.wait("sdcard.alert", deadline=200)
    after = disk_stat(camera)
    camera.check(f"kill {writer}")
    camera.unthrottle()
    assert list(slow) == ["type", "mean_speed", "elapse", "active_sec"]
    assert (slow["type"], slow["elapse"]) == (1, 60), "what a card that is found slow for the first time has been"
    assert 40 <= int(str(slow["active_sec"])) <= after[6] - before[6]
    # Bytes for each second of busy time, of a card that takes 100,000 a second: bursts at the beginning aside.
    assert 20_000 <= int(str(slow["mean_speed"])) < 204_800
