"""veskctl format and eject: how they follow a job, and each way in which they may end."""

from __future__ import annotations

import json
import os
import pty
import re
import subprocess
import time
from pathlib import Path

import pytest
from conftest import Broker, Listener, command, environment, run

FORMAT = "spec_sdcard_format"
EJECT = "spec_sdcard_unmount"
NORMAL, NOT_EXISTS, FULL, BROKEN, FORMATTING, EJECTED, FIXING, EJECTING = range(8)


def ask(broker: Broker, *arguments: object) -> subprocess.CompletedProcess[str]:
    return run("veskctl", "--bus", broker.address, *arguments)


# --- eject ------------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("course, code, said", [
    ([EJECTING, "end", 0.2, EJECTED], 0, "eject: done, the card may be pulled\n"),
    ([EJECTING, EJECTED, "end"], 0, "eject: done, the card may be pulled\n"),
    ([EJECTED, "end"], 0, "eject: done, the card may be pulled\n"),
    ([EJECTING, "end", 0.2, NORMAL], 1, "eject: failed, the card is still in service; veskctl busy names who holds it\n"),
    ([EJECTING, "end", 0.2, FULL], 1, "eject: failed, the card is still in service; veskctl busy names who holds it\n"),
    ([EJECTING, "end", 0.2, BROKEN], 1, "eject: failed, the card is still in service; veskctl busy names who holds it\n"),
    ([EJECTING, "end", 0.2, NOT_EXISTS], 7, "eject: ended, outcome unknown, no card is in service\n"),
    (["end"], 6, "eject: refused, vesk_sdcard did not begin it; its log says why\n"),
    ([], 3, "eject: not answered, vesk_sdcard did not answer the request\n"),
    ([EJECTING, "end"], 7, "eject: ended, outcome unknown, not ended in the time allowed\n"),
], ids=["done", "done at once", "not mounted", "held", "held while full", "broken", "pulled", "refused", "no answer", "hangs"])
def test_eject_and_wait(broker: Broker, daemon, course: list, code: int, said: str) -> None:
    it = daemon(jobs={EJECT: course})
    done = ask(broker, "eject", "--wait", "--timeout", 4)
    if said.startswith("eject: ended, outcome unknown, not ended"):
        said = said.replace("ended, outcome unknown, not ended", "outcome unknown, not ended")
    assert (done.returncode, done.stdout) == (code, said), done.stderr
    assert it.asked == [(EJECT, "start")]


def test_eject_shows_the_states_as_they_come(broker: Broker, daemon) -> None:
    daemon(jobs={EJECT: [EJECTING, "end", 0.7, EJECTED]})
    done = ask(broker, "eject", "--wait")
    first, second = re.fullmatch(r" +([\d.]+) s  ejecting\n +([\d.]+) s  eject\n", done.stderr).groups()
    assert 0 <= float(first) < float(second) and 0.7 <= float(second) < 20


def test_eject_without_waiting(broker: Broker, daemon) -> None:
    daemon(jobs={EJECT: [EJECTING, "end", 1.0, NORMAL]})
    done = ask(broker, "eject")
    assert (done.returncode, done.stdout) == (0, "eject: begun\n")


def test_eject_as_json(broker: Broker, daemon) -> None:
    daemon(jobs={EJECT: [EJECTING, "end", EJECTED]})
    seen = json.loads(ask(broker, "--json", "eject", "--wait").stdout)
    assert 0 <= seen.pop("elapsed_s") < 20
    assert seen == {"request": "eject", "outcome": "done", "detail": "the card may be pulled", "state": "eject"}


@pytest.mark.parametrize("state, code, said", [
    (EJECTED, 0, "eject: done, the card was ejected before\n"),
    (NOT_EXISTS, 6, "eject: refused, there is no card\n"),
    (FORMATTING, 6, "eject: refused, another job is running\n"),
    (FIXING, 6, "eject: refused, another job is running\n"),
    (EJECTING, 6, "eject: refused, another job is running\n")])
