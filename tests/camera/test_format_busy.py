"""A format while somebody holds the card: ten tries, and the holder's name in an alert."""

from collections.abc import Callable
from pathlib import Path

from conftest import insert_normal, record, wait_clips, wait_daemon
from jobs import Reports, format_card, frame, hold, mounted, request, restart_daemon, wait_job, wait_recordings
from stand_ins import HOLDER, Tools
from vcam import Camera

MakeCard = Callable[..., Path]

RETRY = "closure: on_retry_umount(): cl_next_execvp_read -> fuser_done"  # after each try but the first
EBUSY = 16


def test_a_holder_that_stays_fails_the_format_after_ten_tries(probed: Camera, card: MakeCard) -> None:
    camera = probed
    insert_normal(camera, card("fat"))
    times = record(camera, 1)
    alerts = Reports(camera, "sdcard.alert")
    hold(camera)
    mark = request(camera, "format")
    text = wait_job(camera, "mkfs", "failed", mark)

    assert text.count(RETRY) == 9
    assert text.count("cl_mkfs: Unable to umount sdcard.") == 1
    assert "cl_next_execvp_write" not in text, "fdisk was started on a card in use"
    assert frame(camera) == (3, EBUSY, 0)
    # Nine times found, and reported once: the rest falls into the five minutes after it.
    assert alerts.wait(1) == [{"type": 2, "fuser": [HOLDER]}]
    assert text.count("rpc_send_alert_umount_fail: ") == 1

    # As if nothing had happened.
    camera.wait_state("normal")
    assert mounted(camera)
    camera.check(f"killall {HOLDER}")
    wait_recordings(camera)
    times += record(camera, 1, start=times[-1] + 10)
    wait_clips(camera, times)
    camera.pull()
    camera.wait_state("not_exists")


def test_a_holder_that_lets_go_after_the_third_try_delays_the_format(camera: Camera, card: MakeCard,
                                                                     tools: Tools) -> None:
    restart_daemon(camera)
    insert_normal(camera, card("fat"))
    pid = wait_daemon(camera)
    alerts = Reports(camera, "sdcard.alert")
    hold(camera)
    # The second fuser comes behind the third try; it names the holder before that one ends.
    tools.stand_in("fuser", 'echo >>/tmp/fuser.runs; $REAL "$@"; code=$?\n'
                   f'[ "$(wc -l </tmp/fuser.runs)" = 2 ] && {{ killall {HOLDER}; while pidof {HOLDER}; do :; done; }} >&2\n'
                   "exit $code")
    camera.run("rm -f /tmp/fuser.runs")
    text = format_card(camera)
    assert text.count(RETRY) == 2
    assert alerts.wait(1) == [{"type": 2, "fuser": [HOLDER]}]
    assert wait_daemon(camera) == pid
