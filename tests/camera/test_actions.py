"""The remote actions, asked over the bus as anybody would ask, and what they make of the card."""

import json
import os
import re
import subprocess
import time
from collections.abc import Callable
from pathlib import Path

from cards import MIB
from conftest import ROOT, clips, files, insert_clips, insert_normal, record, wait_clips, wait_daemon, wait_protected
from vcam import Camera, wait_until

MakeCard = Callable[..., Path]
ACTION = "vesk/vesk_sdcard/action/"


def ask(camera: Camera, name: str, parameters: object = None, timeout: float = 30) -> dict[str, object]:
    payload = parameters if isinstance(parameters, str) else json.dumps(parameters, separators=(",", ":"))
    return dict(json.loads(camera.bus.request(ACTION + name, payload, timeout)))


def code(camera: Camera, name: str, parameters: object = None) -> object:
    answer = ask(camera, name, parameters)
    assert list(answer) == ["code"], "nothing but a code"
    return answer["code"]


def no_files_of(camera: Camera, gone: list[int]) -> bool:
    left = {Path(name).stem for name in files(camera)}
    return not left & {time.strftime("%Y%m%d_%H%M%S", time.gmtime(ts)) for ts in gone}


def documented_lines() -> list[str]:
    """The lines of the document that ask the card's actions, in its order."""
    lines = re.findall(r"^\$ASK/.*$", (ROOT / "docs/bus.md").read_text(), re.M)
    assert len(lines) == 6
    return lines


def run_line(camera: Camera, line: str, clip: int) -> dict[str, object]:
    """Runs a line of the document in a shell on this machine, for a clip that there is."""
    text = (ROOT / "docs/bus.md").read_text()
    ask_line = re.search(r"^ASK=.*$", text, re.M)
    assert ask_line
    host, port = camera.broker_address
    script = f"{ask_line[0]}\n{re.sub(r'1795224[0-9]+', str(clip), line)}\n"
    environment = {**os.environ, "BUS": f"-h {host} -p {port} -u admin -P admin"}
    run = subprocess.run(["sh", "-c", script], env=environment, capture_output=True, text=True, timeout=60, check=True)
    return dict(json.loads(run.stdout))


def test_the_documents_lines_in_its_order(camera: Camera, card: MakeCard) -> None:
    made = card("fat")
    insert_normal(camera, made)
    times = record(camera, 3)
    storage, save, delete, delete_saved, umount, erase = documented_lines()
    answer = run_line(camera, storage, times[0])
    assert answer["code"] == 0
    assert len(answer["result"]) == 4  # type: ignore[arg-type]
    assert run_line(camera, save, times[0]) == {"code": 0}
    wait_protected(camera, times[:1])
    assert run_line(camera, delete, times[1]) == {"code": 0}
    wait_clips(camera, [times[0], times[2]])
    assert run_line(camera, delete_saved, times[0]) == {"code": 0}
    wait_clips(camera, [times[2]])
    assert run_line(camera, umount, times[0]) == {"code": 0}
    camera.wait_state("eject")
    camera.pull()
    camera.wait_state("not_exists")
    insert_normal(camera, made)
    wait_clips(camera, [times[2]])
    mark = camera.log_mark()
    assert run_line(camera, erase, times[0]) == {"code": 0}
    camera.wait_log("closure: mkfs successful", 60, mark)
    camera.wait_state("normal")
    wait_clips(camera, [])


def test_storage_figures_are_those_of_the_filesystem(camera: Camera, card: MakeCard) -> None:
    insert_normal(camera, card("clips", count=150, video_bytes=12_345, image_bytes=777))
    answer = ask(camera, "sd_storge")
    assert list(answer) == ["code", "result"]
    block, blocks, available = (int(word) for word in camera.check("stat -f -c '%S %b %a' /mnt/sdcard").split())
    assert answer["result"] == [blocks * block, 150 * (12_345 + 777), available * block, 0]
    record(camera, 2, "300k")

    # For those who can name no response topic there is one that everybody knows.
    answers: list[bytes] = []
    camera.subscribe(ACTION + "sd_storge/reply", lambda message: answers.append(message.payload))
    camera.publish(ACTION + "sd_storge", "{}")
    wait_until(lambda: answers, 20, "the answer")
    assert json.loads(answers[0])["result"][1] >= 150 * (12_345 + 777) + 600_000


