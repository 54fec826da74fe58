"""vesk_recorder: its files, its announcements, and how it ends when something is missing."""

from __future__ import annotations

import json
import resource
import shutil
import signal
import struct
import subprocess
import time
from pathlib import Path

import pytest
from conftest import BIN, MORTAL, Broker, Listener, command, environment, files, make_list, run, until

MEDIA = Path(__file__).resolve().parent.parent.parent / "tools/media"
START = 1795226400  # 2026-11-21T02:00:00Z, the first second of a period
TOPIC = "karvel/mem/default/sdcard_kyt"


def recorder(card: Path | str, *arguments: object, **more: str) -> subprocess.CompletedProcess[str]:
    return run("vesk_recorder", "--folder", card, "--interval", 0, "--start", START, *arguments, **more)


def boxes(video: bytes) -> list[tuple[str, int]]:
    """The top-level boxes as (type, length); they must fill the file exactly."""
    found = []
    at = 0
    while at < len(video):
        assert at + 8 <= len(video), "a box header is cut short"
        length, kind = struct.unpack(">I4s", video[at:at + 8])
        assert length >= 8 and at + length <= len(video), f"the box at {at} leaves the file"
        found.append((kind.decode("ascii"), length))
        at += length
    return found


def announced(listener: Listener) -> list[str]:
    return [line.removeprefix(f"0 {TOPIC} ") for line in listener.messages()]


def test_paths_and_plain_files(card: Path) -> None:
    done = recorder(card, "--no-announce", "--count", 3, "--seconds", 60, "--start", "2026-11-21T02:58:30Z")
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    bases = ["2026112102/20261121_025830", "2026112102/20261121_025930", "2026112103/20261121_030030"]
    assert files(card) == sorted(base + end for base in bases for end in (".jpeg", ".mp4"))
    for base in bases:
        assert (card / f"{base}.mp4").read_bytes() == (MEDIA / "clip.mp4").read_bytes()
        assert (card / f"{base}.jpeg").read_bytes() == (MEDIA / "clip.jpeg").read_bytes()


def test_media_are_what_they_are_called() -> None:
    picture = (MEDIA / "clip.jpeg").read_bytes()
    assert picture[:3] == b"\xff\xd8\xff" and picture[-2:] == b"\xff\xd9"
    video = (MEDIA / "clip.mp4").read_bytes()
    assert [kind for kind, _ in boxes(video)][:2] == ["ftyp", "moov"] and b"avc1" in video


SMALLEST = (MEDIA / "clip.mp4").stat().st_size + 8  # room for a box without content


@pytest.mark.parametrize("text, size", [(str(SMALLEST), SMALLEST), (str(SMALLEST + 1), SMALLEST + 1), ("4k", 4096),
                                        ("100000", 100000), ("3M", 3 << 20)])
def test_size_is_exact_and_the_video_valid(card: Path, text: str, size: int) -> None:
    assert recorder(card, "--no-announce", "--count", 1, "--size", text).returncode == 0
    path = card / "2026112102/20261121_020000.mp4"
    video = path.read_bytes()
    plain = (MEDIA / "clip.mp4").read_bytes()
    assert len(video) == size
    assert video.startswith(plain)
    assert boxes(video) == [*boxes(plain), ("free", size - len(plain))]
    if shutil.which("ffprobe"):
        seen = subprocess.run(["ffprobe", "-v", "error", "-count_frames", "-show_entries",
                               "stream=codec_name,nb_read_frames", "-of", "csv=p=0", path],
                              capture_output=True, text=True, check=True)
        assert (seen.stdout.strip(), seen.stderr) == ("h264,10", "")


def test_announcements_follow_the_clips(broker: Broker, card: Path) -> None:
    listener = Listener(broker, TOPIC)
    done = recorder(card, "--count", 4, "--seconds", 30, "--bus", broker.address)
    heard = announced(listener)
    listener.end()
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    assert heard == [f"{START + 30 * i},30" for i in range(4)]


def test_announcement_is_not_kept(broker: Broker, card: Path) -> None:
    assert recorder(card, "--count", 1, VESK_BUS=broker.address).returncode == 0
    late = Listener(broker, TOPIC)
    heard = late.messages()
    late.end()
    assert heard == []


def test_persistent(broker: Broker, card: Path) -> None:
    listener = Listener(broker, TOPIC)
    assert recorder(card, "--count", 1, "--seconds", 255, "--persistent", "--bus", broker.address).returncode == 0
    heard = announced(listener)
    listener.end()
    assert heard == [f"{START},255,1"]


