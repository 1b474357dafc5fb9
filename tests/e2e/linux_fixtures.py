"""A fixture for tests that let the agent "linux" work on a host of theirs."""
import pytest

from linux_agent import Agent


@pytest.fixture
def agent(host):
    """The agent on the test's own `host`."""
    deployed = Agent()
    yield deployed
    deployed.end()
