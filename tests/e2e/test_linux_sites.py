"""The agent "linux": what its dump says about a site is what the real nginx and the real Apache do with it."""
import os
import shutil
import socket
import ssl

import pytest

from archives import STAGE, unpack
from linux_agent import Agent, check_schema
from linux_host import web_host
from source_services import add_user, certificate, fill_root, owned, take_away
from world import read, write

pytestmark = pytest.mark.release_only

POOL = "/etc/php/8.9/fpm/pool.d/alice.conf"
PAGE, MEDIA = "/home/alice/releases/2", "/srv/media of alice"

NGINX = """
server {
    listen 80; listen 8443 ssl;
    server_name full.test www.full.test *.full.test;
    ssl_certificate %(pem)s; ssl_certificate_key %(key)s;
    root /home/alice/current;
    include snippets/full.conf;
    location = /old { return 301 /new; }
    location /closed { deny all; }
    location /media/ { alias "/srv/media of alice/"; }
    location ~ \\.php$ { fastcgi_pass unix:/run/php/alice.sock; }
}
server { listen 80; server_name moved.test; return 302 http://full.test$request_uri; }
server { listen 80; server_name twin.test; root /home/alice/current; }
"""
NGINX_INCLUDED = {"snippets/full.conf": "include snippets/inner/*.conf;\n", "snippets/inner/login.conf": """
location /login { auth_basic "Only us"; auth_basic_user_file /etc/sites/password; }
"""}

APACHE = """
Listen 8443
<VirtualHost *:8080>
    ServerName full.test
    ServerAlias www.full.test *.full.test
    Include sites-available/full.inc
</VirtualHost>
<VirtualHost *:8443>
    ServerName full.test
    ServerAlias www.full.test *.full.test
    SSLEngine on
    SSLCertificateFile %(pem)s
    SSLCertificateKeyFile %(key)s
    Include sites-available/full.inc
</VirtualHost>
<VirtualHost *:8080>
    ServerName moved.test
    Redirect 302 / http://full.test/
</VirtualHost>
<VirtualHost *:8080>
    ServerName twin.test
    DocumentRoot /home/alice/current
</VirtualHost>
"""
APACHE_INCLUDED = {"sites-available/full.inc": """
DocumentRoot /home/alice/current
Redirect 301 /old /new
Alias /media/ "/srv/media of alice/"
<Directory "/srv/media of alice">
    Require all granted
</Directory>
<Location /closed>
    Require all denied
</Location>
<FilesMatch \\.php$>
    SetHandler "proxy:unix:/run/php/alice.sock|fcgi://localhost"
</FilesMatch>
IncludeOptional sites-available/inner/*.inc
""", "sites-available/inner/login.inc": """
<Location /login>
    AuthType Basic
    AuthName "Only us"
    AuthUserFile /etc/sites/password
    Require valid-user
</Location>
"""}
APACHE_MODULES = ["ssl.load", "ssl.conf", "socache_shmcb.load"]


def lay_out():
    """Makes what the sites serve, the same for both servers."""
    alice = add_user("alice")
    fill_root(PAGE, alice, {"index.html": "page", "closed/index.html": "closed", "login/index.html": "login"})
    fill_root(MEDIA, alice, {"picture": "picture"})
    os.symlink("releases/2", "/home/alice/current")
    os.lchown("/home/alice/current", *alice)
    write("/etc/sites/password", "ann:{SHA}x\n", 0o644)
    write(POOL, "[alice]\nuser = alice\ngroup = alice\nlisten = /run/php/alice.sock\n"
                "php_admin_value[memory_limit] = 64M\nphp_value[upload_max_filesize] = 3M\n")
    owned(f"{PAGE}/.user.ini", "memory_limit = 1G\nupload_max_filesize = 5M\nshort_open_tag = on ; as ever\n", alice)


