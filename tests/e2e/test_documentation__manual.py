"""Man pages and usage text describe the programs as they are."""
import glob
import os
import re
import subprocess

import pytest

from documented import TOP, options_of_a_whole_migration, options_of_the_program, sources, text_of
from source_host import install_sample_agent
from tool import Destination, Session, sondrel
from world import PRODUCT, ROOT, SOURCE_TREE, read, write

MANUAL = f"{TOP}/docs/man"

PAGES = sorted(os.path.basename(path) for path in glob.glob(f"{MANUAL}/*.[1-9]"))

# Options that no caller needs are not in the usage text.
NOT_IN_USAGE = {"--verbose", "--content-transport"}

# Codes of errors that no caller reads in a result: they are caught, or are never raised by what this program does,
# or end it before there is a result.
NOT_IN_RESULTS = {
    "Agent::ParseFailed", "ArchiveDamaged", "NoSuchAttribute", "SshAuthorizationFailed",
    "ExecCmd::ExFailed", "NoParentNode", "SudoNotFound", "SudoNotAllowed", "SshCommandNotFound", "SshUnknown",
    "tError_WrongContent", "tError_XPath_CantEvaluate", "tError_XPath_TypesMismatch", "tError_XmlInternal",
    "UnknownAction", "OptParsingError", "UnableToCreateSession", "UnableToOpenScoutFile",
}


def page(name):
    return read(f"{MANUAL}/{name}").decode()


def section(name, title):
    """The lines of a section of a page."""
    found = re.search(rf"^\.Sh {title}\n(.*?)(?=^\.Sh |\Z)", page(name), re.DOTALL | re.MULTILINE)
    assert found, title
    return found[1].splitlines()


def items(name, title, macro):
    """The words after a macro in the heads of the section's list items."""
    heads = [line for line in section(name, title) if line.startswith(".It ")]
    return [word for head in heads for word in re.findall(rf"(?<= ){macro} (\S+)", head)]


def options_in(lines):
    """{option: whether a value is named} for the options in these lines."""
    return {"-" + name: bool(value) for line in lines
            for name, value in re.findall(r"\bFl (-\S+)( Ns = Ns )?", line)}


def test_man_page_has_every_option_of_the_program_and_no_other():
    heads = [line for line in section("sondrel.8", "OPTIONS") if line.startswith(".It Fl")]
    assert options_in(heads) == options_of_the_program()


def test_synopsis_has_every_option_but_an_old_name_and_a_help_for_diagnosis():
    expected = options_of_the_program()
    del expected["--ip"], expected["--verbose"]
    assert options_in(section("sondrel.8", "SYNOPSIS")) == expected


def test_man_page_of_a_whole_migration_has_every_option_of_its_program_and_no_other():
    heads = [line for line in section("sondrel-migrate.8", "OPTIONS") if line.startswith(".It Fl")]
    assert options_in(heads) == options_of_a_whole_migration()


def test_man_page_speaks_of_no_option_that_there_is_not():
    assert set(options_in(page("sondrel.8").splitlines())) <= set(options_of_the_program())


def test_usage_text_has_every_option_that_callers_need_and_no_other():
    shown = set(re.findall(r"--[a-z][a-z-]*", sondrel("--help").stdout.decode()))
    assert shown == set(options_of_the_program()) - NOT_IN_USAGE


def test_man_page_has_every_exit_code():
    codes = re.findall(r"^  EXIT_\w+ = (\d+)", read(f"{TOP}/sondrel/sondrel.cpp").decode(), re.MULTILINE)
    rows = [re.match(r"\.It (\d+) Ta (no|see|later|yes) Ta ", line) for line in section("sondrel.8", "EXIT STATUS")]
    assert len(codes) > 10 and [row[1] for row in rows if row] == codes


def test_man_page_has_every_code_that_a_result_can_show():
    declared = set(re.findall(r"^(?:DECLARE|DESCRIBE)_ERROR_TAG\(\s*([\w:]+),", sources(), re.MULTILINE))
    assert NOT_IN_RESULTS <= declared
    assert set(items("sondrel.8", "DIAGNOSTICS", "Er")) == declared - NOT_IN_RESULTS


def test_man_page_has_every_variable():
    read_here = re.findall(r'"((?:QRV|SONDREL)_[A-Z_]+)"|getenv\("([A-Z_]+)"\)', sources())
    assert set(items("sondrel.8", "ENVIRONMENT", "Ev")) == {name for names in read_here for name in names if name}


def test_man_page_has_every_file_of_a_session(source):
    install_sample_agent()
    write(f"{SOURCE_TREE}/domains/a.example/index.html", "content")
    write(f"{PRODUCT}/DTM/scout.pl", "print 1")
    for action in ("send-scout", "deploy-agent", "dump-all", "get-content", "remove-agent"):
        assert Destination(ROOT).run(action).code == 0, action
    in_session = [name.rstrip("/") for name in items("sondrel.8", "FILES", "Pa") if not name.startswith("/")]
    # This dump was too short for its status to be fetched.
    assert sorted(in_session) == sorted([*os.listdir(Session().path), "dumping-status.xml"])


def test_man_page_of_the_configuration_has_every_key_that_is_read():
    by_name = re.findall(r'(?:qrvConfGet|configuredWord)\("(\w+)"\)', sources())
    by_index = re.findall(r"qrvConfGet(?:Default)?ByIndex\(([A-Z]\w+)\)", sources())
    assert by_name and by_index
    assert sorted(items("qrv.conf.5", "KEYS", "Ic")) == sorted(by_name + by_index)


def test_man_page_of_agents_has_every_key_of_the_spec_file():
    keys = re.search(r"SPEC_KEYS = \{(.*?)\}", read(f"{TOP}/commons/agent_spec.cpp").decode(), re.DOTALL)
    assert sorted(items("sondrel-agent.7", "AGENTS DIRECTORY", "Ic")) == sorted(re.findall(r'"(\w+)"', keys[1]))


def test_man_page_of_agents_has_every_option_that_an_agent_is_given():
    given = set(re.findall(r'[" ](--[a-z-]+(?:=[a-z-]+)?)"', text_of("sondrel/[adrs]*.cpp")))
    shown = set(re.findall(r"^\.Dl cd .*(--get-\S+)$", page("sondrel-agent.7"), re.MULTILINE))
    shown |= {word for word in items("sondrel-agent.7", "COMMAND LINES", "Li") if word.startswith("--")}
    assert shown == given


@pytest.mark.parametrize("name", PAGES)
def test_man_page_is_shown_without_a_warning(name):
    shown = subprocess.run(["man", "-l", "--warnings", f"{MANUAL}/{name}"], capture_output=True, check=True,
                           env={"PATH": "/usr/bin:/bin", "LC_ALL": "C.UTF-8", "MANWIDTH": "80"})
    assert shown.stderr == b"" and b"NAME\n" in shown.stdout


@pytest.mark.parametrize("name", PAGES)
def test_man_page_has_no_fault_that_a_checker_finds(name):
    # Lower levels than warnings are matters of taste, and links to pages that are not installed yet.
    checked = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", f"{MANUAL}/{name}"], capture_output=True,
                             text=True, check=False)
    assert (checked.returncode, checked.stdout) == (0, "")
