"""What the accounts of the broker's network listener may do: reading, operating and erasing are told apart."""

from collections.abc import Callable
from pathlib import Path

import pytest

from conftest import insert_normal
from vcam import Camera, wait_until
from vmqtt import Bus

MakeCard = Callable[..., Path]
PREFIX = "karvel/mem/default"


def connect(camera: Camera, role: str) -> Bus:
    return Bus.connect(*camera.broker_address, user=role, password=role)


def test_nobody_comes_in_without_a_password(camera: Camera) -> None:
    with pytest.raises(ConnectionError):
        Bus.connect(*camera.broker_address, timeout=1)
    with pytest.raises(ConnectionError):
        Bus.connect(*camera.broker_address, user="admin", password="viewer", timeout=1)


# What each role asks for, and whether the camera hears it.
@pytest.mark.parametrize(("role", "key", "value", "heard"), [
    ("viewer", "sdcard_kyt", "1795231084,10", False),
    ("viewer", "spec_sdcard_format", "stop", False),
    ("viewer", "spec_sdcard_unmount", "stop", False),
    ("operator", "sdcard_kyt", "1795231084,10", True),
    ("operator", "spec_sdcard_unmount", "stop", True),
    ("operator", "spec_sdcard_format", "stop", False),
    ("operator", "sdcard_status", "5", False),
    ("admin", "spec_sdcard_format", "stop", True),
    ("admin", "sdcard_status", "5", True),
])
def test_who_may_set_which_key(camera: Camera, role: str, key: str, value: str, heard: bool) -> None:
    before = camera.key(key)
    reached: list[bytes] = []
    camera.subscribe(f"{PREFIX}/{key}", lambda message: None if message.retained else reached.append(message.payload))
    bus = connect(camera, role)
    try:
        bus.publish(f"{PREFIX}/{key}", value)
    finally:
        bus.close()
    camera.publish(f"{PREFIX}/{key}", "behind")  # comes after whatever the broker passed on before
    wait_until(lambda: b"behind" in reached, 10, "the admin's own message")
    assert (value.encode() in reached) == heard
    assert camera.key(key) == before, "what is not retained may not stay"


def test_a_viewer_sees_the_card(camera: Camera, card: MakeCard) -> None:
    insert_normal(camera, card("fat"))
    bus = connect(camera, "viewer")
    try:
        assert bus.retained(f"{PREFIX}/sdcard_status") == b"0"
    finally:
        bus.close()
