"""Jobs, pulls, swaps and holders in any order. Whatever happened: the daemon ends in the state that the card is in."""

import random
import re
from collections.abc import Callable, Iterator
from pathlib import Path

import pytest

from conftest import wait_daemon
from jobs import JOB_S, KEYS, request, start_holder
from stand_ins import HOLDER
from test_pull import let_pass
from vcam import Camera, GuestTimeout, wait_until

MakeCard = Callable[..., Path]

KINDS = ["fat", "blank", "noise", "whole_disk_fat", "four_partitions", "exfat"]
STEPS = 7
PAUSES_S = [0, 0, 0.2, 0.5, 1, 2, 3]
FULL_KIB = 40 * 1024  # less free space is a full card

# What the card is, from the kernel alone: absent; written off by an eject; or what a mount of it gives. The mount that
# is tried is one of a namespace that the daemon does not see.
TELL_CARD = f"""
[ -e /sys/block/mmcblk0 ] || {{ echo not_exists; exit; }}
read -r ro </sys/block/mmcblk0/ro
devices=$(cat /sys/block/mmcblk0/dev /sys/block/mmcblk0/mmcblk0p*/dev 2>/dev/null)
set -- $(awk '$5 == "/mnt/sdcard" {{ print $3, $6 }}' /proc/self/mountinfo)
if [ "$ro" = 1 ]; then
    [ $# = 0 ] && echo eject || echo "ejected, but mounted"
elif [ $# = 0 ]; then
    for node in /dev/mmcblk0 /dev/mmcblk0p*; do
        for kind in vfat exfat; do
            unshare -m mount -t $kind $node /tmp 2>/dev/null && {{ echo "not mounted, but $node is a $kind"; exit; }}
        done
    done
    echo broken
elif [ $# != 2 ]; then
    echo "mounted more than once"
elif ! echo "$devices" | grep -qx "$1"; then
    echo "mounted from a card that is gone"
else
    case "$2" in
        ro*) echo broken ;;
        *) [ "$(df -k /mnt/sdcard | awk 'END {{ print $4 }}')" -lt {FULL_KIB} ] && echo full || echo normal ;;
    esac
fi
"""


def pytest_generate_tests(metafunc: pytest.Metafunc) -> None:
    if "seed" in metafunc.fixturenames:
        first, count = (int(metafunc.config.getoption(name)) for name in ("--seed", "--sequences"))
        metafunc.parametrize("seed", range(first, first + count))


def make_steps(seed: int) -> list[tuple[str, str, float]]:
    """What is done, with which kind of card, and for how long nothing is done after it."""
    rng = random.Random(seed)
    inserted = False
    steps = []
    for _ in range(STEPS):
        does = rng.choice(["format", "format", "eject", "pull", "swap", "hold", "release"]) if inserted else "insert"
        inserted = does != "pull"
        steps.append((does, rng.choice(KINDS) if does in ("insert", "swap") else "", rng.choice(PAUSES_S)))
    return steps


def take_step(camera: Camera, card: MakeCard, does: str, kind: str) -> None:
    if does in KEYS:
        request(camera, does)
    elif does == "insert":
        camera.insert(card(kind))
    elif does == "swap":
        camera.swap(card(kind))
    elif does == "pull":
        camera.pull()
    elif does == "hold":
        start_holder(camera)
    else:
        camera.run(f"killall {HOLDER}")


def tell_card(camera: Camera) -> str:
    return camera.run(TELL_CARD).text


def jobs_run(log: str) -> tuple[int, int]:
    """How many jobs were started, and how many ended."""
    return log.count(" -> on_closure_done"), len(re.findall(r"closure: \w+ (?:successful|failed)", log))


@pytest.fixture
def sequence_camera(camera: Camera, request: pytest.FixtureRequest) -> Iterator[Camera]:
    yield camera
    camera.run(f"killall -9 {HOLDER}; rm -f /mnt/sdcard/held")


def test_the_daemon_ends_in_the_state_that_the_card_is_in(sequence_camera: Camera, card: MakeCard, seed: int) -> None:
    camera = sequence_camera
    pid = wait_daemon(camera)
    mark = camera.log_mark()
    steps = make_steps(seed)
    for does, kind, pause_s in steps:
        take_step(camera, card, does, kind)
        let_pass(pause_s)
    camera.run(f"killall {HOLDER}")

    try:
        wait_until(lambda: len(set(jobs_run(camera.log_since(mark)))) == 1, 2 * JOB_S, "the end of the jobs")
        wait_until(lambda: tell_card(camera) == camera.state(), 30, "the state that the card is in")
        if camera.card:
            camera.pull()
        wait_until(lambda: camera.state() == "not_exists", 30, "an empty slot")
    except GuestTimeout as error:
        pytest.fail(f"{error}: card {tell_card(camera)}, state {camera.state()} after {steps}\n{camera.log_since(mark)}")
    assert wait_daemon(camera) == pid, f"the daemon did not survive {steps}"
