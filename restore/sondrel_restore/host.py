"""Runs programs on this host, without a shell and without the caller's environment."""
from __future__ import annotations

import dataclasses
import grp
import os
import pwd
import shutil
import signal
import subprocess
from collections.abc import Mapping, Sequence
from typing import IO

from sondrel_restore.kind import RestoreError

PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"

# In seconds. Callers that load a large database give a longer one.
USUAL_TIME_LIMIT = 600.0

# In characters: how much of a program's output an error text quotes.
LONGEST_QUOTE = 2000


@dataclasses.dataclass(frozen=True)
class Result:
    """The output and exit status of a program. Bytes that are no UTF-8 are kept as surrogates."""

    stdout: str
    stderr: str
    status: int


class Host:
    """Runs programs here as root or as another account."""

    def has_program(self, name: str) -> bool:
        """Whether a program of that name is in PATH."""
        return shutil.which(name, path=PATH) is not None

    def run(
        self,
        argv: Sequence[str],
        *,
        input: bytes | None = None,  # pylint: disable=redefined-builtin
        stdin: IO[bytes] | int | None = None,
        account: str | None = None,
        check: bool = True,
        env: Mapping[str, str] | None = None,
        time_limit: float = USUAL_TIME_LIMIT,
    ) -> Result:
        """Runs a program to its end, in `/`, with the rights and groups of `account` if one is given.

        Its standard input is `input`, `stdin`, or empty. `env` is added to PATH and LC_ALL; neither `env` nor `argv`
        may contain a password. With `check`, a status other than 0 raises a RestoreError that quotes the output.
        After `time_limit` seconds the program and its children are killed, and RestoreError is raised. RestoreError
        also if it cannot be started.
        """
        source = subprocess.PIPE if input is not None else stdin if stdin is not None else subprocess.DEVNULL
        process = _started(argv, source, account, env)
        result = _result(process, argv, input, time_limit)
        if check and result.status != 0:
            raise RestoreError(f"{_shown(argv)} ended with {_ending(result.status)}: {_said(result)}")
        return result

    def start(self, argv: Sequence[str], *, account: str | None = None,
              env: Mapping[str, str] | None = None) -> subprocess.Popen[bytes]:
        """Starts a program as `run` does, with pipes to its input and outputs. The caller must end it."""
        return _started(argv, subprocess.PIPE, account, env)


def _started(argv: Sequence[str], source: IO[bytes] | int, account: str | None,
             env: Mapping[str, str] | None) -> subprocess.Popen[bytes]:
    identity = _identity(account) if account is not None else {}
    try:
        return subprocess.Popen(  # type: ignore[call-overload, no-any-return]
            list(argv), stdin=source, stdout=subprocess.PIPE, stderr=subprocess.PIPE, cwd="/",
            env={"PATH": PATH, "LC_ALL": "C.UTF-8", **(env or {})}, start_new_session=True, umask=0o077, **identity)
    except OSError as error:
        raise RestoreError(f"{argv[0]} could not be started: {error.strerror}") from error


def _identity(account: str) -> dict[str, object]:
    try:
        entry = pwd.getpwnam(account)
    except KeyError as error:
        raise RestoreError(f"There is no account {account} here") from error
    groups = os.getgrouplist(account, entry.pw_gid)
    return {"user": entry.pw_uid, "group": entry.pw_gid, "extra_groups": groups}


def _result(process: subprocess.Popen[bytes], argv: Sequence[str], given: bytes | None, limit: float) -> Result:
    with process:
        try:
            out, err = process.communicate(given, timeout=limit)
        except subprocess.TimeoutExpired as error:
            os.killpg(process.pid, signal.SIGKILL)
            process.communicate()
            raise RestoreError(f"{_shown(argv)} did not end within {limit:.0f} seconds and was killed") from error
        except BaseException:
            os.killpg(process.pid, signal.SIGKILL)
            raise
    return Result(_text(out), _text(err), process.returncode)


def _text(raw: bytes) -> str:
    return raw.decode("utf-8", "surrogateescape")


def _shown(argv: Sequence[str]) -> str:
    return " ".join(argv[:3])


def _ending(status: int) -> str:
    return f"status {status}" if status >= 0 else f"signal {-status}"


def _said(result: Result) -> str:
    said = (result.stderr.strip() or result.stdout.strip() or "it said nothing").replace("\n", "; ")
    return said if len(said) <= LONGEST_QUOTE else said[:LONGEST_QUOTE] + " ..."


def account_of(name: str) -> pwd.struct_passwd | None:
    """The account of that name here, or None."""
    try:
        return pwd.getpwnam(name)
    except KeyError:
        return None


def group_of(name: str) -> grp.struct_group | None:
    """The group of that name here, or None."""
    try:
        return grp.getgrnam(name)
    except KeyError:
        return None
