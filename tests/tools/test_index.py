"""veskctl index on folders and on images of cards, and veskctl clips --follow."""

from __future__ import annotations

import csv
import io
import json
import struct
import subprocess
import time
import zlib
from collections.abc import Callable
from pathlib import Path

import pytest
from conftest import MORTAL, command, environment, make_list, read_line, run

START = 1795226400  # 2026-11-21T02:00:00Z
FOLDER = "ZOLTA_RECORD_VIDEO"
LIST = "KYT.LST"
RECORDS_AT = 4096
CLIPS = 70


def clip_path(ts: int) -> str:
    return time.strftime("%Y%m%d%H/%Y%m%d_%H%M%S", time.gmtime(ts))


def add_clip(folder: Path, ts: int) -> None:
    base = folder / clip_path(ts)
    base.parent.mkdir(parents=True, exist_ok=True)
    for extension in (".jpeg", ".mp4"):
        Path(f"{base}{extension}").write_bytes(b"")


@pytest.fixture
def folder(tmp_path: Path) -> Path:
    """A card's top folder with clips and a list of them, the first one protected."""
    records = tmp_path / "card" / FOLDER
    records.mkdir(parents=True)
    make_list(records, *(f"{START + 60 * clip},60,{1 if clip == 0 else 0}" for clip in range(CLIPS)))
    for clip in range(CLIPS):
        add_clip(records, START + 60 * clip)
    return records