@pytest.fixture(params=["nginx", "apache"])
def server(request):
    shutil.rmtree(STAGE, ignore_errors=True)
    # If the machine has PHP, its pools do not belong to this host.
    take_away("php")
    with web_host() as host:
        lay_out()
        names = dict(zip(("pem", "key"), certificate("full.test")))
        if request.param == "nginx":
            found, text, included = host.nginx, NGINX, NGINX_INCLUDED
        else:
            found, text, included = host.apache, APACHE, APACHE_INCLUDED
            for module in APACHE_MODULES:
                os.symlink(f"../mods-available/{module}", f"{found.directory}/mods-enabled/{module}")
        found.enable("full.test.conf", text % names)
        for name, content in included.items():
            write(f"{found.directory}/{name}", content)
        with found:
            yield found
        for directory in ("sites", "php"):
            take_away(directory)


def served_certificate():
    context = ssl.create_default_context()
    context.check_hostname, context.verify_mode = False, ssl.CERT_NONE
    with socket.create_connection(("127.0.0.1", 8443), 10) as plain, \
            context.wrap_socket(plain, server_hostname="full.test") as secured:
        return ssl.DER_cert_to_PEM_cert(secured.getpeercert(True))


def test_the_dump_says_of_a_site_what_the_real_server_does(server):
    # What the server does.
    for name in ("full.test", "www.full.test", "any.full.test", "twin.test"):
        assert server.get(name) == (200, b"page"), name
    assert server.get("full.test", "/media/picture") == (200, b"picture")
    answers = {path: server.get("full.test", path)[0] for path in ("/old", "/closed/", "/login/")}
    assert answers == {"/old": 301, "/closed/": 403, "/login/": 401}
    assert server.get("moved.test")[0] == 302

    # What the dump says.
    agent = Agent()
    dump = agent.dump("--dump-all")
    check_schema(dump.text, "dump")
    assert dump.problems("error") == dump.problems("warning") == []
    assert dump.names("domain") == ["full.test", "twin.test"]
    domain = dump.find("domain", "full.test")
    assert {name.text for name in domain.findall("name")} >= {"full.test", "www.full.test", "*.full.test"}
    site = domain.find("site")
    assert (site.get("root"), site.get("owner")) == ("/home/alice/current", "alice")
    assert {root.text for root in site.iter("root")} == {"/home/alice/current", MEDIA}
    redirects = {(one.get("code"), one.get("from").strip("= "), one.get("to")) for one in site.iter("redirect")}
    assert ("301", "/old", "/new") in redirects
    assert any(code == "302" and to.startswith("http://full.test") for code, _, to in redirects), redirects
    rules = {path: {rule.get("rule").lower() for rule in site.iter("access") if path in rule.get("path")}
             for path in ("/closed", "/login")}
    assert rules["/closed"] in ({"deny all"}, {"require all denied"})
    assert any("only us" in rule for rule in rules["/login"])
    assert "/etc/sites/password" in {file.text for file in site.iter("needs")}
    assert [other.text for other in site.iter("shares-root-with")] == ["twin.test"]

    tls = site.find("tls")
    assert served_certificate() == read(tls.get("certificate")).decode()
    assert b"PRIVATE KEY" in read(tls.get("key"))
    assert tls.get("subject") == "CN=full.test" and [name.text for name in tls.iter("name")] == ["full.test"]

    php = site.find("php")
    assert (php.get("handler"), php.get("version"), php.get("user"), php.get("file")) == ("fpm", "8.9", "alice", POOL)
    # A site cannot change what an administrator sets in the pool.
    assert {setting.get("name"): setting.text for setting in php.iter("setting")} == {
        "memory_limit": "64M", "upload_max_filesize": "5M", "short_open_tag": "on"}

    # What must be packed: every file that belongs to the configuration, and the links on the way.
    for name in dump.files():
        unpack(f"{agent.directory}/{name}")
    packed = {os.path.relpath(os.path.join(parent, name), STAGE) for parent, _, names in os.walk(STAGE) for name in names}
    assert os.readlink(f"{STAGE}/home/alice/current") == "releases/2"
    for path in (*(config.text for config in site.iter("config")), tls.get("certificate"), tls.get("key"),
                 os.path.realpath(tls.get("key")), POOL, "/etc/sites/password", f"{PAGE}/index.html", f"{MEDIA}/picture"):
        assert path[1:] in packed, path
    # For Apache also the host's file that lets it serve homes.
    configured = [config.text for config in site.iter("config") if not config.text.endswith("/zz-served.conf")]
    assert len(configured) == 4 and POOL in configured, configured
