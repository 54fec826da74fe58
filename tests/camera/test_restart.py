"""The daemon killed in any state: its start script starts it again, and it finds its way."""

from collections.abc import Callable
from pathlib import Path

import pytest

from cards import MIB, RECORD_DIR
from conftest import insert_normal, record, wait_clips, wait_daemon, wait_recordings
from promise import promise, promises
from vcam import ROOT, Camera, wait_until

promises("main")

MakeCard = Callable[..., Path]


@pytest.mark.parametrize(("kind", "size", "state"), [
    ("", 0, "not_exists"), ("fat", 64 * MIB, "normal"), ("fat", 32 * MIB, "full"), ("blank", 64 * MIB, "broken")])
def test_a_killed_daemon_publishes_the_same_state_again(camera: Camera, card: MakeCard, kind: str, size: int,
                                                        state: str) -> None:
    promise("the daemon is killed, with whichever card in the slot", "the next one publishes the same state")
    if kind:
        camera.insert(card(kind, size))
    camera.wait_state(state)
    pid = wait_daemon(camera)
    camera.publish("karvel/mem/default/sdcard_status", "6", retain=True)  # so that the old value proves nothing
    camera.check(f"kill -9 {pid}")
    assert wait_daemon(camera, pid) != pid
    camera.wait_state(state)


def test_a_daemon_killed_while_recording_loses_no_clip(camera: Camera, card: MakeCard) -> None:
    insert_normal(camera, card("fat"))
    times = record(camera, 5)
    pid = wait_daemon(camera)
    camera.check(f"kill -9 {pid}")
    wait_daemon(camera, pid)
    wait_recordings(camera)
    times += record(camera, 3, start=times[-1] + 10)
    wait_clips(camera, times)


def test_a_list_in_use_is_opened_when_it_is_free(camera: Camera, card: MakeCard) -> None:
    """Another program has the list locked, as the thread of a list that was left dirty does, and is killed."""
    promises("records", "Opening and closing the folder")
    promise("the list is in use for a while yet",
            '"Fail to open record list file: Device or resource busy", everything closed; a later look at the mount opens it')
    insert_normal(camera, card("fat"))
    times = record(camera, 3)
    camera.check("/etc/init.d/S60vesk_sdcard stop")
    camera.put_file("/tmp/make_list", (ROOT / "build/mipsel/bin/make_list").read_bytes())
    folder = f"/mnt/sdcard/{RECORD_DIR}"
    holder = camera.spawn(f"chmod 755 /tmp/make_list; sleep 300 | exec /tmp/make_list --hold {folder}", "/tmp/make_list.out")
    try:
        wait_until(lambda: camera.check("cat /tmp/make_list.out") == "open", 20, "the list in use")
        refused = camera.run(f"veskctl index repair {folder}")
        assert refused.code == 6 and b"the clip index is in use" in refused.err
        mark = camera.log_mark()
        camera.check("/etc/init.d/S60vesk_sdcard start >/dev/ttyS1 2>&1")
        camera.wait_log("Fail to open record list file: ", 20, mark)
        camera.wait_state("normal")
        assert "Device or resource busy" in camera.log_since(mark)
        camera.check("killall -9 make_list")
        camera.wait_log("The record msg load successfully", 20, mark)
    finally:
        camera.run(f"kill -9 -{holder}")
    times += record(camera, 2, start=times[-1] + 10)
    wait_clips(camera, times)


def test_a_card_pulled_while_the_daemon_was_away(camera: Camera, card: MakeCard) -> None:
    insert_normal(camera, card("fat"))
    camera.check("/etc/init.d/S60vesk_sdcard stop")
    camera.pull()
    camera.check("/etc/init.d/S60vesk_sdcard start")
    wait_daemon(camera)
    camera.wait_state("not_exists")
    insert_normal(camera, card("fat"))


def test_the_start_script_refuses_on_a_board_that_lives_on_such_a_device(camera: Camera, card: MakeCard) -> None:
    insert_normal(camera, card("fat"))
    camera.check("/etc/init.d/S60vesk_sdcard stop; umount /mnt/sdcard; mkdir -p /usr/local")
    camera.check("mount -t vfat /dev/mmcblk0p1 /usr/local")
    try:
        result = camera.run("/etc/init.d/S60vesk_sdcard start")
        assert result.code == 6
        assert b"/usr/local is mounted from device 179:" in result.err
        assert camera.run("pidof vesk_sdcard").code == 1
    finally:
        camera.run("umount /usr/local")
