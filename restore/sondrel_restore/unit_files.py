"""Checks line by line whether a systemd unit of the source host may be installed here.

systemd reads units as root, and does much of what they say as root: commands with the prefix "+", files for output,
directories that change their owner. So only the settings that are listed here are accepted.
"""
from __future__ import annotations

import re

NAME = re.compile(r"[A-Za-z0-9_][A-Za-z0-9_.-]*\.(?:service|timer)")
LARGEST = 64 << 10

# The characters that systemd strips from names and values. It takes other Unicode spaces as part of a name.
_BLANKS = " \t"

_TIME = r"[0-9A-Za-z .:,/*~-]+"
_SPAN = r"[0-9]+(?:\.[0-9]+)? ?[a-z]*(?: [0-9]+ ?[a-z]+)*|infinity"
_YES_OR_NO = r"yes|no|true|false|on|off|1|0"
# The prefixes "+" and "!" run a command with rights of root, so they are not accepted; "-" and "@" are harmless.
_COMMAND = r"[-@]*/[^\s].*"
_UNITS = r"(?:[A-Za-z0-9_.-]+\.(?:target|service|socket) ?)+"

# The settings that each section may have, and the pattern of their values. User and Group are checked separately.
ALLOWED: dict[str, dict[str, str]] = {
    # Without Before: at each boot a job that does not end would keep other services of this host from starting.
    "Unit": {"Description": ".*", "Documentation": ".*", "After": _UNITS,
             "Wants": r"network(?:-online)?\.target", "ConditionPathExists": r"!?/.*"},
    "Service": {
        "Type": "simple|exec|oneshot|notify", "User": ".*", "Group": ".*", "WorkingDirectory": r"/[^%]*",
        "ExecStart": _COMMAND, "ExecStartPre": _COMMAND, "ExecStartPost": _COMMAND, "ExecStop": _COMMAND,
        "ExecReload": _COMMAND, "Environment": ".*", "Restart": "[a-z-]+", "RestartSec": _SPAN,
        "TimeoutSec": _SPAN, "TimeoutStartSec": _SPAN, "TimeoutStopSec": _SPAN, "SyslogIdentifier": r"[\w.-]+",
        "KillSignal": "SIG[A-Z0-9]+", "KillMode": "control-group|mixed|process", "Nice": r"[0-9]{1,2}",
        "UMask": "[0-7]{3,4}", "LimitNOFILE": "[0-9]{1,6}", "MemoryMax": "[0-9]+[KMGT]?%?",
        "CPUQuota": "[0-9]+%", "TasksMax": "[0-9]+%?", "PrivateTmp": _YES_OR_NO, "PrivateDevices": _YES_OR_NO,
        "NoNewPrivileges": _YES_OR_NO, "ProtectHome": f"{_YES_OR_NO}|read-only|tmpfs",
        "ProtectSystem": f"{_YES_OR_NO}|full|strict", "RemainAfterExit": _YES_OR_NO,
        "StandardOutput": "journal|null", "StandardError": "journal|null|inherit"},
    "Timer": {"OnCalendar": _TIME, "OnBootSec": _SPAN, "OnStartupSec": _SPAN, "OnActiveSec": _SPAN,
              "OnUnitActiveSec": _SPAN, "OnUnitInactiveSec": _SPAN, "Persistent": _YES_OR_NO,
              "RandomizedDelaySec": _SPAN, "AccuracySec": _SPAN, "Unit": ".*"},
    "Install": {"WantedBy": r"multi-user\.target|default\.target|timers\.target"},
}


def objection(name: str, content: bytes, account_there: str, group_there: str) -> str:
    """Says why the unit may not be installed for the account; empty if it may."""
    if not NAME.fullmatch(name):
        return "its name is not that of a service or a timer"
    if len(content) > LARGEST:
        return "it is too long"
    try:
        text = content.decode()
    except UnicodeDecodeError:
        return "it is no UTF-8"
    # For systemd some control characters end a line, even within a comment.
    if any(character < " " and character not in "\t\n" or character == "\x7f" for character in text):
        return "it holds control characters"
    return _objection_to_lines(name, text, account_there, group_there)


def _objection_to_lines(name: str, text: str, account: str, group: str) -> str:
    users: set[str] = set()
    section = ""
    for number, line in enumerate(text.split("\n"), 1):
        stripped = line.strip(_BLANKS)
        if stripped.endswith("\\"):
            return f"line {number} goes on in the next one"
        if not stripped or stripped[0] in "#;":
            continue
        if stripped.startswith("[") and stripped.endswith("]"):
            section = stripped[1:-1]
            against = _against_section(section, name)
        else:
            key, _, value = (part.strip(_BLANKS) for part in stripped.partition("="))
            against = _against(section, stripped) or _against_names(key, value, name, group)
            users |= {value} if key == "User" else set()
        if against:
            return f"line {number} {against}"
    if name.endswith(".service") and users != {account}:
        return "it does not say that it runs as that account, and as no other one"
    return ""


def _against_section(section: str, name: str) -> str:
    of_which = {"Timer": ".timer", "Service": ".service"}.get(section, "")
    return "" if section in ALLOWED and name.endswith(of_which) else f"begins a section [{section}]"


def _against_names(key: str, value: str, name: str, group: str) -> str:
    if key == "Group" and value != group:
        return "names another group than the account's own"
    if key == "Unit" and value != name.removesuffix(".timer") + ".service":
        return "starts another unit than that of its own name"
    return ""


def _against(section: str, line: str) -> str:
    key, is_setting, value = line.partition("=")
    key, value = key.strip(_BLANKS), value.strip(_BLANKS)
    form = ALLOWED.get(section, {}).get(key)
    if not is_setting or form is None:
        return f"has {key[:40]}, which is not among what is installed"
    if re.fullmatch(form, value) is None:
        return f"has {key} with a value that is not among what is installed"
    return ""


def with_account(content: bytes, account_here: str, group_here: str) -> bytes:
    """The content of an accepted unit, with the names that its account and group have here."""
    text = re.sub(r"(?m)^[ \t]*User[ \t]*=.*$", f"User={account_here}", content.decode())
    return re.sub(r"(?m)^[ \t]*Group[ \t]*=.*$", f"Group={group_here}", text).encode()
