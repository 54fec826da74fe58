"""veskctl save, delete, storage, log, report and the filters of clips, where the card itself cannot be seen."""

from __future__ import annotations

import json
import subprocess
from pathlib import Path

import pytest
from conftest import Broker, make_list, on_terminal, run

START = 1795226400  # 2026-11-21T02:00:00Z
FIGURES = '{"code": 0, "result": [130023424, 66060288, 62914560, 0]}'


def ask(broker: Broker, *arguments: object) -> subprocess.CompletedProcess[str]:
    return run("veskctl", "--bus", broker.address, *arguments)


# --- save and delete --------------------------------------------------------------------------------------------------


def test_save(broker: Broker, daemon) -> None:
    it = daemon(actions={"saveVideo": 0})
    done = ask(broker, "save", "2026-11-21T02:00:00Z", START + 60)
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout == "save: the daemon took 2 clips; whether it has them cannot be seen from here\n"
    assert it.asked == [("saveVideo", f"[{START},{START + 60}]")]
    assert json.loads(ask(broker, "save", START, "--json").stdout) == {"request": "save", "clips": 1, "protected": None}


def test_delete(broker: Broker, daemon) -> None:
    it = daemon(actions={"deleteVideo": 0})
    assert ask(broker, "delete", START).returncode == 2 and it.asked == []
    done = ask(broker, "delete", "--yes", START, 4294967295)
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout == "delete: the daemon took 2 clips; whether it has them cannot be seen from here\n"
    assert it.asked == [("deleteVideo", f"[{START},4294967295]")]


@pytest.mark.parametrize("arguments", [["save"], ["delete", "--yes"], ["save", "--yes", "1"], ["save", "yesterday"],
                                       ["save", "0"], ["save", "4294967296"], ["delete", "--yes", "1", "x"]])
def test_bad_times(broker: Broker, arguments: list[str]) -> None:
    done = ask(broker, *arguments)
    assert (done.returncode, done.stdout) == (2, "") and done.stderr


@pytest.mark.parametrize("code, words", [(-12, "out of memory"), (-38, "it does not know this action"),
                                         (-7, "it says why in its log")])
@pytest.mark.parametrize("arguments", [["save", "1"], ["delete", "--yes", "1"]])
def test_daemon_that_refuses(broker: Broker, daemon, arguments: list[str], code: int, words: str) -> None:
    daemon(actions={"saveVideo": code, "deleteVideo": code})
    done = ask(broker, *arguments)
    assert (done.returncode, done.stdout, done.stderr) == (6, "", f"veskctl: the daemon answers {code}: {words}\n")


@pytest.mark.parametrize("answer", ["nonsense", "[]", "{}", '{"code": "0"}', "null"])
def test_answer_that_makes_no_sense(broker: Broker, daemon, answer: str) -> None:
    daemon(actions={"saveVideo": answer})
    done = ask(broker, "save", "1")
    assert (done.returncode, done.stdout, done.stderr) == (7, "", "veskctl: the answer makes no sense\n")


def test_nobody_answers(broker: Broker) -> None:
    done = ask(broker, "save", "1")
    assert (done.returncode, done.stdout, done.stderr) == (3, "", "veskctl: vesk_sdcard is not running\n")


@pytest.mark.parametrize("then, fate", [("lost", "went away"), ("lost after the answer", "went away"), ("silent", "went silent")])
def test_service_that_fails_with_the_question(broker: Broker, daemon, relay, then: str, fate: str) -> None:
    """A service that is gone is gone, whether it still said that it has the question or not."""
    daemon(actions={"deleteVideo": None})
    done = run("veskctl", "--bus", relay(b"action/deleteVideo", then).address, "delete", "--yes", "1")
    assert (done.returncode, done.stdout) == (7, "")
    assert done.stderr == f"veskctl: the configuration service {fate} before vesk_sdcard answered\n"


# --- storage ----------------------------------------------------------------------------------------------------------


def test_storage(broker: Broker, daemon) -> None:
    daemon(actions={"sd_storge": FIGURES})
    done = ask(broker, "storage")
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout == "state       normal\nfree        60.0 MiB of 124.0 MiB\nrecordings  63.0 MiB\n"
    assert json.loads(ask(broker, "--json", "storage").stdout) == {
        "state": "normal", "total": 130023424, "recordings": 66060288, "free": 62914560}


def test_storage_in_colour(broker: Broker, daemon) -> None:
    daemon(actions={"sd_storge": FIGURES})
    assert "state       \033[32mnormal\033[0m" in on_terminal(broker, "storage")
    assert "\033" not in on_terminal(broker, "storage", NO_COLOR="1")


@pytest.mark.parametrize("code, exit_code, words", [
    (-2003, 4, "there is no card"), (-2005, 4, "the card is ejected"), (-2000, 6, "a card job is running"),
    (-2002, 6, "the card is broken")])
def test_storage_of_no_card_in_service(broker: Broker, daemon, code: int, exit_code: int, words: str) -> None:
    daemon(actions={"sd_storge": code})
    done = ask(broker, "storage")
    assert (done.returncode, done.stdout) == (exit_code, "")
    assert done.stderr == f"veskctl: the daemon answers {code}: {words}\n"


