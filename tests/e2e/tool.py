"""The tool as its callers run it: the run and its outcome, the session directory, the actions on a source host."""
import dataclasses
import os
import re
import subprocess

from world import BINARY, HOST, ROOT, RUNS, SESSION, die_with_parent, read, tree, write


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
        """migration.status without the process id; fails if that is missing."""
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
    """The message elements directly below a node; fails if one has not the form of all messages."""
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
        """`through` is a command that gets the arguments; `prepare` is called in the child.

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
        """Waits for the end; returns the Outcome. A run that does not end in time is killed and fails the test."""
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
