"""Sites of Apache: makes a file of virtual hosts for each site, with the definitions that they use."""
from __future__ import annotations

import dataclasses
import fnmatch
import glob
import os
import re
import signal
from collections.abc import Iterable, Iterator

from sondrel_restore.journal import Entry
from sondrel_restore.kind import Item, Missing, RestoreError
from sondrel_restore.restore import Restore
from sondrel_restore.web import site_kind
from sondrel_restore.web.apache_arguments import ApacheArguments
from sondrel_restore.web.apache_rules import ApacheRules, roots_of
from sondrel_restore.web.config_kind import Candidate
from sondrel_restore.web.directives import Directive, apache_rest, for_apache, to_bytes
from sondrel_restore.web.apache_ports import leave_ports, take_ports_back
from sondrel_restore.web.judge import file_name, programs_at
from sondrel_restore.web.own_sites import own_sites
from sondrel_restore.web.php_compiling import OtherVersions
from sondrel_restore.web.service import reload_service, running
from sondrel_restore.web.site_data import Block, Site, is_chosen, listening_ports, sites_of

_DIRECTORY = "/etc/apache2"
_PID_FILE = "/run/apache2/apache2.pid"

# Patterns for lines of a site, with the modules that such lines need.
_MODULES = (
    (r"rewrite\w+ ", ("rewrite",)), (r"(request)?header ", ("headers",)), (r"expires\w+ ", ("expires",)),
    (r"ssl\w+ ", ("ssl", "socache_shmcb")), (r".*\bfcgi://", ("proxy", "proxy_fcgi")), (r".*\bhttps?://.*", ()),
    (r"(proxypass\w*|balancermember|rewriterule) .*https?://", ("proxy", "proxy_http")),
    (r".*\bwss?://", ("proxy", "proxy_wstunnel")), (r"proxy\w+ ", ("proxy",)),
    (r".*balancer://", ("proxy", "proxy_balancer", "slotmem_shm", "lbmethod_byrequests")),
    (r"protocols .*\bh2", ("http2",)), (r"(set|add)outputfilter.*substitute", ("substitute",)),
    (r"authtype +digest", ("auth_digest",)), (r"addoutputfilterbytype ", ("filter",)),
    (r"(set|add)outputfilter\w* .*deflate", ("deflate",)), (r"(set|browser)\w+ ", ("setenvif",)),
    (r"require +(group)", ("authz_groupfile",)), (r"(order|allow|deny|satisfy) ", ("access_compat",)),
)

# Lines of Apache's error output that do not say what is wrong: warnings, and that the command failed.
_ASIDE = re.compile(r"AH00558|^AH[0-9]+: Warning: |^Action '.*' failed|^The Apache error log may have")


