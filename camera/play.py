"""The virtual camera for people: a live view on a terminal, a checked story without one. Run by script/run."""
from __future__ import annotations

import json
import os
import re
import select
import signal
import sys
import tempfile
import termios
import threading
import time
import tty
from pathlib import Path
from typing import Callable

import live_view
from cards import MIB, make_card
from vcam import Camera, CameraError, wait_until

CARD_BYTES = 128 * MIB
CLIP_KIB = 1024
STORY_DEADLINE_S = 900
RECORD = "vesk_recorder"
LEVELS = {"2": "crit   ", "3": "err    ", "4": "warning", "6": "info   ", "7": "debug  "}  # the log's priority marks


def status(camera: Camera) -> dict[str, object]:
    """What veskctl says in the guest; empty while it has nothing to say."""
    answer = camera.run("veskctl --json status", timeout=10)
    try:
        return json.loads(answer.out) if answer.out else {}
    except ValueError:
        return {}


def clip_count(camera: Camera) -> int:
    return int(status(camera).get("clips") or 0)


def record(camera: Camera, count: int, first: str, timeout: float = 300) -> None:
    """Records clips as the camera's recorder does, one a minute by their own clock and as fast as the card takes them."""
    camera.check(f"{RECORD} --count {count} --size {CLIP_KIB}k --start {first} --seconds 60 --interval 0", timeout)


