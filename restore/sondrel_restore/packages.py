"""Packages of this host, through dpkg and apt."""
from __future__ import annotations

import dataclasses
import hashlib
import re
from collections.abc import Collection

from sondrel_restore.host import Host
from sondrel_restore.hostfiles import content_here
from sondrel_restore.kind import RestoreError
from sondrel_restore.restore import Restore

_NAME = re.compile(r"[a-z0-9][a-z0-9+.-]+")
# Suffixes of the names of packages that are parts of one application.
_PART = re.compile(r"-(?:common|core|mysql|pgsql|sqlite3)\Z")
_WEB_SERVERS = ("apache2", "nginx")
# In seconds. Large packages over a slow network take long.
_TIME_LIMIT = 3600.0


def installed_packages(host: Host) -> dict[str, str]:
    """The packages that are installed here, with their versions."""
    result = host.run(["dpkg-query", "--show", "--showformat=${db:Status-Abbrev}\t${Package}\t${Version}\n"])
    fields = (line.split("\t") for line in result.stdout.splitlines())
    return {name: version for status, name, version in fields if status.startswith("ii")}


def is_as_packaged(host: Host, package: str, path: str) -> bool:
    """Whether a configuration file is unchanged since its package, which is installed here, brought it."""
    content = content_here(path)
    settings = host.run(["dpkg-query", "--show", "--showformat=${Conffiles}", package], check=False).stdout
    known = dict(line.split()[:2] for line in settings.splitlines() if len(line.split()) >= 2)
    return content is not None and known.get(path) == hashlib.md5(content).hexdigest()


@dataclasses.dataclass(frozen=True)
class Offered:
    """A package that apt knows here: its section without the component ("web", "php"), and its version."""

    section: str
    version: str


def offered_packages(host: Host, names: Collection[str]) -> dict[str, Offered]:
    """Those of the named packages that apt knows here, by name."""
    known = sorted(name for name in names if _NAME.fullmatch(name))
    if not known or not host.has_program("apt-cache"):
        return {}
    said = host.run(["apt-cache", "show", "--no-all-versions", "--", *known], check=False).stdout
    found = {}
    for paragraph in said.split("\n\n"):
        fields = dict(line.split(": ", 1) for line in paragraph.splitlines() if re.match(r"[A-Z][A-Za-z-]*: ", line))
        if "Package" in fields:
            found[fields["Package"]] = Offered(fields.get("Section", "").rpartition("/")[2], fields.get("Version", ""))
    return found


def _leave_databases_to_restore(restore: Restore, names: Collection[str]) -> None:
    """Stops the packages' scripts from making an empty database where the restored one goes."""
    if not restore.host.has_program("debconf-set-selections"):
        return
    # The question is named after the source package or the package.
    asked = {(name, each) for name in names for each in (name, _PART.sub("", name))}
    answers = "".join(f"{name} {each}/dbconfig-install boolean false\n" for name, each in sorted(asked))
    restore.host.run(["debconf-set-selections"], input=answers.encode("ascii"))


def install(restore: Restore, names: Collection[str]) -> None:
    """Installs packages and their dependencies with apt, without questions. RestoreError with apt's message."""
    wrong = [name for name in names if not _NAME.fullmatch(name)]
    if wrong:
        raise RestoreError(f"{', '.join(sorted(wrong))} is no name of a package")
    restore.progress.show(f"installing {len(names)} packages")
    _leave_databases_to_restore(restore, names)
    options = ["--assume-yes", "--no-install-recommends", "--no-remove"]
    new_servers = [name for name in _WEB_SERVERS if not restore.host.has_program(name)]
    restore.host.run(["apt-get", "install", *options, "--", *sorted(names)],
                     env={"DEBIAN_FRONTEND": "noninteractive"}, time_limit=_TIME_LIMIT)
    restore.forget_answers()
    # The first one that apt started has port 80. Stop them all; they are started with their sites.
    for name in new_servers:
        if restore.host.has_program(name):
            restore.host.run(["service", name, "stop"], check=False)
