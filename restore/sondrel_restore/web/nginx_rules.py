"""Which directives of nginx go into this host's configuration, and how their arguments are checked.

What is not named here is left out. docs/restore.md has the list for administrators.
"""
from __future__ import annotations

import dataclasses
import ipaddress
import re
from collections.abc import Callable, Iterable, Mapping

from sondrel_restore.web import nginx_paths
from sondrel_restore.web.directives import Directive
from sondrel_restore.web.judge import Judge, Refused, file_name
from sondrel_restore.web.php_settings import check_setting

# Those without an argument that reaches files, sockets or other hosts.
PLAIN = frozenset("""
    absolute_redirect accept_mutex add_after_body add_before_body add_header addition_types allow ancient_browser
    auth_basic auth_delay autoindex autoindex_exact_size autoindex_format autoindex_localtime break charset
    charset_types chunked_transfer_encoding client_body_buffer_size client_body_timeout client_header_buffer_size
    client_header_timeout client_max_body_size connection_pool_size default_type deny directio disable_symlinks
    early_hints empty_gif etag expires fastcgi_buffer_size fastcgi_buffering fastcgi_buffers
    fastcgi_busy_buffers_size fastcgi_cache_bypass fastcgi_cache_key fastcgi_cache_lock fastcgi_cache_methods
    fastcgi_cache_min_uses fastcgi_cache_use_stale fastcgi_cache_valid fastcgi_connect_timeout fastcgi_hide_header
    fastcgi_ignore_client_abort fastcgi_ignore_headers fastcgi_index fastcgi_intercept_errors fastcgi_keep_conn
    fastcgi_max_temp_file_size fastcgi_next_upstream fastcgi_no_cache fastcgi_pass_header
    fastcgi_pass_request_body fastcgi_pass_request_headers fastcgi_read_timeout fastcgi_request_buffering
    fastcgi_send_timeout fastcgi_split_path_info fastcgi_temp_file_write_size flv gunzip gzip gzip_buffers
    gzip_comp_level gzip_disable gzip_http_version gzip_min_length gzip_proxied gzip_static gzip_types gzip_vary
    hls http2 http2_push_preload if_modified_since ignore_invalid_headers image_filter internal keepalive_disable
    keepalive_requests keepalive_time keepalive_timeout large_client_header_buffers limit_conn_dry_run
    limit_conn_log_level limit_conn_status limit_rate limit_rate_after limit_req_dry_run limit_req_log_level
    limit_req_status lingering_close lingering_time lingering_timeout log_not_found log_subrequest max_ranges
    merge_slashes min_delete_depth modern_browser mp4 msie_padding msie_refresh open_file_cache
    open_file_cache_errors open_file_cache_min_uses open_file_cache_valid output_buffers override_charset
    port_in_redirect postpone_output proxy_buffer_size proxy_buffering proxy_buffers proxy_busy_buffers_size
    proxy_cache_background_update proxy_cache_bypass proxy_cache_convert_head proxy_cache_key proxy_cache_lock
    proxy_cache_lock_age proxy_cache_lock_timeout proxy_cache_methods proxy_cache_min_uses proxy_cache_revalidate
    proxy_cache_use_stale proxy_cache_valid proxy_connect_timeout proxy_cookie_domain proxy_cookie_flags
    proxy_cookie_path proxy_force_ranges proxy_headers_hash_bucket_size proxy_headers_hash_max_size
    proxy_hide_header proxy_http_version proxy_ignore_client_abort proxy_ignore_headers proxy_intercept_errors
    proxy_limit_rate proxy_max_temp_file_size proxy_method proxy_next_upstream proxy_next_upstream_timeout
    proxy_next_upstream_tries proxy_no_cache proxy_pass_header proxy_pass_request_body proxy_pass_request_headers
    proxy_read_timeout proxy_redirect proxy_request_buffering proxy_send_timeout proxy_set_body proxy_set_header
    proxy_ssl_ciphers proxy_ssl_name proxy_ssl_protocols proxy_ssl_server_name proxy_ssl_session_reuse
    proxy_ssl_verify proxy_ssl_verify_depth proxy_temp_file_write_size random_index read_ahead real_ip_header
    real_ip_recursive recursive_error_pages referer_hash_bucket_size request_pool_size reset_timedout_connection
    return rewrite_log satisfy send_lowat send_timeout sendfile sendfile_max_chunk server_name
    server_name_in_redirect server_names_hash_bucket_size server_tokens set set_real_ip_from slice source_charset
    ssi_last_modified ssl_buffer_size ssl_ciphers ssl_early_data ssl_ecdh_curve
    ssl_prefer_server_ciphers ssl_protocols ssl_session_tickets ssl_session_timeout ssl_stapling
    ssl_stapling_verify ssl_verify_client ssl_verify_depth sub_filter sub_filter_last_modified sub_filter_once
    sub_filter_types subrequest_output_buffer_size tcp_nodelay tcp_nopush types_hash_bucket_size
    types_hash_max_size underscores_in_headers uninitialized_variable_warn userid userid_domain userid_expires
    userid_name userid_p3p userid_path userid_service uwsgi_buffer_size uwsgi_buffering uwsgi_buffers
    uwsgi_busy_buffers_size uwsgi_connect_timeout uwsgi_hide_header uwsgi_ignore_client_abort
    uwsgi_intercept_errors uwsgi_max_temp_file_size uwsgi_next_upstream
    uwsgi_pass_header uwsgi_pass_request_body uwsgi_pass_request_headers uwsgi_read_timeout
    uwsgi_request_buffering uwsgi_send_timeout scgi_buffering scgi_connect_timeout scgi_hide_header
    scgi_pass_header scgi_read_timeout scgi_send_timeout uwsgi_param scgi_param grpc_connect_timeout
    grpc_hide_header grpc_pass_header grpc_read_timeout grpc_send_timeout grpc_set_header valid_referers
    variables_hash_bucket_size
    more_set_headers more_clear_headers brotli brotli_types
""".split())

