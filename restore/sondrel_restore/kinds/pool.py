"""Pools of PHP-FPM: makes a file for each pool of the description, for the PHP of this host. Each runs as the pool's
account.
"""
from __future__ import annotations

import dataclasses
import functools
import glob
import os
import re
import signal
from collections.abc import Iterable, Iterator

from sondrel_restore.description import Domain, Element
from sondrel_restore.host import Host, account_of
from sondrel_restore.hostfiles import sum_of_bytes
from sondrel_restore.journal import Entry
from sondrel_restore.kind import Finding, Item, Missing, RestoreError, State
from sondrel_restore.locales import is_locale, locales_here, plain, remedy
from sondrel_restore.restore import Restore
from sondrel_restore.web.config_kind import Candidate, ConfigKind
from sondrel_restore.web.directives import one_line, to_bytes
from sondrel_restore.web.judge import Judge, Refused, Trees, normal_address
from sondrel_restore.web.own_sites import own_sites
from sondrel_restore.web.php_compiling import OtherVersions
from sondrel_restore.web.php_settings import ADMIN, check_setting, check_variable, quoted
from sondrel_restore.web.service import reload_service, wait_until
from sondrel_restore.web.site_data import PoolHere, accounts_here

_WEB_ACCOUNT = "www-data"
_LEFT_OUT = "/etc/sondrel-restore/left-out"
# The kernel allows 107 bytes for the path of a socket, and the label is a part of that path.
_LONGEST_LABEL = 60
_OF_LOCALES = re.compile(r"LANG|LC_[A-Z]+")

# Extensions with the rest of their Debian package's name after "php-" or "phpX.Y-". Others are built in or unknown.
_PACKAGES = {
    "apcu": "apcu", "bcmath": "bcmath", "bz2": "bz2", "curl": "curl", "dba": "dba", "dom": "xml", "enchant": "enchant",
    "gd": "gd", "gmp": "gmp", "igbinary": "igbinary", "imagick": "imagick", "imap": "imap", "interbase": "interbase",
    "intl": "intl", "ldap": "ldap", "mbstring": "mbstring", "memcached": "memcached", "mongodb": "mongodb",
    "mysqli": "mysql", "mysqlnd": "mysql", "odbc": "odbc", "pdo_mysql": "mysql", "pdo_odbc": "odbc",
    "pdo_pgsql": "pgsql", "pdo_sqlite": "sqlite3", "pgsql": "pgsql", "pspell": "pspell", "redis": "redis",
    "simplexml": "xml", "snmp": "snmp", "soap": "soap", "sqlite3": "sqlite3", "tidy": "tidy", "uploadprogress":
    "uploadprogress", "xml": "xml", "xmlreader": "xml", "xmlrpc": "xmlrpc", "xmlwriter": "xml", "xsl": "xml",
    "zip": "zip",
}
# Packages of extensions that are not part of PHP: their names have no version.
_UNVERSIONED = frozenset(("apcu", "igbinary", "imagick", "memcached", "mongodb", "redis", "uploadprogress", "xmlrpc"))


@dataclasses.dataclass(frozen=True)
class _Pool:
    """A pool of the description, with the sites that use it. `element` is the `php` of the first one."""

    name: str
    version: str
    user: str
    element: Element
    domains: tuple[Domain, ...]
    addresses: frozenset[str]
    extensions: frozenset[str]


