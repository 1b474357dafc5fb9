"""Several machines in one test: each with a network, an address, processes and directories of its own."""
import contextlib
import ctypes
import os
import shutil
import signal
import subprocess

from source_host import SourceHost, set_password
from world import LOGINS, PRODUCT, SHELL_DIRECTORY, die_with_parent

STORE = "/mnt/nodes"
NETWORK = "10.77.0"
SESSIONS = "/mnt/migrations"
# The machine's own directories are in STORE/NAME, where the test can read them.
EMPTY_DIRECTORIES = ["/tmp", "/run", PRODUCT, SHELL_DIRECTORY, SESSIONS, *(login.home for login in LOGINS)]
OWN_DIRECTORIES = ["/etc", *EMPTY_DIRECTORIES]
CLONE_NEWNS, CLONE_NEWPID, CLONE_NEWNET = 0x20000, 0x20000000, 0x40000000


def run(*words):
    subprocess.run(words, check=True, stdin=subprocess.DEVNULL)


@contextlib.contextmanager
def cables():
    """The switch that connects the machines; the test itself has the first address."""
    for directory in EMPTY_DIRECTORIES:
        os.makedirs(directory, exist_ok=True)
    run("ip", "link", "add", "name", "cables", "type", "bridge")
    run("ip", "address", "add", f"{NETWORK}.1/24", "dev", "cables")
    run("ip", "link", "set", "cables", "up")
    yield
    run("ip", "link", "delete", "cables")
    shutil.rmtree(STORE)


def close_all_but(*kept):
    """Closes all descriptors except the standard streams: a machine must not have what the test has open."""
    for name in os.listdir("/proc/self/fd"):
        if int(name) > 2 and int(name) not in kept:
            # The descriptor of the listing itself is closed already.
            with contextlib.suppress(OSError):
                os.close(int(name))


class Node:
    """A machine. Its processes end with it.

    Its directories are empty at first; /etc is that of the private world. `furnish` is called inside, before the
    machine is on the network.
    """

    def __init__(self, name, number, furnish=lambda: None):
        self.name = name
        self.address = f"{NETWORK}.{number}"
        self.store = f"{STORE}/{name}"
        self._make_directories()
        self._life, life_inside = os.pipe()[::-1]
        answer, told = os.pipe()
        self._child = os.fork()
        if self._child == 0:
            self._live(furnish, told, life_inside)
        os.close(life_inside)
        os.close(told)
        with open(answer, "rb") as file:
            self.pid = int(file.read())
        self._plug_in()

    @property
    def through(self):
        """The words in front of a command that runs it in the machine."""
        # --root, because a chroot would be left with the namespace otherwise.
        return ["nsenter", "--target", str(self.pid), "--mount", "--net", "--pid", "--root", "--wd=/", "--"]

    def run(self, *words):
        run(*self.through, *words)

    def own(self, path):
        """The path by which the test reaches a path of the machine."""
        if any(path == directory or path.startswith(directory + "/") for directory in OWN_DIRECTORIES):
            return self.store + path
        return f"/proc/{self.pid}/root{path}"

    def set_password(self, login, password):
        set_password(login.name, password, self.own("/etc/shadow"))

    def server(self, options=(), recording=True):
        """Its SSH server, which has not been started."""
        return SourceHost(options, self.address, host_keys=("ed25519",), recording=recording, node=self)

    def stop(self):
        os.close(self._life)
        os.waitpid(self._child, 0)

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        self.stop()

    def _make_directories(self):
        shutil.copytree("/etc", f"{self.store}/etc", symlinks=True)
        for directory in EMPTY_DIRECTORIES:
            os.makedirs(self.store + directory)
        for login in LOGINS:
            os.chown(self.store + login.home, *login.ids)
        os.chmod(f"{self.store}/tmp", 0o1777)
        os.makedirs(f"{self.store}/run/sshd")

    def _plug_in(self):
        inside, outside = f"{self.name}-in", f"{self.name}-out"
        run("ip", "link", "add", "name", outside, "type", "veth", "peer", "name", inside, "netns", str(self.pid))
        run("ip", "link", "set", "dev", outside, "master", "cables", "up")
        self.run("ip", "link", "set", "dev", "lo", "up")
        self.run("ip", "address", "add", f"{self.address}/24", "dev", inside)
        self.run("ip", "link", "set", "dev", inside, "up")

    # --- inside ---

    def _live(self, furnish, told, life):
        """Never returns. The first process of the machine must be a child of the process that makes the namespace."""
        status = 1
        try:
            die_with_parent()
            close_all_but(told, life)
            libc = ctypes.CDLL(None, use_errno=True)
            if libc.unshare(CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWNET) != 0:
                raise OSError(ctypes.get_errno(), "unshare")
            first = os.fork()
            if first == 0:
                die_with_parent()
                self._be_first(furnish, told, life)
            else:
                os.close(told)
                os.waitpid(first, 0)
            status = 0
        except BaseException as error:
            os.write(2, f"{self.name}: {error!r}\n".encode())
        finally:
            os._exit(status)

    def _be_first(self, furnish, told, life):
        """Returns when the machine must end."""
        # The process numbers here are those of the namespace that mounted /proc.
        pid = os.readlink("/proc/self")
        for path in OWN_DIRECTORIES:
            run("mount", "--bind", self.store + path, path)
        run("mount", "-t", "proc", "proc", "/proc")
        furnish()
        # The kernel reaps orphans then.
        signal.signal(signal.SIGCHLD, signal.SIG_IGN)
        os.write(told, pid.encode())
        os.close(told)
        os.read(life, 1)
