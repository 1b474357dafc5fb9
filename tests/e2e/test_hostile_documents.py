"""Hostile documents from another host; and every byte in the texts and attributes of our own documents."""
import contextlib
import os
import resource
import socket

import pytest

import invariants
from content import left
from source_host import deployed_agent
from tool import Destination, Session
from world import ROOT, SELECTED, files_below, write

pytestmark = pytest.mark.matrix("documents")

ARCHIVES = "/mnt/session/archives"
PIPE = "/mnt/pipe"
PORT = 8080


@contextlib.contextmanager
def bounded(seconds=5, mebibytes=300):
    """Fails if a child needs more processor time or memory than this.

    The system keeps the memory of the largest child only: one that is smaller than an earlier one cannot be measured,
    and need not be.
    """
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    yield
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    spent = after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime
    assert spent < seconds, f"{spent} s of the processor"
    assert after.ru_maxrss < mebibytes << 10 or after.ru_maxrss == before.ru_maxrss, f"{after.ru_maxrss >> 10} MiB"


def run(action, *options):
    """The outcome of a run that ends soon and needs little memory."""
    # A sanitizer would keep freed memory.
    environment = {"ASAN_OPTIONS": "exitcode=99:quarantine_size_mb=1"}
    with bounded():
        return Destination().start(action, *options, environment=environment).finish(deadline_seconds=15)


@pytest.fixture
def nothing_is_fetched():
    """Makes a pipe, at which a reader would wait, and listens on a port to which nothing must connect."""
    os.mkfifo(PIPE)
    with socket.create_server(("127.0.0.1", PORT)) as server:
        server.setblocking(False)
        yield
        with pytest.raises(BlockingIOError):
            server.accept()
    os.unlink(PIPE)


# --- definitions -----------------------------------------------------------------------------

# A document type, and an entity that it declares or does not declare.
ELSEWHERE = {
    "entity in a file": (f'[<!ENTITY e SYSTEM "file://{PIPE}">]', "&e;"),
    "entity in a bare path": (f'[<!ENTITY e SYSTEM "{PIPE}">]', "&e;"),
    "entity on the network": (f'[<!ENTITY e SYSTEM "http://127.0.0.1:{PORT}/">]', "&e;"),
    "parameter entity in a file": (f'[<!ENTITY % p SYSTEM "file://{PIPE}"> %p;]', "&e;"),
    "parameter entity on the network": (f'[<!ENTITY % p SYSTEM "http://127.0.0.1:{PORT}/"> %p;]', "&e;"),
    "parameter entity in an entity": (f'[<!ENTITY % p SYSTEM "{PIPE}"><!ENTITY % q "<!ENTITY e \'%p;\'>"> %q;]', "&e;"),
    "definitions in a file": (f'SYSTEM "file://{PIPE}"', "&e;"),
    "definitions on the network": (f'SYSTEM "http://127.0.0.1:{PORT}/"', "&e;"),
    "public definitions": (f'PUBLIC "-//Test//DTD//EN" "http://127.0.0.1:{PORT}/"', "&e;"),
}


def nested(depth, fanout):
    """Definitions of e0 to e{depth}, each of which has the one before `fanout` times."""
    return '<!ENTITY e0 "bombbombbomb">' + "".join(
        f'<!ENTITY e{level} "{f"&e{level - 1};" * fanout}">' for level in range(1, depth + 1))


LARGE = f'<!ENTITY e "{"a" * 60_000}">'

# These grow to more than 400 MB each, if nothing limits them.
BOMBS = {
    "entity of itself": ('[<!ENTITY e "&f;"><!ENTITY f "&e;">]', "&e;"),
    "nested": (f"[{nested(9, 10)}]", "&e9;"), "nested twice": (f"[{nested(2, 10_000)}]", "&e2;"),
    "quadratic": (f"[{LARGE}]", "&e;" * 8_000),
    "quadratic by parts": (f'[{LARGE}<!ENTITY f "{"&e;" * 100}">]', "&f;" * 100),
}


def list_of(name="file", size="1", md5sum="", unpacked="1", root="contentlist", prolog="", inside=""):
    file = f'<file size="{size}" md5sum="{md5sum}"{inside}>{name}</file>'
    return f'{prolog}<{root} size="1" unpacked="{unpacked}">{file}</{root}>'


def offer(document):
    """Installs an agent that prints this as its list, and has the one file."""
    deployed_agent(ROOT, 'cat "${0%/*}/list.xml"\n', {"list.xml": document, "file": b"1"})