def test_eject_that_need_not_be_asked(broker: Broker, daemon, state: int, code: int, said: str) -> None:
    it = daemon(state=state)
    done = ask(broker, "eject", "--wait")
    assert (done.returncode, done.stdout) == (code, said)
    assert it.asked == []


def test_another_ones_answer_is_none(broker: Broker, daemon) -> None:
    """What the service kept from an earlier request does not count."""
    broker.publish(f"karvel/mem/default/{EJECT}", "end123", keep=True)
    daemon(jobs={EJECT: []})
    done = ask(broker, "eject", "--wait", "--timeout", 4)
    assert done.returncode == 3


def test_request_is_not_kept_by_the_service(broker: Broker, daemon) -> None:
    daemon(jobs={EJECT: [EJECTING, EJECTED]})
    assert ask(broker, "eject", "--wait").returncode == 0
    kept = Listener(broker, "karvel/mem/default/#")
    assert not [line for line in kept.messages() if "start" in line]
    kept.end()


def test_request_in_the_second_of_the_last_answer_waits(broker: Broker, daemon) -> None:
    """The daemon's answer would be the same text, and a value that has not changed is not sent."""
    daemon(jobs={EJECT: [EJECTING, "end", EJECTED]})
    now = int(time.time()) + 1
    broker.publish(f"karvel/mem/default/{EJECT}", f"end{now}", keep=True)
    listener = Listener(broker, f"karvel/mem/default/{EJECT}")
    while time.time() < now:
        time.sleep(0.01)
    assert ask(broker, "eject", "--wait").returncode == 0
    answers = [line for line in listener.messages() if line.startswith("0") and "end" in line]
    assert answers and not answers[0].endswith(f"end{now}")
    listener.end()


# --- format -----------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("course, code, said", [
    ([FORMATTING, "end", 0.2, NORMAL], 7, "format: ended, outcome unknown, the card cannot be seen from here\n"),
    ([FORMATTING, "end", 0.2, FULL], 7, "format: ended, outcome unknown, the card cannot be seen from here\n"),
    ([FORMATTING, "end", 0.2, BROKEN], 1, "format: failed, the card is broken\n"),
    ([FORMATTING, "end", 0.2, NOT_EXISTS], 7, "format: ended, outcome unknown, no card is in service\n"),
    (["end"], 6, "format: refused, vesk_sdcard did not begin it; its log says why\n"),
    ([], 3, "format: not answered, vesk_sdcard did not answer the request\n")],
    ids=["ended", "ended full", "broken", "pulled", "refused", "no answer"])
def test_format_from_afar(broker: Broker, daemon, course: list, code: int, said: str) -> None:
    """Where the card cannot be seen, the best that can be said is that the job has ended."""
    it = daemon(jobs={FORMAT: course})
    done = ask(broker, "format", "--yes", "--wait", "--timeout", 5)
    assert (done.returncode, done.stdout) == (code, said), done.stderr
    assert it.asked == [(FORMAT, "start")]


@pytest.mark.parametrize("state", [FORMATTING, FIXING, EJECTING])
def test_format_while_a_job_runs(broker: Broker, daemon, state: int) -> None:
    it = daemon(state=state)
    done = ask(broker, "format", "--yes")
    assert (done.returncode, done.stdout) == (6, "format: refused, another job is running\n")
    assert it.asked == []


@pytest.mark.parametrize("state", [NORMAL, NOT_EXISTS, FULL, BROKEN])
def test_format_of_what_may_need_it(broker: Broker, daemon, state: int) -> None:
    """A card without a filesystem is not mounted, hence "not_exists"; whether there is one, only the daemon knows."""
    daemon(jobs={FORMAT: [FORMATTING, "end"]}, state=state)
    done = ask(broker, "format", "--yes")
    assert (done.returncode, done.stdout) == (0, "format: begun\n")


def test_format_needs_a_yes(broker: Broker, daemon) -> None:
    it = daemon()
    done = ask(broker, "format")
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr == "veskctl: there is nobody to ask; --yes says that it is meant\n"
    assert it.asked == []


