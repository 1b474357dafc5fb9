"""Man pages, completion and usage text describe the program as it is; commands of the documents can be run."""
import errno
import glob
import os
import pty
import re
import select
import shlex
import subprocess
import time

import pytest

from source_host import install_agent, install_sample_agent
from tool import Destination, Session, sondrel
from world import BINARY, CONFIGURATION, PRODUCT, ROOT, SESSION, SOURCE_TREE, TESTS, read, write

TOP = os.path.dirname(TESTS)
MANUAL = f"{TOP}/docs/man"
COMPLETION = f"{TOP}/completion/sondrel"
MIGRATE = f"{os.path.dirname(BINARY)}/sondrel-migrate"
PAGES = sorted(os.path.basename(path) for path in glob.glob(f"{MANUAL}/*.[1-9]"))

# What no caller needs is not in the usage text.
NOT_IN_USAGE = {"--verbose", "--content-transport"}

# Codes of errors that no caller ever reads in a result: they are caught, raised by nothing
# that this program does, or end it before there is a result.
NOT_IN_RESULTS = {
    "Agent::ParseFailed", "ArchiveDamaged", "NoSuchAttribute", "SshAuthorizationFailed",
    "ExecCmd::ExFailed", "NoParentNode", "SudoNotFound", "SudoNotAllowed", "SshCommandNotFound", "SshUnknown",
    "tError_WrongContent", "tError_XPath_CantEvaluate", "tError_XPath_TypesMismatch", "tError_XmlInternal",
    "UnknownAction", "OptParsingError", "UnableToCreateSession", "UnableToOpenScoutFile",
}


# --- the program -----------------------------------------------------------------------------

def options_of_the_program():
    """{option: whether it takes a value}, from the complaints of its option parser."""
    names = re.findall(rb"'(--[a-z-]+)'", sondrel("--=").stderr)
    assert len(names) > 30, names
    return {name.decode(): b"doesn't allow" not in sondrel(name.decode() + "=").stderr if name != b"--help"
            else False for name in names}


def options_of_a_whole_migration():
    """The same for the program of whole migrations, which makes its usage text of its table."""
    shown = subprocess.run([MIGRATE, "--help"], capture_output=True, check=True, text=True).stdout
    return {name: bool(value) for name, value in re.findall(r"^ +(--[a-z-]+)(=?)", shown, re.MULTILINE)}


def text_of(pattern):
    """All sources of that pattern, one behind the other."""
    paths = sorted(glob.glob(f"{TOP}/{pattern}"))
    assert paths, pattern
    return "\n".join(read(path).decode() for path in paths)


def sources():
    return "\n".join(text_of(f"{folder}/*.{kind}") for folder in ("hostlib", "commons", "transport", "sondrel")
                     for kind in ("h", "cpp"))


# --- the man pages ---------------------------------------------------------------------------

def page(name):
    return read(f"{MANUAL}/{name}").decode()


def section(name, title):
    """The lines of a section of a page."""
    found = re.search(rf"^\.Sh {title}\n(.*?)(?=^\.Sh |\Z)", page(name), re.DOTALL | re.MULTILINE)
    assert found, title
    return found[1].splitlines()


def items(name, title, macro):
    """The words behind a macro in the heads of the section's list items."""
    heads = [line for line in section(name, title) if line.startswith(".It ")]
    return [word for head in heads for word in re.findall(rf"(?<= ){macro} (\S+)", head)]


def options_in(lines):
    """{option: whether a value is named} for the flags in these lines."""
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
    # Below warnings are matters of taste, and pages that are not installed yet.
    checked = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", f"{MANUAL}/{name}"], capture_output=True,
                             text=True, check=False)
    assert (checked.returncode, checked.stdout) == (0, "")


# --- commands of the documents, which scripts/fresh-roots runs ----------------------------------

DOCUMENTS = [path for path in sorted(glob.glob("**/*.md", root_dir=TOP, recursive=True)) if not path.startswith("build/")]
# A slash does not go with the name of a test.
each_document = pytest.mark.parametrize("document", DOCUMENTS, ids=lambda path: path.replace("/", " "))
SHOWN = {"text", "console"}
RUN_HOW = {"online", "last", "long"}


def blocks(document):
    """[(words behind the fence, text)] of each fenced block, and the lines outside of them."""
    found, outside, fence = [], [], None
    for line in read(f"{TOP}/{document}").decode().splitlines():
        mark = re.match(r"\s*```(.*)$", line)
        if mark and fence is None:
            fence = (mark[1].split(), [])
        elif mark:
            found.append((fence[0], "\n".join(fence[1])))
            fence = None
        elif fence:
            fence[1].append(line)
        else:
            outside.append(line)
    assert fence is None, "a block is not closed"
    return found, outside


@each_document
def test_block_of_a_document_says_whether_and_how_it_is_run(document):
    found, outside = blocks(document)
    for words, text in found:
        assert words and (words[0] in SHOWN and not words[1:] or words[0] == "sh" and set(words[1:]) <= RUN_HOW), text
    indented = [line for before, line in zip(outside, outside[1:]) if not before and line.startswith("    ")]
    assert not indented, "commands that are not run, or text that looks like them"


