"""Attacks by sites of nginx and Apache, and by pools of PHP."""
import test_hostile_apache
import test_hostile_nginx
import test_pools
from hostile_proofs import Attack, goes_in, says
from lxml import etree
from made_session import made_of
from test_files import directory, file, link
from web_world import directive, server, virtual_host

# An address of this host that is a public one, with a service of its own.
OWN_ADDRESS = "9.9.9.9"


def add_sites(session, port):
    """Puts a site of nginx and one of Apache into the session, in /srv/a, which is restored; yields the attacks."""
    definitions = []
    blocks = [directive("listen", "80"), directive("server_name", "a.test"), directive("root", "/srv/a")]
    for name, xml in test_hostile_nginx.ATTACKS.items():
        xml = xml.replace("<arg>/x/</arg>", f"<arg>/x{len(blocks)}/</arg>")
        blocks.append(xml)
        yield Attack(f"nginx: {name}", goes_in(xml))
    raw = {
        "text in a map": directive(
            "map", "$host", "$m1", block=[directive("x", text=_escaping(8091))], identifier="n1"),
        "text in a format of a log": directive("log_format", "f1", text=_escaping(8092), identifier="n2"),
        "text in a group of servers": directive("upstream", "up1", identifier="n3", block=[
            directive("server", "127.0.0.1:3000"), directive("keepalive", text=_escaping(8093))]),
        "text in a zone": directive("limit_req_zone", "$host", "zone=z:1m", text=_escaping(8094), identifier="n4"),
    }
    definitions += raw.values()
    yield from (Attack(f"nginx: {name}", says(f"listen {8091 + number}")) for number, name in enumerate(raw))
    blocks.append(directive("types", block=[directive("text/x", text=_escaping(8095))]))
    yield Attack("nginx: text in types", says("listen 8095"))
    definitions.append(directive("map", "$host", "$far", block=[directive("default", "../../etc")], identifier="n5"))
    definitions.append(directive("map", "$arg_x", "$picked", block=[directive("~^(.*)$", "$1")], identifier="n6"))
    for name, (inside, path) in {
        "a way up by set": ([directive("set", "$up", "../../etc")], "/srv/a/$up"),
        "a way up by a map": ([], "/srv/a/$far"),
        "a path of the visitor by a map": ([], "/srv/a/$picked"),
        "a path of the visitor's request": ([], "/srv/a/$request_uri"),
        "a path of the site's program": ([directive("auth_request_set", "$said", "$upstream_http_x")], "/srv/a/$said"),
        "a path by parts": ([directive("set", "$dots", ".."), directive("set", "$both", "$dots/$dots/etc")],
                            "/srv/a/$both"),
    }.items():
        blocks.append(directive("location", f"/{len(blocks)}/", block=[*inside, directive("root", path)]))
        yield Attack(f"nginx: {name}", says(f"root {path};"))
    for name, inside in {
        "groups of an expression": directive("root", "/srv/a/$1/$2"),
        "a rule": directive("rewrite", r"^/b(\.\.)/b(\.\.)/(.*)$", "/$1/$2/$3", "break"),
    }.items():
        blocks.append(directive("location", "~", rf"^/{len(blocks)}(\.\.)/a(\.\.)/(.*)$", block=[inside]))
        yield Attack(f"nginx: a way up by {name}", says(
            "root /srv/a/$1/$2;" if "root" in inside else "/$1/$2/$3 break;"))
    for name, address in {"a number that is the cloud's metadata": "http://2852039166/",
                          "the metadata in another form": "http://[::ffff:169.254.169.254]/",
                          "a service of this host at its public address": f"http://{OWN_ADDRESS}:9200/"}.items():
        xml = directive("location", f"/{len(blocks)}/", block=[directive("proxy_pass", address)])
        blocks.append(xml)
        yield Attack(f"nginx: {name}", goes_in(xml))
    _configuration(session, "nginx", directive("http", block=definitions))
    files = made_of(directory("./srv/a"), file("./srv/a/index.html", b"<title>hostile</title>"),
                    link("./srv/a/link", "/etc"), file("./srv/a/who.php", b"<?php echo '<title>', 6 * 7, '</title>';"))
    content = session.content("site", "content/sites/a.test.tar.gz", files)
    _site(session, "a.test", "/srv/a", content, _block("nginx1", server(*blocks), "n1 n2 n3 n4 n5 n6"))
    _php(session, "a.test", "alice", "".join(sorted(test_pools.SETTINGS.values(), reverse=True)))
    yield from (Attack(f"pool: {name}", _setting_is_taken(xml)) for name, xml in test_pools.SETTINGS.items())
    yield from _apache(session, port)
    for number, user in enumerate(("root", "bob", "deploy", "mysql", "alice&#10;user = root", "../x")):
        _site(session, f"pool{number}.test", "/srv/a", content)
        _php(session, f"pool{number}.test", user)
        yield Attack(f"pool: runs as {user[:6]}", says(
            *([] if "alice" in user else [f"user = {user}\n"]), "user = root"))
    yield from _taken_names(session, content, port)


