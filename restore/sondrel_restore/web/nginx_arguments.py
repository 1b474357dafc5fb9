"""How the arguments of directives of nginx are checked that reach files, sockets or other hosts."""
from __future__ import annotations

import dataclasses
import re
from collections.abc import Callable, Mapping

from sondrel_restore.web import nginx_paths
from sondrel_restore.web.directives import Directive
from sondrel_restore.web.judge import Judge, Refused, file_name, is_loopback
from sondrel_restore.web.nginx_directives import FILES, LISTEN_OPTIONS, PASSES
from sondrel_restore.web.nginx_listen import listen_parts
from sondrel_restore.web.nginx_names import Names
from sondrel_restore.web.nginx_variables import Variables
from sondrel_restore.web.php_settings import check_setting

_SIZE = re.compile(r"[0-9]+[kKmMgG]?")


@dataclasses.dataclass
class NginxArguments:
    """Says of arguments how they go in here, with the new `names`; raises Refused where they do not.

    `upstreams` are the groups of servers that go in with the site, by their names there; `definitions` are all that
    it uses. `addresses` are this host's own; `has_default` says of "address:port" whether a default server is here
    already. `log_formats` are the names of formats that go in or that every nginx has.
    """

    judge: Judge
    upstreams: frozenset[str]
    log_formats: frozenset[str]
    zones: frozenset[str]
    addresses: frozenset[str]
    has_default: Callable[[str], bool]
    names: Names = dataclasses.field(default_factory=Names)
    definitions: tuple[Directive, ...] = ()
    variables: Variables = dataclasses.field(default_factory=Variables)

    def checked(self, name: str, args: tuple[str, ...], prefix: str) -> tuple[str, ...]:
        """The arguments of a directive, as they go in; `prefix` is the path of the location around it."""
        check = _CHECKS.get(name)
        if check is None:
            raise Refused("this directive is not among those that are taken")
        if not args:
            raise Refused("it has no argument")
        return check(self, name, args, prefix)

    def check_condition(self, args: tuple[str, ...]) -> None:
        """Refused if "if" asks for files that are not the site's."""
        words = [word.strip("()") for word in args if word.strip("()")]
        if words and re.fullmatch(r"!?-[fdex]", words[0]):
            self.variables.check(words[1:])
            for word in words[1:]:
                if not word.startswith(("$request_filename", "$document_root")):
                    self.judge.served_path(word)

    def check_uris(self, name: str, args: tuple[str, ...]) -> None:
        """Refused if an address inside the site could lead upwards or be one of a visitor's choice."""
        own: nginx_paths.Edges = {}
        if name == "auth_request_set" or name == "rewrite" and _is_redirect(args):
            return
        if name == "rewrite" and len(args) > 1:
            own = dict(nginx_paths.groups(args[0]))
            args = args[1:2]
        for arg in args:
            if ".." in arg.split("/"):
                raise Refused(f"{arg} has \"..\"")
            self.variables.check([arg.split("?")[0]], own)

    # Checks of single directives: the arguments as they go in.

    def check_served(self, name: str, args: tuple[str, ...], prefix: str) -> tuple[str, ...]:
        self.variables.check(args)
        path = args[0]
        self.judge.served_path(path.rstrip("/") or "/")
        if name == "alias" and prefix and not prefix.endswith("/"):
            # "/a../x" would be what lies beside the directory.
            path = path.rstrip("/")
        return (path,)

    def check_own_file(self, _name: str, args: tuple[str, ...], _prefix: str) -> tuple[str, ...]:
        if args[0] == "off":
            return args
        return (self.judge.own_file(args[0]),)

    def check_log(self, name: str, args: tuple[str, ...], _prefix: str) -> tuple[str, ...]:
        if args[0] == "off" and name == "access_log":
            return args
        if args[0] in ("stderr", "/dev/null") or args[0].startswith(("syslog:", "memory:")):
            if args[0] == "/dev/null":
                return args
            raise Refused(f"{args[0]} is no file")
        rest = tuple(arg for arg in args[1:] if not arg.startswith(("gzip", "if=")) or "$" in arg or "gzip" in arg)
        if name == "access_log" and rest and "=" not in rest[0] and rest[0] not in self.log_formats:
            raise Refused(f"there is no format \"{rest[0]}\"")
        return (self.judge.log(args[0]), *rest)

    def check_pass(self, name: str, args: tuple[str, ...], _prefix: str) -> tuple[str, ...]:
        scheme, target, uri = _target(args[0])
        if name == "proxy_pass" and scheme not in ("http://", "https://"):
            raise Refused(f"\"{args[0]}\" is no address of HTTP")
        if target in self.upstreams:
            if name == "fastcgi_pass":
                self._check_pools(target)
            return (scheme + self.names.upstreams.get(target, target) + uri,)
        if name == "fastcgi_pass":
            here = self.judge.pool_socket(target)
            if here is not None:
                return (f"unix:{here}",)
            if target.startswith("unix:") or target.startswith("/"):
                raise Refused(f"{target} is the socket of no restored pool")
        return (scheme + self.judge.backend(target) + uri,)

    def _check_pools(self, group: str) -> None:
        """Of the sockets in a group only those of the site's pools: others are in directories of accounts, which
        could put a link to that of another pool in their places.
        """
        for definition in self.definitions:
            if definition.name == "upstream" and definition.args[:1] == (group,):
                for each in definition.block or ():
                    address = each.args[0] if each.name == "server" and each.args else ""
                    if address.startswith("unix:") and self.judge.pool_socket(address) is None:
                        raise Refused(f"{address} is the socket of no restored pool of the site")

    def check_fastcgi_param(self, _name: str, args: tuple[str, ...], _prefix: str) -> tuple[str, ...]:
        if len(args) >= 2 and args[0].upper() in ("PHP_VALUE", "PHP_ADMIN_VALUE"):
            kept = [line for line in args[1].splitlines() if line.strip()]
            for line in kept:
                key, _, value = line.partition("=")
                check_setting(self.judge, key.strip(), value.strip().strip("\"'"))
        return args

    def check_listen(self, _name: str, args: tuple[str, ...], _prefix: str) -> tuple[str, ...]:
        host, port = listen_parts(args[0])
        if port not in (80, 443) and port < 1024:
            raise Refused(f"{port} is a port of another service")
        if host not in ("*", "[::]") and host.strip("[]") not in self.addresses and not is_loopback(host):
            wide = "[::]" if host.startswith("[") else "*"
            self.judge.changed.append(
                f"listens at {wide}:{port} in place of {args[0]}, which is no address of this host")
            host = wide
        address = f"{host}:{port}" if host != "*" else str(port)
        options = [arg for arg in args[1:] if arg in LISTEN_OPTIONS]
        if self.has_default(f"{host}:{port}") and {"default_server", "default"} & set(options):
            self.judge.changed.append(f"is not the default server of {host}:{port}: another one is here")
            options = [option for option in options if option not in ("default_server", "default")]
        return (address, *options)

    def check_zone(self, name: str, args: tuple[str, ...], _prefix: str) -> tuple[str, ...]:
        zone = args[0][len("zone="):] if args[0].startswith("zone=") else args[0]
        if zone == "off":
            return args
        if zone not in self.zones:
            raise Refused(f"the zone \"{zone}\" does not go in")
        here = self.names.zones.get(zone, zone)
        first = f"zone={here}" if name == "limit_req" else here
        return (first, *args[1:])

    def check_session_cache(self, _name: str, args: tuple[str, ...], _prefix: str) -> tuple[str, ...]:
        sizes = [arg.rsplit(":", 1)[1] for arg in args if arg.startswith("shared:") and arg.count(":") == 2]
        if sizes and _SIZE.fullmatch(sizes[0]):
            # Of its own: the size of one that another site has would have to be the same.
            return (f"shared:sondrel_{file_name(self.judge.site)}:{sizes[0]}",)
        return tuple(arg for arg in args if arg in ("off", "none", "builtin")) or ("none",)


