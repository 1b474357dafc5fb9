"""The agent "linux" without the tool: installed, deployed by hand, stopped at gates; and its dump."""
import contextlib
import os
import shutil
import subprocess
import sys
import xml.etree.ElementTree

from world import AGENTS, DTM, TESTS, die_with_parent, read, wait_until, write

SOURCES = f"{os.path.dirname(TESTS)}/agents"
FORMATS = f"{os.path.dirname(TESTS)}/docs/formats"
AGENT_DIR = "/mnt/agent"


def install_linux_agent():
    """Installs the agent and the scout in the destination's product directory."""
    for part in ("shared", "linux"):
        shutil.copytree(f"{SOURCES}/{part}", f"{AGENTS}/{part}", dirs_exist_ok=True)
    subprocess.run([f"{SOURCES}/bundle-scout", f"{DTM}/scout.pl"], check=True)


# Runs a program, and prints the KiB of its largest process. The kernel starts the count of a process with the
# memory of the one that started it, so this starter is small.
PEAK = """
import resource, subprocess, sys
status = subprocess.call(sys.argv[1:], stdout=sys.stderr)
print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)
sys.exit(status)
"""


class Agent:
    """The agent deployed by hand into a directory that belongs to `owner`."""

    def __init__(self, directory=AGENT_DIR, owner=(0, 0)):
        self.directory = directory
        self._started = []
        shutil.rmtree(directory, ignore_errors=True)
        for part in ("shared", "linux"):
            shutil.copytree(f"{SOURCES}/{part}", directory, dirs_exist_ok=True, ignore=shutil.ignore_patterns("control"))
        for parent, _, names in os.walk(directory):
            for name in [".", *names]:
                os.chown(os.path.join(parent, name), *owner)

    def start(self, *arguments, given=b"", environment=None, user=0, through=()):
        with open(write("/mnt/agent.stdin", given), "rb") as stdin:
            self._started.append(subprocess.Popen(
                [*through, "perl", f"{self.directory}/agent.pl", *arguments], stdin=stdin, stdout=subprocess.PIPE,
                stderr=subprocess.PIPE, cwd="/", user=user, group=user, extra_groups=[], preexec_fn=die_with_parent,
                env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", **(environment or {})}))
        return self._started[-1]

    def end(self):
        """Ends the processes that a failed test has left."""
        for process in self._started:
            if process.poll() is None:
                process.terminate()
                process.communicate(timeout=20)

    def run(self, *arguments, **how):
        """The finished run: returncode, stdout, stderr."""
        process = self.start(*arguments, **how)
        stdout, stderr = process.communicate(timeout=100)
        return subprocess.CompletedProcess(process.args, process.returncode, stdout, stderr)

    def peak_memory(self, *arguments):
        """The most bytes that a process of a run had; the run must succeed."""
        process = self.start(*arguments, through=[sys.executable, "-c", PEAK])
        stdout, stderr = process.communicate(timeout=100)
        assert (process.returncode, stderr) == (0, b"")
        return int(stdout) * 1024

    def dump(self, *arguments, **how):
        """A dump that must succeed."""
        result = self.run("--migration-mode", *arguments, **how)
        assert (result.returncode, result.stderr) == (0, b""), result
        return Dump(read(f"{self.directory}/dump.xml"))

    def status(self):
        return xml.etree.ElementTree.fromstring(read(f"{self.directory}/dumping-status.xml"))

    def content(self):
        """Paths of the finished content files, relative to the agent directory."""
        return sorted(os.path.relpath(os.path.join(parent, name), self.directory)
                      for parent, _, names in os.walk(f"{self.directory}/content") for name in names
                      if not name.endswith(".new"))


@contextlib.contextmanager
def without_perl_modules(module):
    """Makes perl find neither this module nor those beside it, as on a host without their packages."""
    file = subprocess.run(["perl", f"-M{module}", "-e", "print $INC{$ARGV[0]}", f"{module.replace('::', '/')}.pm"],
                          check=True, stdout=subprocess.PIPE).stdout
    subprocess.run(["mount", "-t", "tmpfs", "empty", os.path.dirname(file)], check=True)
    try:
        yield
    finally:
        subprocess.run(["umount", os.path.dirname(file)], check=True)


PROGRAMS = "/mnt/programs"
GATE = f"{PROGRAMS}/gate"
# Waits before it makes the archive with this number, counted from 1, and reports that it waits.
TAR = f"""#!/bin/sh
case " $* " in
*" --create "*)
  echo x >> {PROGRAMS}/calls
  if [ "$(grep -c x {PROGRAMS}/calls)" = "$(cat {PROGRAMS}/which)" ]; then
    echo $$ > {PROGRAMS}/waiting
    read -r line < {GATE}
  fi ;;
esac
exec /usr/bin/tar "$@"
"""


class Gate:
    """Makes a dump wait just before it makes the archive with this number."""

    def __init__(self, which):
        shutil.rmtree(PROGRAMS, ignore_errors=True)
        write(f"{PROGRAMS}/tar", TAR, mode=0o755)
        write(f"{PROGRAMS}/which", f"{which}\n")
        os.mkfifo(GATE)
        self.path = f"{PROGRAMS}:/usr/sbin:/usr/bin:/sbin:/bin"

    def wait(self):
        wait_until(lambda: os.path.exists(f"{PROGRAMS}/waiting") and read(f"{PROGRAMS}/waiting").endswith(b"\n"),
                   "the archive to be begun")

    def open(self):
        with open(GATE, "wb"):
            pass


def check_schema(text, schema):
    """The document is as docs/formats says."""
    result = subprocess.run(["xmllint", "--noout", "--schema", f"{FORMATS}/{schema}.xsd", "-"], input=text,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    assert result.returncode == 0, result.stdout.decode() + text.decode()[:4000]


class Dump:
    """A dump document."""

    def __init__(self, text):
        self.text = text
        self.root = xml.etree.ElementTree.fromstring(text)

    def names(self, kind):
        """Names of all objects of the kind."""
        return sorted(element.get("address" if kind == "mailbox" else "name") for element in self.root.iter(kind))

    def objects(self):
        return {kind: self.names(kind) for kind in ("reseller", "client", "domain", "database", "mailbox")
                if self.names(kind)}

    def find(self, kind, name):
        found = [element for element in self.root.iter(kind) if name in (element.get("name"), element.get("address"))]
        assert len(found) == 1, f"{kind} {name}: {len(found)}"
        return found[0]

    def files(self):
        """{file: content entry} of everything that was archived."""
        return {element.get("file"): element for element in self.root.iter("content")}

    def problems(self, severity=None):
        """[(object, text)]"""
        return [(element.get("object"), element.text) for element in self.root.iter("problem")
                if severity in (None, element.get("severity"))]

    def losses(self):
        """The errors, except the one about the shop's database on a host without its server."""
        return [(object_, text) for object_, text in self.problems("error")
                if object_ != "shop.a.test" or "names the database shop, for which no server was found" not in text]
