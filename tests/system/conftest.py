"""What the system tests share."""

import pytest

from lab import AccessPoint


@pytest.fixture
def surroundings():
    """An access point without Redis and daemon: folders, programs, templates, network."""
    with AccessPoint(start=False) as ap:
        yield ap


@pytest.fixture
def access_point():
    """An access point whose daemon follows the DAL."""
    with AccessPoint() as ap:
        ap.wait_ready()
        yield ap
