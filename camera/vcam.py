"""Driver of the virtual camera: one QEMU process, its card slot, a shell in the guest, and its broker.

    with Camera() as camera:
        camera.start(card=make_card(path, 64 * MIB, "fat"))
        camera.wait_state("normal")

A camera always ends: `close` kills its QEMU, and so do leaving the `with` block, the end of this program in whatever
way, the end of the thread that called `start`, and the deadline given to `start`. Only that one process is ever
killed, by its process id.
"""

from __future__ import annotations

import base64
import json
import secrets
import shlex
import socket
import subprocess
import tempfile
import threading
import time
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path
from types import TracebackType
from typing import Any

from vmqtt import Bus, Message

ROOT = Path(__file__).resolve().parent.parent
IMAGE = ROOT / "build/camera/initrd.gz"
KERNEL = ROOT / "build/target/kernel/boot/vmlinuz"

DRIVE = "sd"  # QEMU's name of what is in the card slot; "sd0" is taken
SLOT = "slot"  # and of the slot itself
AGENT_PORT = 7000
BROKER_PORT = 1883
STATES = ("normal", "not_exists", "full", "broken", "formatting", "eject", "fixing", "ejecting")  # by sdcard_status


class CameraError(Exception):
    """The camera or its emulator did not do what was asked."""


class GuestTimeout(CameraError):
    """Something awaited in the guest did not happen in time."""


@dataclass(frozen=True)
class Result:
    """How a command in the guest ended."""

    code: int
    out: bytes
    err: bytes

    @property
    def text(self) -> str:
        """Standard output without the last line break."""
        return self.out.decode(errors="replace").rstrip("\n")


# What a look at the guest raises when there is nothing to see: the command failed, the connection broke, the text is no
# number, the word is not there. A mistake in a condition itself raises something else, and ends the waiting.
NO_ANSWER_YET = (CameraError, OSError, ValueError, LookupError)


def wait_until(condition: Callable[[], Any], deadline_s: float, what: str, interval_s: float = 0.05) -> Any:
    """Polls until the condition is true and returns what it gave; GuestTimeout names `what` otherwise.

    No answer yet is not true yet. A condition may look at something that is just being made or just going: a command
    that fails or prints nothing of use, a heading without a line, a broker that is away.
    """
    end = time.monotonic() + deadline_s
    while True:
        error: Exception | None = None
        try:
            value = condition()
            if value:
                return value
        except NO_ANSWER_YET as failure:
            error = failure
        if time.monotonic() > end:
            raise GuestTimeout(f"not within {deadline_s} s: {what}{f'; last: {error!r}' if error else ''}") from error
        time.sleep(interval_s)


class Qmp:
    """The emulator's control socket."""

    def __init__(self, path: Path) -> None:
        self._lock = threading.Lock()
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.settimeout(20)
        self._socket.connect(str(path))
        self._lines = self._socket.makefile("rb")
        self._lines.readline()  # the greeting
        self.execute("qmp_capabilities")

    def execute(self, command: str, **arguments: Any) -> Any:
        """Runs one command and returns its result; events that come in between are dropped."""
        request = json.dumps({"execute": command, "arguments": arguments})
        with self._lock:
            self._socket.sendall(request.encode())
            while line := self._lines.readline():
                reply = json.loads(line)
                if "error" in reply:
                    raise CameraError(f"{command}: {reply['error']['desc']}")
                if "return" in reply:
                    return reply["return"]
        raise CameraError(f"{command}: the emulator is gone")

    def close(self) -> None:
        self._lines.close()
        self._socket.close()