class Apache(site_kind.SiteKind):
    """The part of a site that Apache serves."""

    name = "apache"
    program = "apache2"
    package = "apache2"
    log_directory = "/var/log/apache2"

    def __init__(self) -> None:
        super().__init__()
        self._served: dict[str, set[str]] = {}
        self._at: dict[str, set[str]] = {}
        self._refusal = ""
        self._listens: frozenset[str] = frozenset()
        self._own_sites: list[str] = []
        self._other_versions = OtherVersions()

    def look(self, restore: Restore) -> None:
        self._served, self._at, self._refusal, self._listens = {}, {}, "", frozenset()
        self._own_sites = own_sites(restore)
        if not restore.host.has_program("apache2ctl"):
            return
        told = restore.host.run(["apache2ctl", "-t", "-D", "DUMP_VHOSTS"], check=False)
        if told.status != 0:
            self._refusal = f"Apache refuses the configuration that it has here: {_error_of(told.stderr)}"
        file = at = ""
        for line in told.stdout.splitlines():
            address = re.match(r"(\S+:\S+)\s", line)
            at = address[1] if address else at
            named = re.search(r"(?:namevhost|^\S+:\S+) +(\S+) +\((/[^)]*):[0-9]+\)", line)
            alias = re.search(r"^ +(?:wild )?alias (\S+)", line)
            if named:
                file = named[2]
                self._at.setdefault(at, set()).add(file)
            if (named or alias) and file:
                self._served.setdefault((named or alias)[1].lower(), set()).add(file)  # type: ignore[index]
        self._listens = frozenset(_listens_here())

    def candidate(self, restore: Restore, site: Site, blocks: tuple[Block, ...]) -> Candidate:
        path = f"{_DIRECTORY}/sites-available/{file_name(site.domain.name)}.conf"
        link = f"{_DIRECTORY}/sites-enabled/{os.path.basename(path)}"
        if not any(block.directive is not None for block in site.blocks):
            return Candidate(site.domain.name, "", {path: b""}, domains=frozenset((site.domain.name,)), impossible=(
                "Apache serves it outside of virtual hosts: make one for it by hand"))
        judge = self.judge(restore, site)
        hosts: list[Directive] = []
        try:
            for block in blocks:
                if block.directive is not None:
                    arguments = ApacheArguments(
                        judge, balancers=frozenset(use.args[0].partition("//")[2] for use in block.uses
                                                   if use.name == "proxy" and use.args), has_php=bool(_php_modules()))
                    rules = ApacheRules(arguments, roots=roots_of(judge, block.directive), addresses=self.addresses,
                                        php=_php_of(site))
                    hosts.append(rules.virtual_host(block.directive, block.uses))
            text = for_apache(hosts)
            shown = "".join(_shown(left.directive) for left in judge.left_out)
        except RestoreError as error:
            return Candidate(site.domain.name, "", {path: b""}, domains=frozenset((site.domain.name,)),
                             impossible=str(error))
        files = {path: to_bytes(site_kind.heading(site) + text)}
        listens, made_links = self._listen_files(hosts), {link: f"../sites-available/{os.path.basename(path)}"}
        for each, content in listens.items():
            files[each] = content
            made_links[f"{_DIRECTORY}/conf-enabled/{os.path.basename(each)}"] = (
                f"../conf-available/{os.path.basename(each)}")
        made_links.update(self._module_links(hosts))
        conflict, disables = self._conflict(restore, site, {path, link}, hosts)
        candidate = self.whole(site, judge, blocks, files, made_links, shown, conflict, disables, self._refusal)
        later = self.ports_here.would_be_taken(_ports(hosts))
        return dataclasses.replace(
            candidate, says=candidate.says + self._on_php(restore, site) + (f"; {later}" if later else ""),
            facts={**candidate.facts, "at": sorted({arg for host in hosts for arg in host.args})})

    def planned(self, restore: Restore, candidate: Candidate) -> None:
        addresses = candidate.facts.get("at")
        for address in addresses if isinstance(addresses, list) else ():
            restore.offer("apache-address", address, candidate.name)

    def _on_php(self, restore: Restore, site: Site) -> str:
        php, modules = site.element.find("php"), _php_modules()
        if _php_of(site) != "module" or php is None or not modules:
            return ""
        here = os.path.basename(modules[-1]).removeprefix("php").removesuffix(".load")
        return self._other_versions.note(restore, f"{self.name}:{site.domain.name}", (site.domain,),
                                         str(php.get("version") or ""), here)

    @staticmethod
    def meets(name: str, here: str) -> bool:
        """A pattern counts on either side: Apache uses the first of its files with a name or pattern that matches."""
        return fnmatch.fnmatchcase(here, name) or fnmatch.fnmatchcase(name, here)

    def _conflict(self, restore: Restore, site: Site, own: set[str],
                  hosts: list[Directive]) -> tuple[str, frozenset[str]]:
        name, others = self.taken_name((*site.names, *_server_names(hosts)), self._served, own)
        if others:
            return f"{name} is served here already by {', '.join(sorted(others))}", frozenset(
                file for file in others if file.startswith(f"{_DIRECTORY}/sites-enabled/"))
        taken = self.taken_address((arg for host in hosts for arg in host.args), self._at, own)
        if taken:
            return taken, frozenset()
        if _php_of(site) == "module" and self._own_sites \
                and not restore.decisions.trust_configuration:
            return ("its PHP runs as the web server, as this host's own sites do "
                    f"({', '.join(self._own_sites[:3])}), and could change them"), frozenset()
        return self.ports_here.why_taken(_ports(hosts)), frozenset()

    def _listen_files(self, hosts: Iterable[Directive]) -> dict[str, bytes]:
        """A file for each port that Apache does not listen at yet. Several sites may share such a file."""
        found: dict[str, bytes] = {}
        for port in sorted(_ports([*hosts])):
            path = f"{_DIRECTORY}/conf-available/sondrel-listen-{port}.conf"
            if str(port) not in self._listens or path in self.made:
                local = all(_is_local(arg) for host in hosts for arg in host.args if arg.endswith(f":{port}"))
                found[path] = f"Listen {'127.0.0.1:' if local else ''}{port}\n".encode()
        return found

    def _module_links(self, hosts: Iterable[Directive]) -> dict[str, str]:
        """Links that enable the needed modules, without the modules that are already enabled here."""
        found: dict[str, str] = {}
        for module in sorted(_modules_of(hosts)):
            for suffix in ("load", "conf"):
                available = f"{_DIRECTORY}/mods-available/{module}.{suffix}"
                enabled = f"{_DIRECTORY}/mods-enabled/{module}.{suffix}"
                if os.path.exists(available) and (enabled in self.made or not os.path.lexists(enabled)):
                    found[enabled] = f"../mods-available/{module}.{suffix}"
        return found

    def missing(self, restore: Restore) -> Iterator[Missing]:
        yield from super().missing(restore)
        for site in self.chosen(restore):
            if _php_of(site) == "module" and not _php_modules():
                yield Missing("libapache2-mod-php", "PHP is a module of Apache")
                return

    def apply(self, restore: Restore, item: Item) -> dict[str, object]:
        site = [each for each in self.chosen(restore) if each.domain.name == item.name][0]
        if _php_of(site) == "module" and not _php_modules():
            raise RestoreError("PHP is no module of Apache here, and its programs would be sent as text: install "
                               "libapache2-mod-php, or use --install")
        return super().apply(restore, item)

    def check(self, restore: Restore) -> str:
        told = restore.host.run(["apache2ctl", "configtest"], check=False)
        return "" if told.status == 0 else _error_of(told.stderr)

    def reload(self, restore: Restore, entries: list[Entry]) -> None:
        if not entries:
            if take_ports_back() and any(_others_at(port) for port in map(int, _listens_here())):
                # Stop it again: it did not run before, because another server has its port.
                restore.host.run(["service", "apache2", "stop"], check=False)
                return
        elif running(_PID_FILE, self.program) is None:
            for port in leave_ports(restore.host, self._ports_of_others(restore)):
                restore.name("apache:configuration", f"the port {port}, which no site of Apache has, is switched off "
                             f"in {_DIRECTORY}/ports.conf: another server has it")
        reload_service(restore.host, "apache2", _PID_FILE, self.program, signal.SIGUSR1)

    def _ports_of_others(self, restore: Restore) -> set[int]:
        """Ports that other programs use or restored sites of nginx need, and that no site of Apache needs."""
        of_nginx: set[int] = set()
        of_apache: set[int] = set()
        for site in (*sites_of(restore, "nginx"), *self.chosen(restore)):
            server = site.blocks[0].configuration.server
            if is_chosen(restore, server, site.domain):
                (of_apache if server == self.name else of_nginx).update(listening_ports(site))
        taken = {port for port in map(int, _listens_here()) if _others_at(port)}
        return (of_nginx | taken) - of_apache


