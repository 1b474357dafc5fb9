# Copyright 2026 the sondrel maintainers
"""The options that every module of the collection has."""
from __future__ import absolute_import, division, print_function

__metaclass__ = type


class ModuleDocFragment:
    DOCUMENTATION = r"""
options:
  session:
    description: The session directory. Starting a migration makes it if it is missing.
    type: path
    required: true
  program:
    description: Name or path of C(sondrel-migrate).
    type: str
    default: sondrel-migrate
"""
