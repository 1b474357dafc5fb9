"""What this host knows of a package that the description calls an application of a site.

The description comes from the source host and is not trusted. Only the records of dpkg on this host decide which
directories belong to the package alone, and whether root runs a file of it.
"""
from __future__ import annotations

import functools
import hashlib
import os
import re
from collections.abc import Iterator

from sondrel_restore.hostfiles import content_here
from sondrel_restore.restore import Restore

# Places from which root or the system runs files, by itself or on request, or reads its configuration.
_OF_THE_SYSTEM = (
    "/bin/", "/boot/", "/etc/apt/", "/etc/dbus-1/", "/etc/dpkg/", "/etc/init.d/", "/etc/kernel/",
    "/etc/ld.so.conf.d/", "/etc/network/", "/etc/pam.d/", "/etc/php/", "/etc/postfix/", "/etc/profile.d/",
    "/etc/security/", "/etc/sudoers.d/", "/etc/systemd/", "/etc/udev/", "/lib/udev/", "/sbin/", "/usr/lib/udev/",
    "/usr/libexec/", "/usr/sbin/",
)
_UNITS = ("/lib/systemd/system/", "/usr/lib/systemd/system/")
_SCRIPTS = ("/etc/cron.daily/", "/etc/cron.hourly/", "/etc/cron.monthly/", "/etc/cron.weekly/")
# What a script of root must not contain: interpreters, programs of the package, and reading of settings other than
# those of the administrator in /etc/default.
_RUNS = re.compile(
    rb"\b(?:php|perl|python|ruby|node|eval|exec|bash|source)\b|/usr/share/|(?:^|[;&|])\s*\.\s+(?!/etc/default/)",
    re.MULTILINE)
_SECTION = "web"
_USER_OF_UNIT = re.compile(rb"^User=(?!root\s*$|0\s*$)\S+\s*$", re.MULTILINE)
_JOB = re.compile(r"^\s*[-0-9*@]")
# (directory above, number of slashes in the path of a package's own directory)
_PLACES = (("/etc/", 2), ("/var/lib/", 3))


class ApplicationPackages:
    """The packages of applications that are installed here. dpkg lists all packages only once for all of them."""

    def __init__(self, restore: Restore) -> None:
        self._restore = restore

    def package(self, name: str) -> ApplicationPackage:
        """The package of that name."""
        return ApplicationPackage(self._restore, name, self)

    def of_one_source(self, name: str) -> set[str]:
        """The packages here that are made from the same source as the named one, with it."""
        return {other for other, source in self._sources.items() if source == self._sources.get(name)}

    @functools.cached_property
    def _sources(self) -> dict[str, str]:
        said = self._restore.host.run(["dpkg-query", "--show", "--showformat=${Package}\t${source:Package}\n"]).stdout
        return dict(line.split("\t") for line in said.splitlines())


class ApplicationPackage:
    """A package that is installed here, as dpkg records it."""

    def __init__(self, restore: Restore, name: str, packages: ApplicationPackages) -> None:
        self._restore = restore
        self.name = name
        self._packages = packages

    @functools.cached_property
    def files(self) -> list[str]:
        """The paths of the files and directories in the package."""
        result = self._restore.host.run(["dpkg-query", "--listfiles", self.name], check=False)
        return result.stdout.splitlines() if result.status == 0 else []

    def why_not(self) -> str:
        """Says why no files of a source host may be put into its directories; "" if they may."""
        section = self._restore.host.run(
            ["dpkg-query", "--show", "--showformat=${Section}", self.name], check=False).stdout
        if section.rpartition("/")[2] != _SECTION:
            return f"it is of the section {section or 'none'} here, and no application of sites"
        for path in self.files:
            if path.startswith(_OF_THE_SYSTEM):
                return f"it brings {path}, which root may run or read"
            if path.startswith(_UNITS) and path.endswith(".service") and not _USER_OF_UNIT.search(
                    content_here(path) or b""):
                return f"it brings {path}, which runs as root"
            if path.startswith(_SCRIPTS) and _RUNS.search(_without_comments(content_here(path) or b"")):
                return f"it brings {path}, by which root may run what lies there"
            if path.startswith("/etc/cron.d/") and any(_jobs_of_root(content_here(path) or b"")):
                return f"it brings {path}, which root runs"
        return "" if self.directories else "it has no directory of its own below /etc or /var/lib here"

    @functools.cached_property
    def directories(self) -> list[str]:
        """Its directories below /etc and /var/lib, without those that a package of another source also has."""
        own = [path for path in self.files
               if any(path.startswith(above) and path.count("/") == depth for above, depth in _PLACES)
               and os.path.isdir(path) and not os.path.islink(path)]
        return [path for path in own if self._owners(path) <= self._packages.of_one_source(self.name)]

    def _owners(self, path: str) -> set[str]:
        said = self._restore.host.run(["dpkg-query", "--search", path], check=False).stdout
        lines = (line.rpartition(": ") for line in said.splitlines())
        return {name.partition(":")[0].strip() for names, _, at in lines if at == path for name in names.split(",")}

    def is_as_it_came(self, path: str) -> bool:
        """Whether the file here is unchanged since the package, or its scripts with ucf, wrote it."""
        content = content_here(path)
        if content is None:
            return False
        return hashlib.md5(content).hexdigest() == self._sums.get(path)

    @functools.cached_property
    def _sums(self) -> dict[str, str]:
        """MD5 sums by path: of plain files, of configuration files, and of files that ucf wrote."""
        host = self._restore.host
        sums: dict[str, str] = {}
        for line in host.run(["dpkg-query", "--control-show", self.name, "md5sums"], check=False).stdout.splitlines():
            known, _, path = line.partition("  ")
            sums[f"/{path}"] = known
        settings = host.run(["dpkg-query", "--show", "--showformat=${Conffiles}", self.name], check=False).stdout
        for line in settings.splitlines():
            path, _, known = line.strip().partition(" ")
            sums[path] = known.partition(" ")[0]
        for line in (content_here("/var/lib/ucf/hashfile") or b"").decode("utf-8", "replace").splitlines():
            known, _, path = line.partition("  ")
            sums[path.strip()] = known
        return sums


def _without_comments(script: bytes) -> bytes:
    return b"\n".join(line for line in script.splitlines() if not line.lstrip().startswith(b"#"))


def _jobs_of_root(table: bytes) -> Iterator[str]:
    """The lines of a table in /etc/cron.d that run as root."""
    for line in table.decode("utf-8", "replace").splitlines():
        words = line.split()
        if not _JOB.match(line):
            continue
        user = words[1 if words[0].startswith("@") else 5: 6 if not words[0].startswith("@") else 2]
        if not user or user[0] in ("root", "0"):
            yield line