def _others_at(port: int) -> bool:
    return any(not program.startswith("apache2") for program in programs_at(port))


def _shown(directive: Directive) -> str:
    try:
        return for_apache([directive])
    except RestoreError:
        return ""


def _php_of(site: Site) -> str:
    """The handler that ran the site's PHP; empty if it had no PHP."""
    php = site.element.find("php")
    return "" if php is None else str(php.get("handler") or "other")


def _server_names(hosts: Iterable[Directive]) -> Iterator[str]:
    """The names that the virtual hosts serve. They may differ from the names in the description."""
    for host in hosts:
        for each in host.block or ():
            if each.name in ("servername", "serveralias"):
                for name in apache_rest(each).replace('"', "").split():
                    yield re.sub(r"\A[a-z]+://|:[0-9]+\Z", "", name.lower())


def _ports(hosts: Iterable[Directive]) -> frozenset[int]:
    found = [arg.rpartition(":")[2] for host in hosts for arg in host.args]
    return frozenset(int(port) for port in found if port.isdigit())


def _is_local(address: str) -> bool:
    return address.startswith(("127.", "localhost:", "[::1]"))


def _modules_of(hosts: Iterable[Directive]) -> set[str]:
    found: set[str] = set()
    for host in hosts:
        for each in host.within():
            line = f"{each.name} {apache_rest(each)}".lower()
            for expression, modules in _MODULES:
                if re.match(expression, line):
                    found.update(modules)
    return found


def _php_modules() -> list[str]:
    return glob.glob(f"{_DIRECTORY}/mods-enabled/php*.load")


def _listens_here() -> Iterator[str]:
    """The ports in Apache's ports.conf that it listens at, now or once ssl is enabled."""
    has_tls = os.path.exists(f"{_DIRECTORY}/mods-enabled/ssl.load")
    try:
        with open(f"{_DIRECTORY}/ports.conf", encoding="utf-8", errors="replace") as file:
            text = file.read()
    except OSError:
        return
    for port in re.findall(r"^\s*Listen\s+(?:\S+:)?([0-9]+)\b", text, re.MULTILINE | re.IGNORECASE):
        # The package's ports.conf has 443 for when ssl is enabled, so it needs no further Listen for it.
        if port != "443" or has_tls or os.path.exists(f"{_DIRECTORY}/mods-available/ssl.load"):
            yield port


def _error_of(text: str) -> str:
    lines = [line for line in text.splitlines() if line.strip() and not _ASIDE.search(line)]
    return " ".join(lines[:2]) or "it says nothing"


KINDS = (Apache,)
