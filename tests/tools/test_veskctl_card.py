"""veskctl where the card can be seen: a tmpfs stands in for it, in a mount namespace of the test's own.

The tmpfs is mounted under the name of a file, which is what the kernel then calls the device that is mounted: its first
sector is the card's boot sector.
"""

from __future__ import annotations

import json
import shlex
import struct
import subprocess
import time
from pathlib import Path

import pytest
from conftest import Broker, command, environment, make_list

START = 1795226400  # 2026-11-21T02:00:00Z
NORMAL, NOT_EXISTS, FULL, BROKEN, FORMATTING = range(5)
FORMAT = "spec_sdcard_format"
MOUNT = "mount -t tmpfs none /mnt && mkdir /mnt/sdcard && mount -t tmpfs -o size=8m {device} /mnt/sdcard"


def in_namespace(script: str) -> subprocess.CompletedProcess[str]:
    """In a world of its own also for processes: all that the script starts ends with it, and it sees no others."""
    return subprocess.run(["unshare", "-rmpf", "--mount-proc", "sh", "-ec", script], env=environment(), capture_output=True, text=True,
                          timeout=60)


pytestmark = pytest.mark.skipif(in_namespace(MOUNT.format(device="none")).returncode != 0,
                                reason="no mount namespace is allowed here")


def boot_sector(identity: int, wide: bool = True, label: str = "QX_CAM") -> bytes:
    """Of a FAT with 32 bits, or with 12 or 16."""
    sector = bytearray(512)
    sector[0:3] = b"\xeb\x58\x90"
    sector[11:13] = struct.pack("<H", 512)
    sector[22:24] = struct.pack("<H", 0 if wide else 100)
    at = 66 if wide else 38
    sector[at:at + 5] = b"\x29" + struct.pack("<I", identity)
    sector[at + 5:at + 16] = label.ljust(11).encode()
    sector[510:512] = b"\x55\xaa"
    return bytes(sector)


def ctl(broker: Broker, prepare: str, *arguments: object) -> subprocess.CompletedProcess[str]:
    return in_namespace(prepare + "\n" + shlex.join(command("veskctl", "--bus", broker.address, *arguments)))


def ctl_when(broker: Broker, prepare: str, text: str, *arguments: object) -> subprocess.CompletedProcess[str]:
    """The first answer that has the text, or the last one: what `prepare` has started takes its time."""
    ask = shlex.join(command("veskctl", "--bus", broker.address, *arguments))
    wait = f"tries=0\nuntil {ask} 2>&1 | grep -qF {shlex.quote(text)} || [ $tries = 100 ]; do sleep 0.1; tries=$((tries + 1)); done"
    return in_namespace(f"{prepare}\n{wait}\n{ask}")


# --- format -----------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("wide", [True, False], ids=["FAT32", "FAT16"])
@pytest.mark.parametrize("after, state, code, said", [
    (0x1234abcd, NORMAL, 0, "format: done, new volume 1234-ABCD QX_CAM on {device}\n"),
    (0x1234abcd, FULL, 0, "format: done, new volume 1234-ABCD QX_CAM on {device}\n"),
    (0x11112222, NORMAL, 1, "format: failed, the old volume 1111-2222 is mounted; veskctl busy names who holds it\n"),
    (0x1234abcd, BROKEN, 1, "format: failed, the card is broken\n"),
    (0x1234abcd, NOT_EXISTS, 7, "format: ended, outcome unknown, no card is in service\n"),
    (None, NORMAL, 7, "format: ended, outcome unknown, the card cannot be seen from here\n")],
    ids=["done", "done but small", "held", "broken", "gone", "no FAT"])
