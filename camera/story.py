"""The checked story of script/run: what the storage is for, each step seen to happen or the story ends."""
from __future__ import annotations

import json
import queue
import time
from collections.abc import Callable
from pathlib import Path
from typing import Any

import live_view
from cards import MIB, make_card
from vcam import Camera, CameraError, wait_until
from vmqtt import Message

CARD_BYTES = 128 * MIB
CLIP_BYTES = MIB
DEADLINE_S = 900
BUSY_TIME_S = 300  # after power-on: a kernel of 32 bits does not count a disk's busy time before
SLOW_BPS = 200 * 1024  # below that many bytes a second of busy time a card is reported as slow
FORMATS = 3  # at most, of a card whose partition became known too late
PATIENCE_S = 120  # for what takes a second or two; a loaded machine may need much longer
ALERTS = "vesk/vesk_sdcard/report/sdcard.alert"
HELD = "/mnt/sdcard/held"


def ctl(camera: Camera, command: str, codes: tuple[int, ...] = (0,)) -> Any:
    """What `veskctl --json COMMAND` says in the guest. CameraError when it ends otherwise than so."""
    answer = camera.run(f"veskctl --json {command}", PATIENCE_S)
    if answer.code not in codes:
        raise CameraError(f"veskctl {command}: exit code {answer.code}: {answer.text} {answer.err.decode(errors='replace')}")
    return json.loads(answer.out)


def status(camera: Camera) -> dict[str, Any]:
    """What `veskctl status` says; empty while it has nothing to say."""
    answer = camera.run("veskctl --json status", 20)
    try:
        return json.loads(answer.out) if answer.out else {}
    except ValueError:
        return {}


def record(camera: Camera, count: int, first: str, timeout: float = 600) -> None:
    """Records clips as the camera's recorder does, one a minute by their own clock and as fast as the card takes them."""
    camera.check(f"vesk_recorder --count {count} --size {CLIP_BYTES} --start {first} --seconds 60 --interval 0", timeout)


