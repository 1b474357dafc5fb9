"""What --dump-selected and --dump-all send to the agent: its arguments and its standard input."""
import pytest

from source_host import as_root, deployed_agent, root_command, sh_quote
from tool import Destination, Session
from world import BINARY, PLAIN, ROOT, SELECTED, write

# An agent that only writes a dump.
AGENT = "cat > /dev/null; echo '<dump/>' > \"${0%/*}/dump.xml\"\n"

DOMAINS, CLIENTS, RESELLERS = "--dump-domains=-", "--dump-clients=-", "--dump-resellers=-"
DISTRIB = "--include-app-distrib"


def file_of(inside, parameters=""):
    return f"<objects>{parameters}{inside}</objects>"


NAMES = file_of("<group><domain><name>a.test</name></domain></group><domain><name>b.test</name></domain>"
                "<client><name>jo</name></client><reseller><name>re</name></reseller>")

# Options, selected-objects file, the agent's arguments after --migration-mode, and its standard input.
SELECTIONS = {
    "nothing": ([], None, [DISTRIB], b""),
    "clients": (["--clients=x"], None, [CLIENTS, DISTRIB], b"x"),
    "domains and resellers": (["--resellers=r", "--domains=d"], None, [DOMAINS, RESELLERS, DISTRIB], b"d\nr"),
    "all three lists": (["--domains=d,e", "--clients=c", "--resellers=r"], None,
                        [DOMAINS, CLIENTS, RESELLERS, DISTRIB], b"d,e\nc\nr"),
    "names as they are": (["--domains= a b ,,a,\xe4'$\n*"], None, [DOMAINS, DISTRIB], b" a b ,,a,\xc3\xa4'$\n*"),
    "mail": (["--only-mail"], None, ["--only-mail", DISTRIB], b""),
    "hosting": (["--only-hosting"], None, ["--only-hosting", DISTRIB], b""),
    "mail after hosting": (["--only-hosting", "--only-mail"], None, ["--only-mail", DISTRIB], b""),
    "hosting after mail": (["--only-mail", "--only-hosting"], None, ["--only-hosting", DISTRIB], b""),
    "no compression": (["--no-compress"], None, ["--no-compress", DISTRIB], b""),
    "server things": (["--server", "--admin-info", "--no-license"], None,
                      [DISTRIB, "--server", "--admin-info", "--no-license"], b""),
    "everything": (["--no-license", "--admin-info", "--server", "--no-compress", "--only-mail", "--resellers=r",
                    "--clients=c", "--domains=d", "--no-content"], None,
                   [DOMAINS, CLIENTS, RESELLERS, "--only-mail", "--no-compress", DISTRIB, "--server",
                    "--admin-info", "--no-license", "--no-content"], b"d\nc\nr"),
    "file of names": ([], NAMES, [DOMAINS, CLIENTS, RESELLERS, DISTRIB], b"a.test,b.test\njo\nre"),
    "file and options": (["--domains=c.test", "--resellers=x,y"], NAMES,
                         [DOMAINS, CLIENTS, RESELLERS, DISTRIB], b"a.test,b.test,c.test\njo\nre,x,y"),
    "file with empty names": ([], file_of("<domain><name/></domain><domain><name>a</name></domain><domain><name>"
                                          "</name></domain><domain><name>b</name></domain>"),
                              [DOMAINS, DISTRIB], b"a,b"),
    "file with special characters": ([], file_of("<domain><name>a&amp;b &lt; \u00e4</name></domain>"),
                                     [DOMAINS, DISTRIB], "a&b < ä".encode()),
    "file with names elsewhere": ([], file_of("<name>x</name><domain><x><name>y</name></x></domain>"), [DISTRIB], b""),
    "file for mail": ([], file_of("", "<parameters filter='only-mail'/>"), ["--only-mail", DISTRIB], b""),
    "file for hosting": ([], file_of("", "<parameters filter='only-phosting'/>"), ["--only-hosting", DISTRIB], b""),
    "file with unknown filter": ([], file_of("", "<parameters filter='only-hosting'/>"), [DISTRIB], b""),
    "file with parameters too deep": ([], file_of("<x><parameters filter='only-mail'/></x>"), [DISTRIB], b""),
    "option before filter of file": (["--only-mail"], file_of("", "<parameters filter='only-phosting'/>"),
                                     ["--only-mail", DISTRIB], b""),
    "file without compression": ([], file_of("", "<parameters compression-level='do-not-compress'/>"),
                                 ["--no-compress", DISTRIB], b""),
    "file with standard compression": ([], file_of("", "<parameters compression-level='standard'/>"), [DISTRIB], b""),
    "option before compression of file": (["--no-compress"],
                                          file_of("", "<parameters compression-level='standard'/>"),
                                          ["--no-compress", DISTRIB], b""),
    "server things of file": ([], file_of("<server><license/></server><admin-info/>"), [DISTRIB], b""),
    "server things of both": (["--server"], file_of("<server><license/></server><admin-info/>"),
                              [DISTRIB, "--server"], b""),
}


