"""Disk tools that fail in every way: missing, killed, hanging, talkative. The job ends, and the card is back as it is."""

import re
from collections.abc import Callable
from pathlib import Path

import pytest

from conftest import insert_normal, record, wait_daemon
from jobs import Reports, finish_format, format_card, hold, request, restart_daemon, wait_job
from promise import promise, promises
from stand_ins import HOLDER, Tools
from vcam import Camera

promises("cl_execvp")

MakeCard = Callable[..., Path]

COMPLAINTS = {"fdisk": "cl_mkfs: unable to re-create the partition table.",
              "mkfs.fat": "cl_mkfs: unable to make new filesystem."}
CAPTURE = 128  # bytes that are kept of fuser's output, a terminator's included


def fail_format(camera: Camera, tool: str, ending: str, mark: int) -> None:
    """The format that was requested at the mark fails at the tool, for that reason, and the card is what it is by then."""
    text = wait_job(camera, "mkfs", "failed", mark)
    assert f"{tool}: {ending}" in text
    assert text.count(COMPLAINTS[tool]) == 1
    assert ("next_finish" in text) == (tool == "mkfs.fat")
    # A card that fdisk has not touched is mounted again. Where the new partition starts there is no filesystem yet.
    camera.wait_state({"fdisk": "normal", "mkfs.fat": "broken"}[tool])


@pytest.mark.parametrize("tool", ["fdisk", "mkfs.fat"])
def test_a_tool_that_is_missing_or_fails(camera: Camera, card: MakeCard, tools: Tools, tool: str) -> None:
    insert_normal(camera, card("fat"))
    tools.take_away(tool)
    fail_format(camera, tool, "exit with code 99", request(camera, "format"))
    tools.restore()
    tools.stand_in(tool, "exit 3")
    fail_format(camera, tool, "exit with code 3", request(camera, "format"))
    tools.restore()
    format_card(camera)


@pytest.mark.parametrize("tool, reason", [("fdisk", "the old volume "),
                                          ("mkfs.fat", "nothing on the card |the card is broken")])
def test_a_failed_format_is_told_as_such(camera: Camera, card: MakeCard, tools: Tools, tool: str, reason: str) -> None:
    """With the old filesystem back in service, and with none at all: then the first state behind it is not_exists."""
    insert_normal(camera, card("fat"))
    tools.stand_in(tool, "exit 3")
    answer = camera.run("veskctl format --yes --wait", 60)
    assert answer.code == 1 and re.match(f"format: failed, ({reason})", answer.text), answer


@pytest.mark.parametrize("tool", ["fdisk", "mkfs.fat"])
def test_a_tool_that_hangs_waits_for_the_hand_that_kills_it(camera: Camera, card: MakeCard, tools: Tools,
                                                           tool: str) -> None:
    promise("the program hangs",
            "the loop goes on, requests are refused as busy, and the step ends when somebody kills it")
    insert_normal(camera, card("fat"))
    pid = wait_daemon(camera)
    tools.stop_before(tool)
    mark = request(camera, "format")
    tools.wait_stopped(tool)
    assert camera.state() == "formatting"
    # The loop goes on meanwhile: what is asked is answered, if only with a refusal.
    request(camera, "eject")
    camera.wait_log("sdcard_eject: closure is busy", since=mark)

    parent = f"[ \"$(awk '{{ print $4 }}' /proc/$child/stat)\" = {pid} ]"
    camera.check(f"for child in $(pidof {tool}); do {parent} && kill -9 $child; done; true")
    fail_format(camera, tool, "exit with signal Killed", mark)
    tools.restore()
    format_card(camera)
    assert wait_daemon(camera) == pid


def test_a_fuser_that_is_missing_costs_the_report_only(camera: Camera, card: MakeCard, tools: Tools) -> None:
    restart_daemon(camera)
    insert_normal(camera, card("fat"))
    alerts = Reports(camera, "sdcard.alert")
    hold(camera)
    tools.take_away("fuser")
    mark = request(camera, "format")
    camera.wait_log("fuser: exit with code 99", since=mark)
    camera.check(f"killall {HOLDER}")
    finish_format(camera, mark)
    assert [alert for alert in alerts.seen if alert["type"] == 2] == []


promises("cl_umount")


def test_a_fuser_that_prints_more_than_is_kept(camera: Camera, card: MakeCard, tools: Tools) -> None:
    promise("fuser prints more than 127 bytes",
            "what lies behind them is not looked at, and the alert has those before")
    restart_daemon(camera)
    insert_normal(camera, card("fat"))
    pid = wait_daemon(camera)
    alerts = Reports(camera, "sdcard.alert")
    holder = hold(camera)
    # Words that are no process, then the holder across the limit: its last digits are cut off with the rest.
    filler = " none" * ((CAPTURE - len(str(holder))) // 5)
    line = f"{holder} {holder}{filler}"
    assert CAPTURE - 6 < len(line) < CAPTURE + 20
    # It ends only when its output has been read: a child's end is handled before what is left in its pipe.
    tools.stand_in("fuser", f"printf '%s' '{line}{' none' * 100}'; : >/tmp/fuser.at; "
                   "until [ -e /tmp/fuser.go ]; do usleep 20000; done")
    mark = request(camera, "format")
    camera.wait_log("exec-fuser: stdout buffer overflow.", since=mark)
    tools.go("fuser")
    camera.wait_log("fuser: stdout buffer is too small!", since=mark)
    # The same process, named twice by the tool, is named twice in the alert.
    assert alerts.wait(1) == [{"type": 2, "fuser": [HOLDER, HOLDER]}]
    camera.check(f"killall {HOLDER}")
    finish_format(camera, mark)
    record(camera, 1)
    assert wait_daemon(camera) == pid


def test_of_many_holders_five_are_named(camera: Camera, card: MakeCard, tools: Tools) -> None:
    restart_daemon(camera)
    insert_normal(camera, card("fat"))
    alerts = Reports(camera, "sdcard.alert")
    holders = [hold(camera, f"/mnt/sdcard/held{number}") for number in range(7)]
    tools.stand_in("fuser", '$REAL "$@" | tee /tmp/fuser.said; exit 0')
    mark = request(camera, "format")
    assert alerts.wait(1)[0] == {"type": 2, "fuser": [HOLDER] * 5}
    assert set(holders) <= {int(word) for word in camera.check("cat /tmp/fuser.said").split()}
    camera.check(f"killall {HOLDER}")
    finish_format(camera, mark)
