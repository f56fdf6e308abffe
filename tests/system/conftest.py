import os
import sys

import pytest

sys.path.insert(0, os.path.dirname(__file__))

from lab import Lab  # noqa: E402


@pytest.fixture
def lab(request):
    # A fresh lab for one test; Lab's arguments through indirect parametrization.
    lab = Lab(**getattr(request, "param", {})).up()
    try:
        yield lab
    finally:
        lab.down()