# What "http" says for all sites and each server may say for itself: written into it where it does not.
INHERITED = frozenset("""
    absolute_redirect add_header autoindex charset client_body_timeout client_max_body_size error_page etag
    expires fastcgi_buffer_size fastcgi_buffers fastcgi_connect_timeout fastcgi_read_timeout fastcgi_send_timeout
    gzip gzip_comp_level gzip_disable gzip_http_version gzip_min_length gzip_proxied gzip_types gzip_vary index
    keepalive_timeout limit_rate port_in_redirect proxy_buffer_size proxy_buffering proxy_buffers
    proxy_connect_timeout proxy_http_version proxy_read_timeout proxy_send_timeout proxy_set_header real_ip_header
    send_timeout server_tokens set_real_ip_from ssl_ciphers ssl_prefer_server_ciphers ssl_protocols
    ssl_session_timeout
""".split())

_URIS = frozenset(("try_files", "index", "rewrite", "error_page", "auth_request", "auth_request_set", "post_action",
                   "mirror"))
_FILES = frozenset(("ssl_certificate", "ssl_certificate_key", "ssl_trusted_certificate", "ssl_client_certificate",
                    "ssl_crl", "ssl_dhparam", "auth_basic_user_file", "proxy_ssl_trusted_certificate",
                    "proxy_ssl_certificate", "proxy_ssl_certificate_key", "ssl_stapling_file"))
_PASSES = frozenset(("proxy_pass", "fastcgi_pass", "uwsgi_pass", "scgi_pass", "grpc_pass"))
# Without these the site would be open to more visitors than it was.
_GUARDS = frozenset(("allow", "deny", "auth_basic", "auth_basic_user_file", "auth_request", "internal", "satisfy",
                     "ssl_verify_client", "ssl_client_certificate", "limit_except", "valid_referers"))
_BLOCKS = frozenset(("location", "if", "limit_except", "types"))