def test_shuffle_announces_each_once_in_another_order(broker: Broker, card: Path) -> None:
    listener = Listener(broker, TOPIC)
    assert recorder(card, "--count", 50, "--seconds", 1, "--shuffle", 20, "--bus", broker.address).returncode == 0
    heard = announced(listener)
    listener.end()
    made = [f"{START + i},1" for i in range(50)]
    assert heard != made and sorted(heard) == made
    for low, high in ((0, 20), (20, 40), (40, 50)):  # mixed within what was held back together
        assert sorted(heard[low:high]) == made[low:high] and heard[low:high] != made[low:high]


def test_clip_is_complete_before_it_is_announced(broker: Broker, card: Path) -> None:
    recording = subprocess.Popen(MORTAL + command("vesk_recorder", "--folder", card, "--interval", 0, "--start", START,
                                         "--count", 2, "--size", "1M", "--bus", broker.address), env=environment())
    broker.freeze()  # from here on nothing is acknowledged
    try:
        until(lambda: "2026112102/20261121_020000.mp4" in files(card), "the first clip")
        time.sleep(0.5)  # would be enough for many clips
        assert files(card) == ["2026112102/20261121_020000.jpeg", "2026112102/20261121_020000.mp4"]
        assert (card / "2026112102/20261121_020000.mp4").stat().st_size == 1 << 20
    finally:
        recording.kill()
        recording.wait()


def test_made_clips_are_found_by_the_index(card: Path) -> None:
    assert recorder(card, "--no-announce", "--count", 3, "--seconds", 60).returncode == 0
    make_list(card)
    listed = json.loads(run("veskctl", "--json", "clips", card).stdout)
    assert [clip["ts"] for clip in listed] == [START, START + 60, START + 120]


def test_interval_paces(card: Path) -> None:
    before = time.monotonic()
    assert recorder(card, "--no-announce", "--count", 3, "--interval", 0.4).returncode == 0
    assert time.monotonic() - before >= 0.8


def test_interval_is_the_length_unless_given(card: Path) -> None:
    before = time.monotonic()
    done = run("vesk_recorder", "--folder", card, "--start", START, "--no-announce", "--count", 2, "--seconds", 1)
    assert done.returncode == 0 and time.monotonic() - before >= 1


def test_start_is_now_unless_given(card: Path) -> None:
    before = int(time.time())
    assert run("vesk_recorder", "--folder", card, "--no-announce", "--count", 1).returncode == 0
    (name,) = (path for path in files(card) if path.endswith(".mp4"))
    made = [time.strftime("%Y%m%d%H/%Y%m%d_%H%M%S.mp4", time.gmtime(ts)) for ts in range(before, int(time.time()) + 1)]
    assert name in made


def test_no_service(tmp_path: Path, card: Path) -> None:
    before = time.monotonic()
    done = recorder(card, "--count", 5, "--bus", f"unix:{tmp_path}/nobody")
    assert done.returncode == 3 and done.stdout == ""
    assert done.stderr == f"vesk_recorder: the announcement of {START} was not taken at unix:{tmp_path}/nobody\n"
    assert time.monotonic() - before < 20
    assert len(files(card)) == 2


def test_frozen_service(broker: Broker, card: Path) -> None:
    broker.freeze()
    before = time.monotonic()
    done = recorder(card, "--count", 5, "--bus", broker.address)
    assert done.returncode == 3 and "was not taken" in done.stderr
    assert 9 <= time.monotonic() - before < 20


def test_service_that_comes_late_is_waited_for(tmp_path: Path, card: Path) -> None:
    recording = subprocess.Popen(MORTAL + command("vesk_recorder", "--folder", card, "--start", START, "--count", 1,
                                         "--bus", f"unix:{tmp_path}/sock"), env=environment())
    until(lambda: len(files(card)) == 2, "the clip")
    assert recording.poll() is None
    broker = Broker(tmp_path)
    try:
        assert recording.wait(timeout=20) == 0
    finally:
        recording.kill()
        broker.end()


def test_keep_going_without_service(tmp_path: Path, card: Path) -> None:
    done = recorder(card, "--count", 2, "--keep-going", "--bus", f"unix:{tmp_path}/nobody")
    assert done.returncode == 3 and done.stderr.count("was not taken") == 2
    assert len(files(card)) == 4