@each_document
def test_commands_of_a_document_are_words_of_a_shell(document):
    for words, text in blocks(document)[0]:
        if words[0] == "sh":
            checked = subprocess.run(["bash", "-n"], input=text, text=True, capture_output=True, check=False)
            assert (checked.returncode, checked.stderr) == (0, ""), text


def anchors(document):
    """What a link can name behind "#": the headings as a web view of the repository names them."""
    headings = [line.lstrip("#") for line in blocks(document)[1] if line.startswith("#")]
    return {re.sub(r"[^\w -]", "", heading.strip().lower()).replace(" ", "-") for heading in headings}


@each_document
def test_links_of_a_document_lead_somewhere(document):
    text = "\n".join(blocks(document)[1])
    for link in re.findall(r"\]\(([^)\s]+)\)", text):
        assert "://" not in link, f"a resource of others may vanish: {link}"
        path, _, anchor = link.partition("#")
        target = os.path.normpath(os.path.join(os.path.dirname(document), path)) if path else document
        assert os.path.exists(f"{TOP}/{target}"), link
        assert not anchor or anchor in anchors(target), link


def test_files_that_a_first_change_touches_are_there():
    change = read(f"{TOP}/CONTRIBUTING.md").decode().split("## Your first change")[1].split("\n## ")[0]
    cells = [row.split("|")[1] for row in change.splitlines() if row.startswith("| `")]
    named = [path for cell in cells for path in re.findall(r"`([^`]+)`", cell)]
    assert len(named) > 15
    for path in named:
        assert os.path.exists(f"{TOP}/{path}"), path


def test_readme_is_short():
    assert len(read(f"{TOP}/README.md").splitlines()) <= 120


def test_messages_that_the_troubleshooting_page_looks_up_are_those_of_the_programs():
    rows = [line.split("|")[1] for line in blocks("docs/troubleshooting.md")[1] if line.startswith("| ")]
    sources = b"".join(read(path) for layer in ("commons", "hostlib", "transport", "sondrel", "migrate")
                       for path in glob.glob(f"{TOP}/{layer}/*.[ch]*")).decode()
    # A text may go on in the next line.
    texts = re.sub(r'"\s*"', "", sources)
    messages = [message for row in rows for message in re.findall(r"`([A-Z][^`.]+ [^`]+?)`", row)
                if message != os.strerror(errno.ENOSPC)]
    assert len(messages) > 10
    for part in (part for message in messages for part in message.split(" ... ")):
        assert part in texts, part


def test_every_document_that_has_commands_is_run_in_fresh_roots():
    listed = re.search(r"^documents=\((.*?)\)", read(f"{TOP}/scripts/fresh-roots").decode(), re.DOTALL | re.MULTILINE)[1]
    with_commands = {document for document in DOCUMENTS if any(words[0] == "sh" for words, _ in blocks(document)[0])}
    assert with_commands and with_commands <= set(listed.split())


# --- completion ------------------------------------------------------------------------------

def completed(line):
    """What the completion offers behind a line."""
    # Readline takes "=" for a word.
    words = [word for part in line.split(" ") for word in re.findall(r"=|[^=]+", part) or [""]]
    call = "_sondrel" if words[0] == "sondrel" else f"_sondrel_migrate {words[0]}"
    script = (f"source {COMPLETION}; compopt() {{ :; }}; COMP_WORDS=({' '.join(map(shlex.quote, words))}); "
              f"COMP_CWORD={len(words) - 1}; {call}; printf '%s\\n' \"${{COMPREPLY[@]}}\"")
    shell = subprocess.run(["bash", "--norc", "-c", script], capture_output=True, text=True, check=True, cwd="/mnt")
    assert shell.stderr == ""
    return shell.stdout.split()


def offered_options(line):
    """{option: whether a value is to follow}"""
    return {option.rstrip("="): option.endswith("=") for option in completed(line)}


def test_completion_offers_every_option_of_the_program_and_no_other():
    assert offered_options("sondrel ") == options_of_the_program()
    assert sorted(completed("sondrel --no-c")) == ["--no-check-space", "--no-compress", "--no-content"]


@pytest.mark.parametrize("action", [
    "send-scout", "deploy-agent", "get-dumping-status", "dump-selected", "dump-all", "get-content", "remove-agent",
    "remove-dumping-status"])
def test_completion_offers_what_goes_with(action):
    offered = offered_options(f"sondrel --{action} ")
    values = {"--port": "1", "--host": "127.0.0.1", "--session-path": SESSION}
    arguments = [f"{option}={values.get(option, 'x')}" if takes_value else option
                 for option, takes_value in offered.items()]
    passwords = {} if action == "remove-dumping-status" else {"password": "login", "sudo_password": "sudo"}
    sondrel(f"--{action}", *arguments, **passwords)
    assert "Sondrel started" in Session().log() and "OptParsingError" not in Session().log()


