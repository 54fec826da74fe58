"""The broker killed, frozen and restarted while the daemon runs."""

import time
from collections.abc import Callable
from pathlib import Path

from cards import RECORD_DIR
from conftest import clips, insert_normal, record, wait_daemon
from vcam import Camera, wait_until

MakeCard = Callable[..., Path]


def operations(camera: Camera) -> list[str]:
    """The operation log, each line "<time of the clip>: <what was done>" without its process id and time."""
    return [line.split(": ", 1)[1] for line in camera.check(f"cat /mnt/sdcard/{RECORD_DIR}/op.log").splitlines()]


def announce_until_taken(camera: Camera, first: int, deadline: float) -> int:
    """Announces one clip after the other until the daemon takes one: what a broker does not pass on is lost. The time
    of the last announced."""
    last = first - 1

    def taken() -> bool:
        nonlocal last
        last += 1
        camera.publish("karvel/mem/default/sdcard_kyt", f"{last},1")
        return any(first <= ts <= last for ts in clips(camera))
    wait_until(taken, deadline, "an announcement to be taken", 0.2)
    return last


def restart_broker(camera: Camera, signal: str) -> None:
    old = camera.check("pidof karveld")
    camera.check(f"kill -{signal} {old}")
    wait_until(lambda: camera.run("pidof karveld").text not in ("", old), 10, "another broker")
    wait_until(lambda: camera.run("netstat -tln | grep -q ':1883 '").code == 0, 10, "the broker's listener")


def test_a_killed_broker_costs_no_key_and_nothing_comes_twice(camera: Camera, card: MakeCard) -> None:
    insert_normal(camera, card("fat"))
    times = record(camera, 3)
    pid = wait_daemon(camera)
    camera.publish("karvel/mem/default/of_another_program", "kept", retain=True)
    for signal in ("KILL", "TERM"):
        restart_broker(camera, signal)
        assert camera.key("sdcard_status") == "0"
        assert camera.key("sdcard_rw") == "rdwr"
        assert camera.key("of_another_program") == "kept"
        last = announce_until_taken(camera, times[-1] + 10, 15)
        times += record(camera, 2, start=last + 10)
    entries = operations(camera)
    assert [entries.count(f"{ts}: saved") for ts in times] == [1] * len(times)
    assert not [entry for entry in entries if "overwrite" in entry], "an announcement was delivered twice"
    wait_until(lambda: set(times) <= set(clips(camera)), 20, "each clip in the index")
    assert wait_daemon(camera) == pid


def test_subscriptions_are_back_after_the_broker(camera: Camera, card: MakeCard) -> None:
    insert_normal(camera, card("fat"))
    restart_broker(camera, "KILL")
    announce_until_taken(camera, int(time.time()), 15)


def test_a_frozen_broker_does_not_stop_the_daemon(camera: Camera, card: MakeCard) -> None:
    pid = wait_daemon(camera)
    camera.check("kill -STOP $(pidof karveld)")
    camera.insert(card("fat"))
    wait_until(lambda: camera.run("grep ' /mnt/sdcard ' /proc/mounts").code == 0, 15, "the mount")
    wait_until(lambda: camera.run(f"test -d /mnt/sdcard/{RECORD_DIR}").code == 0, 15, "the recordings folder")
    camera.check("kill -CONT $(pidof karveld)")
    announce_until_taken(camera, int(time.time()), 15)
    assert wait_daemon(camera) == pid


def test_a_card_is_taken_while_there_is_no_broker_at_all(camera: Camera, card: MakeCard) -> None:
    pid = wait_daemon(camera)
    camera.check("/etc/init.d/S50karveld stop")
    camera.insert(card("fat"))
    wait_until(lambda: camera.run("grep ' /mnt/sdcard ' /proc/mounts").code == 0, 15, "the mount")
    camera.check("/etc/init.d/S50karveld start")
    wait_until(lambda: camera.run("netstat -tln | grep -q ':1883 '").code == 0, 10, "the broker's listener")
    announce_until_taken(camera, int(time.time()), 15)
    camera.wait_state("normal")
    assert wait_daemon(camera) == pid


def test_keys_set_by_hand(camera: Camera, card: MakeCard) -> None:
    """Whatever stands in a key that is the daemon's own, the daemon goes on and the next change sets it right."""
    insert_normal(camera, card("fat"))
    pid = wait_daemon(camera)
    for value in ("", "nonsense", "7", "x" * 60000):
        camera.publish("karvel/mem/default/sdcard_status", value, retain=True)
    camera.pull()
    camera.wait_state("not_exists")
    assert wait_daemon(camera) == pid
