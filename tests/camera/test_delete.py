"""Clips deleted on request: by threads of the daemon's own, beside everything else that happens to a card."""

import json
import re
import time
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest
from cards import MIB, RECORD_DIR
from conftest import clips, files, insert_clips, insert_normal, record, wait_clips, wait_daemon, wait_protected
from vcam import Camera, wait_until

MakeCard = Callable[..., Path]
ACTION = "vesk/vesk_sdcard/action/"
# Writes a second while threads are to be found at work: each clip takes four. What looks at the card then waits for its
# turn among them.
HELD_IOPS = 8
INDEX_DELAY_S = 2.5  # a change of the index is on the card by then


@pytest.fixture
def unthrottled(camera: Camera) -> Iterator[None]:
    yield
    camera.unthrottle()


def request(camera: Camera, action: str, times: list[int]) -> None:
    assert json.loads(camera.bus.request(ACTION + action, json.dumps(times), 60)) == {"code": 0}


def delete(camera: Camera, times: list[int]) -> None:
    request(camera, "deleteVideo", times)


def names(times: list[int]) -> set[str]:
    return {time.strftime("%Y%m%d_%H%M%S", time.gmtime(ts)) for ts in times}


def on_card(camera: Camera) -> set[str]:
    """The clips of which a file is left."""
    return {Path(name).stem for name in files(camera)}


def videos(camera: Camera) -> set[str]:
    return {Path(name).stem for name in files(camera) if name.endswith(".mp4")}


def await_gone(camera: Camera, gone: list[int]) -> None:
    wait_until(lambda: not on_card(camera) & names(gone), 60, "the files to go", 0.3)


def await_workers(camera: Camera, since: int) -> int:
    """Waits until each thread that was started has ended; the number of clips that they took."""
    def ended() -> bool:
        lines = camera.log_since(since).split("\n")[:-1]
        started = sum("del_list_thread_num = " in line for line in lines)
        return 0 < started == sum("del_list file_count = " in line for line in lines)
    wait_until(ended, 90, "the threads' end", 0.2)
    counts = [line.split("file_count = ")[1] for line in camera.log_since(since).split("\n") if "file_count = " in line]
    return sum(int(count.split("=")[0]) for count in counts)


def is_indexed(camera: Camera, ts: int) -> bool:
    """Asks the daemon alone, by protecting the clip: looking at the card would wait for whoever holds it."""
    mark = camera.log_mark()
    request(camera, "saveVideo", [ts, 1])
    camera.wait_log("Error mark 1 as persistent", 60, mark)  # no clip is so old
    return f"Error mark {ts} as persistent" not in camera.log_since(mark)


def put_back(camera: Camera, made: Path) -> None:
    """Pulls the card and puts it in again, when what the index has forgotten is on the card as well."""
    settled = time.monotonic() + INDEX_DELAY_S
    wait_until(lambda: time.monotonic() > settled, 2 * INDEX_DELAY_S, "the time that the index takes")
    camera.pull()
    camera.wait_state("not_exists")
    insert_normal(camera, made)


def test_delete_and_save_of_the_same_clips(camera: Camera, card: MakeCard) -> None:
    made = card("clips", count=60)
    times = insert_clips(camera, made, 60)
    first, second, kept = times[:20], times[20:40], times[40:]
    mark = camera.log_mark()
    for ts in first:  # nobody waits for an answer
        camera.publish(ACTION + "saveVideo", json.dumps([ts]))
        camera.publish(ACTION + "deleteVideo", json.dumps([ts]))
    for ts in second:
        camera.publish(ACTION + "deleteSaveVideo", json.dumps([ts]))
        camera.publish(ACTION + "saveVideo", json.dumps([ts, kept[0]]))
    request(camera, "saveVideo", kept[-1:])
    wait_clips(camera, kept)  # protected ones are not spared, and what is deleted cannot be saved
    wait_protected(camera, [kept[0], kept[-1]])
    assert await_workers(camera, mark) == len(first + second)
    log = camera.log_since(mark)
    assert [log.count(f"Error mark {ts} as persistent. No such file or directory") for ts in second] == [1] * len(second)
    assert on_card(camera) == names(kept)
    put_back(camera, made)
    wait_clips(camera, kept)
    wait_protected(camera, [kept[0], kept[-1]])


def test_five_batches_at_once_and_a_sixth(camera: Camera, card: MakeCard, unthrottled: None) -> None:
    times = insert_clips(camera, card("clips", count=130), 130)
    pid = wait_daemon(camera)
    camera.slow(iops_wr=HELD_IOPS)
    mark = camera.log_mark()
    for i in range(6):
        delete(camera, times[20 * i:20 * i + 20])
    assert not is_indexed(camera, times[119]), "the index forgets at once"
    log = camera.log_since(mark)
    assert "file_count" not in log, "all are still at it"
    assert [log.count(f"del_list_thread_num = {n}") for n in (1, 2, 3, 4, 5, 6)] == [1, 1, 1, 1, 1, 0]
    assert log.count(" 5 del_list thread alerady running") == 1
    camera.unthrottle()
    assert await_workers(camera, mark) == 120, "each clip is taken once"
    wait_clips(camera, times[120:])
    assert on_card(camera) == names(times[120:])
    delete(camera, times[120:])
    await_gone(camera, times)
    assert camera.log_since(mark).count("del_list_thread_num = 1") == 2, "all five places are free again"
    assert wait_daemon(camera) == pid


