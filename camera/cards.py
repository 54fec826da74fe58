"""Cards for the virtual camera: sparse image files of any content, made without root and without mounting.

    make_card(path, 64 * MIB, "fat")
    make_card(path, 2 * GIB, "clips", count=16000)

The emulated slot takes power-of-two sizes only. The same call makes the same card, but for the serial number of
an exFAT.
"""

from __future__ import annotations

import json
import os
import random
import re
import struct
import subprocess
import time
from array import array
from collections.abc import Callable, Iterable
from pathlib import Path

KIB, MIB, GIB = 1 << 10, 1 << 20, 1 << 30
SECTOR = 512
FIRST_SECTOR = 2048  # where partitions start
LABEL = "QX_CAM"  # what the camera's own format gives a card
RECORD_DIR = "ZOLTA_RECORD_VIDEO"
PERIOD_S = 3600
GPT_FAT = "EBD0A0A2-B9E5-4433-87C0-68B6B72699C7"  # the kind of a GPT partition with a FAT
GPT_ID = "5645534B-0000-4000-8000-000000000001"

# A moment long before any test runs: clips made here are older than those recorded in a test.
DEFAULT_START = 1767225600  # 2026-01-01 00:00:00 UTC


def make_card(path: Path | str, size: int, kind: str = "fat", **options: int) -> Path:
    """Makes a card. Kinds:

    blank             zeros, as from the shop with nothing on it
    garbage           noise where the partition table and the filesystem should be
    noise             noise from end to end, and the mark of a partition table all the same
    fat               one partition with a FAT filesystem: what the camera's own format makes
    whole_disk_fat    a FAT filesystem without a partition table
    partitioned       a partition without a filesystem
    second_partition  the filesystem on the second of two partitions
    eight_partitions  more partitions than the daemon keeps; the filesystem is on the first
    four_partitions   all that a DOS table takes; the filesystem is on the third
    extended          an extended partition; the filesystem is on the second in it
    gpt               a GPT instead of a DOS table, with a partition that has a filesystem
    exfat             one partition with an exFAT filesystem, as large cards come from the shop
    clips             like fat, with clips; options of `add_clips`
    """
    card = Path(path)
    if size & (size - 1):
        raise ValueError(f"the card slot takes powers of two only, not {size}")
    card.unlink(missing_ok=True)
    with card.open("wb") as file:
        file.truncate(size)
    _KINDS[kind](card, **options)
    return card


def clip_path(ts: int) -> str:
    """Path of a clip below the card's root, without extension."""
    utc = time.gmtime(ts)
    return f"{RECORD_DIR}/{time.strftime('%Y%m%d%H', utc)}/{time.strftime('%Y%m%d_%H%M%S', utc)}"


def read_file(card: Path, name: str) -> bytes:
    """Content of a file of a card that is in no slot."""
    return _mtools(card, "mcopy", f"::{name}", "-")


def write_file(card: Path, name: str, content: bytes) -> None:
    """Writes a file, replacing it, to a card that is in no slot."""
    _mtools(card, "mcopy", "-o", "-", f"::{name}", stdin=content)


def list_dir(card: Path, name: str) -> list[str]:
    """Full paths of all that lies below a directory of a card that is in no slot."""
    return _mtools(card, "mdir", "-b", "-/", f"::{name}").decode().split()


def check_format(card: Path) -> None:
    """Raises ValueError with what is wrong, unless the card in no slot is what the camera's own format makes of one: a
    DOS table with one partition of type c that spans the card, and on it a good FAT with the camera's label."""
    table = json.loads(_tool("sfdisk", "--json", str(card)))["partitiontable"]
    kinds = [entry["type"] for entry in table.get("partitions", [])]
    if table["label"] != "dos" or kinds != ["c"]:
        raise ValueError(f"a {table['label']} table with partitions {kinds}")
    start, size = (table["partitions"][0][name] for name in ("start", "size"))
    # fdisk may round to what it takes for a cylinder.
    if start > FIRST_SECTOR or _sectors(card) - start - size > FIRST_SECTOR + 16 * 63:
        raise ValueError(f"a partition of {size} sectors from {start} on a card of {_sectors(card)}")
    if filesystem_offset(card) != start * SECTOR:
        raise ValueError("no filesystem where the partition starts")
    label = _mtools(card, "mlabel", "-s", "::").decode()
    if label.split() != ["Volume", "label", "is", LABEL]:
        raise ValueError(label)
    volume = card.with_suffix(".volume")
    try:
        _tool("dd", f"if={card}", f"of={volume}", f"bs={SECTOR}", f"skip={start}", f"count={size}", "conv=sparse",
              "status=none")
        # -n: nothing is repaired, and it ends with 0 only if there is nothing to repair.
        report = _tool("fsck.fat", "-n", str(volume)).decode()
    finally:
        volume.unlink()
    blocks = int(re.search(r"(\d+)/(\d+) clusters", report)[2])
    if blocks < 4085:
        raise ValueError(f"{blocks} clusters are none of FAT16 or FAT32: {report}")


