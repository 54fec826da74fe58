"""Stand-ins for the disk tools, ahead of the real ones on the daemon's path: they stop a job where a scenario wants it,
so that none depends on being quick enough."""

from __future__ import annotations

from vcam import Camera, wait_until

TOOLS = {"fdisk": "/bin/fdisk", "fuser": "/bin/fuser", "mkfs.fat": "/sbin/mkfs.fat", "fsck.fat": "/sbin/fsck.fat"}
STAND_INS = "/usr/local/bin"
HOLDER = "card_holder"  # the command name of the processes that hold the card


class Tools:
    """What stands in for the tools of one camera."""

    def __init__(self, camera: Camera) -> None:
        self._camera = camera
        self._away: set[str] = set()

    def stand_in(self, name: str, script: str) -> None:
        """The script in the place of the tool. In it $REAL is the tool itself."""
        text = f"#!/bin/sh\nREAL={TOOLS[name]}\n{script}\n"
        self._camera.put_file(f"/tmp/{name}.new", text.encode())
        self._camera.check(f"rm -f /tmp/{name}.at /tmp/{name}.go && chmod 755 /tmp/{name}.new && "
                           f"mv /tmp/{name}.new {STAND_INS}/{name}")

    def stop_before(self, name: str) -> None:
        """The tool, when started, waits for `go`."""
        self.stand_in(name, f'{_wait(name)}\nexec $REAL "$@"')

    def stop_after(self, name: str) -> None:
        """The tool does its work and waits for `go` before it ends."""
        self.stand_in(name, f'$REAL "$@"\ncode=$?\n{_wait(name)}\nexit $code')

    def wait_stopped(self, name: str, deadline: float = 30) -> None:
        wait_until(lambda: self._camera.run(f"test -e /tmp/{name}.at").code == 0, deadline, f"{name} to be started")

    def go(self, name: str) -> None:
        self._camera.check(f": >/tmp/{name}.go")

    def take_away(self, name: str) -> None:
        """The camera as if the tool had never been installed."""
        self._camera.check(f"mv {TOOLS[name]} {TOOLS[name]}.away")
        self._away.add(name)

    def restore(self) -> None:
        """All as it was. What waits goes on, and the last of the holders ends."""
        for name in TOOLS:
            self._camera.run(f": >/tmp/{name}.go; rm -f {STAND_INS}/{name}")
        for name in self._away:
            self._camera.run(f"mv {TOOLS[name]}.away {TOOLS[name]}")
        self._away.clear()
        self._camera.run(f"killall -9 {HOLDER}")


def _wait(name: str) -> str:
    return f": >/tmp/{name}.at; until [ -e /tmp/{name}.go ]; do usleep 20000; done"
