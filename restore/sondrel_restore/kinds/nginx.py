"""Sites of nginx: makes a file of server blocks for each site, and files of the definitions that these use."""
from __future__ import annotations

import dataclasses
import os
import signal
from collections.abc import Iterable, Iterator

from sondrel_restore.hostfiles import sum_of_bytes
from sondrel_restore.journal import Entry
from sondrel_restore.kind import Missing, RestoreError
from sondrel_restore.packages import is_as_packaged
from sondrel_restore.restore import Restore
from sondrel_restore.web import site_kind
from sondrel_restore.web.config_kind import Candidate, switched_off
from sondrel_restore.web.directives import Directive, for_nginx, to_bytes
from sondrel_restore.web.judge import file_name
from sondrel_restore.web.nginx_arguments import NginxArguments
from sondrel_restore.web.nginx_here import BUCKET_SIZE, NginxHere, ask_here, first_error, normal_listen
from sondrel_restore.web.nginx_listen import ports_of
from sondrel_restore.web.nginx_names import Names
from sondrel_restore.web.nginx_rules import NginxRules
from sondrel_restore.web.ports_here import NGINX_DEFAULT, PortsHere, overlap, port_of
from sondrel_restore.web.service import reload_service, running
from sondrel_restore.web.site_data import Block, Site

_DIRECTORY = "/etc/nginx"
_PID_FILE = "/run/nginx.pid"
_DEFINITIONS = f"{_DIRECTORY}/sondrel-definitions"

# In bytes: the longest name that fits into nginx's usual bucket of 64, and a bucket for the longest possible name.
_LONGEST_EXPECTED = 46
_LARGE_BUCKET = 512

# (prefix of directives, module that has them, package of the module)
_MODULES = (
    ("image_filter", "ngx_http_image_filter_module.so", "libnginx-mod-http-image-filter"),
    ("more_", "ngx_http_headers_more_filter_module.so", "libnginx-mod-http-headers-more-filter"),
    ("brotli", "ngx_http_brotli_filter_module.so", "libnginx-mod-http-brotli-filter"),
)


