import os
import sys

import pytest

sys.path.insert(0, os.path.dirname(__file__))

from lab import Lab  # noqa: E402


@pytest.fixture
def lab():
    """A fresh lab (namespaces, private bus, private DNSPROXY_ROOT) for one test."""
    lab = Lab().up()
    try:
        yield lab
    finally:
        lab.down()
