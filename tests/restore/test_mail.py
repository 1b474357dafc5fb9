"""Mail: mailboxes and tables of Postfix and Dovecot, read over IMAP, and what a hostile host does not get in."""
import imaplib
import os
import shutil
import socket
import stat
import subprocess
import tarfile
import time
from pathlib import Path

import pytest
from destination import snapshot
from lxml import etree
from mail_session import VMAIL, Fetched, Run, archive, make_world

from sondrel_restore import mail_service
from sondrel_restore.kind import State
from sondrel_restore.kinds.job import OFF
from sondrel_restore.kinds.mail import Mailbox, MailDomain
from sondrel_restore.mail_tables import HASH, User, hash_of, line_of_dovecot, objection_to_target, split_address

KINDS = [Mailbox, MailDomain]
BOX = "/var/mail/vhosts/a.test/info"
MESSAGE = b"From: a@x.test\r\nTo: info@a.test\r\nSubject: hello\r\n\r\nThe text.\r\n"
MAIN_CF = "compatibility_level = 3.6\nmyhostname = new.test\nmydestination = $myhostname, localhost\n"
SECRET = "correct horse"


@pytest.fixture(autouse=True)
def world():
    """Mail servers as they are installed, without mail."""
    make_world()
    Path("/etc/postfix/main.cf").write_text(MAIN_CF, encoding="ascii")
    yield
    for place in ("/var/mail", "/var/lib/sondrel-restore", "/home/alice/Maildir", "/home/bob/Maildir"):
        for path in [Path(place)] if place != "/var/mail" else list(Path(place).iterdir()):
            if path.is_dir() and not path.is_symlink():
                shutil.rmtree(path)
            elif path.exists() or path.is_symlink():
                path.unlink()
    for directory in ("/etc/postfix", "/etc/dovecot", "/etc/dovecot/conf.d"):
        for path in Path(directory).glob("*sondrel*"):
            path.unlink()


def maildir(path, **messages):
    """The members of a Maildir."""
    return {path: None, **{f"{path}/{name}": None for name in ("cur", "new", "tmp")},
            **{f"{path}/{name.replace('__', '/')}": content for name, content in messages.items()}}


def fetched_with(tmp_path, messages=None, path=BOX, address="info@a.test", **more):
    """A session with a mailbox of a.test."""
    fetched = Fetched(tmp_path)
    fetched.mailbox(address, path, maildir(path, **(messages or {"new__1.host": MESSAGE})), **more)
    fetched.write()
    return fetched


def looked_up(table, key):
    """What Postfix finds in a table of ours."""
    done = subprocess.run(["postmap", "-q", key, f"hash:/etc/postfix/sondrel-{table}"], check=False,
                          capture_output=True, text=True)
    return done.stdout.strip()


def setting(name):
    """What Postfix is set to."""
    return subprocess.run(["postconf", "-h", name], check=True, capture_output=True, text=True).stdout.strip()


# --- mailboxes ---

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


# --- tables ---

def test_gives_postfix_aliases_and_mailboxes_and_takes_them_back(tmp_path):
    fetched = fetched_with(tmp_path)
    fetched.alias("sales@a.test", "info@a.test, boss@far.test")
    fetched.alias("@a.test", "alice")
    fetched.write()
    run = Run(fetched, KINDS)
    run.apply()
    assert looked_up("virtual", "sales@a.test") == "info@a.test, boss@far.test"
    assert looked_up("virtual", "@a.test") == "alice"
    assert looked_up("mailboxes", "info@a.test") == BOX[1:] + "/"
    assert looked_up("uids", "info@a.test") == str(VMAIL)
    assert setting("virtual_mailbox_domains") == "hash:/etc/postfix/sondrel-domains"
    assert setting("virtual_alias_maps") == "hash:/etc/postfix/sondrel-virtual"
    assert all(finding.is_same for finding in Run(fetched, KINDS).verify())
    Run(fetched, KINDS).undo()
    assert Path("/etc/postfix/main.cf").read_text(encoding="ascii") == MAIN_CF
    assert list(Path("/etc/postfix").glob("*sondrel*")) == list(Path("/etc/dovecot").rglob("*sondrel*")) == []


def test_leaves_a_setting_that_the_administrator_has_made_and_names_it(tmp_path):
    with open("/etc/postfix/main.cf", "a", encoding="ascii") as file:
        file.write("virtual_alias_maps = hash:/etc/postfix/mine\n")
    fetched = fetched_with(tmp_path)
    fetched.alias("sales@a.test", "info@a.test")
    fetched.write()
    run = Run(fetched, KINDS)
    run.apply()
    assert setting("virtual_alias_maps") == "hash:/etc/postfix/mine"
    assert "virtual_alias_maps is set here and stays: add hash:/etc/postfix/sondrel-virtual" in run.named()