# Of a visitor's making, and nothing that a path may be made of.
_TAINTED = re.compile(r"\$\{?(?:arg_\w+|args\b|query_string\b|cookie_\w+|http_(?!host\b)\w+|request(?:_body|_uri)?\b"
                      r"|remote_user\b|content_type\b|ssl_client_\w+|ssl_server_name\b|upstream_\w+|sent_\w+)")
_VARIABLE = re.compile(r"\$\{?(\w+)")
# nginx takes no name of a host with "/" or "..".
_HOSTS = frozenset(("$host", "$http_host", "$server_name", "$scheme", "$server_port", "$request_method"))
_SIZE = re.compile(r"[0-9]+[kKmMgG]?")

_LISTEN_OPTIONS = frozenset(("ssl", "http2", "proxy_protocol", "default_server", "default"))


@dataclasses.dataclass(frozen=True)
class Names:
    """New names of definitions whose own are taken here: variables without "$", groups of servers, log formats,
    zones.
    """

    variables: Mapping[str, str] = dataclasses.field(default_factory=dict)
    upstreams: Mapping[str, str] = dataclasses.field(default_factory=dict)
    formats: Mapping[str, str] = dataclasses.field(default_factory=dict)
    zones: Mapping[str, str] = dataclasses.field(default_factory=dict)


