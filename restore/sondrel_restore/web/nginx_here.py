"""What nginx on this host already serves and defines, by its own output (`nginx -T`)."""
from __future__ import annotations

import dataclasses
import re
from collections.abc import Iterator

from sondrel_restore.host import Host

# The room for each name in nginx's table of names.
BUCKET_SIZE = "server_names_hash_bucket_size"

_FILE = re.compile(r"^# configuration file (/.*):$", re.MULTILINE)
_TOKEN = re.compile(r"""\s+|\#[^\n]*|(?P<mark>[;{}])|"(?P<double>(?:[^"\\]|\\.)*)"|'(?P<single>(?:[^'\\]|\\.)*)'"""
                    r"""|(?P<word>(?:\\.|\$\{|[^\s;{}"'\\])(?:\$\{[^}]*\}|\\.|[^\s;{}\\])*)""", re.DOTALL)


@dataclasses.dataclass
class NginxHere:
    """Names, each with the files that have them. `defaults` are "address:port" of default servers, `listens` those of
    all servers, `roots` served paths, `once` directives that a configuration can have only once. If nginx refuses its
    configuration, all of them are empty and `refusal` says why, and what to do.
    """

    served: dict[str, set[str]] = dataclasses.field(default_factory=dict)
    defaults: dict[str, set[str]] = dataclasses.field(default_factory=dict)
    listens: dict[str, set[str]] = dataclasses.field(default_factory=dict)
    roots: dict[str, set[str]] = dataclasses.field(default_factory=dict)
    upstreams: dict[str, str] = dataclasses.field(default_factory=dict)
    variables: dict[str, str] = dataclasses.field(default_factory=dict)
    formats: dict[str, str] = dataclasses.field(default_factory=dict)
    zones: dict[str, str] = dataclasses.field(default_factory=dict)
    once: dict[str, str] = dataclasses.field(default_factory=dict)
    refusal: str = ""

    def take(self, file: str, words: list[str]) -> None:
        """Records a directive, or the head of a block."""
        name, args = words[0], words[1:]
        if name == "server_name":
            for each in args:
                self.served.setdefault(each.lower(), set()).add(file)
        elif name == "listen" and args:
            self.listens.setdefault(normal_listen(args[0]), set()).add(file)
            if {"default_server", "default"} & set(args[1:]):
                self.defaults.setdefault(normal_listen(args[0]), set()).add(file)
        elif name in ("root", "alias") and args:
            self.roots.setdefault(args[0], set()).add(file)
        elif name == "upstream" and args:
            self.upstreams[args[0]] = file
        elif name == "log_format" and args:
            self.formats[args[0]] = file
        elif name in ("map", "geo", "split_clients") and args:
            self.variables[args[-1].lstrip("$")] = file
        elif name == BUCKET_SIZE:
            self.once[name] = file
        for each in args:
            match = re.match(r"(?:zone|keys_zone)=([^:]+):", each)
            if match and (name.endswith("_zone") or name.endswith("_cache_path")):
                self.zones[match[1]] = file


def ask_here(host: Host) -> NginxHere:
    """What nginx on this host says itself; nothing where it is not here."""
    if not host.has_program("nginx"):
        return NginxHere()
    told = host.run(["nginx", "-T", "-q"], check=False)
    here = read_here(told.stdout)
    if told.status != 0:
        here.refusal = (f"nginx refuses the configuration that it has here: {first_error(told.stderr)}; correct it"
                        " until `nginx -t` accepts it")
    return here


def first_error(text: str) -> str:
    """The line of nginx's error output that says what is wrong."""
    lines = [line for line in text.splitlines() if "[emerg]" in line] or text.splitlines() or ["it says nothing"]
    return lines[0].replace("nginx: ", "").strip()


def read_here(output: str) -> NginxHere:
    """Parses the output of `nginx -T`."""
    here = NginxHere()
    parts = _FILE.split(output)
    for file, text in zip(parts[1::2], parts[2::2]):
        for words in _statements(text):
            here.take(file, words)
    return here


def _statements(text: str) -> Iterator[list[str]]:
    words: list[str] = []
    for match in _TOKEN.finditer(text):
        if match["mark"]:
            if words:
                yield words
            words = []
        elif match.lastgroup:
            words.append(match[match.lastgroup])


def normal_listen(address: str) -> str:
    """An address of `listen` in the form "host:port"."""
    if address.isdigit():
        return f"*:{address}"
    if re.fullmatch(r"\[.*\]|[^:]+", address):
        return f"{address}:80"
    return re.sub(r"\A0\.0\.0\.0:", "*:", address)
