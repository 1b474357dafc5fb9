"""Makes servers of this host reload: with systemd where it runs, else with the server's own signal."""
from __future__ import annotations

import os
import signal
import time
from collections.abc import Callable
from pathlib import Path

from sondrel_restore.host import Host
from sondrel_restore.kind import RestoreError

_SYSTEMD = "/run/systemd/system"

# In seconds.
_PATIENCE = 20.0


def reload_service(host: Host, name: str, pid_file: str, program: str, number: signal.Signals, *,
                   ends_workers: bool = False) -> None:
    """Makes the server `name` (a unit and an init script) reload its configuration, or starts it if it does not run.

    `program` is the prefix of its process name. With `ends_workers` it waits until the server's earlier workers are
    gone, so that their accounts can be removed. RestoreError if that fails.
    """
    pid = running(pid_file, program)
    before = _children(pid) if pid is not None else set()
    if os.path.isdir(_SYSTEMD):
        active = host.run(["systemctl", "is-active", "--quiet", name], check=False).status == 0
        host.run(["systemctl", "reload" if active else "start", name])
    elif pid is not None:
        os.kill(pid, number)
        wait_until(lambda: not before or _serves_anew(pid, before, running(pid_file, program)),
                   f"{name} has not taken over its configuration")
    else:
        host.run(["service", name, "start"])
        wait_until(lambda: running(pid_file, program) is not None, f"{name} does not run after its start")
    if ends_workers:
        wait_until(lambda: not any(os.path.exists(f"/proc/{each}") for each in before),
                   f"{name} still has processes with its old configuration")


def reload_web_servers(host: Host) -> None:
    """Makes nginx and Apache reload their files, if they run and accept their configuration."""
    for name, pid_file, check, number in (
        ("nginx", "/run/nginx.pid", ["nginx", "-t", "-q"], signal.SIGHUP),
        ("apache2", "/run/apache2/apache2.pid", ["apache2ctl", "configtest"], signal.SIGUSR1),
    ):
        if running(pid_file, name) is not None and host.run(check, check=False).status == 0:
            reload_service(host, name, pid_file, name, number)


def running(pid_file: str, program: str) -> int | None:
    """The process number in the file, if that process runs and its name begins with `program`; else None."""
    try:
        pid = int(Path(pid_file).read_text(encoding="ascii").strip())
        comm = Path(f"/proc/{pid}/comm").read_text(encoding="utf-8", errors="replace")
    except (OSError, ValueError):
        return None
    return pid if comm.startswith(program) else None


def _serves_anew(pid: int | None, before: set[str], now: int | None) -> bool:
    """Whether new workers serve, or the main process is a new one: PHP-FPM replaces itself when it reloads."""
    return now is not None and (now != pid or bool(_children(now) - before))


def _children(pid: int) -> set[str]:
    """The worker processes of a server."""
    try:
        return set(Path(f"/proc/{pid}/task/{pid}/children").read_text(encoding="ascii").split())
    except OSError:
        return set()


def wait_until(holds: Callable[[], bool], otherwise: str) -> None:
    """Waits until `holds` is true. RestoreError with `otherwise` if it is not within 20 seconds."""
    deadline = time.monotonic() + _PATIENCE
    while not holds():
        if time.monotonic() > deadline:
            raise RestoreError(otherwise)
        time.sleep(0.02)