def agent_command(login, words, stdin=b""):
    line = " ".join(["sh", sh_quote(f"{login.agent_dir}/agent"), *map(sh_quote, words)])
    return root_command(login, line, stdin)


@pytest.mark.parametrize("options, selected, words, stdin", SELECTIONS.values(), ids=SELECTIONS.keys())
def test_selection_becomes_arguments_and_input_of_the_agent(source, options, selected, words, stdin):
    deployed_agent(ROOT, AGENT)
    if selected is not None:
        write(SELECTED, selected)
        options = options + ["--selected-objects-file", SELECTED]
    outcome = Destination().run("dump-selected", *options)
    assert (outcome.code, outcome.stdout, outcome.stderr) == (0, b"", b"")
    assert source.commands()[0] == agent_command(ROOT, ["--migration-mode", *words], stdin)


def test_these_very_lines_select_a_domain_and_a_client(source):
    deployed_agent(PLAIN, AGENT)
    assert Destination(PLAIN).run("dump-selected", "--domains=a b", "--clients=c", "--no-content").code == 0
    assert source.commands()[0].stdin == b"a b\nc"
    assert source.lines() == [
        r"sh -c cd\ /mnt/home/plain/agent\;\ sh\ /mnt/home/plain/agent/agent\ --migration-mode\ --dump-domains=-\ "
        r"--dump-clients=-\ --include-app-distrib\ --no-content",
        "cat /mnt/home/plain/agent/dump.xml"]


def test_dump_of_everything_passes_no_selection_on(source):
    deployed_agent(ROOT, AGENT)
    outcome = Destination().run("dump-all", "--domains=d", "--clients=c", "--resellers=r", "--only-mail", "--server",
                                "--no-compress", "--admin-info", "--no-license", "--selected-objects-file=/none")
    assert outcome.code == 0
    assert source.commands()[0] == agent_command(ROOT, ["--migration-mode", "--dump-all"])


def test_dump_of_everything_without_content_has_one_more_word(source):
    deployed_agent(ROOT, AGENT)
    assert Destination().run("dump-all", "--no-content").code == 0
    assert source.lines()[0] == as_root(ROOT, "sh /mnt/home/root/agent/agent --migration-mode --dump-all --no-content")


# Options, standard input of the tool, lists in the agent's arguments, standard input of the agent.
LISTS_FROM_INPUT = {
    "resellers": (["--resellers=-"], b"one,two\nthree\n", [RESELLERS], b"one,two"),
    "clients": (["--clients=-"], b"one,two\n", [CLIENTS], b"one,two"),
    "domains": (["--domains=-"], b"one,two", [DOMAINS], b"one,two"),
    "resellers before clients": (["--resellers=-", "--clients=-"], b"one\ntwo\n", [CLIENTS, RESELLERS], b"-\none"),
    "clients before domains": (["--domains=-", "--clients=-"], b"one\ntwo\n", [DOMAINS, CLIENTS], b"-\none"),
    "empty line": (["--domains=-"], b"\n", [], b""),
    "empty input": (["--domains=-"], b"", [], b""),
    "blanks and carriage return": (["--domains=-"], b" a , b \r\n", [DOMAINS], b" a , b \r"),
    "very long line": (["--domains=-"], b"d," * 100_000 + b"d\n", [DOMAINS], b"d," * 100_000 + b"d"),
    "not a lone dash": (["--domains=-,a"], b"one\n", [DOMAINS], b"-,a"),
}


