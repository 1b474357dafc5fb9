"""Packages that this host lacks, and servers that are older here than on the source host. Packages are not removed by
undo, because other software may use them by then.
"""
from __future__ import annotations

from collections.abc import Iterator

from sondrel_restore.journal import Entry
from sondrel_restore.kind import Facts, Finding, Item, Kind, Left, Missing, State
from sondrel_restore.packages import installed_packages, offered_packages
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
        there = {str(package.get("name")): str(package.get("version"))
                 for package in restore.description.tree.iterfind("server/package") if package.get("manager") == "dpkg"}
        here = installed_packages(restore) if there else {}
        offered = offered_packages(restore, there.keys() - here.keys())
        for name, version in there.items():
            ours = here.get(name) or (offered[name].version if name in offered else "")
            if older(ours, version):
                yield Item(self.name, name, State.LISTED, (
                    f"{ours} here is older than {version} on the source host: settings and data of the newer one may "
                    "not work here"))

    def missing(self, restore: Restore) -> Iterator[Missing]:
        wanted: dict[str, str] = {}
        for domain in restore.description.domains():
            if not restore.selection.takes_domain(domain.name):
                continue
            for package in domain.element.iterfind("site/package"):
                if package.get("manager") == "dpkg":
                    wanted.setdefault(package.get("name"), f"the application of {domain.name} is from it")
        lacking = set(wanted) - installed_packages(restore).keys() if wanted else set()
        known = offered_packages(restore, lacking)
        for name in sorted(lacking):
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


KINDS = (PackageKind,)
