"""Which directives of Apache go into this host's configuration, and how their arguments are checked.

What is not named here is left out. Names are in lower case, as the description has them.
"""
from __future__ import annotations

import dataclasses
import fnmatch
import ipaddress
import os
import re
from collections.abc import Callable, Iterable, Mapping

from sondrel_restore.hostfiles import components
from sondrel_restore.kind import RestoreError
from sondrel_restore.web.directives import Directive, apache_rest, quoted_for_apache
from sondrel_restore.web.judge import Judge, Refused
from sondrel_restore.web.php_settings import check_setting

# Those whose arguments reach no file, program, socket or other host; written as they stood.
PLAIN = frozenset("""
    acceptpathinfo addcharset adddefaultcharset adddescription addencoding addicon addiconbyencoding addiconbytype
    addlanguage addtype allow allowencodedslashes allowoverridelist authbasicauthoritative authmerging authname
    authtype checkspelling contentdigest defaulticon defaultlanguage defaulttype deflatebuffersize
    deflatecompressionlevel deflatefilternote deny directorycheckhandler directoryindex directoryindexredirect
    directoryslash enablemmap enablesendfile errordocument expiresactive expiresbytype expiresdefault
    fallbackresource fileetag forcelanguagepriority forcetype h2direct h2push header hostnamelookups indexignore
    indexignorereset indexoptions indexorderdefault indexstylesheet keepalive keepalivetimeout languagepriority
    limitrequestbody limitrequestfields limitrequestfieldsize limitrequestline logformat loglevel
    maxkeepaliverequests mergeslashes multiviewsmatch order protocols protocolshonororder proxyaddheaders
    proxyerroroverride proxypassreverse proxypassreversecookiedomain proxypassreversecookiepath proxypreservehost
    proxytimeout proxyvia redirect redirectmatch redirectpermanent redirecttemp referrerpolicy removecharset
    removeencoding removehandler removetype requestheader requestreadtimeout require rewritebase rewritecond
    rewriteengine rewriteoptions satisfy serveradmin serveralias servername serversignature
    sslciphersuite sslcompression sslengine sslhonorcipherorder ssloptions sslprotocol sslproxycheckpeercn
    sslproxycheckpeerexpire sslproxycheckpeername sslproxyengine sslproxyprotocol sslproxyverify
    sslproxyverifydepth sslsessiontickets sslstrictsnivhostcheck sslverifyclient sslverifydepth timeout
    traceenable unsetenv usecanonicalname usecanonicalphysicalport limitinternalrecursion
""".split())

_SECTIONS = frozenset(("directorymatch", "location", "locationmatch", "files", "filesmatch", "if", "elseif", "else",
                       "limit", "limitexcept", "requireall", "requireany", "requirenone"))
_FILES = frozenset(("sslcertificatefile", "sslcertificatekeyfile", "sslcertificatechainfile", "sslcacertificatefile",
                    "sslcarevocationfile", "authuserfile", "authgroupfile"))
# Without these the site would be open to more visitors than it was.
_GUARDS = frozenset(("require", "allow", "deny", "order", "satisfy", "authtype", "authuserfile", "authgroupfile",
                     "authbasicprovider", "authdigestprovider", "sslverifyclient", "requireall", "requireany",
                     "requirenone", "limit", "limitexcept", "authldapurl"))
# What a web server would say of a file or of its own environment to visitors.
_READS = re.compile(r"\b(?:file|filesize|osenv)\s*\(|%\{(?:file|filesize|osenv):", re.IGNORECASE)
_VARIABLES_OUT = re.compile(
    r"LD_.*|PHP_VALUE|PHP_ADMIN_VALUE|PATH|PYTHON.*|PERL.*|BASH_ENV|ENV|IFS|HOME|TMPDIR|PHPRC")

_OVERRIDE_OPTIONS = "Options=Indexes,FollowSymLinks,SymLinksIfOwnerMatch,MultiViews"
_OPTIONS = {"indexes": "Indexes", "followsymlinks": "FollowSymLinks", "symlinksifownermatch": "SymLinksIfOwnerMatch",
            "multiviews": "MultiViews", "none": "None", "includesnoexec": "IncludesNOEXEC",
            "includes": "IncludesNOEXEC"}
_FILTERS = frozenset(("deflate", "brotli_compress", "substitute", "ratelimit", "inflate"))

