"""The fixture that most tests of whole nodes begin with."""

from typing import Iterator

import pytest

from node_scenes import Stage


@pytest.fixture(scope="module", name="stage")
def fixture_stage() -> Iterator[Stage]:
    with Stage() as stage:
        yield stage
