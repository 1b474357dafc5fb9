"""What the end-to-end tests are made of: a source host, a destination, and the tool between them.

Everything lives in the private world that tests/private-world makes, and in a network
namespace of the test's own (conftest.py), so the source host can have port 22.
"""
import contextlib
import ctypes
import dataclasses
import fcntl
import functools
import os
import pwd
import re
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import time
import xml.etree.ElementTree

HERE = os.path.dirname(os.path.abspath(__file__))
TESTS = os.path.dirname(HERE)
BINARY = os.environ.get("SONDREL_BINARY", f"{os.path.dirname(TESTS)}/build/dev/bin/sondrel")

PRODUCT = "/mnt/product"
DTM = f"{PRODUCT}/DTM"
AGENTS = f"{DTM}/agents"
SESSION = "/mnt/session"
SOURCE_TREE = "/mnt/source"
SELECTED = "/mnt/selected.xml"
SHELL_FOLDER = "/mnt/shell"
RECORDS = f"{SHELL_FOLDER}/records"
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
        value = condition()
        if value:
            return value
        assert time.monotonic() < end, f"waited {deadline_seconds} s for {what}"
        time.sleep(0.005)


def die_with_parent():
    """Run in a child: no server or tool survives a test that was killed."""
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


def enter():
    """Moves this process into a private world and network of its own; one made by private-world is kept."""
    if not os.path.isdir("/mnt/etc.orig"):
        libc = ctypes.CDLL(None, use_errno=True)
        assert libc.unshare(0x20000) == 0, os.strerror(ctypes.get_errno())  # CLONE_NEWNS
        # MS_REC | MS_PRIVATE: the worlds of other tests do not see these mounts.
        assert libc.mount(None, b"/", None, 0x4000 | 0x40000, None) == 0, os.strerror(ctypes.get_errno())
        subprocess.run([f"{TESTS}/private-world", "--inside", "true"], check=True, stdin=subprocess.DEVNULL)
    enter_private_network()


def enter_private_network():
    """Loopback of our own: port 22 is free, and nothing listens that we did not start."""
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
            pass  # it has ended since the folder was listed, or is one that not even root may look into


def process_running(*arguments):
    """The pid of a process of this private world with exactly this command line, or None."""
    wanted = b"".join(os.fsencode(argument) + b"\0" for argument in arguments)
    return next((pid for pid, command in processes() if command == wanted), None)


def processor_ticks(pid):
    """The processor time that a process and the system for it have used, in the system's ticks."""
    fields = read(f"/proc/{pid}/stat").rpartition(b")")[2].split()
    return int(fields[11]) + int(fields[12])


# --- files -----------------------------------------------------------------------------------

def write(path, content=b"", mode=0o644, owner=None):
    """Makes the file, and the folders above it, and returns its path."""
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
    """This host's configuration compares content with the list as it arrives."""
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


def files_below(folder):
    """{path relative to the folder, as bytes: content}"""
    top = os.fsencode(folder)
    return {os.path.relpath(os.path.join(parent, name), top): read(os.path.join(parent, name))
            for parent, _, names in os.walk(top) for name in names}


def tree(text):
    """An XML document as nested tuples: (name, [(attribute, value)...], text, [children...])."""
    def node(element):
        return element.tag, list(element.items()), element.text or "", [node(child) for child in element]
    return node(xml.etree.ElementTree.fromstring(text))


# --- the source host -------------------------------------------------------------------------

@dataclasses.dataclass(frozen=True)
class RemoteCommand:
    """One command as the server saw it."""
    login: str
    line: str
    stdin: bytes


def use_shell(path, passwd="/etc/passwd"):
    """Gives all logins this shell; the accounts are those of the private world."""
    with open(passwd, encoding="utf-8") as accounts:
        lines = accounts.read().splitlines()
    names = {login.name for login in LOGINS}
    with open(passwd, "w", encoding="utf-8") as accounts:
        for line in lines:
            fields = line.split(":")
            if fields[0] in names:
                fields[6] = path
            accounts.write(":".join(fields) + "\n")


def set_password(login_name, password, shadow="/etc/shadow"):
    """Another password for an account of the private world."""
    hashed = subprocess.run(["perl", "-e", "print crypt $ARGV[0], '$6$rounds=1000$other$'", password],
                            check=True, stdout=subprocess.PIPE, text=True).stdout
    with open(shadow, encoding="utf-8") as accounts:
        lines = accounts.read().splitlines()
    with open(shadow, "w", encoding="utf-8") as accounts:
        for line in lines:
            fields = line.split(":")
            if fields[0] == login_name:
                fields[1] = hashed
            accounts.write(":".join(fields) + "\n")