@pytest.mark.parametrize("word, code", [("y", 0), ("yes", 0), ("n", 6), ("", 6), ("yesterday", 6)])
def test_format_asks_a_person(broker: Broker, daemon, word: str, code: int) -> None:
    it = daemon(jobs={FORMAT: [FORMATTING, "end"]})
    master, slave = pty.openpty()
    os.write(master, word.encode() + b"\n")
    done = subprocess.run(command("veskctl", "--bus", broker.address, "format"), env=environment(), stdin=slave,
                          capture_output=True, text=True, timeout=60)
    os.close(slave)
    os.close(master)
    assert done.returncode == code
    assert done.stderr.startswith("Everything on the card will be erased. Format it? [y/N] ")
    assert it.asked == ([(FORMAT, "start")] if code == 0 else [])


# --- the service ------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("arguments", [["format", "--yes"], ["eject"]])
def test_without_service(tmp_path: Path, arguments: list[str]) -> None:
    done = run("veskctl", "--bus", f"unix:{tmp_path}/nobody", *arguments)
    assert (done.returncode, done.stdout) == (3, f"{arguments[0]}: not answered\n")
    assert done.stderr == f"veskctl: the configuration service does not answer at unix:{tmp_path}/nobody\n"


@pytest.mark.parametrize("arguments", [["format", "--yes"], ["eject"]])
def test_without_daemon(broker: Broker, arguments: list[str]) -> None:
    broker.publish("karvel/mem/default/sdcard_status", "0", keep=True)
    broker.publish("vesk/vesk_sdcard/status", "offline", keep=True)
    done = ask(broker, *arguments)
    assert (done.returncode, done.stdout) == (3, f"{arguments[0]}: not answered, vesk_sdcard is not running\n")


def test_service_that_goes_away(tmp_path: Path) -> None:
    from conftest import StandIn
    broker = Broker(tmp_path)
    it = StandIn(broker, jobs={EJECT: [EJECTING, "end", 0.5, broker.end]})
    done = ask(broker, "eject", "--wait")
    assert (done.returncode, done.stdout) == (7, "eject: outcome unknown, the configuration service went away\n")
    it.end()


@pytest.mark.parametrize("then, fate", [("lost", "went away"), ("lost after the answer", "went away"), ("silent", "went silent")])
@pytest.mark.parametrize("arguments, key", [(["format", "--yes"], FORMAT), (["eject", "--wait"], EJECT)])
def test_service_that_fails_with_the_request(broker: Broker, daemon, relay, arguments: list[str], key: str, then: str,
                                             fate: str) -> None:
    """Whether the request reached the daemon cannot be known then: not "nothing has changed"."""
    daemon(jobs={key: []})
    text = f"{key}\0".encode()  # a publication: its number, below 256, follows the topic, and options that are not 0 in a subscription
    done = run("veskctl", "--bus", relay(text, then).address, *arguments)
    assert (done.returncode, done.stderr) == (7, "")
    assert done.stdout == f"{arguments[0]}: outcome unknown, the configuration service {fate}\n"


def test_account_that_may_not(tmp_path: Path) -> None:
    """An account that may look but not ask is told so, and nothing is asked."""
    broker = Broker(tmp_path, "acl_file {folder}/acl\n", {"acl": "topic read karvel/mem/#\ntopic read vesk/+/status\n"
                                                                 "pattern read reply/#\n"})
    for arguments, key in ((["format", "--yes"], FORMAT), (["eject"], EJECT)):
        done = ask(broker, *arguments)
        assert (done.returncode, done.stdout) == (6, f"{arguments[0]}: refused\n")
        assert done.stderr == f"veskctl: the configuration service does not allow this account karvel/mem/default/{key}\n"
    broker.end()


@pytest.mark.parametrize("arguments", [
    ["format", "--what"], ["format", "more"], ["format", "--timeout"], ["format", "--timeout", "x", "--yes"],
    ["eject", "--yes"], ["eject", "more"], ["eject", "--timeout", "0"]])
def test_bad_arguments(arguments: list[str]) -> None:
    done = run("veskctl", *arguments)
    assert (done.returncode, done.stdout) == (2, "") and done.stderr
