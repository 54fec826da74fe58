"""Eject: the card leaves the camera's service and can be pulled."""

from collections.abc import Callable
from pathlib import Path

from cards import check_format
from conftest import clips, insert_normal, record, wait_daemon
from jobs import Reports, eject_card, hold, mounted, request, restart_daemon, wait_job, wait_recordings
from promise import promise, promises
from stand_ins import HOLDER, Tools
from vcam import Camera, wait_until

promises("cl_eject")

MakeCard = Callable[..., Path]

REMOVED = 5  # type of the alert about a card that went away unasked


def test_eject_pull_and_back_in(camera: Camera, card: MakeCard) -> None:
    promise("somebody writes to the ejected card, or mounts it to write",
            "the kernel refuses, and not a byte of it changes")
    promise("the ejected card is pulled and put in again", "it is normal, with its clips")
    made = card("fat")
    insert_normal(camera, made)
    restart_daemon(camera)  # with the card there from the start, so that no alert is held back
    pid = wait_daemon(camera)
    alerts = Reports(camera, "sdcard.alert")
    reports = Reports(camera, "sdcard.info")
    wait_recordings(camera)
    times = record(camera, 3)

    eject_card(camera)
    assert camera.key("sdcard_rw") == "none"
    assert not mounted(camera)
    assert camera.check("cat /sys/block/mmcblk0/ro /sys/block/mmcblk0/mmcblk0p1/ro").split() == ["1", "1"]
    content = made.read_bytes()
    check_format(made)
    # The kernel refuses whoever does not know, and the daemon's own look every two seconds mounts nothing.
    for device in ("/dev/mmcblk0", "/dev/mmcblk0p1"):
        assert camera.run(f"dd if=/dev/zero of={device} bs=4096 count=1 conv=notrunc,fsync").code != 0
    assert camera.run("mount -t vfat -o rw /dev/mmcblk0p1 /mnt/sdcard && touch /mnt/sdcard/x").code != 0
    camera.run("umount /mnt/sdcard; sync")
    assert made.read_bytes() == content

    known = len(reports.seen)
    camera.pull()
    camera.wait_state("not_exists")
    # The report of an ejected card that went comes behind where the alert would have been.
    assert reports.wait(known + 1)[-1]["state"] == 1
    assert alerts.seen == []
    assert made.read_bytes() == content

    insert_normal(camera, made)
    wait_until(lambda: set(clips(camera)) == set(times), 10, "the clips")

    # Pulled unasked it is missed.
    camera.pull()
    camera.wait_state("not_exists")
    assert alerts.wait(1) == [{"type": REMOVED}]
    assert wait_daemon(camera) == pid


def test_a_busy_card_stays_in_service(camera: Camera, card: MakeCard, tools: Tools) -> None:
    promise("the card is in use and stays mounted",
            "it is back in service within seconds, its recordings folder open again")
    insert_normal(camera, card("fat"))
    times = record(camera, 1)
    hold(camera)
    mark = request(camera, "eject")
    camera.wait_state("ejecting")
    assert camera.key("sdcard_rw") == "none"
    wait_job(camera, "eject", "failed", mark)
    camera.wait_log("Unable to umount sdcard.", since=mark)
    camera.wait_state("normal")
    assert mounted(camera)
    # Its folder, closed for the eject, opens again with the next look at the mount table.
    camera.check(f"killall {HOLDER}")
    wait_recordings(camera)
    record(camera, 1, start=times[-1] + 10)
    eject_card(camera)


def test_a_card_that_is_not_mounted_is_ejected_all_the_same(camera: Camera, card: MakeCard) -> None:
    camera.insert(card("blank"))
    camera.wait_state("broken")
    eject_card(camera)
    assert camera.check("cat /sys/block/mmcblk0/ro") == "1"
