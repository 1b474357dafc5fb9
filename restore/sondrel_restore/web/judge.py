"""Decides whether an argument of a directive may go into the configuration of this host: paths, logs, addresses.

The source host may be under the control of an attacker. Its directives must not reach files that were not restored,
sockets of other accounts, or services of this host or its network.
"""
from __future__ import annotations

import contextlib
import dataclasses
import ipaddress
import os
import pwd
import re
from collections.abc import Callable, Iterable, Iterator, Mapping
from pathlib import Path

from sondrel_restore.description import is_below
from sondrel_restore.hostfiles import components, sum_of_bytes
from sondrel_restore.kind import RestoreError
from sondrel_restore.web.directives import Directive

# Directories of packages, whose files every account may read.
_PACKAGED = ("/usr/share", "/usr/lib/cgi-bin")

# Never served, even if something was restored there.
_NEVER_SERVED = ("/boot", "/dev", "/etc", "/proc", "/root", "/run", "/sys", "/var/log", "/var/mail", "/var/run",
                 "/var/spool", "/var/lib/mysql", "/var/lib/postgresql")

# Where PHP pools listen. Only the sites that have a pool may use its socket.
_POOLS = "/run/php"

# For a file's name: a sum, a suffix and a prefix must still fit into 255 bytes.
_LONGEST_NAME = 150

_SAFE_NAME = re.compile(r"[A-Za-z0-9._=-]+")

# Ports of services for this host's own programs only: mail, databases, caches, management.
_OWN_PORTS = frozenset((22, 25, 53, 110, 143, 389, 465, 587, 631, 636, 953, 993, 995, 2019, 2375, 2376, 3306, 4190,
                        5432, 6379, 6432, 8125, 9100, 11211, 11334, 27017, 33060))


class Refused(Exception):
    """The directive is not allowed; the text is the reason, as a clause for a person."""


@dataclasses.dataclass(frozen=True)
class LeftOut:
    """A directive that was left out, with the reason."""

    directive: Directive
    why: str

    @property
    def text(self) -> str:
        return f"{self.directive.place}: {self.directive.name}: {self.why}"


class Trees:
    """The restored directories, prepared for many questions whether a path is in one of them."""

    def __init__(self, paths: Iterable[str]) -> None:
        given = [path for path in paths if components(path)]
        self._paths = {_joined(path) for path in given} | {os.path.realpath(path) for path in given}

    def have(self, path: str) -> bool:
        """Whether an absolute path is one of the directories or is below one."""
        parts = components(path)
        return any("/" + "/".join(parts[:length]) in self._paths for length in range(1, len(parts) + 1))


def _joined(path: str) -> str:
    return "/" + "/".join(components(path))


