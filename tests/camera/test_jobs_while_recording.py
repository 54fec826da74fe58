"""Format and eject while the recorder writes one clip after the other."""

from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

from cards import RECORD_DIR, check_format, list_dir
from conftest import clips, files, insert_normal, wait_daemon
from jobs import eject_card, format_card
from vcam import Camera, wait_until

MakeCard = Callable[..., Path]


@pytest.fixture
def recording(camera: Camera, card: MakeCard) -> Iterator[Path]:
    """A card that is being recorded on, twice a second, by a recorder that nothing stops."""
    made = card("fat")
    insert_normal(camera, made)
    camera.spawn("vesk_recorder --size 300k --interval 0.5 --keep-going --seconds 1")
    try:
        wait_until(lambda: len(clips(camera)) >= 3, 20, "the first clips")
        yield made
    finally:
        camera.run("killall vesk_recorder")


def test_a_format_starts_the_recordings_anew(camera: Camera, recording: Path) -> None:
    pid = wait_daemon(camera)
    before = clips(camera)
    format_card(camera)
    wait_until(lambda: len(clips(camera)) >= 3, 20, "clips on the new card")
    camera.check("killall vesk_recorder")
    # One that was announced before the folder was open again is lost, with a warning; one of before is never back.
    after = clips(camera)
    assert not set(before) & set(after)
    assert len(files(camera)) >= 2 * len(after)
    assert wait_daemon(camera) == pid

    eject_card(camera)
    camera.pull()
    check_format(recording)


def test_an_ejected_card_gets_nothing_more(camera: Camera, recording: Path) -> None:
    pid = wait_daemon(camera)
    eject_card(camera)
    content = recording.read_bytes()
    # The recorder goes on, into the camera's memory.
    before = len(camera.check(f"ls -R /mnt/sdcard/{RECORD_DIR} 2>/dev/null || true").split())
    camera.check(f"mkdir -p /mnt/sdcard/{RECORD_DIR}")
    wait_until(lambda: len(camera.check(f"ls -R /mnt/sdcard/{RECORD_DIR}").split()) > before + 2, 20, "clips in memory")
    camera.check("sync")
    assert recording.read_bytes() == content
    camera.pull()
    camera.wait_state("not_exists")
    assert recording.read_bytes() == content
    assert sum(name.endswith(".mp4") for name in list_dir(recording, RECORD_DIR)) >= 3
    assert wait_daemon(camera) == pid
