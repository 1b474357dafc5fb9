"""This host's own sites, which were here before. The web servers' account may be able to change their files."""
from __future__ import annotations

import glob
import os

from sondrel_restore.restore import Restore
from sondrel_restore.web.config_kind import links

OF_PACKAGES = ("default", "000-default.conf", "default-ssl.conf")


def own_sites(restore: Restore) -> list[str]:
    """The files of these sites, without those that packages install and those that apply made."""
    made = {link for kind in ("nginx", "apache") for entry in restore.journal.entries(kind) for link in links(entry)}
    return sorted(path for path in glob.glob("/etc/nginx/sites-enabled/*") + glob.glob("/etc/apache2/sites-enabled/*")
                  if path not in made and os.path.basename(path) not in OF_PACKAGES)