@dataclasses.dataclass
class Judge:
    """The rules for one site.

    `sockets` maps addresses of pools on the source host to sockets here; `files` maps certificates and other files of
    the source host to paths here. `ports` are those of restored sites, `accounts` the accounts here of this restore,
    `addresses` this host's own addresses. `left_out` collects what was left out, `changed` what was installed in
    another form.
    """

    site: str
    trees: Trees
    sockets: Mapping[str, object]
    files: Mapping[str, object]
    ports: frozenset[int]
    accounts: frozenset[str]
    log_directory: str
    session: str = ""
    trust: bool = False
    resolve: Callable[[str], list[str]] = dataclasses.field(default_factory=lambda: addresses_here)
    left_out: list[LeftOut] = dataclasses.field(default_factory=list)
    changed: list[str] = dataclasses.field(default_factory=list)
    addresses: frozenset[str] = frozenset()

    def leave_out(self, directive: Directive, why: str) -> None:
        """Records a directive that is left out."""
        self.left_out.append(LeftOut(directive, why))

    def served_path(self, path: str) -> str:
        """Returns the path if it may be served: it is in a restored directory or of a package. Raises Refused."""
        if "$" in path:
            fixed = path[:path.index("$")]
            self.served_path(fixed if fixed.endswith("/") else os.path.dirname(fixed) or "/")
            if ".." in path:
                raise Refused(f"{path} has \"..\"")
            return path
        _check_absolute(path)
        real = os.path.realpath(path)
        if self.session and is_below(real, os.path.realpath(self.session)):
            raise Refused(f"{path} is in the session")
        for each in (path, real):
            if not self._is_of_restore(each):
                raise Refused(f"{path} is in no restored directory" if each == path else
                              f"{path} leads to {real}, which is in no restored directory")
        return path

    def _is_of_restore(self, path: str) -> bool:
        if any(is_below(path, never) for never in _NEVER_SERVED):
            return False
        return self.trees.have(path) or any(is_below(path, root) for root in _PACKAGED)

    def own_file(self, path: str) -> str:
        """The path here of a certificate or another single file that a site needs. Raises Refused."""
        here = self.files.get(path)
        if not isinstance(here, str):
            raise Refused(f"{path} is not among the files that were restored for this site")
        return here

    def log(self, path: str) -> str:
        """The path of a log in the log directory. Root opens logs, so no account may be able to put a link there."""
        name = os.path.basename(path)
        if "$" in path or not _SAFE_NAME.fullmatch(name) or name.startswith("."):
            raise Refused(f"{path} is no name for a log")
        # A site called "access" must not write into the log of all others, access.log.
        if "." not in self.site or not name.startswith(tuple(f"{self.site}{sign}" for sign in ".-_")):
            name = f"{file_name(self.site)}-{name}"
        here = f"{self.log_directory}/{name}"
        if here != path:
            self.changed.append(f"the log {path} is {here} here")
        return here

    def pool_socket(self, address: str) -> str | None:
        """The socket here of a restored pool; None for any other address."""
        here = self.sockets.get(normal_address(address))
        return here if isinstance(here, str) else None

    def backend(self, address: str) -> str:
        """Returns an address that may serve requests: "host", "host:port" or "unix:/path". Raises Refused."""
        if "$" in address:
            raise Refused(f"{address} depends on the request")
        if address.startswith("unix:"):
            return self._unix(address)
        host, port = _split(address)
        for each in self._addresses(host):
            if each.is_loopback or each.is_unspecified or str(each) in self.addresses:
                self._check_own_port(port or 80, address)
            elif not each.is_global or each.is_multicast:
                raise Refused(f"{address} is in no public network: the new host may have another neighbour there")
        return address

    def _unix(self, address: str) -> str:
        path = address[len("unix:"):].rstrip(":")
        _check_absolute(path)
        real = os.path.realpath(path)
        if any(is_below(each, _POOLS) for each in (path, real)):
            raise Refused(f"{path} is the socket of a pool")
        if self.trees.have(real) and not any(is_below(real, never) for never in _NEVER_SERVED):
            return address
        try:
            owner = pwd.getpwuid(os.lstat(path).st_uid).pw_name
        except (OSError, KeyError):
            owner = ""
        if owner not in self.accounts or owner == "root":
            raise Refused(f"{path} is in no restored directory and no socket of a restored account")
        return address

    def _addresses(self, host: str) -> Iterator[ipaddress.IPv4Address | ipaddress.IPv6Address]:
        try:
            yield ipaddress.ip_address(host.strip("[]"))
            return
        except ValueError:
            pass
        if not re.fullmatch(r"[A-Za-z0-9_]([A-Za-z0-9._-]*[A-Za-z0-9])?", host):
            raise Refused(f"\"{host}\" is no name of a host")
        found = ["127.0.0.1"] if host.lower() == "localhost" else self.resolve(host)
        if not found:
            raise Refused(f"{host} is in no line of /etc/hosts, and what else says its address may say another one"
                          " later: put the name with its address there, and apply again")
        yield from (ipaddress.ip_address(each.partition("%")[0]) for each in found)

    def _check_own_port(self, port: int, address: str) -> None:
        if port in _OWN_PORTS:
            raise Refused(f"{address} is a service of this host that no visitor may reach")
        # Web servers run as root, so root may listen at the ports of restored sites.
        others = {uid for uid in listeners(port)
                  if (uid == 0 and port not in self.ports) or (uid != 0 and _name_of(uid) not in self.accounts)}
        if others:
            names = ", ".join(sorted(_name_of(uid) for uid in others))
            raise Refused(f"at {address} a program of {names} listens, which is not of this restore")


