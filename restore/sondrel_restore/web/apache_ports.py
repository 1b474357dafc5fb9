"""Switches off ports of Apache's package that another server of this host or of the restore uses."""
from __future__ import annotations

import re
from collections.abc import Collection

from sondrel_restore.host import Host
from sondrel_restore.hostfiles import atomic_write, content_here
from sondrel_restore.packages import is_as_packaged

_FILE = "/etc/apache2/ports.conf"
_MARK = b"#switched-off-by-sondrel-restore: "
_LISTEN = re.compile(rb"^[ \t]*Listen[ \t]+(?:\S+:)?([0-9]+)\b.*$", re.MULTILINE | re.IGNORECASE)


def leave_ports(host: Host, ports: Collection[int]) -> list[int]:
    """Switches off the `Listen` lines of these ports in the package's ports.conf; returns the ports.

    A file that was changed since the package was installed stays as it is; then Apache may not start.
    """
    content = content_here(_FILE)
    if content is None or not is_as_packaged(host, "apache2", _FILE):
        return []
    left = sorted({int(number) for number in _LISTEN.findall(content)} & set(ports))
    if left:
        _write(_LISTEN.sub(lambda line: _MARK + line[0] if int(line[1]) in left else line[0], content))
    return left


def take_ports_back() -> bool:
    """Undoes `leave_ports`; returns whether anything was switched off."""
    content = content_here(_FILE)
    if content is None or _MARK not in content:
        return False
    _write(content.replace(_MARK, b""))
    return True


def _write(content: bytes) -> None:
    atomic_write(_FILE, content, mode=0o644, uid=0, gid=0)
