"""Finds who has a port that a restored web server needs: a running program, or a server that takes it at start."""
from __future__ import annotations

import os
import re
from collections.abc import Iterable

from sondrel_restore.restore import Restore
from sondrel_restore.web.apache_here import files_here
from sondrel_restore.web.judge import programs_at
from sondrel_restore.web.nginx_here import ask_here
from sondrel_restore.web.service import running

NGINX_DEFAULT = "/etc/nginx/sites-enabled/default"
_LISTEN = re.compile(r"^[ \t]*Listen[ \t]+(?:\S+:)?([0-9]+)\b", re.MULTILINE | re.IGNORECASE)
# The web servers, with their files of process numbers.
_SERVERS = {"nginx": "/run/nginx.pid", "apache2": "/run/apache2/apache2.pid"}


class PortsHere:
    """The ports that other programs and servers than `own` use. Each port and server is examined only once."""

    def __init__(self, restore: Restore, own: str) -> None:
        """`own` is the prefix of the names of the server's own processes."""
        self._restore = restore
        self._own = own
        self._programs: dict[int, list[str]] = {}
        self._files: dict[str, dict[int, list[str]]] = {}

    def programs(self, port: int) -> list[str]:
        """The programs that listen at the port."""
        if port not in self._programs:
            self._programs[port] = sorted(each for each in programs_at(port) if not each.startswith(self._own))
        return self._programs[port]

    def why_taken(self, ports: Iterable[int]) -> str:
        """Why the server cannot have one of the ports, and what to do; empty if it can have all."""
        for port in sorted(ports):
            programs = self.programs(port)
            if programs:
                return f"{', '.join(programs)} listens at port {port} here already{self._remedy(programs, port)}"
        return ""

    def would_be_taken(self, ports: Iterable[int]) -> str:
        """Which stopped server would take one of the ports when it starts, and what to do; empty if there is none."""
        for port in sorted(ports):
            for server, pid_file in _SERVERS.items():
                if server != self._own and running(pid_file, server) is None and self.files(server, port):
                    return f"{server}, which does not run, would take port {port} when it starts" + self._remedy(
                        [server], port)
        return ""

    def _remedy(self, programs: Iterable[str], port: int) -> str:
        for program in programs:
            server = next((each for each in _SERVERS if program.startswith(each)), "")
            files = self.files(server, port) if server else []
            if server == "nginx" and files == [NGINX_DEFAULT]:
                return f", for the default site of its package: rm {NGINX_DEFAULT}, and reload nginx"
            if server and files:
                return f", by {', '.join(files)}: give it another port there, or switch it off, and restart {server}"
        return ""

    def files(self, server: str, port: int) -> list[str]:
        """The files that make a server listen at a port."""
        if server not in self._files:
            self._files[server] = self._of_nginx() if server == "nginx" else _of_apache()
        return self._files[server].get(port, [])

    def _of_nginx(self) -> dict[int, list[str]]:
        found: dict[int, list[str]] = {}
        for address, files in self._restore.answer(ask_here).listens.items():
            port = port_of(address)
            found[port] = sorted({*found.get(port, []), *files})
        return found


def _of_apache() -> dict[int, list[str]]:
    found: dict[int, list[str]] = {}
    if os.access("/usr/sbin/apache2", os.X_OK):
        for path, text in files_here("/etc/apache2/ports.conf"):
            for port in sorted({int(number) for number in _LISTEN.findall(text)}):
                found.setdefault(port, []).append(path)
    return found


def port_of(address: str) -> int:
    """The port of "host:port"; 0 if there is none, as for a Unix socket."""
    port = address.rpartition(":")[2]
    return int(port) if port.isdigit() else 0


def overlap(address: str, other: str) -> bool:
    """Whether two programs cannot both use these addresses with one port. "*" and "[::]" stand for all addresses."""
    return address == other or any(each in ("*", "[::]", "0.0.0.0", "_default_", "") for each in (address, other))