class Pool(ConfigKind):
    """Runs the PHP of sites behind nginx, or behind Apache if PHP is not its module."""

    name = "pool"

    def __init__(self) -> None:
        super().__init__()
        self._versions: list[str] = []
        self._trees = Trees(())
        self._accounts: frozenset[str] = frozenset()
        self._other_versions = OtherVersions()
        # The source host's account of each pool, by the pool's name.
        self._users: dict[str, str] = {}

    def candidates(self, restore: Restore) -> Iterator[Candidate]:
        self._versions = versions()
        self._trees, self._accounts = Trees(restore.offered("tree")), accounts_here(restore)
        for pool in _pools(restore):
            self._users[_name(pool)] = pool.user
            yield self._candidate(restore, pool)

    def _candidate(self, restore: Restore, pool: _Pool) -> Candidate:
        version = self._version(pool)
        account = restore.decisions.account_here(pool.user)
        offered = restore.offered("account").get(pool.user)
        account = str(offered) if offered is not None else account
        judge = Judge(pool.name, self._trees, {}, {}, frozenset(), self._accounts, "", str(restore.session.directory),
                      restore.decisions.trust_configuration)
        left: list[str] = []
        label = _label(pool)
        path = f"/etc/php/{version}/fpm/pool.d/sondrel-{label}.conf"
        group = _group_of(account)
        text = _text(judge, pool, label, account, group, left)
        files = {path: to_bytes(text)}
        modes = {}
        if left:
            beside = f"{_LEFT_OUT}/pool-{label}.txt"
            files[beside] = to_bytes("".join(f"{line}\n" for line in left))
            modes[beside] = 0o600
        says = f"PHP {version} as {account}" + self._other_versions.note(
            restore, f"{self.name}:{_name(pool)}", pool.domains, pool.version, version)
        if left:
            says += f"; {len(left)} settings are left out, see {_LEFT_OUT}"
        return Candidate(
            name=_name(pool), says=says, files=files, modes=modes, impossible=self._impossible(pool, account),
            conflict=self._conflict(restore, account),
            domains=frozenset(domain.name for domain in pool.domains),
            clients=frozenset(domain.client for domain in pool.domains if domain.client),
            notes=tuple(f"left out: {line}" for line in left),
            facts={"version": version, "socket": _socket(label), "addresses": sorted(pool.addresses)})

    def _version(self, pool: _Pool) -> str:
        """The source host's version if it is here, else the newest one here; if there is none, the distribution's."""
        if pool.version in self._versions or not self._versions:
            return pool.version if pool.version in self._versions else _debian_version()
        return self._versions[-1]

    def _impossible(self, pool: _Pool, account: str) -> str:
        if not re.fullmatch(r"[a-z_][a-z0-9_.-]*\$?", account):
            return f"it runs as \"{account}\", which is no name of an account"
        here = account_of(account)
        if account == "root" or here is not None and (here.pw_uid == 0 or here.pw_gid == 0):
            return "it runs as root: give the site an account of its own"
        if account not in self._accounts:
            return f"it runs as {account}, which is no account of this restore: make the account part of it"
        if account != _WEB_ACCOUNT and here is not None and here.pw_uid < 1000:
            return f"it runs as {account}, a service of this host: give the site an account of its own"
        return "" if pool.addresses else "the description does not say where the web server reaches it"

    def _conflict(self, restore: Restore, account: str) -> str:
        """Reports a pool that would run as the web servers' account: its code could change this host's own sites."""
        if account != _WEB_ACCOUNT or restore.decisions.trust_configuration:
            return ""
        own = own_sites(restore)
        if not own:
            return ""
        return f"it runs as {account}, as this host's own sites do ({', '.join(own[:3])}), and could change them"

    def planned(self, restore: Restore, candidate: Candidate) -> None:
        addresses = candidate.facts["addresses"]
        assert isinstance(addresses, list)
        for address in addresses:
            restore.offer("php-socket", normal_address(str(address)), PoolHere(
                str(candidate.facts["socket"]), self._users[candidate.name], candidate.domains))

    def missing(self, restore: Restore) -> Iterator[Missing]:
        chosen = [pool for pool in _pools(restore)
                  if any(restore.selection.takes_domain(domain.name) for domain in pool.domains)
                  and not restore.decisions.skip(f"pool:{_name(pool)}")]
        if chosen and not versions():
            yield Missing("php-fpm", "sites use pools of PHP")
        for pool in chosen:
            version = self._version(pool)
            here = restore.answer(_extensions_here, version)
            for extension in sorted(pool.extensions - here):
                package = _PACKAGES.get(extension)
                if package is not None:
                    prefix = f"php{version}-" if versions() and package not in _UNVERSIONED else "php-"
                    yield Missing(prefix + package, f"{_name(pool)} had the extension {extension}")
        yield from _lacking_locales(restore, chosen)

    def check(self, restore: Restore) -> str:
        for version in versions():
            told = restore.host.run([f"php-fpm{version}", "-t"], check=False)
            if told.status != 0:
                return _error_of(told.stderr)
        return ""

    def reload(self, restore: Restore, entries: list[Entry]) -> None:
        for version in versions():
            if any(entry.facts.get("version") == version for entry in entries) or os.path.exists(
                    f"/run/php/php{version}-fpm.pid"):
                os.makedirs("/run/php", mode=0o755, exist_ok=True)
                reload_service(restore.host, f"php{version}-fpm", f"/run/php/php{version}-fpm.pid", "php-fpm",
                               signal.SIGUSR2, ends_workers=True)
        for entry in entries:
            socket = str(entry.facts.get("socket"))
            wait_until(functools.partial(os.path.exists, socket), f"{entry.name} does not listen at {socket}")

    def apply(self, restore: Restore, item: Item) -> dict[str, object]:
        candidate = item.data
        assert isinstance(candidate, Candidate)
        version = str(candidate.facts["version"])
        if version not in versions():
            raise RestoreError(f"PHP-FPM {version} is not here: install php{version}-fpm, or use --install")
        return super().apply(restore, item)

    def verify(self, restore: Restore, item: Item) -> Iterator[Finding]:
        candidate = item.data
        assert isinstance(candidate, Candidate)
        socket = str(candidate.facts["socket"])
        is_same, listens = item.state is State.SAME, os.path.exists(socket)
        yield Finding(item.identifier, "configuration", is_same, "" if is_same else item.says)
        yield Finding(item.identifier, socket, listens, "" if listens else "nothing listens")


def versions() -> list[str]:
    """The versions of PHP-FPM on this host, oldest first."""
    found = [match[1] for path in glob.glob("/usr/sbin/php-fpm*")
             if (match := re.fullmatch(r".*/php-fpm([0-9]+\.[0-9]+)", path))
             and os.path.isdir(f"/etc/php/{match[1]}/fpm/pool.d")]
    return sorted(found, key=_numbers)