class Story:
    """The main job from an empty slot to a full card and back, each step seen to happen or the story ends."""

    def __init__(self, camera: Camera, cards: Path) -> None:
        self.camera = camera
        self.cards = cards
        self.began = time.monotonic()
        self.steps = 0

    def step(self, text: str, happens: Callable[[], object]) -> None:
        began = time.monotonic()
        seen = happens()
        self.steps += 1
        now = time.monotonic()
        detail = f": {seen}" if isinstance(seen, str) else ""
        print(f"[{now - self.began:6.1f} s] {text}{detail} ({now - began:.1f} s)", flush=True)

    def play(self) -> None:
        camera = self.camera
        card = make_card(self.cards / "card.img", CARD_BYTES, "fat")
        self.step("the camera boots, its slot is empty", self.boot)
        self.step("a card goes in, is mounted and writable", lambda: self.insert(card))
        self.step("clips are recorded and indexed", self.record_some)
        self.step("the card fills, the oldest clips go, room is left", self.fill)
        self.step("the card is pulled", self.pull)
        self.step("it is put back, every clip is known again", lambda: self.put_back(card))
        self.step("recording goes on", self.record_more)
        print(f"all {self.steps} steps were seen to happen")

    def boot(self) -> None:
        self.camera.start(deadline=STORY_DEADLINE_S)
        self.camera.wait_state("not_exists")

    def insert(self, card: Path) -> str:
        self.camera.insert(card)
        self.camera.wait_state("normal")
        return str(self.camera.check("grep ' /mnt/sdcard ' /proc/mounts | cut -d' ' -f1-3"))

    def record_some(self) -> str:
        record(self.camera, 10, "2026-11-21T08:00:00Z")
        wait_until(lambda: clip_count(self.camera) == 10, 20, "10 clips in the index")
        return "10 clips"

    def fill(self) -> str:
        before = status(self.camera)["oldest"]
        record(self.camera, CARD_BYTES // (CLIP_KIB * 1024), "2026-11-21T09:00:00Z")
        wait_until(lambda: status(self.camera)["oldest"] != before, 60, "the oldest clip gone")
        self.camera.wait_state("normal", 60)
        now = status(self.camera)
        if int(now["free"]) < 40 * MIB:
            raise CameraError(f"only {now['free']} bytes free on a card that is not full")
        return f"oldest was {before}, is {now['oldest']}; {live_view.size(int(now['free']))} free"

    def pull(self) -> None:
        self.clips = clip_count(self.camera)
        # The index reaches the card within two seconds of a change; the last clip is older than that.
        newest = time.monotonic()
        wait_until(lambda: time.monotonic() - newest > 2, 5, "the index on the card")
        self.camera.pull()
        self.camera.wait_state("not_exists")

    def put_back(self, card: Path) -> str:
        self.camera.insert(card)
        self.camera.wait_state("normal")
        wait_until(lambda: clip_count(self.camera) == self.clips, 20, f"{self.clips} clips in the index")
        return f"{self.clips} clips"

    def record_more(self) -> str:
        before = status(self.camera)["newest"]
        record(self.camera, 3, "2026-11-21T20:00:00Z")
        wait_until(lambda: status(self.camera)["newest"] != before, 20, "a newer clip in the index")
        return f"newest is {status(self.camera)['newest']}"


class Live:
    """The live view: draws ten times a second what a second thread has found out, and obeys keys."""

    def __init__(self, camera: Camera, cards: Path) -> None:
        self.camera = camera
        self.cards = cards
        self.began = time.monotonic()
        self.shot = live_view.Snapshot(doing="booting")
        self.made = 0
        self.card: Path | None = None
        self.next_clip = int(time.time()) // 3600 * 3600
        self.busy = threading.Lock()
        self.over = threading.Event()

    # --- finding out ---

    def watch(self) -> None:
        while not self.over.is_set():
            try:
                self.look()
            except (CameraError, OSError, TimeoutError):
                pass  # the guest is booting or busy; the next look is a moment away
            self.over.wait(1)

    def look(self) -> None:
        if not self.camera.running:
            return
        now = status(self.camera)
        shot = self.shot
        shot.state = str(now.get("state") or "unknown")
        shot.access = str(now.get("writable") or "none")
        shot.total_bytes, shot.free_bytes = now.get("total"), now.get("free")
        shot.clips = now.get("clips")
        shot.oldest, shot.newest = str(now.get("oldest") or ""), str(now.get("newest") or "")

    def log_tail(self) -> list[str]:
        if not self.camera.log_path.exists():
            return []
        text = self.camera.log_path.read_bytes()[-8192:].decode(errors="replace")
        return [f"{LEVELS.get(level, '')} {words}" for level, words in re.findall(r"<([0-7])>([^\r\n]*)", text)]

    # --- doing ---

    def boot(self) -> None:
        """Powers the camera on. The emulator ends with the thread that started it, so this one stays."""
        try:
            self.camera.start(deadline=24 * 3600)
            self.shot.doing = "booted; i puts a card in"
        except (CameraError, OSError) as error:
            self.shot.doing = f"the camera did not boot: {error}"
        self.over.wait()

    def start(self, what: str, work: Callable[[], None]) -> None:
        """One thing at a time, beside the drawing."""
        if not self.busy.acquire(blocking=False):
            return

        def run() -> None:
            self.shot.doing = what
            try:
                work()
                self.shot.doing = f"{what}: done"
            except (CameraError, OSError, TimeoutError) as error:
                self.shot.doing = f"{what}: {error}"
            finally:
                self.busy.release()
        threading.Thread(target=run, daemon=True).start()

    def new_card(self) -> Path:
        self.made += 1
        self.card = make_card(self.cards / f"card{self.made}.img", CARD_BYTES, "fat")
        return self.card

    def insert(self) -> None:
        if self.camera.card is None:
            self.camera.insert(self.card or self.new_card())
            self.shot.card = f"card {self.made}, {live_view.size(CARD_BYTES)}"

    def pull(self) -> None:
        self.camera.pull()
        self.shot.card = ""

    def swap(self) -> None:
        self.camera.swap(self.new_card())
        self.shot.card = f"card {self.made}, {live_view.size(CARD_BYTES)}"

    def slow(self) -> None:
        self.shot.slow = not self.shot.slow
        self.camera.slow(bps_wr=100 * 1024) if self.shot.slow else self.camera.unthrottle()

    def record(self, count: int) -> None:
        first = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(self.next_clip))
        self.next_clip += 60 * count
        record(self.camera, count, first, 600)

    def key(self, key: str) -> None:
        actions: dict[str, tuple[str, Callable[[], None]]] = {
            "i": ("putting a card in", self.insert),
            "p": ("pulling the card", self.pull),
            "s": ("putting another card in", self.swap),
            "r": ("recording 5 clips", lambda: self.record(5)),
            "f": ("recording until the card is full", lambda: self.record(CARD_BYTES // (CLIP_KIB * 1024))),
            "w": ("changing the card's speed", self.slow),
        }
        if key == "q":
            self.over.set()
        elif key in ("p", "w"):
            # Cards are pulled and go slow while something else is going on; that is what they are here for.
            try:
                actions[key][1]()
            except CameraError as error:
                self.shot.doing = f"{actions[key][0]}: {error}"
        elif key in actions:
            self.start(*actions[key])

    # --- showing ---

    def frame(self) -> list[live_view.Line]:
        self.shot.uptime_s = time.monotonic() - self.began
        self.shot.log = self.log_tail()
        return live_view.frame(self.shot)

    def run(self) -> None:
        colour = "NO_COLOR" not in os.environ
        terminal = sys.stdin.fileno()
        before = termios.tcgetattr(terminal)
        sys.stdout.write("\x1b[?1049h\x1b[?25l")
        try:
            tty.setcbreak(terminal)
            threading.Thread(target=self.boot, daemon=True).start()
            threading.Thread(target=self.watch, daemon=True).start()
            while not self.over.is_set():
                sys.stdout.write(live_view.to_ansi(self.frame(), colour))
                sys.stdout.flush()
                if select.select([terminal], [], [], 0.1)[0]:
                    self.key(os.read(terminal, 1).decode(errors="replace"))
        finally:
            termios.tcsetattr(terminal, termios.TCSADRAIN, before)
            sys.stdout.write("\x1b[?25h\x1b[?1049l")
            picture = os.environ.get("VESK_PICTURE")
            if picture:
                Path(picture).write_text(live_view.to_svg(self.frame()))


def main() -> int:
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    with tempfile.TemporaryDirectory(prefix="vesk-run-") as folder, Camera(Path(folder) / "camera") as camera:
        if sys.stdin.isatty() and sys.stdout.isatty():
            Live(camera, Path(folder)).run()
            return 0
        try:
            Story(camera, Path(folder)).play()
            return 0
        except (CameraError, OSError, TimeoutError, KeyError) as error:
            print(f"not seen to happen: {error}", file=sys.stderr)
            if camera.log_path.exists():
                print("the camera's last words:\n" + camera.log()[-3000:], file=sys.stderr)
            return 1


if __name__ == "__main__":
    sys.exit(main())
