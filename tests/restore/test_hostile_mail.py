"""Mail of a host that was broken into: its tables get addresses and hashes, and nothing else."""
import os
from pathlib import Path

import pytest
from destination import snapshot
from mail_session import MESSAGE, Fetched, Run, fetched_with, mail_world, maildir

from sondrel_restore import mail_service
from sondrel_restore.kind import State
from sondrel_restore.kinds.mail import Mailbox, MailDomain
from sondrel_restore.mail_tables import HASH, hash_of, objection_to_target, split_address

KINDS = [Mailbox, MailDomain]
HOSTILE_ALIASES = [
    ("x@a.test", "|/bin/sh -c id"),
    ("x@a.test", '"|/bin/sh -c id"'),
    ("x@a.test", "/etc/cron.d/taken"),
    ("x@a.test", '"/etc/cron.d/taken"'),
    ("x@a.test", "~root/file"),
    ("x@a.test", ":include:/etc/shadow"),
    ("x@a.test", '":include:/etc/shadow"'),
    ("x@a.test", ":Include:/etc/shadow"),
    ("x@a.test", "info@a.test, |id"),
    ("x@a.test", "root"),
    ("x@a.test", "bob"),
    ("x@a.test", "info@a.test\nroot@new.test bob@a.test"),
    ("x@a.test", "-oQ/tmp@a.test"),
    ("x@a.test", "info@a.test bob"),
    ("x@a.test", "info@[127.0.0.1]"),
    ("x@a.test", ""),
    ("root@new.test", "info@a.test"),
    ("@new.test", "info@a.test"),
    ("@gmail.test", "info@a.test"),
    ("root", "info@a.test"),
    ("@", "info@a.test"),
    ("a.test anything\nroot", "info@a.test"),
    ("x@a.test y@b.test", "info@a.test"),
    ("/^.*$/", "info@a.test"),
    ("#@a.test x", "info@a.test"),
]


@pytest.fixture(autouse=True)
def world():
    """Mail servers as they are installed, without mail."""
    with mail_world():
        yield


def test_leaves_out_aliases_that_are_more_than_addresses_for_an_address(tmp_path):
    fetched = fetched_with(tmp_path)
    for source, target in HOSTILE_ALIASES:
        fetched.alias(source, target)
    fetched.alias("good@a.test", "info@a.test")
    fetched.write()
    run = Run(fetched, KINDS)
    assert run.apply().failed == []
    text = Path("/etc/postfix/sondrel-virtual").read_text(encoding="ascii")
    assert text == mail_service.HEAD + "good@a.test info@a.test\n"
    assert run.named().count("is left out") == len(HOSTILE_ALIASES)


def test_makes_no_user_of_an_address_that_is_none_or_of_another_domain(tmp_path):
    hostile = ["info@a.test\nroot@new.test", "info@other.test", "a:b@a.test", "x y@a.test", '"a b"@a.test',
               "../x@a.test", "|id@a.test", "@a.test"]
    fetched = Fetched(tmp_path)
    for number, address in enumerate(hostile):
        path = f"/var/mail/vhosts/a.test/{number}"
        fetched.mailbox(address, path, maildir(path, new__1=MESSAGE))
    fetched.write()
    run = Run(fetched, KINDS)
    run.apply()
    assert not os.path.exists(mail_service.USERS)
    assert list(Path("/etc/postfix").glob("sondrel-mailboxes*")) == []
    assert run.named().count("is in no table") == len(hostile)


@pytest.mark.parametrize("domain", ["../../etc/x", "a.test\nb.test", "localhost", "-x.test", "a..test", ""])
def test_refuses_a_domain_that_is_none(tmp_path, domain):
    fetched = Fetched(tmp_path)
    fetched.alias(f"x@{domain}", "info@a.test", domain=domain or "x")
    fetched.write()
    before = snapshot("/etc/postfix")
    run = Run(fetched, [MailDomain])
    assert {item.state for item in run.plan().values()} == {State.IMPOSSIBLE}
    run.apply()
    assert snapshot("/etc/postfix") == before


def test_takes_no_domain_that_another_session_has_restored(tmp_path):
    """Such as that of another source host, whose mail it would redirect."""
    for name in ("first", "second"):
        (tmp_path / name).mkdir()
    first = fetched_with(tmp_path / "first")
    first.alias("boss@a.test", "info@a.test")
    first.write()
    assert Run(first, KINDS).apply().failed == []
    table = Path("/etc/postfix/sondrel-virtual").read_text(encoding="ascii")
    second = Fetched(tmp_path / "second")
    second.alias("boss@a.test", "evil@far.test")
    second.alias("boss@a.test", "evil@far.test", domain="z.test")
    second.write()
    description = second.directory / "dump.xml"
    description.write_text(description.read_text("utf-8").replace(
        "<name>z.test</name>", "<name>z.test</name><name>a.test</name>"), "utf-8")
    run = Run(second, KINDS, skipped=frozenset(["mail:a.test"]))
    run.apply()
    assert "the alias boss@a.test is left out: it is an address of another domain" in run.named()
    run = Run(second, KINDS)
    assert run.plan()["mail:a.test"].state is State.CONFLICT
    assert "another session has restored mail for a.test" in run.plan()["mail:a.test"].says
    run.apply()
    assert Path("/etc/postfix/sondrel-virtual").read_text(encoding="ascii") == table
    # A second apply of the first session finds its own mail.
    assert Run(first, KINDS).plan()["mail:a.test"].state is State.SAME


@pytest.mark.parametrize("text, expected", [
    ("{SHA512-CRYPT}$6$salt$" + "x" * 86, True), ("{BLF-CRYPT}$2y$05$" + "x" * 53, True),
    ("{ARGON2ID}$argon2id$v=19$m=65536,t=3,p=1$abc$def", True), ("{SSHA256}" + "A" * 48 + "==", True),
    ("$6$salt$" + "x" * 86, True),
    ("{PLAIN}secret", False), ("{CLEARTEXT}secret", False), ("secret", False), ("", False), ("{CRYPT}", False),
    ("{SHA512-CRYPT}$6$salt$" + "x" * 86 + "\n", False), ("{SHA512-CRYPT}x y" * 3, False),
    ("{PLAIN.b64}c2VjcmV0c2VjcmV0", False), ("*", False), ("!", False)])
def test_moves_hashes_of_passwords_only(text, expected):
    assert bool(hash_of(text)) is expected
    assert not hash_of(text) or HASH.match(hash_of(text))


def test_knows_addresses_from_other_texts():
    assert split_address("Info+x@A.Test") == ("Info+x", "a.test")
    assert all(split_address(text) is None for text in ("a@b", "@a.test", "a@a.test\n", "a b@a.test", "-x@a.test"))
    assert objection_to_target("alice", {"alice"}) == "" != objection_to_target("root", {"alice"})
