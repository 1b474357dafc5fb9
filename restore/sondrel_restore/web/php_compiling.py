"""Finds PHP files of sites that the PHP of this host cannot compile, as `php -l` would. It does not run them."""
from __future__ import annotations

import contextlib
import dataclasses
import os
import selectors
import signal
import subprocess
import tempfile
import time
from collections.abc import Iterable, Iterator

from sondrel_restore.description import Domain
from sondrel_restore.host import account_of
from sondrel_restore.kind import RestoreError
from sondrel_restore.restore import Restore
from sondrel_restore.web.directives import one_line

_ENDINGS = (".php", ".phtml")
# In bytes. A larger file is data in the form of PHP; compiling it needs a hundred times its size in memory.
_LARGEST = 1 << 20
_MEMORY = "512M"
# In seconds, for all files of one object.
_TIME_LIMIT = 120.0
_LONGEST_MESSAGE = 200
_ACCOUNT = "nobody"
# Reads a path per line and answers each with a line: empty, or the number of the bad line and the message. Each file
# is compiled in a process of its own, so that its declarations do not affect the next file, nor does a crash.
_COMPILER = r"""
set_error_handler(fn() => true);
function reason($path) {
    try {
        if (opcache_compile_file($path)) return '';
        $error = error_get_last();
        return $error ? $error['line'] . ' ' . $error['message'] : '0 no reason is given';
    } catch (Throwable $error) {
        return $error->getLine() . ' ' . $error->getMessage();
    }
}
while (($path = fgets(STDIN)) !== false) {
    $child = pcntl_fork();
    if ($child === 0) {
        echo strtr(reason(rtrim($path, "\n")), "\r\n", '  '), "\n";
        exit(0);
    }
    pcntl_waitpid($child, $status);
    if ($status !== 0) echo "0 the compiler has ended\n";
}
"""


@contextlib.contextmanager
def _compiler(restore: Restore, version: str) -> Iterator[_Compiler]:
    """Runs a compiler process for the block. At the end the process and its directory are removed."""
    account = account_of(_ACCOUNT)
    assert account is not None
    with tempfile.TemporaryDirectory(prefix="sondrel-php-") as directory:
        # Files of a site may have passwords: only root and the compiler's account can enter, and the name is random.
        os.chown(directory, 0, account.pw_gid)
        os.chmod(directory, 0o710)
        with restore.host.start(
                [f"php{version}", "-d", f"memory_limit={_MEMORY}", "-d", "opcache.enable_cli=1",
                 "-d", "display_errors=0", "-d", "log_errors=0", "-r", _COMPILER], account=_ACCOUNT) as process:
            assert process.stdin is not None
            try:
                yield _Compiler(process, directory, account.pw_gid)
            finally:
                with contextlib.suppress(ProcessLookupError):
                    os.killpg(process.pid, signal.SIGKILL)
                # The compiler may be gone before it has read a path.
                with contextlib.suppress(BrokenPipeError):
                    process.stdin.close()


class _Compiler:
    """A process that compiles one file after the other, as an account without rights."""

    def __init__(self, process: subprocess.Popen[bytes], directory: str, group: int) -> None:
        self._process = process
        self._directory = directory
        self._group = group
        self._deadline = time.monotonic() + _TIME_LIMIT
        self.files = 0

    def reason(self, code: bytes) -> str | None:
        """The line and the reason why the code does not compile; empty if it does; None if there is no answer."""
        # Each file has a new name, because the compiler may cache results by name.
        path = f"{self._directory}/{self.files}"
        with open(path, "xb", opener=lambda name, flags: os.open(name, flags, 0o640)) as file:
            os.fchown(file.fileno(), 0, self._group)
            file.write(code)
        try:
            answer = self._answer(f"{path}\n".encode())
        finally:
            os.unlink(path)
        self.files += answer is not None
        return answer

    def _answer(self, line: bytes) -> str | None:
        process = self._process
        assert process.stdin is not None and process.stdout is not None
        try:
            process.stdin.write(line)
            process.stdin.flush()
        except BrokenPipeError:
            return None
        with selectors.DefaultSelector() as selector:
            selector.register(process.stdout, selectors.EVENT_READ)
            if not selector.select(max(0.0, self._deadline - time.monotonic())):
                return None
        answer = process.stdout.readline()
        return answer.decode("utf-8", "replace").rstrip("\n") if answer.endswith(b"\n") else None


@dataclasses.dataclass
class _Found:
    """The results of compiling a number of files."""

    failed: int = 0
    first: str = ""
    is_whole: bool = True


class OtherVersions:
    """Reports what another PHP version here than on the source host means for sites. Lives for one run."""

    def __init__(self) -> None:
        # The results by object: the files do not change during a run.
        self._said: dict[str, str] = {}

    def note(self, restore: Restore, identifier: str, domains: Iterable[Domain], there: str, here: str) -> str:
        """A clause for the object's plan; empty if the versions are the same.

        The files are compiled only until the object was made once: after that the application can be tried.
        """
        if not there or there == here:
            return ""
        if identifier not in self._said:
            # The plan shows only selected sites, so do not read the archives of others.
            chosen = [domain for domain in domains if restore.selection.takes_domain(domain.name)]
            is_new = restore.journal.entry(identifier) is None
            self._said[identifier] = uncompilable(restore, here, chosen) if is_new and chosen else ""
        return f"; it was PHP {there} there: {self._said[identifier] or 'try the application'}"


def uncompilable(restore: Restore, version: str, domains: Iterable[Domain]) -> str:
    """Says how many files of these sites PHP `version` cannot compile, and what is wrong with the first.

    Empty if there are none, or if that PHP has no command-line program here. The files are not run.
    """
    if not restore.host.has_program(f"php{version}") or account_of(_ACCOUNT) is None:
        return ""
    found = _Found()
    with _compiler(restore, version) as compiler:
        for path, code in _php_files(restore, domains):
            reason = compiler.reason(code)
            if reason is None:
                found.is_whole = False
                break
            if reason:
                line, _, message = reason.partition(" ")
                found.first = found.first or (
                    f", the first is {one_line(path)}, line {line}: {one_line(message)[:_LONGEST_MESSAGE]}")
                found.failed += 1
    return _sentence(version, compiler.files, found)


def _php_files(restore: Restore, domains: Iterable[Domain]) -> Iterator[tuple[str, bytes]]:
    """The PHP files of the sites. Skips an archive that cannot be read: the object that it belongs to reports that."""
    seen: set[str] = set()
    for domain in domains:
        for content in restore.description.contents(domain.element):
            file = str(content.get("file"))
            if content.get("kind") != "site" or file in seen:
                continue
            seen.add(file)
            with contextlib.suppress(RestoreError, OSError):
                for member, contents in restore.archive(content).members():
                    if member.kind == "file" and member.extents is None and 0 < member.size <= _LARGEST \
                            and member.path.lower().endswith(_ENDINGS):
                        yield member.path, contents.read()


def _sentence(version: str, files: int, found: _Found) -> str:
    if not found.failed:
        return "" if found.is_whole else f"PHP {version} has compiled {files} of its files, and gave no answer then"
    rest = "" if found.is_whole else "; it was not asked about more"
    return f"PHP {version} cannot compile {found.failed} of {files} PHP files{found.first}{rest}"
