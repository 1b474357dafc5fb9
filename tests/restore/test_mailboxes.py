"""Mailboxes: delivered to, renewed and taken back, and what a hostile host does not get into them."""
import os
import stat
import tarfile
from pathlib import Path

import pytest
from destination import snapshot
from mail_session import BOX, MESSAGE, VMAIL, Fetched, Run, fetched_with, maildir, mail_world

from sondrel_restore.kind import State
from sondrel_restore.kinds.mail import Mailbox, MailDomain

KINDS = [Mailbox, MailDomain]


@pytest.fixture(autouse=True)
def world():
    """Mail servers as they are installed, without mail."""
    with mail_world():
        yield


def test_restores_a_mailbox_that_can_be_delivered_to_and_takes_it_back(tmp_path):
    before = snapshot("/var/mail", "/home")
    fetched = fetched_with(tmp_path)
    outcome = Run(fetched, KINDS).apply()
    assert outcome.failed == [] and outcome.changed == ["mailbox:info@a.test", "mail:a.test"]
    assert Path(BOX, "new/1.host").read_bytes() == MESSAGE
    for path in (BOX, "/var/mail/vhosts/a.test", "/var/mail/vhosts"):
        assert os.stat(path).st_uid == VMAIL
    assert stat.S_IMODE(os.stat("/var/mail/vhosts").st_mode) == 0o750
    assert Run(fetched, KINDS).apply().changed == []
    assert all(finding.is_same for finding in Run(fetched, KINDS).verify())
    assert Run(fetched, KINDS).undo().left == []
    assert snapshot("/var/mail", "/home") == before


def test_renews_a_mailbox_and_keeps_what_arrived_here(tmp_path):
    Run(fetched_with(tmp_path), KINDS).apply()
    Path(BOX, "new/2.here").write_bytes(MESSAGE)
    os.chmod("/var/mail/vhosts", 0o770)
    again = fetched_with(tmp_path, {"cur__1.host:2,S": MESSAGE, "new__3.host": MESSAGE})
    run = Run(again, KINDS)
    assert run.plan()["mailbox:info@a.test"].state is State.RENEW
    assert "mailbox:info@a.test" in run.apply().changed
    assert sorted(os.listdir(f"{BOX}/new")) == ["2.here", "3.host"]
    assert os.listdir(f"{BOX}/cur") == ["1.host:2,S"]
    assert stat.S_IMODE(os.stat("/var/mail/vhosts").st_mode) == 0o770
    finding = next(finding for finding in Run(again, KINDS).verify() if finding.what == "messages")
    assert finding.is_same and finding.says == "3 here, 2 fetched"


def test_counts_a_message_that_was_read_here_as_here_and_names_one_that_is_gone(tmp_path):
    fetched = fetched_with(tmp_path, {"new__1.host": MESSAGE, "new__2.host": MESSAGE})
    Run(fetched, KINDS).apply()
    os.rename(f"{BOX}/new/1.host", f"{BOX}/cur/1.host:2,RS")
    assert all(finding.is_same for finding in Run(fetched, KINDS).verify())
    os.unlink(f"{BOX}/new/2.host")
    finding = next(finding for finding in Run(fetched, KINDS).verify() if finding.what == "messages")
    assert not finding.is_same and "1 are missing here" in finding.says


def test_asks_before_it_writes_into_a_mailbox_of_this_host(tmp_path):
    os.makedirs(f"{BOX}/new")
    for path in ("/var/mail/vhosts", "/var/mail/vhosts/a.test", BOX):
        os.chown(path, VMAIL, VMAIL)
    fetched = fetched_with(tmp_path)
    assert Run(fetched, KINDS).plan()["mailbox:info@a.test"].state is State.CONFLICT
    Run(fetched, KINDS).apply()
    assert os.listdir(f"{BOX}/new") == []


def test_restores_the_mbox_of_an_account(tmp_path):
    fetched = Fetched(tmp_path)
    fetched.mailbox("alice", "/var/mail/alice", {"/var/mail/alice": b"From a@x.test Sat\n\nText\n"}, owner="alice",
                    uid=30001, format="mbox")
    fetched.write()
    assert "mailbox:alice" in Run(fetched, KINDS).apply().changed
    assert os.stat("/var/mail/alice").st_uid == 30001
    assert all(finding.is_same for finding in Run(fetched, KINDS).verify())