def check_refusal(outcome, *codes):
    """Checks that the run has fetched nothing, for one of these reasons."""
    assert outcome.code == 2
    (_, _, _, ((code, _, _, _),)), = Session().messages("transfer.result")
    assert code in codes
    assert os.listdir(ARCHIVES) == []
    assert left(ROOT) == ["file"]
    invariants.check(outcome, {"file": b"1"})


def check_arrival(outcome, name=b"file"):
    assert (outcome.code, outcome.stderr) == (0, b"")
    assert files_below(ARCHIVES) == {name: b"1"}
    invariants.check(outcome, {os.fsdecode(name): b"1"})


@pytest.mark.usefixtures("nothing_is_fetched")
@pytest.mark.parametrize("definitions, text", ELSEWHERE.values(), ids=ELSEWHERE.keys())
def test_content_list_fetches_nothing_for_its_names(source, definitions, text):
    offer(list_of(text, prolog=f"<!DOCTYPE contentlist {definitions}>"))
    check_refusal(run("get-content"), "tError_ParseFile", "CantRetrieveContentFile")


@pytest.mark.usefixtures("nothing_is_fetched")
@pytest.mark.parametrize("definitions, text", ELSEWHERE.values(), ids=ELSEWHERE.keys())
def test_content_list_fetches_nothing_for_its_sums(source, definitions, text):
    offer(list_of(md5sum=text, prolog=f"<!DOCTYPE contentlist {definitions}>"))
    outcome = run("get-content")
    if outcome.code == 0:
        check_arrival(outcome)  # as without a sum
    else:
        check_refusal(outcome, "tError_ParseFile")


@pytest.mark.parametrize("place", ["name", "md5sum"])
@pytest.mark.parametrize("definitions, text", BOMBS.values(), ids=BOMBS.keys())
def test_bomb_in_a_content_list_does_not_go_off(source, definitions, text, place):
    offer(list_of(prolog=f"<!DOCTYPE contentlist {definitions}>", **{place: text}))
    check_refusal(run("get-content"), "tError_ParseFile")


def dump_with(document):
    """The outcome of a dump of these selected objects, and what the agent was sent."""
    deployed_agent(ROOT, "cat > \"${0%/*}/input\"; echo '<dump/>' > \"${0%/*}/dump.xml\"\n")
    write(SELECTED, document)
    outcome = run("dump-selected", "--selected-objects-file", SELECTED)
    if outcome.code == 0:
        return outcome, files_below(ROOT.agent_dir)[b"input"]
    (code, _, text, _), = Session().messages()
    assert (outcome.code, code) == (2, "tError_ParseFile")
    assert text.startswith(f"The XML file {SELECTED} was not parsed successfully")
    assert b"input" not in files_below(ROOT.agent_dir)
    return outcome, b""


IN_SELECTED_OBJECTS = {"name": "<domain><name>{}</name></domain>", "filter": "<parameters filter='{}'/>"}


@pytest.mark.usefixtures("nothing_is_fetched")
@pytest.mark.parametrize("definitions, text", ELSEWHERE.values(), ids=ELSEWHERE.keys())
def test_selected_objects_fetch_nothing(source, definitions, text):
    inside = "".join(place.format(text) for place in IN_SELECTED_OBJECTS.values())
    assert dump_with(f"<!DOCTYPE o {definitions}><o>{inside}</o>")[1] == b""


@pytest.mark.parametrize("place", IN_SELECTED_OBJECTS.values(), ids=IN_SELECTED_OBJECTS.keys())
@pytest.mark.parametrize("definitions, text", BOMBS.values(), ids=BOMBS.keys())
def test_bomb_in_the_selected_objects_does_not_go_off(source, definitions, text, place):
    assert dump_with(f"<!DOCTYPE o {definitions}><o>{place.format(text)}</o>")[1] == b""


# --- encodings and shapes --------------------------------------------------------------------

def declared(encoding, **parts):
    return list_of(prolog=f'<?xml version="1.0" encoding="{encoding}"?>', **parts)


