"""Waiting for something in the guest: what counts as "not yet", and what ends it. Needs no camera."""

from collections.abc import Callable

import pytest

from vcam import Camera, CameraError, GuestTimeout, wait_until


def raising(error: Exception) -> Callable[[], None]:
    def look() -> None:
        raise error
    return look


@pytest.mark.parametrize("look", [
    raising(CameraError("the command failed")), raising(ConnectionResetError()), raising(TimeoutError()),
    lambda: int("1K-blocks"), lambda: int(""), lambda: "".split()[3], lambda: {}["clips"], lambda: None, lambda: False])
def test_no_answer_yet_is_waited_for(look: Callable[[], object]) -> None:
    looks = [look, look, lambda: "there"]
    assert wait_until(lambda: looks.pop(0)(), 20, "it") == "there"
    assert not looks


def test_the_last_error_is_named() -> None:
    with pytest.raises(GuestTimeout, match="not within 0.1 s: the size; last: ValueError.*1K-blocks") as caught:
        wait_until(lambda: int("1K-blocks") > 5, 0.1, "the size")
    assert isinstance(caught.value.__cause__, ValueError)
    with pytest.raises(GuestTimeout, match="not within 0.1 s: it$"):
        wait_until(lambda: False, 0.1, "it")


@pytest.mark.parametrize("error", [AssertionError("two clips"), TypeError("no such argument"), NameError("no such name")])
def test_a_mistake_in_a_scenario_is_not_waited_for(error: Exception) -> None:
    with pytest.raises(type(error)):
        wait_until(raising(error), 20, "it")


def test_an_emulator_that_ends_at_once_is_not_waited_for(tmp_path) -> None:
    with Camera(tmp_path) as camera, pytest.raises(CameraError, match="the emulator ended: .*no-such-option"):
        camera.start(extra=("-no-such-option",), boot_timeout=60)