@pytest.mark.parametrize("answer", ['{"code": 0}', '{"code": 0, "result": [1, 2, 3]}', '{"code": 0, "result": 5}',
                                    '{"code": 0, "result": [-1, 2, 3, 0]}'])
def test_storage_without_figures(broker: Broker, daemon, answer: str) -> None:
    daemon(actions={"sd_storge": answer})
    done = ask(broker, "storage")
    assert (done.returncode, done.stdout, done.stderr) == (1, "", "veskctl: the answer makes no sense\n")


def test_storage_without_service(tmp_path: Path) -> None:
    done = run("veskctl", "--bus", f"unix:{tmp_path}/nobody", "storage")
    assert done.returncode == 3 and "does not answer" in done.stderr


# --- action -----------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("arguments, asked", [
    (["sd_storge"], ("sd_storge", "{}")), (["saveVideo", "[1, 2]"], ("saveVideo", "[1,2]")), (["made_up", "5"], ("made_up", "5")),
    (["--yes", "deleteSaveVideo", "[1]"], ("deleteSaveVideo", "[1]")), (["--yes", "sd_format"], ("sd_format", "{}"))])
def test_action(broker: Broker, daemon, arguments: list[str], asked: tuple[str, str]) -> None:
    it = daemon(actions={asked[0]: FIGURES})
    done = ask(broker, "action", *arguments)
    assert (done.returncode, done.stderr) == (0, "")
    assert json.loads(done.stdout) == json.loads(FIGURES)
    assert it.asked == [asked]


@pytest.mark.parametrize("code, exit_code, words", [
    (-2003, 4, "there is no card"), (-2005, 4, "the card is ejected"), (-2000, 6, "a card job is running"),
    (-38, 6, "it does not know this action")])
def test_action_that_is_refused(broker: Broker, daemon, code: int, exit_code: int, words: str) -> None:
    daemon(actions={"sd_umount": code})
    done = ask(broker, "action", "sd_umount")
    assert (done.returncode, json.loads(done.stdout)) == (exit_code, {"code": code})
    assert done.stderr == f"veskctl: the daemon answers {code}: {words}\n"


@pytest.mark.parametrize("name", ["deleteVideo", "deleteSaveVideo", "sd_format"])
def test_action_that_erases_is_asked_about(broker: Broker, daemon, name: str) -> None:
    it = daemon(actions={name: 0})
    done = ask(broker, "action", name)  # there is nobody to ask
    assert (done.returncode, done.stdout) == (2, "") and "--yes" in done.stderr
    assert it.asked == []


@pytest.mark.parametrize("arguments", [[], ["a", "{}", "{}"], ["a/b"], ["a+"], ["#"], [""], ["n" * 65], ["a", "{"], ["a", ""],
                                       ["a", "{} {}"], ["a", "nonsense"], ["--no", "a"]])
def test_bad_action(broker: Broker, daemon, arguments: list[str]) -> None:
    it = daemon(actions={"a": 0})
    done = ask(broker, "action", *arguments)
    assert (done.returncode, done.stdout) == (2, "") and done.stderr
    assert it.asked == []


# --- clips ------------------------------------------------------------------------------------------------------------


@pytest.mark.parametrize("options, shown", [
    ([], [0, 60, 120, 3600]),
    (["--from", START + 60], [60, 120, 3600]),
    (["--from", START + 61], [120, 3600]),
    (["--to", START + 60], [0, 60]),
    (["--to", START + 59], [0]),
    (["--from", "2026-11-21T02:01:00Z", "--to", "2026-11-21T02:02:00Z"], [60, 120]),
    (["--from", START + 200, "--to", START + 100], []),
    (["--marked"], [60, 3600]),
    (["--unmarked"], [0, 120]),
    (["--marked", "--unmarked"], [0, 60, 120, 3600]),
    (["--marked", "--to", START + 1000], [60])])
def test_clips_that_were_asked_for(card: Path, options: list, shown: list[int]) -> None:
    make_list(card, f"{START},10", f"{START + 60},10,1", f"{START + 120},10", f"{START + 3600},10,1")
    done = run("veskctl", "--json", "clips", *options, card)
    assert (done.returncode, done.stderr) == (0, "")
    assert [clip["ts"] - START for clip in json.loads(done.stdout)] == shown
    assert len(run("veskctl", "clips", card, *options).stdout.splitlines()) == len(shown) + 1


@pytest.mark.parametrize("option", ["--from", "--to"])
@pytest.mark.parametrize("value", ["", "yesterday", "2026-11-21", "2026-13-01T00:00:00Z", "-1"])
def test_clips_of_no_time(option: str, value: str) -> None:
    done = run("veskctl", "clips", option, value)
    assert (done.returncode, done.stdout, done.stderr) == (2, "", f'veskctl: {option} cannot be "{value}"\n')


# --- log --------------------------------------------------------------------------------------------------------------