class Nginx(site_kind.SiteKind):
    """The part of a site that nginx serves."""

    name = "nginx"
    program = "nginx"
    package = "nginx"
    log_directory = "/var/log/nginx"

    def __init__(self) -> None:
        super().__init__()
        self._here = NginxHere()
        self._defaults: dict[str, str] = {}
        self._release = (0, 0, 0)
        # The same for all sites of a plan: why nginx could not start here, and its default site if that is the reason.
        self._why_not_started = ""
        self._default_in_the_way: frozenset[str] = frozenset()

    def look(self, restore: Restore) -> None:
        self._here, self._defaults = restore.answer(ask_here), {}
        self._why_not_started, self._default_in_the_way = "", frozenset()
        if not restore.host.has_program("nginx"):
            return
        self._look_at_start(restore)
        version = restore.host.run(["nginx", "-v"], check=False).stderr.rpartition("/")[2].split()
        numbers = [int(each) for each in (version[0] if version else "").split(".") if each.isdigit()]
        self._release = (numbers[0], numbers[1], numbers[2]) if len(numbers) == 3 else (0, 0, 0)

    def candidate(self, restore: Restore, site: Site, blocks: tuple[Block, ...]) -> Candidate:
        path = f"{_DIRECTORY}/sites-available/{file_name(site.domain.name)}.conf"
        link = f"{_DIRECTORY}/sites-enabled/{os.path.basename(path)}"
        judge = self.judge(restore, site)
        uses = list(dict.fromkeys(use for block in blocks for use in block.uses))
        names = self._new_names(uses)
        arguments = NginxArguments(
            judge, upstreams=frozenset(use.args[0] for use in uses if use.name == "upstream" and use.args),
            log_formats=frozenset(use.args[0] for use in uses if use.name == "log_format" and use.args) | {"combined"},
            zones=frozenset(_zones(uses)), addresses=self.addresses,
            has_default=lambda address: self._claimed(address, site.domain.name, {path, link}), names=names,
            definitions=tuple(uses))
        rules = NginxRules(arguments, has_http2_directive=self._release >= (1, 25, 1))
        try:
            servers = [rules.server(block.directive, _inherited(block)) for block in blocks
                       if block.directive is not None]
            text = for_nginx(servers)
            definitions = {_definition_path(kept): to_bytes(for_nginx([kept])) for use in uses
                           if (kept := rules.definition(use)) is not None}
        except RestoreError as error:
            return Candidate(site.domain.name, "", {path: b""}, impossible=str(error))
        definitions.update(self._room_for_names(servers))
        shown = for_nginx(left.directive for left in judge.left_out)
        conflict, disables = self._conflict(restore, site, servers, {path, link})
        links = {f"{_DIRECTORY}/conf.d/{os.path.basename(each)}": f"../{os.path.basename(_DEFINITIONS)}/"
                 + os.path.basename(each) for each in definitions}
        candidate = self.whole(
            site, judge, blocks, {path: to_bytes(site_kind.heading(site) + text), **definitions},
            {**links, link: f"../sites-available/{os.path.basename(path)}"}, shown, conflict, disables,
            self._here.refusal)
        return dataclasses.replace(candidate, says=candidate.says + self._on_ports(servers, disables))

    def _on_ports(self, servers: list[Directive], disables: frozenset[str]) -> str:
        """What a plan says about the ports; empty if there is nothing to say."""
        if NGINX_DEFAULT in disables:
            return f"; {NGINX_DEFAULT} is switched off: Apache has its port"
        later = self.ports_here.would_be_taken(ports_of(servers))
        return f"; {later}" if later else ""

    def _claimed(self, address: str, site: str, own: set[str]) -> bool:
        """Whether another file has the default server of an address. If not, this site has it from now on."""
        if self._here.defaults.get(address, set()) - own:
            return True
        return self._defaults.setdefault(address, site) != site

    def _conflict(self, restore: Restore, site: Site, servers: list[Directive],
                  own: set[str]) -> tuple[str, frozenset[str]]:
        name, others = self.taken_name((*site.names, *_server_names(servers)), self._here.served, own)
        if others:
            return f"{name} is served here already by {', '.join(sorted(others))}", frozenset(
                file for file in others if file.startswith(f"{_DIRECTORY}/sites-enabled/"))
        taken = self.taken_address(_listens(servers), self._here.listens, own)
        why = taken or _shared_with_apache(restore, servers) or self.ports_here.why_taken(
            ports_of(servers)) or self._why_not_started
        return why, self._default_in_the_way

    def _look_at_start(self, restore: Restore) -> None:
        """Whether nginx, if it does not run, could start with what is configured here."""
        blocked = self._not_to_be_had(restore)
        is_off = not os.path.lexists(NGINX_DEFAULT) and any(
            NGINX_DEFAULT in switched_off(entry) for entry in restore.journal.entries(self.name))
        # An earlier apply switched it off. All sites need that, so it stays off as long as one of them is here.
        if is_off or any(NGINX_DEFAULT in files for _, files in blocked) and os.path.islink(NGINX_DEFAULT) \
                and is_as_packaged(restore.host, "nginx-common", os.path.realpath(NGINX_DEFAULT)):
            self._default_in_the_way = frozenset((NGINX_DEFAULT,))
        for address, files in blocked:
            others = sorted(files - self.made - self._default_in_the_way)
            if others:
                self._why_not_started = (
                    f"Apache has {address}, at which {', '.join(others)} lets nginx listen: change it there")
                return

    def _not_to_be_had(self, restore: Restore) -> list[tuple[str, set[str]]]:
        """If nginx does not run: its configured addresses that Apache uses or will use, with their files."""
        if running(_PID_FILE, "nginx") is not None:
            return []
        return [(address, files) for address, files in self._here.listens.items()
                if _at_apache(restore, address) or any(
                    each.startswith("apache2") for each in self.ports_here.programs(port_of(address)))]

    def _room_for_names(self, servers: list[Directive]) -> dict[str, bytes]:
        """A file that enlarges nginx's buckets for names: nginx refuses all sites if a name is too long for them.

        Empty if no name is long, or if another file here sets the size already.
        """
        path = f"{_DEFINITIONS}/sondrel-long-names.conf"
        is_long = any(len(name) > _LONGEST_EXPECTED for name in _server_names(servers))
        if not is_long or os.path.basename(self._here.once.get(BUCKET_SIZE, path)) != os.path.basename(path):
            return {}
        return {path: f"{BUCKET_SIZE} {_LARGE_BUCKET};\n".encode()}

    def _new_names(self, uses: Iterable[Directive]) -> Names:
        """New names for definitions, if the configuration here already uses their names."""
        names = Names({}, {}, {}, {})
        for use in uses:
            for taken, new, name in (
                (self._here.upstreams, names.upstreams, use.args[0] if use.name == "upstream" and use.args else ""),
                (self._here.formats, names.formats, use.args[0] if use.name == "log_format" and use.args else ""),
                (self._here.variables, names.variables, use.args[-1].lstrip("$")
                 if use.name in ("map", "geo", "split_clients") and use.args else ""),
                (self._here.zones, names.zones, next(iter(_zones([use])), "")),
            ):
                owner = taken.get(name, "")
                if name and owner and not os.path.basename(owner).startswith("sondrel-"):
                    assert isinstance(new, dict)
                    new[name] = f"{name}_{sum_of_bytes(to_bytes(name + use.place))[:6]}"
        return names

    def missing(self, restore: Restore) -> Iterator[Missing]:
        yield from super().missing(restore)
        used = {each.name for site in self.chosen(restore) for block in site.blocks if block.directive is not None
                for each in block.directive.within()}
        for beginning, file, package in _MODULES:
            is_here = os.path.exists(f"/usr/lib/nginx/modules/{file}")
            if not is_here and any(name.startswith(beginning) for name in used):
                yield Missing(package, f"sites use directives of nginx that begin with \"{beginning}\"")

    def check(self, restore: Restore) -> str:
        told = restore.host.run(["nginx", "-t", "-q"], check=False)
        return "" if told.status == 0 else first_error(told.stderr)

    def reload(self, restore: Restore, entries: list[Entry]) -> None:
        os.makedirs("/var/cache/nginx", mode=0o755, exist_ok=True)
        here = restore.answer(ask_here) if not entries else NginxHere()
        ports = PortsHere(restore, self.program)
        if any(NGINX_DEFAULT in files and ports.why_taken([port_of(address)])
               for address, files in here.listens.items()):
            # Stop it, as it was before: its default site is enabled again, and cannot have the port.
            restore.host.run(["service", "nginx", "stop"], check=False)
            return
        reload_service(restore.host, "nginx", _PID_FILE, "nginx", signal.SIGHUP)


