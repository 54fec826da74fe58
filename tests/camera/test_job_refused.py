"""Requests that start nothing. Each is answered all the same; what became of it shows in the state."""

from collections.abc import Callable
from pathlib import Path

from conftest import insert_normal, wait_daemon
from jobs import KEYS, eject_card, request, wait_job
from stand_ins import Tools
from vcam import Camera

MakeCard = Callable[..., Path]


def test_a_second_request_is_refused_while_one_runs(camera: Camera, card: MakeCard, tools: Tools) -> None:
    insert_normal(camera, card("fat"))
    tools.stop_before("fdisk")
    mark = request(camera, "format")
    tools.wait_stopped("fdisk")
    assert camera.state() == "formatting"
    assert camera.key("sdcard_rw") == "none"

    request(camera, "format")
    camera.wait_log("sdcard_mkfs: closure is busy", since=mark)
    request(camera, "eject")
    camera.wait_log("sdcard_eject: closure is busy", since=mark)
    assert camera.state() == "formatting"

    tools.go("fdisk")
    text = wait_job(camera, "mkfs", "successful", mark)
    assert text.count("closure: sdcard_") == 1, "more than one job was started"
    camera.wait_state("normal")


def test_a_write_protected_card_is_not_formatted(camera: Camera, card: MakeCard) -> None:
    made = card("fat")
    content = made.read_bytes()
    camera.insert(made, write_protected=True)
    camera.wait_state("broken")
    mark = request(camera, "format")
    camera.wait_log("sdcard_mkfs: Unable to format sdcard when mmc device in 2 state.", since=mark)
    assert "closure: " not in camera.log_since(mark)
    assert camera.state() == "broken"
    camera.pull()
    camera.wait_state("not_exists")
    assert made.read_bytes() == content


def test_without_a_card_there_is_nothing_to_format_or_eject(camera: Camera) -> None:
    mark = request(camera, "format")
    camera.wait_log("sdcard_mkfs: Unable to format sdcard when mmc device in 0 state.", since=mark)
    request(camera, "eject")
    camera.wait_log("sdcard_eject: sdcard is not exists", since=mark)
    assert "closure: " not in camera.log_since(mark)
    assert camera.state() == "not_exists"


def test_an_ejected_card_is_neither_formatted_nor_ejected_again(camera: Camera, card: MakeCard) -> None:
    made = card("fat")
    insert_normal(camera, made)
    eject_card(camera)
    content = made.read_bytes()
    mark = request(camera, "format")
    camera.wait_log("sdcard_mkfs: Unable to format sdcard when mmc device in 3 state.", since=mark)
    request(camera, "eject")
    assert "closure: " not in camera.log_since(mark)
    assert camera.state() == "eject"
    camera.pull()
    camera.wait_state("not_exists")
    assert made.read_bytes() == content


def test_any_other_value_of_a_request_key_is_none(camera: Camera, card: MakeCard) -> None:
    insert_normal(camera, card("fat"))
    pid = wait_daemon(camera)
    for operation, job in (("format", "mkfs"), ("eject", "eject")):
        mark = camera.log_mark()
        for value in ("", "star", "Start", "stop", "end1", "x" * 60000):
            camera.publish(f"karvel/mem/default/{KEYS[operation]}", value, retain=True)
        # Behind them on the same way, and so proof that they were read: a request, with more behind its word.
        camera.publish(f"karvel/mem/default/{KEYS[operation]}", "started", retain=True)
        text = wait_job(camera, job, "successful", mark)
        assert text.count("closure: sdcard_") == 1
        camera.wait_state({"format": "normal", "eject": "eject"}[operation])
    assert wait_daemon(camera) == pid
