"""sondrel-migrate with an imitated sondrel: what a person sees."""
import os
import re

import pytest

from imitated_runs import imitated  # noqa: F401  # pylint: disable=unused-import
from imitated_runs import ALL
from migrating import IMITATION, migrate, status
from terminal import Terminal
from world import SESSION, TESTS, read, wait_until, write

# The listed size is a third of the unpacked size.
TRANSFER = ('<migration-status><pid>1</pid><transfer speed="1000000"><host>h</host><files total="10" left="7" '
            'size-total="12000000" size-left="11000000" listed-total="4000000" listed-left="3000000"><current-file size="9" size-left="9">{name}</current-file>'
            "</files></transfer></migration-status>")
DUMPING = '<dumping-status version="1" stage="content" done="2" total="5" bytes="123456" object="a.test"/>'


def held_at(imitated, step, name, text):
    """The imitated step writes this document and waits for `go`."""
    write(f"{IMITATION}/document", text)
    imitated.does(step, f"cp {IMITATION}/document {SESSION}/{name}\n"
                        f"while [ ! -e {IMITATION}/go ]; do sleep 0.01; done")


PROGRESS = {
    "content": ("migration.status", TRANSFER.format(name="content/a"),
                b"content: 7 of 10 files left, 1.0 MB of 4.0 MB (25 %), 1.0 MB/s, 0:03 left, content/a"),
    "dump": ("dumping-status.xml", DUMPING, b"dump: content, 2 of 5 done, 123.5 kB read, a.test"),
}


@pytest.mark.parametrize("step", PROGRESS)
def test_shows_progress_on_a_terminal(imitated, step):
    name, document, expected = PROGRESS[step]
    held_at(imitated, step, name, document)
    with Terminal([imitated.program, *ALL], {"QRV_PASSWORD": "x"}, columns=100) as terminal:
        terminal.shows(b"\r\x1b[K" + expected)
        assert status()[step].endswith(": " + expected.decode().partition(": ")[2])
        write(f"{IMITATION}/go")
        assert terminal.finish() == 0
        # The progress line is erased before the next line begins.
        assert re.search(rb"\r\x1b\[K" + step.encode() + rb": done in 0:0\d\r\n", terminal.shown), terminal.shown


def test_draws_at_most_ten_times_a_second_and_within_the_width(imitated):
    held_at(imitated, "content", "migration.status",
            TRANSFER.format(name="long" * 50 + "&#9;\N{EURO SIGN}"))
    with Terminal([imitated.program, *ALL], {"QRV_PASSWORD": "x"}, columns=40) as terminal:
        wait_until(lambda: terminal.read() and terminal.shown.count(b"\r\x1b[Kcontent: 7 of") >= 5, "five drawings")
        write(f"{IMITATION}/go")
        assert terminal.finish() == 0
    drawn = re.findall(rb"\r\x1b\[K(content: 7 of[^\r]*)", terminal.shown)
    assert {len(line) for line in drawn} == {39}


def test_names_from_the_source_host_do_not_command_the_terminal(imitated):
    held_at(imitated, "content", "migration.status", TRANSFER.format(name="&#x9b;2J\N{EURO SIGN}"))
    imitated.does("deploy", r"printf 'half \033[2J\303\244 line' >&2; exit 2")
    with Terminal([imitated.program, *ALL], {"QRV_PASSWORD": "x"}) as terminal:
        assert terminal.finish() == 2
        assert "half \\x1b[2J\N{LATIN SMALL LETTER A WITH DIAERESIS} line\r\n".encode() in terminal.shown
    os.unlink(f"{IMITATION}/deploy")
    with Terminal([imitated.program, f"--session-path={SESSION}"], {"QRV_PASSWORD": "x"}, columns=120) as terminal:
        terminal.shows("left, \\xc2\\x9b2J\N{EURO SIGN}".encode())
        write(f"{IMITATION}/go")
        assert terminal.finish() == 0


@pytest.mark.parametrize("document", [
    "<migration-status><transfer/>", "<migration-status/>", "<other/>", "",
    "<!DOCTYPE x [<!ENTITY a 'b'>]><migration-status>&a;</migration-status>",
    TRANSFER.format(name="x").replace('"4000000"', '"-4"').replace('"7"', '"many"'),
], ids=["cut", "nothing", "other", "empty", "entity", "odd figures"])
def test_odd_documents_do_no_harm(imitated, document):
    held_at(imitated, "content", "migration.status", document)
    with Terminal([imitated.program, *ALL], {"QRV_PASSWORD": "x"}) as terminal:
        wait_until(lambda: terminal.read() and imitated.is_at("content"), "the content step")
        assert status()["content"].startswith("running, begun ")
        write(f"{IMITATION}/go")
        assert terminal.finish() == 0


def test_shows_no_progress_without_a_terminal(imitated):
    held_at(imitated, "content", *PROGRESS["content"][:2])
    running = imitated.start(*ALL)
    wait_until(lambda: imitated.is_at("content") and os.path.exists(f"{SESSION}/migration.status"), "the document")
    write(f"{IMITATION}/go")
    outcome = running.finish()
    assert (outcome.code, outcome.stderr) == (0, b"") and b"\r" not in outcome.stdout and b"MB" not in outcome.stdout


