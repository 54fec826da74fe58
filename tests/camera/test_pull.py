"""The card pulled in the middle of things. The daemon goes on, and the card's clips are there when it comes back."""

import time
from collections.abc import Callable
from pathlib import Path

import pytest

from cards import GIB, MIB
from conftest import clips, files, insert_normal, wait_daemon
from vcam import Camera, wait_until

MakeCard = Callable[..., Path]


def let_pass(seconds: float) -> None:
    """The moment of the pull is the scenario: other than elsewhere, time itself is what is waited for."""
    end = time.monotonic() + seconds
    wait_until(lambda: time.monotonic() >= end, seconds + 1, "time", 0.01)


def check_card(camera: Camera, made: Path) -> None:
    """The card can be used again, and each clip on it is in the index."""
    insert_normal(camera, made)
    on_card = {Path(name).stem for name in files(camera) if name.endswith(".mp4")}

    def all_listed() -> bool:
        return on_card <= {time.strftime("%Y%m%d_%H%M%S", time.gmtime(ts)) for ts in clips(camera)}
    wait_until(all_listed, 20, "each clip on the card in the index")


@pytest.fixture
def pulls(request: pytest.FixtureRequest) -> int:
    return int(request.config.getoption("--pulls"))


def test_pulled_while_recording(camera: Camera, card: MakeCard, pulls: int) -> None:
    made = card("fat", 256 * MIB)
    pid = wait_daemon(camera)
    start = int(time.time())
    for round_ in range(pulls):
        insert_normal(camera, made)
        recorder = f"vesk_recorder --size 300k --interval 0 --keep-going --seconds 1 --start {start + 100 * round_}"
        camera.spawn(recorder)
        let_pass(0.3 + 0.17 * round_ % 1.5)
        camera.pull()
        camera.run("killall vesk_recorder")
        camera.wait_state("not_exists")
    check_card(camera, made)
    assert wait_daemon(camera) == pid, "the daemon did not survive"


def test_pulled_while_deleting(camera: Camera, card: MakeCard, pulls: int) -> None:
    pid = wait_daemon(camera)
    start = int(time.time())
    for round_ in range(pulls):
        # A card of its own each time: one whose FAT was torn apart by the pull may be turned read-only by the kernel.
        made = card("clips", count=1200, video_bytes=16384, image_bytes=4096)
        insert_normal(camera, made)
        # What is recorded brings the card below its free space, so that small old clips go by the dozen.
        camera.spawn(f"vesk_recorder --size 2M --interval 0 --keep-going --seconds 1 --start {start + 100 * round_}")
        mark = camera.log_mark()
        try:
            camera.wait_log("record_delete: unlink", 20, mark)
        finally:
            camera.pull()
        camera.run("killall vesk_recorder")
        camera.wait_state("not_exists")
    # The torn card comes back as what it is: in service, or read-only and then called broken.
    camera.insert(made)
    wait_until(lambda: camera.state() in ("normal", "full", "broken"), 20, "the torn card's state")
    read_only = camera.run("grep -q ' /mnt/sdcard vfat ro' /proc/mounts").code == 0
    wait_until(lambda: camera.state() == ("broken" if read_only else "normal"), 20, "the state that the card is in")
    camera.pull()
    camera.wait_state("not_exists")
    check_card(camera, card("clips", 128 * MIB, count=100))
    assert wait_daemon(camera) == pid, "the daemon did not survive"


def test_pulled_while_opening(camera: Camera, card: MakeCard, pulls: int) -> None:
    pid = wait_daemon(camera)
    made = card("clips", GIB, count=4000)
    for round_ in range(pulls):
        camera.insert(made)
        # From before the mount, two seconds after the card came, to the end of the folder's scan.
        let_pass(1.0 + 0.37 * round_ % 3.0)
        camera.pull()
        camera.wait_state("not_exists")
    check_card(camera, made)
    wait_until(lambda: len(clips(camera)) == 4000, 20, "all clips in the index")
    assert wait_daemon(camera) == pid, "the daemon did not survive"