def _server_names(servers: Iterable[Directive]) -> Iterator[str]:
    """The names that the blocks serve. They may differ from the names in the description."""
    for server in servers:
        for each in server.block or ():
            for name in each.args if each.name == "server_name" else ():
                # Several servers may have these names; Debian's default server is called "_".
                if name.lower() not in ("_", "", "localhost"):
                    yield name.lower()
                if name.startswith("."):
                    yield name[1:].lower()


def _listens(servers: Iterable[Directive]) -> Iterator[str]:
    for server in servers:
        for each in server.block or ():
            if each.name == "listen" and each.args:
                yield normal_listen(each.args[0])


def _at_apache(restore: Restore, address: str) -> str:
    """The site of Apache in this restore that also needs the address; empty if there is none."""
    host, _, port = address.rpartition(":")
    for other, site in restore.offered("apache-address").items():
        other_host, _, other_port = other.rpartition(":")
        if port == other_port and overlap(host, other_host):
            return str(site)
    return ""


def _shared_with_apache(restore: Restore, servers: Iterable[Directive]) -> str:
    for address in _listens(servers):
        site = _at_apache(restore, address)
        if site:
            return f"it needs {address}, as apache:{site} does: leave one of them out by --skip"
    return ""


def _zones(uses: Iterable[Directive]) -> Iterator[str]:
    for use in uses:
        if use.name.endswith("_zone") or use.name.endswith("_cache_path"):
            for arg in use.args:
                key, mark, rest = arg.partition("=")
                if mark and key in ("zone", "keys_zone"):
                    yield rest.partition(":")[0]


def _inherited(block: Block) -> Iterator[Directive]:
    for top in block.configuration.directives:
        if top.name == "http":
            for inner in top.block or ():
                if not inner.identifier and inner.block is None:
                    yield inner


def _definition_path(directive: Directive) -> str:
    """The path of a definition's file: equal definitions of several sites share it."""
    kind = directive.name.replace("_", "-")
    return f"{_DEFINITIONS}/sondrel-{kind}-{sum_of_bytes(to_bytes(for_nginx([directive])))[:12]}.conf"


KINDS = (Nginx,)