@dataclasses.dataclass
class NginxRules:
    """Makes of directives of the source host those that go in here.

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
    has_http2_directive: bool = False
    definitions: tuple[Directive, ...] = ()
    _tainted: set[str] = dataclasses.field(default_factory=set)
    # The groups of the expressions of the locations around.
    _edges: dict[str, tuple[bool, bool]] = dataclasses.field(default_factory=dict)

    def server(self, block: Directive, inherited: Iterable[Directive]) -> Directive:
        """A server block as it goes in, with what it inherits on the source host."""
        own = {inner.name for inner in block.block or ()}
        above = tuple(each for each in inherited if each.name in INHERITED and each.name not in own)
        whole = dataclasses.replace(block, block=above + (block.block or ()))
        self._find_tainted(whole)
        inner = self._inner(whole, prefix="")
        if not self.has_http2_directive:
            inner = _http2_by_listen(inner)
        return dataclasses.replace(whole, args=(), block=inner)

    def definition(self, directive: Directive) -> Directive | None:
        """A definition as it goes in; None where it does not."""
        if self.judge.trust:
            return self._renamed(directive)
        try:
            return self._renamed(self._definition(directive))
        except Refused as refused:
            self.judge.leave_out(directive, str(refused))
            return None

    def _definition(self, directive: Directive) -> Directive:
        name, args = directive.name, directive.args
        # It would be written as it stands.
        if any(each.text is not None for each in directive.within()):
            raise Refused("it has a block in another language")
        if name in ("map", "geo", "split_clients"):
            bad = [inner for inner in directive.block or () if inner.name == "include" or inner.block is not None]
            if bad:
                raise Refused("it includes a file")
            return directive
        if name == "log_format" or name in ("limit_req_zone", "limit_conn_zone"):
            return directive
        if name == "upstream":
            return dataclasses.replace(directive, block=tuple(
                kept for inner in directive.block or () if (kept := self._of_upstream(inner)) is not None))
        if name in ("proxy_cache_path", "fastcgi_cache_path") and args:
            zone = next((arg[len("keys_zone="):].split(":")[0] for arg in args if arg.startswith("keys_zone=")), "")
            here = f"/var/cache/nginx/sondrel-{file_name(zone)}"
            self.judge.changed.append(f"the cache {args[0]} is {here} here")
            return dataclasses.replace(directive, args=(here, *(
                arg for arg in args[1:] if not arg.startswith(("use_temp_path=", "purger")))))
        raise Refused("this definition is not among those that are taken")

    def _of_upstream(self, directive: Directive) -> Directive | None:
        if directive.name in ("keepalive", "keepalive_requests", "keepalive_time", "keepalive_timeout", "least_conn",
                              "ip_hash", "hash", "random", "zone"):
            return directive
        try:
            if directive.name != "server" or not directive.args:
                raise Refused("this directive is not among those that are taken")
            return dataclasses.replace(directive, args=(
                self._address(directive.args[0]),
                # A name would be looked up again and again, elsewhere than it was for the check.
                *(arg for arg in directive.args[1:] if arg != "resolve" and not arg.startswith("service="))))
        except Refused as refused:
            self.judge.leave_out(directive, str(refused))
            # A group without a server would end nginx; one that is down answers 502.
            return dataclasses.replace(directive, args=("127.0.0.1:1", "down")) if directive.name == "server" else None

    def _address(self, address: str) -> str:
        here = self.judge.pool_socket(address)
        return f"unix:{here}" if here is not None else self.judge.backend(address)

    def _inner(self, around: Directive, prefix: str) -> tuple[Directive, ...]:
        taken: list[Directive] = []
        for directive in around.block or ():
            if self.judge.trust:
                taken.append(self._trusted(directive))
                continue
            try:
                taken += self._taken(directive, prefix)
            except Refused as refused:
                self.judge.leave_out(directive, str(refused))
                taken += _instead_of(directive)
        return tuple(taken)

    def _taken(self, directive: Directive, prefix: str) -> list[Directive]:
        name, args = directive.name, directive.args
        if directive.block is not None or directive.text is not None:
            return [self._block(directive)]
        if name in PLAIN:
            return [self._renamed(directive)]
        if name in _URIS:
            self._check_uris(name, args)
            return [self._renamed(directive)]
        check = _CHECKS.get(name)
        if check is None:
            raise Refused("this directive is not among those that are taken")
        if not args:
            raise Refused("it has no argument")
        return [self._renamed(dataclasses.replace(directive, args=check(self, name, args, prefix)))]

    def _block(self, directive: Directive) -> Directive:
        if directive.name not in _BLOCKS or directive.text is not None:
            raise Refused("this block is not among those that are taken")
        if directive.name == "types":
            if any(inner.name == "include" or inner.block is not None or inner.text is not None
                   for inner in directive.block or ()):
                raise Refused("it includes a file")
            return directive
        if directive.name == "if":
            self._check_condition(directive.args)
        prefix = directive.args[-1] if directive.name == "location" and directive.args else ""
        is_expression = directive.args[:1] in (("~",), ("~*",))
        around = self._edges
        self._edges = {**around, **dict(nginx_paths.groups(prefix))} if is_expression else around
        try:
            return dataclasses.replace(self._renamed_args(directive),
                                       block=self._inner(directive, "" if is_expression else prefix))
        finally:
            self._edges = around

    def _check_condition(self, args: tuple[str, ...]) -> None:
        words = [word.strip("()") for word in args if word.strip("()")]
        if words and re.fullmatch(r"!?-[fdex]", words[0]):
            self._check_variables(words[1:])
            for word in words[1:]:
                if not word.startswith(("$request_filename", "$document_root")):
                    self.judge.served_path(word)

    def _check_uris(self, name: str, args: tuple[str, ...]) -> None:
        own: nginx_paths.Edges = {}
        if name == "auth_request_set" or name == "rewrite" and _is_redirect(args):
            return
        if name == "rewrite" and len(args) > 1:
            own = dict(nginx_paths.groups(args[0]))
            args = args[1:2]
        for arg in args:
            if ".." in arg.split("/"):
                raise Refused(f"{arg} has \"..\"")
            self._check_variables([arg.split("?")[0]], own)

    def _check_variables(self, args: Iterable[str], own: nginx_paths.Edges | None = None) -> None:
        """`own` has the groups of a rule's own expression, which has made the numbers."""
        own = own or {}
        for arg in args:
            if _TAINTED.search(arg) or any(
                    found in self._tainted and found not in own for found in _VARIABLE.findall(arg)):
                raise Refused(f"{arg} is a path that visitors could choose")
            if nginx_paths.leads_upwards(arg, {**self._edges, **own}):
                raise Refused(f"{arg} is a path that could lead upwards")

    def _find_tainted(self, block: Directive) -> None:
        """Variables that are made of what a visitor sends, also by way of others, or that could lead upwards."""
        for _ in range(10):
            before = len(self._tainted)
            for definition in self.definitions:
                self._find_tainted_by(definition)
            for each in block.within():
                if each.name == "auth_request_set" and each.args:
                    self._tainted.add(each.args[0].lstrip("$"))
                elif each.name == "set" and len(each.args) == 2 and (
                        self._is_tainted(each.args[1]) or _has_dots(each.args[1])
                        or nginx_paths.leads_upwards(each.args[1], {})):
                    self._tainted.add(each.args[0].lstrip("$"))
                elif each.name == "if" and len(each.args) > 2:
                    self._taint_groups(each.args[0].lstrip("("), " ".join(each.args[2:]).removesuffix(")"))
                elif each.name == "rewrite" and each.args:
                    self._taint_groups("$uri", each.args[0])
            if len(self._tainted) == before:
                return

    def _find_tainted_by(self, definition: Directive) -> None:
        """A variable of a map, and the groups of its expressions: the last one that was looked at makes the numbers."""
        if definition.name not in ("map", "geo", "split_clients") or not definition.args:
            return
        for value in definition.block or ():
            if any("$" in arg or _has_dots(arg) for arg in value.args):
                self._tainted.add(definition.args[-1].lstrip("$"))
            if value.name.startswith("~"):
                self._taint_groups(definition.args[0], value.name.lstrip("~*"))

    def _taint_groups(self, source: str, expression: str) -> None:
        if source in _HOSTS:
            return
        for name, edges in nginx_paths.groups(expression):
            if self._is_tainted(source) or edges != (True, True):
                self._tainted.add(name)

    def _is_tainted(self, text: str) -> bool:
        return bool(_TAINTED.search(text)) or any(found in self._tainted for found in _VARIABLE.findall(text))

    # Checks of single directives: the arguments as they go in.

    def check_served(self, name: str, args: tuple[str, ...], prefix: str) -> tuple[str, ...]:
        self._check_variables(args)
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
        host, port = _listen_parts(args[0])
        if port not in (80, 443) and port < 1024:
            raise Refused(f"{port} is a port of another service")
        if host not in ("*", "[::]") and host.strip("[]") not in self.addresses and not _is_loopback(host):
            wide = "[::]" if host.startswith("[") else "*"
            self.judge.changed.append(
                f"listens at {wide}:{port} in place of {args[0]}, which is no address of this host")
            host = wide
        address = f"{host}:{port}" if host != "*" else str(port)
        options = [arg for arg in args[1:] if arg in _LISTEN_OPTIONS]
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

    # New names.

    def _trusted(self, directive: Directive) -> Directive:
        renamed = self._renamed_args(directive)
        if directive.name in _PASSES and directive.args:
            here = self.judge.pool_socket(directive.args[0])
            if here is not None:
                renamed = dataclasses.replace(renamed, args=(f"unix:{here}",))
        if directive.name in _FILES and directive.args and directive.args[0] in self.judge.files:
            renamed = dataclasses.replace(renamed, args=(str(self.judge.files[directive.args[0]]),))
        if directive.name == "listen" and directive.args:
            try:
                renamed = dataclasses.replace(renamed, args=self.check_listen("listen", directive.args, ""))
            except Refused:
                pass
        if directive.block is None:
            return renamed
        return dataclasses.replace(renamed, block=tuple(self._trusted(inner) for inner in directive.block))

    def _renamed(self, directive: Directive) -> Directive:
        renamed = self._renamed_args(directive)
        name, args = renamed.name, renamed.args
        if name == "upstream" and args:
            args = (self.names.upstreams.get(args[0], args[0]), *args[1:])
        if name == "log_format" and args:
            args = (self.names.formats.get(args[0], args[0]), *args[1:])
        if name == "access_log" and len(args) > 1:
            args = (args[0], self.names.formats.get(args[1], args[1]), *args[2:])
        if name.endswith("_zone") or name.endswith("_cache_path"):
            args = tuple(self._renamed_zone(arg) for arg in args)
        block = renamed.block
        if block is not None:
            block = tuple(dataclasses.replace(each, args=self._new_variables(each.args)) for each in block)
        return dataclasses.replace(renamed, args=args, block=block)

    def _renamed_zone(self, arg: str) -> str:
        match = re.fullmatch(r"(zone=|keys_zone=)([^:]+)(.*)", arg)
        return match[1] + self.names.zones.get(match[2], match[2]) + match[3] if match else arg

    def _renamed_args(self, directive: Directive) -> Directive:
        return dataclasses.replace(directive, args=self._new_variables(directive.args))

    def _new_variables(self, args: tuple[str, ...]) -> tuple[str, ...]:
        if not self.names.variables:
            return args

        def new(match: re.Match[str]) -> str:
            name = self.names.variables.get(match[2] or match[3], match[2] or match[3])
            return f"${{{name}}}" if match[2] else f"${name}"

        return tuple(re.sub(r"\$(\{(\w+)\}|(\w+))", new, arg) for arg in args)