class Story:
    """Plays the story in one camera and prints each step with its time."""

    def __init__(self, camera: Camera, cards: Path) -> None:
        self.camera = camera
        self.card = make_card(cards / "card.img", CARD_BYTES, "blank")
        self.began = time.monotonic()
        self.steps = 0
        self.alerts: queue.SimpleQueue[dict[str, Any]] = queue.SimpleQueue()
        self.kept = ""  # the protected clip's time
        self.clips = 0

    def step(self, text: str, happens: Callable[[], str | None]) -> None:
        began = time.monotonic()
        seen = happens()
        self.steps += 1
        now = time.monotonic()
        detail = f": {seen}" if seen else ""
        print(f"[{now - self.began:6.1f} s] {text}{detail} ({now - began:.1f} s)", flush=True)

    def play(self) -> None:
        self.step("the camera boots, its slot is empty", self.boot)
        self.step("a blank card goes in, nothing is mounted", self.insert_blank)
        self.step("it is formatted", self.format)
        self.step("clips are recorded and indexed", self.record_some)
        self.step("the oldest one is protected", self.save)
        self.step("a program holds the card: no eject, its name is told", self.hold)
        self.step("the card fills, the oldest clips go, the protected one stays", self.fill)
        self.step("a clip is deleted, its files too", self.delete)
        self.step("the card is ejected and pulled", self.eject)
        self.step("it is put back, every clip is known again", self.put_back)
        self.step("it is pulled while it is recorded to", self.pull)
        self.step("it is put back, recording goes on", self.record_more)
        self.step("the kernel begins to count the time for which the card is busy", self.wait_busy_time)
        self.step("the card goes slow, which is reported", self.slow)
        print(f"all {self.steps} steps were seen to happen")

    # --- the steps; what one returns is shown with it ---

    def boot(self) -> None:
        self.camera.start(deadline=DEADLINE_S, boot_timeout=PATIENCE_S)
        self.wait_state("not_exists")
        self.camera.bus.subscribe(ALERTS, self.on_alert, PATIENCE_S)

    def insert_blank(self) -> None:
        mark = self.camera.log_mark()
        self.camera.insert(self.card)
        self.camera.wait_log("New block mmcblk0", PATIENCE_S, mark)
        self.expect("not_exists", self.camera.state())

    def format(self) -> str:
        # Now and then the daemon hears of the new partition after the end of fdisk. That format fails and says so; who
        # wanted it asks again.
        for _ in range(FORMATS):
            mark = self.camera.log_mark()
            ended = ctl(self.camera, "format --yes --wait", (0, 1))
            if "cl_mkfs: Unexpected partition count: " not in self.camera.log_since(mark):
                break
        self.expect("done", ended["outcome"])
        self.wait_state("normal")
        return f"{ended['detail']} in {ended['elapsed_s']} s"

    def record_some(self) -> str:
        record(self.camera, 10, "2026-11-21T08:00:00Z")
        self.wait_clips(10)
        return "10 clips"

    def save(self) -> str:
        self.kept = str(status(self.camera)["oldest"])
        self.expect(1, ctl(self.camera, f"save {self.kept}")["protected"])
        return self.kept

    def hold(self) -> str:
        holder = self.camera.spawn(f"exec sleep 600 > {HELD}")
        self.wait(lambda: HELD in [one["path"] for one in ctl(self.camera, "busy")], "the holder to be seen")
        mark = self.camera.log_mark()
        self.expect("failed", ctl(self.camera, "eject --wait", (1,))["outcome"])
        alert = self.wait_alert(2)
        self.camera.check(f"kill {holder}; rm {HELD}")
        self.expect(["sleep"], alert["fuser"])
        self.wait_state("normal")
        # The state is back before the index is open again; a clip announced in between is lost.
        self.camera.wait_log("The record msg load successfully", PATIENCE_S, mark)
        self.wait_clips(10)
        return f"process {holder}, {alert['fuser'][0]}"

    def fill(self) -> str:
        second = ctl(self.camera, "clips")[1]["time"]
        record(self.camera, CARD_BYTES // CLIP_BYTES, "2026-11-21T09:00:00Z")
        self.wait(lambda: second not in self.times(), "the second oldest clip gone")
        self.wait_state("normal")
        now = status(self.camera)
        if int(now["free"]) < 40 * MIB:
            raise CameraError(f"only {now['free']} bytes free on a card that is not full")
        times = self.times()
        self.expect((self.kept, [self.kept]), (times[0], self.times("--marked")))
        path = ctl(self.camera, "clips --marked")[0]["path"]
        self.camera.check(f"test -s /mnt/sdcard/ZOLTA_RECORD_VIDEO/{path}.mp4")
        return f"{self.kept}, the next one is {times[1]}; {live_view.size(int(now['free']))} free"

    def delete(self) -> str:
        clip = ctl(self.camera, "clips")[-1]
        files = f"/mnt/sdcard/ZOLTA_RECORD_VIDEO/{clip['path']}.*"
        self.camera.check(f"ls {files}")
        self.expect(1, ctl(self.camera, f"delete --yes {clip['time']}")["deleted"])
        self.wait(lambda: self.camera.run(f"ls {files}").code != 0, "its files gone")
        self.expect(False, clip["time"] in self.times())
        return str(clip["time"])

    def eject(self) -> str:
        self.clips = len(self.times())
        ended = ctl(self.camera, "eject --wait")
        self.camera.pull()
        self.wait_state("not_exists")
        return str(ended["detail"])

    def put_back(self) -> str:
        self.camera.insert(self.card)
        self.wait_state("normal")
        self.wait_clips(self.clips)
        self.expect([self.kept], self.times("--marked"))
        return f"{self.clips} clips"

    def pull(self) -> None:
        first = status(self.camera)["newest"]
        self.camera.spawn("vesk_recorder --size 1M --start 2026-11-21T20:00:00Z --seconds 60 --interval 0")
        self.wait(lambda: status(self.camera).get("newest") not in (None, first), "a clip recorded")
        self.camera.pull()
        self.wait_state("not_exists")
        self.wait(lambda: self.camera.run("pidof vesk_recorder").code != 0, "the recorder to give up")

    def record_more(self) -> str:
        self.camera.insert(self.card)
        self.wait_state("normal")
        record(self.camera, 3, "2026-11-22T08:00:00Z")
        self.wait(lambda: status(self.camera).get("newest") == "2026-11-22T08:02:00Z", "the new clips in the index")
        return "newest is 2026-11-22T08:02:00Z"

    def wait_busy_time(self) -> None:
        """Linux starts its tick counter five minutes before it overflows; until then no card is slow."""
        def counts() -> bool:
            return float(self.camera.check("cat /proc/uptime").split()[0]) > BUSY_TIME_S
        self.wait(counts, "five minutes since power-on", BUSY_TIME_S + PATIENCE_S)

    def slow(self) -> str:
        """The daemon looks once a minute at what the kernel has counted; a minute that began fast counts as fast."""
        self.camera.slow(bps_wr=80 * 1024)
        before = self.disk_statistics()
        recorder = self.camera.spawn("exec vesk_recorder --size 32k --start 2026-11-23T08:00:00Z --interval 1")
        alert = self.wait_alert(1, 300)
        self.camera.unthrottle()
        self.camera.check(f"kill {recorder}", PATIENCE_S)
        after = self.disk_statistics()
        sectors, busy_ms = (now - then for now, then in zip(after, before))
        if not 0 < alert["mean_speed"] < SLOW_BPS or not 0 < alert["active_sec"] <= sectors:
            raise CameraError(f"the report says {alert}, the kernel {sectors} sectors in {busy_ms} ms")
        return (f"{live_view.size(alert['mean_speed'])}/s; by the kernel's count {sectors} sectors in "
                f"{busy_ms / 1000:.1f} s, {live_view.size(sectors * 512000 // busy_ms)}/s")

    # --- what they use ---

    @staticmethod
    def expect(wanted: object, seen: object) -> None:
        if wanted != seen:
            raise CameraError(f"{wanted} was expected, {seen} was seen")

    def wait(self, condition: Callable[[], object], what: str, deadline_s: float = PATIENCE_S) -> None:
        wait_until(condition, deadline_s, what, 0.2)

    def wait_state(self, state: str) -> None:
        self.wait(lambda: self.camera.state() == state, f"the state {state}")

    def on_alert(self, message: Message) -> None:
        self.alerts.put(json.loads(message.payload))

    def wait_alert(self, kind: int, deadline_s: float = PATIENCE_S) -> dict[str, Any]:
        end = time.monotonic() + deadline_s
        while True:
            try:
                alert = self.alerts.get(timeout=max(0.0, end - time.monotonic()))
            except queue.Empty:
                raise CameraError(f"no alert of type {kind} within {deadline_s} s") from None
            if alert["type"] == kind:
                return alert

    def times(self, options: str = "") -> list[str]:
        return [clip["time"] for clip in ctl(self.camera, f"clips {options}")]

    def disk_statistics(self) -> tuple[int, int]:
        """Sectors written to the card, and the milliseconds for which it was busy, since it was put in."""
        fields = self.camera.check("cat /sys/block/mmcblk0/stat", PATIENCE_S).split()
        return int(fields[6]), int(fields[9])

    def wait_clips(self, count: int) -> None:
        self.wait(lambda: status(self.camera).get("clips") == count, f"{count} clips in the index")