_PROXY_OPTION = re.compile(r"[A-Za-z]+=.*|nocanon|interpolate|noquery|upgrade", re.IGNORECASE | re.DOTALL)

# A handler at which nothing answers, in the place of one that does not go in: files of programs are not sent as text.
_NO_HANDLER = "proxy:fcgi://127.0.0.1:1"


@dataclasses.dataclass
class ApacheRules:
    """Makes of a virtual host of the source host one that goes in here, with the definitions that it uses.

    `roots` are the directories that the site serves, as its DocumentRoot and aliases say; `balancers` the names of
    groups of servers that go in with it. `addresses` are this host's own. `has_php` tells whether PHP is a module here,
    `php` how the site's PHP was run ("module", "fpm"), empty where it had none.
    """

    judge: Judge
    roots: tuple[str, ...]
    balancers: frozenset[str]
    addresses: frozenset[str]
    has_php: bool
    php: str = "module"

    def virtual_host(self, block: Directive, uses: Iterable[Directive]) -> Directive:
        """The virtual host; definitions are put into it, so that their names meet no others of this host."""
        inner: list[Directive] = []
        for use in sorted(uses, key=_depth):
            inner += self._narrowed(use) if use.name == "directory" else self._taken_or_instead(use)
        for directive in block.block or ():
            inner += self._taken_or_instead(directive)
        if self.has_php and self.php != "module" and not self.judge.trust:
            inner += self._without_module(block)
        at = tuple(self._address(arg) for arg in block.args)
        return dataclasses.replace(block, args=at, raw=None, block=tuple(inner))

    def _without_module(self, block: Directive) -> list[Directive]:
        """PHP as a module runs the programs of all virtual hosts, as the web server, unless one says otherwise."""
        off = _made(block, "ifmodule", "php_module", _made(block, "php_admin_flag", "engine off"))
        if self.php or any(each.name in ("sethandler", "addhandler") for each in block.within()):
            return [off]
        self.judge.changed.append("programs in PHP are refused, since it had no PHP on the source host")
        return [off, _made(block, "filesmatch", r'"\.ph[apt][rm]?l?$"', _made(block, "require", "all denied"))]

    def _address(self, arg: str) -> str:
        host, colon, port = arg.rpartition(":")
        if not colon or "]" in port:
            host, port = arg, ""
        if not re.fullmatch(r"[0-9]{1,5}|\*|", port):
            raise RestoreError(f"{arg} is no address")
        if host not in ("*", "_default_") and host.strip("[]") not in self.addresses and not _is_loopback(host):
            self.judge.changed.append(f"answers at *:{port} in place of {arg}, which is no address of this host")
            host = "*"
        return f"{host}:{port}" if port else host

    def _taken_or_instead(self, directive: Directive) -> list[Directive]:
        if self.judge.trust:
            return [self._trusted(directive)]
        try:
            return [self._taken(directive)]
        except Refused as refused:
            self.judge.leave_out(directive, str(refused))
            return _instead_of(directive)

    def _taken(self, directive: Directive) -> Directive:
        name = directive.name
        if _READS.search(apache_rest(directive)):
            raise Refused("it would tell visitors what is in a file or variable of this host")
        if directive.block is not None:
            return self._section(directive)
        if name in PLAIN:
            return directive
        check = _CHECKS.get(name)
        if check is None:
            raise Refused("this directive is not among those that are taken")
        if not directive.args:
            raise Refused("it has no argument")
        args = check(self, name, directive.args)
        return _rewrite_written(directive, args) if name == "rewriterule" else _written(directive, args)

    def _section(self, directive: Directive) -> Directive:
        if directive.name == "directory":
            path = self.judge.served_path(_path_of(directive).rstrip("/") or "/")
            directive = _written(directive, (path,))
        elif directive.name == "proxy" and directive.args and directive.args[0].startswith("balancer://"):
            pass
        elif directive.name not in _SECTIONS:
            raise Refused("this section is not among those that are taken")
        inner = [each for child in directive.block or () for each in self._taken_or_instead(child)]
        return dataclasses.replace(directive, block=tuple(inner))

    def _narrowed(self, directive: Directive) -> list[Directive]:
        """A section for directories: for those of the site alone, where it is for more than was restored."""
        path = _path_of(directive).rstrip("/")
        try:
            self.judge.served_path(path or "/")
            if not re.search(r"[*?\[]", path):
                return self._taken_or_instead(directive)
        except Refused:
            pass
        found: list[Directive] = []
        for root in self.roots:
            if _covers(path, root):
                found += self._taken_or_instead(_written(directive, (root,)))
        return found

    def _trusted(self, directive: Directive) -> Directive:
        if directive.name in _FILES and directive.args and directive.args[0] in self.judge.files:
            return _written(directive, (str(self.judge.files[directive.args[0]]),))
        if directive.name == "sethandler" and directive.args:
            try:
                return _written(directive, self.check_handler("sethandler", directive.args))
            except Refused:
                return directive
        if directive.block is None:
            return directive
        return dataclasses.replace(directive, block=tuple(self._trusted(inner) for inner in directive.block))

    # Checks of single directives: the arguments as they go in.

    def check_root(self, _name: str, args: tuple[str, ...]) -> tuple[str, ...]:
        if re.search(r"[%$]", args[0]):
            raise Refused(f"{args[0]} depends on the request")
        return (self.judge.served_path(args[0].rstrip("/") or "/"),)

    def check_alias(self, name: str, args: tuple[str, ...]) -> tuple[str, ...]:
        if len(args) != 2:
            raise Refused("it has no path of the server and of a file")
        url, path = args
        if "%" in path:
            raise Refused(f"{path} depends on the request")
        self.judge.served_path(path.rstrip("/") or "/")
        if name == "alias" and path.endswith("/") and not url.endswith("/"):
            # "/a../x" would be what lies beside the directory.
            path = path.rstrip("/")
        return (url, path)

    def check_log(self, name: str, args: tuple[str, ...]) -> tuple[str, ...]:
        if args[0].startswith("|"):
            raise Refused("a program would run as root")
        if args[0].startswith("syslog"):
            raise Refused(f"{args[0]} is no file")
        rest = args[1:2] if name == "customlog" else ()
        return (self.judge.log(args[0]), *rest)

    def check_own_file(self, _name: str, args: tuple[str, ...]) -> tuple[str, ...]:
        return (self.judge.own_file(args[0]),)

    def check_pass(self, name: str, args: tuple[str, ...]) -> tuple[str, ...]:
        # In a location there is no path before it. A path may look like an address: what counts is what follows it.
        place = 0 if name == "balancermember" or all(_PROXY_OPTION.fullmatch(arg) for arg in args[1:]) else 1
        if place >= len(args):
            raise Refused("it has no address")
        return (*args[:place], self._target(args[place]), *args[place + 1:])

    def _target(self, url: str) -> str:
        if url == "!":
            return url
        socket = re.fullmatch(r"unix:([^|]+)\|(fcgi|http)://(.*)", url)
        if socket:
            here = self.judge.pool_socket("unix:" + socket[1]) if socket[2] == "fcgi" else None
            if here is not None:
                return f"unix:{here}|fcgi://{socket[3]}"
            if socket[2] == "fcgi":
                raise Refused(f"{socket[1]} is the socket of no restored pool")
            self.judge.backend("unix:" + socket[1])
            return url
        match = re.fullmatch(r"(https?|wss?|fcgi|balancer)://([^/?]+)(.*)", url, re.DOTALL)
        if not match:
            raise Refused(f"\"{url}\" is no address that is taken")
        if match[1] == "balancer":
            if match[2] not in self.balancers:
                raise Refused(f"there is no group of servers {match[2]}")
            return url
        if match[1] == "fcgi":
            here = self.judge.pool_socket(match[2])
            if here is not None:
                return f"unix:{here}|fcgi://localhost{match[3]}"
        if "%" in match[2]:
            raise Refused(f"{url} depends on the request")
        self.judge.backend(match[2])
        return url

    def check_handler(self, name: str, args: tuple[str, ...]) -> tuple[str, ...]:
        handler = args[0]
        if handler.startswith("proxy:"):
            return ("proxy:" + self._target(handler[len("proxy:"):]), *args[1:])
        if handler in ("none", "default-handler") and name == "sethandler":
            return args
        if re.fullmatch(r"application/x-httpd-php[0-9.]*", handler) and self.has_php:
            return ("application/x-httpd-php", *args[1:])
        raise Refused(f"the handler {handler} would run a program as the web server")

    def check_php(self, _name: str, args: tuple[str, ...]) -> tuple[str, ...]:
        if len(args) != 2 or not self.has_php:
            raise Refused("PHP is no module of Apache here")
        check_setting(self.judge, args[0], args[1])
        return args

    def check_options(self, _name: str, args: tuple[str, ...]) -> tuple[str, ...]:
        kept: list[str] = []
        for arg in args:
            sign, word = (arg[0], arg[1:]) if arg[0] in "+-" else ("", arg)
            if word.lower() == "all":
                kept += ["Indexes", "FollowSymLinks", "MultiViews"]
            elif sign == "-" and word.lower() == "execcgi":
                kept.append("-ExecCGI")
            elif word.lower() in _OPTIONS:
                kept.append(sign + _OPTIONS[word.lower()])
            else:
                self.judge.changed.append(f"the option {arg} is left out: programs would run as the web server")
        return tuple(kept) or ("None",)

    def check_override(self, _name: str, args: tuple[str, ...]) -> tuple[str, ...]:
        kept: list[str] = []
        for arg in args:
            word = arg.lower()
            if word == "all":
                kept += ["AuthConfig", "FileInfo", "Indexes", "Limit", _OVERRIDE_OPTIONS]
            elif word.startswith("options"):
                kept.append(_OVERRIDE_OPTIONS)
            elif word in ("none", "authconfig", "fileinfo", "indexes", "limit") or word.startswith("nonfatal="):
                kept.append(arg)
            else:
                raise Refused(f"{arg} is not known")
        return tuple(kept)

    def check_rewrite(self, _name: str, args: tuple[str, ...]) -> tuple[str, ...]:
        if len(args) not in (2, 3):
            raise Refused("it has no pattern and substitution")
        pattern, target = args[:2]
        flags = [flag.strip() for flag in args[2].strip("[]").split(",")] if len(args) == 3 else []
        names = {flag.partition("=")[0].upper() for flag in flags}
        if names & {"H", "HANDLER"}:
            raise Refused("it chooses a handler")
        for flag in flags:
            key, _, value = flag.partition("=")
            if key.upper() in ("E", "ENV") and _VARIABLES_OUT.fullmatch(value.partition(":")[0]):
                raise Refused(f"the variable {value} steers programs")
        if names & {"P", "PROXY"}:
            if re.match(r"[^/]*//[^/]*[%$]", target):
                raise Refused(f"{target} depends on the request")
            return (pattern, self._target(target), args[2])
        outside = re.match(r"[a-z]+://", target) or names & {"R", "REDIRECT", "F", "FORBIDDEN", "G", "GONE"}
        if target == "-" or outside or names & {"PT", "PASSTHROUGH"}:
            return args
        if target.startswith("%{DOCUMENT_ROOT}/") and ".." not in target and "%" not in target[16:]:
            return args
        # As a path of the site: without this it may be one of this host's file system.
        return (pattern, target, "[" + ",".join([*flags, "PT"]) + "]")

    def check_map(self, _name: str, args: tuple[str, ...]) -> tuple[str, ...]:
        kind, _, rest = args[1].partition(":") if len(args) > 1 else ("", "", "")
        if kind == "int":
            return args
        if kind in ("txt", "rnd"):
            self.judge.served_path(rest)
            return args
        raise Refused(f"a map of the kind {kind or 'none'} may run a program as root")

    def check_variable(self, name: str, args: tuple[str, ...]) -> tuple[str, ...]:
        first = {"setenv": 0, "browsermatch": 1, "browsermatchnocase": 1, "setenvifexpr": 1}.get(name, 2)
        for each in args[first:first + 1] if name == "setenv" else args[first:]:
            if _VARIABLES_OUT.fullmatch(each.lstrip("!").partition("=")[0]):
                raise Refused(f"the variable {each} steers programs")
        return args

    def check_filter(self, _name: str, args: tuple[str, ...]) -> tuple[str, ...]:
        for each in args[0].split(";"):
            if each.lower() not in _FILTERS:
                raise Refused(f"the filter {each} may run programs")
        return args

    def check_word(self, name: str, args: tuple[str, ...]) -> tuple[str, ...]:
        allowed = {"proxyrequests": ("off",), "authbasicprovider": ("file",), "authdigestprovider": ("file",)}[name]
        if any(arg.lower() not in allowed for arg in args):
            raise Refused(f"only \"{allowed[0]}\" is taken")
        return args

    def check_name(self, _name: str, args: tuple[str, ...]) -> tuple[str, ...]:
        if any(".." in arg.split("/") for arg in args):
            raise Refused("it has \"..\"")
        return args


