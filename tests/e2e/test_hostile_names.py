"""Names in the content list, which another host chooses and root uses here."""
import os
import subprocess

import pytest

import invariants
from content import content_list, left
from snapshot import own_directories, unchanged  # a fixture  # noqa: F401  # pylint: disable=unused-import
from source_host import deployed_agent, sh_quote
from tool import Destination, Session
from world import ROOT, SESSION, files_below, write

pytestmark = [pytest.mark.matrix("names"), pytest.mark.usefixtures("own_directories")]

ARCHIVES = f"{SESSION}/archives"
DUMPS = "/mnt/dumps"
CURRENT = "/mnt/current"
TARGETS = {"in the session": ARCHIVES, "in the dumps directory": DUMPS}
DOCUMENTS = {"archives", "migration.log", "migration.status", "transfer.result"}
NAMES = {"dump-name", "migration-result-name"}
CONTENT = b"content of the file"

in_both_targets = pytest.mark.parametrize("target", TARGETS.values(), ids=TARGETS.keys())


@pytest.fixture(autouse=True)
def outside():
    """What a name could lead to: the directories of the target, the current directory, and one beside it."""
    for directory in (SESSION, ARCHIVES, DUMPS, CURRENT, "/mnt/outside/directory"):
        os.makedirs(directory, exist_ok=True)
    for path in ("/mnt/outside/file", "/mnt/file", f"{CURRENT}/file"):
        write(path, b"kept")
    yield
    subprocess.run(["rm", "-rf", DUMPS, CURRENT, "/mnt/outside", "/mnt/file"], check=True)


def run(target, elements, files, arrived, declared=b""):
    """The outcome of a run over `good` and these elements: the bytes between their tags.

    `files` are the offered files, by the names that the elements mean; `arrived` is what the target has afterwards.
    """
    stand_ins = [(f"NAME{number:03d}", CONTENT, {}) for number in range(len(elements))]
    document = content_list([("good", b"1", {}), *stand_ins]).encode()
    for number, element in enumerate(elements):
        document = document.replace(b"NAME%03d" % number, element)
    deployed_agent(ROOT, 'cat "${0%/*}/list.xml"\n',
                   {"list.xml": declared + document, "good": b"1", **files})
    options = [] if target == ARCHIVES else ["--dumps-dir", DUMPS]
    with unchanged(SESSION, DUMPS, ROOT.agent_dir):
        outcome = Destination().start("get-content", *options, directory=CURRENT).finish(deadline_seconds=30)
    assert sorted(os.listdir(target)) == sorted(arrived)
    assert os.listdir(DUMPS if target == ARCHIVES else ARCHIVES) == []
    invariants.check(outcome, {"good": b"1", **files}, target)
    return outcome


def check_failure(code, text=""):
    """Checks the one failure and its cause."""
    (wrapping, _, _, ((cause, _, description, _),)), = Session().messages("transfer.result")
    assert (wrapping, cause) == ("CantRetrieveDump", code)
    assert text in description
    assert set(os.listdir(SESSION)) == DOCUMENTS


def removals(source):
    return [line for line in source.lines() if "rm\\ " in line]


# --- refused before anything is done ---------------------------------------------------------

UNSAFE = {"two dots": "..", "two dots ahead": "../outside/file", "two dots to the current directory": "../current/file",
          "two dots inside": "a/../../outside/file", "two dots that stay": "a/../b", "two dots behind": "a/b/..",
          "absolute": "/mnt/outside/file", "two slashes ahead": "//mnt/outside/file", "empty": "", "dot": ".",
          "dot ahead": "./a", "dot inside": "a/./b", "dot behind": "a/.", "slash behind": "directory/"}


@in_both_targets
@pytest.mark.parametrize("name", UNSAFE.values(), ids=UNSAFE.keys())
def test_name_that_leads_elsewhere_is_refused_before_anything_is_done(source, name, target):
    outcome = run(target, [name.encode()], {}, [])
    assert outcome.code == 2
    check_failure("CantRetrieveContentFile", f"Failed to retrieve file '{ROOT.agent_dir}/{name}' from ")
    assert left(ROOT) == ["good"]
    assert len(source.lines()) == 1


# XML has no characters 0 and 27, and some of these bytes are no characters at all: such a document has no names.
UNREADABLE = {"NUL by reference": b"a&#0;b", "ESC by reference": b"a&#27;[2Jb", "ESC": b"a\x1b[2Jb",
              "invalid UTF-8": b"a\xff\xfeb", "byte 0x9b": b"a\x9bb", "half a character": b"a\xc3"}


@in_both_targets
@pytest.mark.parametrize("listed", UNREADABLE.values(), ids=UNREADABLE.keys())
def test_name_that_no_document_may_hold_is_refused_with_the_document(source, listed, target):
    outcome = run(target, [listed], {}, [])
    assert outcome.code == 2
    check_failure("tError_ParseFile", "The XML file - was not parsed successfully")
    assert left(ROOT) == ["good"]
    assert len(source.lines()) == 1


# --- too long for the system -----------------------------------------------------------------

# The name, and what is made for it: nothing for a path that is too long for the system.
LONG = {"4096 bytes": ("/".join(["long" * 51] * 20)[:4096], []),
        "component of 256 bytes": ("directory/" + "c" * 256, ["directory"])}


@in_both_targets
@pytest.mark.parametrize("name, made", LONG.values(), ids=LONG.keys())
def test_name_that_is_too_long_fails_by_the_system_and_removes_nothing(source, name, made, target, content_verify):
    outcome = run(target, [name.encode()], {}, ["good", *made])
    assert outcome.code == 2
    check_failure("CantRetrieveContentFile", "File name too long")
    assert files_below(target) == {b"good": b"1"}
    assert left(ROOT) == []
    assert len(removals(source)) == 1


# --- taken as they are -----------------------------------------------------------------------

# The text in the list, and the name that it means.
TAKEN = {
    b"a//b": "a/b", b"line\nfeed": "line\nfeed", b"a\nINFO k.log: forged": "a\nINFO k.log: forged",
    b"carriage&#13;return": "carriage\rreturn", b"C1&#x9b;2Jcontrol": "C1\u009b2Jcontrol", b"-rf": "-rf",
    b"--help/--version": "--help/--version", b"~": "~", b"~root/file": "~root/file",
    b"$(touch injected)": "$(touch injected)", b"${HOME}": "${HOME}", b"`touch injected`": "`touch injected`",
    b"it's &quot;quoted&quot;": "it's \"quoted\"", b"%1%%s%n": "%1%%s%n", b"Latin-1 \xe4\xff": "Latin-1 \u00e4\u00ff",
    b".../a": ".../a", b"..\\..\\b": "..\\..\\b", b"c" * 255: "c" * 255,
}


@in_both_targets
def test_name_arrives_as_it_is(source, target, content_verify, cases):
    cases(len(TAKEN))
    files = {name: CONTENT for name in TAKEN.values()}
    outcome = run(target, TAKEN, files, {name.partition("/")[0] for name in ["good", *files]},
                  b'<?xml version="1.0" encoding="ISO-8859-1"?>')
    assert outcome.code == 0
    assert files_below(target) == {b"good": b"1", **{name.encode(): CONTENT for name in files}}
    assert left(ROOT) == []
    asked = [f"cat {sh_quote(f'{ROOT.agent_dir}/{name}')}" for name in files]
    assert [line.replace("//", "/") for line in source.lines() if line.startswith("cat ")][1:] == asked
    assert len(removals(source)) == 1 + len(files)
    assert set(os.listdir(SESSION)) == DOCUMENTS | NAMES
    assert Session().result("transfer.result")[3] == []
