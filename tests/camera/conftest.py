"""What all scenarios share: one booted camera, given back to each in the state of a camera with an empty slot."""

from __future__ import annotations

import json
import subprocess
import sys
import time
import warnings
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parent.parent.parent
sys.path[:0] = [str(ROOT / "camera"), str(ROOT / "tests")]

from cards import MIB, RECORD_DIR, make_card  # noqa: E402
from jobs import install_mapped, install_probed, restore_daemon, wait_daemon, wait_recordings  # noqa: E402
from stand_ins import Tools  # noqa: E402
from vcam import Camera, CameraError, GuestTimeout, wait_until  # noqa: E402

SEQUENCE_S = 60  # a random sequence, on a busy host
SWAP_S = 25  # a card swapped in a job, likewise
DEADLINE_S = 1500  # a camera that is still there after this is killed


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addoption("--pulls", type=int, default=5, help="how often the card is pulled in the middle of each thing")
    parser.addoption("--sequences", type=int, default=1, help="how many random sequences of card jobs are run")
    parser.addoption("--swap-ms", type=int, default=1000, help="how far apart the moments are at which a card is swapped")
    parser.addoption("--seed", type=int, default=23, help="the seed of the first of them; the others' follow it")


@pytest.fixture(scope="session")
def _image() -> None:
    # Several of these processes may run beside each other, each with a camera of its own.
    subprocess.run(["flock", ROOT / "build/target", ROOT / "camera/build-image"], check=True)


@pytest.fixture(scope="session")
def _shared_camera(_image: None, tmp_path_factory: pytest.TempPathFactory) -> Iterator[Camera]:
    with Camera(tmp_path_factory.mktemp("camera")) as camera:
        yield camera


def boot(camera: Camera, deadline: float) -> None:
    camera.close()
    camera.start(deadline=deadline)
    reset(camera)


@pytest.fixture
def camera(_shared_camera: Camera, request: pytest.FixtureRequest) -> Camera:
    """The shared camera: running, slot empty, not throttled, broker and daemon up. Booting costs seconds, so a scenario
    gets the last one's camera unless that one left it unusable."""
    camera = _shared_camera
    if camera.running:
        try:
            reset(camera)
        except (CameraError, ConnectionError, TimeoutError) as error:
            # Told in the summary, so that what one scenario does to the camera is not hidden from whoever looks.
            warnings.warn(f"the camera had to be started again: {error!r}\n{camera.log()[-1500:]}", stacklevel=1)
            camera.close()
    if not camera.running:
        deadline = (DEADLINE_S + SEQUENCE_S * int(request.config.getoption("--sequences"))
                    + SWAP_S * 2 * (6000 // int(request.config.getoption("--swap-ms"))))
        try:
            boot(camera, deadline)
        except (CameraError, ConnectionError, TimeoutError) as error:
            # A boot that takes too long is the machine's, and no scenario's.
            warnings.warn(f"the camera had to be booted once more: {error!r}", stacklevel=1)
            boot(camera, deadline)
    return camera


@pytest.fixture
def tools(camera: Camera) -> Iterator[Tools]:
    """Stand-ins for the disk tools, gone when the scenario is over."""
    made = Tools(camera)
    yield made
    if camera.running:
        try:
            made.restore()
        except CameraError:
            camera.close()  # the next scenario boots it again


@pytest.fixture(scope="module")
def _other_daemon(_shared_camera: Camera) -> Iterator[None]:
    yield
    if _shared_camera.running:
        restore_daemon(_shared_camera)


@pytest.fixture
def probed(camera: Camera, _other_daemon: None) -> Camera:
    """The camera with a daemon that can be told to check the card, and asked for its job frame."""
    install_probed(camera)
    return camera


@pytest.fixture
def mapped(camera: Camera, _other_daemon: None) -> Camera:
    """The camera with a clip index that maps a file, and a daemon that has met no fault yet: after the first one the
    signal stays blocked in it."""
    install_mapped(camera)
    pid = wait_daemon(camera)
    camera.check(f"kill -9 {pid}")
    wait_daemon(camera, pid)
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
    camera.unsubscribe_all()
    if camera.card:
        camera.pull()
    camera.check(f"date -s @{int(time.time())} && /etc/init.d/S50karveld start && /etc/init.d/S60vesk_sdcard start")
    wait_daemon(camera)
    camera.wait_state("not_exists")
    # What a scenario recorded while nothing was mounted here lies in the camera's memory.
    camera.run("grep -q ' /mnt/sdcard ' /proc/mounts || rm -rf /mnt/sdcard/*")


def insert_normal(camera: Camera, card: Path) -> None:
    camera.insert(card)
    camera.wait_state("normal")
    wait_recordings(camera)


def insert_clips(camera: Camera, card: Path, count: int) -> list[int]:
    """Inserts a card with so many clips and returns their times when they are in the index on it."""
    insert_normal(camera, card)

    def listed() -> list[int]:
        found = clips(camera)
        return found if len(found) == count else []
    return list(wait_until(listed, 30, f"{count} clips in the index"))


def wait_clips(camera: Camera, expected: list[int], deadline: float = 20) -> None:
    """Waits until exactly these clips are in the index. The daemon has them in its memory, and answers; the index on the
    card follows it."""
    _wait_listed(lambda: clips(camera), expected, deadline)


def wait_protected(camera: Camera, expected: list[int], deadline: float = 20) -> None:
    """The same of the clips that are protected."""
    _wait_listed(lambda: [clip["ts"] for clip in indexed(camera) if clip["persistent"]], expected, deadline)


def _wait_listed(look: Callable[[], list[int]], expected: list[int], deadline: float) -> None:
    found: list[int] = []

    def as_expected() -> bool:
        nonlocal found
        found = look()
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


def indexed(camera: Camera) -> list[dict]:
    """The clips in the index on the card."""
    return list(json.loads(camera.check("veskctl clips --json")))


def clips(camera: Camera) -> list[int]:
    """Their times."""
    return [clip["ts"] for clip in indexed(camera)]


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