_CHECKS: Mapping[str, Callable[[ApacheRules, str, tuple[str, ...]], tuple[str, ...]]] = {
    "documentroot": ApacheRules.check_root, "alias": ApacheRules.check_alias, "aliasmatch": ApacheRules.check_alias,
    "errorlog": ApacheRules.check_log, "customlog": ApacheRules.check_log, "transferlog": ApacheRules.check_log,
    **{name: ApacheRules.check_own_file for name in _FILES},
    **{name: ApacheRules.check_pass for name in ("proxypass", "proxypassmatch", "balancermember")},
    "sethandler": ApacheRules.check_handler, "addhandler": ApacheRules.check_handler,
    **{name: ApacheRules.check_php for name in ("php_value", "php_flag", "php_admin_value", "php_admin_flag")},
    "options": ApacheRules.check_options, "allowoverride": ApacheRules.check_override,
    "rewriterule": ApacheRules.check_rewrite, "rewritemap": ApacheRules.check_map,
    **{name: ApacheRules.check_variable for name in (
        "setenv", "setenvif", "setenvifexpr", "setenvifnocase", "browsermatch", "browsermatchnocase")},
    **{name: ApacheRules.check_filter for name in ("setoutputfilter", "addoutputfilter", "addoutputfilterbytype")},
    **{name: ApacheRules.check_word for name in ("proxyrequests", "authbasicprovider", "authdigestprovider")},
    "headername": ApacheRules.check_name, "readmename": ApacheRules.check_name,
}