def filesystem_offset(card: Path) -> int:
    """Where the card's filesystem starts: the first partition that has one, or the card's first byte.

    A format leaves the first sector's code alone: a FAT without a table may still seem to be there.
    """
    with card.open("rb") as file:
        for offset in [*_partition_offsets(file.read(SECTOR)), 0]:
            file.seek(offset)
            boot = file.read(SECTOR)
            if boot[:1] in (b"\xeb", b"\xe9") and boot[510:] == b"\x55\xaa":
                return offset
    raise ValueError(f"{card} has no filesystem")


def add_clips(card: Path, count: int = 100, start: int = DEFAULT_START, interval: int = 60, video_bytes: int = 16 * KIB,
              image_bytes: int = 4 * KIB, filler: int = 0) -> None:
    """Adds `count` clips, a video and its picture each, to a card without recordings, and a file of `filler` bytes that
    is no clip.

    The files have their size but no content: their clusters are chained, yet nothing is written there, so that even a
    full card is made in a moment and takes no room on the host.
    """
    periods: dict[str, list[tuple[str, int, int]]] = {}
    for ts in range(start, start + count * interval, interval):
        _, period, clip = clip_path(ts).split("/")
        periods.setdefault(period, []).extend([(f"{clip}.mp4", video_bytes, ts), (f"{clip}.jpeg", image_bytes, ts)])
    if filler:
        periods["filler"] = [("filler.bin", filler, start)]
    with card.open("r+b") as file:
        Fat(file, filesystem_offset(card)).add_tree(RECORD_DIR, periods)