def test_format_is_proven_by_the_card(broker: Broker, daemon, tmp_path: Path, wide: bool, after: int | None, state: int,
                                      code: int, said: str) -> None:
    device = tmp_path / "card"
    device.write_bytes(boot_sector(0x11112222, wide))

    def make_filesystem() -> None:
        device.write_bytes(boot_sector(after, wide) if after is not None else bytes(510) + b"\x55\xaa")
    daemon(jobs={FORMAT: [FORMATTING, "end", make_filesystem, state]})
    done = ctl(broker, MOUNT.format(device=device), "format", "--yes", "--wait")
    assert (done.returncode, done.stdout) == (code, said.format(device=str(device)[:64])), done.stderr


def test_format_of_a_card_that_had_no_filesystem(broker: Broker, daemon, tmp_path: Path) -> None:
    device = tmp_path / "card"
    device.write_bytes(b"\xa5" * 512)
    daemon(jobs={FORMAT: [FORMATTING, "end", lambda: device.write_bytes(boot_sector(7)), NORMAL]}, state=NOT_EXISTS)
    done = ctl(broker, MOUNT.format(device=device), "--json", "format", "--yes", "--wait")
    assert done.returncode == 0 and json.loads(done.stdout)["outcome"] == "done"


DISK = " 179        0      65536 mmcblk0\n"


@pytest.mark.parametrize("disk, mounted, code, said", [
    (DISK, False, 1, "format: failed, nothing on the card can be mounted\n"),
    (DISK, True, 0, "format: done, new volume 1234-ABCD QX_CAM on {device}\n"),
    (DISK.replace("179", "  8"), True, 7, "format: ended, outcome unknown, no card is in service\n")],
    ids=["nothing to mount", "mounted a moment later", "pulled"])
def test_format_behind_which_no_card_is_mounted(broker: Broker, daemon, tmp_path: Path, disk: str, mounted: bool,
                                                code: int, said: str) -> None:
    """The state is then the one without a card; whether there is one, the kernel's table says."""
    card, table = tmp_path / "card", tmp_path / "partitions"
    card.write_bytes(boot_sector(0x11112222))
    table.write_text(f"major minor  #blocks  name\n\n{disk}")
    daemon(jobs={FORMAT: [FORMATTING, "end", lambda: card.write_bytes(boot_sector(0x1234abcd)), NOT_EXISTS]})
    mount = MOUNT.format(device=card) if mounted else "mount -t tmpfs none /mnt"
    done = ctl(broker, f"mount --bind {table} /proc/partitions\n{mount}", "format", "--yes", "--wait")
    assert (done.returncode, done.stdout) == (code, said.format(device=str(card)[:64])), done.stderr


def test_format_label_is_not_obeyed_by_a_terminal(broker: Broker, daemon, tmp_path: Path) -> None:
    device = tmp_path / "card"
    device.write_bytes(boot_sector(1))
    daemon(jobs={FORMAT: [FORMATTING, "end", lambda: device.write_bytes(boot_sector(2, label="\x1b[31m")), NORMAL]})
    done = ctl(broker, MOUNT.format(device=device), "format", "--yes", "--wait")
    assert done.returncode == 0 and "?[31m" in done.stdout and "\x1b" not in done.stdout


# --- busy -------------------------------------------------------------------------------------------------------------

CARD = MOUNT.format(device="none")


@pytest.mark.parametrize("hold, by, path", [
    ("exec 5>/mnt/sdcard/held; sleep 60", "file", "/mnt/sdcard/held"),
    ("exec 5>/mnt/sdcard/gone; rm /mnt/sdcard/gone; sleep 60", "file", "/mnt/sdcard/gone (deleted)"),
    ("cd /mnt/sdcard; sleep 60", "cwd", "/mnt/sdcard"),
    ("cp /bin/sleep /mnt/sdcard/run; /mnt/sdcard/run 60", "exe", "/mnt/sdcard/run"),
    ("mkdir /mnt/sdcard/r; exec /usr/bin/python3 -c 'import os, time; os.chroot(\"/mnt/sdcard/r\"); time.sleep(60)'",
     "root", "/mnt/sdcard/r")])