WELL_FORMED = {
    "UTF-16": declared("UTF-16").encode("utf-16"),
    "UTF-16 without a declaration": list_of().encode("utf-16"),
    "UTF-16 without a mark": declared("UTF-16").encode("utf-16-le"),
    "big-endian UTF-16": b"\xfe\xff" + declared("UTF-16").encode("utf-16-be"),
    "NUL and anything behind": list_of().encode() + b"\0<more>", "mark of UTF-8": b"\xef\xbb\xbf" + list_of().encode(),
    "namespace": list_of().replace("<contentlist", "<contentlist xmlns='urn:x'").encode(),
    "elements in a name": list_of("file" + "<x>" * 200 + "no name" + "</x>" * 200).encode(),
    "many attributes": list_of(inside="".join(f' a{number}=""' for number in range(10_000))).encode(),
    "attribute of 5 MB": list_of(inside=f' a="{"a" * 5_000_000}"').encode(),
    "comment of 5 MB": list_of(prolog=f"<!--{'a' * 5_000_000}-->").encode(),
}


@pytest.mark.parametrize("document", WELL_FORMED.values(), ids=WELL_FORMED.keys())
def test_odd_content_list_is_read(source, document):
    offer(document)
    check_arrival(run("get-content"))


LEADING_ELSEWHERE = "../../../outside"
BROKEN = {
    "NUL": b"\0", "NUL inside": list_of().encode().replace(b"file", b"fi\0le"),
    "NUL in an attribute": list_of(md5sum="\0").encode(), "NUL by reference": list_of(md5sum="&#0;").encode(),
    "UTF-16 of half a character": list_of(prolog="\ufeff").encode("utf-16-le")[:-1],
    "UTF-16 of half a pair": list_of(prolog="\ufeff", name="a").encode("utf-16-le").replace(b"a\0<", b"\x00\xd8<"),
    "UTF-8 said to be UTF-16": declared("UTF-16").encode() + b"x", "unknown encoding": declared("x-none").encode(),
    "two roots": list_of().encode() * 2, "no root": b"<!-- contentlist -->", "blanks only": b" \n",
    "attribute twice": list_of(inside=' size="2"').encode(), "depth of 100000": b"<contentlist>" + b"<file>" * 100_000,
    "attribute of 11 MB": list_of(md5sum="a" * 11_000_000).encode(),
    "element name of 11 MB": list_of(inside="><" + "a" * 11_000_000 + "/").encode(),
    "unclosed section": list_of(name="<![CDATA[file").encode(),
}


@pytest.mark.parametrize("document", BROKEN.values(), ids=BROKEN.keys())
def test_broken_content_list_is_refused(source, document):
    offer(document)
    check_refusal(run("get-content"), "tError_ParseFile")


def test_name_of_megabytes_is_refused(source):
    offer(list_of("a" * 5_000_000))
    check_refusal(run("get-content"), "CantRetrieveContentFile")


ROOTS = ["ContentList", "contentlists", "file", "_", "html", "execution-result"]


def test_content_list_of_another_root_is_refused(source, cases):
    cases(len(ROOTS))
    for root in ROOTS:
        offer(list_of(root=root))
        check_refusal(run("get-content"), "tError_WrongDoc")


ENCODED = {"UTF-16": list_of(LEADING_ELSEWHERE).encode("utf-16"),
           "UTF-7": declared("UTF-7", name="+AC4ALgAv-file").encode(),
           "references": list_of("&#46;&#x2e;&#x2F;file").encode(),
           "entities": list_of("&dots;/file", prolog='<!DOCTYPE contentlist [<!ENTITY dots "..">]>').encode(),
           "section": list_of("<![CDATA[..]]>/file").encode()}


@pytest.mark.parametrize("document", ENCODED.values(), ids=ENCODED.keys())
def test_name_that_leads_elsewhere_is_known_in_any_form(source, document):
    offer(document)
    check_refusal(run("get-content"), "CantRetrieveContentFile", "tError_ParseFile")


# --- all bytes in our own documents ----------------------------------------------------------

# All bytes except NUL, which ends a text that is an argument or a message.
BYTES = os.fsdecode(bytes(range(1, 256)))


def in_xml(text):
    """The text that a document has for these bytes: a mark for each byte that XML cannot hold, and a CR unchanged."""
    characters = os.fsencode(text).decode("utf-8", "surrogateescape")
    return "".join(c if c in "\t\n\r" or " " <= c < "\ud800" or c > "\udfff" else "\ufffd" for c in characters)


def descriptions(messages):
    """All texts of the messages, outermost first."""
    return [text for _, _, description, nested_ones in messages
            for text in (description, *descriptions(nested_ones))]


