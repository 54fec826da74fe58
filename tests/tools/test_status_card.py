"""veskctl status with a card: a tmpfs on /mnt/sdcard, in a mount namespace of the test's own."""

from __future__ import annotations

import json
import os
import shlex
import subprocess
from pathlib import Path

import pytest
from conftest import Broker, command, environment, make_list

START = 1795226400  # 2026-11-21T02:00:00Z
CARD = "mount -t tmpfs none /mnt && mkdir /mnt/sdcard && mount -t tmpfs -o size=8m none /mnt/sdcard"


def in_namespace(script: str) -> subprocess.CompletedProcess[str]:
    return subprocess.run(["unshare", "-rm", "sh", "-ec", script], env=environment(), capture_output=True, text=True,
                          timeout=60)


needs_namespace = pytest.mark.skipif(in_namespace(CARD).returncode != 0, reason="no mount namespace is allowed here")
pytestmark = needs_namespace


def status(broker: Broker, prepare: str, *options: str) -> subprocess.CompletedProcess[str]:
    broker.publish("karvel/mem/default/sdcard_status", "0", keep=True)
    broker.publish("karvel/mem/default/sdcard_rw", "rdwr", keep=True)
    return in_namespace(prepare + "\nexec " + shlex.join(command("veskctl", "--bus", broker.address, *options, "status")))


def with_clips(folder: Path) -> str:
    return (f"{CARD}\ncp -r --sparse=never {shlex.quote(str(folder))} /mnt/sdcard/ZOLTA_RECORD_VIDEO\n"
            "dd if=/dev/zero of=/mnt/sdcard/fill bs=1M count=2 2>/dev/null")


def test_card_with_clips(broker: Broker, card: Path) -> None:
    make_list(card, f"{START + 3600},60", f"{START},60", f"{START + 60},60")
    held = (2 << 20) + sum(path.stat().st_size for path in card.iterdir())
    done = status(broker, with_clips(card), "--json")
    assert (done.returncode, done.stderr) == (0, "")
    seen = json.loads(done.stdout)
    page = os.sysconf("SC_PAGE_SIZE")
    assert seen["used"] in range(held, held + 8 * page)
    assert seen == {"state": "normal", "state_number": 0, "writable": "rdwr", "total": 8 << 20,
                    "free": (8 << 20) - seen["used"], "used": seen["used"], "clips": 3,
                    "oldest": "2026-11-21T02:00:00Z", "newest": "2026-11-21T03:00:00Z"}


def test_card_with_clips_as_text(broker: Broker, card: Path) -> None:
    make_list(card, f"{START + 3600},60", f"{START},60")
    done = status(broker, with_clips(card))
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout == ("state     normal (0)\nwritable  rdwr\nfree      5.9 MiB of 8.0 MiB\nused      2.1 MiB\n"
                           "clips     2\noldest    2026-11-21T02:00:00Z\nnewest    2026-11-21T03:00:00Z\n")


def test_card_without_recordings(broker: Broker) -> None:
    done = status(broker, CARD)
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout == ("state     normal (0)\nwritable  rdwr\nfree      8.0 MiB of 8.0 MiB\nused      0 B\n"
                           "clips     no index\n")


def test_card_with_an_index_that_cannot_be_read(broker: Broker, card: Path) -> None:
    (card / "KYT.LST").write_bytes(bytes(65536))
    done = status(broker, with_clips(card), "--json")
    assert done.returncode == 5
    assert done.stderr == "veskctl: /mnt/sdcard/ZOLTA_RECORD_VIDEO: the clip index cannot be read\n"
    seen = json.loads(done.stdout)
    assert (seen["state"], seen["total"], seen["clips"]) == ("normal", 8 << 20, None)


def test_folder_below_no_card_is_none(broker: Broker, card: Path) -> None:
    make_list(card, f"{START},60")
    done = status(broker, "mount -t tmpfs none /mnt && mkdir /mnt/sdcard\n"
                  f"cp -r {shlex.quote(str(card))} /mnt/sdcard/ZOLTA_RECORD_VIDEO", "--json")
    assert done.returncode == 0
    seen = json.loads(done.stdout)
    assert (seen["total"], seen["free"], seen["clips"]) == (None, None, None)