def test_an_old_document_is_no_progress(imitated):
    os.makedirs(SESSION)
    write(f"{SESSION}/dumping-status.xml", DUMPING)
    os.utime(f"{SESSION}/dumping-status.xml", (1, 1))
    imitated.does("dump", f"while [ ! -e {IMITATION}/go ]; do sleep 0.01; done")
    running = imitated.start(*ALL)
    wait_until(lambda: imitated.is_at("dump"), "the dump")
    assert " of " not in status()["dump"]
    write(f"{IMITATION}/go")
    assert running.finish().code == 0


def test_counts_the_problems_of_the_content(imitated):
    imitated.does("content", f"echo '<execution-result status=\"success\"><message/><message/></execution-result>' "
                             f"> {SESSION}/transfer.result")
    assert b", problems in transfer.result: 2\n" in imitated.run(*ALL).stdout
    assert status()["content"].endswith(", problems in transfer.result: 2")


def dump_with(problems):
    """A script that writes such a dump.xml; [(severity, object, text)]"""
    listed = "".join(f'<problem severity="{severity}" object="{about}">{text}</problem>'
                     for severity, about, text in problems)
    write(f"{IMITATION}/dump.xml", f'<dump version="2"><later><problem/></later><problems>{listed}</problems></dump>')
    return f"cp {IMITATION}/dump.xml {SESSION}/dump.xml"


def ends_of(imitated, *more):
    """What two runs print after the removal; the second finds nothing to do."""
    first = imitated.run(*ALL, *more).stdout.decode().partition("remove: done")[2].splitlines()[1:]
    second = imitated.run(*ALL, *more, password=None).stdout.decode().splitlines()
    assert [line.removeprefix("Finished already.") for line in second] == [
        line.removeprefix("Finished.") for line in first]
    return first


MEANING = ("An error is something that is missing from the result, a warning something that may not work on the new "
           "host; what to do is said in dump.xml")


def test_counts_the_problems_of_the_dump_and_names_its_errors(imitated):
    imitated.does("dump", dump_with([("error", "a.test", "first\nline"), ("info", "b", "x"), ("error", "", "second"),
                                     ("warning", "c", "y"), ("info", "d", "z"), ("info", "e", "z")]))
    outcome = ends_of(imitated)
    assert outcome == [f"Finished. Dump: {SESSION}/dump.xml, content: {SESSION}/archives",
                       "Problems in the dump: 2 errors, 1 warning, 3 notes", "  error: a.test: first line",
                       "  error: second", MEANING]
    shown = status()
    assert re.fullmatch(r"done, begun \S+, took 0:0\d, 2 errors, 1 warning, 3 notes", shown["dump"])
    assert shown["description"] == f"{SESSION}/dump.xml"
    assert shown["files"] == f"{SESSION}/archives"
    assert shown["log"] == f"{SESSION}/migration.log"


def test_says_that_there_are_no_problems(imitated):
    imitated.does("dump", dump_with([]))
    assert ends_of(imitated)[1:] == ["Problems in the dump: 0 errors, 0 warnings, 0 notes"]
    assert status()["dump"].endswith(", 0 errors, 0 warnings, 0 notes")


def test_names_ten_errors_and_counts_the_rest(imitated):
    imitated.does("dump", dump_with([("error", f"{number}.test", "gone") for number in range(12)]))
    said = ends_of(imitated)
    assert said[1] == "Problems in the dump: 12 errors, 0 warnings, 0 notes"
    assert said[2:-1] == [*[f"  error: {number}.test: gone" for number in range(10)], "  and 2 more errors"]


def test_says_that_the_problems_of_a_damaged_dump_cannot_be_counted(imitated):
    imitated.does("dump", f"echo '<dump><problems><problem severity=\"error\"/>' > {SESSION}/dump.xml")
    expected = "problems that cannot be counted: the document is damaged or too long"
    assert ends_of(imitated)[1] == f"Problems in the dump: {expected}"
    assert status()["dump"].endswith(f", {expected}")


def test_status_names_only_what_is_there(imitated):
    imitated.does("deploy", "exit 2")
    assert imitated.run(*ALL).code == 2
    assert "description" not in status() and "files" not in status()
    assert status()["log"] == f"{SESSION}/migration.log"


def test_help_and_version_need_nothing_and_leave_nothing():
    for option in ("--help", "-h"):
        outcome = migrate(option, password=None)
        assert (outcome.code, outcome.stderr) == (0, b"")
        assert outcome.stdout.startswith(b"Usage: sondrel-migrate --session-path=DIR ")
    outcome = migrate("--version", password=None)
    assert re.fullmatch(rb"sondrel-migrate \d+\.\d+\.\d+\n", outcome.stdout)
    assert not os.path.exists(SESSION)


def test_man_page_has_every_option_of_the_program_and_no_other():
    shown = migrate("--help", password=None).stdout.decode()
    options = {name: bool(value) for name, value in re.findall(r"^  (--[a-z-]+)(=?)", shown, re.MULTILINE)}
    page = read(f"{os.path.dirname(TESTS)}/docs/man/sondrel-migrate.8").decode()
    heads = [line for line in page.splitlines() if line.startswith(".It Fl")]
    described = {f"-{name}": bool(value) for head in heads
                 for name, value in re.findall(r"Fl (-\S+)( Ns = Ns )?", head)}
    assert len(options) > 25 and described == options
    everywhere = {f"-{name}" for name in re.findall(r"Fl (-\S+)", page)}
    assert everywhere == set(options)