def _instead_of(directive: Directive) -> list[Directive]:
    """What keeps a site as closed as it was without a directive that does not go in."""
    if directive.name in ("sethandler", "addhandler"):
        return [_written(directive, (_NO_HANDLER, *directive.args[1:]))]
    if directive.name in _GUARDS:
        return [dataclasses.replace(_written(directive, ("all", "denied")), name="require", block=None)]
    return []


def _made(near: Directive, name: str, rest: str, *inner: Directive) -> Directive:
    """A directive that the source host does not have."""
    return Directive(name, (), near.file, near.line, raw=rest, block=inner or None)


def _written(directive: Directive, args: tuple[str, ...]) -> Directive:
    """With arguments that were checked, and nothing of the line that they stood on."""
    return dataclasses.replace(directive, args=args, raw=" ".join(quoted_for_apache(arg) for arg in args))


def _rewrite_written(directive: Directive, args: tuple[str, ...]) -> Directive:
    """Apache takes no backslashes away from the words of this directive."""
    words: list[str] = []
    for arg in args:
        if re.search(r"(?<!\\)\s", arg) or not arg:
            if '"' in arg:
                raise Refused("it cannot be written in one line")
            arg = f'"{arg}"'
        words.append(arg)
    return dataclasses.replace(directive, args=args, raw=" ".join(words))


def _path_of(section: Directive) -> str:
    if len(section.args) != 1 or not section.args[0].startswith("/"):
        raise Refused("it is for no directory")
    return section.args[0]


def _depth(directive: Directive) -> int:
    return directive.args[0].rstrip("/").count("/") if directive.name == "directory" and directive.args else 0


def _covers(pattern: str, path: str) -> bool:
    """Whether a section for a directory holds for a path below it, too."""
    words, names = [word for word in pattern.split("/") if word], components(path)
    return len(words) <= len(names) and all(fnmatch.fnmatchcase(name, word) for word, name in zip(words, names))


def _is_loopback(host: str) -> bool:
    try:
        return ipaddress.ip_address(host.strip("[]")).is_loopback
    except ValueError:
        return host == "localhost"


def roots_of(judge: Judge, block: Directive) -> tuple[str, ...]:
    """The directories that a virtual host serves and that may be served here."""
    found: list[str] = []
    for each in block.within():
        path = each.args[-1] if each.name in ("documentroot", "alias") and each.args else ""
        try:
            found += [judge.served_path(path.rstrip("/"))] if path.startswith("/") else []
        except Refused:
            continue
    return tuple(dict.fromkeys(os.path.normpath(path) for path in found))
