"""What to restore, and the decisions that the options make."""
from __future__ import annotations

import dataclasses
from collections.abc import Mapping

from sondrel_restore.description import Description
from sondrel_restore.kind import Item, RestoreError


class Selection:
    """Selects objects by the domains and clients that they belong to; all objects if none was named."""

    def __init__(self, description: Description, domains: frozenset[str], clients: frozenset[str]) -> None:
        """A domain may be given by any of its names. RestoreError for a name that the description does not have."""
        self._is_all = not domains and not clients
        self._clients = clients
        self._domains: set[str] = set()
        unknown_clients = clients - {client.name for client in description.clients()}
        if unknown_clients:
            raise RestoreError(f"There is no client {', '.join(sorted(unknown_clients))} in the description")
        left = set(domains)
        for domain in description.domains():
            names = {domain.name, *domain.names}
            if names & domains or domain.client in clients:
                self._domains.add(domain.name)
                left -= names
        if left:
            raise RestoreError(f"There is no domain {', '.join(sorted(left))} in the description")

    @property
    def is_all(self) -> bool:
        """Whether no domain or client was named, so that everything is selected."""
        return self._is_all

    def takes(self, item: Item) -> bool:
        """Whether the object is selected."""
        return self._is_all or not self._domains.isdisjoint(item.domains) or not self._clients.isdisjoint(item.clients)

    def takes_whole(self, item: Item) -> bool:
        """Whether all domains or clients that the object belongs to are selected, so that it can be removed."""
        if item.domains:
            return self._is_all or item.domains <= self._domains
        return self._is_all or bool(item.clients) and item.clients <= self._clients

    def takes_domain(self, name: str) -> bool:
        """Whether the domain is selected. `name` is its name in the description."""
        return self._is_all or name in self._domains

    def takes_client(self, name: str) -> bool:
        """Whether the client is selected as a whole."""
        return self._is_all or name in self._clients


@dataclasses.dataclass(frozen=True)
class Decisions:
    """The decisions that the options make about objects."""

    replaced: frozenset[str] = frozenset()
    skipped: frozenset[str] = frozenset()
    accounts: Mapping[str, str] = dataclasses.field(default_factory=dict)
    install: bool = False
    start_jobs: bool = False
    trust_configuration: bool = False

    def replace(self, identifier: str) -> bool:
        """Whether the object may overwrite what is here."""
        return identifier in self.replaced

    def skip(self, identifier: str) -> bool:
        """Whether the object is left out."""
        return identifier in self.skipped

    def account_here(self, name_there: str) -> str:
        """The name that an account of the source host, or its group, has here."""
        return self.accounts.get(name_there, name_there)