def image_of(folder: Path, partitioned: bool) -> Path:
    image = folder.parent.parent / "card.img"
    offset = 1024 * 1024 if partitioned else 0
    with image.open("wb") as out:
        out.truncate(48 * 1024 * 1024)
    if partitioned:
        subprocess.run(["sfdisk", "-q", image], input=f"start={offset // 512}, type=c\n", text=True, check=True)
    subprocess.run(["mkfs.fat", "--offset", str(offset // 512), image, str((48 * 1024 * 1024 - offset) // 1024)],
                   check=True, capture_output=True)
    subprocess.run(["mcopy", "-s", "-i", f"{image}@@{offset}", folder, "::/"], check=True)
    return image


def in_folder(folder: Path) -> Path:
    return folder


def in_card(folder: Path) -> Path:
    return folder.parent


def in_image(folder: Path) -> Path:
    return image_of(folder, partitioned=False)


def in_partition(folder: Path) -> Path:
    return image_of(folder, partitioned=True)


PLACES = [in_folder, in_card, in_image, in_partition]
Place = Callable[[Path], Path]


def checked(place: Path) -> tuple[int, dict]:
    done = run("veskctl", "index", "check", place, "--json")
    assert done.stderr == ""
    return done.returncode, json.loads(done.stdout)


@pytest.mark.parametrize("place", PLACES)
def test_check_of_a_list_in_order(folder: Path, place: Place) -> None:
    where = place(folder)
    before = where.read_bytes() if where.is_file() else (folder / LIST).read_bytes()
    done = run("veskctl", "index", "check", where)
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout == f"list      {LIST}, closed\nclips     {CLIPS} on the card, {CLIPS} in the list\nin order\n"
    assert before == (where.read_bytes() if where.is_file() else (folder / LIST).read_bytes())


@pytest.mark.parametrize("place", PLACES)
def test_check_says_what_is_wrong_and_repair_mends_it(folder: Path, place: Place) -> None:
    content = bytearray((folder / LIST).read_bytes())
    content[RECORDS_AT + 8 * 5 + 1] ^= 0x40
    (folder / LIST).write_bytes(content)
    add_clip(folder, START - 3600)
    gone = folder / f"{clip_path(START + 60 * 9)}.mp4"
    gone.unlink()
    where = place(folder)
    code, seen = checked(where)
    assert code == 5
    assert (seen["in_order"], seen["destroyed"], seen["clips_not_listed"], seen["records_without_clip"]) == (False, 1, 2, 1)
    text = run("veskctl", "index", "check", where).stdout
    assert "problem   1 records are destroyed\nproblem   2 clips on the card are not in the list\n" in text

    done = run("veskctl", "index", "repair", where)
    assert done.returncode == 0
    assert done.stderr.count("\n") == 1
    assert "1 of its records were destroyed" in done.stderr and "of them 2 from the folder" in done.stderr
    code, seen = checked(where)
    assert (code, seen["in_order"], seen["records"], seen["clips"]) == (0, True, CLIPS, CLIPS)
    kept = json.loads(run("veskctl", "index", "export", "--format", "json", where).stdout)
    assert [clip["ts"] for clip in kept if clip["persistent"]] == [START]


def sealed(content: bytes, offset: int, value: int) -> bytes:
    """With another number in the header, and the check that belongs to it."""
    head = bytearray(content[:60])
    head[offset:offset + 4] = struct.pack("<I", value)
    return bytes(head) + struct.pack("<I", zlib.crc32(head)) + content[64:]


DAMAGES: dict[str, tuple[Callable[[bytes], bytes], str]] = {
    "zeros": (lambda content: bytes(len(content)), "header_damaged"),
    "version": (lambda content: sealed(content, 12, 2), "other_version"),
    "cut": (lambda content: content[:RECORDS_AT + 200], "wrong_size"),
    "twice": (lambda content: content[:RECORDS_AT + 8] + content[RECORDS_AT:RECORDS_AT + 8] + content[RECORDS_AT + 16:],
              "twice"),
}


@pytest.mark.parametrize("damage", DAMAGES)
def test_check_names_the_damage(folder: Path, damage: str) -> None:
    change, name = DAMAGES[damage]
    (folder / LIST).write_bytes(change((folder / LIST).read_bytes()))
    code, seen = checked(folder)
    assert code == 5 and seen[name]


def test_a_list_of_another_card(folder: Path) -> None:
    (folder / LIST).write_bytes(sealed((folder / LIST).read_bytes(), 28, 0x12345678))
    assert checked(folder)[0] == 0  # a folder without a volume's number may be a copy of the right card
    code, seen = checked(image_of(folder, partitioned=True))
    assert code == 5 and seen["other_card"]


def test_check_without_a_list(folder: Path) -> None:
    (folder / LIST).unlink()
    code, seen = checked(folder)
    assert (code, seen["no_list"], seen["list"], seen["clips_not_listed"]) == (5, True, None, CLIPS)


def holder_of(folder: Path) -> subprocess.Popen[bytes]:
    """A program that uses the list, as the daemon does, until its standard input ends."""
    holder = subprocess.Popen([*MORTAL, *command("make_list", "--hold", folder)], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    assert read_line(holder.stdout) == "open\n"
    return holder


def test_repair_of_a_list_in_use_is_refused(folder: Path) -> None:
    holder = holder_of(folder)
    try:
        before = (folder / LIST).read_bytes()
        done = run("veskctl", "index", "repair", folder)
        assert (done.returncode, done.stdout) == (6, "")
        assert done.stderr == (f"veskctl: {folder}: the clip index is in use, and nothing was changed; eject the card or "
                               "stop vesk_sdcard first\n")
        assert (folder / LIST).read_bytes() == before
        assert run("veskctl", "index", "check", folder).stdout.startswith(f"list      {LIST}, not closed: in use")
    finally:
        holder.communicate(timeout=20)
    assert holder.returncode == 0
    assert run("veskctl", "index", "repair", folder).returncode == 0


def test_repair_waits_for_a_program_that_is_ending(folder: Path) -> None:
    holder = holder_of(folder)
    repair = subprocess.Popen(command("veskctl", "index", "repair", folder), env=environment(), stderr=subprocess.PIPE, text=True)
    with pytest.raises(subprocess.TimeoutExpired):
        repair.wait(0.5)  # it waits
    holder.communicate(timeout=20)
    assert repair.communicate(timeout=20)[1] is not None and repair.returncode == 0


@pytest.mark.parametrize("place", PLACES)
@pytest.mark.parametrize("what", ["check", "export"])
def test_of_a_folder_without_recordings(tmp_path: Path, place: Place, what: str) -> None:
    empty = tmp_path / "card" / FOLDER
    empty.mkdir(parents=True)
    where = place(empty)
    done = run("veskctl", "index", what, where)
    assert (done.returncode, done.stdout) == (4, "")
    assert done.stderr.startswith(f"veskctl: {where}: no clip index there\n") or place in (in_image, in_partition)


@pytest.mark.parametrize("place", [in_folder, in_partition])
def test_export(folder: Path, place: Place) -> None:
    where = place(folder)
    rows = list(csv.DictReader(io.StringIO(run("veskctl", "index", "export", "--format", "csv", where).stdout)))
    assert rows[0] == {"ts": str(START), "time": "2026-11-21T02:00:00Z", "seconds": "60", "persistent": "1",
                       "path": "2026112102/20261121_020000"}
    assert len(rows) == CLIPS and rows[1]["persistent"] == "0"
    assert run("veskctl", "index", "export", where).stdout == run("veskctl", "index", "export", "--format", "csv",
                                                                  where).stdout
    assert (json.loads(run("veskctl", "index", "export", "--format", "json", where).stdout)
            == json.loads(run("veskctl", "clips", "--json", folder).stdout))


@pytest.mark.parametrize("arguments, code", [
    (("check",), 2), (("check", "a", "b"), 2), (("mend", "x"), 2), (("export", "--format", "xml", "x"), 2),
    (("check", "--format", "csv", "x"), 2), (("check", "/nonexistent"), 4), (("repair", "/nonexistent"), 4),
    (("export", "/nonexistent"), 4), (("check", str(Path(__file__))), 4),
])
def test_what_makes_no_sense(arguments: tuple[str, ...], code: int) -> None:
    done = run("veskctl", "index", *arguments)
    assert done.returncode == code and done.stdout == "" and done.stderr != ""


def test_follow_shows_clips_as_they_come(folder: Path) -> None:
    process = subprocess.Popen(command("veskctl", "clips", "--follow", "--json", "--from", START + 60 * (CLIPS - 1), folder),
                               env=environment(), stdout=subprocess.PIPE)
    try:
        assert json.loads(read_line(process.stdout))["ts"] == START + 60 * (CLIPS - 1)
        make_list(folder, f"{START + 60 * CLIPS + 60},30")
        assert json.loads(read_line(process.stdout))["ts"] == START + 60 * CLIPS + 60
        make_list(folder, f"{START + 60 * CLIPS},30,1")  # late, and not the newest
        seen = json.loads(read_line(process.stdout))
        assert (seen["ts"], seen["persistent"]) == (START + 60 * CLIPS, True)
    finally:
        process.kill()
        process.wait()


def test_the_passing_copy_of_an_image_goes(folder: Path, tmp_path: Path) -> None:
    place = tmp_path / "passing"
    place.mkdir()
    assert run("veskctl", "index", "check", image_of(folder, partitioned=True), TMPDIR=str(place)).returncode == 0
    assert list(place.iterdir()) == []