def _numbers(version: str) -> tuple[int, ...]:
    return tuple(int(part) for part in version.split("."))


def _debian_version() -> str:
    """The version that the package php-fpm brings on the Debian releases that are supported."""
    try:
        with open("/etc/debian_version", encoding="ascii") as file:
            return "8.4" if file.read().startswith(("13", "trixie")) else "8.2"
    except OSError:
        return "8.2"


def _pools(restore: Restore) -> list[_Pool]:
    """The pools of the description, in the order of their sites."""
    found: dict[tuple[str, str], _Pool] = {}
    for domain in restore.description.domains():
        php = domain.element.find("site/php")
        if php is None or php.get("handler") != "fpm" or not php.get("pool"):
            continue
        key = (str(php.get("pool")), str(php.get("version") or ""))
        addresses = frozenset([php.get("listen")] if php.get("listen") else [])
        extensions = frozenset(str(php.get("extensions") or "").split())
        known = found.get(key)
        if known is None:
            found[key] = _Pool(*key, str(php.get("user") or ""), php, (domain,), addresses, extensions)
        else:
            found[key] = dataclasses.replace(
                known, domains=(*known.domains, domain), addresses=known.addresses | addresses,
                extensions=known.extensions | extensions)
    return list(found.values())


def _name(pool: _Pool) -> str:
    return f"{pool.name}/{pool.version}" if pool.version else pool.name


def _label(pool: _Pool) -> str:
    """The name of the pool here. It contains the source host's PHP version, because pools of several versions may have
    one name there.
    """
    whole = f"{pool.name}-{pool.version}" if pool.version else pool.name
    safe = re.sub(r"[^A-Za-z0-9_.-]", "_", whole)
    short = safe[:_LONGEST_LABEL]
    return whole if short == whole else f"{short}-{sum_of_bytes(to_bytes(whole))[:8]}"


def _socket(label: str) -> str:
    return f"/run/php/sondrel-{label}.sock"


def _group_of(account: str) -> str:
    here = account_of(account)
    return str(here.pw_gid) if here is not None else account


def _text(judge: Judge, pool: _Pool, label: str, account: str, group: str, left: list[str]) -> str:
    """The content of the pool's file. No description has its number of processes, so they are started on demand."""
    lines = [
        f"; The pool {label}, made by sondrel-restore. What is changed here stays.",
        f"[sondrel-{label}]", f"user = {account}", f"group = {group}", f"listen = {_socket(label)}",
        f"listen.owner = {_WEB_ACCOUNT}", f"listen.group = {_WEB_ACCOUNT}", "listen.mode = 0660",
        "pm = ondemand", "pm.max_children = 20", "pm.process_idle_timeout = 30s", "pm.max_requests = 1000",
    ]
    for element in pool.element.iterfind("setting"):
        name, value = str(element.get("name")), str(element.text or "")
        try:
            if not re.fullmatch(r"[A-Za-z_][A-Za-z0-9_.-]*", name):
                raise Refused("no name of a setting")
            if not judge.trust:
                check_setting(judge, name, value)
            lines.append(f"php_{'admin_' if name in ADMIN else ''}value[{name}] = {quoted(value)}")
        except Refused as refused:
            left.append(f"setting {one_line(name)}: {one_line(str(refused))}")
    for element in pool.element.iterfind("env"):
        name, value = str(element.get("name")), str(element.text or "")
        try:
            check_variable(name, value)
            lines.append(f"env[{name}] = {quoted(value)}")
        except Refused as refused:
            left.append(f"variable {one_line(name)}: {one_line(str(refused))}")
    return "\n".join(lines) + "\n"


def _lacking_locales(restore: Restore, pools: Iterable[_Pool]) -> Iterator[Missing]:
    """The locales in the pools' environments that are missing here: programs would fall back to English."""
    wanted = {str(each.text): pool.name for pool in pools for each in pool.element.iterfind("env")
              if _OF_LOCALES.fullmatch(str(each.get("name"))) and is_locale(str(each.text or ""))}
    here = restore.answer(locales_here) if wanted else frozenset()
    for locale, name in sorted(wanted.items()):
        if plain(locale) not in here:
            yield Missing("", f"the locale {locale}, which the pool {name} sets: {remedy(locale)}")


def _extensions_here(host: Host, version: str) -> frozenset[str]:
    """The extensions of that PHP-FPM here, in lower case."""
    if version not in versions():
        return frozenset()
    told = host.run([f"php-fpm{version}", "-m"], check=False).stdout
    return frozenset(line.lower().removeprefix("zend ") for line in told.splitlines() if line[:1].isalpha())


def _error_of(text: str) -> str:
    errors = [line for line in text.splitlines() if "ERROR" in line or "ALERT" in line]
    return re.sub(r"\A\[.*?\] ", "", (errors or text.splitlines() or ["it says nothing"])[0])


KINDS = (Pool,)
