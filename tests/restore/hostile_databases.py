"""What the tests of hostile databases share: files that attacks want to make, and a description to be altered."""
import os

import server_dumps
from lxml import etree


def files():
    """What is in /mnt/open: an attack that succeeds makes more."""
    return sorted(os.listdir("/mnt/open"))


def prepare_directory():
    """Makes /mnt/open, into which any server may write, with a file of SQL."""
    os.makedirs("/mnt/open")
    os.chmod("/mnt/open", 0o777)
    with open("/mnt/open/attack.sql", "w", encoding="ascii") as file:
        file.write("CREATE TABLE from_a_file (v int);\n")


def taken_over(session, name="shop"):
    """The element and the SQL of that database alone."""
    found = server_dumps.dump_all(session)
    for other, element in found.items():
        if other != name:
            element.getparent().remove(element)
    return found[name], server_dumps.sql_of(session, found[name])


def place(element, xml):
    """Puts an element where the schema wants it: before the first that comes later."""
    order = ("user", "membership", "grant", "definer", "extension", "setting", "content")
    added = etree.fromstring(xml)
    later = [each for each in element if order.index(each.tag) > order.index(added.tag)]
    later[0].addprevious(added)
    return added
