"""Attacks by accounts and groups of the description."""
from hostile_proofs import Attack

# Those that an apply may make.
ALLOWED_ACCOUNTS = ("alice", "carl", "dora", "emil", "fred", "post")


def add_accounts(session):
    """Puts accounts and groups into the session that would have rights of others here; yields the attacks."""
    for name, xml in {
        "root with another number": '<account name="root" uid="1500" gid="1500" home="/home/r" system="no"/>',
        "number 0": '<account name="toor" uid="0" gid="0" home="/root" shell="/bin/sh" system="no"/>',
        "a service as a person": '<account name="mysql" uid="1501" gid="1501" home="/srv/m" system="no"/>',
        "a line in a name": '<account name="x:x:0:0::/:/bin/sh&#10;y" uid="1502" gid="1502" system="no"/>',
        "a name of options": '<account name="-o" uid="1503" gid="1503" home="/home/o" system="no"/>',
        "a home with a line": '<account name="carl" uid="1504" gid="1504" home="/home/carl:/bin/sh&#10;evil:x:0:0::" '
                              'system="no"/>',
        "a home of the system": '<account name="dora" uid="1505" gid="1505" home="/etc/dora" system="no"/>',
        "a home in another's": '<account name="emil" uid="1506" gid="1506" home="/home/bob/emil" system="no"/>',
        "a shell that is none": '<account name="fred" uid="1507" gid="1507" home="/home/fred" shell="/home/bob/sh" '
                                'system="no"/>',
    }.items():
        session.add(xml)
        yield Attack(f"account: {name}", _accounts_changed)
    for xml in ('<group name="sudo" gid="27"><member>alice</member></group>',
                '<group name="shadow" gid="42"><member>alice</member></group>',
                '<group name="root" gid="0"><member>alice</member></group>',
                '<group name="admins" gid="40100"><member>alice</member></group>',
                '<group name="backups" gid="500"><member>alice</member></group>',
                '<group name="evil:x:0:alice&#10;y" gid="1700"><member>alice</member></group>'):
        group = session.add(xml).get("name").split(":")[0]
        yield Attack(f"group: {group} with alice", _group_has(group, "alice"))


def _accounts_changed(_):
    with open("/etc/passwd", encoding="utf-8") as accounts:
        lines = [line.split(":") for line in accounts.read().splitlines()]
    known = {fields[0]: fields for fields in lines}
    return (any(len(fields) != 7 for fields in lines) or [f[0] for f in lines if f[2] == "0"] != ["root"]
            or not set(known) <= set(_accounts_changed.before) | set(ALLOWED_ACCOUNTS)
            or any(known[name][2] == "0" or known[name][5].startswith(("/etc", "/home/bob"))
                   or known[name][6].startswith("/home") for name in ALLOWED_ACCOUNTS if name in known))


def remember_accounts():
    """To be called before the apply."""
    with open("/etc/passwd", encoding="utf-8") as accounts:
        _accounts_changed.before = [line.split(":")[0] for line in accounts]


def _group_has(group, account):
    def has(_):
        with open("/etc/group", encoding="utf-8") as groups:
            return any(line.split(":")[0] == group and account in line.strip().split(":")[3].split(",")
                       for line in groups if line.count(":") == 3)
    return has
