"""Card jobs in scenarios: requested, watched, and kept from unmounting the card."""

from __future__ import annotations

import json
import re
import shlex
import threading

from stand_ins import HOLDER, STAND_INS
from vcam import ROOT, Camera, CameraError, wait_until

CLIP_INDEX = "/mnt/sdcard/ZOLTA_RECORD_VIDEO/KYT.LST"
TRIES = 3  # of a format that was told about its partition too late
MAPPED_LIBRARY = "/tmp/mapped_kyt.so"
MAPPED_FILE = "/mnt/sdcard/ZOLTA_RECORD_VIDEO/mapped"
ERRORS = "/tmp/vesk_sdcard.errors"
KEYS = {"format": "spec_sdcard_format", "eject": "spec_sdcard_unmount"}
ANSWER_S = 30  # the longest that a request waits; a mount or an unmount may be under way
JOB_S = 60  # the longest that a job may take that is not held up: ten tries to unmount, and a loaded host


def request(camera: Camera, operation: str) -> int:
    """Requests a format or an eject, waits for the answer, and returns the log's position from before.

    The answer is the second in which it is given. One that equals the answer before is no news and is not published.
    """
    mark = camera.log_mark()
    answered = camera.key(KEYS[operation]) or ""
    if answered.startswith("end"):
        second = int(answered.removeprefix("end"))
        wait_until(lambda: int(camera.check("date +%s")) != second, 10, "the next second")
    topic = f"karvel/mem/default/{KEYS[operation]}"
    camera.publish(topic, "start", retain=True)
    camera.wait_for(topic, lambda value: value.startswith(b"end"), ANSWER_S)
    return mark


def wait_job(camera: Camera, name: str, outcome: str, mark: int, deadline: float = JOB_S) -> str:
    """Waits for the end of the job that began after the mark, and returns the log since. name: mkfs, eject or fsck."""
    line = camera.wait_log(f"closure: {name} ", deadline, mark)
    text = camera.log_since(mark)
    assert line.endswith(f"closure: {name} {outcome}"), text
    return text


def finish_format(camera: Camera, mark: int) -> str:
    """Waits until the format that was requested at the mark has succeeded, and returns the log since.

    The kernel may have a daemon on a busy camera wait so long for its share of the processor that fdisk's end and the
    events of the new partition are there together. The end is handled first, and the partitions are counted as they
    were: the format of a card that did not have exactly one fails then, and succeeds when it is requested again.
    """
    since = mark
    for _ in range(TRIES):
        if camera.wait_log("closure: mkfs ", JOB_S, since).endswith("successful"):
            break
        assert re.search(r"cl_mkfs: Unexpected partition count: \d+\.", camera.log_since(since)), camera.log_since(mark)
        wait_until(lambda: camera.state() not in (None, "formatting"), 10, "the state behind the failed format")
        since = request(camera, "format")
    wait_job(camera, "mkfs", "successful", since)
    camera.wait_state("normal")
    wait_recordings(camera)
    return camera.log_since(mark)


def format_card(camera: Camera) -> str:
    """Formats the card, and returns the log of the format."""
    return finish_format(camera, request(camera, "format"))


def wait_recordings(camera: Camera) -> None:
    """Waits until the clip index is open: the state is published before, and a clip announced in between is lost."""
    wait_until(lambda: camera.run(f"ls -l /proc/$(pidof vesk_sdcard)/fd | grep -q ' -> {CLIP_INDEX}$'").code == 0, 20,
               "the open clip index")


def eject_card(camera: Camera) -> None:
    mark = request(camera, "eject")
    wait_job(camera, "eject", "successful", mark)
    camera.wait_state("eject")


def mounted(camera: Camera) -> bool:
    return camera.run("grep -q ' /mnt/sdcard ' /proc/mounts").code == 0


def wait_daemon(camera: Camera, other_than: str = "") -> str:
    """Waits until the daemon runs, a new one if the old one's process id is given, and returns its process id."""
    def find() -> str | None:
        pid = camera.run("pidof vesk_sdcard").text
        return pid if pid and pid != other_than else None
    return str(wait_until(find, 30, "the daemon"))


def restart_daemon(camera: Camera) -> None:
    """A daemon that has sent no alert yet, but about what it found: each kind of alert is held back for five minutes
    after one was sent, and that the slot is empty is one."""
    old = wait_daemon(camera)
    state = str(camera.state())
    mark = camera.log_mark()
    camera.check("/etc/init.d/S60vesk_sdcard restart >/dev/ttyS1 2>&1")
    wait_daemon(camera, old)
    camera.wait_log("Supported filesystems", 20, mark)
    camera.wait_state(state)