def test_completion_offers_nothing_twice():
    line = "sondrel --host=source.example --get-content --login me --verbose "
    assert not {"--host", "--login", "--verbose", "--get-content"} & set(offered_options(line))
    assert "--ip" in offered_options(line) and "--port" in offered_options(line)


def test_completion_offers_nothing_beside_help():
    assert completed("sondrel --help ") == []


@pytest.mark.parametrize("line", ["sondrel --agent-name=", "sondrel --agent-name ",
                                  "sondrel --deploy-agent --agent-name="])
def test_completion_offers_the_agents_that_are_installed(line):
    install_agent(name="one")
    install_agent(name="other")
    install_agent(name="unusable", spec=None)
    assert completed(line) == ["one", "other"]
    assert completed(line + "ot") == ["other"]


def test_completion_looks_for_agents_where_the_product_is():
    install_agent(name="here")
    kept = read(CONFIGURATION)
    try:
        write(CONFIGURATION, f"PRODUCT_ROOT_D /nowhere\n\tPRODUCT_ROOT_D  {PRODUCT}.other")
        write(f"{PRODUCT}.other/DTM/agents/there/control/spec")
        assert completed("sondrel --agent-name=") == ["there"]
        os.unlink(CONFIGURATION)
        assert completed("sondrel --agent-name=") == []
    finally:
        write(CONFIGURATION, kept)


@pytest.mark.parametrize("option, expected", [
    ("--session-path", ["/mnt/complete/folder"]), ("--dumps-dir", ["/mnt/complete/folder"]),
    ("--selected-objects-file", ["/mnt/complete/file", "/mnt/complete/folder"]),
], ids=["the session", "the dumps", "selected objects"])
def test_completion_offers_paths_for(option, expected):
    os.makedirs("/mnt/complete/folder", exist_ok=True)
    write("/mnt/complete/file")
    assert sorted(completed(f"sondrel {option}=/mnt/complete/f")) == expected


@pytest.mark.parametrize("option, expected", [
    ("--content-transport", ["rsync"]), ("--domains", ["-"]), ("--clients", ["-"]), ("--resellers", ["-"]),
    ("--port", []), ("--login", []), ("--agent-dir", []),
], ids=["the transport", "domains", "clients", "resellers", "the port", "the login", "the agent directory"])
def test_completion_offers_what_can_be_known_for(option, expected):
    assert completed(f"sondrel {option}=") == expected


def test_completion_offers_names_of_hosts():
    assert "localhost" in completed("sondrel --host=")


def test_completion_offers_what_a_whole_migration_takes():
    offered = offered_options(f"{MIGRATE} ")
    assert offered.pop("status") is False
    assert offered == options_of_a_whole_migration()
    assert {"--host", "--sudo", "--from"} <= set(offered)
    later = offered_options(f"{MIGRATE} --host=source.example --sudo ")
    assert set(offered) - set(later) == {"--host", "--sudo"}


def test_completion_offers_values_for_a_whole_migration():
    install_agent(name="one")
    os.makedirs("/mnt/complete/folder", exist_ok=True)
    assert completed(f"{MIGRATE} --agent-name=") == ["one"]
    assert completed(f"{MIGRATE} --from=de") == ["deploy"]
    assert completed(f"{MIGRATE} status /mnt/complete/fo") == ["/mnt/complete/folder"]
    assert completed(f"{MIGRATE} --domains=") == []


def test_completion_works_where_an_equals_sign_parts_no_words():
    script = f"source {COMPLETION}; COMP_WORDS=(sondrel --content-transport=r); COMP_CWORD=1; _sondrel; " \
             "printf '%s\\n' \"${COMPREPLY[@]}\""
    shell = subprocess.run(["bash", "--norc", "-c", script], capture_output=True, text=True, check=True)
    assert shell.stdout.split() == ["--content-transport=rsync"]


def test_completion_completes_in_a_shell():
    install_agent(name="linux")
    pid, terminal = pty.fork()
    if pid == 0:
        os.execve("/bin/bash", ["bash", "--norc", "--noprofile", "-i"],
                  {"PATH": "/usr/bin:/bin", "TERM": "dumb", "PS1": "ready>", "HISTFILE": "/dev/null"})
    try:
        expect(terminal, b"ready>")
        os.write(terminal, f"source {COMPLETION}\n".encode())
        expect(terminal, b"ready>")
        # Tab behind each beginning; then the line is made one that prints itself.
        os.write(terminal, b"sondrel --depl\t--agent-n\tl\t\x01echo got: \n")
        expect(terminal, b"\r\ngot: sondrel --deploy-agent --agent-name=linux\r\n")
    finally:
        os.close(terminal)
        os.waitpid(pid, 0)


def expect(terminal, text, deadline_seconds=20):
    """Reads from the terminal until the text has come."""
    end = time.monotonic() + deadline_seconds
    seen = b""
    while text not in seen:
        left = end - time.monotonic()
        assert left > 0 and select.select([terminal], [], [], left)[0], seen
        seen += os.read(terminal, 4096)
