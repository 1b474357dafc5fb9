"""The debug log, for the tests that compare its lines."""
import re

import pytest

from tool import Session
from world import DTM, read, write

PROPERTIES = f"{DTM}/log4cpp.properties"


@pytest.fixture
def debug_log():
    """Turns on all log messages; returns the function that reads the lines of a category."""
    kept = read(PROPERTIES)
    write(PROPERTIES, kept.replace(b"rootCategory=INFO", b"rootCategory=DEBUG"))
    yield lines_of
    write(PROPERTIES, kept)


def lines_of(category):
    """["PRIORITY text"...] of the category, in order; only the first line of a text with several lines."""
    found = re.findall(rf"^(\w+) +{re.escape(category)}: (.*)$", Session().log(), re.MULTILINE)
    return [f"{priority} {text}" for priority, text in found]