@pytest.mark.parametrize("path, more", [
    ("/etc/postfix/x", {}),
    ("/var/mail", {}),
    ("/var/mail/../../etc/x", {}),
    ("/var/mail/root", {}),
    ("/var/mail/bob", {}),
    ("/var/mail/bob/sub", {}),
    ("/home/bob/Maildir", {}),
    ("/home/vmail", {}),
    ("/home/alice", {"owner": "alice"}),
    ("/root/Maildir", {}),
    ("/var/spool/cron/crontabs", {}),
    ("/var/lib/vmail/../../../etc/x", {}),
    ("relative/path", {}),
    ("/var/mail/vhosts/a\nb", {}),
    (BOX, {"owner": "root", "uid": 0}),
    (BOX, {"owner": "bob", "uid": 30002}),
    (BOX, {"owner": "nobody", "uid": 65534}),
])
def test_refuses_a_mailbox_at_a_place_that_is_not_its_account_s(tmp_path, path, more):
    before = snapshot("/var/mail", "/home", "/etc/postfix")
    run = Run(fetched_with(tmp_path, path=path, **more), [Mailbox])
    item = run.plan()["mailbox:info@a.test"]
    assert item.state is State.IMPOSSIBLE and item.says
    assert run.apply().changed == []
    assert snapshot("/var/mail", "/home", "/etc/postfix") == before


def test_refuses_a_place_among_the_mailboxes_of_another_account(tmp_path):
    os.makedirs("/var/mail/vhosts/other.test")
    os.chown("/var/mail/vhosts/other.test", 30002, 30002)
    run = Run(fetched_with(tmp_path, path="/var/mail/vhosts/other.test/boss"), [Mailbox])
    assert run.plan()["mailbox:info@a.test"].state is State.IMPOSSIBLE


def test_follows_no_link_of_an_account_to_a_mailbox(tmp_path):
    os.makedirs("/home/bob/Maildir")
    os.symlink("/home/bob/Maildir", "/home/alice/Maildir")
    os.lchown("/home/alice/Maildir", 30001, 30001)
    try:
        run = Run(fetched_with(tmp_path, path="/home/alice/Maildir/sub", owner="alice", uid=30001), [Mailbox])
        assert run.plan()["mailbox:info@a.test"].state is State.IMPOSSIBLE
        run.apply()
        assert os.listdir("/home/bob/Maildir") == []
    finally:
        os.unlink("/home/alice/Maildir")


def test_takes_no_devices_links_outside_or_foreign_members_from_a_mailbox(tmp_path):
    before = snapshot("/etc")
    device, hard, outside = tarfile.TarInfo(), tarfile.TarInfo(), tarfile.TarInfo()
    device.type, device.devmajor, device.devminor = tarfile.CHRTYPE, 1, 3
    hard.type, hard.linkname = tarfile.LNKTYPE, "./etc/shadow"
    outside.type, outside.linkname = tarfile.SYMTYPE, "/etc"
    fetched = Fetched(tmp_path)
    fetched.mailbox("info@a.test", BOX, {
        **maildir(BOX, new__1=MESSAGE), f"{BOX}/device": device, f"{BOX}/hard": hard, f"{BOX}/link": outside,
        f"{BOX}/link/passwd": b"root::0:0::/:/bin/sh\n", "/etc/cron.d/taken": b"* * * * * root id\n"})
    fetched.write()
    Run(fetched, [Mailbox]).apply()
    here = {path.relative_to(BOX).as_posix() for path in Path(BOX).rglob("*") if not path.is_symlink()}
    assert "new/1" in here and not here & {"device", "hard"}
    assert snapshot("/etc") == before


def test_names_an_archive_of_mail_that_was_altered(tmp_path):
    fetched = fetched_with(tmp_path)
    path = next((tmp_path / "archives/content/mailboxes").iterdir())
    path.write_bytes(path.read_bytes().replace(b"The text.", b"Another!!"))
    outcome = Run(fetched, [Mailbox]).apply()
    assert [identifier for identifier, _ in outcome.failed] == ["mailbox:info@a.test"]
    assert not os.path.exists(f"{BOX}/new/1.host")
