"""A psql that stays connected. A database needs dozens of scripts, and starting psql takes longer than a script."""
from __future__ import annotations

import contextlib
import os
import secrets
import selectors
import time
from collections.abc import Mapping, Sequence

from sondrel_restore.host import Host, Result
from sondrel_restore.kind import RestoreError

_CHUNK = 1 << 16
# In seconds. Longer idle connections are replaced: the server may close them, and new settings need a new connection.
_LONGEST_IDLE = 5.0


class PsqlSession:
    """A running psql, which reads scripts from its standard input until it is closed."""

    def __init__(self, host: Host, argv: Sequence[str], *, account: str, env: Mapping[str, str]) -> None:
        """`argv` must make psql read standard input. RestoreError if psql cannot be started, not if its login fails."""
        self._process = host.start(argv, account=account, env=env)
        self._used = time.monotonic()
        assert self._process.stdin is not None
        os.set_blocking(self._process.stdin.fileno(), False)

    def is_usable(self) -> bool:
        """Whether it can run another script."""
        return self._process.poll() is None and time.monotonic() - self._used < _LONGEST_IDLE

    def run(self, sql: str, *, stops: bool, time_limit: float) -> Result:
        """Runs a script, which must end with a semicolon or a command of psql.

        With `stops`, an error ends the script and the session.

        The status is 0, or that of psql if it ended. RestoreError after `time_limit` seconds.
        """
        mark = f"end-{secrets.token_hex(16)}"
        script = f"\\set ON_ERROR_STOP {int(stops)}\n{sql}\n\\echo {mark}\n\\warn {mark}\n"
        try:
            out, err = self._exchange(script.encode("utf-8", "surrogateescape"), f"{mark}\n".encode(),
                                      time.monotonic() + time_limit)
        except BaseException:
            self._process.kill()
            self.close()
            raise
        self._used = time.monotonic()
        # If a mark is missing, psql has ended or is about to.
        status = 0 if out[1] and err[1] else self._process.wait(time_limit)
        return Result(out[0], err[0], status)

    def close(self) -> None:
        """Closes the connection and waits for the end of psql."""
        # Popen's `with` closes the pipes and waits.
        with contextlib.suppress(BrokenPipeError), self._process:
            pass

    def _exchange(self, script: bytes, mark: bytes, deadline: float) -> tuple[tuple[str, bool], tuple[str, bool]]:
        """Writes and reads at the same time. Returns the text of each output, and whether the mark came."""
        process, unwritten = self._process, memoryview(script)
        assert process.stdin is not None and process.stdout is not None and process.stderr is not None
        read = {process.stdout.fileno(): b"", process.stderr.fileno(): b""}
        with selectors.DefaultSelector() as selector:
            selector.register(process.stdin, selectors.EVENT_WRITE)
            for descriptor in read:
                selector.register(descriptor, selectors.EVENT_READ)
            while any(descriptor in read for descriptor in selector.get_map()):
                ready = selector.select(max(0.0, deadline - time.monotonic()))
                if not ready:
                    raise RestoreError("psql did not end a script in its time and was killed")
                for key, _ in ready:
                    if key.fd not in read:
                        unwritten = unwritten[_written(key.fd, unwritten):]
                        if not unwritten:
                            selector.unregister(key.fd)
                        continue
                    chunk = os.read(key.fd, _CHUNK)
                    read[key.fd] += chunk
                    if not chunk or read[key.fd].endswith(mark):
                        selector.unregister(key.fd)
        out, err = (_text(content, mark) for content in read.values())
        return out, err


def _written(descriptor: int, content: memoryview) -> int:
    """How many bytes the pipe took. If psql reads no more, all count as taken: its outputs show the error."""
    try:
        return os.write(descriptor, content)
    except BlockingIOError:
        return 0
    except BrokenPipeError:
        return len(content)


def _text(content: bytes, mark: bytes) -> tuple[str, bool]:
    return content.removesuffix(mark).decode("utf-8", "surrogateescape"), content.endswith(mark)