def test_busy(broker: Broker, hold: str, by: str, path: str) -> None:
    done = ctl_when(broker, f"{CARD}\n({hold}) >/dev/null 2>&1 &", f'"by":"{by}","path":"{path}"', "busy", "--json")
    assert (done.returncode, done.stderr) == (0, "")
    seen = json.loads(done.stdout)
    assert [one for one in seen if (one["by"], one["path"]) == (by, path)], seen
    assert all(set(one) == {"process", "command", "by", "path"} and one["process"] > 1 for one in seen)


def test_busy_as_text(broker: Broker) -> None:
    done = ctl_when(broker, f"{CARD}\nexec 5>/mnt/sdcard/held\nsleep 20 >/dev/null 2>&1 &\nexec 5>&-", "  sleep  ", "busy")
    lines = done.stdout.splitlines()
    assert done.returncode == 0 and lines[0] == "process  command           by    path"
    assert len(lines) == 2 and lines[1].split()[1:] == ["sleep", "file", "/mnt/sdcard/held"]


def test_busy_with_a_mapped_file(broker: Broker) -> None:
    mapping = ("import mmap, time\nfile = open(\"/mnt/sdcard/list\", \"r+b\")\nmapped = mmap.mmap(file.fileno(), 4096)\n"
               "file.close()\ntime.sleep(20)")
    done = ctl_when(broker, f"{CARD}\nhead -c 4096 /dev/zero >/mnt/sdcard/list\n/usr/bin/python3 -c '{mapping}' >/dev/null 2>&1 &",
                    '"by":"map"', "busy", "--json")
    assert ("map", "/mnt/sdcard/list") in {(one["by"], one["path"]) for one in json.loads(done.stdout)}


def test_nobody_is_busy(broker: Broker) -> None:
    done = ctl(broker, CARD, "busy")
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "veskctl: nobody holds the card\n")
    assert ctl(broker, CARD, "busy", "--json").stdout == "[]\n"


def test_busy_without_card(broker: Broker) -> None:
    done = ctl(broker, "mount -t tmpfs none /mnt && mkdir /mnt/sdcard", "busy")
    assert (done.returncode, done.stdout, done.stderr) == (4, "", "veskctl: no card is mounted here\n")


# --- save and delete --------------------------------------------------------------------------------------------------


def with_clips(folder: Path) -> str:
    """A card whose recordings folder is the given one."""
    return f"{CARD}\nmkdir /mnt/sdcard/ZOLTA_RECORD_VIDEO\nmount --bind {shlex.quote(str(folder))} /mnt/sdcard/ZOLTA_RECORD_VIDEO"


def test_save_and_delete_look_into_the_index(broker: Broker, daemon, card: Path) -> None:
    """The stand-in answers 0 and does nothing; what the index says then counts."""
    make_list(card, f"{START},10,1", f"{START + 60},10")
    daemon(actions={"saveVideo": 0, "deleteVideo": 0})
    done = ctl(broker, with_clips(card), "save", START, START + 60)
    assert (done.returncode, done.stdout, done.stderr) == (1, "save: 1 of 2 clips protected\n", "")
    done = ctl(broker, with_clips(card), "save", START)
    assert (done.returncode, done.stdout) == (0, "save: 1 of 1 clips protected\n")
    done = ctl(broker, with_clips(card), "--json", "delete", "--yes", START)
    assert done.returncode == 1 and json.loads(done.stdout) == {"request": "delete", "clips": 1, "deleted": 0}


def mark(card: Path, clip: int) -> None:
    """As the daemon brings a mark to the card: one byte of the clip's record."""
    with (card / "KYT.LST").open("r+b") as file:
        file.seek(4096 + 8 * clip + 6)
        file.write(b"\1")


