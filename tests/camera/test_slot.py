"""The card slot: what the kernel sees of cards that come, go, are slow or write-protected."""

from collections.abc import Callable
from pathlib import Path

import pytest

from cards import GIB, MIB, list_dir, read_file
from conftest import camera_without_daemon, has_card
from vcam import Camera, CameraError, wait_until

MakeCard = Callable[..., Path]


def wait_card(camera: Camera) -> None:
    wait_until(lambda: has_card(camera), 10, "/dev/mmcblk0")


def partitions(camera: Camera) -> list[str]:
    return camera.check("cd /dev && ls | grep mmcblk0p || true").split()


def test_a_card_comes_and_goes_with_uevents(camera: Camera, card: MakeCard) -> None:
    def events(path: str) -> list[str]:
        """The card's events as "action type", in order, out of the environment of each."""
        text = camera.check(f"grep -E '^(ACTION|SUBSYSTEM|DEVTYPE)=' {path} || true")
        fields = [line.split("=", 1)[1] for line in text.splitlines()]
        return [f"{action} {kind}" for action, subsystem, kind in zip(fields, fields[1:], fields[2:])
                if subsystem == "block"]

    listener = camera.spawn("uevent env", "/tmp/uevents")
    camera.insert(card("fat"))
    wait_card(camera)
    assert camera.check("cat /sys/block/mmcblk0/dev").startswith("179:")
    assert int(camera.check("cat /sys/block/mmcblk0/size")) == 64 * MIB // 512
    camera.pull()
    wait_until(lambda: not has_card(camera), 10, "the card to go")
    wait_until(lambda: events("/tmp/uevents") == ["add disk", "add partition", "remove partition", "remove disk"], 5,
               "one event of each kind")
    camera.run(f"kill -- -{listener} {listener}")


@pytest.mark.parametrize(("kind", "expected"), [
    ("blank", 0), ("garbage", 0), ("whole_disk_fat", 0), ("partitioned", 1), ("fat", 1), ("second_partition", 2),
    ("eight_partitions", 8)])
def test_each_kind_of_card_has_its_partitions(camera: Camera, card: MakeCard, kind: str, expected: int) -> None:
    camera.insert(card(kind))
    wait_card(camera)
    wait_until(lambda: len(partitions(camera)) == expected, 5, f"{expected} partitions")


def test_a_swapped_card_is_seen_at_once(camera: Camera, card: MakeCard) -> None:
    camera.insert(card("fat"))
    # A card that goes while the kernel is still identifying it may be confused with the next one.
    wait_until(lambda: partitions(camera), 10, "the first card")
    camera.swap(card("fat", 128 * MIB))
    size = str(128 * MIB // 512)
    wait_until(lambda: camera.run("cat /sys/block/mmcblk0/size").text == size, 10, "the other card's size")


def test_a_card_with_thousands_of_clips_is_a_good_filesystem(camera: Camera, card: MakeCard) -> None:
    made = card("clips", GIB, count=4000)
    assert len(list_dir(made, "ZOLTA_RECORD_VIDEO")) == 8000 + 67
    with camera_without_daemon(camera):
        camera.insert(made)
        wait_card(camera)
        # fsck.fat ends with 0 only if it finds nothing to repair.
        assert "8069 files" in camera.check("fsck.fat -n /dev/mmcblk0p1", 60)


def test_a_slow_card_takes_its_time(camera: Camera, card: MakeCard) -> None:
    with camera_without_daemon(camera):
        camera.insert(card("blank"))
        wait_card(camera)
        camera.slow(bps_wr=100 * 1024)
        seconds = camera.check("time -f %e dd if=/dev/zero of=/dev/mmcblk0 bs=64k count=8 conv=fsync 2>&1 | tail -1", 60)
        assert float(seconds) > 4
        camera.unthrottle()
        seconds = camera.check("time -f %e dd if=/dev/zero of=/dev/mmcblk0 bs=64k count=8 conv=fsync 2>&1 | tail -1", 60)
        assert float(seconds) < 4


def test_a_write_protected_card_refuses(camera: Camera, card: MakeCard) -> None:
    with camera_without_daemon(camera):
        camera.insert(card("blank"), write_protected=True)
        wait_card(camera)
        wait_until(lambda: camera.check("cat /sys/block/mmcblk0/ro") == "1", 5, "the switch")
        with pytest.raises(CameraError):
            camera.check("echo x >/dev/mmcblk0")
        camera.write_protect(False)
        camera.check("echo x >/dev/mmcblk0")


def test_a_power_cut_keeps_what_the_card_has_taken(own_camera: Camera, card: MakeCard) -> None:
    made = card("fat")
    own_camera.start(made, deadline=120)
    wait_card(own_camera)
    with camera_without_daemon(own_camera):
        own_camera.run("umount /mnt/sdcard")
        own_camera.check("mount -t vfat /dev/mmcblk0p1 /mnt/sdcard")
        own_camera.check("echo kept >/mnt/sdcard/kept; sync; echo lost >/mnt/sdcard/lost")
        own_camera.power_cut()
    assert not own_camera.running
    assert read_file(made, "kept") == b"kept\n"
    own_camera.start(made, deadline=120)
    wait_card(own_camera)


def test_an_emulator_that_outlives_its_deadline_is_killed(own_camera: Camera) -> None:
    own_camera.start(deadline=20)
    wait_until(lambda: not own_camera.running, 25, "the deadline")
