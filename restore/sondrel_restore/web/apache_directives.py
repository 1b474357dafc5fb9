"""Which directives of Apache go into this host's configuration, by what is checked of them.

What is not named here or in apache_arguments is left out. Names are in lower case, as the description has them.
"""
from __future__ import annotations

import dataclasses

from sondrel_restore.web.apache_writing import written
from sondrel_restore.web.directives import Directive

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

SECTIONS = frozenset(("directorymatch", "location", "locationmatch", "files", "filesmatch", "if", "elseif", "else",
                      "limit", "limitexcept", "requireall", "requireany", "requirenone"))
# Those whose first argument is a file that is restored.
FILES = frozenset(("sslcertificatefile", "sslcertificatekeyfile", "sslcertificatechainfile", "sslcacertificatefile",
                   "sslcarevocationfile", "authuserfile", "authgroupfile"))
# Without these the site would be open to more visitors than it was.
GUARDS = frozenset(("require", "allow", "deny", "order", "satisfy", "authtype", "authuserfile", "authgroupfile",
                    "authbasicprovider", "authdigestprovider", "sslverifyclient", "requireall", "requireany",
                    "requirenone", "limit", "limitexcept", "authldapurl"))

# A handler at which nothing answers, in the place of one that does not go in: files of programs are not sent as text.
_NO_HANDLER = "proxy:fcgi://127.0.0.1:1"


def instead_of(directive: Directive) -> list[Directive]:
    """What keeps a site as closed as it was without a directive that does not go in."""
    if directive.name in ("sethandler", "addhandler"):
        return [written(directive, (_NO_HANDLER, *directive.args[1:]))]
    if directive.name in GUARDS:
        return [dataclasses.replace(written(directive, ("all", "denied")), name="require", block=None)]
    return []
