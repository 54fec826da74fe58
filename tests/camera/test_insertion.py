"""From an inserted card to a published state, for every kind of card."""

from collections.abc import Callable
from pathlib import Path

import pytest

from cards import MIB
from conftest import has_card, insert_normal, wait_daemon
from promise import promise, promises
from vcam import Camera, wait_until

promises("mmc")

MakeCard = Callable[..., Path]


@pytest.mark.parametrize(("kind", "device"), [
    ("fat", "mmcblk0p1"), ("whole_disk_fat", "mmcblk0"), ("second_partition", "mmcblk0p2"),
    ("eight_partitions", "mmcblk0p1")])
def test_a_card_with_a_filesystem_is_mounted_and_normal(camera: Camera, card: MakeCard, kind: str, device: str) -> None:
    # On 64 MiB the eight partitions would leave a full card.
    mark = camera.log_mark()
    insert_normal(camera, card(kind, 128 * MIB))
    # Published behind the state, a moment later.
    camera.wait_key("sdcard_rw", "rdwr")
    assert camera.check("awk '$2 == \"/mnt/sdcard\" { print $1 }' /proc/mounts") == f"/dev/{device}"
    assert camera.run("test -d /mnt/sdcard/ZOLTA_RECORD_VIDEO").code == 0
    assert ("Too many partitions" in camera.log_since(mark)) == (kind == "eight_partitions")


@pytest.mark.parametrize("kind", ["blank", "garbage", "partitioned"])
def test_a_card_without_a_filesystem_is_broken(camera: Camera, card: MakeCard, kind: str) -> None:
    camera.insert(card(kind))
    camera.wait_state("broken")
    camera.wait_key("sdcard_rw", "none")
    camera.pull()
    camera.wait_state("not_exists")


def test_a_card_formatted_by_hand_is_mounted_within_seconds(camera: Camera, card: MakeCard) -> None:
    camera.insert(card("partitioned"))
    camera.wait_state("broken")
    camera.check("mkfs.fat /dev/mmcblk0p1")
    camera.wait_state("normal")


def test_a_write_protected_card_is_broken_and_not_mounted(camera: Camera, card: MakeCard) -> None:
    camera.insert(card("fat"), write_protected=True)
    camera.wait_state("broken")
    camera.wait_key("sdcard_rw", "none")
    assert camera.run("grep ' /mnt/sdcard ' /proc/mounts").code == 1


def test_the_switch_of_a_mounted_card_is_noticed(camera: Camera, card: MakeCard) -> None:
    promise("the write-protect switch of a mounted card is moved", "the state follows")
    insert_normal(camera, card("fat"))
    camera.write_protect(True)
    camera.wait_state("broken")
    camera.write_protect(False)
    camera.wait_state("normal")


def test_a_small_card_with_nothing_to_delete_is_full(camera: Camera, card: MakeCard) -> None:
    mark = camera.log_mark()
    camera.insert(card("fat", 32 * MIB))
    camera.wait_state("full")
    camera.wait_key("sdcard_rw", "rdonly")
    assert "records_delete_oldest: " in camera.log_since(mark)


def test_a_card_that_is_in_the_slot_at_start_is_normal(camera: Camera, card: MakeCard) -> None:
    insert_normal(camera, card("fat"))
    camera.check("/etc/init.d/S60vesk_sdcard stop; umount /mnt/sdcard; /etc/init.d/S60vesk_sdcard start")
    wait_daemon(camera)
    camera.wait_log("Supported filesystems: vfat exfat")
    wait_until(lambda: camera.run("grep ' /mnt/sdcard ' /proc/mounts").code == 0, 10, "the mount")
    camera.wait_state("normal")


def test_pulled_and_put_back(camera: Camera, card: MakeCard) -> None:
    made = card("fat")
    for _ in range(3):
        insert_normal(camera, made)
        camera.pull()
        camera.wait_state("not_exists")
        wait_until(lambda: camera.run("grep ' /mnt/sdcard ' /proc/mounts").code == 1, 10, "the mount to go")
        assert not has_card(camera)


def test_another_card_at_once(camera: Camera, card: MakeCard) -> None:
    promise("one card takes another's place between two looks", "the new one is mounted")
    insert_normal(camera, card("fat"))
    camera.swap(card("fat", 128 * MIB))
    size = str(128 * MIB // 512)
    wait_until(lambda: camera.run("cat /sys/block/mmcblk0/size").text == size, 10, "the other card")
    # While nothing is mounted there, the last line is the heading.
    wait_until(lambda: int(camera.check("df -k /mnt/sdcard | awk 'END { print $2 }'")) > 100_000, 15, "the other card's mount")
    camera.wait_state("normal")


def test_a_card_that_was_mounted_elsewhere_by_hand_counts_as_mounted(camera: Camera, card: MakeCard) -> None:
    """The recordings folder is then made below an empty /mnt/sdcard, on the camera's own flash: as it stands."""
    with_daemon_away = "/etc/init.d/S60vesk_sdcard stop"
    camera.check(with_daemon_away)
    camera.insert(card("fat"))
    wait_until(lambda: camera.run("test -b /dev/mmcblk0p1").code == 0, 10, "the partition")
    camera.check("mkdir -p /mnt/elsewhere && mount -t vfat /dev/mmcblk0p1 /mnt/elsewhere")
    try:
        camera.check("/etc/init.d/S60vesk_sdcard start")
        wait_daemon(camera)
        wait_until(lambda: camera.run("test -d /mnt/sdcard/ZOLTA_RECORD_VIDEO").code == 0, 10, "the folder")
        assert camera.run("grep ' /mnt/sdcard ' /proc/mounts").code == 1
        assert camera.run("test -e /mnt/elsewhere/ZOLTA_RECORD_VIDEO").code == 1
    finally:
        camera.run("umount /mnt/elsewhere")
