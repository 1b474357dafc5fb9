"""A source host on which the commands of a content run wait wherever a test has placed a gate."""
import os
import shutil
import signal

from content import content_list
from source_host import SourceHost, deployed_agent
from tool import Destination, Session
from world import ROOT, wait_until, write

DIRECTORY = "/mnt/gates"
PROGRAMS = "/mnt/bin"

# Waits at the gate of this name, if there is one, after writing the number of the waiting process.
WAIT = f"""
gate() {{
  [ -p "{DIRECTORY}/$1" ] || return 0
  echo $$ > "{DIRECTORY}/$1.pid"
  read -r line < "{DIRECTORY}/$1"
}}
"""

CAT = f"""#!/bin/sh
{WAIT}
name=${{1##*/}}
half=$(($(stat -c %s "$1") / 2))
/bin/cat > /dev/null  # the end of its input is the last that the tool sends before it waits
gate "before cat $name"
head -c $half "$1"
gate "amid cat $name"
tail -c +$((half + 1)) "$1"
gate "after cat $name"
"""

RM = f"""#!/bin/sh
{WAIT}
gate "before rm ${{1##*/}}"
/bin/rm "$@" || exit
gate "after rm ${{1##*/}}"
"""

AGENT = f"""
{WAIT}
list=${{0%/*}}/list.xml
half=$(($(stat -c %s "$list") / 2))
gate "before the list"
head -c $half "$list"
gate "amid the list"
tail -c +$((half + 1)) "$list"
"""


def gated_host(options=(), port=22):
    """A SourceHost whose `cat` and `rm` stop at the gates."""
    write(f"{PROGRAMS}/cat", CAT, mode=0o755)
    write(f"{PROGRAMS}/rm", RM, mode=0o755)
    return SourceHost(options=[*options, f"SetEnv PATH={PROGRAMS}:/usr/bin:/bin"], port=port)


def offered_behind_gates(files, listed=()):
    """An agent that offers the files ({name: content}) and lists them, except where `listed` says otherwise."""
    shutil.rmtree(ROOT.agent_dir, ignore_errors=True)
    entries = listed or [(name, content, {}) for name, content in files.items()]
    deployed_agent(ROOT, AGENT, {"list.xml": content_list(entries), **files})


def run_to(point, files):
    """(running, gate) of a content run in a new session that waits at the point."""
    shutil.rmtree(Session().path, ignore_errors=True)
    offered_behind_gates(files)
    gate = Gate(point)
    running = Destination().start("get-content")
    gate.reached()
    return running, gate


class Gate:
    """A point, such as "amid cat NAME", at which the next command that gets there waits; its pid is known then."""

    def __init__(self, point):
        os.makedirs(DIRECTORY, exist_ok=True)
        self._path = f"{DIRECTORY}/{point}"
        self._point = point
        self.pid = None
        os.mkfifo(self._path)

    def reached(self):
        """Waits until a command waits here."""
        self.pid = int(wait_until(self._waiting, f"a command to come to: {self._point}"))

    def _waiting(self):
        try:
            with open(f"{self._path}.pid", encoding="utf-8") as pid:
                return pid.read()
        except FileNotFoundError:
            return None

    def is_shut(self):
        return os.path.exists(self._path)

    def open(self):
        """Lets the command go on, and waits for its end. Removes the gate."""
        with open(self._path, "wb") as pipe:
            os.unlink(self._path)
            os.unlink(f"{self._path}.pid")
            pipe.write(b"go on\n")
        self._gone()

    def kill(self, number):
        """Ends the waiting command by this signal."""
        self.forget()
        os.kill(self.pid, number)
        self._gone()

    def forget(self):
        """Leaves the command waiting, and removes the gate for other commands."""
        os.unlink(self._path)
        os.unlink(f"{self._path}.pid")

    def end(self):
        """Ends the command that was left waiting, unless it has ended by itself."""
        try:
            os.kill(self.pid, signal.SIGKILL)
        except ProcessLookupError:
            return
        self._gone()

    def _gone(self):
        wait_until(lambda: not os.path.exists(f"/proc/{self.pid}"), f"the end of the command at: {self._point}")