@functools.lru_cache(maxsize=None)
def without_penalties():
    """Settings for a server that need not mind how many connections of ours fail: later ones refuse us then."""
    version = subprocess.run(["ssh", "-V"], check=True, stderr=subprocess.PIPE, text=True).stderr
    major, minor = map(int, re.match(r"OpenSSH_(\d+)\.(\d+)", version).groups())
    return ["PerSourcePenalties no"] if (major, minor) >= (9, 8) else []


# {kind: [(private, public)...]}, as bytes
_HOST_KEYS = {kind: [] for kind in ("ed25519", "ecdsa")}


def prepare_source_hosts():
    """Does for the tests that are forked from this process what is the same for each: keys for two servers of a test."""
    without_penalties()
    with tempfile.TemporaryDirectory() as folder:
        for kind, keys in _HOST_KEYS.items():
            for number in range(2):
                path = f"{folder}/{kind}.{number}"
                generate_key(kind, path)
                keys.append((read(path), read(f"{path}.pub")))


def generate_key(kind, path):
    """A new key pair without a passphrase."""
    subprocess.run(["ssh-keygen", "-q", "-t", kind, "-N", "", "-f", path], check=True)


def make_host_key(kind, path):
    """A key pair that no other server of this test has."""
    if not _HOST_KEYS.get(kind):
        generate_key(kind, path)
        return
    private, public = _HOST_KEYS[kind].pop()
    with open(os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600), "wb") as out:
        out.write(private)
    write(f"{path}.pub", public)


class SourceHost:
    """An OpenSSH server for the logins of the private world.

    `options` are lines of sshd_config and win over the defaults. With `recording`, the
    logins' shell keeps every command and its standard input: see commands(). It runs in the
    node (nodes.py) that is given, if one is.
    """

    def __init__(self, options=(), address=HOST, port=22, host_keys=("ed25519", "ecdsa"), recording=True, node=None):
        name = f"{node.name}.{port}" if node else str(port)
        self.port = port
        self.log = f"{LOGS}/sshd.{name}.log"
        own = node.own if node else str
        self.records = own(RECORDS)
        self._through = node.through if node else []
        self._folder = f"/mnt/sshd.{name}"
        os.makedirs(self._folder, mode=0o700, exist_ok=True)
        os.makedirs(LOGS, exist_ok=True)
        for kind in host_keys:
            if not os.path.exists(self.key_file(kind)):
                make_host_key(kind, self.key_file(kind))
        if recording:
            os.makedirs(self.records, exist_ok=True)
            os.chmod(self.records, 0o1777)
            shell = f"{SHELL_FOLDER}/recording-shell"
            shutil.copy(f"{HERE}/recording-shell", own(shell))
        use_shell(shell if recording else "/bin/sh", own("/etc/passwd"))
        # sshd holds on to the first value of a keyword.
        lines = list(options) + [f"HostKey {self.key_file(kind)}" for kind in host_keys] + [
            f"ListenAddress {address}:{port}", "PidFile none", "UsePAM yes", "PasswordAuthentication yes",
            "KbdInteractiveAuthentication yes", "PermitRootLogin yes", "UseDNS no", "LogLevel VERBOSE",
            "PrintMotd no", *without_penalties()]
        self._config = write(f"{self._folder}/sshd_config", "\n".join(lines) + "\n")
        self._server = None

    def key_file(self, kind):
        return f"{self._folder}/{kind}.key"

    def start(self):
        write(self.log)
        self._server = subprocess.Popen(
            [*self._through, "/usr/sbin/sshd", "-D", "-E", self.log, "-f", self._config],
            stdin=subprocess.DEVNULL, preexec_fn=die_with_parent)
        wait_until(self._listening, "the ssh server to listen")
        return self

    def _listening(self):
        assert self._server.poll() is None, "sshd has ended:\n" + read(self.log).decode()
        return b"Server listening on" in read(self.log)

    def connections(self):
        """The processes of the server that are there for a connection each."""
        return [int(pid) for pid in read(f"/proc/{self._server.pid}/task/{self._server.pid}/children").split()]

    def serves(self):
        """True while a process of the server is there for a connection."""
        return self.connections() != []

    def wait_until_idle(self):
        """A command goes on when its connection is lost; the next run is not to meet it."""
        known = {os.getpid(), self._server.pid}
        wait_until(lambda: {pid for pid, _ in processes()} <= known, "the last remote command to end")

    def stop(self):
        if self._server:
            self._server.kill()
            self._server.wait()
            self._server = None

    def __enter__(self):
        return self.start()

    def __exit__(self, *exception):
        self.stop()

    def commands(self):
        """All RemoteCommands so far, in the order of their starts."""
        def part(number, kind):
            return read(f"{self.records}/{number}.{kind}")
        numbers = sorted(name.split(".")[0] for name in os.listdir(self.records) if name.endswith(".command"))
        return [RemoteCommand(part(number, "login").decode(), os.fsdecode(part(number, "command")),
                              part(number, "stdin")) for number in numbers]

    def lines(self):
        """Only the command lines of commands()."""
        return [command.line for command in self.commands()]


