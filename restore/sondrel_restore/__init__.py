"""Restores what `sondrel` fetched on a plain Debian host: accounts, files, databases, sites, mail and jobs."""
