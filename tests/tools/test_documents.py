"""What the manual, the documents and bash's completion say of veskctl is what veskctl does."""

from __future__ import annotations

import os
import re
import subprocess
from pathlib import Path

import pytest
from conftest import BIN, make_list, run

ROOT = Path(__file__).resolve().parent.parent.parent
PAGES = sorted((ROOT / "docs/man").glob("*.[1-8]"))
COMPLETION = ROOT / "packaging/veskctl.bash"


def lint(page: Path) -> subprocess.CompletedProcess[str]:
    return subprocess.run(["mandoc", "-T", "lint", "-W", "warning", page], capture_output=True, text=True, timeout=60)


def flat(text: str) -> str:
    return " ".join(text.split())


def manual(name: str) -> str:
    """A page as it is read, without its markup and line breaks."""
    page = subprocess.run(["mandoc", "-T", "ascii", ROOT / "docs/man" / name], capture_output=True, text=True, check=True, timeout=60)
    return flat(re.sub(".\b", "", page.stdout))


def usage() -> str:
    return run("veskctl", "--help").stdout


def exit_codes() -> dict[str, str]:
    """By veskctl --help, which is what the others are held against."""
    found = re.findall(r"(\d) (.+?)(?:, (?=\d )|$)", flat(usage().split("exit codes:")[1]))
    assert [code for code, _ in found] == [str(number) for number in range(8)]
    return dict(found)


def commands() -> dict[str, set[str]]:
    """Each command's options, by veskctl --help."""
    lines = re.findall(r"^  ([a-z]+) +(.*)$", usage(), re.MULTILINE)
    return {name: set(re.findall(r"--[a-z]+", text)) for name, text in lines}


# --- the manual -------------------------------------------------------------------------------------------------------


def test_the_manual_is_there() -> None:
    assert [page.name for page in PAGES] == ["kyt.5", "vesk-bus.7", "vesk_sdcard.8", "veskctl.1"]


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.name)
def test_page_is_clean(page: Path) -> None:
    done = lint(page)
    assert (done.returncode, done.stdout + done.stderr) == (0, "")


def test_page_that_is_not_clean_is_noticed(tmp_path: Path) -> None:
    page = tmp_path / "veskctl.1"
    page.write_text((ROOT / "docs/man/veskctl.1").read_text().replace(".Sh EXIT STATUS", ".Sh EXIT STATUS\n.Nonsense"))
    assert lint(page).returncode != 0


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.name)
def test_page_refers_to_pages_that_exist(page: Path) -> None:
    ours = {f"{other.stem} {other.suffix[1:]}" for other in PAGES}
    elsewhere = {"syslog 3", "fdisk 8", "mkfs.fat 8", "fsck.fat 8", "fuser 1"}
    seen = set(re.findall(r"\.?Xr (\S+ \d)", page.read_text()))
    assert seen & ours and seen <= ours | elsewhere


def test_pages_and_completion_are_installed(tmp_path: Path) -> None:
    subprocess.run(["cmake", "--install", BIN.parent, "--prefix", tmp_path, "--component", "documents"], check=True, capture_output=True,
                   timeout=60)
    found = {str(path.relative_to(tmp_path / "share")): path for path in tmp_path.rglob("*") if path.is_file()}
    assert set(found) == {"bash-completion/completions/veskctl", *(f"man/man{page.suffix[1:]}/{page.name}" for page in PAGES)}
    assert found["bash-completion/completions/veskctl"].read_text() == COMPLETION.read_text()


# --- exit codes -------------------------------------------------------------------------------------------------------


def test_exit_codes_in_the_manual() -> None:
    section = (ROOT / "docs/man/veskctl.1").read_text().split(".Sh EXIT STATUS")[1].split(".Sh")[0]
    assert dict(re.findall(r"^\.It (\d+)\n(.+)$", section, re.MULTILINE)) == exit_codes()


def test_exit_codes_in_the_documents() -> None:
    """The first words of each row; what stands behind them explains."""
    table = (ROOT / "docs/veskctl.md").read_text().split("| exit code | means |")[1].split("\n\n")[0]
    rows = dict(re.findall(r"^\| (\d+) \| (.+) \|$", table, re.MULTILINE))
    assert {code: re.split("[.;:]", words)[0] for code, words in rows.items()} == exit_codes()


def test_exit_codes_in_the_readme() -> None:
    sentence = ", ".join(f"{code} {words}" for code, words in exit_codes().items())
    assert f"Exit codes: {sentence}." in flat((ROOT / "README.md").read_text())


def test_codes_of_actions_are_those_that_veskctl_knows() -> None:
    source = (ROOT / "tools/action.cpp").read_text()
    codes = re.findall(r"case (-\d+):", source)
    assert codes and all(re.search(rf"^\.It \\{code}$", (ROOT / "docs/man/vesk-bus.7").read_text(), re.MULTILINE) for code in codes)


