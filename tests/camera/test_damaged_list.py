"""The list file, damaged in every way: never a crash, never a clip deleted because of it, always a line in the log."""

import os
import struct
from collections.abc import Callable
from pathlib import Path

import pytest

from cards import MIB, RECORD_DIR, list_dir, read_file, write_file
from conftest import clips, insert_normal, record, wait_clips, wait_daemon
from vcam import Camera, wait_until

MakeCard = Callable[..., Path]
LIST = f"{RECORD_DIR}/KYT.LST"
RECORDS_AT = 4096


def swapped(content: bytes) -> bytes:
    """The file as a machine of the other byte order writes it, as far as a reader can tell before the checks."""
    words = struct.unpack(f"<{len(content) // 4}I", content)
    return content[:8] + struct.pack(f">{len(words)}I", *words)[8:]


DAMAGES: dict[str, Callable[[bytes], bytes]] = {
    "zeros": lambda content: bytes(len(content)),
    "empty": lambda content: b"",
    "short header": lambda content: content[:40],
    "cut in the records": lambda content: content[:RECORDS_AT + 8 * 7 + 3],
    "noise": lambda content: os.urandom(len(content)),
    "noise in the header": lambda content: os.urandom(64) + content[64:],
    "noise in the records": lambda content: content[:RECORDS_AT] + os.urandom(2048) + content[RECORDS_AT + 2048:],
    "a zero sector in the records": lambda content: content[:RECORDS_AT] + bytes(512) + content[RECORDS_AT + 512:],
    "ones": lambda content: b"\xff" * len(content),
    "other byte order": swapped,
    "another version": lambda content: content[:12] + b"\x63\0\0\0" + content[16:],
    "doubled": lambda content: content + content,
}


@pytest.fixture(scope="module")
def recorded(_shared_camera: Camera, tmp_path_factory: pytest.TempPathFactory) -> dict:
    """A card with clips and a closed list, made once: its bytes, and the clips' times."""
    return {}


@pytest.mark.parametrize("damage", DAMAGES)
def test_a_damaged_list_costs_no_clip(camera: Camera, card: MakeCard, recorded: dict, damage: str) -> None:
    made = card("fat")
    if not recorded:
        insert_normal(camera, made)
        recorded["times"] = record(camera, 12, "20k")
        camera.check("/etc/init.d/S60vesk_sdcard stop; umount /mnt/sdcard; /etc/init.d/S60vesk_sdcard start")
        camera.pull()
        camera.wait_state("not_exists")
        recorded["card"] = made.read_bytes()
    made.write_bytes(recorded["card"])
    before = {name for name in list_dir(made, RECORD_DIR) if name.endswith((".mp4", ".jpeg"))}
    write_file(made, LIST, DAMAGES[damage](read_file(made, LIST)))

    pid = wait_daemon(camera)
    mark = camera.log_mark()
    insert_normal(camera, made)
    wait_clips(camera, recorded["times"])
    said = [line for line in camera.log_since(mark).splitlines() if "kyt: " in line]
    assert said, "a damaged list goes unmentioned"
    assert wait_daemon(camera) == pid, "the daemon crashed"
    record(camera, 1)
    camera.pull()
    after = {name for name in list_dir(made, RECORD_DIR) if name.endswith((".mp4", ".jpeg"))}
    assert before <= after


def test_a_list_that_vanishes_while_it_is_open_costs_no_clip(camera: Camera, card: MakeCard) -> None:
    made = card("fat", 128 * MIB)
    insert_normal(camera, made)
    times = record(camera, 3)
    camera.check(f"rm /mnt/sdcard/{LIST}")
    camera.pull()
    camera.wait_state("not_exists")
    insert_normal(camera, made)
    wait_until(lambda: set(times) <= set(clips(camera)), 20, "all clips in the index")
