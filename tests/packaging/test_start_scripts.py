"""The start scripts: where the daemon must not run, and who starts what again."""

from __future__ import annotations

import os
import shutil
import signal
import subprocess
import time
from collections.abc import Callable
from pathlib import Path

import pytest

PACKAGING = Path(__file__).resolve().parent.parent.parent / "packaging"
SHELLS = [shell for shell in ("dash", "bash", "busybox") if shutil.which(shell)]
REFUSED = 6

CARD = "36 25 179:1 / /mnt/sdcard rw - vfat /dev/mmcblk0p1 rw"
FLASH_ROOT = "25 1 31:5 / / ro - squashfs /dev/root ro"


def wait_until(holds: Callable[[], bool], limit_s: float = 10) -> bool:
    end = time.monotonic() + limit_s
    while time.monotonic() < end:
        if holds():
            return True
        time.sleep(0.02)
    return False


class Board:
    """A board with its flash as root and a card in its slot; programs that only leave notes."""

    def __init__(self, root: Path) -> None:
        self.root = root
        self.notes = root / "notes"
        self.notes.touch()
        self.write("proc/self/mountinfo", f"{FLASH_ROOT}\n{CARD}\n")
        self.write("proc/cmdline", "console=ttyS0 root=/dev/mtdblock5 ro\n")
        self.write("proc/swaps", "Filename\tType\tSize\tUsed\tPriority\n")
        self.write("sys/block/mmcblk0/device/type", "SD\n")
        (root / "run").mkdir()
        self.program("usleep", "exec sleep 0.05")
        self.program("logger", f'echo "log: $*" >>{self.notes}')
        self.program("vesk_sdcard", f'echo "daemon $$ $*" >>{self.notes}\nexec sleep 60')
        self.program("karveld", f'echo "broker $$ $*" >>{self.notes}\nexec sleep 60')

    def write(self, path: str, text: str) -> None:
        file = self.root / path
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text)

    def program(self, name: str, body: str) -> None:
        self.write(f"bin/{name}", f"#!/bin/sh\n{body}\n")
        (self.root / "bin" / name).chmod(0o755)

    def run(self, script: str, verb: str, shell: str | None = None) -> subprocess.CompletedProcess[str]:
        command = [str(PACKAGING / script), verb]
        if shell is not None:
            command = [shell, *(["sh"] if shell == "busybox" else ["--posix"] if shell == "bash" else []), *command]
        environment = {**os.environ, "VESK_ROOT": str(self.root), "PATH": f"{self.root}/bin:{os.environ['PATH']}"}
        # Files, not pipes: what was started keeps them open, so that the console shows a daemon's last words.
        with open(self.root / "out", "w+") as out, open(self.root / "err", "w+") as err:
            result = subprocess.run(command, env=environment, stdout=out, stderr=err, timeout=30)
        texts = [(self.root / name).read_text() for name in ("out", "err")]
        return subprocess.CompletedProcess(command, result.returncode, *texts)

    def started(self, what: str) -> list[int]:
        """Process ids of each start of that program, in order."""
        return [int(line.split()[1]) for line in self.notes.read_text().splitlines() if line.startswith(what + " ")]


@pytest.fixture
def board(tmp_path: Path):
    board = Board(tmp_path)
    yield board
    for script in ("S50karveld", "S60vesk_sdcard"):
        board.run(script, "stop")


def alive(pid: int) -> bool:
    try:
        os.kill(pid, 0)
        return True
    except ProcessLookupError:
        return False


REFUSALS = {
    "root on the card's kind of device": ("proc/self/mountinfo", "25 1 179:2 / / rw - ext4 /dev/root rw\n", "/ is mounted"),
    "a data partition": ("proc/self/mountinfo", f"{FLASH_ROOT}\n40 25 179:3 / /data rw - ext4 /dev/mmcblk0p3 rw\n", "/data"),
    "the folder above the card": ("proc/self/mountinfo", f"{FLASH_ROOT}\n40 25 179:3 / /mnt rw - ext4 x rw\n", "/mnt is"),
    "a second partition of a chip": ("sys/block/mmcblk1/device/type", "MMC\n", "mmcblk1 is a built-in eMMC"),
    "an overlay on a chip": ("proc/cmdline", "quiet root=/dev/mmcblk0p2 ro\n", "root=/dev/mmcblk0p2"),
    "swap": ("proc/swaps", "Filename\tType\n/dev/mmcblk0p3\tpartition\t1\t0\t-2\n", "/dev/mmcblk0p3 is swap"),
    "an encrypted root": ("sys/class/block/mmcblk0p2/holders/dm-0/dev", "254:0\n", "belongs to dm-0"),
}


