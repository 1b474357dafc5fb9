"""How --get-content reads a file: chunk by chunk, whatever the pieces in which the network delivers it."""
import pytest

from content import offered
from invariants import ARCHIVES, check
from relay import Relay, trickle
from source_host import SourceHost
from system_faults import Fault, preload  # a fixture  # noqa: F401  # pylint: disable=unused-import
from tool import Destination
from world import ROOT, SESSION

pytestmark = pytest.mark.release_only

CHUNK = 65536
STATUS = f"{SESSION}/migration.status"
FILES = {"large": bytes(range(256)) * 4096, "small": b"1", "empty": b""}  # 1 MiB
WHOLE_CHUNKS = len(FILES["large"]) // CHUNK + 1


@pytest.fixture
def way():
    """A connection to a source host over a relay that delivers small pieces, fast enough that each chunk is complete in
    time.
    """
    with SourceHost(port=2222, recording=False):
        offered(ROOT, *FILES.items())
        with Relay(trickle, "connected"):
            yield


def calls(preload, kind):
    """The objects of all calls of this kind, in a run that fetches everything."""
    counted = Fault(preload, kind, 0)
    outcome = Destination(ROOT).start("get-content", environment=counted.environment).finish()
    assert outcome.code == 0
    check(outcome, FILES)
    return counted.struck()


def test_small_pieces_are_written_as_whole_chunks(preload, way):
    written = [path for path in calls(preload, "write") if path == f"{ARCHIVES}/large"]
    # On a busy machine some chunks may not be complete in time.
    assert WHOLE_CHUNKS - 1 <= len(written) <= 2 * WHOLE_CHUNKS


def test_status_is_saved_once_for_each_chunk_and_twice_for_each_file(preload, way):
    saved = [names for names in calls(preload, "rename") if names.endswith(f" -> {STATUS}")]
    least = WHOLE_CHUNKS + 2 * len(FILES)
    assert least <= len(saved) <= least + WHOLE_CHUNKS + 2
