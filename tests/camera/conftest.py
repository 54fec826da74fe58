"""What all scenarios share: one booted camera, given back to each in the state of a camera with an empty slot."""

from __future__ import annotations

import json
import subprocess
import sys
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "camera"))

from cards import MIB, RECORD_DIR, make_card  # noqa: E402
from vcam import Camera, CameraError, GuestTimeout, wait_until  # noqa: E402

DEADLINE_S = 1500  # a camera that is still there after this is killed


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addoption("--pulls", type=int, default=5, help="how often the card is pulled in the middle of each thing")


@pytest.fixture(scope="session")
def _image() -> None:
    # Several of these processes may run beside each other, each with a camera of its own.
    subprocess.run(["flock", ROOT / "build/target", ROOT / "camera/build-image"], check=True)


@pytest.fixture(scope="session")
def _shared_camera(_image: None, tmp_path_factory: pytest.TempPathFactory) -> Iterator[Camera]:
    with Camera(tmp_path_factory.mktemp("camera")) as camera:
        yield camera


@pytest.fixture
def camera(_shared_camera: Camera) -> Camera:
    """The shared camera: running, slot empty, not throttled, broker and daemon up. Booting costs seconds, so a scenario
    gets the last one's camera unless that one left it unusable."""
    camera = _shared_camera
    if camera.running:
        try:
            reset(camera)
        except (CameraError, ConnectionError):
            camera.close()
    if not camera.running:
        camera.close()
        camera.start(deadline=DEADLINE_S)
        reset(camera)
    return camera


@pytest.fixture
def own_camera(_image: None, tmp_path: Path) -> Iterator[Camera]:
    """A camera that is off, for scenarios about power."""
    with Camera(tmp_path / "camera") as camera:
        yield camera


@pytest.fixture
def card(tmp_path: Path) -> Callable[..., Path]:
    """Makes cards: card("fat"), card("clips", 64 * MIB, count=100). Each is another one."""
    made: list[Path] = []

    def make(kind: str = "fat", size: int = 64 * MIB, **options: int) -> Path:
        made.append(make_card(tmp_path / f"card{len(made)}", size, kind, **options))
        return made[-1]
    return make


def reset(camera: Camera) -> None:
    """Empties the slot, sets the clock, and waits until the daemon is up and says that there is no card."""
    camera.unthrottle()
    camera.run("killall vesk_recorder; killall -CONT vesk_sdcard karveld")
    if camera.card:
        camera.pull()
    camera.check(f"date -s @{int(time.time())} && /etc/init.d/S50karveld start && /etc/init.d/S60vesk_sdcard start")
    wait_daemon(camera)
    camera.wait_state("not_exists")
    # What a scenario recorded while nothing was mounted here lies in the camera's memory.
    camera.run("grep -q ' /mnt/sdcard ' /proc/mounts || rm -rf /mnt/sdcard/*")


def wait_daemon(camera: Camera, other_than: str = "") -> str:
    """Waits until the daemon runs, a new one if the old one's process id is given, and returns its process id."""
    def find() -> str | None:
        pid = camera.run("pidof vesk_sdcard").text
        return pid if pid and pid != other_than else None
    return str(wait_until(find, 30, "the daemon"))


def insert_normal(camera: Camera, card: Path) -> None:
    camera.insert(card)
    camera.wait_state("normal")
    wait_recordings(camera)


def wait_recordings(camera: Camera) -> None:
    """Waits until the clip index is open: the state is published before, and a clip announced in between is lost."""
    wait_until(lambda: camera.run("grep -q KYT_ /proc/$(pidof vesk_sdcard)/maps").code == 0, 20, "the open clip index")


def wait_clips(camera: Camera, expected: list[int], deadline: float = 20) -> None:
    """Waits until exactly these clips are in the index."""
    found: list[int] = []

    def as_expected() -> bool:
        nonlocal found
        found = clips(camera)
        return found == expected
    try:
        wait_until(as_expected, deadline, "the clips in the index")
    except GuestTimeout:
        assert found == expected
        raise


def record(camera: Camera, count: int, size: str = "100k", start: int | None = None, options: str = "") -> list[int]:
    """Records clips one after the other, as fast as the card takes them, and returns their times when they are in the
    index."""
    start = int(time.time()) if start is None else start
    camera.check(f"vesk_recorder --count {count} --size {size} --interval 0 --seconds 10 --start {start} {options}", 120)
    times = list(range(start, start + 10 * count, 10))
    wait_until(lambda: times[-1] in clips(camera), 20, "the last clip in the index")
    return times


def clips(camera: Camera) -> list[int]:
    """Times of the clips in the index."""
    return [clip["ts"] for clip in json.loads(camera.check("veskctl clips --json"))]


def files(camera: Camera) -> list[str]:
    """The clips' files on the card, below the recordings folder."""
    return camera.check(f"cd /mnt/sdcard/{RECORD_DIR} && find . -name '*.mp4' -o -name '*.jpeg' | sort").split()


@contextmanager
def camera_without_daemon(camera: Camera) -> Iterator[None]:
    """The daemon stopped by its start script, for scenarios in which the card is the test's own."""
    camera.check("/etc/init.d/S60vesk_sdcard stop")
    wait_until(lambda: camera.run("pidof vesk_sdcard").code != 0, 10, "the daemon's end")
    yield
    if camera.running:
        camera.run("umount /mnt/sdcard")
        camera.check("/etc/init.d/S60vesk_sdcard start")


def has_card(camera: Camera) -> bool:
    return camera.run("test -b /dev/mmcblk0").code == 0