@pytest.mark.parametrize("shell", SHELLS)
@pytest.mark.parametrize("name", REFUSALS)
def test_refuses_where_the_system_lives_on_such_a_device(board: Board, name: str, shell: str) -> None:
    path, text, said = REFUSALS[name]
    board.write(path, text)
    for verb in ("check", "start"):
        result = board.run("S60vesk_sdcard", verb, shell)
        assert result.returncode == REFUSED
        assert "a format would erase this board's own system" in result.stderr
        assert said in result.stderr
    assert board.started("daemon") == []
    assert board.run("S60vesk_sdcard", "status").returncode != 0


@pytest.mark.parametrize("table", ["proc/self/mountinfo", "proc/cmdline"])
def test_refuses_when_it_cannot_tell(board: Board, table: str) -> None:
    (board.root / table).unlink()
    result = board.run("S60vesk_sdcard", "check")
    assert result.returncode == REFUSED
    assert "can not be read" in result.stderr


ACCEPTED = {
    "a mounted card": None,
    "an empty slot": ("proc/self/mountinfo", f"{FLASH_ROOT}\n"),
    "a card mounted by hand": ("proc/self/mountinfo", f"{FLASH_ROOT}\n40 25 179:1 / /media/card rw - vfat x rw\n"),
    "a major number that begins alike": ("proc/self/mountinfo", f"{FLASH_ROOT}\n40 25 1790:1 / /data rw - ext4 x rw\n"),
    "a minor number that looks like it": ("proc/self/mountinfo", "25 1 31:179 / / ro - squashfs /dev/root ro\n"),
    "swap in memory": ("proc/swaps", "Filename\tType\n/dev/zram0\tpartition\t1\t0\t-2\n"),
}


@pytest.mark.parametrize("shell", SHELLS)
@pytest.mark.parametrize("name", ACCEPTED)
def test_starts_everywhere_else(board: Board, name: str, shell: str) -> None:
    if ACCEPTED[name] is not None:
        board.write(*ACCEPTED[name])
    result = board.run("S60vesk_sdcard", "check", shell)
    assert (result.returncode, result.stderr) == (0, "")


def test_a_kernel_without_swap_is_fine(board: Board) -> None:
    (board.root / "proc/swaps").unlink()
    assert board.run("S60vesk_sdcard", "check").returncode == 0


@pytest.mark.parametrize("script, program", [("S50karveld", "broker"), ("S60vesk_sdcard", "daemon")])
def test_keeps_its_program_running_until_it_is_stopped(board: Board, script: str, program: str) -> None:
    assert board.run(script, "start").returncode == 0
    assert wait_until(lambda: len(board.started(program)) == 1)
    assert board.run(script, "status").returncode == 0
    assert board.run(script, "start").returncode == 0  # once is enough

    os.kill(board.started(program)[0], signal.SIGABRT)
    assert wait_until(lambda: len(board.started(program)) == 2)
    os.kill(board.started(program)[1], signal.SIGKILL)
    assert wait_until(lambda: len(board.started(program)) == 3)

    last = board.started(program)[2]
    assert alive(last)
    assert board.run(script, "stop").returncode == 0
    assert wait_until(lambda: not alive(last))
    assert board.run(script, "status").returncode != 0
    time.sleep(1.5)  # longer than the pause before another start
    assert len(board.started(program)) == 3


def test_restart_is_a_new_process(board: Board) -> None:
    board.run("S60vesk_sdcard", "start")
    assert wait_until(lambda: len(board.started("daemon")) == 1)
    assert board.run("S60vesk_sdcard", "restart").returncode == 0
    assert wait_until(lambda: len(board.started("daemon")) == 2)
    first, second = board.started("daemon")
    assert not alive(first) and alive(second)


def test_a_daemon_that_does_not_end_is_ended(board: Board) -> None:
    board.program("vesk_sdcard", f"trap '' TERM\necho \"daemon $$\" >>{board.notes}\nwhile :; do sleep 1; done")
    board.run("S60vesk_sdcard", "start")
    assert wait_until(lambda: len(board.started("daemon")) == 1)
    assert board.run("S60vesk_sdcard", "stop").returncode == 0
    assert not alive(board.started("daemon")[0])


@pytest.mark.parametrize("script", ["S50karveld", "S60vesk_sdcard"])
def test_says_how_it_is_used(board: Board, script: str) -> None:
    result = board.run(script, "dance")
    assert result.returncode == 2 and "Usage:" in result.stderr