def test_keeps_a_table_that_was_changed_here(tmp_path):
    fetched = fetched_with(tmp_path)
    fetched.alias("sales@a.test", "info@a.test")
    fetched.write()
    Run(fetched, KINDS).apply()
    with open("/etc/postfix/sondrel-virtual", "a", encoding="ascii") as file:
        file.write("mine@a.test info@a.test\n")
    fetched.alias("new@a.test", "info@a.test")
    fetched.write()
    run = Run(fetched, KINDS)
    run.apply()
    assert "mine@a.test" in Path("/etc/postfix/sondrel-virtual").read_text(encoding="ascii")
    assert "sondrel-virtual was changed here" in run.named()


def test_puts_postfix_back_when_its_check_fails(tmp_path, monkeypatch):
    before = snapshot("/etc/postfix")
    fetched = fetched_with(tmp_path)
    run = Run(fetched, KINDS)
    real = run.restore.host.run

    def failing(argv, **options):
        return real(["false"] if argv == ["postfix", "check"] else argv, **options)
    monkeypatch.setattr(run.restore.host, "run", failing)
    outcome = run.apply()
    assert ["mail"] == [identifier for identifier, _ in outcome.failed]
    assert "keeps the settings that it had" in outcome.failed[0][1]
    assert Path("/etc/postfix/main.cf").read_text(encoding="ascii") == MAIN_CF
    assert {path for path in snapshot("/etc/postfix") if path not in before and "sondrel" not in path} == set()
    # The next run ends what was begun.
    assert Run(fetched, KINDS).apply().failed == []
    assert looked_up("mailboxes", "info@a.test")


def test_goes_on_with_what_was_fetched_again_wherever_it_was_killed(tmp_path, monkeypatch):
    """Killed at each step of writing the tables; the next fetch has another alias, and must reach them."""
    for steps in range(0, 100, 2):
        fetched = fetched_with(tmp_path)
        fetched.alias(f"step{steps}@a.test", "info@a.test")
        fetched.write()
        run, left = Run(fetched, KINDS), iter(range(steps))

        def struck(real, left=left):
            def call(*arguments, **options):
                if next(left, None) is None:
                    raise KeyboardInterrupt
                return real(*arguments, **options)
            return call
        with monkeypatch.context() as patch:
            patch.setattr(mail_service, "atomic_write", struck(mail_service.atomic_write))
            patch.setattr(mail_service, "remove_file", struck(mail_service.remove_file))
            real = run.restore.host.run
            patch.setattr(run.restore.host, "run", lambda argv, real=real, call=struck(real), **more: (
                call(argv, **more) if argv[0] in ("postmap", "postfix") or argv[1:2] == ["-e"] else real(argv, **more)))
            try:
                assert run.apply().failed == []
                break
            except KeyboardInterrupt:
                continue
    assert steps > 10
    assert looked_up("virtual", f"step{steps}@a.test") == "info@a.test"
    assert "was changed here" not in run.named()
    assert setting("virtual_alias_maps") == "hash:/etc/postfix/sondrel-virtual"
    Run(fetched, KINDS).undo()
    assert Path("/etc/postfix/main.cf").read_text(encoding="ascii") == MAIN_CF
    assert list(Path("/etc/postfix").glob("sondrel*")) == list(Path("/etc/dovecot").rglob("*sondrel*")) == []


def test_asks_before_it_takes_a_domain_that_is_served_here(tmp_path):
    with open("/etc/postfix/main.cf", "a", encoding="ascii") as file:
        file.write("virtual_mailbox_domains = other.test, a.test\n")
    run = Run(fetched_with(tmp_path), KINDS)
    item = run.plan()["mail:a.test"]
    assert item.state is State.CONFLICT and "virtual_mailbox_domains has mail for a.test already" in item.says


def test_says_what_is_missing_here(tmp_path, monkeypatch):
    run = Run(fetched_with(tmp_path), KINDS)
    monkeypatch.setattr(run.restore.host, "has_program", lambda name: name not in ("postconf", "doveconf"))
    run.plan()
    assert [each.package for kind in run.kinds for each in kind.missing(run.restore)] == ["postfix", "dovecot-imapd"]


def test_needs_no_server_for_mail_that_is_left_out(tmp_path, monkeypatch):
    run = Run(fetched_with(tmp_path), KINDS, skipped=frozenset(["mail:a.test"]))
    monkeypatch.setattr(run.restore.host, "has_program", lambda name: name not in ("postconf", "doveconf"))
    run.plan()
    assert not [each.package for kind in run.kinds for each in kind.missing(run.restore)]