def test_a_full_card_says_so_in_its_figures(camera: Camera, card: MakeCard) -> None:
    insert_normal(camera, card("fat"))
    camera.check("dd if=/dev/zero of=/mnt/sdcard/filler bs=1024k count=24 && sync", 60)
    start = int(time.time())
    camera.check(f"vesk_recorder --count 1 --size 100k --interval 0 --start {start}", 60)  # has the card looked at
    camera.wait_state("full")
    answer = ask(camera, "sd_storge")
    assert answer["code"] == 0
    assert answer["result"][3] == 2  # type: ignore[index]
    assert answer["result"][2] < 40960 * 1024  # type: ignore[index]
    wait_clips(camera, [])  # deleted for space


def test_codes_of_a_card_that_is_not_there_or_not_to_be_used(camera: Camera, card: MakeCard) -> None:
    assert code(camera, "sd_storge") == -2003
    assert code(camera, "sd_format") == -2003
    assert code(camera, "sd_umount") == -2002
    assert code(camera, "deleteVideo", [1]) == 0
    mark = camera.log_mark()
    assert code(camera, "saveVideo", [1]) == 0
    camera.wait_log("Error mark 1 as persistent. Invalid argument", since=mark)

    camera.insert(card("fat"), write_protected=True)
    camera.wait_state("broken")
    assert code(camera, "sd_storge") == -2002
    assert code(camera, "sd_format") == -2003
    camera.pull()
    camera.wait_state("not_exists")

    insert_normal(camera, card("fat"))
    assert code(camera, "sd_umount") == 0
    camera.wait_state("eject")
    assert code(camera, "sd_storge") == -2005
    assert code(camera, "sd_format") == -2003
    assert code(camera, "sd_umount") == 0, "ejected already"


def test_busy_while_the_card_is_formatted(camera: Camera, card: MakeCard) -> None:
    insert_normal(camera, card("fat"))
    camera.slow(bps_wr=200_000)  # mkfs takes a while
    mark = camera.log_mark()
    assert code(camera, "sd_format") == 0
    assert [code(camera, name) for name in ("sd_storge", "sd_format", "sd_umount")] == [-2000, -2003, -2002]
    assert camera.log_since(mark).count("closure is busy") == 2
    camera.unthrottle()
    camera.wait_log("closure: mkfs successful", 120, mark)
    camera.wait_state("normal")


def test_delete_takes_clips_and_their_files(camera: Camera, card: MakeCard) -> None:
    insert_normal(camera, card("fat"))
    times = record(camera, 8)
    # Among what exists: what does not, text, twice the same, what is no clip at all, below 0, beyond 32 and 64 bits.
    request = [times[0], 5, None, str(times[2]), times[4] + (1 << 32), times[4], "x", [times[6]], -1, (1 << 64) + times[6],
               -(1 << 70), times[7] - (1 << 32)]
    assert code(camera, "deleteVideo", request) == 0
    kept = [times[i] for i in (1, 3, 5, 6)]
    wait_clips(camera, kept)
    wait_until(lambda: no_files_of(camera, [times[i] for i in (0, 2, 4, 7)]), 20, "the files to go")
    assert len(files(camera)) == 2 * len(kept)


def test_delete_spares_no_protected_clip(camera: Camera, card: MakeCard) -> None:
    insert_normal(camera, card("fat"))
    times = record(camera, 5)
    assert code(camera, "saveVideo", times[:4]) == 0
    wait_protected(camera, times[:4])
    for name, deleted in (("deleteVideo", times[2:4]), ("deleteSaveVideo", times[1:2])):
        assert code(camera, name, deleted) == 0
        wait_until(lambda gone=deleted: no_files_of(camera, gone), 20, "the files to go")
    wait_clips(camera, [times[0], times[4]])


