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
from cards import make_card
from story import ALERTS, CARD_BYTES, CLIP_BYTES, Story, ctl, record, status
from vcam import Camera, CameraError
from vmqtt import Message

LEVELS = {"2": "crit   ", "3": "err    ", "4": "warning", "6": "info   ", "7": "debug  "}  # the log's priority marks


class Live:
    """The live view: draws ten times a second what a second thread has found out, and obeys keys."""

    def __init__(self, camera: Camera, cards: Path) -> None:
        self.camera = camera
        self.cards = cards
        self.began = time.monotonic()
        self.shot = live_view.Snapshot(doing="booting")
        self.made = 0
        self.holder: int | None = None  # its process id in the guest
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

    def on_alert(self, message: Message) -> None:
        alert = json.loads(message.payload)
        self.shot.alert = {
            1: lambda: f"too slow: {live_view.size(alert['mean_speed'])}/s for {alert['elapse']} s",
            2: lambda: f"not unmounted, held by {', '.join(alert['fuser']) or 'nobody known'}",
            4: lambda: "the card is broken",
            5: lambda: "the card is gone, and was not ejected",
        }.get(alert["type"], lambda: str(alert))()

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
            self.camera.subscribe(ALERTS, self.on_alert)
            self.shot.doing = "booted; i puts a card in"
        except (CameraError, OSError, TimeoutError) as error:
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
        self.camera.slow(bps_wr=80 * 1024) if self.shot.slow else self.camera.unthrottle()

    def hold(self) -> None:
        """A program that keeps a file of the card open, or its end."""
        if self.holder:
            self.camera.run(f"kill {self.holder}")
        self.holder = None if self.holder else self.camera.spawn("exec sleep 86400 > /mnt/sdcard/held")
        self.shot.held = self.holder is not None

    def job(self, command: str) -> None:
        """A card job from its request to its end; how it ended is worth reading when it failed."""
        ended = ctl(self.camera, f"{command} --wait", (0, 1, 3, 6, 7))
        if ended["outcome"] != "done":
            raise CameraError(f"{ended['outcome']}, {ended['detail']}" if ended["detail"] else ended["outcome"])

    def oldest(self, command: str, options: str = "") -> None:
        clips = ctl(self.camera, f"clips {options}")
        if not clips:
            raise CameraError("there is no such clip")
        ctl(self.camera, f"{command} {clips[0]['time']}")

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
            "f": ("recording until the card is full", lambda: self.record(CARD_BYTES // CLIP_BYTES)),
            "w": ("changing the card's speed", self.slow),
            "v": ("protecting the oldest unprotected clip", lambda: self.oldest("save", "--unmarked")),
            "d": ("deleting the oldest clip", lambda: self.oldest("delete --yes")),
            "h": ("holding the card busy" if not self.holder else "letting the card go", self.hold),
            "e": ("ejecting", lambda: self.job("eject")),
            "m": ("formatting", lambda: self.job("format --yes")),
        }
        if key == "q":
            self.over.set()
        elif key in ("p", "w", "h"):
            # Cards are pulled, go slow and are held while something else is going on; that is what they are here for.
            try:
                actions[key][1]()
            except (CameraError, OSError, TimeoutError) as error:
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
        except (CameraError, OSError, TimeoutError, LookupError, ValueError) as error:
            print(f"not seen to happen: {error}", file=sys.stderr)
            if camera.log_path.exists():
                print("the camera's last words:\n" + camera.log()[-3000:], file=sys.stderr)
            return 1


if __name__ == "__main__":
    sys.exit(main())
