"""The source host of the end-to-end tests: its SSH server, the commands that it gets, and the agents on it."""
import dataclasses
import functools
import os
import re
import shutil
import subprocess
import tempfile

from world import (AGENTS, HERE, HOST, LOGINS, LOGS, RECORDS, SHELL_DIRECTORY, SOURCE_TREE, TESTS, die_with_parent,
                   processes, read, wait_until, write)


@dataclasses.dataclass(frozen=True)
class RemoteCommand:
    """One command as the server received it."""
    login: str
    line: str
    stdin: bytes


def use_shell(path, passwd="/etc/passwd"):
    """Gives all logins of the private world this shell."""
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
    """Changes the password of an account of the private world."""
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
    """Settings for a server that must not care how many of our connections fail: others would refuse later ones."""
    version = subprocess.run(["ssh", "-V"], check=True, stderr=subprocess.PIPE, text=True).stderr
    major, minor = map(int, re.match(r"OpenSSH_(\d+)\.(\d+)", version).groups())
    return ["PerSourcePenalties no"] if (major, minor) >= (9, 8) else []


# {kind: [(private, public)...]}, as bytes
_HOST_KEYS = {kind: [] for kind in ("ed25519", "ecdsa")}


def prepare_source_hosts():
    """Makes the host keys of two servers, and the shell, for the tests that are forked from this process."""
    without_penalties()
    recording_shell()
    with tempfile.TemporaryDirectory() as directory:
        for kind, keys in _HOST_KEYS.items():
            for number in range(2):
                path = f"{directory}/{kind}.{number}"
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


@functools.lru_cache(maxsize=None)
def recording_shell():
    """The program that recording_shell.c makes."""
    with tempfile.TemporaryDirectory() as directory:
        program = f"{directory}/recording-shell"
        subprocess.run(["cc", "-O1", "-Wall", "-Wextra", "-Werror", "-o", program, f"{HERE}/recording_shell.c"],
                       check=True)
        return read(program)


class SourceHost:
    """An OpenSSH server for the logins of the private world.

    `options` are lines of sshd_config, which override the defaults. With `recording`, the logins' shell records every
    command and its standard input: see commands(). The server runs in `node` (nodes.py), if one is given.
    """

    def __init__(self, options=(), address=HOST, port=22, host_keys=("ed25519", "ecdsa"), recording=True, node=None):
        name = f"{node.name}.{port}" if node else str(port)
        self.port = port
        self.log = f"{LOGS}/sshd.{name}.log"
        own = node.own if node else str
        self.records = own(RECORDS)
        self._through = node.through if node else []
        self._directory = f"/mnt/sshd.{name}"
        os.makedirs(self._directory, mode=0o700, exist_ok=True)
        os.makedirs(LOGS, exist_ok=True)
        for kind in host_keys:
            if not os.path.exists(self.key_file(kind)):
                make_host_key(kind, self.key_file(kind))
        if recording:
            os.makedirs(self.records, exist_ok=True)
            os.chmod(self.records, 0o1777)
            shell = f"{SHELL_DIRECTORY}/recording-shell"
            # A running program cannot be written.
            if not os.path.exists(own(shell)):
                write(own(shell), recording_shell(), mode=0o755)
        use_shell(shell if recording else "/bin/sh", own("/etc/passwd"))
        # sshd uses the first value of a keyword.
        lines = list(options) + [f"HostKey {self.key_file(kind)}" for kind in host_keys] + [
            f"ListenAddress {address}:{port}", "PidFile none", "UsePAM yes", "PasswordAuthentication yes",
            "KbdInteractiveAuthentication yes", "PermitRootLogin yes", "UseDNS no", "LogLevel VERBOSE",
            "PrintMotd no", *without_penalties()]
        self._config = write(f"{self._directory}/sshd_config", "\n".join(lines) + "\n")
        self._server = None

    def key_file(self, kind):
        return f"{self._directory}/{kind}.key"

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
        """The processes of the server that serve one connection each."""
        return [int(pid) for pid in read(f"/proc/{self._server.pid}/task/{self._server.pid}/children").split()]

    def serves(self):
        """True while a process of the server serves a connection."""
        return self.connections() != []

    def wait_until_idle(self):
        """Waits until no command runs: a command goes on when its connection is lost, and must not disturb the next
        run.
        """
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
    """Quotes one word as the tool does, by its table; bytes above 127 stay as they are."""
    return re.sub(r"\n", "'\n'", re.sub(r"([ \t\"#$&'()*;<>?\[\\`|~])", r"\\\1", word))


def as_user(agent_dir, command):
    """The line that runs a command in the agent directory as the login."""
    return f"sh -c {sh_quote(f'cd {agent_dir}; {command}')}"


def as_root(login, command):
    """The line that runs a command in the agent directory as root; without sudo, as the login."""
    prefix = "" if login.sudo_password is None else "sudo -k; sudo -S -p ' ' "
    return as_user(login.agent_dir, prefix + command)


def sudo_check(login):
    """The RemoteCommands before the first command for root."""
    if login.sudo_password is None:
        return []
    return [RemoteCommand(login.name, "sudo -V", b""),
            RemoteCommand(login.name, "sudo -k; sudo -S -p ' ' true", login.sudo_password.encode())]


def root_command(login, command, stdin=b""):
    """The RemoteCommand of a command for root: with sudo, the password comes before the input."""
    password = f"{login.sudo_password}\n".encode() if login.sudo_password else b""
    return RemoteCommand(login.name, as_root(login, command), password + stdin)


def user_line(login, line, stdin=b""):
    """A RemoteCommand that is sent as it stands."""
    return RemoteCommand(login.name, line, stdin)


# --- agents ---------------------------------------------------------------------------------------

SPEC = "Description: An agent of the tests\nEntryPoint: agent\nInterpreter: sh\n"


def install_agent(script="", name="sample", spec=SPEC):
    """Installs an agent of one shell script in the destination's catalogue, and an empty shared directory."""
    os.makedirs(f"{AGENTS}/shared", exist_ok=True)
    write(f"{AGENTS}/{name}/agent", script)
    if spec is not None:
        write(f"{AGENTS}/{name}/control/spec", spec)


def install_sample_agent():
    """Installs the Perl sample agent in the destination's catalogue, with SOURCE_TREE as its source."""
    shutil.copytree(f"{TESTS}/sample-agent", AGENTS, dirs_exist_ok=True)
    write(f"{AGENTS}/sample/source-tree", SOURCE_TREE + "\n")


def deployed_agent(login, script, files=None):
    """An agent of one shell script in the catalogue and already on the source host.

    The script runs in the agent directory, which belongs to the login; `files` ({relative path: content}) are beside
    it.
    """
    install_agent(script)
    directory = os.fsencode(login.agent_dir)
    write(os.path.join(directory, b"agent"), script)
    for name, content in (files or {}).items():
        write(os.path.join(directory, os.fsencode(name)), content)
    for parent, directories, names in os.walk(directory):
        os.chown(parent, *login.ids)
        for name in names:
            os.chown(os.path.join(parent, name), *login.ids)
