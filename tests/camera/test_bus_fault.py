"""A mapped file of the clip index cut short under the daemon: the kernel answers the next look at it with a bus fault, as
it does when the card is pulled. While deleting it is survived once; anywhere else, and the second time, it ends the daemon,
which starts again. Our own index maps nothing: `mapped_kyt` stands in for one that does."""

import re
from collections.abc import Callable
from pathlib import Path

from conftest import clips, insert_normal, record, wait_clips, wait_daemon
from jobs import ERRORS, MAPPED_FILE
from promise import promise, promises
from vcam import Camera, wait_until

promises("main")

MakeCard = Callable[..., Path]
# The supervisor's shell adds 128 to the signal.
ABORTED = "ended with code 134"
KILLED_BY_SIGBUS = "ended with code 138"  # 10 on MIPS


def look(camera: Camera) -> None:
    """Has the daemon look at the card, and not at the list before that."""
    camera.check("echo change > /sys/block/mmcblk0/uevent")


def cut_mapped(camera: Camera) -> None:
    """Takes the mapped file's content away. The daemon's mapping stays, with nothing behind it."""
    assert MAPPED_FILE in camera.check(f"cat /proc/{wait_daemon(camera)}/maps")
    camera.check(f": > {MAPPED_FILE}")


def errors(camera: Camera) -> str:
    """What the daemons have said on standard error."""
    return camera.get_file(ERRORS).decode()


def fill(camera: Camera) -> None:
    """Takes space until the card is short of it by less than the oldest clips give back."""
    free_kib = int(camera.check("df -k /mnt/sdcard | awk 'END { print $4 }'"))
    over = free_kib - 40960 + 600
    camera.check(f"dd if=/dev/zero bs=1k count={over} >> /mnt/sdcard/filler 2>/dev/null", 60)


def survive_a_fault(camera: Camera, times: list[int]) -> list[int]:
    """The clips left when all is well again."""
    pid = wait_daemon(camera)
    said = errors(camera)
    mark = camera.log_mark()
    cut_mapped(camera)
    fill(camera)
    look(camera)
    camera.wait_log("records_delete_oldest: Received SIGBUS", 20, mark)
    camera.wait_log("records_delete_oldest: Bad address", 20, mark)
    # The folder is opened again, no clip is missing, and with the next one the oldest go as ever.
    camera.wait_log("The record msg load successfully", 20, mark)
    wait_clips(camera, times)
    camera.wait_state("full")
    all_times = times + record(camera, 1, start=times[-1] + 10)
    camera.wait_state("normal")
    assert wait_daemon(camera) == pid, "the daemon did not survive"
    assert errors(camera) == said
    return wait_newest(camera, all_times[1:])


def wait_newest(camera: Camera, times: list[int]) -> list[int]:
    """Waits until some clips are in the index and they are the newest of these; returns them."""
    def newest() -> list[int]:
        kept = clips(camera)
        return kept if kept == times[-len(kept):] else []
    return list(wait_until(newest, 20, "the newest clips in the index, and nothing else"))


def test_a_fault_while_deleting_is_survived(mapped: Camera, card: MakeCard) -> None:
    promise("the list vanishes while the oldest clip is looked for",
            "deleting fails with EFAULT and the daemon goes on")
    insert_normal(mapped, card("fat"))
    survive_a_fault(mapped, record(mapped, 12, "300k"))


def test_the_second_fault_ends_the_daemon_without_a_dump_and_it_finds_its_way(mapped: Camera, card: MakeCard) -> None:
    """The signal stays blocked after the first one: there is no handler to come to, and the kernel ends the process."""
    promise("the loop thread meets another fault after one that it survived",
            "the kernel ends the process by SIGBUS, without a dump")
    insert_normal(mapped, card("fat"))
    times = survive_a_fault(mapped, record(mapped, 12, "300k"))
    pid = wait_daemon(mapped)
    said = errors(mapped)
    mark = mapped.log_mark()
    cut_mapped(mapped)
    fill(mapped)
    look(mapped)
    assert mapped.wait_log("ended with code", 20, mark).endswith(f"{KILLED_BY_SIGBUS}, starting it again")
    assert errors(mapped) == said
    wait_daemon(mapped, pid)
    mapped.wait_state("normal")
    wait_newest(mapped, times)


def test_a_fault_elsewhere_ends_the_daemon_with_a_dump_and_it_finds_its_way(mapped: Camera, card: MakeCard) -> None:
    promise("a bus fault happens outside of the region",
            '"SIGBUS information: si_code = %d, si_addr = %p", the memory map right behind it, "SIGBUS Abort!", and the '
            "process ends by SIGABRT")
    insert_normal(mapped, card("fat"))
    times = record(mapped, 5)
    pid = wait_daemon(mapped)
    said = errors(mapped)
    mark = mapped.log_mark()
    cut_mapped(mapped)
    mapped.publish("karvel/mem/default/sdcard_kyt", f"{times[-1] + 10},10")
    assert mapped.wait_log("ended with code", 20, mark).endswith(f"{ABORTED}, starting it again")
    # This processor's kernel passes a handler like the daemon's no information. The map begins right behind the line.
    dump = re.fullmatch(r"SIGBUS information: si_code = 0, si_addr = \(nil\)([0-9a-f]+-.*\n)SIGBUS Abort!",
                        errors(mapped).removeprefix(said), re.S)
    assert dump, errors(mapped)
    table = dump[1].splitlines()
    assert all(re.match(r"[0-9a-f]+-[0-9a-f]+ [r-][w-][x-][ps] ", line) for line in table), table
    assert [line for line in table if line.endswith(" /usr/sbin/vesk_sdcard")] and [line for line in table if line.endswith(f" {MAPPED_FILE}")]
    wait_daemon(mapped, pid)
    mapped.wait_state("normal")
    wait_clips(mapped, times)
