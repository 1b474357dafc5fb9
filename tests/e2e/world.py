"""The private world that each end-to-end test lives in: its accounts, paths, processes, files and system log.

tests/private-world makes it. The test has its own network namespace (conftest.py), so a source host can have port 22.
"""
import contextlib
import ctypes
import dataclasses
import fcntl
import os
import pwd
import signal
import socket
import struct
import time
import xml.etree.ElementTree

import private_world

HERE = os.path.dirname(os.path.abspath(__file__))
TESTS = os.path.dirname(HERE)
BINARY = os.environ.get("SONDREL_BINARY", f"{os.path.dirname(TESTS)}/build/dev/bin/sondrel")

PRODUCT = "/mnt/product"
DTM = f"{PRODUCT}/DTM"
AGENTS = f"{DTM}/agents"
SESSION = "/mnt/session"
SOURCE_TREE = "/mnt/source"
SELECTED = "/mnt/selected.xml"
SHELL_DIRECTORY = "/mnt/shell"
RECORDS = f"{SHELL_DIRECTORY}/records"
LOGS = "/mnt/logs"
RUNS = "/mnt/runs"
HOST = "127.0.0.1"
CONFIGURATION = "/etc/qrv/qrv.conf"
SERVICE_ACCOUNT = 20000  # uid and gid of qrvadm


@dataclasses.dataclass(frozen=True)
class Login:
    """An account of the source host; sudo_password is None where sudo is not used."""
    name: str
    password: str
    sudo_password: str = None

    @property
    def home(self):
        return f"/mnt/home/{self.name}"

    @property
    def agent_dir(self):
        return f"{self.home}/agent"

    @property
    def ids(self):
        account = pwd.getpwnam(self.name)
        return account.pw_uid, account.pw_gid


ROOT = Login("root", "root-passphrase")
PLAIN = Login("plain", "plain-passphrase")
SUDOER = Login("sudoer", "sudoer-passphrase", "root-passphrase")
FREE_SUDOER = Login("freesudo", "freesudo-passphrase", "")
LOGINS = [ROOT, PLAIN, SUDOER, FREE_SUDOER]
LOGIN_KINDS = {"root login": ROOT, "plain login": PLAIN, "sudo by password": SUDOER,
               "sudo without password": FREE_SUDOER}


def wait_until(condition, what, deadline_seconds=30):
    """Returns the first true value of condition(); fails, naming `what`, at the deadline."""
    end = time.monotonic() + deadline_seconds
    while True:
        began = time.monotonic()
        value = condition()
        if value:
            return value
        now = time.monotonic()
        assert now < end, f"waited {deadline_seconds} s for {what}"
        # Asking may take long, as of all processes: most of the time must be left to what is waited for.
        time.sleep(min(max(0.005, 4 * (now - began)), 0.1))


def die_with_parent():
    """Run in a child: no server or tool survives a test that was killed."""
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


def enter():
    """Moves this process into a private world and network of its own. A world that private-world has made is kept."""
    if not os.path.isdir("/mnt/etc.orig"):
        libc = ctypes.CDLL(None, use_errno=True)
        assert libc.unshare(0x20000) == 0, os.strerror(ctypes.get_errno())  # CLONE_NEWNS
        # MS_REC | MS_PRIVATE: the worlds of other tests do not see these mounts.
        assert libc.mount(None, b"/", None, 0x4000 | 0x40000, None) == 0, os.strerror(ctypes.get_errno())
        private_world.make()
    enter_private_network()


def enter_private_network():
    """Gives this process its own loopback: port 22 is free, and only what the test starts listens."""
    assert os.path.isdir("/mnt/etc.orig"), "run this through tests/private-world"
    libc = ctypes.CDLL(None, use_errno=True)
    assert libc.unshare(0x40000000) == 0, os.strerror(ctypes.get_errno())  # CLONE_NEWNET
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as any_socket:
        # SIOCSIFFLAGS, with IFF_UP | IFF_LOOPBACK
        fcntl.ioctl(any_socket, 0x8914, struct.pack("16sh14x", b"lo", 0x1 | 0x8))


def processes():
    """(pid, command line) of each process of this private world."""
    here = os.readlink("/proc/self/ns/mnt")
    for name in filter(str.isdigit, os.listdir("/proc")):
        try:
            if os.readlink(f"/proc/{name}/ns/mnt") == here:
                yield int(name), read(f"/proc/{name}/cmdline")
        except (FileNotFoundError, ProcessLookupError, PermissionError):
            pass  # it has ended since the directory was listed, or is one that not even root may look into


def process_running(*arguments):
    """The pid of a process of this private world with exactly this command line, or None."""
    wanted = b"".join(os.fsencode(argument) + b"\0" for argument in arguments)
    return next((pid for pid, command in processes() if command == wanted), None)


def kill_together(pids):
    """Kills these processes, one at least. One of them may end by itself because another one is gone."""
    killed = 0
    for pid in pids:
        with contextlib.suppress(ProcessLookupError):
            os.kill(pid, signal.SIGKILL)
            killed += 1
    assert killed, "no process to kill"


def processor_ticks(pid):
    """The processor time that a process and the system for it have used, in the system's ticks."""
    fields = read(f"/proc/{pid}/stat").rpartition(b")")[2].split()
    return int(fields[11]) + int(fields[12])


# --- files -----------------------------------------------------------------------------------

def write(path, content=b"", mode=0o644, owner=None):
    """Makes the file and the directories above it; returns its path."""
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as out:
        out.write(os.fsencode(content))
    os.chmod(path, mode)
    if owner is not None:
        os.chown(path, *owner)
    return path


def read(path):
    with open(path, "rb") as file:
        return file.read()


@contextlib.contextmanager
def content_verified():
    """Makes this host's configuration compare content with the list as it arrives."""
    kept = read(CONFIGURATION)
    write(CONFIGURATION, kept + b"CONTENT_VERIFY yes\n")
    try:
        yield
    finally:
        write(CONFIGURATION, kept)


def owner_and_mode(path):
    """(uid, gid, permission bits)"""
    status = os.lstat(path)
    return status.st_uid, status.st_gid, status.st_mode & 0o7777


def files_below(directory):
    """{path relative to the directory, as bytes: content}"""
    top = os.fsencode(directory)
    return {os.path.relpath(os.path.join(parent, name), top): read(os.path.join(parent, name))
            for parent, _, names in os.walk(top) for name in names}


def tree(text):
    """An XML document as nested tuples: (name, [(attribute, value)...], text, [children...])."""
    def node(element):
        return element.tag, list(element.items()), element.text or "", [node(child) for child in element]
    return node(xml.etree.ElementTree.fromstring(text))


# --- system log ------------------------------------------------------------------------------

class SystemLog:
    """Takes the place of the system's logger at /dev/log. Everything that is sent is kept in a file."""

    def __enter__(self):
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind("/dev/log")
        os.chmod("/dev/log", 0o666)
        return self

    def __exit__(self, *exception):
        self.text()
        self._socket.close()
        os.unlink("/dev/log")

    def text(self):
        """All text so far. A datagram that was sent is here: sending is synchronous."""
        os.makedirs(LOGS, exist_ok=True)
        with open(f"{LOGS}/syslog", "ab") as kept:
            while True:
                try:
                    kept.write(self._socket.recv(65536, socket.MSG_DONTWAIT) + b"\n")
                except BlockingIOError:
                    break
        return os.fsdecode(read(f"{LOGS}/syslog"))
