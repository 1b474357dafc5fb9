"""How the arguments of directives of Apache are checked that reach files, programs, sockets or other hosts."""
from __future__ import annotations

import dataclasses
import re
from collections.abc import Callable, Mapping

from sondrel_restore.web.apache_directives import FILES
from sondrel_restore.web.judge import Judge, Refused
from sondrel_restore.web.php_settings import check_setting

_VARIABLES_OUT = re.compile(
    r"LD_.*|PHP_VALUE|PHP_ADMIN_VALUE|PATH|PYTHON.*|PERL.*|BASH_ENV|ENV|IFS|HOME|TMPDIR|PHPRC")

_OVERRIDE_OPTIONS = "Options=Indexes,FollowSymLinks,SymLinksIfOwnerMatch,MultiViews"
_OPTIONS = {"indexes": "Indexes", "followsymlinks": "FollowSymLinks", "symlinksifownermatch": "SymLinksIfOwnerMatch",
            "multiviews": "MultiViews", "none": "None", "includesnoexec": "IncludesNOEXEC",
            "includes": "IncludesNOEXEC"}
_FILTERS = frozenset(("deflate", "brotli_compress", "substitute", "ratelimit", "inflate"))

_PROXY_OPTION = re.compile(r"[A-Za-z]+=.*|nocanon|interpolate|noquery|upgrade", re.IGNORECASE | re.DOTALL)


@dataclasses.dataclass
class ApacheArguments:
    """Says of arguments how they go in here; raises Refused where they do not.

    `balancers` are the names of groups of servers that go in with the site. `has_php` tells whether PHP is a module
    here.
    """

    judge: Judge
    balancers: frozenset[str]
    has_php: bool

    def checked(self, name: str, args: tuple[str, ...]) -> tuple[str, ...]:
        """The arguments of a directive, as they go in."""
        check = _CHECKS.get(name)
        if check is None:
            raise Refused("this directive is not among those that are taken")
        if not args:
            raise Refused("it has no argument")
        return check(self, name, args)

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


# By the name of the directive.
_CHECKS: Mapping[str, Callable[[ApacheArguments, str, tuple[str, ...]], tuple[str, ...]]] = {
    "documentroot": ApacheArguments.check_root,
    **{name: ApacheArguments.check_alias for name in ("alias", "aliasmatch")},
    **{name: ApacheArguments.check_log for name in ("errorlog", "customlog", "transferlog")},
    **{name: ApacheArguments.check_own_file for name in FILES},
    **{name: ApacheArguments.check_pass for name in ("proxypass", "proxypassmatch", "balancermember")},
    "sethandler": ApacheArguments.check_handler, "addhandler": ApacheArguments.check_handler,
    **{name: ApacheArguments.check_php for name in ("php_value", "php_flag", "php_admin_value", "php_admin_flag")},
    "options": ApacheArguments.check_options, "allowoverride": ApacheArguments.check_override,
    "rewriterule": ApacheArguments.check_rewrite, "rewritemap": ApacheArguments.check_map,
    **{name: ApacheArguments.check_variable for name in (
        "setenv", "setenvif", "setenvifexpr", "setenvifnocase", "browsermatch", "browsermatchnocase")},
    **{name: ApacheArguments.check_filter for name in ("setoutputfilter", "addoutputfilter", "addoutputfilterbytype")},
    **{name: ApacheArguments.check_word for name in ("proxyrequests", "authbasicprovider", "authdigestprovider")},
    "headername": ApacheArguments.check_name, "readmename": ApacheArguments.check_name,
}