def test_says_that_postfix_has_no_settings(tmp_path):
    os.unlink("/etc/postfix/main.cf")
    run = Run(fetched_with(tmp_path), KINDS)
    run.plan()
    missing = [each for kind in run.kinds for each in kind.missing(run.restore)]
    assert [each.package for each in missing] == [""] and "dpkg-reconfigure postfix" in missing[0].because


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


# --- delivery ---

@pytest.fixture
def postfix():
    """A Postfix that runs with Debian's services, but for the one that listens to the world."""
    master = Path("/etc/postfix/master.cf")
    services = master.read_text(encoding="ascii")
    master.write_text(services.replace("\nsmtp      inet", "\n#smtp      inet"), encoding="ascii")
    with open("/etc/postfix/main.cf", "a", encoding="ascii") as file:
        file.write("inet_interfaces = loopback-only\nmaillog_file = /var/log/mail.log\nalias_maps =\n")
    subprocess.run(["postfix", "start"], check=True, capture_output=True)
    yield
    subprocess.run(["postfix", "stop"], check=True, capture_output=True)
    master.write_text(services, encoding="ascii")


@pytest.mark.usefixtures("postfix")
def test_has_a_running_postfix_deliver_by_an_alias_and_keeps_that_mail_in_a_renewed_mailbox(tmp_path):
    fetched = fetched_with(tmp_path)
    fetched.alias("sales@a.test", "info@a.test")
    fetched.write()
    assert Run(fetched, KINDS).apply().failed == []
    subprocess.run(["sendmail", "sales@a.test"], input=b"Subject: arrived\n\nhello\n", check=True)
    deadline = time.monotonic() + 60
    while len(os.listdir(f"{BOX}/new")) < 2:
        assert time.monotonic() < deadline, Path("/var/log/mail.log").read_text(encoding="utf-8")
        time.sleep(0.05)
    delivered = (set(os.listdir(f"{BOX}/new")) - {"1.host"}).pop()
    assert os.stat(f"{BOX}/new/{delivered}").st_uid == VMAIL
    Run(fetched_with(tmp_path, {"new__3.host": MESSAGE}), KINDS).apply()
    assert sorted(os.listdir(f"{BOX}/new")) == sorted([delivered, "3.host"])


# --- by the command ---

def test_is_applied_verified_and_taken_back_by_the_command(session):
    alice = session.add_client("carol", 30010)
    session.add_account("post", 30011)
    crontab = "/var/spool/cron/crontabs/carol"
    alice.append(etree.fromstring(session.content(
        "client", "content/clients/carol.tar", archive({crontab: b"@daily x\n"}, owner="carol", uid=30010))))
    alice.append(etree.fromstring(f'<cron when="@daily" file="{crontab}">x</cron>'))
    path = "/var/mail/virtual/c.test/info"
    packed = session.content("mailbox", "content/mailboxes/info.tar", archive(
        maildir(path, new__1=MESSAGE), owner="post", uid=30011))
    session.add('<domain name="c.test"><name>c.test</name><alias from="sales@c.test" file="/etc/postfix/virtual">'
                f'info@c.test, |id</alias><mailbox address="info@c.test" path="{path}" format="maildir" owner="post">'
                f'{packed}</mailbox></domain>', alice)
    # Postfix makes the directories of its queue by itself.
    places = ("/etc", "/home", "/var/mail", "/var/spool/cron")
    before = snapshot(*places)
    applied = session.run("apply", check=0)
    assert "the alias sales@c.test is left out: |id is a command" in applied.stdout
    assert Path(path, "new/1").read_bytes() == MESSAGE
    assert Path(crontab).read_text(encoding="ascii").endswith(f"{OFF}@daily x\n")
    assert "0 changed" in session.run("apply", check=0).stdout
    assert "1 here, 1 fetched" in session.run("verify", check=0).stdout
    assert f"{session.directory}/report.html" in session.run("report", check=0).stdout
    session.run("undo", check=0)
    assert snapshot(*places) == before


# --- over IMAP ---

def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


@pytest.fixture(name="imap_port")
def dovecot_settings():
    """Debian's settings of Dovecot, with a port of our own."""
    port = free_port()
    # Debian's settings name them, and they are read although there is no TLS. They may be links to the machine's.
    for ending in ("pem", "key"):
        path = Path(f"/etc/dovecot/private/dovecot.{ending}")
        path.unlink(missing_ok=True)
        path.write_text("none", encoding="ascii")
    is_old = subprocess.run(["dovecot", "--version"], check=True, capture_output=True).stdout.startswith(b"2.3")
    allow = "disable_plaintext_auth = no" if is_old else "auth_allow_cleartext = yes"
    Path("/etc/dovecot/local.conf").write_text(
        f"protocols = imap\nssl = no\nlog_path = /mnt/dovecot.log\nlisten = 127.0.0.1\n{allow}\n"
        f"service imap-login {{\n inet_listener imap {{\n  port = {port}\n }}\n inet_listener imaps {{\n  port = 0\n"
        " }\n}\n", encoding="ascii")
    yield port
    os.unlink("/etc/dovecot/local.conf")


