# Copyright 2026 the sondrel maintainers
"""Starts a migration, or continues one, and returns while it runs."""
from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r"""
module: sondrel_migrate
short_description: Starts or continues a migration by sondrel-migrate
version_added: 0.1.0
author: sondrel maintainers (@sondrel)
description:
  - Starts C(sondrel-migrate) in a process of its own and returns at once. From then on the run needs neither the
    connection nor the controller; M(sondrel.migration.sondrel_migrate_info) reports its progress.
  - A migration that is finished with the same settings, or is running already, is left alone.
  - The passwords reach C(sondrel-migrate) through a pipe. The module receives them among its arguments, so it
    refuses to run from a file; see I(password).
options:
  settings:
    description: Settings of C(sondrel-migrate) by their names, such as C(host). Lists are joined by commas.
    type: dict
    required: true
  password:
    description:
      - The password of the login. A finished migration needs none.
      - Pipelining must be on (C(ansible_pipelining)), so that no file holds it.
    type: str
  sudo_password:
    description: What sudo on the source host asks for; may be empty.
    type: str
  key_password:
    description: The passphrase of the key that the setting C(identity) names, if it has one.
    type: str
  from_step:
    description: Repeats this step and those that follow.
    type: str
    choices: [scout, deploy, dump, content, remove, plan, apply, verify]
  slots:
    description: How many migrations run on the host at once. Further ones wait; 0 sets no limit.
    type: int
    default: 0
extends_documentation_fragment: sondrel.migration.session
seealso:
  - module: sondrel.migration.sondrel_migrate_info
"""

EXAMPLES = r"""
- name: Start a migration of everything, or continue it
  sondrel.migration.sondrel_migrate:
    session: /var/lib/migration/old1.example
    settings:
      host: old1.example
      login: root
      dump-all: true
    password: "{{ vault_passwords['old1.example'] }}"
  vars:
    ansible_pipelining: true
  no_log: true

- name: Fetch what has changed since, for the last time
  sondrel.migration.sondrel_migrate:
    session: /var/lib/migration/old1.example
    settings:
      host: old1.example
      login: root
      dump-all: true
      final: true
    from_step: dump
    password: "{{ vault_passwords['old1.example'] }}"
  vars:
    ansible_pipelining: true
  no_log: true
"""

RETURN = r"""
begun:
  description: Whether a run was started, or in check mode would be.
  type: bool
  returned: always
  sample: true
"""

import fcntl
import os
import subprocess
import time

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.sondrel.migration.plugins.module_utils.sondrel_session import (
    BEGUN, ENDED, SessionProblem, alarm_after, is_at_work, log_of, recorded_settings, status_of)

SLOTS = "/run/sondrel-migrate"
SLOT_CHECK_SECONDS = 1
CANNOT_EXECUTE = 127
# Another process may hold the lock for a moment to find out whether a run is active.
LONGEST_QUERY_SECONDS = 2


def text_of(value):
    if isinstance(value, bool):
        return "yes" if value else "no"
    if isinstance(value, (list, tuple)):
        return ",".join(map(str, value))
    return str(value)


def refuse_files(module):
    """Fails if Ansible sent the module as a file: the passwords would be on the disk."""
    with open("/proc/self/cmdline", "rb") as words:
        if b"AnsiballZ" in words.read():
            module.fail_json(msg="Pipelining is off, or cannot be had (ANSIBLE_KEEP_REMOTE_FILES, becoming root by "
                                 "su, this kind of connection): a file would hold the passwords")


def password_lines(module):
    """The passwords as bytes for the standard input of sondrel-migrate."""
    lines = ""
    for name in ("password", "key_password", "sudo_password"):
        password = module.params[name] or ""
        if "\n" in password:
            module.fail_json(msg="%s is more than one line" % name)
        lines += password + "\n"
    return lines.encode("utf-8", "surrogateescape")


def command_of(params, program):
    words = [program, "--session-path=" + params["session"], "--password-fd=0", "--key-password-fd=0",
             "--sudo-password-fd=0"]
    if params["from_step"]:
        words.append("--from=" + params["from_step"])
    return words + ["--%s=%s" % (name, text_of(value)) for name, value in sorted(params["settings"].items())]


def own_log(session):
    """Opens and locks the log of the session. None if a run is active."""
    os.makedirs(os.path.dirname(session), exist_ok=True)
    log = os.open(log_of(session), os.O_WRONLY | os.O_APPEND | os.O_CREAT | os.O_NOFOLLOW, 0o600)
    try:
        with alarm_after(LONGEST_QUERY_SECONDS):
            fcntl.flock(log, fcntl.LOCK_EX)
    except TimeoutError:
        os.close(log)
        return None
    return log


