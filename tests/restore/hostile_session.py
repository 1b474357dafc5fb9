"""A session of a host that was broken into: all attacks at once, each with its name and the proof that it succeeded."""
import test_hostile_mysql
import test_hostile_postgresql
from hostile_accounts import add_accounts
from hostile_archives import add_archives
from hostile_jobs import add_jobs
from hostile_mail import add_mail
from hostile_sites import add_sites


def statements():
    """What of the statements in the dumps are attacks: the others are there to see that SQL was read to the end."""
    for kind, text in (("mysql", test_hostile_mysql.MYSQL_ATTACKS),
                       ("postgresql", test_hostile_postgresql.POSTGRESQL_ATTACKS)):
        for line in text.strip().splitlines():
            if line and "reached" not in line and line not in (";", ";;", "7", r"\.") and not line.startswith("    "):
                yield f"{kind}: {line}"


def add_attacks(session, port):
    """Puts all attacks into the session, whose own account is alice; returns them."""
    session.add('<account name="bob" uid="555" gid="555" home="/home/bob" shell="/bin/sh" system="yes"/>')
    session.add('<account name="deploy" uid="30060" gid="30060" group="deploy" home="/home/deploy" shell="/bin/sh" '
                'system="no"/>')
    session.add('<group name="deploy" gid="30060"/>')
    found = [*add_archives(session), *add_accounts(session), *add_sites(session, port), *add_mail(session),
             *add_jobs(session)]
    names = [attack.name for attack in found]
    assert not {name for name in names if names.count(name) > 1}
    return found
