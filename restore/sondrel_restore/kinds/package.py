"""Packages that this host lacks, and servers that are older here than on the source host. Packages are not removed by
undo, because other software may use them by then.
"""
from __future__ import annotations

from collections.abc import Iterator

from sondrel_restore.journal import Entry
from sondrel_restore.kind import Facts, Finding, Item, Kind, Left, Missing, State
from sondrel_restore.packages import Offered, installed_packages, offered_packages
from sondrel_restore.restore import Restore
from sondrel_restore.versions import older

# Sections with packages of site applications. Packages of other sections may bring services, and a source host under
# the control of an attacker must not be able to choose those.
_OF_APPLICATIONS = ("web", "php", "httpd", "fonts", "javascript")


class PackageKind(Kind):
    """Finds the packages of site applications that are missing. Other kinds report the packages that they need."""

    name = "package"

    def plan(self, restore: Restore) -> Iterator[Item]:
        """Lists packages of servers that are, or would be, older here than on the source host."""
        there = _of_servers(restore)
        if not there:
            return
        here, offered = _here_and_offered(restore)
        for name, version in there.items():
            ours = here.get(name) or (offered[name].version if name in offered else "")
            if older(ours, version):
                yield Item(self.name, name, State.LISTED, (
                    f"{ours} here is older than {version} on the source host: settings and data of the newer one may "
                    "not work here"))

    def missing(self, restore: Restore) -> Iterator[Missing]:
        wanted: dict[str, str] = {}
        for name, domain in _of_applications(restore):
            if restore.selection.takes_domain(domain):
                wanted.setdefault(name, f"the application of {domain} is from it")
        if not wanted:
            return
        here, known = _here_and_offered(restore)
        for name in sorted(wanted.keys() - here.keys()):
            if name in known and known[name].section in _OF_APPLICATIONS:
                yield Missing(name, wanted[name])
            elif not restore.decisions.skip(f"package:{name}"):
                why = f"it is of the section {known[name].section}" if name in known else "apt does not know it here"
                yield Missing("", f"{wanted[name]}: {name}; {why}. Install it by hand, or leave it out by "
                              f"--skip=package:{name}")

    def apply(self, restore: Restore, item: Item) -> Facts:
        return {}

    def verify(self, restore: Restore, item: Item) -> Iterator[Finding]:
        return iter(())

    def undo(self, restore: Restore, entry: Entry) -> Left | None:
        return None


def _of_servers(restore: Restore) -> dict[str, str]:
    """The packages of servers on the source host, with their versions there."""
    return {str(package.get("name")): str(package.get("version"))
            for package in restore.description.tree.iterfind("server/package") if package.get("manager") == "dpkg"}


def _of_applications(restore: Restore) -> Iterator[tuple[str, str]]:
    """The packages of applications, each with a domain that uses it."""
    for domain in restore.description.domains():
        for package in domain.element.iterfind("site/package"):
            if package.get("manager") == "dpkg":
                yield str(package.get("name")), domain.name


def _here_and_offered(restore: Restore) -> tuple[dict[str, str], dict[str, Offered]]:
    """The packages here with their versions, and what apt knows of all others that the description names.

    apt needs a good part of a second for its answer, so it is asked about all of them together.
    """
    here = restore.answer(installed_packages)
    named = {*_of_servers(restore), *(name for name, _ in _of_applications(restore))}
    return here, restore.answer(offered_packages, frozenset(named - here.keys()))


KINDS = (PackageKind,)
