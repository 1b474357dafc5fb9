"""New names of definitions of nginx whose own are taken on this host."""
from __future__ import annotations

import dataclasses
import re
from collections.abc import Mapping

from sondrel_restore.web.directives import Directive


@dataclasses.dataclass(frozen=True)
class Names:
    """New names of definitions whose own are taken here: variables without "$", groups of servers, log formats,
    zones.
    """

    variables: Mapping[str, str] = dataclasses.field(default_factory=dict)
    upstreams: Mapping[str, str] = dataclasses.field(default_factory=dict)
    formats: Mapping[str, str] = dataclasses.field(default_factory=dict)
    zones: Mapping[str, str] = dataclasses.field(default_factory=dict)

    def renamed(self, directive: Directive) -> Directive:
        """A definition, or a directive that uses some, with the new names."""
        renamed = self.with_variables(directive)
        name, args = renamed.name, renamed.args
        if name == "upstream" and args:
            args = (self.upstreams.get(args[0], args[0]), *args[1:])
        if name == "log_format" and args:
            args = (self.formats.get(args[0], args[0]), *args[1:])
        if name == "access_log" and len(args) > 1:
            args = (args[0], self.formats.get(args[1], args[1]), *args[2:])
        if name.endswith("_zone") or name.endswith("_cache_path"):
            args = tuple(self._renamed_zone(arg) for arg in args)
        block = renamed.block
        if block is not None:
            block = tuple(dataclasses.replace(each, args=self._new_variables(each.args)) for each in block)
        return dataclasses.replace(renamed, args=args, block=block)

    def with_variables(self, directive: Directive) -> Directive:
        """The directive with the new names of variables in its arguments."""
        return dataclasses.replace(directive, args=self._new_variables(directive.args))

    def _renamed_zone(self, arg: str) -> str:
        match = re.fullmatch(r"(zone=|keys_zone=)([^:]+)(.*)", arg)
        return match[1] + self.zones.get(match[2], match[2]) + match[3] if match else arg

    def _new_variables(self, args: tuple[str, ...]) -> tuple[str, ...]:
        if not self.variables:
            return args

        def new(match: re.Match[str]) -> str:
            name = self.variables.get(match[2] or match[3], match[2] or match[3])
            return f"${{{name}}}" if match[2] else f"${name}"

        return tuple(re.sub(r"\$(\{(\w+)\}|(\w+))", new, arg) for arg in args)