class Camera:
    """One virtual camera. Calls that touch the guest raise CameraError when it is not running."""

    def __init__(self, workdir: Path | str | None = None) -> None:
        """workdir: where the log, the sockets and the console go; a new directory below /tmp by default."""
        self.workdir = Path(workdir) if workdir else Path(tempfile.mkdtemp(prefix="vcam."))
        self.workdir.mkdir(parents=True, exist_ok=True)
        self.card: Path | None = None
        self._process: subprocess.Popen[bytes] | None = None
        self._qmp: Qmp | None = None
        self._alarm: threading.Timer | None = None
        self._ports: dict[int, int] = {}
        self._throttle: dict[str, int] = {}
        self._logged = 0  # cards with a log of their writes since power-on
        self._bus: Bus | None = None

    # --- power ---

    def start(self, card: Path | str | None = None, memory: int = 64, tcp_broker: bool = True,
              deadline: float = 600, boot_timeout: float = 90, extra: tuple[str, ...] = ()) -> Camera:
        """Powers the camera on and waits until its start scripts are through.

        card: image in the slot at power-on. memory: MiB. tcp_broker: the broker also listens where the host can reach
        it. deadline: seconds until the emulator is killed whatever it is doing. extra: more arguments for QEMU.
        """
        if self._process:
            raise CameraError("the camera is on already")
        self.card = Path(card) if card else None
        self._ports, self._throttle = {}, {}
        for log in (self.console_path, self.log_path):
            log.write_bytes(b"")
        qmp_path = self.workdir / "qmp"
        qmp_path.unlink(missing_ok=True)
        append = "console=ttyS0 rdinit=/init rootfstype=ramfs panic=-1 quiet" + (" vesk.tcp" if tcp_broker else "")
        forwards = "".join(f",hostfwd=tcp:127.0.0.1:0-:{port}" for port in (AGENT_PORT, BROKER_PORT))
        drive = f"if=none,id={DRIVE}" + (f",format=raw,file={self.card}" if self.card else "")
        # Slots 0x12 and 0x14 have interrupts of their own. Sharing one loses interrupts now and then, since the board's
        # interrupt controller looks at edges: the network stood still in one of sixty insertions.
        command = ["qemu-system-mipsel", "-M", "malta", "-m", str(memory), "-kernel", str(KERNEL),
                   "-initrd", str(IMAGE), "-append", append, "-display", "none", "-vga", "none", "-monitor", "none", "-no-reboot",
                   "-serial", f"file:{self.console_path}", "-serial", f"file:{self.log_path}",
                   "-nic", "none", "-netdev", f"user,id=net{forwards}", "-device", "pcnet,netdev=net,romfile=,addr=0x14",
                   "-device", "sdhci-pci,addr=0x12", "-drive", drive, "-device", f"sd-card,id={SLOT},drive={DRIVE}",
                   "-qmp", f"unix:{qmp_path},server=on,wait=off", *extra]
        # The kernel ends the emulator with this program, should it end without a chance to do so itself.
        command = ["setpriv", "--pdeathsig", "KILL", *command]
        with (self.workdir / "qemu.log").open("wb") as log:
            self._process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        self._alarm = threading.Timer(deadline, self._process.kill)
        self._alarm.daemon = True
        self._alarm.start()
        try:
            self._wait_emulator(qmp_path.exists, 20, "the emulator's control socket")
            self._qmp = Qmp(qmp_path)
            self._ports = self._forwarded_ports()
            self._wait_emulator(lambda: b"camera: started" in self.console_path.read_bytes(), boot_timeout, "boot")
        except BaseException:
            self.close()
            raise
        return self

    def power_cut(self) -> None:
        """Takes the power away: nothing is flushed, the card keeps what was written to it. `start` again works."""
        self._drop_bus()
        if self._qmp:
            self._qmp.close()
            self._qmp = None
        if self._alarm:
            self._alarm.cancel()
            self._alarm = None
        if self._process:
            self._process.kill()
            self._process.wait()
            self._process = None

    close = power_cut

    def __enter__(self) -> Camera:
        return self

    def __exit__(self, kind: type[BaseException] | None, error: BaseException | None,
                 trace: TracebackType | None) -> None:
        self.close()

    @property
    def running(self) -> bool:
        return self._process is not None and self._process.poll() is None

    @property
    def pid(self) -> int | None:
        """Process id of the emulator."""
        return self._process.pid if self._process else None

    # --- the card slot ---

    def insert(self, path: Path | str, write_protected: bool = False, write_log: Path | None = None) -> None:
        """Puts a card into the slot. write_protected: its switch is set before anything can write to it. write_log: a
        new file for all that is written to the card, in order, as the kernel's log-writes target lays it out."""
        if write_protected:
            self.spawn("until echo 1 > /sys/block/mmcblk0/force_ro; do usleep 10000; done")
        if write_log:
            write_log.write_bytes(b"")
            self._logged += 1
            node = f"logged{self._logged}"
            self._execute("blockdev-add", **{"driver": "blklogwrites", "node-name": node,
                                             "file": {"driver": "file", "filename": str(path)},
                                             "log": {"driver": "file", "filename": str(write_log)}})
            self._execute("blockdev-insert-medium", **{"id": SLOT, "node-name": node})
        else:
            self._execute("blockdev-change-medium", device=DRIVE, filename=str(path), format="raw")
        self.card = Path(path)
        self._apply_throttle()  # each medium has its own

    def pull(self) -> None:
        """Pulls the card without asking anybody, and returns when the guest's kernel has noticed.

        A card put in before that may go unnoticed: the emulated slot then shows no change.
        """
        self._execute("eject", device=DRIVE, force=True)
        self.card = None

        def noticed() -> bool:
            try:
                return self.run("test -e /sys/block/mmcblk0", 5).code != 0
            except GuestTimeout:
                return False  # the kernel may be waiting for the card's answer to what was under way
        wait_until(noticed, 30, "the kernel to notice the pull")

    def swap(self, path: Path | str) -> None:
        """Pulls the card and puts another one in as soon as the kernel has noticed."""
        self.pull()
        self.insert(path)

    def slow(self, bps_wr: int = 0, iops_wr: int = 0, bps_rd: int = 0, iops_rd: int = 0) -> None:
        """Limits the card: bytes or requests per second, 0 for no limit. Stays for cards inserted later."""
        self._throttle = {"bps_wr": bps_wr, "iops_wr": iops_wr, "bps_rd": bps_rd, "iops_rd": iops_rd}
        if self.card:
            self._apply_throttle()

    def unthrottle(self) -> None:
        self.slow()

    def write_protect(self, on: bool = True) -> None:
        """Moves the switch of the card in the slot."""
        self.check(f"echo {int(on)} > /sys/block/mmcblk0/force_ro")

    # --- a shell in the guest ---

    def run(self, command: str, timeout: float = 30, stdin: bytes = b"") -> Result:
        """Runs a shell command as root. Killed in the guest after `timeout` seconds; GuestTimeout then."""
        token = secrets.token_hex(8)
        script = base64.b64encode(command.encode()).decode()
        header = f"{token} {max(1, round(timeout))} {script}\n".encode()
        with self._connect_agent(timeout + 5) as connection:
            try:
                connection.sendall(header + stdin)
                connection.shutdown(socket.SHUT_WR)
                return _read_answer(connection, token)
            except (OSError, ValueError) as error:
                raise GuestTimeout(f"no answer from the guest ({error!r}) to: {command}") from error

    def check(self, command: str, timeout: float = 30) -> str:
        """Like `run`, returns the standard output as text and raises CameraError unless the command succeeded."""
        result = self.run(command, timeout)
        if result.code != 0:
            raise CameraError(f"{command}: exit code {result.code}: {result.err.decode(errors='replace')}")
        return result.text

    def spawn(self, command: str, output: str = "/dev/null") -> int:
        """Starts a command that goes on beside the others, its output in a file of the guest. Its process id."""
        quoted = shlex.quote(command)
        return int(self.check(f"setsid sh -c {quoted} >{output} 2>&1 </dev/null & echo $!"))

    def put_file(self, path: str, content: bytes, timeout: float = 60) -> None:
        result = self.run(f"cat > {shlex.quote(path)}", timeout, content)
        if result.code != 0:
            raise CameraError(f"put {path}: {result.err.decode(errors='replace')}")

    def get_file(self, path: str, timeout: float = 60) -> bytes:
        result = self.run(f"cat {shlex.quote(path)}", timeout)
        if result.code != 0:
            raise CameraError(f"get {path}: {result.err.decode(errors='replace')}")
        return result.out

    # --- the broker ---

    @property
    def broker_address(self) -> tuple[str, int]:
        """Where the guest's broker listens on the host; needs `tcp_broker`."""
        return "127.0.0.1", self._port(BROKER_PORT)

    @property
    def bus(self) -> Bus:
        """A connection to the guest's broker, made when first used and again after the broker went away."""
        if self._bus and not self._bus.alive:
            self._drop_bus()
        if not self._bus:
            self._bus = Bus.connect(*self.broker_address, user="admin", password="admin")
        return self._bus

    def publish(self, topic: str, payload: str | bytes, retain: bool = False) -> None:
        self.bus.publish(topic, payload, retain)

    def subscribe(self, topic: str, handler: Callable[[Message], None]) -> None:
        """Calls the handler, on a thread of the connection's own, for each message to come and each retained one."""
        self.bus.subscribe(topic, handler)

    def unsubscribe_all(self) -> None:
        """Forgets what was subscribed to so far."""
        if self._bus is not None and self._bus.alive:
            self._bus.unsubscribe_all()

    def wait_for(self, topic: str, predicate: Callable[[bytes], bool] = lambda _: True, deadline: float = 10) -> bytes:
        """The first payload of the topic that satisfies the predicate; a retained one counts."""
        try:
            return self.bus.wait_for(topic, predicate, deadline)
        except TimeoutError as error:
            raise GuestTimeout(str(error)) from error

    def key(self, name: str) -> str | None:
        """Value of a key of namespace "mem", group "default"; None when it has none."""
        value = self.bus.retained(f"karvel/mem/default/{name}")
        return value.decode(errors="replace") if value else None

    def wait_key(self, name: str, value: str, deadline: float = 10) -> None:
        """Waits until a key of namespace "mem", group "default" has the value."""
        self.wait_for(f"karvel/mem/default/{name}", lambda payload: payload == value.encode(), deadline)

    def state(self) -> str | None:
        """The published card state in words."""
        value = self.key("sdcard_status")
        return STATES[int(value)] if value and value.isdigit() and int(value) < len(STATES) else value

    def wait_state(self, state: str, deadline: float = 20) -> None:
        """Waits until the published card state is the given one."""
        number = str(STATES.index(state)).encode()
        self.wait_for("karvel/mem/default/sdcard_status", lambda value: value == number, deadline)

    # --- the log ---

    @property
    def log_path(self) -> Path:
        """The system log: what the daemons say, growing while the camera runs."""
        return self.workdir / "camera.log"

    @property
    def console_path(self) -> Path:
        return self.workdir / "console.log"

    def log(self) -> str:
        return self.log_path.read_text(errors="replace")

    def log_mark(self) -> int:
        """A position for `log_since` and `wait_log`."""
        return self.log_path.stat().st_size

    def log_since(self, mark: int) -> str:
        return self.log_path.read_bytes()[mark:].decode(errors="replace")

    def wait_log(self, text: str, deadline: float = 20, since: int = 0) -> str:
        """Waits for a line of the log that contains the text, and returns the line."""
        def find() -> str | None:
            lines = self.log_since(since).split("\n")
            return next((line for line in lines[:-1] if text in line), None)
        return str(wait_until(find, deadline, f'log line "{text}"'))

    # --- inside ---

    def _execute(self, command: str, **arguments: Any) -> Any:
        if not self._qmp:
            raise CameraError("the camera is off")
        return self._qmp.execute(command, **arguments)

    def _apply_throttle(self) -> None:
        limits = {"bps": 0, "bps_rd": 0, "bps_wr": 0, "iops": 0, "iops_rd": 0, "iops_wr": 0, **self._throttle}
        self._execute("block_set_io_throttle", device=DRIVE, **limits)

    def _wait_emulator(self, condition: Callable[[], Any], timeout: float, what: str) -> None:
        """wait_until that ends at once when the emulator does, and says why it did."""
        try:
            wait_until(lambda: not self.running or condition(), timeout, what)
        except GuestTimeout as error:
            raise GuestTimeout(f"{error}; console: {self.console_path.read_text(errors='replace')[-2000:]}") from None
        if not self.running:
            raise CameraError(f"the emulator ended: {(self.workdir / 'qemu.log').read_text()}")

    def _forwarded_ports(self) -> dict[int, int]:
        """The host ports that the emulator chose, by guest port: asking for a free port in advance would race."""
        ports = {}
        for line in self._execute("human-monitor-command", **{"command-line": "info usernet"}).splitlines():
            words = line.split()
            if words and words[0] == "TCP[HOST_FORWARD]":
                ports[int(words[5])] = int(words[3])
        return ports

    def _port(self, guest_port: int) -> int:
        if guest_port not in self._ports or not self.running:
            raise CameraError("the camera is off")
        return self._ports[guest_port]

    def _connect_agent(self, timeout: float) -> socket.socket:
        return socket.create_connection(("127.0.0.1", self._port(AGENT_PORT)), timeout)

    def _drop_bus(self) -> None:
        if self._bus:
            self._bus.close()
            self._bus = None


def _read_answer(connection: socket.socket, token: str) -> Result:
    """Reads the agent's answer (see rootfs/sbin/agent). A connection that ends before its last line is an error.

    It reads to that line, not to the end: a program left running in the guest may hold the connection open.
    """
    answer = bytearray()
    mark = f"\n{token} ".encode()
    while True:
        data = connection.recv(65536)
        answer += data
        at = answer.rfind(mark, max(0, len(answer) - len(data) - 64))
        if at >= 0 and answer.endswith(b"\n") and at + 1 < len(answer):
            code, length = (int(word) for word in answer[at + len(mark):].split())
            if code == 137:
                raise TimeoutError("killed")
            body = bytes(answer[:at])
            return Result(code, body[:at - length], body[at - length:])
        if not data:
            raise ConnectionError("connection ended early")
