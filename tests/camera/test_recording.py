"""Clips: announced, indexed, deleted when the card is full, and there again after whatever happened to the card."""

import time
from collections.abc import Callable
from pathlib import Path

from cards import MIB, RECORD_DIR, clip_path, filesystem_offset, list_dir, read_file
from conftest import clips, files, insert_clips, insert_normal, record, wait_clips, wait_daemon
from vcam import Camera, wait_until

MakeCard = Callable[..., Path]
HOUR = 3600


def test_announced_clips_are_indexed(camera: Camera, card: MakeCard) -> None:
    insert_normal(camera, card("fat"))
    times = record(camera, 5)
    wait_clips(camera, times)
    log = camera.check(f"cat /mnt/sdcard/{RECORD_DIR}/op.log")
    assert [log.count(f"{ts}: saved") for ts in times] == [1] * 5


def test_clips_announced_out_of_order_are_listed_in_order(camera: Camera, card: MakeCard) -> None:
    insert_normal(camera, card("fat"))
    start = int(time.time())
    camera.check(f"vesk_recorder --count 12 --size 30k --interval 0 --start {start} --shuffle 6", 60)
    expected = list(range(start, start + 120, 10))
    wait_clips(camera, expected)


def test_an_announcement_that_is_none_changes_nothing(camera: Camera, card: MakeCard) -> None:
    insert_normal(camera, card("fat"))
    times = record(camera, 2)
    for value in ("", "0", "abc", "123,", "-5", "99999999999", "1,2,3,4", "x" * 5000):
        camera.publish("karvel/mem/default/sdcard_kyt", value, retain=True)
    times += record(camera, 1, start=times[-1] + 10)
    wait_clips(camera, times)


def test_the_same_clip_again_overwrites(camera: Camera, card: MakeCard) -> None:
    insert_normal(camera, card("fat"))
    times = record(camera, 3)
    mark = camera.log_mark()
    camera.publish("karvel/mem/default/sdcard_kyt", f"{times[1]},20", retain=True)
    camera.wait_log(f"Overwrite {times[1]}", since=mark)
    wait_clips(camera, times)


def test_a_clip_without_a_card_is_lost_and_said_so(camera: Camera, card: MakeCard) -> None:
    mark = camera.log_mark()
    camera.publish("karvel/mem/default/sdcard_kyt", "1795231084,10", retain=True)
    camera.wait_log("The kyt is currently unusable, 1795231084 lost!", since=mark)


def test_the_oldest_clips_go_when_the_card_is_full(camera: Camera, card: MakeCard) -> None:
    # 40 MiB of the card stay free; what is left of it takes about 22 clips of 1 MiB.
    insert_normal(camera, card("fat"))
    start = int(time.time()) - 6 * HOUR
    camera.check(f"vesk_recorder --count 40 --size 1M --interval 0 --seconds 240 --start {start}", 240)
    times = list(range(start, start + 40 * 240, 240))
    wait_until(lambda: times[-1] in clips(camera), 20, "the last clip")
    kept = clips(camera)
    assert kept == times[-len(kept):], "only the oldest may go"
    assert 15 <= len(kept) <= 25
    camera.wait_state("normal")
    assert int(camera.check("df -k /mnt/sdcard | awk 'END { print $4 }'")) >= 40960
    assert len(files(camera)) == 2 * len(kept), "files of deleted clips are gone, those of the others are there"
    folders = camera.check(f"ls -d /mnt/sdcard/{RECORD_DIR}/20*").split()
    assert len(folders) == len({ts // HOUR for ts in kept}), "a period without clips has no folder"


def test_a_protected_clip_outlives_newer_ones(camera: Camera, card: MakeCard) -> None:
    insert_normal(camera, card("fat"))
    start = int(time.time()) - 6 * HOUR
    protected = record(camera, 2, "1M", start, "--persistent")
    camera.check(f"vesk_recorder --count 26 --size 1M --interval 0 --start {start + 100}", 240)
    wait_until(lambda: start + 100 + 250 in clips(camera), 20, "the last clip")
    kept = clips(camera)
    assert kept[:2] == protected
    assert start + 100 not in kept


def test_clips_are_there_after_pull_and_return(camera: Camera, card: MakeCard) -> None:
    made = card("fat")
    insert_normal(camera, made)
    times = record(camera, 4)
    camera.pull()
    camera.wait_state("not_exists")
    insert_normal(camera, made)
    # What was indexed in the last moment before the pull may come from the folder instead: it is there all the same.
    wait_clips(camera, times)


def test_clips_on_a_card_without_an_index_are_found(camera: Camera, card: MakeCard) -> None:
    found = insert_clips(camera, card("clips", 256 * MIB, count=500, video_bytes=20_000), 500)
    assert found == sorted(found)


def test_a_clock_that_jumps_loses_no_clip(camera: Camera, card: MakeCard) -> None:
    insert_normal(camera, card("fat"))
    now = int(time.time())
    times = []
    for jump in (0, 400 * 24 * HOUR, -2 * HOUR, -500 * 24 * HOUR):
        camera.check(f"date -s @{now + jump}")
        times += record(camera, 2, start=now + jump)
    wait_clips(camera, sorted(times))
    camera.wait_state("normal")
    camera.check(f"date -s @{int(time.time())}")
    # Timers go on: the next card is noticed in the usual time.
    camera.pull()
    camera.wait_state("not_exists", 10)


def test_a_power_cut_while_recording_keeps_what_was_indexed(own_camera: Camera, card: MakeCard) -> None:
    made = card("fat", 128 * MIB)
    own_camera.start(made, deadline=200)
    own_camera.wait_state("normal")
    own_camera.spawn("vesk_recorder --size 200k --interval 0 --seconds 5")
    wait_until(lambda: len(clips(own_camera)) >= 15, 60, "fifteen clips")
    before = clips(own_camera)
    seen = time.monotonic()
    wait_until(lambda: time.monotonic() - seen > 2.5, 5, "two seconds to pass")
    own_camera.power_cut()

    on_card = {Path(name).stem for name in list_dir(made, RECORD_DIR)}
    assert {Path(clip_path(ts)).stem for ts in before} <= on_card
    own_camera.start(made, deadline=200)
    own_camera.wait_state("normal")
    wait_until(lambda: set(before) <= set(clips(own_camera)), 20, "what was indexed before")
    own_camera.wait_log("kyt: the list was not closed")


def test_the_index_alone_has_what_was_indexed_two_seconds_before_a_power_cut(own_camera: Camera, card: MakeCard) -> None:
    """Not the folder's names but the list on the card itself is looked at, as it was at the cut."""
    made = card("fat", 128 * MIB)
    own_camera.start(made, deadline=200)
    own_camera.wait_state("normal")
    times = record(own_camera, 10)
    seen = time.monotonic()
    wait_until(lambda: time.monotonic() - seen > 2.0, 5, "two seconds to pass")
    own_camera.power_cut()
    content = read_file(made, f"{RECORD_DIR}/KYT.LST")
    stored = {int.from_bytes(content[at:at + 4], "little") for at in range(4096, len(content), 8)}
    assert set(times) <= stored
    assert filesystem_offset(made) > 0


def test_a_cold_start_with_thousands_of_clips_keeps_the_daemon_small(camera: Camera, card: MakeCard) -> None:
    insert_clips(camera, card("clips", 512 * MIB, count=4000), 4000)
    pid = wait_daemon(camera)
    anonymous = camera.check(f"awk '/^Pss_Anon/ {{ print $2 }}' /proc/{pid}/smaps_rollup")
    assert int(anonymous) < 2000