# --- the background process ---

def slot_if_free(slots):
    for number in range(slots):
        slot = os.open("%s/slot.%d" % (SLOTS, number), os.O_WRONLY | os.O_CREAT, 0o600)
        try:
            fcntl.flock(slot, fcntl.LOCK_EX | fcntl.LOCK_NB)
            return slot
        except BlockingIOError:
            os.close(slot)
    return None


def wait_for_slot(slots):
    """Waits for a free slot; returns its descriptor. The slot is free again when all processes that have it end."""
    os.makedirs(SLOTS, 0o700, exist_ok=True)
    slot = slot_if_free(slots)
    while slot is None:
        # A process cannot wait for the first of several locks, so it polls.
        time.sleep(SLOT_CHECK_SECONDS)
        slot = slot_if_free(slots)
    return slot


def note(kind, more=""):
    os.write(1, (kind + time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime()) + more + "\n").encode())


def run_logged(command, passwords, slots):
    """Runs the command with the log as its output, and records in the log how it ended."""
    note(BEGUN)
    code = CANNOT_EXECUTE
    try:
        held = (wait_for_slot(slots),) if slots else ()
        process = subprocess.Popen(command, stdin=subprocess.PIPE, pass_fds=held)
        try:
            process.communicate(passwords)
        except BrokenPipeError:
            pass  # it read none of its input; its output says why
        code = process.returncode if process.returncode >= 0 else 128 - process.returncode
    except Exception as error:
        os.write(1, ("%s\n" % error).encode())
    note(ENDED, " with exit code %d" % code)


def detach(work, log):
    """Runs `work` in a background process whose output is the log."""
    child = os.fork()
    if child:
        os.waitpid(child, 0)
        return
    status = 1
    try:
        os.setsid()
        if os.fork() == 0:
            os.chdir("/")
            os.umask(0o022)
            nothing = os.open(os.devnull, os.O_RDONLY)
            for target, source in ((0, nothing), (1, log), (2, log)):
                os.dup2(source, target)
            # Ansible waits until the module's output is closed. It must not wait for this process.
            os.closerange(3, os.sysconf("SC_OPEN_MAX"))
            work()
        status = 0
    finally:
        os._exit(status)


# --- the module ---

def has_settings(session, settings):
    """Whether the migration was started with these settings."""
    known = recorded_settings(session)
    return all(known.get(name) == text_of(value) for name, value in settings.items())


def begin(module):
    """Starts a run if one is needed. Returns whether it did or, in check mode, would have."""
    params = module.params
    program = module.get_bin_path(params["program"], required=True)
    passwords = password_lines(module)
    # In this order: a run that ends after the first call has written its end before the second one reads it.
    at_work = is_at_work(params["session"])
    state = status_of(module, program, params["session"]).get("state", "")
    # An administrator may have started a run by hand: then only the state says so.
    if at_work or state.startswith("running"):
        if params["from_step"]:
            module.fail_json(msg="The migration is at work: it cannot go back to " + params["from_step"])
        return False
    if not params["from_step"] and state == "finished" and has_settings(params["session"], params["settings"]):
        return False
    if module.check_mode:
        return True
    log = own_log(params["session"])
    if log is None:
        return False  # another controller has just started it
    detach(lambda: run_logged(command_of(params, program), passwords, params["slots"]), log)
    return True


def main():
    module = AnsibleModule(
        argument_spec=dict(
            session=dict(type="path", required=True),
            settings=dict(type="dict", required=True),
            password=dict(type="str", no_log=True),
            sudo_password=dict(type="str", no_log=True),
            key_password=dict(type="str", no_log=True),
            from_step=dict(type="str", choices=["scout", "deploy", "dump", "content", "remove", "plan", "apply", "verify"]),
            slots=dict(type="int", default=0),
            program=dict(type="str", default="sondrel-migrate")),
        supports_check_mode=True)
    refuse_files(module)
    if any("password" in name for name in module.params["settings"]):
        # It would become an argument, which other accounts can see.
        module.fail_json(msg="A password is no setting")
    for name, value in module.params["settings"].items():
        if value is None:
            # A "domains:" without a value would select a domain "None".
            module.fail_json(msg="The setting %s has no value" % name)
    module.params["session"] = os.path.abspath(module.params["session"])
    try:
        begun = begin(module)
    except (SessionProblem, OSError) as error:
        module.fail_json(msg=str(error))
    module.exit_json(changed=begun, begun=begun)


if __name__ == "__main__":
    main()
