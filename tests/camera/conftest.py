"""What all scenarios share: one booted camera, given back to each in the state of a camera with an empty slot."""

from __future__ import annotations

import subprocess
import sys
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "camera"))

from cards import MIB, make_card  # noqa: E402
from vcam import Camera, GuestTimeout, wait_until  # noqa: E402

DEADLINE_S = 1500  # a camera that is still there after this is killed


def pytest_addoption(parser: pytest.Parser) -> None:
    parser.addoption("--pulls", type=int, default=5, help="how often the card is pulled in the middle of each thing")


@pytest.fixture(scope="session")
def _image() -> None:
    subprocess.run([ROOT / "camera/build-image"], check=True)


@pytest.fixture(scope="session")
def _shared_camera(_image: None, tmp_path_factory: pytest.TempPathFactory) -> Iterator[Camera]:
    with Camera(tmp_path_factory.mktemp("camera")) as camera:
        yield camera


@pytest.fixture
def camera(_shared_camera: Camera) -> Iterator[Camera]:
    """The shared camera: running, slot empty, not throttled. Booting costs seconds, so a scenario gets the last one's
    camera unless that one's left it unusable."""
    camera = _shared_camera
    if not camera.running:
        camera.close()
        camera.start(deadline=DEADLINE_S)
    try:
        reset(camera)
    except GuestTimeout:
        camera.close()
        camera.start(deadline=DEADLINE_S)
        reset(camera)
    yield camera
    if camera.running:
        camera.unthrottle()


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
    """Empties the slot and waits until the camera has taken notice."""
    camera.unthrottle()
    if camera.card:
        camera.pull()
    wait_until(lambda: not has_card(camera), 10, "the kernel to forget the card")


@contextmanager
def camera_without_daemon(camera: Camera) -> Iterator[None]:
    """The daemon stopped by its start script, for scenarios in which the card is the test's own."""
    script = "/etc/init.d/S60vesk_sdcard"
    camera.check(f"[ ! -e {script} ] || {script} stop")
    wait_until(lambda: camera.run("pidof vesk_sdcard").code != 0, 10, "the daemon's end")
    yield
    if camera.running:
        camera.run("umount /mnt/sdcard")
        camera.check(f"[ ! -e {script} ] || {script} start")


def has_card(camera: Camera) -> bool:
    return camera.run("test -b /dev/mmcblk0").code == 0