def test_pulled_while_threads_delete(camera: Camera, card: MakeCard) -> None:
    pid = wait_daemon(camera)
    for round_ in range(2):
        made = card("clips", count=150)
        times = insert_clips(camera, made, 150)
        mark = camera.log_mark()
        for i in range(5):
            delete(camera, times[25 * i:25 * i + 25])
        wait_until(lambda: camera.log_since(mark).count("record_delete: unlink") > 30 * round_, 30, "the first to go", 0.01)
        camera.pull()
        camera.wait_state("not_exists")
        await_workers(camera, mark)
    # The torn card comes back in service, or read-only and then called broken.
    camera.insert(made)
    wait_until(lambda: camera.state() in ("normal", "broken"), 30, "the torn card's state")
    if camera.state() == "normal":
        # Nobody asked for the last 25 to go.
        wait_until(lambda: names(times[125:]) | videos(camera) <= names(clips(camera)), 20, "an index of what is there")
    camera.pull()
    camera.wait_state("not_exists")
    times = insert_clips(camera, card("clips", count=100), 100)
    mark = camera.log_mark()
    delete(camera, times)
    camera.wait_log("del_list_thread_num = 1", since=mark)
    await_gone(camera, times)
    assert wait_daemon(camera) == pid, "the daemon did not survive"


def test_everything_is_deleted_while_recording_goes_on(camera: Camera, card: MakeCard) -> None:
    insert_normal(camera, card("fat", 128 * MIB))
    pid = wait_daemon(camera)
    camera.spawn(f"vesk_recorder --size 30k --interval 0.1 --seconds 7 --start {int(time.time())}")
    mark = camera.log_mark()
    deleted: set[int] = set()

    def some_clips() -> list[int]:
        seen = clips(camera)
        return seen if len(seen) >= 5 else []
    for _ in range(3):
        now = wait_until(some_clips, 60, "clips", 0.2)
        delete(camera, now)
        deleted |= set(now)
    wait_until(some_clips, 60, "clips", 0.2)
    camera.run("killall vesk_recorder")
    assert await_workers(camera, mark) == len(deleted)

    def settled() -> bool:
        # The recorder was ended anywhere, between a clip's files and its announcement too.
        listed, there = names(clips(camera)), videos(camera)
        return listed <= there and len(there - listed) <= 1
    wait_until(settled, 20, "an index of what is there", 0.3)

    def only_these_are_gone() -> bool:
        # Parts of the lines may be mixed: several threads write to that log.
        log = camera.check(f"cat /mnt/sdcard/{RECORD_DIR}/op.log")
        saved = {int(ts) for ts in re.findall(r"(\d+): saved$", log, re.M)}
        return saved - deleted == set(clips(camera))
    wait_until(only_these_are_gone, 10, "what was asked for to be gone, and nothing else", 0.3)
    assert not on_card(camera) & names(sorted(deleted))
    assert camera.state() == "normal"
    assert wait_daemon(camera) == pid


def test_the_daemon_ends_while_threads_delete(camera: Camera, card: MakeCard, unthrottled: None) -> None:
    insert_clips(camera, card("clips", count=500), 500)
    for _ in range(2):
        times = clips(camera)
        pid = wait_daemon(camera)
        camera.slow(iops_wr=8 * HELD_IOPS)
        mark = camera.log_mark()
        for i in range(5):
            delete(camera, times[i:300:5])
        camera.wait_log("record_delete: unlink", 60, mark)
        camera.check(f"kill {pid}")
        assert "ended with code 0" in camera.wait_log("ended with code ", 90, mark), "an orderly end"
        camera.unthrottle()
        wait_daemon(camera, other_than=pid)
        camera.wait_log("The record msg load successfully", 60, mark)
        camera.wait_state("normal")
        # What was not deleted yet is a clip as any other.
        wait_until(lambda: names(clips(camera)) == videos(camera), 30, "an index of what is there", 0.3)
        assert set(times[300:]) < set(clips(camera)), "its threads were still at work"
        assert len(clips(camera)) < len(times)


def test_a_deleted_clip_is_announced_again(camera: Camera, card: MakeCard, unthrottled: None) -> None:
    made = card("clips", count=65)
    times = insert_clips(camera, made, 65)
    again = times[60]
    # Its files are gone when the new ones come: a clip as any other.
    delete(camera, times[:1])
    wait_clips(camera, times[1:])
    await_gone(camera, times[:1])
    record(camera, 1, "20k", times[0])
    wait_clips(camera, times)
    # Announced before the thread has come to it: it is in the index, and its files go under it.
    camera.slow(iops_wr=HELD_IOPS)
    mark = camera.log_mark()
    delete(camera, times[1:61])
    camera.publish("karvel/mem/default/sdcard_kyt", f"{again},60", retain=True)
    wait_until(lambda: is_indexed(camera, again), 60, "the announced clip in the index")
    assert "file_count" not in camera.log_since(mark), "the thread is still at it"
    camera.unthrottle()
    assert await_workers(camera, mark) == 60
    wait_clips(camera, [times[0], *times[60:]])
    assert on_card(camera) == names([times[0], *times[61:]])
    put_back(camera, made)
    wait_until(lambda: set(clips(camera)) - {again} == {times[0], *times[61:]}, 20, "the clips in the index")
    # What has no files goes from the index with the next request, as every clip does.
    delete(camera, [times[0], again])
    wait_clips(camera, times[61:])
    await_gone(camera, times[:61])
