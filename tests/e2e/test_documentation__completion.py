"""The completion of command lines offers what the programs take."""
import os
import pty
import re
import select
import shlex
import subprocess
import time

import pytest

from documented import MIGRATE, TOP, options_of_a_whole_migration, options_of_the_program
from source_host import install_agent
from tool import Session, sondrel
from world import CONFIGURATION, PRODUCT, SESSION, read, write

COMPLETION = f"{TOP}/completion/sondrel"


def completed(line):
    """What the completion offers at the end of a line."""
    # Readline treats "=" as a word of its own.
    words = [word for part in line.split(" ") for word in re.findall(r"=|[^=]+", part) or [""]]
    call = "_sondrel" if words[0] == "sondrel" else f"_sondrel_migrate {words[0]}"
    script = (f"source {COMPLETION}; compopt() {{ :; }}; COMP_WORDS=({' '.join(map(shlex.quote, words))}); "
              f"COMP_CWORD={len(words) - 1}; {call}; printf '%s\\n' \"${{COMPREPLY[@]}}\"")
    shell = subprocess.run(["bash", "--norc", "-c", script], capture_output=True, text=True, check=True, cwd="/mnt")
    assert shell.stderr == ""
    return shell.stdout.split()


def offered_options(line):
    """{option: whether a value must follow}"""
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
    ("--session-path", ["/mnt/complete/first"]), ("--dumps-dir", ["/mnt/complete/first"]),
    ("--selected-objects-file", ["/mnt/complete/file", "/mnt/complete/first"]),
], ids=["the session", "the dumps", "selected objects"])
def test_completion_offers_paths_for(option, expected):
    os.makedirs("/mnt/complete/first", exist_ok=True)
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
    os.makedirs("/mnt/complete/first", exist_ok=True)
    assert completed(f"{MIGRATE} --agent-name=") == ["one"]
    assert completed(f"{MIGRATE} --from=de") == ["deploy"]
    assert completed(f"{MIGRATE} status /mnt/complete/fir") == ["/mnt/complete/first"]
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
        # Presses Tab after each beginning; then makes the line one that prints itself.
        os.write(terminal, b"sondrel --depl\t--agent-n\tl\t\x01echo got: \n")
        expect(terminal, b"\r\ngot: sondrel --deploy-agent --agent-name=linux\r\n")
    finally:
        os.close(terminal)
        os.waitpid(pid, 0)


def expect(terminal, text, deadline_seconds=20):
    """Reads from the terminal until the text has arrived."""
    end = time.monotonic() + deadline_seconds
    seen = b""
    while text not in seen:
        left = end - time.monotonic()
        assert left > 0 and select.select([terminal], [], [], left)[0], seen
        seen += os.read(terminal, 4096)