def test_log(card: Path) -> None:
    (card / "op.log.0").write_text(f"71-{START}: {START - 60}: saved\n")
    (card / "op.log").write_text(f"71-{START + 60}: {START}: overwrite\n"
                                 f"71-{START + 61}: 2026112102/20261121_020000.mp4: deleted\n"
                                 f"71-{START + 62}: 2026112102/20261121_020000.jpeg: No such file or directory\n"
                                 "71-1795226462: 71-1795226462: torn\x1b[31m\n")
    done = run("veskctl", "log", card)
    assert (done.returncode, done.stderr) == (0, "")
    assert done.stdout == ("2026-11-21T02:00:00Z  saved      2026-11-21T01:59:00Z\n"
                           "2026-11-21T02:01:00Z  overwrite  2026-11-21T02:00:00Z\n"
                           "2026-11-21T02:01:01Z  deleted    2026112102/20261121_020000.mp4\n"
                           "2026-11-21T02:01:02Z  No such file or directory  2026112102/20261121_020000.jpeg\n"
                           "2026-11-21T02:01:02Z  torn?[31m  71-1795226462\n")
    seen = json.loads(run("veskctl", "--json", "log", card).stdout)
    assert len(seen) == 5 and seen[0] == {"time": "2026-11-21T02:00:00Z", "process": 71, "clip": "2026-11-21T01:59:00Z",
                                          "what": "saved"}


@pytest.mark.parametrize("line", ["", "nonsense", "71-x: 5: saved", f"71-{START}", f"71-{START}: no more", "-", "71--5: 6: saved",
                                  "71-4294967296: 6: saved"])
def test_log_line_that_is_torn(card: Path, line: str) -> None:
    (card / "op.log").write_text(f"{line}\n71-{START}: {START}: saved\n")
    done = run("veskctl", "log", card)
    assert done.returncode == 0
    assert done.stdout == f"{line}\n2026-11-21T02:00:00Z  saved      2026-11-21T02:00:00Z\n"
    assert json.loads(run("veskctl", "log", "--json", card).stdout)[0] == {"time": None, "process": None, "clip": None,
                                                                          "what": line}


def test_log_of_one_part(card: Path) -> None:
    (card / "op.log.0").write_text(f"71-{START}: {START}: saved\n")
    assert run("veskctl", "log", card).stdout.count("\n") == 1


def test_no_log(card: Path) -> None:
    done = run("veskctl", "--json", "log", card)
    assert (done.returncode, done.stdout, done.stderr) == (4, "", f"veskctl: {card}: no operation log there\n")


def test_log_that_cannot_be_read(card: Path) -> None:
    (card / "op.log").mkdir()
    done = run("veskctl", "log", card)
    assert done.returncode == 1 and str(card / "op.log") in done.stderr


# --- report -----------------------------------------------------------------------------------------------------------

REPORT = {"state": 0, "mmc": {"manfid": "0x00001b", "name": "EB1QT", "date": "11/2021"},
          "block": {"stat": "1 2", "ro": 1, "force_ro": 0, "size": 249856}, "fs": None}


def test_report_that_was_kept(tmp_path: Path) -> None:
    file = tmp_path / "report"
    file.write_text(json.dumps(REPORT))
    done = run("veskctl", "--json", "report", file)
    assert done.returncode == 0
    seen = json.loads(done.stdout)
    assert (seen["maker"], seen["name"], seen["made"], seen["size"]) == ("Samsung", "EB1QT", "2021-11", 249856 * 512)
    assert (seen["serial"], seen["speed_class"], seen["read_only"]) == (None, None, True)


@pytest.mark.parametrize("text", ["", "nonsense", "[]", "{}", '{"mmc": {}}', '"mmc"'])
def test_report_that_is_none(tmp_path: Path, text: str) -> None:
    file = tmp_path / "report"
    file.write_text(text)
    done = run("veskctl", "report", file)
    assert (done.returncode, done.stdout, done.stderr) == (5, "", "veskctl: that is no report of a card\n")


def test_report_of_a_card_that_is_gone(tmp_path: Path) -> None:
    file = tmp_path / "report"
    file.write_text('{"state": 1, "mmc": null, "block": null, "fs": null}')
    done = run("veskctl", "report", file)
    assert done.returncode == 0 and done.stdout.count(" not known\n") == 12


def test_report_file_that_is_missing(tmp_path: Path) -> None:
    done = run("veskctl", "report", tmp_path / "none")
    assert done.returncode == 1 and "No such file" in done.stderr


def test_report_from_afar(tmp_path: Path) -> None:
    """Behind a network address the card is another machine's: the next report is waited for."""
    import socket
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        port = probe.getsockname()[1]
    broker = Broker(tmp_path, f"listener {port} 127.0.0.1\n")
    address = f"tcp:127.0.0.1:{port}"
    done = run("veskctl", "--bus", address, "report", "--timeout", "0.3")
    assert (done.returncode, done.stdout) == (3, "") and done.stderr.endswith("veskctl: no report came\n")
    broker.publish("vesk/vesk_sdcard/report/sdcard.info", json.dumps(REPORT), keep=True)
    done = run("veskctl", "--bus", address, "report", "--json")
    assert done.returncode == 0 and json.loads(done.stdout)["name"] == "EB1QT"
    broker.end()