def logged_in(port, server):
    """A connection to a Dovecot that is starting."""
    deadline = time.monotonic() + 60
    while True:
        try:
            return imaplib.IMAP4("127.0.0.1", port, timeout=30)
        except OSError:
            assert server.poll() is None and time.monotonic() < deadline
            time.sleep(0.05)


def test_renews_the_password_that_was_changed_on_the_source_host(tmp_path):
    def fetched_again(password):
        fetched = fetched_with(tmp_path)
        fetched.server = [
            '<mail-server name="dovecot"><needs>/etc/dovecot/users</needs></mail-server>',
            fetched.content("settings", "content/server/settings.tar",
                            {"/etc/dovecot/users": f"info@a.test:{password}:::\n".encode()}, owner="root", uid=0)]
        fetched.write()
        return fetched
    for letter in "xy":
        run = Run(fetched_again("$6$salt$" + letter * 86), KINDS)
        assert "mail:a.test" in run.apply().changed
        assert "{CRYPT}$6$salt$" + letter * 86 in Path(mail_service.USERS).read_text(encoding="ascii")


@pytest.mark.parametrize("quota, of_2_3, of_2_4", [
    ("", "", ""),
    ("*:storage=5M", " userdb_quota_rule=*:storage=5M", " userdb_quota_storage_size=5M"),
    ("*:storage=100", " userdb_quota_rule=*:storage=100", " userdb_quota_storage_size=100K"),
    ("*:messages=7", " userdb_quota_rule=*:messages=7", " userdb_quota_message_count=7"),
])
def test_writes_a_user_as_the_release_of_dovecot_reads_it(quota, of_2_3, of_2_4):
    user = User("info@a.test", "/m/info", "maildir", 5, 6, "/m", quota, "{CRYPT}$6$salt$hash")
    begin = "info@a.test:{CRYPT}$6$salt$hash:5:6::/m::"
    assert line_of_dovecot(user, "2.3") == f"{begin}userdb_mail=maildir:/m/info{of_2_3}"
    assert line_of_dovecot(user, "2.4") == (
        f"{begin}userdb_mail_driver=maildir userdb_mail_path=/m/info userdb_mail_inbox_path=/m/info{of_2_4}")


def test_lets_a_user_read_mail_over_imap_with_the_password_of_before(tmp_path, imap_port):
    hashed = subprocess.run(["openssl", "passwd", "-6", SECRET], check=True, capture_output=True, text=True).stdout
    fetched = fetched_with(tmp_path, {"cur__1.host:2,S": MESSAGE, "new__2.host": MESSAGE}, quota="*:storage=5M")
    fetched.mailbox("plain@a.test", "/var/mail/vhosts/a.test/plain", maildir("/var/mail/vhosts/a.test/plain"))
    users = (f"info@a.test:{{SHA512-CRYPT}}{hashed.strip()}:0:0::/root::userdb_mail=maildir:/etc nopassword\n"
             f"plain@a.test:{{PLAIN}}{SECRET}:0:0::/::\nroot:{{SHA512-CRYPT}}{hashed.strip()}:0:0::/root::\n")
    fetched.server = [
        '<mail-server name="dovecot"><needs>/etc/dovecot/users</needs></mail-server>',
        fetched.content("settings", "content/server/settings.tar", {"/etc/dovecot/users": users.encode()}, owner="root",
                        uid=0)]
    fetched.write()
    run = Run(fetched, KINDS)
    assert run.apply().failed == []
    assert "plain@a.test has no hash that can be moved" in run.named()
    assert hashed.strip() not in "".join(path.read_text(errors="replace") for path in tmp_path.rglob("restore/*"))
    about = os.stat(mail_service.USERS)
    assert stat.S_IMODE(about.st_mode) == 0o640 and about.st_uid == 0
    with subprocess.Popen(["dovecot", "-F"]) as server:
        try:
            connection = logged_in(imap_port, server)
            assert connection.login("info@a.test", SECRET)[0] == "OK"
            assert connection.select("INBOX") == ("OK", [b"2"])
            assert b"The text." in connection.fetch("1", "(BODY[TEXT])")[1][0][1]
            for name in ("plain@a.test", "root"):
                refused = imaplib.IMAP4("127.0.0.1", imap_port, timeout=60)
                with pytest.raises(imaplib.IMAP4.error):
                    refused.login(name, SECRET)
        except BaseException:
            if os.path.exists("/mnt/dovecot.log"):
                print(Path("/mnt/dovecot.log").read_text(encoding="utf-8", errors="replace"))
            raise
        finally:
            server.terminate()