def test_status_and_result_show_any_host(source):
    write("/mnt/product/DTM/scout.pl")
    outcome = Destination(host=BYTES).run("send-scout")
    assert outcome.code == 16
    (_, _, _, (host,)), = Session().status()[3]
    assert host == ("host", [], in_xml(BYTES), [])
    assert any(in_xml(BYTES) in text for text in descriptions(Session().messages()))


DIRECTORY = "/mnt/" + BYTES.replace("/", "")


@pytest.mark.parametrize("options, text", [
    (["--agent-name", BYTES], f"Agent {in_xml(BYTES)} was not found"),
    (["--dumps-dir", BYTES], f"Cannot stat filesystem containing {in_xml(BYTES)}: "),
    (["--agent-dir", DIRECTORY], "Error during content list retrieval: "),
    (["--host", "127.0.0.1", "--session-path", DIRECTORY], f"Error during {in_xml(DIRECTORY)}/dump-name write: "),
], ids=["agent", "dumps directory", "agent directory", "session"])
def test_result_shows_any_option(source, options, text):
    offer("<contentlist/>")
    session = Session(DIRECTORY if "--session-path" in options else "/mnt/session")
    os.makedirs(session.file("dump-name"))
    outcome = Destination().run("get-content", *options)
    assert outcome.code == 2
    found = descriptions(session.messages("transfer.result"))
    assert found[0] == "Error during dump retrieval" and found[1].startswith(text), found
    invariants.check_documents(session)


@pytest.mark.parametrize("content_verify", ["verified"], indirect=True)
def test_result_shows_any_sum_of_a_content_list(source, content_verify):
    characters = [chr(code) for code in (9, 10, 13, *range(0x20, 0x100), 0xfffd, 0x10000)]
    offer(list_of(md5sum="".join(f"&#{ord(c)};" for c in characters)))
    assert run("get-content").code == 2
    (code, _, text, _), (last, _, _, _) = Session().messages("transfer.result")
    assert (code, last) == ("WrongMd5Sum", "CantRetrieveDump")
    assert f", but it has to be {''.join(characters)}." in text
    assert left(ROOT) == ["file"]


def test_result_is_whole_where_a_command_printed_zero_bytes(source):
    deployed_agent(ROOT, r"printf 'ahead\0\0behind' >&2; exit 1")
    assert run("get-content").code == 2
    (_, _, _, ((code, _, text, _),)), = Session().messages("transfer.result")
    assert code == "CantRetrieveContentList"
    assert text.startswith("Error during content list retrieval: ahead")


# --- numbers ---------------------------------------------------------------------------------

NO_NUMBERS = ["9223372036854775808", "-9223372036854775809", "1e3", "0x10", " 1", "1 ", "1.0", "--1", "one", "1\u00a0",
              "\u0661", "9" * 100_000, "&#10;1", "inf", "1,000"]


@pytest.mark.parametrize("place", ["size", "unpacked"])
def test_what_is_no_number_ends_the_run(source, place, cases):
    cases(len(NO_NUMBERS))
    for number in NO_NUMBERS:
        offer(list_of(**{place: number}))
        outcome = run("get-content")
        assert (outcome.code, outcome.stdout) == (1, b""), number[:30]
        assert outcome.stderr == (b"Uncaught std::exception: bad lexical cast: source type value could not be "
                                  b"interpreted as target\n")
        assert Session().result("transfer.result") == ("execution-result", [("status", "error")], "", [])
        assert os.listdir(ARCHIVES) == [] and left(ROOT) == ["file"]


@pytest.mark.parametrize("number", ["-9223372036854775808", "-1", "9223372036854775807"],
                         ids=["smallest", "minus one", "largest"])
@pytest.mark.parametrize("place", ["size", "unpacked"])
def test_number_at_the_end_of_its_range_is_counted_with(source, place, number, content_verify):
    offer(list_of(**{place: number}))
    outcome = run("get-content", "--no-check-space")
    assert invariants.complete({"file": b"1"}, ARCHIVES) == {"file"}
    if content_verify and place == "size":
        assert outcome.code == 2
        assert left(ROOT) == ["file"]
    else:
        check_arrival(outcome)
    (_, _, _, (_, files)), = Session().status()[3]
    attributes = dict(files[3][0][1])
    assert attributes["size"] == (number if place == "size" else "1")


def test_size_that_is_less_than_nothing_needs_no_room(source, content_verify):
    offer(list_of(unpacked="-9223372036854775808"))
    check_arrival(run("get-content"))
