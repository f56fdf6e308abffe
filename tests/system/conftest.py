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


@pytest.fixture
def bus_lab():
    """A private bus and DNSPROXY_ROOT without network namespaces, for bus-only tests."""
    lab = Lab(with_netns=False).up()
    try:
        yield lab
    finally:
        lab.down()
