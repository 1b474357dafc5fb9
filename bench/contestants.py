"""The compared programs, the source host and the link to it, and the time measurement."""
import dataclasses
import hashlib
import os
import re
import shlex
import statistics
import subprocess
import sys
import time
from xml.sax.saxutils import escape

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, f"{TOP}/tests/e2e")
from source_host import SPEC, SourceHost, deployed_agent, install_agent  # noqa: E402
from tool import Destination  # noqa: E402
from world import AGENTS, BINARY, HOST, ROOT, die_with_parent, read, write  # noqa: E402

RELAY = os.environ["RELAY_BINARY"]
PRISTINE = "/mnt/pristine/content"  # the runs fetch and remove hard links to these files
OFFERED = f"{ROOT.agent_dir}/content"
CATALOGUED = f"{AGENTS}/sample"
PEER = f"{ROOT.name}@{HOST}"
KEY = "/mnt/bench.key"
# No ssh configuration of the machine, and no questions.
SSH_OPTIONS = ["-F", "none", "-i", KEY, "-o", "IdentitiesOnly=yes", "-o", "BatchMode=yes", "-o", "LogLevel=ERROR",
               "-o", "StrictHostKeyChecking=no", "-o", "UserKnownHostsFile=/dev/null"]
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C", "QRV_PASSWORD": ROOT.password}


def remove(*paths):
    subprocess.run(["rm", "-rf", "--", *paths], check=True)


# --- time measurement ------------------------------------------------------------------------

@dataclasses.dataclass
class Run:
    """The measurements of one command, or of several in a row."""
    seconds: float = 0.0
    cpu_seconds: float = 0.0
    peak_kib: int = 0


def timed(*commands):
    """Runs the commands and returns their Run. Ends the benchmark if one fails."""
    run = Run()
    for command in commands:
        # Started by time(1): a child forked from this process would begin with its memory, which would count.
        watched = ["time", "--quiet", "--output=/mnt/time", "--format=%M %U %S", *command]
        start = time.perf_counter()
        done = subprocess.run(watched, env=ENVIRONMENT, cwd="/", stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, check=False)
        run.seconds += time.perf_counter() - start
        if done.returncode != 0:
            sys.exit(f"{shlex.join(command)}: exit code {done.returncode}\n{os.fsdecode(done.stderr)}")
        peak, user, system = read("/mnt/time").split()
        run.peak_kib = max(run.peak_kib, int(peak))
        run.cpu_seconds += float(user) + float(system)
    return run


class Runs(list):
    """The Runs of one contestant in one case."""

    @property
    def seconds(self):
        return statistics.median(run.seconds for run in self)

    @property
    def cpu_seconds(self):
        return statistics.median(run.cpu_seconds for run in self)

    @property
    def peak_mib(self):
        return max(run.peak_kib for run in self) / 1024


def measure(contestants, pairs, prepare=lambda: None, check=lambda name: None):
    """Runs the contestants ({name: commands}) in turns; returns {name: Runs}."""
    measured = {name: Runs() for name in contestants}
    for pair in range(pairs):
        for name, commands in contestants.items():
            prepare()
            run = timed(*commands)
            check(name)
            measured[name].append(run)
            print(f"  {pair + 1}/{pairs} {name}: {run.seconds:.3f} s", file=sys.stderr)
    return measured


# --- the source host and the link to it ------------------------------------------------------

class BenchHost(SourceHost):
    """A source host with Debian's settings that accepts the key of the other programs."""

    def __init__(self, *options, port=22):
        super().__init__([*options, "LogLevel INFO", "Subsystem sftp /usr/lib/openssh/sftp-server"], port=port,
                         recording=False)
        if not os.path.exists(KEY):
            subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", KEY], check=True)
        write(f"{ROOT.home}/.ssh/authorized_keys", read(f"{KEY}.pub"), 0o600)


class Link:
    """A connection to a port of this host; without a relay if it has neither delay nor limit."""

    def __init__(self, rtt_ms=0, gbit=None, target=22, relayed=None):
        self.port = target
        self._relay = None
        if rtt_ms or gbit or relayed:
            limit = [str(gbit * 1e9)] if gbit else []
            self._relay = subprocess.Popen([RELAY, str(target), str(rtt_ms * 500), *limit],
                                           stdout=subprocess.PIPE, preexec_fn=die_with_parent)
            self.port = int(self._relay.stdout.readline())

    def __enter__(self):
        return self

    def __exit__(self, *exception):
        if self._relay:
            self._relay.kill()
            self._relay.communicate()