def sh_quote(word):
    """The tool's quoting of one word, after its table; bytes above 127 stay as they are."""
    return re.sub(r"\n", "'\n'", re.sub(r"([ \t\"#$&'()*;<>?\[\\`|~])", r"\\\1", word))


def as_user(agent_dir, command):
    """The line that runs a command in the agent directory as the login."""
    return f"sh -c {sh_quote(f'cd {agent_dir}; {command}')}"


def as_root(login, command):
    """The line that runs a command in the agent directory as root; without sudo, as the login."""
    prefix = "" if login.sudo_password is None else "sudo -k; sudo -S -p ' ' "
    return as_user(login.agent_dir, prefix + command)


def sudo_check(login):
    """What goes before the first command for root: RemoteCommands."""
    if login.sudo_password is None:
        return []
    return [RemoteCommand(login.name, "sudo -V", b""),
            RemoteCommand(login.name, "sudo -k; sudo -S -p ' ' true", login.sudo_password.encode())]


def root_command(login, command, stdin=b""):
    """The RemoteCommand of a command for root: with sudo, its password goes ahead of the input."""
    password = f"{login.sudo_password}\n".encode() if login.sudo_password else b""
    return RemoteCommand(login.name, as_root(login, command), password + stdin)


def user_line(login, line, stdin=b""):
    """A RemoteCommand that is sent as it stands."""
    return RemoteCommand(login.name, line, stdin)


# --- agents ----------------------------------------------------------------------------------

SPEC = "Description: An agent of the tests\nEntryPoint: agent\nInterpreter: sh\n"


def install_agent(script="", name="sample", spec=SPEC):
    """An agent of one shell script in the destination's catalogue, and an empty shared folder."""
    os.makedirs(f"{AGENTS}/shared", exist_ok=True)
    write(f"{AGENTS}/{name}/agent", script)
    if spec is not None:
        write(f"{AGENTS}/{name}/control/spec", spec)


def install_sample_agent():
    """The Perl sample agent in the destination's catalogue, with SOURCE_TREE for its source."""
    shutil.copytree(f"{TESTS}/sample-agent", AGENTS, dirs_exist_ok=True)
    write(f"{AGENTS}/sample/source-tree", SOURCE_TREE + "\n")


def deployed_agent(login, script, files=None):
    """An agent of one shell script in the catalogue and already on the source host.

    The script is run with the agent directory, which belongs to the login, as its working
    directory; `files` ({relative path: content}) lie next to it.
    """
    install_agent(script)
    folder = os.fsencode(login.agent_dir)
    write(os.path.join(folder, b"agent"), script)
    for name, content in (files or {}).items():
        write(os.path.join(folder, os.fsencode(name)), content)
    for parent, folders, names in os.walk(folder):
        os.chown(parent, *login.ids)
        for name in names:
            os.chown(os.path.join(parent, name), *login.ids)


# --- the destination -------------------------------------------------------------------------

class Session:
    """The session directory of one migration."""

    def __init__(self, path=SESSION):
        self.path = path

    def file(self, name):
        return f"{self.path}/{name}"

    def read(self, name):
        return read(self.file(name))

    def exists(self, name):
        return os.path.lexists(self.file(name))

    def tree(self, name):
        return tree(self.read(name))

    def log(self):
        return os.fsdecode(self.read("migration.log"))

    def status(self):
        """migration.status without the process id, which is checked to be there."""
        name, attributes, text, children = self.tree("migration.status")
        assert children[0][0] == "pid" and children[0][2].isdigit(), children
        return name, attributes, text, children[1:]

    def result(self, name="migration.result"):
        return self.tree(name)

    def messages(self, name="migration.result"):
        """[(code, severity, description, [nested messages...])] of the result log."""
        return messages_in(self.tree(name))


UUID = re.compile(r"[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-8[0-9a-f]{3}-[0-9a-f]{12}")


