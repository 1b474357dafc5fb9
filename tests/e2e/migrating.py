"""Runs of `sondrel-migrate`: with the real sondrel beside it, or with an imitated one that a test can control."""
import os
import shutil
import xml.etree.ElementTree

from source_host import install_sample_agent
from tool import Running
from world import BINARY, DTM, HOST, ROOT, SESSION, SOURCE_TREE, read, write

MIGRATE = f"{os.path.dirname(BINARY)}/sondrel-migrate"
STEPS = ["scout", "deploy", "dump", "content", "remove"]
RESTORE_STEPS = ["plan", "apply", "verify"]
STEPS_AND_STATUS = [*STEPS, *RESTORE_STEPS, "status"]
IMITATION = "/mnt/imitation"

# Records its arguments, environment and so on, then runs the file of its step, if there is one.
IMITATED_SONDREL = f"""#!/bin/bash
for word; do
  case $word in
    --send-scout) step=scout ;;
    --deploy-agent) step=deploy ;;
    --dump-all | --dump-selected) step=dump ;;
    --get-content) step=content ;;
    --remove-agent) step=remove ;;
    --get-dumping-status) step=status ;;
    plan | apply | verify) step=$word ;;
  esac
done
kept={IMITATION}/runs/$(ls {IMITATION}/runs | wc -l).$step
mkdir "$kept"
printf '%s\\n' "$@" > "$kept/arguments"
cat /proc/$$/environ > "$kept/environment"
ls -l /proc/$$/fd > "$kept/descriptors"
cat > "$kept/input"
touch "$kept/complete"
[ -e {IMITATION}/$step ] || exit 0
. {IMITATION}/$step
"""


def in_place(login, *options, host=HOST, session=SESSION):
    """The arguments of a migration from `host` by `login`; the agent's directory goes into the login's home.

    It is final, so that all steps are made, unless --keep-agent is one of the options.
    """
    given = [f"--session-path={session}", f"--host={host}", f"--login={login.name}", "--agent-name=sample",
             f"--agent-parent={login.home}"]
    given += ["--final"] * ("--keep-agent" not in options)
    return given + ["--sudo"] * (login.sudo_password is not None) + list(options)


def start(*arguments, login=ROOT, program=MIGRATE, **how):
    """A run of sondrel-migrate with the passwords of the login in the environment."""
    how = {"password": login.password, "sudo_password": login.sudo_password, **how}
    return Running(arguments, through=how.pop("through", (program,)), **how)


def migrate(*arguments, **how):
    return start(*arguments, **how).finish()


def sample_source(files):
    """The sample agent and a scout at the destination, and a source tree of these files ({path: content})."""
    install_sample_agent()
    write(f"{DTM}/scout.pl", "print qq{<scout/>};")
    for path, content in files.items():
        write(f"{SOURCE_TREE}/{path}", content)


def status(session=SESSION):
    """The lines of `sondrel-migrate status`, as {name: text}."""
    outcome = Running(["status", session], through=(MIGRATE,)).finish()
    assert (outcome.code, outcome.stderr) == (0, b""), outcome
    return dict(line.split(": ", 1) for line in outcome.stdout.decode().splitlines())


class State:
    """The state document of a session."""

    def __init__(self, session=SESSION):
        self.path = f"{session}/migrate/state.xml"
        self.text = read(self.path)
        root = xml.etree.ElementTree.fromstring(self.text)
        self.settings = {node.get("name"): node.text for node in root.iter("setting")}
        self.steps = {node.get("name"): node for node in root.iter("step")}
        self.agent_directory = root.get("agent-folder")

    def progress(self):
        return {name: node.get("state") for name, node in self.steps.items()}


def progress_of(*states, steps=tuple(STEPS)):
    """{step: state}; steps beyond the given states are waiting."""
    return dict(zip(steps, [*states, *["waiting"] * (len(steps) - len(states))]))


class ImitatedSondrel:
    """A directory with sondrel-migrate and an imitated sondrel beside it; without `beside` in a directory of its own."""

    def __init__(self, beside=True):
        shutil.rmtree(IMITATION, ignore_errors=True)
        os.makedirs(f"{IMITATION}/runs")
        self.program = f"{IMITATION}/bin/sondrel-migrate"
        self.directory = os.path.dirname(self.program) if beside else f"{IMITATION}/elsewhere"
        os.makedirs(os.path.dirname(self.program))
        shutil.copy(MIGRATE, self.program)
        write(f"{self.directory}/sondrel", IMITATED_SONDREL, mode=0o755)

    def can_restore(self):
        """Puts an imitated sondrel-restore beside it, whose steps are controlled in the same way."""
        write(f"{self.directory}/sondrel-restore", IMITATED_SONDREL, mode=0o755)

    def does(self, step, script):
        """Sets what a step does from now on, as lines of shell."""
        write(f"{IMITATION}/{step}", script + "\n")

    def start(self, *arguments, **how):
        return start(*arguments, program=self.program, **how)

    def run(self, *arguments, **how):
        return self.start(*arguments, **how).finish()

    def runs(self):
        """The steps that were run, in order."""
        return [name.partition(".")[2] for name in self._names()]

    def all_runs(self):
        """The same, with "status" for each query of the agent's dumping status."""
        return [name.partition(".")[2] for name in self._names(STEPS_AND_STATUS)]

    def kept(self, index, what):
        """"arguments", "environment", "descriptors" or "input" of a run."""
        return read(f"{IMITATION}/runs/{self._names()[index]}/{what}")

    def arguments(self, index):
        return self.kept(index, "arguments").decode().splitlines()

    def arguments_of_status(self):
        """The arguments of the last run that asked for the dumping status."""
        return read(f"{IMITATION}/runs/{self._names(['status'])[-1]}/arguments").decode().splitlines()

    def environment(self, index):
        entries = self.kept(index, "environment").split(b"\0")
        return dict(entry.decode().split("=", 1) for entry in entries if entry)

    def is_at(self, step):
        """True when the last run is this step and has recorded what it was given; it may have ended."""
        names = self._names()
        return bool(names) and names[-1].endswith(step) and os.path.exists(
            f"{IMITATION}/runs/{names[-1]}/complete")

    @staticmethod
    def _names(kinds=(*STEPS, *RESTORE_STEPS)):
        return sorted((name for name in os.listdir(f"{IMITATION}/runs") if name.partition(".")[2] in kinds),
                      key=lambda name: int(name.partition(".")[0]))
