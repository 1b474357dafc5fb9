"""Makes of server blocks and definitions of the source host's nginx those that go in here.

Which directives are taken says nginx_directives, and nginx_arguments how their arguments are checked.
"""
from __future__ import annotations

import dataclasses
from collections.abc import Iterable

from sondrel_restore.web.directives import Directive
from sondrel_restore.web.judge import Refused, file_name
from sondrel_restore.web.nginx_arguments import NginxArguments
from sondrel_restore.web.nginx_directives import BLOCKS, FILES, INHERITED, PASSES, PLAIN, URIS, instead_of
from sondrel_restore.web.nginx_listen import http2_by_listen


class NginxRules:
    """Makes of directives of the source host those that go in here."""

    def __init__(self, arguments: NginxArguments, *, has_http2_directive: bool = False) -> None:
        self._arguments = arguments
        self._judge, self._names = arguments.judge, arguments.names
        self._has_http2_directive = has_http2_directive

    def server(self, block: Directive, inherited: Iterable[Directive]) -> Directive:
        """A server block as it goes in, with what it inherits on the source host."""
        own = {inner.name for inner in block.block or ()}
        above = tuple(each for each in inherited if each.name in INHERITED and each.name not in own)
        whole = dataclasses.replace(block, block=above + (block.block or ()))
        self._arguments.variables.find(whole, self._arguments.definitions)
        inner = self._inner(whole, prefix="")
        if not self._has_http2_directive:
            inner = http2_by_listen(inner)
        return dataclasses.replace(whole, args=(), block=inner)

    def definition(self, directive: Directive) -> Directive | None:
        """A definition as it goes in; None where it does not."""
        if self._judge.trust:
            return self._names.renamed(directive)
        try:
            return self._names.renamed(self._definition(directive))
        except Refused as refused:
            self._judge.leave_out(directive, str(refused))
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
            self._judge.changed.append(f"the cache {args[0]} is {here} here")
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
            self._judge.leave_out(directive, str(refused))
            # A group without a server would end nginx; one that is down answers 502.
            return dataclasses.replace(directive, args=("127.0.0.1:1", "down")) if directive.name == "server" else None

    def _address(self, address: str) -> str:
        here = self._judge.pool_socket(address)
        return f"unix:{here}" if here is not None else self._judge.backend(address)

    def _inner(self, around: Directive, prefix: str) -> tuple[Directive, ...]:
        taken: list[Directive] = []
        for directive in around.block or ():
            if self._judge.trust:
                taken.append(self._trusted(directive))
                continue
            try:
                taken += self._taken(directive, prefix)
            except Refused as refused:
                self._judge.leave_out(directive, str(refused))
                taken += instead_of(directive)
        return tuple(taken)

    def _taken(self, directive: Directive, prefix: str) -> list[Directive]:
        name, args = directive.name, directive.args
        if directive.block is not None or directive.text is not None:
            return [self._block(directive)]
        if name in PLAIN:
            return [self._names.renamed(directive)]
        if name in URIS:
            self._arguments.check_uris(name, args)
            return [self._names.renamed(directive)]
        args = self._arguments.checked(name, args, prefix)
        return [self._names.renamed(dataclasses.replace(directive, args=args))]

    def _block(self, directive: Directive) -> Directive:
        if directive.name not in BLOCKS or directive.text is not None:
            raise Refused("this block is not among those that are taken")
        if directive.name == "types":
            if any(inner.name == "include" or inner.block is not None or inner.text is not None
                   for inner in directive.block or ()):
                raise Refused("it includes a file")
            return directive
        if directive.name == "if":
            self._arguments.check_condition(directive.args)
        prefix = directive.args[-1] if directive.name == "location" and directive.args else ""
        is_expression = directive.args[:1] in (("~",), ("~*",))
        with self._arguments.variables.within(prefix if is_expression else ""):
            return dataclasses.replace(self._names.with_variables(directive),
                                       block=self._inner(directive, "" if is_expression else prefix))

    def _trusted(self, directive: Directive) -> Directive:
        renamed = self._names.with_variables(directive)
        if directive.name in PASSES and directive.args:
            here = self._judge.pool_socket(directive.args[0])
            if here is not None:
                renamed = dataclasses.replace(renamed, args=(f"unix:{here}",))
        if directive.name in FILES and directive.args and directive.args[0] in self._judge.files:
            renamed = dataclasses.replace(renamed, args=(str(self._judge.files[directive.args[0]]),))
        if directive.name == "listen" and directive.args:
            try:
                renamed = dataclasses.replace(renamed, args=self._arguments.check_listen("listen", directive.args, ""))
            except Refused:
                pass
        if directive.block is None:
            return renamed
        return dataclasses.replace(renamed, block=tuple(self._trusted(inner) for inner in directive.block))