# --- the contestants: each function returns the commands -------------------------------------

def sondrel(link, session, action="get-content", batches=False, agent="sample"):
    asked = ["env", "SONDREL_CONTENT_BATCH=yes", "SONDREL_DEPLOY_BATCH=yes"] if batches else []
    return [[*asked, BINARY, *Destination(ROOT, session=session, agent=agent).arguments(
        action, "--port", str(link.port))]]


def further_pass(link, session):
    """A dump of what has changed and the fetch of it, as sondrel-migrate runs them."""
    commands = [command for action in ("dump-all", "get-content")
                for command in sondrel(link, session, action, batches=True, agent="linux")]
    return [[*command[:1], "SONDREL_DUMP_INCREMENTS=yes", *command[1:]] for command in commands]


def scp(link, source, target):
    return [["scp", "-q", "-r", *SSH_OPTIONS, "-o", f"Port={link.port}", source, target]]


def rsync(link, source, target, *options):
    return [["rsync", "-a", *options, "-e", shlex.join(["ssh", *SSH_OPTIONS, "-p", str(link.port)]), source, target]]


def ssh(link, *command, options=()):
    return [["ssh", *SSH_OPTIONS, "-p", str(link.port), *options, PEER, shlex.join(command)]]


def ssh_cat(link, source, target, cipher, mac):
    # A cipher with its own authentication needs no MAC.
    macs = [] if mac == "<implicit>" else ["-m", mac]
    command, = ssh(link, "cat", source, options=["-c", cipher, *macs])
    return [["sh", "-c", 'out=$1; shift; mkdir -p "${out%/*}" && exec "$@" > "$out"', "sh", target, *command]]


def negotiated_algorithms():
    """The (cipher, MAC) that the tool and the source host negotiate for the data that the tool receives."""
    offer({})
    with BenchHost("LogLevel DEBUG1", port=2222) as host:
        timed(*sondrel(Link(target=host.port), "/mnt/session"))
        return re.search(r"kex: server->client cipher: (\S+) MAC: (\S+)", read(host.log).decode()).groups()


# --- files -----------------------------------------------------------------------------------

def make_pristine(count, size, sparse=False):
    """Makes new files, in directories of 100; returns {name: MD5 sum}."""
    remove(PRISTINE)
    os.makedirs(PRISTINE)
    sums = {}
    for number in range(count):
        name = f"content/{number // 100:03d}/{number:06d}"
        path = f"{os.path.dirname(PRISTINE)}/{name}"
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w+b") as file:
            if sparse:
                file.truncate(size)
            for begin in range(0, 0 if sparse else size, 1 << 20):
                file.write(os.urandom(min(1 << 20, size - begin)))
            file.seek(0)
            sums[name] = hashlib.file_digest(file, "md5").hexdigest()
    return sums


def offer(sums, size=0):
    """Makes the agent on the source host list these files, each with `size` bytes."""
    files = "".join(f'<file size="{size}" md5sum="{md5}">{escape(name)}</file>' for name, md5 in sums.items())
    total = size * len(sums)
    deployed_agent(ROOT, f'cat "${{0%/*}}/list.xml"\n', {
        "list.xml": f'<contentlist size="{total}" unpacked="{total}">{files}</contentlist>'})


def catalogue(count, size):
    """Puts an agent with that many files into the catalogue."""
    remove(CATALOGUED)
    install_agent("echo deployed\n", spec=SPEC)
    make_pristine(count, size)
    subprocess.run(["cp", "-a", PRISTINE, CATALOGUED], check=True)


def link_files(target):
    """Puts hard links to the pristine files below the directory, so that they look like new files there."""
    remove(target)
    os.makedirs(os.path.dirname(target), exist_ok=True)
    subprocess.run(["cp", "-al", PRISTINE, target], check=True)


def same(left, right):
    """Ends the benchmark if the files of two directories differ."""
    done = subprocess.run(["diff", "-rq", "--exclude=control", left, right], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, check=False)
    if done.returncode != 0:
        sys.exit(f"{left} and {right} are not the same:\n{os.fsdecode(done.stdout)}")
