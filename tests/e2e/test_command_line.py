"""Options, their rules, and what the console shows of them."""
import re

import pytest

from source_host import SourceHost
from tool import Destination, Session, sondrel
from world import DTM, HOST, PLAIN, ROOT, SESSION, write

USAGE = b"""\
Usage: [QRV_PASSWORD=<password> | QRV_SUDO_PASSWORD = <sudo_password>] sondrel\x20
          --host=<hostname or IP address> (obsolete alias is --ip)
          [--port=<port>] (defaults to 22)
          --login=<username>
          [--sudo-password]
          --agent-dir=<dir> (relative path on the remote side)
          ( --send-scout
          | --deploy-agent --session-path <dir> --agent-name <agent>
          | --get-dumping-status --session-path <dir>
          | ( --dump-selected [--selected-objects-file=<file-path>]
                [--resellers=-|<reseller1>[,<reseller2>...]] [--clients=-|<client1>[,<client2>...]] \
[--domains=-|<domain1>[,<domain2>...]]
             | --dump-all )\x20
                [--server] [--admin-info] [--no-license]
                 --session-path <dir> --agent-name <agent>
                [--no-content] [--no-compress]
                [--only-mail]
                [--only-hosting]
          | --get-content --session-path <dir> --agent-name <agent>
                [--no-check-space] [--no-encryption (not implemented)] [--dumps-dir=<dir-on-destination-host>]
          | --remove-agent --session-path <dir> --agent-name <agent>
          | --remove-dumping-status --session-path <dir>
          | --help | -h)
"""

ACTIONS = ["send-scout", "deploy-agent", "get-dumping-status", "dump-selected", "dump-all", "get-content",
           "remove-agent", "remove-dumping-status"]


@pytest.mark.parametrize("arguments", [
    ["--help"], ["-h"], ["--hel"], ["word", "--help", "another"],
    ["--help", "--host=x", "--port=0", "--no-content", "--session-path", SESSION],
], ids=["long", "short", "abbreviated", "among words", "with options that no rule would allow"])
def test_help_prints_the_usage_text_and_leaves_no_trace(arguments):
    outcome = sondrel(*arguments, password="secret")
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, USAGE, b"")
    assert not Session().exists("")


@pytest.mark.matrix("local")
@pytest.mark.parametrize("stdout", ["/dev/full", False], ids=["full", "closed"])
def test_help_that_cannot_be_written_is_no_success(stdout):
    assert sondrel("--help", stdout=stdout).code == 1


@pytest.mark.parametrize("arguments", [[], ["word"], ["--session-path", SESSION]],
                         ids=["nothing", "a word", "a session path"])
def test_no_action_is_complained_about_on_the_console(arguments):
    outcome = sondrel(*arguments)
    assert (outcome.code, outcome.stdout, outcome.stderr) == (1, b"", b"Action required. See --help\n")
    assert not Session().exists("")


@pytest.mark.parametrize("arguments, complained", [
    (["--nonsense"], b"nonsense"), (["--help", "--nonsense"], b"nonsense"), (["-x"], b"x"),
    (["--send-scout", "--host"], b"host"), (["--h"], b"h"), (["--help=yes"], b"help"), (["--version"], b"version"),
], ids=["unknown", "unknown beside help", "unknown letter", "without its argument", "ambiguous",
        "with an argument it does not take", "version"])
def test_bad_option_ends_with_only_the_complaint_of_the_option_parser(arguments, complained):
    outcome = sondrel(*arguments)
    assert (outcome.code, outcome.stdout) == (1, b"")
    assert outcome.stderr.count(b"\n") == 1 and complained in outcome.stderr


@pytest.mark.parametrize("arguments", [[f"--{action}"] for action in ACTIONS] + [["-h", "-h"]],
                         ids=ACTIONS + ["help twice"])
def test_session_path_is_required_for_each_action(arguments):
    outcome = sondrel(*arguments)
    assert (outcome.code, outcome.stdout, outcome.stderr) == (1, b"", b"--session-path is required.\n")


# Options that satisfy every rule of an action that connects; each row adds what breaks a rule.
CONNECT = ["--host=" + HOST, "--login=plain"]
AGENT = ["--agent-dir=agent", "--agent-name=sample"]
EXTRA = "'--{}' only may be specified when '--{}' is requested"
MISSED = "{} is required unless --help or -h requested\n"
INVALID = "{} is not allowed with --help or -h\n"
PORT = "port should be a number in [1, 65535] range"
SUDO = "QRV_SUDO_PASSWORD environment variable is not provided with --sudo-password\n"
SOME = {"password": "secret"}

