"""The command agent: what every other scenario relies on."""

import os
import threading
import time

import pytest

from vcam import Camera, CameraError, GuestTimeout


def test_exit_code_and_both_outputs_are_told_apart(camera: Camera) -> None:
    result = camera.run("echo out; echo err >&2; exit 7")
    assert (result.code, result.out, result.err) == (7, b"out\n", b"err\n")


def test_output_that_looks_like_an_answer_is_output(camera: Camera) -> None:
    text = b"\n0123456789abcdef 0 0\n"
    assert camera.run("cat", stdin=text).out == text


def test_bytes_survive_both_ways(camera: Camera) -> None:
    content = os.urandom(300_000) + b"\0\r\n\n"
    camera.put_file("/tmp/bytes", content)
    assert camera.get_file("/tmp/bytes") == content
    camera.check("rm /tmp/bytes")


def test_a_command_that_hangs_is_given_up(camera: Camera) -> None:
    with pytest.raises(GuestTimeout):
        camera.run("sleep 60", timeout=1)


def test_commands_run_beside_each_other(camera: Camera) -> None:
    slow = threading.Thread(target=lambda: camera.run("sleep 10"))
    slow.start()
    start = time.monotonic()
    assert camera.check("echo fast") == "fast"
    assert time.monotonic() - start < 8
    slow.join()


def test_a_program_left_behind_does_not_hold_the_answer_back(camera: Camera) -> None:
    start = time.monotonic()
    assert camera.run("sleep 60 & echo done").out == b"done\n"
    assert time.monotonic() - start < 25
    camera.run("killall sleep")


def test_check_tells_a_failure(camera: Camera) -> None:
    with pytest.raises(CameraError, match="exit code 1"):
        camera.check("false")


def test_the_clock_is_the_hosts(camera: Camera) -> None:
    assert abs(int(camera.check("date +%s")) - time.time()) < 5