# How the arguments of those are checked that reach files, sockets or other hosts.
_CHECKS: Mapping[str, Callable[[NginxRules, str, tuple[str, ...], str], tuple[str, ...]]] = {
    "root": NginxRules.check_served, "alias": NginxRules.check_served,
    **{name: NginxRules.check_own_file for name in _FILES}, **{name: NginxRules.check_pass for name in _PASSES},
    "access_log": NginxRules.check_log, "error_log": NginxRules.check_log, "listen": NginxRules.check_listen,
    "fastcgi_param": NginxRules.check_fastcgi_param, "ssl_session_cache": NginxRules.check_session_cache,
    **{name: NginxRules.check_zone for name in ("limit_req", "limit_conn", "proxy_cache", "fastcgi_cache")},
}


def _instead_of(directive: Directive) -> list[Directive]:
    """What keeps a site as closed as it was without a directive that does not go in."""
    if directive.name.endswith("_pass") or directive.name.startswith("content_by"):
        # The files of the program would be sent as they are.
        return [dataclasses.replace(directive, name="return", args=("503",), block=None, text=None)]
    if directive.name in _GUARDS or directive.name.startswith("access_by") or directive.name == "auth_pam":
        return [dataclasses.replace(directive, name="deny", args=("all",), block=None, text=None)]
    return []