# --- commands and options ---------------------------------------------------------------------------------------------


def test_every_command_and_option_is_in_the_manual() -> None:
    page = (ROOT / "docs/man/veskctl.1").read_text()
    found: dict[str, set[str]] = {}
    for line in re.findall(r"^\.It Cm .*$", page, re.MULTILINE):
        found[line.split()[2]] = {f"-{option}" for option in re.findall(r"Fl (-[a-z]+)", line)}
    assert found == commands()


def test_every_command_is_in_the_documents() -> None:
    document = (ROOT / "docs/veskctl.md").read_text()
    assert set(re.findall(r"^## ([a-z]+)$", document, re.MULTILINE)) == set(commands())
    for name, options in commands().items():
        section = re.split(r"^## ", document.split(f"\n## {name}\n")[1], flags=re.MULTILINE)[0]
        assert all(option in section for option in options), name


# --- completion -------------------------------------------------------------------------------------------------------


def complete(*words: str, path: str = "", folder: Path | None = None) -> set[str]:
    """What bash offers for the last word. Words as bash breaks them: ":" is one of its own."""
    script = ('. "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMP_WORDBREAKS=" :"; _veskctl; '
              'for one in "${COMPREPLY[@]}"; do echo "$one"; done')
    done = subprocess.run(["bash", "-uc", script, "bash", COMPLETION, "veskctl", *words], capture_output=True, text=True, timeout=60,
                          cwd=folder, env=os.environ | {"PATH": f"{path}:{os.environ['PATH']}"})
    assert done.returncode == 0, done.stderr
    return set(done.stdout.split())


def test_completion_knows_every_command() -> None:
    assert complete("") == set(commands()) | {"--bus", "--json", "--version", "--help"}
    assert complete("--js") == {"--json"}
    assert complete("--bus", "unix", ":", "/x", "sto") == {"storage"}
    assert complete("--json", "e") == {"eject"}
    assert complete("--bus", "") == {"unix:", "tcp:"}


@pytest.mark.parametrize("name", ["status", "watch", "storage", "clips", "index", "save", "delete", "format", "eject", "busy", "log", "report", "action"])
def test_completion_knows_every_option(name: str) -> None:
    assert complete(name, "-") == commands()[name] | {"--json"}


def test_completion_of_files_and_folders(tmp_path: Path) -> None:
    (tmp_path / "recordings").mkdir()
    (tmp_path / "report.json").touch()
    assert complete("clips", "re", folder=tmp_path) == {"recordings"}
    assert complete("log", "re", folder=tmp_path) == {"recordings"}
    assert complete("report", "re", folder=tmp_path) == {"recordings", "report.json"}
    assert complete("index", "re", folder=tmp_path) == {"recordings", "repair", "report.json"}
    assert complete("index", "export", "--format", "") == {"csv", "json"}
    assert complete("watch", "--count", "re", folder=tmp_path) == set()


def test_completion_of_clips(tmp_path: Path, card: Path) -> None:
    """The clips of the index are offered as numbers: bash ends a word at the colons of a written time."""
    make_list(card, "1795226400,10", "1795226460,10", "1800000000,10")
    veskctl = tmp_path / "veskctl"
    veskctl.write_text(f'#!/bin/sh\n[ "$*" = "--json clips" ] && cat {tmp_path}/answer\n')
    veskctl.chmod(0o755)
    (tmp_path / "answer").write_text(run("veskctl", "--json", "clips", card).stdout)
    assert complete("save", "", path=str(tmp_path)) == {"--json", "1795226400", "1795226460", "1800000000"} - {"--json"}
    assert complete("delete", "179", path=str(tmp_path)) == {"1795226400", "1795226460"}


def test_completion_is_clean() -> None:
    done = subprocess.run(["shellcheck", "-s", "bash", COMPLETION], capture_output=True, text=True, timeout=60)
    assert (done.returncode, done.stdout) == (0, "")


# --- words for times and sizes ----------------------------------------------------------------------------------------


def test_times_are_iso_8601(card: Path) -> None:
    make_list(card, "1,10", "1795226400,10", "4294967295,10")
    rows = run("veskctl", "clips", card).stdout.splitlines()[1:]
    assert [row.split()[0] for row in rows] == ["1970-01-01T00:00:01Z", "2026-11-21T02:00:00Z", "2106-02-07T06:28:15Z"]


@pytest.mark.parametrize("sectors, words", [
    (0, "0 B"), (1, "512 B"), (2, "1.0 KiB"), (2048, "1.0 MiB"), (1 << 21, "1.0 GiB"), (62333952, "29.7 GiB"), (1 << 31, "1.0 TiB")])
def test_sizes_are_binary(tmp_path: Path, sectors: int, words: str) -> None:
    report = tmp_path / "report"
    report.write_text(f'{{"mmc": {{}}, "block": {{"size": {sectors}}}}}')
    assert f"size         {words}\n" in run("veskctl", "report", report).stdout