def _check_absolute(path: str) -> None:
    try:
        parts = components(path)
    except RestoreError as error:
        raise Refused(str(error)) from error
    if not parts:
        raise Refused("it is the root of this host")


def _split(address: str) -> tuple[str, int | None]:
    match = re.fullmatch(r"(\[[0-9A-Fa-f:.]+\]|[^:\[\]]+)(?::([0-9]{1,5}))?", address)
    if not match:
        raise Refused(f"\"{address}\" is no address")
    port = int(match[2]) if match[2] else None
    if port is not None and not 0 < port < 65536:
        raise Refused(f"\"{address}\" has no port")
    return match[1], port


def normal_address(address: str) -> str:
    """The one form of a pool's address, which servers write in several forms."""
    address = address.strip()
    address = address[len("unix:"):] if address.startswith("unix:") else address
    if address.isdigit():
        return f"127.0.0.1:{address}"
    address = re.sub(r"\A/var/run/", "/run/", address)
    return re.sub(r"\A(?:localhost|\[::1?\]|\*|0\.0\.0\.0)?:", "127.0.0.1:", address)


def is_loopback(host: str) -> bool:
    """Whether only programs of this host reach what listens at this address or name."""
    try:
        return ipaddress.ip_address(host.strip("[]")).is_loopback
    except ValueError:
        return host == "localhost"


def addresses_here(host: str) -> list[str]:
    """The addresses of a name in /etc/hosts; an empty list if there are none.

    The DNS is not asked: the owner of the name controls its answer and can change it after this check.
    """
    found: list[str] = []
    for line in Path("/etc/hosts").read_text(encoding="utf-8", errors="replace").splitlines():
        address, *names = line.partition("#")[0].split() or [""]
        if host.lower().rstrip(".") in map(str.lower, names):
            with contextlib.suppress(ValueError):
                found.append(str(ipaddress.ip_address(address.partition("%")[0])))
    return found


def listeners(port: int) -> set[int]:
    """The user numbers of the programs that listen at a TCP port of this host."""
    return {int(fields[7]) for fields in _listening(port)}


def programs_at(port: int) -> set[str]:
    """The names of the programs that listen at a TCP port of this host, as far as /proc shows them."""
    inodes = set(_inodes(port))
    found: set[str] = set()
    if not inodes:
        return found
    for process in Path("/proc").glob("[0-9]*"):
        try:
            if any(os.readlink(each) in inodes for each in (process / "fd").iterdir()):
                found.add((process / "comm").read_text(encoding="utf-8", errors="replace").strip())
        except OSError:
            continue
    return found


def _inodes(port: int) -> Iterator[str]:
    for fields in _listening(port):
        yield f"socket:[{fields[9]}]"


def _listening(port: int) -> Iterator[list[str]]:
    for table in ("tcp", "tcp6"):
        try:
            lines = Path(f"/proc/net/{table}").read_text(encoding="ascii").splitlines()[1:]
        except OSError:
            continue
        for fields in map(str.split, lines):
            if fields[3] == "0A" and int(fields[1].rsplit(":", 1)[1], 16) == port:
                yield fields


def _name_of(uid: int) -> str:
    try:
        return pwd.getpwuid(uid).pw_name
    except KeyError:
        return str(uid)


def file_name(name: str) -> str:
    """The name of an object as the name of a file: all bytes but letters, digits, ".", "_" and "-" become "=XX".

    A name that is too long for a file system is cut and ends with a sum of the whole name.
    """
    escaped = "".join(chr(byte) if re.fullmatch(rb"[A-Za-z0-9_.-]", bytes([byte])) else f"={byte:02X}"
                      for byte in name.encode("utf-8", "surrogateescape"))
    escaped = "=2E" + escaped[1:] if escaped.startswith(".") else escaped
    if len(escaped) <= _LONGEST_NAME:
        return escaped
    return f"{escaped[:_LONGEST_NAME]}-{sum_of_bytes(name.encode('utf-8', 'surrogateescape'))[:8]}"