class Reports:
    """The reports of one kind, as they come over the bus from now on."""

    def __init__(self, camera: Camera, event: str) -> None:
        self._lock = threading.Lock()
        self._seen: list[dict] = []
        camera.subscribe(f"vesk/vesk_sdcard/report/{event}", self._on_report)

    def _on_report(self, message) -> None:
        with self._lock:
            self._seen.append(json.loads(message.payload))

    @property
    def seen(self) -> list[dict]:
        with self._lock:
            return list(self._seen)

    def wait(self, count: int, deadline: float = 20) -> list[dict]:
        wait_until(lambda: len(self.seen) >= count, deadline, f"{count} reports")
        return self.seen


def start_holder(camera: Camera, path: str = "/mnt/sdcard/held") -> int:
    """A process that opens a file, of the card if there is one, and keeps it open; its process id."""
    script = f"#!/bin/sh\nexec 3>>{shlex.quote(path)}\n: >/tmp/holds\nexec 4<>/tmp/{HOLDER}.fifo\nread -r _ <&4\n"
    camera.put_file(f"/tmp/{HOLDER}.new", script.encode())
    camera.check(f"rm -f /tmp/holds; [ -e /tmp/{HOLDER}.fifo ] || mkfifo /tmp/{HOLDER}.fifo; "
                 f"chmod 755 /tmp/{HOLDER}.new && mv /tmp/{HOLDER}.new /tmp/{HOLDER}")
    return camera.spawn(f"exec /tmp/{HOLDER}")


def hold(camera: Camera, path: str = "/mnt/sdcard/held") -> int:
    """A process that keeps a file of the card open; its process id."""
    pid = start_holder(camera, path)
    wait_until(lambda: camera.run("test -e /tmp/holds").code == 0, 20, "the holder")
    return pid


def install_probed(camera: Camera) -> None:
    """The daemon that starts the check on SIGUSR1 and tells about its job frame on SIGUSR2, unless it runs already. The
    slot must be empty."""
    place = f"{STAND_INS}/vesk_sdcard"
    if camera.run(f"[ /proc/$(pidof vesk_sdcard)/exe -ef {place} ]").code == 0:
        return
    camera.put_file(place, (ROOT / "build/mipsel/bin/vesk_sdcard_probed").read_bytes())
    camera.check(f"chmod 755 {place}")
    restart_daemon(camera)


def install_mapped(camera: Camera) -> None:
    """The daemon with a clip index that maps MAPPED_FILE of the card, its standard error in ERRORS."""
    if camera.run(f"grep -q {MAPPED_LIBRARY} /proc/$(pidof vesk_sdcard)/environ").code == 0:
        return
    script = f'#!/bin/sh\nexport LD_PRELOAD={MAPPED_LIBRARY}\nexec /usr/sbin/vesk_sdcard "$@" 2>>{ERRORS}\n'
    camera.put_file(MAPPED_LIBRARY, (ROOT / "build/mipsel/bin/mapped_kyt.so").read_bytes())
    camera.put_file(f"{STAND_INS}/vesk_sdcard", script.encode())
    camera.check(f"chmod 755 {STAND_INS}/vesk_sdcard")
    restart_daemon(camera)


def restore_daemon(camera: Camera) -> None:
    try:
        camera.check(f"rm -f {STAND_INS}/vesk_sdcard && /etc/init.d/S60vesk_sdcard restart >/dev/ttyS1 2>&1")
    except (CameraError, OSError):
        camera.close()  # the next scenario boots it again


def frame(camera: Camera) -> tuple[int, int, int]:
    """Status, result and depth of the job frame; of the probed daemon only."""
    mark = camera.log_mark()
    camera.check("kill -USR2 $(pidof vesk_sdcard)")
    words = camera.wait_log("probe: status ", 20, mark).replace(",", "").split("probe: ")[1].split()
    return int(words[1]), int(words[3]), int(words[5])


def check_card(camera: Camera) -> int:
    """Starts the filesystem check of the probed daemon and returns the log's position from before."""
    mark = camera.log_mark()
    camera.check("kill -USR1 $(pidof vesk_sdcard)")
    camera.wait_log("probe: sdcard_fsck() = ", 20, mark)
    return mark
