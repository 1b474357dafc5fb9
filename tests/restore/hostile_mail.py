"""Attacks by aliases and mailboxes."""
import os

import test_hostile_mail
from hostile_proofs import Attack, exists, says
from lxml import etree
from mail_session import archive


def add_mail(session):
    """Puts aliases of other domains and mailboxes at places of others into the session; yields the attacks."""
    client = next(session.tree.iterfind("client"))
    session.add_account("post", 30050)
    session.add('<domain name="a.mail.test"><name>a.test</name><name>new.test</name></domain>', client)
    domain = client[-1]
    for number, (source, target) in enumerate(test_hostile_mail.HOSTILE_ALIASES):
        alias = etree.SubElement(domain, "alias", {"from": source.replace("\n", " "), "file": "/etc/postfix/virtual"})
        alias.text = target
        if source != "root@new.test":
            yield Attack(f"alias {number}: {source} to {target}"[:70].replace("\n", "/"), says(
                *(f"{source} {target}\n", f"{source} {target.strip()}") if target and source else ("\n @",)))
    taken = etree.SubElement(domain, "alias", {"from": "root@new.test", "file": "/etc/postfix/virtual"})
    taken.text = "evil@a.test"
    yield Attack("alias: of the administrator of this host", says("root@new.test"))
    for number, (path, owner) in enumerate((
            ("/home/bob/Maildir", "bob"), ("/home/deploy/Maildir", "deploy"), ("/etc/mailbox", "post"),
            ("/var/mail/root", "post"), ("/var/mail/bob", "post"), ("/var/mail/vhosts/../../../etc/up", "post"),
            ("/var/spool/cron/crontabs/root", "post"), ("/var/mail/mysql-box/x", "root"))):
        content = session.content("mailbox", f"content/mailboxes/{number}.tar", archive(
            {os.path.normpath(path): b"From x\n"}, owner=owner, uid=30050))
        session.add(f'<mailbox address="u{number}@a.test" path="{path}" format="mbox" owner="{owner}">{content}'
                    '</mailbox>', domain)
        yield Attack(f"mailbox: {path}", exists(os.path.normpath(path)))
