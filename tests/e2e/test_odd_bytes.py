"""Bytes that XML cannot hold, in names and in what remote commands print."""
import os

import pytest

from content import left, offered
from tool import Destination, Session
from world import DTM, PLAIN, ROOT, files_below, write

pytestmark = pytest.mark.matrix("documents")


@pytest.mark.parametrize("first", range(0, 256, 64))
def test_result_log_can_be_read_whatever_a_command_printed(source, first):
    # Without NUL and newline, which end a text and a line.
    odd = bytes(byte for byte in range(first, first + 64) if byte not in b"\0\n\\'")
    write(f"{DTM}/scout.pl", b"print STDERR '<" + odd + b">'; exit 1")
    outcome = Destination(PLAIN).run("send-scout")
    assert outcome.code == 2
    assert outcome.stderr.endswith(b"<" + odd + b">")
    (code, _, text, _), = Session().messages()
    assert code == "FailedToExecuteScout"
    shown = text[text.index("<"):]
    allowed = "".join(chr(byte) for byte in odd if byte in b"\t" or 0x20 <= byte < 0x80)
    assert shown.replace("\ufffd", "").replace("\r", "") == f"<{allowed}>"
    assert shown.count("\ufffd") == sum(1 for byte in odd if byte not in b"\t\r" and not 0x20 <= byte < 0x80)


def test_result_log_names_a_file_in_a_directory_of_odd_name(source):
    directory = os.fsdecode(b"/mnt/home/root/odd\1\xff\xc3\xa4")
    offered(ROOT, ("file", None))
    os.rename(ROOT.agent_dir, directory)
    outcome = Destination(agent_dir=directory).run("get-content")
    assert outcome.code == 2
    (_, _, _, ((code, _, text, _),)), = Session().messages("transfer.result")
    assert code == "CantRetrieveContentFile"
    assert text.startswith("Failed to retrieve file '/mnt/home/root/odd\ufffd\ufffdä/file' from ")


def test_name_of_the_host_cannot_break_the_status(source):
    write(f"{DTM}/scout.pl", "exit 0")
    outcome = Destination(PLAIN, host="no\1\udcffsuch <host>&").run("send-scout")
    assert outcome.code == 16
    (_, _, _, (host,)), = Session().status()[3]
    assert host == ("host", [], "no\ufffd\ufffdsuch <host>&", [])


def test_content_of_any_bytes_and_name_comes_over(source):
    name = "".join(chr(code) for code in range(1, 0x180) if chr(code) not in "/" and code >= 0x20
                   or chr(code) in "\t\n\r")
    pieces = [name[start:start + 60] for start in range(0, len(name), 60)]
    offered(ROOT, *[(piece, piece.encode()) for piece in pieces])
    assert Destination().run("get-content").code == 0
    assert files_below(Session().file("archives")) == {piece.encode(): piece.encode() for piece in pieces}
    assert left(ROOT) == []
