"""Packages that this host lacks. They are not undone: what else may use them nobody knows."""
from __future__ import annotations

from collections.abc import Iterator

from sondrel_restore.journal import Entry
from sondrel_restore.kind import Facts, Finding, Item, Kind, Left, Missing
from sondrel_restore.packages import installed_packages, sections
from sondrel_restore.restore import Restore

# Sections of packages that are applications of sites. Others may bring services that nobody asked for: a source
# host that was broken into must not choose them.
_OF_APPLICATIONS = ("web", "php", "httpd", "fonts", "javascript")


class PackageKind(Kind):
    """Knows which packages the applications of sites are from. Other kinds name what they need by themselves."""

    name = "package"

    def plan(self, restore: Restore) -> Iterator[Item]:
        return iter(())

    def missing(self, restore: Restore) -> Iterator[Missing]:
        wanted: dict[str, str] = {}
        for domain in restore.description.domains():
            if not restore.selection.takes_domain(domain.name):
                continue
            for package in domain.element.iterfind("site/package"):
                if package.get("manager") == "dpkg":
                    wanted.setdefault(package.get("name"), f"the application of {domain.name} is from it")
        lacking = set(wanted) - installed_packages(restore).keys() if wanted else set()
        known = sections(restore, lacking)
        for name in sorted(lacking):
            if known.get(name) in _OF_APPLICATIONS:
                yield Missing(name, wanted[name])
            elif not restore.decisions.skip(f"package:{name}"):
                why = f"it is of the section {known[name]}" if name in known else "apt does not know it here"
                yield Missing("", f"{wanted[name]}: {name}; {why}. Install it by hand, or leave it out by "
                              f"--skip=package:{name}")

    def apply(self, restore: Restore, item: Item) -> Facts:
        return {}

    def verify(self, restore: Restore, item: Item) -> Iterator[Finding]:
        return iter(())

    def undo(self, restore: Restore, entry: Entry) -> Left | None:
        return None


KINDS = (PackageKind,)
