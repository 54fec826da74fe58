"""The filesystem check: nothing in the shipped daemon starts it, so a daemon with a way in does."""

import os
from collections.abc import Callable
from pathlib import Path

import pytest

from cards import GIB, SECTOR, filesystem_offset
from conftest import insert_clips, insert_normal, record, wait_clips, wait_daemon
from jobs import check_card, eject_card, frame, hold, wait_job, wait_recordings
from promise import promise, promises
from stand_ins import Tools
from vcam import Camera

promises("cl_fsck")

MakeCard = Callable[..., Path]

OK, FAILED = 2, 3
EBUSY = 16


def tear(card: Path) -> None:
    """Makes the second copy of the FAT differ from the first, as a card does that was pulled while it was written."""
    with card.open("r+b") as file:
        offset = filesystem_offset(card)
        file.seek(offset)
        boot = file.read(SECTOR)
        reserved, sectors = int.from_bytes(boot[14:16], "little"), int.from_bytes(boot[22:24], "little")
        assert sectors, "a FAT16 is what this knows"
        os.pwrite(file.fileno(), b"\xff\xff" * 4, offset + (reserved + sectors) * SECTOR + 2000)


def test_a_sound_card_is_checked_and_back_in_service(probed: Camera, card: MakeCard, tools: Tools) -> None:
    before = insert_clips(probed, card("clips", count=20), 20)
    tools.stop_before("fsck.fat")
    mark = check_card(probed)
    tools.wait_stopped("fsck.fat")
    assert probed.state() == "fixing"
    assert probed.key("sdcard_rw") == "none"
    tools.go("fsck.fat")
    text = wait_job(probed, "fsck", "successful", mark)
    assert "probe: sdcard_fsck() = 0" in text
    steps = [line.split("closure: ", 1)[1] for line in text.split("\n") if "closure: " in line]
    assert steps == ["sdcard_fsck(): cl_next_fsck -> on_closure_done", "cl_next_fsck(): cl_next_umount -> next_fsck",
                     "next_fsck(): cl_next_execvp -> next_finish", "fsck successful"]
    assert frame(probed) == (OK, 0, 0)
    probed.wait_state("normal")
    wait_recordings(probed)
    wait_clips(probed, before)
    record(probed, 1)


@pytest.mark.parametrize("whole_disk", [False, True])
def test_a_torn_card_is_repaired_and_that_counts_as_failed(probed: Camera, card: MakeCard, whole_disk: bool) -> None:
    promise("something was repaired", "the card is sound afterwards, and the next check finds nothing")
    made = card("whole_disk_fat" if whole_disk else "fat")
    tear(made)
    insert_normal(probed, made)
    wait_recordings(probed)
    text = wait_job(probed, "fsck", "failed", check_card(probed))
    assert "fsck.fat: exit with code 1" in text
    assert "next_finish: unable to check filesystem." in text
    assert frame(probed) == (FAILED, 1, 0)
    probed.wait_state("normal")
    # What was repaired is sound.
    wait_recordings(probed)
    wait_job(probed, "fsck", "successful", check_card(probed))


def test_a_check_that_dies_or_does_not_start_is_no_repaired_card(probed: Camera, card: MakeCard, tools: Tools) -> None:
    insert_normal(probed, card("fat"))
    for ending, script, result in (("exit with code 99", None, 99), ("exit with signal Killed", "kill -9 $$", -1),
                                   ("exit with code 8", "exit 8", 8)):
        if script:
            tools.stand_in("fsck.fat", script)
        else:
            tools.take_away("fsck.fat")
        text = wait_job(probed, "fsck", "failed", check_card(probed))
        assert f"fsck.fat: {ending}" in text
        assert frame(probed) == (FAILED, result, 0)
        probed.wait_state("normal")
        tools.restore()

    hold(probed)
    text = wait_job(probed, "fsck", "failed", check_card(probed))
    assert "Unable to umount sdcard." in text
    assert "cl_next_execvp ->" not in text
    assert frame(probed) == (FAILED, EBUSY, 0)
    probed.wait_state("normal")


def test_what_is_absent_or_ejected_is_not_checked(probed: Camera, card: MakeCard) -> None:
    mark = check_card(probed)
    probed.wait_log("sdcard_fsck: Unable to check filesystem when mmc device in 0 state.", since=mark)
    pid = wait_daemon(probed)
    # What is no filesystem is checked, and found to be none.
    probed.insert(card("blank"))
    probed.wait_state("broken")
    wait_job(probed, "fsck", "failed", check_card(probed))
    probed.wait_state("broken")
    eject_card(probed)
    mark = check_card(probed)
    probed.wait_log("sdcard_fsck: Unable to check filesystem when mmc device in 3 state.", since=mark)
    assert probed.state() == "eject"
    assert wait_daemon(probed) == pid


def test_a_check_killed_for_its_memory_is_no_repaired_card(probed: Camera, card: MakeCard) -> None:
    """The real tool on a card that it needs 26 MiB for, on a camera that has 20."""
    promise("fsck.fat needs more memory than the camera has",
            "it is killed like any other, and the daemon lives and records on")
    probed.insert(card("fat", 32 * GIB))
    probed.wait_state("normal", 60)
    wait_recordings(probed)
    pid = wait_daemon(probed)
    text = wait_job(probed, "fsck", "failed", check_card(probed), 240)
    assert "fsck.fat: exit with signal Killed" in text
    assert "next_finish: unable to check filesystem." in text
    assert frame(probed) == (FAILED, -1, 0)
    probed.wait_state("normal", 60)
    assert wait_daemon(probed) == pid
    wait_recordings(probed)
    record(probed, 1)
