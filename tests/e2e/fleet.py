"""Ansible with the collection sondrel.migration, for its tests."""
import json
import os
import re
import threading

from migrating import MIGRATE
from tool import Running
from world import TESTS, SystemLog, read, write

COLLECTION = f"{os.path.dirname(TESTS)}/ansible"
NAME = "sondrel.migration"
PLAYBOOK = f"{NAME}.migrate"
# Ansible finds a collection by its path; a link at this path leads to the collection of the checkout.
COLLECTIONS = "/mnt/collections"
CONTROLLER = "/mnt/controller"
LOG = f"{CONTROLLER}/ansible.log"
# All processes of the controller end with Ansible.
ALONE = ["unshare", "--pid", "--fork", "--kill-child", "--mount-proc", "--"]
ENVIRONMENT = {"HOME": CONTROLLER, "LC_ALL": "C.UTF-8", "ANSIBLE_NOCOLOR": "1", "PYTHONDONTWRITEBYTECODE": "1",
               "ANSIBLE_LOG_PATH": LOG, "ANSIBLE_COLLECTIONS_PATH": COLLECTIONS}


def inventory(destinations, migrations, common):
    """Writes the inventory as JSON, which is also YAML; {host: its variables}, and the variables of all migrations."""
    os.makedirs(CONTROLLER, exist_ok=True)
    return write(f"{CONTROLLER}/inventory.yml", json.dumps({"all": {"children": {
        "sondrel_destinations": {"hosts": destinations, "vars": {"ansible_python_interpreter": "/usr/bin/python3"}},
        "sondrel_migrations": {"hosts": migrations, "vars": {"sondrel_migrate_program": MIGRATE, **common}}}}}))


def link_collection():
    """Links the collection of this checkout into the directory where Ansible looks for it."""
    place = f"{COLLECTIONS}/ansible_collections/{NAME.replace('.', '/')}"
    if not os.path.lexists(place):
        os.makedirs(os.path.dirname(place))
        os.symlink(COLLECTION, place)
    return place


def start_ansible(program, *arguments, environment=None, alone=True):
    link_collection()
    os.makedirs(CONTROLLER, exist_ok=True)
    return Running(arguments, through=[*(ALONE if alone else []), program],
                   environment={**ENVIRONMENT, **(environment or {})})


def play(*arguments, playbook=PLAYBOOK, **how):
    """Runs a playbook, by default that of the collection, on the written inventory; returns its Play."""
    return Play(start_ansible("ansible-playbook", "-i", f"{CONTROLLER}/inventory.yml", *arguments, playbook,
                              **how).finish(150))


class Play:
    """The result of a run of a playbook."""

    def __init__(self, outcome):
        self.code = outcome.code
        self.text = (outcome.stdout + outcome.stderr).decode()
        self.recap = {name: {key: int(value) for key, value in re.findall(r"(\w+)=(\d+)", counts)}
                      for name, counts in re.findall(r"^(\S+) +: (ok=.*)$", self.text, re.MULTILINE)}

    def count(self, what):
        """{migration: the number of tasks that were `what`, such as "changed"}"""
        return {name: counts[what] for name, counts in self.recap.items()}

    def summary(self):
        """{migration: its line}, with "" for the line of all."""
        shown = self.text.split(f"TASK [{NAME}.sondrel_migrate : Summary]")[1].split(" => ", 1)[1]
        lines = json.JSONDecoder().raw_decode(shown)[0]["msg"]
        return {"": lines[-1], **dict(line.split(": ", 1) for line in lines[:-1])}


def module(name, check=False, environment=None, **arguments):
    """The result of a module of the collection, run on this host."""
    outcome = start_ansible("ansible", "localhost", "-c", "local", "-e", "ansible_pipelining=true",
                            "-e", "ansible_python_interpreter=/usr/bin/python3", *(["--check"] if check else []),
                            "-m", f"{NAME}.{name}", "-a", json.dumps(arguments), environment=environment, alone=False).finish()
    found = re.search(r"localhost \| \S+ (?:=>|>>) (\{.*\})", outcome.stdout.decode(), re.DOTALL)
    assert found, outcome
    return json.loads(found[1])


class Watch:
    """Reads the arguments and variables of all processes, again and again, while it is open."""

    def __init__(self, secrets):
        self._secrets = [os.fsencode(secret) for secret in secrets]
        self._over = threading.Event()
        self._thread = threading.Thread(target=self._watch)
        self.told = set()
        self.programs = set()

    def __enter__(self):
        self._log = SystemLog().__enter__()
        self._thread.start()
        return self

    def __exit__(self, *exception):
        self._over.set()
        self._thread.join()
        self._log.__exit__()

    def _watch(self):
        while not self._over.wait(0.005):
            for name in filter(str.isdigit, os.listdir("/proc")):
                self._read(f"/proc/{name}")
            # Emptied here: a full pipe would block the programs that log.
            self._log.text()

    def _read(self, process):
        try:
            words, variables = read(f"{process}/cmdline"), read(f"{process}/environ")
            # While a process executes another program, its command line is empty, or belongs to one program and the
            # variables to the other. The next round reads it again.
            if not words or words != read(f"{process}/cmdline"):
                return
        except (FileNotFoundError, ProcessLookupError, PermissionError):
            return
        # The second word is the script of an interpreter.
        programs = [os.path.basename(word) for word in os.fsdecode(words).split("\0")[:2]]
        self.programs |= set(programs)
        # sondrel itself gets the passwords in variables, and wipes them.
        seen = words if programs[0] == "sondrel" else words + variables
        self.told |= {words for secret in self._secrets if secret in seen}