@pytest.mark.parametrize("options, given, lists, stdin", LISTS_FROM_INPUT.values(), ids=LISTS_FROM_INPUT.keys())
def test_dash_stands_for_one_line_of_standard_input(source, options, given, lists, stdin):
    deployed_agent(ROOT, AGENT)
    assert Destination().run("dump-selected", *options, stdin=given).code == 0
    assert source.commands()[0] == agent_command(ROOT, ["--migration-mode", *lists, DISTRIB], stdin)


@pytest.mark.parametrize("given, reason", [("<&-", b"Bad file descriptor"), ("</", b"Is a directory")],
                         ids=["closed", "a directory"])
def test_standard_input_that_cannot_be_read_ends_the_dump_before_it_begins(source, given, reason):
    deployed_agent(ROOT, AGENT)
    outcome = Destination().run("dump-selected", "--domains=-", through=["sh", "-c", f'exec "$@" {given}', "sh", BINARY])
    text = b"Cannot read the names from standard input: " + reason
    assert (outcome.code, outcome.stdout, outcome.stderr) == (2, b"", text)
    assert Session().messages() == [("CantReadNames", "error", text.decode(), [])]
    assert source.commands() == []


@pytest.mark.parametrize("options, port", [([], b"0"), (["--port=22"], b"22")], ids=["without a port", "with a port"])
@pytest.mark.parametrize("action, words, lists", [
    ("dump-all", ["--dump-all"], b""), ("dump-selected", [DOMAINS, RESELLERS, DISTRIB], b"d\nr"),
], ids=["everything", "a selection"])
def test_rsync_transport_sends_the_connection_ahead(source, options, port, action, words, lists):
    deployed_agent(PLAIN, AGENT)
    outcome = Destination(PLAIN).run(action, "--content-transport=rsync", "--domains=d", "--resellers=r", *options)
    assert outcome.code == 0
    connection = b"127.0.0.1\nplain\nplain-passphrase\n" + port + b"\n"
    assert source.commands()[0] == agent_command(
        PLAIN, ["--content-transport=rsync", "--migration-mode", *words], connection + lists)


@pytest.mark.parametrize("transport", ["", "ssh", "RSYNC", "rsync "],
                         ids=["empty", "another", "capitals", "with a blank"])
def test_other_transport_adds_nothing(source, transport):
    deployed_agent(ROOT, AGENT)
    assert Destination().run("dump-all", "--content-transport", transport).code == 0
    assert source.commands()[0] == agent_command(ROOT, ["--migration-mode", "--dump-all"])


@pytest.mark.parametrize("content, code, text", [
    (None, "tError_WrongInputFile",
     f"The XML file does not exist or is not a regular file. Check the file '{SELECTED}'"),
    ("<objects><domain></objects>", "tError_ParseFile",
     f"The XML file {SELECTED} was not parsed successfully with the following errors:\n"),
], ids=["missing", "broken"])
def test_unusable_selection_ends_the_dump_before_it_begins(source, content, code, text):
    deployed_agent(ROOT, AGENT)
    if content is not None:
        write(SELECTED, content)
    outcome = Destination().run("dump-selected", "--selected-objects-file", SELECTED)
    assert outcome.code == 2
    assert outcome.stderr.decode().startswith(text)
    assert [message[0] for message in Session().messages()] == [code]
    assert source.commands() == []