def messages_in(node):
    """The message elements right below a node, each checked to have the form of all messages."""
    found = []
    for name, attributes, _, children in node[3]:
        if name != "message":
            continue
        assert [key for key, _ in attributes] == ["code", "id", "severity"], attributes
        assert UUID.fullmatch(attributes[1][1]), attributes
        assert children[0][0] == "description" and children[0][1] == [], children
        assert [child[0] for child in children[1:]] in ([], ["message"]), children
        found.append((attributes[0][1], attributes[2][1], children[0][2],
                      messages_in((name, attributes, "", children))))
    return found


@dataclasses.dataclass
class Outcome:
    """How a run of the tool ended."""
    code: int
    stdout: bytes
    stderr: bytes


class Running:
    """A run of the tool that has not been waited for."""

    _count = 0

    def __init__(self, arguments, password=None, sudo_password=None, stdin=b"", environment=None,
                 stdout=None, directory="/", through=(BINARY,), prepare=lambda: None):
        """`through` is what the arguments are given to; `prepare` is called in the child.

        With `stdout` the output goes to that file; False leaves the tool without an output.
        """
        Running._count += 1
        self._log = f"{RUNS}/{Running._count:03d}"
        os.makedirs(RUNS, exist_ok=True)
        write(f"{self._log}.arguments", "\n".join(map(str, arguments)) + "\n")
        write(f"{self._log}.stdin", stdin)
        write(f"{self._log}.stdout")
        environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C", "ASAN_OPTIONS": "exitcode=99",
                       "UBSAN_OPTIONS": "print_stacktrace=1", **(environment or {})}
        if password is not None:
            environment["QRV_PASSWORD"] = password
        if sudo_password is not None:
            environment["QRV_SUDO_PASSWORD"] = sudo_password
        if stdout is False:
            through = ["sh", "-c", 'exec "$@" >&-', "sh", *through]
        with open(f"{self._log}.stdin", "rb") as given, open(f"{self._log}.stderr", "wb") as stderr, \
                open(stdout or f"{self._log}.stdout", "wb") as output:
            self._process = subprocess.Popen([*through, *map(str, arguments)], env=environment, cwd=directory,
                                             stdin=given, stdout=output, stderr=stderr,
                                             preexec_fn=lambda: (die_with_parent(), prepare()))
        self.pid = self._process.pid

    def send(self, signal_number):
        self._process.send_signal(signal_number)

    def ended(self):
        return self._process.poll() is not None

    def stdout(self):
        return read(f"{self._log}.stdout")

    def kill(self):
        if not self.ended():
            self._process.kill()
        self._process.wait()

    def finish(self, deadline_seconds=60):
        """The Outcome; a run that does not end in time is killed and fails the test."""
        try:
            self._process.wait(deadline_seconds)
        except subprocess.TimeoutExpired:
            self.kill()
            raise AssertionError(f"the tool did not end within {deadline_seconds} s") from None
        stderr = read(f"{self._log}.stderr")
        assert b"Sanitizer" not in stderr and b"runtime error:" not in stderr, stderr.decode(errors="replace")
        return Outcome(self._process.returncode, self.stdout(), stderr)


def sondrel(*arguments, **how):
    """Runs the tool; `how` as for Running."""
    return Running(arguments, **how).finish()


class Destination:
    """Runs actions against the source host, as a caller would: passwords in the environment."""

    def __init__(self, login=ROOT, host=HOST, agent="sample", session=SESSION, agent_dir=None):
        self.login = login
        self.host = host
        self.agent = agent
        self.agent_dir = agent_dir or login.agent_dir
        self.session = Session(session)

    def arguments(self, action, *options):
        given = [f"--{action}", "--host", self.host, "--login", self.login.name,
                 "--session-path", self.session.path]
        if action != "send-scout":
            given += ["--agent-dir", self.agent_dir, "--agent-name", self.agent]
        if self.login.sudo_password is not None:
            given.append("--sudo-password")
        return given + list(options)

    def start(self, action, *options, **how):
        how = {"password": self.login.password, "sudo_password": self.login.sudo_password, **how}
        return Running(self.arguments(action, *options), **how)

    def run(self, action, *options, **how):
        return self.start(action, *options, **how).finish()


# --- system log ------------------------------------------------------------------------------

class SystemLog:
    """Stands where the system's logger would: /dev/log. Everything sent is kept in a file."""

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
        """All text so far: a datagram that was sent is here, since nobody sends asynchronously."""
        os.makedirs(LOGS, exist_ok=True)
        with open(f"{LOGS}/syslog", "ab") as kept:
            while True:
                try:
                    kept.write(self._socket.recv(65536, socket.MSG_DONTWAIT) + b"\n")
                except BlockingIOError:
                    break
        return os.fsdecode(read(f"{LOGS}/syslog"))
