"""Attacks by jobs: crontabs, and units of systemd."""
from xml.sax.saxutils import quoteattr

from hostile_proofs import Attack, exists
from lxml import etree
from mail_session import archive
from test_jobs import SERVICE, TIMER

CRONTABS = "/var/spool/cron/crontabs"
UNITS = "/etc/systemd/system"
UNICODE_USER = SERVICE.replace("User=alice", "User\u00a0=alice")
UNICODE_LINE = SERVICE.replace("User=alice", "\u2003User=alice")
ALSO_ROOT = SERVICE.replace("ExecStart=", "ExecStartPre=+/bin/touch /etc/pwned\nExecStart=")


def add_jobs(session):
    """Puts jobs into the session that would run as others, or replace those of this host; yields the attacks."""
    alice = next(session.tree.iterfind("client"))
    units = {"space.service": UNICODE_USER, "wide.service": UNICODE_LINE, "plus.service": ALSO_ROOT,
             "backup.service": ALSO_ROOT, "backup.timer": TIMER}
    table = f"{CRONTABS}/alice"
    tables = {"/etc/cron.d/alice": b"* * * * * root id\n", f"{CRONTABS}/root": b"* * * * * id\n",
              table: b"* * * * * id\r\n@reboot touch /etc/pwned\n"}
    content = session.content("client", "content/clients/alice.tar", archive(
        {**tables, **{f"{UNITS}/{name}": text.encode() for name, text in units.items()}}, uid=30001))
    alice.insert(0, etree.fromstring(content))
    before = alice.find("domain")
    for path in tables:
        before.addprevious(etree.fromstring(f'<cron when="@daily" file="{path}">x</cron>'))
    for name in units:
        before.addprevious(etree.fromstring(
            f'<unit name={quoteattr(name)} file="{UNITS}/{name}" user="alice" enabled="yes" drop-in="no"/>'))
    for name, unit in (("an account that systemd does not read", "space.service"),
                       ("a line that systemd does not read", "wide.service"), ("a command of root's", "plus.service"),
                       ("a timer of a service of this host", "backup.timer")):
        yield Attack(f"unit: {name}", exists(f"{UNITS}/{unit}"))
    yield Attack("cron: a table of the system", exists("/etc/cron.d/alice"))
    yield Attack("cron: the table of root", exists(f"{CRONTABS}/root"))
    yield Attack("cron: a job of root in the table of alice", lambda _: "/etc/pwned" in _read(f"{CRONTABS}/root"))
    for name, system in (("bob", "no"), ("deploy", "no"), ("root", "no"), ("mysql", "no")):
        path = f"{CRONTABS}/{name}"
        archived = session.content("client", f"content/clients/{name}.tar", archive({path: b"@reboot id\n"}))
        session.add(f'<client name="{name}" home="/home/{name}" system="{system}" whole="yes">{archived}'
                    f'<cron when="@reboot" file="{path}">id</cron></client>')
        yield Attack(f"cron: the table of {name} as a client", exists(path))


def _read(path):
    try:
        with open(path, encoding="utf-8") as text:
            return text.read()
    except FileNotFoundError:
        return ""