class Fat:
    """Writes one folder of folders of files into an empty FAT16 or FAT32 filesystem.

    Clusters are given out in order. The cost is the FAT itself plus some 100 bytes a file, in time and in memory:
    16,000 clips take less than a second, where copying them one by one takes minutes.
    """

    def __init__(self, file, offset: int) -> None:
        self._file = file
        self._offset = offset
        boot = self._read(0, SECTOR)
        (sector, self._cluster_sectors, reserved, self._fats, root_entries, small_total, _, small_fat) = \
            struct.unpack_from("<HBHBHHBH", boot, 11)
        if sector != SECTOR:
            raise ValueError("unexpected sector size")
        self._fat_sectors = small_fat or struct.unpack_from("<I", boot, 36)[0]
        total = small_total or struct.unpack_from("<I", boot, 32)[0]
        self._fat_start = reserved
        root_start = reserved + self._fats * self._fat_sectors
        self._data_start = root_start + root_entries * 32 // SECTOR
        self._clusters = (total - self._data_start) // self._cluster_sectors
        self._cluster_bytes = self._cluster_sectors * SECTOR
        self._wide = self._clusters >= 65525
        if self._clusters < 4085:
            raise ValueError("FAT12 is not supported")
        self._root = self._data_start if self._wide else root_start  # mkfs.fat: the root is FAT32's first cluster
        self._fsinfo = struct.unpack_from("<H", boot, 48)[0] if self._wide else 0
        self._table = array("I" if self._wide else "H")
        self._table.frombytes(self._read(self._fat_start, self._fat_sectors * SECTOR))
        self._next = 3 if self._wide else 2

    def add_tree(self, name: str, folders: dict[str, list[tuple[str, int, int]]]) -> None:
        """Adds root/name/folder/file for each folder's (file, size, time)."""
        top_entries = 2 + sum(_entries_of(folder) for folder in folders)
        top = self._allocate(top_entries * 32)
        top_data = [_dots(top, 0)]
        for number, (folder, files) in enumerate(folders.items()):
            first = self._allocate(32 * (2 + sum(_entries_of(file) for file, _, _ in files)))
            data = [_dots(first, top)]
            for index, (file, size, ts) in enumerate(files):
                data.append(_entry(file, index, self._allocate(size), size, ts))
            self._write_cluster(first, b"".join(data))
            top_data.append(_entry(folder, number, first, None, files[0][2]))
        self._write_cluster(top, b"".join(top_data))
        self._append_to_root(_entry(name, 0, top, None, DEFAULT_START))
        self._store()

    def _allocate(self, size: int) -> int:
        """Chains the clusters for `size` bytes and returns the first; 0 for an empty file."""
        count = -(-size // self._cluster_bytes)
        if count == 0:
            return 0
        first, end = self._next, self._next + count
        if end > self._clusters + 2:
            raise ValueError("the card is too small for that")
        self._table[first:end - 1] = array(self._table.typecode, range(first + 1, end))
        self._table[end - 1] = 0x0FFFFFFF if self._wide else 0xFFFF
        self._next = end
        return first

    def _append_to_root(self, entry: bytes) -> None:
        root = self._read(self._root, self._cluster_bytes)
        at = next(at for at in range(0, len(root), 32) if root[at] == 0)
        self._write(self._root * SECTOR + at, entry)

    def _store(self) -> None:
        table = self._table.tobytes()
        for copy in range(self._fats):
            self._write((self._fat_start + copy * self._fat_sectors) * SECTOR, table)
        if self._fsinfo:
            free = self._clusters + 2 - self._next
            self._write(self._fsinfo * SECTOR + 488, struct.pack("<II", free, self._next))

    def _write_cluster(self, cluster: int, data: bytes) -> None:
        self._write((self._data_start + (cluster - 2) * self._cluster_sectors) * SECTOR, data)

    def _write(self, at: int, data: bytes) -> None:
        os.pwrite(self._file.fileno(), data, self._offset + at)

    def _read(self, sector: int, length: int) -> bytes:
        return os.pread(self._file.fileno(), length, self._offset + sector * SECTOR)


def _entries_of(name: str) -> int:
    """Directory entries that a name takes: 13 characters for each long part, and the short one."""
    return -(-len(name) // 13) + 1


def _dots(own: int, parent: int) -> bytes:
    return _short_entry(b".          ", 0x10, own, 0, DEFAULT_START) + _short_entry(b"..         ", 0x10, parent, 0,
                                                                                  DEFAULT_START)


def _entry(name: str, number: int, cluster: int, size: int | None, ts: int) -> bytes:
    """The entries of a file, or of a directory when size is None. number: unique in its directory."""
    extension = name.rsplit(".", 1)[1].upper() if "." in name else ""
    short = f"{number:08X}{extension:3.3}".encode()
    checksum = 0
    for byte in short:
        checksum = ((checksum >> 1 | checksum << 7) + byte) & 0xFF
    parts = -(-len(name) // 13)
    padded = (name.encode("utf-16-le") + b"\0\0").ljust(parts * 26, b"\xff")[:parts * 26]
    entries = []
    for part in range(parts, 0, -1):
        text = padded[(part - 1) * 26:part * 26]
        order = part | (0x40 if part == parts else 0)
        entries.append(struct.pack("<B10sBBB12sH4s", order, text[:10], 0x0F, 0, checksum, text[10:22], 0, text[22:]))
    entries.append(_short_entry(short, 0x10 if size is None else 0x20, cluster, size or 0, ts))
    return b"".join(entries)


def _short_entry(name: bytes, attributes: int, cluster: int, size: int, ts: int) -> bytes:
    utc = time.gmtime(ts)
    day = (utc.tm_year - 1980) << 9 | utc.tm_mon << 5 | utc.tm_mday
    clock = utc.tm_hour << 11 | utc.tm_min << 5 | utc.tm_sec // 2
    return struct.pack("<11sBBBHHHHHHHI", name, attributes, 0, 0, clock, day, day, cluster >> 16, clock, day,
                       cluster & 0xFFFF, size)


def _partition_offsets(table: bytes) -> Iterable[int]:
    """Starts of the primary partitions, in bytes."""
    for slot in range(446, 510, 16):
        start = struct.unpack_from("<I", table, slot + 8)[0]
        if table[slot + 4] and start:
            yield start * SECTOR


def _tool(*command: str, stdin: bytes = b"") -> bytes:
    environment = {**os.environ, "MTOOLS_SKIP_CHECK": "1", "PATH": f"{os.environ.get('PATH', '')}:/usr/sbin:/sbin"}
    done = subprocess.run(command, input=stdin, capture_output=True, env=environment, check=False)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(command)}: {done.stderr.decode(errors='replace')}")
    return done.stdout


def _mtools(card: Path, tool: str, *arguments: str, stdin: bytes = b"") -> bytes:
    return _tool(tool, "-i", f"{card}@@{filesystem_offset(card)}", *arguments, stdin=stdin)


def _partition(card: Path, *lines: str) -> None:
    _tool("sfdisk", "--quiet", "--no-reread", "--no-tell-kernel", str(card),
          stdin="\n".join(["label: dos", "label-id: 0x5645534b", *lines, ""]).encode())


def _mkfs(card: Path, first_sector: int, sectors: int) -> None:
    _tool("mkfs.fat", "--invariant", "-n", LABEL, "--offset", str(first_sector), str(card), str(sectors // 2))


def _sectors(card: Path) -> int:
    return card.stat().st_size // SECTOR


def _blank(_card: Path) -> None:
    pass


def _garbage(card: Path) -> None:
    with card.open("r+b") as file:
        file.write(random.Random(1).randbytes(4 * MIB))


def _partitioned(card: Path) -> None:
    _partition(card, f"start={FIRST_SECTOR}, type=c")


def _fat(card: Path) -> None:
    _partitioned(card)
    _mkfs(card, FIRST_SECTOR, _sectors(card) - FIRST_SECTOR)


def _whole_disk_fat(card: Path) -> None:
    _mkfs(card, 0, _sectors(card))


def _second_partition(card: Path) -> None:
    second = FIRST_SECTOR + 8 * MIB // SECTOR
    _partition(card, f"start={FIRST_SECTOR}, size={second - FIRST_SECTOR}, type=83", f"start={second}, type=c")
    _mkfs(card, second, _sectors(card) - second)


def _eight_partitions(card: Path) -> None:
    small = 2 * MIB // SECTOR
    rest = _sectors(card) - 12 * small - FIRST_SECTOR
    lines = [f"start={FIRST_SECTOR}, size={rest}, type=c", f"size={small}, type=83", f"size={small}, type=83", "type=5"]
    _partition(card, *lines, *[f"size={small - FIRST_SECTOR}, type=83"] * 4)
    _mkfs(card, FIRST_SECTOR, rest)


def _four_partitions(card: Path) -> None:
    quarter = (_sectors(card) - FIRST_SECTOR) // 4
    starts = [FIRST_SECTOR + number * quarter for number in range(4)]
    _partition(card, *[f"start={start}, size={quarter}, type={kind}" for start, kind in zip(starts, "83 82 c 7".split())])
    _mkfs(card, starts[2], quarter)


def _extended(card: Path) -> None:
    extended = FIRST_SECTOR + 8 * MIB // SECTOR
    second = extended + 8 * MIB // SECTOR + FIRST_SECTOR
    _partition(card, f"start={FIRST_SECTOR}, size={extended - FIRST_SECTOR}, type=83", f"start={extended}, type=f",
               f"start={extended + FIRST_SECTOR}, size={8 * MIB // SECTOR - FIRST_SECTOR}, type=83",
               f"start={second}, type=c")
    _mkfs(card, second, _sectors(card) - second)


def _gpt(card: Path) -> None:
    last = _sectors(card) - FIRST_SECTOR  # behind it lies the table's copy
    _tool("sfdisk", "--quiet", "--no-reread", "--no-tell-kernel", str(card),
          stdin=f"label: gpt\nlabel-id: {GPT_ID}\n"
          f"start={FIRST_SECTOR}, size={last - FIRST_SECTOR}, type={GPT_FAT}, uuid={GPT_ID}\n".encode())
    _mkfs(card, FIRST_SECTOR, last - FIRST_SECTOR)


def _exfat(card: Path) -> None:
    _partition(card, f"start={FIRST_SECTOR}, type=7")
    # Its tool knows no offset: made in a file of its own, of which only what is not zero goes to the card.
    volume = card.with_suffix(".exfat")
    try:
        with volume.open("wb") as file:
            file.truncate(card.stat().st_size - FIRST_SECTOR * SECTOR)
        _tool("mkfs.exfat", str(volume))
        _tool("dd", f"if={volume}", f"of={card}", f"bs={MIB}", f"seek={FIRST_SECTOR * SECTOR // MIB}",
              "conv=notrunc,sparse", "status=none")
    finally:
        volume.unlink()


def _noise(card: Path) -> None:
    noise = random.Random(2)
    with card.open("r+b") as file:
        for _ in range(card.stat().st_size // MIB):
            file.write(noise.randbytes(MIB))
        file.seek(SECTOR - 2)
        file.write(b"\x55\xaa")


def _clips(card: Path, **options: int) -> None:
    _fat(card)
    add_clips(card, **options)


_KINDS: dict[str, Callable[..., None]] = {
    "blank": _blank, "garbage": _garbage, "fat": _fat, "whole_disk_fat": _whole_disk_fat, "partitioned": _partitioned,
    "second_partition": _second_partition, "eight_partitions": _eight_partitions, "clips": _clips, "noise": _noise,
    "four_partitions": _four_partitions, "extended": _extended, "gpt": _gpt, "exfat": _exfat,
}