def test_no_card(tmp_path: Path) -> None:
    done = recorder(tmp_path / "gone", "--no-announce", "--count", 2)
    assert done.returncode == 4
    assert done.stderr == f"vesk_recorder: {tmp_path}/gone/2026112102: No such file or directory\n"
    assert not (tmp_path / "gone").exists()


def test_keep_going_without_card(tmp_path: Path) -> None:
    done = recorder(tmp_path / "gone", "--no-announce", "--count", 3, "--keep-going")
    assert done.returncode == 4 and len(done.stderr.splitlines()) == 3


def limit_file_size() -> None:
    signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
    resource.setrlimit(resource.RLIMIT_FSIZE, (65536, 65536))


@pytest.mark.parametrize("more, tried", [([], 1), (["--keep-going"], 3)])
def test_full_card_leaves_no_half_clip(card: Path, more: list[str], tried: int) -> None:
    done = subprocess.run(command("vesk_recorder", "--folder", card, "--interval", 0, "--start", START, "--no-announce",
                                  "--count", 3, "--size", "1M", *more),
                          env=environment(), capture_output=True, text=True, preexec_fn=limit_file_size, timeout=60)
    assert done.returncode == 1
    assert done.stderr.count(": File too large\n") == tried
    assert [name for name in files(card) if not name.endswith(".jpeg")] == []


def test_held_back_announcements_are_made_when_the_card_fills(broker: Broker, card: Path) -> None:
    (card / "2026112103").write_text("in the way of the second period's folder")
    listener = Listener(broker, TOPIC)
    done = recorder(card, "--count", 4, "--seconds", 60, "--start", START + 3540, "--shuffle", 3, "--bus", broker.address)
    heard = announced(listener)
    listener.end()
    assert done.returncode == 1
    assert heard == [f"{START + 3540},60"]


def test_a_folder_too_long_to_name_is_refused(card: Path) -> None:
    done = recorder("/" + "./" * 2100 + str(card), "--no-announce", "--count", 1)
    assert done.returncode == 1 and "File name too long" in done.stderr
    assert files(card) == []


def test_the_last_second_of_the_range(card: Path) -> None:
    done = recorder(card, "--no-announce", "--count", 2, "--seconds", 1, "--start", 4294967295, "--keep-going")
    assert done.returncode == 1
    assert done.stderr == "vesk_recorder: no time is left after 4294967295\n"
    assert len(files(card)) == 2


@pytest.mark.parametrize("arguments", [
    ["--count", "0"], ["--count", "-1"], ["--count", "x"], ["--count", ""], ["--count", "4294967296"],
    ["--count", "99999999999999999999"], ["--size", "0"], ["--size", str(SMALLEST - 1)], ["--size", "4G"],
    ["--size", "k"], ["--size", "1T"], ["--start", "0"], ["--start", "4294967296"], ["--start", "yesterday"],
    ["--start", "2026-02-29T00:00:00Z"], ["--start", "2026-11-21T02:00:60Z"], ["--start", "2026-11-21 02:00:00"],
    ["--seconds", "0"], ["--seconds", "256"], ["--interval", "-1"], ["--interval", "nan"], ["--interval", "inf"],
    ["--interval", "1s"], ["--shuffle", "0"], ["--shuffle", "4097"], ["--bus", "nonsense"]])
def test_bad_value(card: Path, arguments: list[str]) -> None:
    done = recorder(card, "--no-announce", *arguments)
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr == f'vesk_recorder: {arguments[0]} cannot be "{arguments[1]}"\n'
    assert files(card) == []


@pytest.mark.parametrize("arguments", [["--what"], ["--count"], ["clip"]])
def test_bad_command_line(card: Path, arguments: list[str]) -> None:
    done = recorder(card, "--no-announce", *arguments)
    assert (done.returncode, done.stdout) == (2, "") and done.stderr
    assert files(card) == []


def test_help_and_version() -> None:
    helped = run("vesk_recorder", "--help")
    assert helped.returncode == 0 and helped.stderr == ""
    for said in ("--count", "--size", "--start", "--seconds", "--interval", "--persistent", "--shuffle", "--no-announce",
                 "--keep-going", "--folder", "--bus", "exit codes: 0 done"):
        assert said in helped.stdout
    assert run("vesk_recorder", "--version").stdout.startswith("vesk_recorder ")


def test_needs_no_cxx_run_time() -> None:
    needed = subprocess.run(["objdump", "-p", BIN / "vesk_recorder"], capture_output=True, text=True, check=True).stdout
    assert "NEEDED" in needed and "libstdc++" not in needed
