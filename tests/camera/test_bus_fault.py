"""The mapped list cut short under the daemon: the kernel answers the next look at it with a bus fault, as it does when
the card is pulled. Outside of deleting it ends the daemon, which starts again; while deleting it is survived once."""

from collections.abc import Callable
from pathlib import Path

from cards import RECORD_DIR
from conftest import clips, insert_normal, record, wait_clips, wait_daemon
from promise import promise, promises
from vcam import Camera, wait_until

promises("main")

MakeCard = Callable[..., Path]


def new_daemon(camera: Camera) -> str:
    """A daemon that has met no fault yet: its process id. After the first one the signal stays blocked in it."""
    pid = wait_daemon(camera)
    camera.check(f"kill -9 {pid}")
    return wait_daemon(camera, pid)


def look(camera: Camera) -> None:
    """Has the daemon look at the card, and not at the list before that."""
    camera.check("echo change > /sys/block/mmcblk0/uevent")


def cut_list(camera: Camera, pid: str) -> None:
    """Takes the mapped list's content away. The daemon's mapping stays, with nothing behind it."""
    mapped = set(camera.check(f"awk '/KYT_..LST/ {{ print $6 }}' /proc/{pid}/maps").split())
    assert mapped, "the list is not mapped"
    for path in mapped:
        camera.check(f": > {path}")


def fill(camera: Camera) -> None:
    """Takes space until the card is short of it by less than the oldest clips give back."""
    free_kib = int(camera.check("df -k /mnt/sdcard | awk 'END { print $4 }'"))
    over = free_kib - 40960 + 600
    camera.check(f"dd if=/dev/zero bs=1k count={over} >> /mnt/sdcard/filler 2>/dev/null", 60)


def survive_a_fault(camera: Camera, times: list[int], pid: str) -> list[int]:
    """The clips left when all is well again."""
    mark = camera.log_mark()
    cut_list(camera, pid)
    fill(camera)
    look(camera)
    camera.wait_log("records_delete_oldest: Received SIGBUS", 20, mark)
    camera.wait_log("records_delete_oldest: Bad address", 20, mark)
    # The folder is opened again and the list made from its names; with the next clip the oldest go as ever.
    wait_clips(camera, times)
    camera.wait_state("full")
    all_times = times + record(camera, 1, start=times[-1] + 10)
    camera.wait_state("normal")
    assert wait_daemon(camera) == pid, "the daemon did not survive"
    return wait_newest(camera, all_times[1:])


def wait_newest(camera: Camera, times: list[int]) -> list[int]:
    """Waits until some clips are in the index and they are the newest of these; returns them."""
    def newest() -> list[int]:
        kept = clips(camera)
        return kept if kept == times[-len(kept):] else []
    return list(wait_until(newest, 20, "the newest clips in the index, and nothing else"))


def test_a_fault_while_deleting_is_survived(camera: Camera, card: MakeCard) -> None:
    promise("the list vanishes while the oldest clip is looked for",
            "deleting fails with EFAULT and the daemon goes on")
    pid = new_daemon(camera)
    insert_normal(camera, card("fat"))
    survive_a_fault(camera, record(camera, 12, "300k"), pid)


def test_the_second_fault_ends_the_daemon_and_it_finds_its_way(camera: Camera, card: MakeCard) -> None:
    promise("the loop thread meets another fault after one that it survived",
            "the kernel ends the process by SIGBUS, without a dump")
    pid = new_daemon(camera)
    insert_normal(camera, card("fat"))
    times = survive_a_fault(camera, record(camera, 12, "300k"), pid)
    cut_list(camera, pid)
    fill(camera)
    look(camera)
    wait_daemon(camera, pid)
    camera.wait_state("normal")
    wait_newest(camera, times)


def test_a_fault_elsewhere_ends_the_daemon_and_it_finds_its_way(camera: Camera, card: MakeCard) -> None:
    promise("a bus fault happens outside of the region",
            '"SIGBUS information: si_code = %d, si_addr = %p", the memory map right behind it, "SIGBUS Abort!", and the '
            "process ends by SIGABRT")
    pid = new_daemon(camera)
    insert_normal(camera, card("fat"))
    times = record(camera, 5)
    cut_list(camera, pid)
    camera.publish("karvel/mem/default/sdcard_kyt", f"{times[-1] + 10},10")
    wait_daemon(camera, pid)
    camera.wait_state("normal")
    wait_clips(camera, times)