# How the arguments of those are checked that reach files, sockets or other hosts.
_CHECKS: Mapping[str, Callable[[NginxArguments, str, tuple[str, ...], str], tuple[str, ...]]] = {
    "root": NginxArguments.check_served, "alias": NginxArguments.check_served,
    **{name: NginxArguments.check_own_file for name in FILES}, **{name: NginxArguments.check_pass for name in PASSES},
    "access_log": NginxArguments.check_log, "error_log": NginxArguments.check_log,
    "listen": NginxArguments.check_listen,
    "fastcgi_param": NginxArguments.check_fastcgi_param, "ssl_session_cache": NginxArguments.check_session_cache,
    **{name: NginxArguments.check_zone for name in ("limit_req", "limit_conn", "proxy_cache", "fastcgi_cache")},
}


def _is_redirect(args: tuple[str, ...]) -> bool:
    """Whether a rule answers with an address, and not with a file."""
    return args[2:3] in (("redirect",), ("permanent",)) or (
        re.match(r"(?:https?://|\$scheme://)", "".join(args[1:2])) is not None)


def _target(address: str) -> tuple[str, str, str]:
    """Scheme with "://", server and what follows it."""
    match = re.match(r"(?P<scheme>[a-z]+://)?(?P<target>unix:[^:]*:?|[^/?]+)(?P<uri>.*)\Z", address, re.DOTALL)
    if not match:
        raise Refused(f"\"{address}\" is no address")
    return match["scheme"] or "", match["target"], match["uri"]