def test_save_waits_for_the_mark_on_the_card(broker: Broker, daemon, card: Path) -> None:
    """The daemon answers when its memory has the mark; the card has it up to a second later."""
    make_list(card, f"{START},10", f"{START + 60},10")
    it = daemon(actions={"saveVideo": 0})
    answer = it._answer

    def answer_and_mark(*request: str) -> None:
        answer(*request)
        time.sleep(0.7)
        mark(card, 0)
        mark(card, 1)
    it._answer = answer_and_mark
    done = ctl(broker, with_clips(card), "save", START, START + 60)
    assert (done.returncode, done.stdout, done.stderr) == (0, "save: 2 of 2 clips protected\n", "")


def test_clips_that_the_index_does_not_know_are_not_asked_for(broker: Broker, daemon, card: Path) -> None:
    make_list(card, f"{START},10,1")
    it = daemon(actions={"saveVideo": 0})
    done = ctl(broker, with_clips(card), "save", START, START + 1)
    assert (done.returncode, done.stdout) == (1, "save: 1 of 1 clips protected\n")
    assert done.stderr == "veskctl: no clip of 2026-11-21T02:00:01Z is in the index\n"
    assert it.asked == [("saveVideo", f"[{START}]")]
    done = ctl(broker, with_clips(card), "save", START + 1)
    assert (done.returncode, done.stdout) == (1, "") and len(it.asked) == 1


# --- report -----------------------------------------------------------------------------------------------------------


def kernel_files(**files: str) -> str:
    """A /sys with a card and another disk."""
    lines = ["mount -t tmpfs none /sys", "mkdir -p /sys/block/mmcblk0/device /sys/block/sda",
             "echo 8:0 >/sys/block/sda/dev", "echo 179:0 >/sys/block/mmcblk0/dev"]
    for name, text in files.items():
        below = "" if name in ("size", "ro") else "device/"
        lines.append(f"echo {shlex.quote(text)} >/sys/block/mmcblk0/{below}{name}")
    return "\n".join(lines)


def test_report_of_this_cameras_card(broker: Broker) -> None:
    status = bytearray(64)
    status[8], status[14], status[15], status[21] = 4, 0x30, 30, 0x21
    files = kernel_files(manfid="0x000003", oemid="0x5344", name="SL32G", serial="0xdeadbeef", date="02/2019",
                         ssr=status.hex(), size="62333952", ro="0")
    done = ctl(broker, files, "report")
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout == ("maker        SanDisk\nmaker's id   0x000003\noem          SD\nname         SL32G\n"
                           "serial       0xdeadbeef\nmade         2019-02\nsize         29.7 GiB\nspeed class  C10\n"
                           "UHS grade    U3\nvideo class  V30\napp class    A1\nread-only    no\n")
    assert json.loads(ctl(broker, files, "report", "--json").stdout) == {
        "maker": "SanDisk", "maker_id": "0x000003", "oem": "SD", "name": "SL32G", "serial": "0xdeadbeef",
        "made": "2019-02", "size": 62333952 * 512, "speed_class": 10, "uhs_grade": 3, "video_class": 30, "app_class": 1,
        "read_only": False}


def test_report_of_a_card_that_tells_little(broker: Broker) -> None:
    done = ctl(broker, kernel_files(manfid="0x0000aa", ssr="0" * 128, date="13/2019"), "report")
    assert done.returncode == 0
    known = [line for line in done.stdout.splitlines() if not line.endswith(" not known")]
    assert known == ["maker's id   0x0000aa"] and len(done.stdout.splitlines()) == 12


@pytest.mark.parametrize("code, words", [(0, "none"), (1, "C2"), (2, "C4"), (3, "C6"), (4, "C10"), (5, "not known"), (255, "not known")])
def test_report_of_a_speed_class(broker: Broker, code: int, words: str) -> None:
    done = ctl(broker, kernel_files(ssr=f"{'00' * 8}{code:02x}{'00' * 54}01"), "report")
    assert f"speed class  {words}\n" in done.stdout


def test_report_without_card(broker: Broker) -> None:
    done = ctl(broker, "mount -t tmpfs none /sys", "report")
    assert (done.returncode, done.stdout, done.stderr) == (4, "", "veskctl: there is no card\n")