# In each row some later rules are broken as well: the message shows which one came first.
RULES = {
    "two actions": (["--send-scout", "--deploy-agent", "--no-check-space"], {}, "More than one action is given"),
    "help and an action": (["--help", "--get-content"], {}, "More than one action is given"),
    "help twice": (["-h", "--help"], {}, "More than one action is given"),
    "no-check-space": (["--dump-all", "--no-check-space", "--no-encryption"], {},
                       EXTRA.format("no-check-space", "get-content")),
    "no-check-space of a removal": (["--remove-dumping-status", "--no-check-space", "--host=x"], {},
                                    EXTRA.format("no-check-space", "get-content")),
    "no-encryption": (["--send-scout", "--no-encryption", "--no-content"], {},
                      EXTRA.format("no-encryption", "get-content")),
    "no-content": (["--get-content", "--no-content"], {}, EXTRA.format("no-content", "dump-*")),
    "no-content of a removal": (["--remove-dumping-status", "--no-content", "--host=x"], SOME,
                                EXTRA.format("no-content", "dump-*")),
    "removal with host": (["--remove-dumping-status", "--host=x", "--port=1"], SOME, INVALID.format("host")),
    "removal with old name of host": (["--remove-dumping-status", "--ip=x"], SOME, INVALID.format("host")),
    "removal with port": (["--remove-dumping-status", "--port=1", "--login=x"], SOME, INVALID.format("port")),
    "removal with bad port": (["--remove-dumping-status", "--port=x"], {}, INVALID.format("port")),
    "removal with login": (["--remove-dumping-status", "--login=x"], SOME, INVALID.format("login")),
    "removal with password": (["--remove-dumping-status", "--agent-dir=x"], SOME, INVALID.format("password")),
    "removal with agent directory": (["--remove-dumping-status", "--agent-dir=x", "--agent-name=x"], {},
                                     INVALID.format("agent directory")),
    "removal with agent name": (["--remove-dumping-status", "--agent-name=x", "--sudo-password"], {},
                                INVALID.format("agent name")),
    "removal with sudo": (["--remove-dumping-status", "--sudo-password"], {}, INVALID.format("sudo parameters")),
    "no host": (["--send-scout", "--port=0", "--agent-dir=x"], {}, MISSED.format("host")),
    "port of zero": (["--send-scout", "--host=x", "--port=0"], {}, PORT),
    "port of letters": (["--send-scout", "--host=x", "--port=abc"], {}, PORT),
    "negative port": (["--send-scout", "--host=x", "--port=-5"], {}, PORT),
    "port above the range": (["--send-scout", "--host=x", "--port=65536"], {}, PORT),
    "port beyond 32 bits": (["--send-scout", "--host=x", "--port=4294967318"], {}, PORT),
    "no login": (["--send-scout", "--host=x"], {}, MISSED.format("login")),
    "no password": (["--send-scout", "--host=x", "--login=x", "--sudo-password"], {}, MISSED.format("password")),
    "empty password": (["--send-scout", "--host=x", "--login=x"], {"password": ""}, MISSED.format("password")),
    "no sudo password": (["--send-scout", *CONNECT, "--sudo-password", "--agent-dir=x"], SOME, SUDO),
    "scout with agent directory": (["--send-scout", *CONNECT, *AGENT], SOME, INVALID.format("agent directory")),
    "scout with agent name": (["--send-scout", *CONNECT, "--agent-name=x"], SOME, INVALID.format("agent name")),
}
for name in ACTIONS[1:7]:
    RULES[f"{name} without agent directory"] = ([f"--{name}", *CONNECT], SOME, MISSED.format("agent directory"))
    RULES[f"{name} without agent name"] = ([f"--{name}", *CONNECT, "--agent-dir=x"], SOME,
                                           MISSED.format("agent name"))


@pytest.mark.parametrize("arguments, passwords, text", RULES.values(), ids=RULES.keys())
def test_broken_rule_is_told_to_the_log_only(arguments, passwords, text):
    outcome = sondrel(*arguments, "--session-path", SESSION, **passwords)
    assert (outcome.code, outcome.stdout, outcome.stderr) == (1, b"", b"")
    log = Session().log()
    block = re.compile(r"INFO k\.log: OptParsingError\[[0-9a-f-]{36}\0\]: Unable to parse command line: "
                       + re.escape(text) + r" \[\./sondrel\.cpp:[1-9]\d*\]\n"
                       r"void [^\n]+\([^\n]*\)\n")
    assert len(block.findall(log)) == 1, log
    assert log.startswith("INFO k.log: Sondrel started : ")
    assert log.endswith("INFO k.log: Sondrel finished. Exit code: 1\n")
    # Refused before anything else was begun.
    assert not Session().exists("migration.result") and not Session().exists("migration.status")


@pytest.mark.parametrize("port", ["22abc", " 22", "+22", "0022"])
def test_port_is_read_like_a_number_with_junk_behind(source, port):
    write(f"{DTM}/scout.pl", "print 'here'")
    assert Destination(PLAIN).run("send-scout", "--port", port).code == 0
    assert Session().read("scout-result.xml") == b"here"


def test_largest_port_is_used():
    write(f"{DTM}/scout.pl", "print 'here'")
    with SourceHost(port=65535):
        assert Destination(PLAIN).run("send-scout", "--port=65535").code == 0


def test_last_of_repeated_options_wins_and_names_may_be_abbreviated(source):
    write(f"{DTM}/scout.pl", "print 'here'")
    outcome = sondrel("--send", "--host=nowhere.invalid", "--ip", HOST, "--log=nobody", "--login", ROOT.name,
                      "--port=1", "--port=22", "--session-path=/nonexistent", "--session", SESSION, "ignored word",
                      password=ROOT.password)
    assert (outcome.code, outcome.stderr) == (0, b"")
    assert Session().read("scout-result.xml") == b"here"


def test_selection_options_are_accepted_with_any_action(source):
    write(f"{DTM}/scout.pl", "print 'here'")
    outcome = Destination(PLAIN).run(
        "send-scout", "--resellers=r", "--clients=c", "--domains=d", "--selected-objects-file=/nonexistent",
        "--server", "--admin-info", "--no-license", "--only-mail", "--only-hosting", "--no-compress",
        "--content-transport=rsync", "--dumps-dir=/nonexistent")
    assert (outcome.code, outcome.stderr) == (0, b"")