def _escaping(mark):
    """What would end the block that it is written into, and begin a server."""
    return f"x; }} }} server {{ listen {mark}; root /; location / {{ types {{ a b;"


def _site(session, name, root, content, block=""):
    """A site of alice's with a block."""
    session.add_site(next(session.tree.iterfind("client")), name, root, content)
    if block:
        session.add(block, session.tree.xpath("//domain[@name=$name]/site", name=name)[0])


def _configuration(session, name, text):
    session.accounts.addnext(etree.fromstring(
        f'<web-configuration name="{name}1" server="{name}" file="/etc/{name}/main.conf">{text}</web-configuration>'))


def _block(configuration, text, uses=""):
    uses = f' uses="{uses}"' if uses else ""
    return f'<block configuration="{configuration}"{uses}>{text}</block>'


def _php(session, domain, user, inside=""):
    site = session.tree.xpath("//domain[@name=$name]/site", name=domain)[0]
    site.insert(0, etree.fromstring(f'<php version="{test_pools.VERSION}" handler="fpm" pool="{domain}" user="{user}" '
                                    f'listen="unix:/run/php/{domain}.sock">{inside}</php>'))


def _setting_is_taken(xml):
    element = etree.fromstring(xml)
    kind = "env" if element.tag == "env" else "value"
    return says(f"{kind}[{element.get('name')}] = {element.text}", f"{kind}[{element.get('name')}] = '{element.text}")


def _apache(session, port):
    own = [directive("servername", "b.test"), directive("documentroot", "/srv/a")]
    attacks = {**test_hostile_apache.ATTACKS, "a path in the place of an address": directive(
        "proxypassmatch", "http://8.8.8.8/|^/y/(.*)$", "http://169.254.169.254/$1"),
        "settings of PHP by an expression": directive("setenvifexpr", "true", "PHP_ADMIN_VALUE=x")}
    for name, xml in attacks.items():
        yield Attack(f"apache: {name}", goes_in(xml))
    _configuration(session, "apache", directive(
        "directory", "/srv", block=[directive("require", "all", "granted")], identifier="a1"))
    root = session.content("site", "content/sites/b.test.tar.gz", made_of(directory("./srv/b")))
    _site(session, "b.test", "/srv/b", root, _block(
        "apache1", virtual_host(*own, *attacks.values(), at=f"*:{port}"), "a1"))


def _taken_names(session, content, port):
    """Sites whose blocks have names that are not theirs, or addresses that come before those of this host's."""
    def nginx(*inner):
        return _block("nginx1", server(*inner, directive("root", "/srv/a"), line=100 + len(names)))

    def apache(at, *inner):
        return _block("apache1", virtual_host(
            *inner, directive("documentroot", "/srv/a"), at=at, line=100 + len(names)), "a1")
    names = {}
    for name, xml, answers in (
        ("nginx: a name that this host serves", lambda: nginx(
            directive("listen", "80"), directive("server_name", "taken0.test", "here.test")), "here.test:80"),
        ("nginx: an address before those of this host", lambda: nginx(
            directive("listen", "127.0.0.1:80"), directive("server_name", "taken1.test")), "here.test:80"),
        ("apache: a name that this host serves", lambda: apache(
            f"*:{port}", directive("servername", "taken2.test"), directive("serveralias", "mine.test")),
         f"mine.test:{port}"),
        ("apache: all names", lambda: apache(
            f"*:{port}", directive("servername", "taken3.test"), directive("serveralias", "*")), f"mine.test:{port}"),
        ("apache: an address before those of this host", lambda: apache(
            f"127.0.0.1:{port}", directive("servername", "taken4.test")), f"mine.test:{port}"),
    ):
        domain = f"taken{len(names)}.test"
        _site(session, domain, "/srv/a", content, xml())
        names[name] = domain
        yield Attack(name, _answers_otherwise(*answers.split(":")))


def _answers_otherwise(name, port):
    from sondrel_restore.web.ask import Request, ask  # pylint: disable=import-outside-toplevel
    return lambda _: ask("127.0.0.1", Request(name, int(port), False, "/")).title != f"of {name}"
