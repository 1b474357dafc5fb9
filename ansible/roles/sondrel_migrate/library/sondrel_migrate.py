"""Begins a migration, or goes on with one, and leaves it to itself."""
import fcntl
import os
import subprocess
import time

from ansible.module_utils.basic import AnsibleModule
from ansible.module_utils.sondrel_session import (BEGUN, ENDED, SessionProblem, alarm_after, is_at_work,
                                                  log_of, recorded_settings, status_of)

DOCUMENTATION = r"""
module: sondrel_migrate
short_description: Begins a migration by sondrel-migrate, or goes on with one
description:
  - Starts C(sondrel-migrate) in a process of its own and returns at once. The run needs neither the
    connection nor the controller from then on; M(sondrel_migrate_info) tells how it goes.
  - A migration that is finished with the same settings, or is at work already, is left alone.
  - The passwords reach C(sondrel-migrate) through a pipe. They come in the module's arguments, so the module
    refuses to work from a file; see O(password).
options:
  session: {type: path, required: true, description: The session directory; made if missing.}
  settings:
    type: dict
    required: true
    description: Settings of sondrel-migrate by their names, such as C(host); lists are joined by commas.
  password:
    type: str
    description: >-
      Of the login; a finished migration needs none. Pipelining has to be on (C(ansible_pipelining)), so that no
      file holds it.
  sudo_password: {type: str, description: What sudo asks for; may be empty.}
  key_password: {type: str, description: 'Of the key that the setting C(identity) names, where it has one.'}
  from_step:
    type: str
    choices: [scout, deploy, dump, content, remove, plan, apply, verify]
    description: Makes this step and those that follow again.
  slots:
    type: int
    default: 0
    description: So many migrations are at work on the host at once, further ones wait; 0 for any number.
  program: {type: str, default: sondrel-migrate, description: Name or path of the program.}
"""

RETURN = r"""
begun: {type: bool, returned: always, description: Whether a run was begun.}
"""

SLOTS = "/run/sondrel-migrate"
SLOT_CHECK_SECONDS = 1
CANNOT_EXECUTE = 127
# Whoever only asks whether a run is at work holds the lock for a moment.
LONGEST_LOOK_SECONDS = 2


def text_of(value):
    if isinstance(value, bool):
        return "yes" if value else "no"
    if isinstance(value, (list, tuple)):
        return ",".join(map(str, value))
    return str(value)


def refuse_files(module):
    """A module that came as a file has brought the passwords to the disk."""
    with open("/proc/self/cmdline", "rb") as words:
        if b"AnsiballZ" in words.read():
            module.fail_json(msg="Pipelining is off, or cannot be had (ANSIBLE_KEEP_REMOTE_FILES, becoming root by "
                                 "su, this kind of connection): a file would hold the passwords")


def password_lines(module):
    """What sondrel-migrate reads on its standard input."""
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
    """The log of the session, locked; None where a run is at work."""
    os.makedirs(os.path.dirname(session), exist_ok=True)
    log = os.open(log_of(session), os.O_WRONLY | os.O_APPEND | os.O_CREAT | os.O_NOFOLLOW, 0o600)
    try:
        with alarm_after(LONGEST_LOOK_SECONDS):
            fcntl.flock(log, fcntl.LOCK_EX)
    except TimeoutError:
        os.close(log)
        return None
    return log


# --- the process that stays ---

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
    """The descriptor that holds the slot. The kernel frees it, however its holders end."""
    os.makedirs(SLOTS, 0o700, exist_ok=True)
    slot = slot_if_free(slots)
    while slot is None:
        # Of several locks none can be waited for.
        time.sleep(SLOT_CHECK_SECONDS)
        slot = slot_if_free(slots)
    return slot


def note(kind, more=""):
    os.write(1, (kind + time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime()) + more + "\n").encode())


def run_to_its_end(command, passwords, slots):
    """Runs the command on the log, and writes down how it ended."""
    note(BEGUN)
    code = CANNOT_EXECUTE
    try:
        held = (wait_for_slot(slots),) if slots else ()
        process = subprocess.Popen(command, stdin=subprocess.PIPE, pass_fds=held)
        try:
            process.communicate(passwords)
        except BrokenPipeError:
            pass  # it needed none: what it says tells why
        code = process.returncode if process.returncode >= 0 else 128 - process.returncode
    except Exception as error:
        os.write(1, ("%s\n" % error).encode())
    note(ENDED, " with exit code %d" % code)


def detach(work, log):
    """Does the work in a process of its own, which has the log for its output."""
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
            # Whoever waits for the end of the module's output must not wait for this.
            os.closerange(3, os.sysconf("SC_OPEN_MAX"))
            work()
        status = 0
    finally:
        os._exit(status)


# --- the module ---

def has_settings(session, settings):
    """Whether the migration was begun with these very settings."""
    known = recorded_settings(session)
    return all(known.get(name) == text_of(value) for name, value in settings.items())


def begin(module):
    """Whether a run was begun, or would be."""
    params = module.params
    program = module.get_bin_path(params["program"], required=True)
    passwords = password_lines(module)
    # In this order: a run that ends in between has written down its end.
    at_work = is_at_work(params["session"])
    state = status_of(module, program, params["session"]).get("state", "")
    # Somebody may run it by hand.
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
        return False  # another controller was faster
    detach(lambda: run_to_its_end(command_of(params, program), passwords, params["slots"]), log)
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
        # It would be an argument.
        module.fail_json(msg="A password is no setting")
    for name, value in module.params["settings"].items():
        if value is None:
            # "domains:" with nothing behind it would name a domain "None".
            module.fail_json(msg="The setting %s has no value" % name)
    module.params["session"] = os.path.abspath(module.params["session"])
    try:
        begun = begin(module)
    except (SessionProblem, OSError) as error:
        module.fail_json(msg=str(error))
    module.exit_json(changed=begun, begun=begun)


if __name__ == "__main__":
    main()
