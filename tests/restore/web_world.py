"""Descriptions of sites made by hand, and real web servers on loopback in the test's own network."""
from __future__ import annotations

import contextlib
import gzip
import hashlib
import io
import os
import signal
import tarfile
import time
from collections.abc import Iterator, Sequence
from pathlib import Path
from xml.sax.saxutils import quoteattr, escape

from sondrel_restore.description import Description
from sondrel_restore.kind import Kind
from sondrel_restore.restore import Outcome, Plan, Restore, apply_plan, make_plan, undo_all
from sondrel_restore.selection import Decisions, Selection
from sondrel_restore.session import Session


def directive(
    name: str,
    *args: str,
    block: Sequence[str] | None = None,
    raw: str | None = None,
    identifier: str = "",
    text: str | None = None,
    file: str = "/etc/there.conf",
    line: int = 1,
) -> str:
    """A directive as an element of the description."""
    attributes = f' name={quoteattr(name)} file={quoteattr(file)} line="{line}"'
    attributes += f' id="{identifier}"' if identifier else ""
    attributes += ' block="yes"' if block is not None else ""
    inner = "".join(f"<arg>{escape(arg)}</arg>" for arg in args)
    inner += f"<raw>{escape(raw)}</raw>" if raw is not None else ""
    inner += f"<text>{escape(text)}</text>" if text is not None else ""
    return f"<directive{attributes}>{inner}{''.join(block or ())}</directive>"


def server(*directives: str, line: int = 1) -> str:
    """A server block of nginx."""
    return directive("server", block=directives, line=line)


def virtual_host(*directives: str, at: str = "*:80", line: int = 1) -> str:
    """A virtual host of Apache."""
    return directive("virtualhost", at, block=directives, line=line)


def site(
    name: str,
    *blocks: str,
    configuration: str = "nginx1",
    uses: str = "",
    inside: str = "",
    kind: str = "nginx",
    names: Sequence[str] = (),
    answers: str = "",
    contents: str = "",
) -> str:
    """An element "domain" with its site; `inside` comes before the blocks."""
    uses = f' uses="{uses}"' if uses else ""
    written = "".join(f'<block configuration="{configuration}"{uses}>{block}</block>' for block in blocks)
    listed = "".join(f"<name>{each}</name>" for each in (names or (name,)))
    return (
        f'<domain name="{name}">{listed}<site server="{kind}">{inside}{written}{answers}</site>'
        f"{contents}</domain>"
    )


class World:
    """A session with a description, and the offers that earlier kinds would have made."""

    def __init__(self, directory: Path) -> None:
        self.session = directory
        (directory / "archives" / "content" / "sites").mkdir(parents=True, mode=0o700)
        self.trees: dict[str, str] = {}
        self.accounts: dict[str, str] = {"www-data": "www-data"}
        self.offers: list[tuple[str, str, object]] = []

    def describe(
        self, *domains: str, configuration: str = "", server_kind: str = "nginx", client: str = "alice"
    ) -> None:
        """Writes the description of one client's domains."""
        (self.session / "dump.xml").write_text(
            '<dump version="2" agent="linux" created="2026-01-01T00:00:00Z" scope="all" content="yes"><accounts/>'
            f'<web-configuration name="{server_kind}1" server="{server_kind}" file="/etc/{server_kind}/main.conf">'
            f"{configuration}</web-configuration>"
            f'<client name="{client}" uid="1500" gid="1500" system="no" whole="yes">{"".join(domains)}</client>'
            "<problems/></dump>",
            encoding="utf-8",
        )

    def archive(self, name: str, members: dict[str, bytes | str]) -> str:
        """Packs files (bytes) and links (their targets) into an archive of a site; returns its element."""
        buffer = io.BytesIO()
        with tarfile.open(fileobj=buffer, mode="w") as tar:
            for path, value in members.items():
                about = tarfile.TarInfo("." + path)
                about.mode = 0o600
                if isinstance(value, str):
                    about.type, about.linkname = tarfile.SYMTYPE, value
                    tar.addfile(about)
                else:
                    about.size = len(value)
                    tar.addfile(about, io.BytesIO(value))
        content = gzip.compress(buffer.getvalue())
        file = f"content/sites/{name}.tar.gz"
        (self.session / "archives" / file).write_bytes(content)
        return (
            f'<content kind="site" file="{file}" size="{len(content)}" md5sum="{hashlib.md5(content).hexdigest()}"'
            f' unpacked="{len(buffer.getvalue())}"/>'
        )

    def restore(self, *, decisions: Decisions = Decisions(), domains: frozenset[str] = frozenset()) -> Restore:
        """The context of a new run."""
        description = Description(self.session / "dump.xml")
        restore = Restore(
            Session(str(self.session)), description, Selection(description, domains, frozenset()), decisions
        )
        for tree, account in self.trees.items():
            restore.offer("tree", tree, account)
        for there, here in self.accounts.items():
            restore.offer("account", there, here)
        for fact, key, value in self.offers:
            restore.offer(fact, key, value)
        return restore

    def plan(self, *kinds: type[Kind], decisions: Decisions = Decisions()) -> Plan:
        """Plans with new instances of the kinds."""
        return make_plan(self.restore(decisions=decisions), [kind() for kind in kinds])

    def apply(self, *kinds: type[Kind], decisions: Decisions = Decisions()) -> Outcome:
        """Applies with new instances of the kinds. The notes are in `named` afterwards."""
        restore = self.restore(decisions=decisions)
        made = [kind() for kind in kinds]
        plan = make_plan(restore, made)
        with restore.journal.locked():
            outcome = apply_plan(restore, made, plan)
        self.named = [text for _, text in restore.named]
        return outcome

    def undo(self, *kinds: type[Kind], domains: frozenset[str] = frozenset()) -> Outcome:
        """Undoes, with new instances of the kinds, all or only the objects of these domains."""
        restore = self.restore(domains=domains)
        with restore.journal.locked():
            return undo_all(restore, [kind() for kind in kinds])


def snapshot(*directories: str) -> dict[str, str]:
    """All that is below the directories, by path: the sum of a file, the target of a link, or "directory"."""
    found: dict[str, str] = {}
    for top in directories:
        for path in sorted(Path(top).rglob("*")):
            if path.is_symlink():
                found[str(path)] = "-> " + os.readlink(path)
            elif path.is_file():
                found[str(path)] = hashlib.sha256(path.read_bytes()).hexdigest()
            else:
                found[str(path)] = "directory"
    return found


@contextlib.contextmanager
def ended(*pid_files: str) -> Iterator[None]:
    """Ends servers after the block, by their files of process numbers. This world must have started them."""
    try:
        yield
    finally:
        for file in pid_files:
            with contextlib.suppress(OSError, ValueError):
                pid = int(Path(file).read_text(encoding="ascii"))
                os.kill(pid, signal.SIGTERM)
                deadline = time.monotonic() + 20
                while os.path.exists(f"/proc/{pid}") and time.monotonic() < deadline:
                    time.sleep(0.02)