def test_a_saved_clip_outlives_the_full_card_and_another_insertion(camera: Camera, card: MakeCard) -> None:
    made = card("fat")
    insert_normal(camera, made)
    start = int(time.time()) - 6 * 3600
    first = record(camera, 3, "1M", start)
    assert code(camera, "saveVideo", [first[0], 12345, first[2]]) == 0
    last = start + 1000 + 25 * 10
    camera.check(f"vesk_recorder --count 26 --size 1M --interval 0 --seconds 10 --start {start + 1000}", 240)
    wait_until(lambda: last in clips(camera), 10, "the last clip")
    assert clips(camera)[:2] == [first[0], first[2]]
    assert code(camera, "sd_umount") == 0
    camera.wait_state("eject")
    camera.pull()
    camera.wait_state("not_exists")
    insert_normal(camera, made)
    wait_protected(camera, [first[0], first[2]])


def test_bad_requests_are_answered_and_change_nothing(camera: Camera, card: MakeCard) -> None:
    insert_normal(camera, card("fat"))
    times = record(camera, 2)
    pid = wait_daemon(camera)
    for name in ("deleteVideo", "deleteSaveVideo", "saveVideo"):
        for parameters in ("", "start", "{}", f'{{"ts":[{times[0]}]}}', str(times[0]), "null", f"[{times[0]}", "[" * 40):
            assert code(camera, name, parameters) == -22, parameters
    for name in ("deletevideo", "sd_storage", "", "format"):
        assert code(camera, name) == -38, name
    for name in ("sd_format", "sd_umount", "sd_storge"):
        assert code(camera, name, "") == -22, name
    assert code(camera, "deleteVideo", "[" + "1," * 600_000 + "1]") == -7
    camera.publish(ACTION + "sd_format", "{}", retain=True)
    camera.publish(ACTION + "sd_format", "", retain=True)
    camera.wait_log("retained action sd_format ignored")
    # What one of them had changed would be on the card with, or before, what is asked for next.
    assert code(camera, "saveVideo", times[-1:]) == 0
    wait_protected(camera, times[-1:])
    assert clips(camera) == times
    assert camera.state() == "normal"
    assert wait_daemon(camera) == pid


def test_ten_thousand_elements_and_the_same_request_twice(camera: Camera, card: MakeCard) -> None:
    listed = insert_clips(camera, card("clips", 256 * MIB, count=300, video_bytes=4096), 300)
    pid = wait_daemon(camera)

    def anonymous_kib() -> int:
        return int(camera.check(f"awk '/^Pss_Anon/ {{ print $2 }}' /proc/{pid}/smaps_rollup"))
    others = list(range(listed[-1] + 1, listed[-1] + 10_001 - 100))
    before = 0
    for again in range(4):
        assert code(camera, "deleteVideo", listed[:100] + others) == 0
        wait_clips(camera, listed[100:])
        wait_until(lambda: no_files_of(camera, listed[:100]), 60, "the files to go")
        if again == 1:
            before = anonymous_kib()
    assert anonymous_kib() <= before + 64, "the daemon grows with each request"
    assert len(files(camera)) == 2 * 200
    assert wait_daemon(camera) == pid


def test_requests_while_the_broker_is_away_are_not_made_up_for(camera: Camera, card: MakeCard) -> None:
    insert_normal(camera, card("fat"))
    times = record(camera, 2)
    old = camera.check("pidof karveld")
    daemon = wait_daemon(camera)
    camera.check(f"kill -STOP {daemon}")  # so that it cannot be back at the new broker too early
    camera.check(f"kill -KILL {old}")
    wait_until(lambda: camera.run("pidof karveld").text not in ("", old), 20, "another broker")

    def reached_nobody() -> bool:
        try:
            ask(camera, "saveVideo", [times[0]], 2)
        except TimeoutError:
            return True
        except ConnectionError:
            return False  # the broker is not up yet
        raise AssertionError("a stopped daemon answers")
    wait_until(reached_nobody, 40, "a request that nobody takes", 0.2)
    camera.check(f"kill -CONT {daemon}")

    wait_until(lambda: ask(camera, "saveVideo", [times[1]], 2) == {"code": 0}, 40, "an answer", 0.2)
    wait_protected(camera, [times[1]])
    assert clips(camera) == times
