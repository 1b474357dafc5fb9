"""Sessions with mail and jobs, for the tests of these kinds."""
import contextlib
import hashlib
import io
import os
import shutil
import tarfile
from pathlib import Path
from xml.sax.saxutils import quoteattr

from destination import own_etc

from sondrel_restore.description import Description
from sondrel_restore.restore import Restore, apply_plan, make_plan, undo_all, verify_items
from sondrel_restore.selection import Decisions, Selection
from sondrel_restore.session import Session

ALICE, BOB, VMAIL = 30001, 30002, 30050
BOX = "/var/mail/vhosts/a.test/info"
MESSAGE = b"From: a@x.test\r\nTo: info@a.test\r\nSubject: hello\r\n\r\nThe text.\r\n"
MAIN_CF = "compatibility_level = 3.6\nmyhostname = new.test\nmydestination = $myhostname, localhost\n"


def make_world():
    """Makes accounts, and settings of servers that the tests may write; only once per process."""
    if os.path.isdir("/home/alice"):
        return
    for name in ("postfix", "dovecot", "systemd"):
        own_etc(name)
    # Postfix itself makes the directories in it.
    os.makedirs("/var/spool/postfix", exist_ok=True)
    for name, uid in (("alice", ALICE), ("bob", BOB), ("vmail", VMAIL)):
        for table, line in (("passwd", f"{name}:x:{uid}:{uid}::/home/{name}:/bin/sh"), ("group", f"{name}:x:{uid}:"),
                            ("shadow", f"{name}:!:19000::::::")):
            with open(f"/etc/{table}", "a", encoding="ascii") as file:
                file.write(line + "\n")
        os.mkdir(f"/home/{name}", 0o711)
        os.chown(f"/home/{name}", uid, uid)


@contextlib.contextmanager
def mail_world():
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


def archive(files, owner="alice", uid=ALICE):
    """The bytes of an archive. `files` maps paths to bytes, None for a directory, or a TarInfo with its type set."""
    buffer = io.BytesIO()
    with tarfile.open(fileobj=buffer, mode="w", format=tarfile.PAX_FORMAT) as tar:
        for path, content in files.items():
            member = content if isinstance(content, tarfile.TarInfo) else tarfile.TarInfo()
            member.name = "." + path
            member.uid, member.gid, member.uname, member.gname, member.mtime = uid, uid, owner, owner, 1700000000
            if isinstance(content, bytes):
                member.size, member.mode = len(content), 0o600
                tar.addfile(member, io.BytesIO(content))
            else:
                if content is None:
                    member.type, member.mode = tarfile.DIRTYPE, 0o700
                tar.addfile(member)
    return buffer.getvalue()


class Fetched:
    """A session that is written to a directory: a description and archives."""

    def __init__(self, directory):
        self.directory = directory
        directory.chmod(0o700)
        (directory / "archives").mkdir(mode=0o700, exist_ok=True)
        self.domains = {}
        self.client = []
        self.server = []

    def content(self, kind, file, files, **owner):
        """Writes an archive of these files; returns its element."""
        packed = archive(files, **owner)
        path = self.directory / "archives" / file
        path.parent.mkdir(mode=0o755, parents=True, exist_ok=True)
        path.write_bytes(packed)
        return (f'<content kind="{kind}" file="{file}" size="{len(packed)}" md5sum="{hashlib.md5(packed).hexdigest()}"'
                f' unpacked="{len(packed)}"/>')

    def mailbox(self, address, path, files, domain="a.test", owner="vmail", uid=VMAIL, **more):
        """Adds a mailbox of a domain, with its archive."""
        name = f"content/mailboxes/{hashlib.md5(address.encode()).hexdigest()}.tar"
        attributes = {"format": "maildir", **more}
        described = "".join(f" {name}={quoteattr(value)}" for name, value in attributes.items())
        self.domains.setdefault(domain, {"aliases": [], "mailboxes": []})["mailboxes"].append(
            f'<mailbox address={quoteattr(address)} path={quoteattr(path)} owner={quoteattr(owner)}{described}>'
            f'{self.content("mailbox", name, files, owner=owner, uid=uid)}</mailbox>')

    def alias(self, source, target, domain="a.test"):
        """Adds an alias of a domain."""
        self.domains.setdefault(domain, {"aliases": [], "mailboxes": []})["aliases"].append(
            f'<alias from={quoteattr(source)} file="/etc/postfix/virtual">'
            f'{target.replace("&", "&amp;").replace("<", "&lt;")}</alias>')

    def write(self, client="alice", system="no"):
        """Writes the description."""
        domains = "".join(
            f'<domain name={quoteattr(name)}><name>{name}</name>{"".join(each["aliases"])}{"".join(each["mailboxes"])}'
            '</domain>' for name, each in self.domains.items())
        accounts = "".join(
            f'<account name="{name}" uid="{uid}" gid="{uid}" group="{name}" home="/home/{name}" shell="/bin/sh"'
            ' system="no"/>' for name, uid in (("alice", ALICE), ("vmail", VMAIL)))
        server = f"<server>{''.join(self.server)}</server>" if self.server else ""
        (self.directory / "dump.xml").write_text(
            '<?xml version="1.0" encoding="UTF-8"?>\n<dump version="2" agent="linux" host="source" '
            'created="2026-11-21T11:04:38Z" scope="all" content="yes">'
            f'{server}<accounts>{accounts}</accounts><client name="{client}" uid="{ALICE}" gid="{ALICE}" group="alice" '
            f'home="/home/alice" system="{system}" whole="yes">{"".join(self.client)}{domains}</client><problems/>'
            '</dump>\n', encoding="utf-8")


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


class Run:
    """One run on a session, for some kinds."""

    def __init__(self, fetched, kinds, **decisions):
        session = Session(str(fetched.directory))
        description = Description(session.dump)
        self.restore = Restore(session, description, Selection(description, frozenset(), frozenset()),
                               Decisions(**decisions))
        self.restore.progress.show = lambda text: None
        self.kinds = [kind() for kind in kinds]
        for name in ("alice", "vmail"):
            self.restore.offer("account", name, name)
            self.restore.offer("group", name, name)

    def plan(self):
        """The items of the plan by identifier."""
        return {item.identifier: item for item in make_plan(self.restore, self.kinds).items}

    def apply(self):
        """Applies; returns what was changed and what failed."""
        with self.restore.journal.locked():
            return apply_plan(self.restore, self.kinds, make_plan(self.restore, self.kinds))

    def verify(self):
        """All findings."""
        return list(verify_items(self.restore, self.kinds, make_plan(self.restore, self.kinds)))

    def undo(self):
        """Undoes; returns what was removed and what was left."""
        with self.restore.journal.locked():
            return undo_all(self.restore, self.kinds)

    def named(self):
        """All notes of the run as one text."""
        return "\n".join(f"{identifier}: {text}" for identifier, text in self.restore.named)
