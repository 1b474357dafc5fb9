"""The Ansible collection sondrel.migration as a package."""
import json
import os
import re
import shutil
import subprocess

import pytest
import yaml

from fleet import COLLECTION, CONTROLLER, NAME, PLAYBOOK, start_ansible
from fleet_controller import new_controller  # noqa: F401  # pylint: disable=unused-import
from fleet_controller import assert_only_where_the_playbook_is
from world import read


@pytest.mark.slow
@pytest.mark.release_only
def test_collection_passes_ansible_lint():
    # ansible-lint demands that a collection is where Ansible finds it.
    place = f"{CONTROLLER}/lint/ansible_collections/{NAME.replace('.', '/')}"
    shutil.copytree(COLLECTION, place, ignore=shutil.ignore_patterns("__pycache__"))
    checked = subprocess.run(["ansible-lint", "--offline", "-p", "--nocolor"], cwd=place, text=True, capture_output=True,
                             check=False, env={"PATH": "/usr/bin:/bin", "HOME": CONTROLLER, "LC_ALL": "C.UTF-8",
                                               "ANSIBLE_COLLECTIONS_PATH": f"{CONTROLLER}/lint"})
    assert (checked.returncode, checked.stdout) == (0, ""), checked
    # Without a list of files from git it searches for them. Checked, because it would also succeed with none.
    assert int(re.search(r"on (\d+) files", checked.stderr)[1]) > 10, checked


def test_collection_is_built_and_installed_with_what_its_playbook_needs():
    """An installed collection has no files of the checkout beside it."""
    target = f"{CONTROLLER}/installed"
    for words in (["build", COLLECTION, "--output-path", target],
                  ["install", "--offline", f"{target}/{NAME.replace('.', '-')}-{version_of_program()}.tar.gz", "-p", target]):
        outcome = start_ansible("ansible-galaxy", "collection", *words, alone=False).finish()
        assert outcome.code == 0, outcome
    outcome = start_ansible("ansible-playbook", "-i", f"{COLLECTION}/inventory.example.yml", "--syntax-check", PLAYBOOK,
                            environment={"ANSIBLE_COLLECTIONS_PATH": target}).finish()
    assert_only_where_the_playbook_is(outcome)


def version_of_program():
    return re.search(r"project\(sondrel VERSION ([\d.]+)", read(f"{os.path.dirname(COLLECTION)}/CMakeLists.txt").decode())[1]


@pytest.mark.parametrize("kind, name", [("module", "sondrel_migrate"), ("module", "sondrel_migrate_info"),
                                        ("filter", "sondrel_summary"), ("filter", "sondrel_failure"),
                                        ("role", "sondrel_migrate")])
def test_collection_documents_its(kind, name):
    shown = start_ansible("ansible-doc", "--json", "-t", kind, f"{NAME}.{name}", alone=False).finish()
    assert (shown.code, shown.stderr) == (0, b""), shown
    found = json.loads(shown.stdout)[f"{NAME}.{name}"]
    if kind == "role":
        assert found["entry_points"]["main"]["options"]
    else:
        assert found["doc"]["description"] and found["examples"] and found["return"]
    if kind == "module":
        assert {"session", "program"} < set(found["doc"]["options"]), found["doc"]


def test_defaults_that_the_role_documents_are_those_that_it_has():
    shown = start_ansible("ansible-doc", "--json", "-t", "role", f"{NAME}.sondrel_migrate", alone=False).finish()
    options = json.loads(shown.stdout)[f"{NAME}.sondrel_migrate"]["entry_points"]["main"]["options"]
    documented = {name: option["default"] for name, option in options.items() if "default" in option}
    assert documented == yaml.safe_load(read(f"{COLLECTION}/roles/sondrel_migrate/defaults/main.yml"))
