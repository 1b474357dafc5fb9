"""Mail that was restored: delivered by a running Postfix, read over IMAP, and by the command from apply to undo."""
import imaplib
import os
import socket
import stat
import subprocess
import time
from pathlib import Path

import pytest
from destination import snapshot
from lxml import etree
from mail_session import BOX, MESSAGE, VMAIL, Run, archive, fetched_with, mail_world, maildir

from sondrel_restore import mail_service
from sondrel_restore.kinds.job import OFF
from sondrel_restore.kinds.mail import Mailbox, MailDomain

KINDS = [Mailbox, MailDomain]
SECRET = "correct horse"


@pytest.fixture(autouse=True)
def world():
    """Mail servers as they are installed, without mail."""
    with mail_world():
        yield


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
