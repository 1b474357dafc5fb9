"""Attacks by the account that owns the content directory: a process with the rights of the service account."""
import ctypes
import mmap
import os
import signal
import struct
import traceback

from world import SERVICE_ACCOUNT, die_with_parent, wait_until

LIBC = ctypes.CDLL(None, use_errno=True)
AT_FDCWD, RENAME_EXCHANGE = -100, 2


def exchange(one, other):
    """Swaps the names of two entries in one atomic step."""
    if LIBC.renameat2(AT_FDCWD, os.fsencode(one), AT_FDCWD, os.fsencode(other), RENAME_EXCHANGE) != 0:
        raise OSError(ctypes.get_errno(), f"exchange of {one} and {other}")


class Attacker:
    """Repeats `step` in a process of the service account, as fast as possible, until the block ends.

    `steps` counts the finished steps. A step is never interrupted; one that fails fails the test.
    """

    def __init__(self, step):
        self._step = step
        self._shared = mmap.mmap(-1, 16)  # the number of steps, and whether to stop

    def _read(self, offset):
        return struct.unpack_from("q", self._shared, offset)[0]

    @property
    def steps(self):
        return self._read(0)

    def __enter__(self):
        self._pid = os.fork()
        if self._pid == 0:
            code = 1
            try:
                die_with_parent()
                os.setgroups([])
                os.setgid(SERVICE_ACCOUNT)
                os.setuid(SERVICE_ACCOUNT)
                # The kernel reports a broken lease by this signal.
                signal.signal(signal.SIGIO, signal.SIG_IGN)
                while not self._read(8):
                    self._step()
                    struct.pack_into("q", self._shared, 0, self.steps + 1)
                code = 0
            except BaseException:  # pylint: disable=broad-except  # nothing may leave this process
                traceback.print_exc()
            finally:
                os._exit(code)
        self.wait_for(1)
        return self

    def wait_for(self, steps):
        wait_until(lambda: self.steps >= steps or self._ended(), f"{steps} steps of the attacker")
        assert self.steps >= steps, "the attacker has failed"

    def _ended(self):
        return os.waitid(os.P_PID, self._pid, os.WEXITED | os.WNOHANG | os.WNOWAIT) is not None

    def __exit__(self, *exception):
        struct.pack_into("q", self._shared, 8, 1)
        _, status = os.waitpid(self._pid, 0)
        assert status == 0, "the attacker has failed"
