"""Tables of Postfix and users of Dovecot: written, renewed and taken back, whatever stops it."""
import os
import subprocess
from pathlib import Path

import pytest
from destination import snapshot
from mail_session import BOX, MAIN_CF, VMAIL, Run, fetched_with, mail_world

from sondrel_restore import mail_service
from sondrel_restore.kind import State
from sondrel_restore.kinds.mail import Mailbox, MailDomain
from sondrel_restore.mail_tables import User, line_of_dovecot

KINDS = [Mailbox, MailDomain]


@pytest.fixture(autouse=True)
def world():
    """Mail servers as they are installed, without mail."""
    with mail_world():
        yield


def looked_up(table, key):
    """What Postfix finds in a table of ours."""
    done = subprocess.run(["postmap", "-q", key, f"hash:/etc/postfix/sondrel-{table}"], check=False,
                          capture_output=True, text=True)
    return done.stdout.strip()


def setting(name):
    """What Postfix is set to."""
    return subprocess.run(["postconf", "-h", name], check=True, capture_output=True, text=True).stdout.strip()


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
    Path("/etc/postfix/mine").write_text("sales@other.test info\n", encoding="ascii")
    subprocess.run(["postmap", "hash:/etc/postfix/mine"], check=True)
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


# Ways of Postfix to name domains, and what the plan says; the file "mine" has other.test and a.test.
SERVED_HERE = {
    "virtual_mailbox_domains = other.test, a.test": "virtual_mailbox_domains has mail for a.test already",
    "mydestination = $myhostname, /etc/postfix/mine": "mydestination has mail for a.test already",
    "virtual_alias_maps = proxy:texthash:/etc/postfix/mine": "virtual_alias_domains has mail for a.test already",
    "relay_domains = inline:{other.test=x, a.test=y}": "relay_domains has mail for a.test already",
    "relay_domains = other.test unionmap:{inline:{b=x}, static:all}": "relay_domains has mail for a.test already",
    "relay_domains = test": "relay_domains has mail for a.test already",
    "virtual_mailbox_domains = mysql:/etc/postfix/domains.cf":
        "not known whether virtual_mailbox_domains has mail for a.test already: mysql:/etc/postfix/domains.cf cannot",
    "mydestination = !a.test, static:all": "",
    "relay_domains = b.a.test, /etc/postfix/none, inline:{other.test=x}": "",
}


@pytest.mark.parametrize("line, says", SERVED_HERE.items())
def test_asks_before_it_takes_a_domain_that_is_served_here(tmp_path, line, says):
    Path("/etc/postfix/mine").write_text("other.test x\na.test x\n", encoding="ascii")
    with open("/etc/postfix/main.cf", "a", encoding="ascii") as file:
        file.write(line + "\n")
    run = Run(fetched_with(tmp_path), KINDS)
    item = run.plan()["mail:a.test"]
    assert item.state is (State.CONFLICT if says else State.MAKE) and says in item.says


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
