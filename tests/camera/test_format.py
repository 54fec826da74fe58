"""Whatever lies in the slot: a format makes one FAT partition of it, mounted and recorded on."""

from collections.abc import Callable
from pathlib import Path

import pytest

from cards import RECORD_DIR, check_format, list_dir
from conftest import insert_clips, record, wait_clips
from jobs import eject_card, format_card
from promise import promise, promises
from vcam import Camera, wait_until

promises("cl_mkfs")

MakeCard = Callable[..., Path]

TRACE = ["sdcard_mkfs(): cl_next_mkfs -> on_closure_done", "cl_next_mkfs(): cl_next_umount -> next_fdisk",
         "next_fdisk(): cl_next_execvp_write -> next_partprobe", "next_partprobe(): cl_next_execvp -> next_finish",
         "mkfs successful"]


@pytest.mark.parametrize("kind", ["blank", "noise", "four_partitions", "extended", "gpt", "whole_disk_fat", "exfat"])
def test_a_card_of_any_kind_becomes_the_camera_s_own(camera: Camera, card: MakeCard, kind: str) -> None:
    promise("the card is blank, has noise, several partitions, a foreign table or no table on it",
            "it becomes the same card as any other")
    made = card(kind)
    with pytest.raises((ValueError, RuntimeError)):
        check_format(made)
    camera.insert(made)
    # Full: a quarter of a card of 64 MiB is.
    wait_until(lambda: camera.state() in ("normal", "full", "broken"), 20, "the state of the card as it comes")

    format_card(camera)
    assert camera.check("awk '$2 == \"/mnt/sdcard\" { print $1, $3 }' /proc/mounts") == "/dev/mmcblk0p1 vfat"
    times = record(camera, 2)

    eject_card(camera)
    camera.pull()
    check_format(made)
    assert sum(name.endswith(".mp4") for name in list_dir(made, RECORD_DIR)) == len(times)


def test_a_format_erases_and_tells_each_step(camera: Camera, card: MakeCard) -> None:
    insert_clips(camera, card("clips", count=5), 5)
    states: list[bytes] = []
    camera.subscribe("karvel/mem/default/sdcard_status",
                     lambda message: message.retained or states.append(message.payload))

    text = format_card(camera)
    steps = [line.split("closure: ", 1)[1] for line in text.split("\n") if "closure: " in line]
    assert steps == TRACE
    assert text.count("exec-fdisk: all stdin data has been sent.") == 1
    assert text.count("Umount successful") == 1
    wait_until(lambda: states[-1:] == [b"0"], 5, "the last of the states")
    assert states == [b"4", b"0"]
    wait_clips(camera, [])
    record(camera, 1)