def _has_dots(text: str) -> bool:
    return not {".", ".."}.isdisjoint(text.split("/"))


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


def _listen_parts(address: str) -> tuple[str, int]:
    match = re.fullmatch(
        r"(?:(?P<port>[0-9]{1,5})|(?P<host>\[[0-9A-Fa-f:.]+\]|[A-Za-z0-9.*-]+)(?::(?P<at>[0-9]{1,5}))?)", address)
    if not match:
        raise Refused(f"{address} is no address and port")
    port = int(match["port"] or match["at"] or 80)
    if not 0 < port < 65536:
        raise Refused(f"{address} has no port")
    host = match["host"] or "*"
    return ("*" if host == "0.0.0.0" else host), port


def _is_loopback(host: str) -> bool:
    try:
        return ipaddress.ip_address(host.strip("[]")).is_loopback
    except ValueError:
        return host == "localhost"


def _http2_by_listen(block: tuple[Directive, ...]) -> tuple[Directive, ...]:
    """What releases before 1.25.1 have in place of the directive "http2"."""
    is_on = any(each.name == "http2" and each.args == ("on",) for each in block)
    kept = tuple(each for each in block if each.name != "http2")
    if not is_on:
        return kept
    return tuple(dataclasses.replace(each, args=(*each.args, "http2"))
                 if each.name == "listen" and "ssl" in each.args and "http2" not in each.args else each
                 for each in kept)


def ports_of(blocks: Iterable[Directive]) -> frozenset[int]:
    """The ports that server blocks listen at; 80 where they do not say."""
    found: set[int] = set()
    for block in blocks:
        for inner in block.block or ():
            if inner.name == "listen" and inner.args:
                try:
                    found.add(_listen_parts(inner.args[0])[1])
                except Refused:
                    continue
    return frozenset(found or {80})
