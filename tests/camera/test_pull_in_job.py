"""The card pulled in the middle of each step of a job. The daemon lives, its job frame is free, the next card works."""

from collections.abc import Callable
from functools import partial
from pathlib import Path

from conftest import insert_normal, wait_daemon
from jobs import JOB_S, check_card, format_card, frame, hold, mounted, request, wait_job
from promise import promise, promises
from stand_ins import HOLDER, Tools
from vcam import Camera, wait_until

promises("cl_mkfs")

MakeCard = Callable[..., Path]
Moment = Callable[[Camera, Tools], None]

ENDED = (2, 3)  # statuses of a job frame that is free: ok, failed


def survive(camera: Camera, card: MakeCard, tools: Tools, moments: list[Moment]) -> None:
    """Each moment pulls the card out of a job, which ends. The card for the next one is the proof that the daemon is
    all right; after the last, one is formatted."""
    pid = wait_daemon(camera)
    for moment in moments:
        insert_normal(camera, card("fat"))
        moment(camera, tools)
        assert wait_daemon(camera) == pid, "the daemon did not survive"
        status, _, depth = frame(camera)
        assert status in ENDED and depth == 0
        camera.wait_state("not_exists")
        wait_until(lambda: not mounted(camera), 10, "the mount to go")
        tools.restore()
        camera.unthrottle()
    insert_normal(camera, card("fat"))
    format_card(camera)
    assert wait_daemon(camera) == pid


def begin(camera: Camera, job: str) -> int:
    return check_card(camera) if job == "fsck" else request(camera, {"mkfs": "format", "eject": "eject"}[job])


def between_two_tries_to_unmount(job: str, camera: Camera, tools: Tools) -> None:
    hold(camera)
    tools.stop_before("fuser")
    mark = begin(camera, job)
    tools.wait_stopped("fuser")
    camera.pull()
    camera.wait_log("Remove block mmcblk0", since=mark)
    tools.go("fuser")
    wait_job(camera, job, "failed", mark)
    camera.check(f"killall {HOLDER}")


def before_the_tool_opens_the_card(job: str, tool: str, camera: Camera, tools: Tools) -> None:
    tools.stop_before(tool)
    mark = begin(camera, job)
    tools.wait_stopped(tool)
    camera.pull()
    camera.wait_log("Remove block mmcblk0", since=mark)
    tools.go(tool)
    text = wait_job(camera, job, "failed", mark)
    assert f"{tool}: exit with code " in text


def while_the_filesystem_is_made(camera: Camera, tools: Tools) -> None:
    """Written to slowly, so that the pull comes between the first and the last write. mkfs.fat need not notice: it
    writes into the kernel's memory, and does not ask what became of it."""
    tools.stop_before("mkfs.fat")
    mark = begin(camera, "mkfs")
    tools.wait_stopped("mkfs.fat")
    camera.slow(iops_wr=20)
    before = writes(camera)
    tools.go("mkfs.fat")
    wait_until(lambda: writes(camera) > before, 20, "mkfs.fat to write")
    camera.pull()
    camera.wait_log("closure: mkfs ", JOB_S, mark)


def writes(camera: Camera) -> int:
    """Requests to write that the card has finished or is at."""
    counters = camera.check("cat /sys/block/mmcblk0/stat").split()
    return int(counters[4]) + int(counters[8])


def between_the_end_of_fdisk_and_the_re_read(camera: Camera, tools: Tools) -> None:
    """The daemon asleep, the card goes and fdisk ends: it then hears of the end first, and finds no device node."""
    tools.stop_after("fdisk")
    mark = begin(camera, "mkfs")
    tools.wait_stopped("fdisk")
    camera.check("kill -STOP $(pidof vesk_sdcard)")
    camera.pull()
    tools.go("fdisk")
    ended = "! pidof fdisk || grep -q '(fdisk) Z' /proc/$(pidof fdisk)/stat"
    wait_until(lambda: camera.run(ended).code == 0, 20, "the end of fdisk")
    camera.check("kill -CONT $(pidof vesk_sdcard)")
    text = wait_job(camera, "mkfs", "failed", mark)
    assert "mkfs: the sdcard is not the one that the job began with" in text


def after_the_events_of_the_pull(camera: Camera, tools: Tools) -> None:
    """fdisk has done its work and the card is gone from the daemon's table when it ends: there is no disk to re-read."""
    tools.stop_after("fdisk")
    mark = begin(camera, "mkfs")
    tools.wait_stopped("fdisk")
    camera.pull()
    camera.wait_log("Remove block mmcblk0", since=mark)
    tools.go("fdisk")
    text = wait_job(camera, "mkfs", "failed", mark)
    assert "mkfs: the sdcard is not the one that the job began with" in text


def test_pulled_out_of_a_format(probed: Camera, card: MakeCard, tools: Tools) -> None:
    promise("the card is pulled at whichever stage",
            "the job ends, the state is not_exists, and the next card is formatted")
    survive(probed, card, tools, [
        partial(between_two_tries_to_unmount, "mkfs"),
        partial(before_the_tool_opens_the_card, "mkfs", "fdisk"),
        between_the_end_of_fdisk_and_the_re_read,
        after_the_events_of_the_pull,
        partial(before_the_tool_opens_the_card, "mkfs", "mkfs.fat"),
        while_the_filesystem_is_made,
    ])


promises("cl_fsck")


def test_pulled_out_of_a_check(probed: Camera, card: MakeCard, tools: Tools) -> None:
    promise("the card is pulled at whichever stage", "the job ends, the state is not_exists, and the next card works")
    survive(probed, card, tools, [
        partial(between_two_tries_to_unmount, "fsck"),
        partial(before_the_tool_opens_the_card, "fsck", "fsck.fat"),
    ])


promises("cl_umount")


def test_pulled_out_of_an_eject(probed: Camera, card: MakeCard, tools: Tools) -> None:
    promise("the next try is awaited, or fuser runs", "the loop serves everything else")
    survive(probed, card, tools, [partial(between_two_tries_to_unmount, "eject")])
