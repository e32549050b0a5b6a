import contextlib

import pytest

pytest.register_assert_rewrite("harness")
from harness import Host  # noqa: E402


@pytest.fixture
def make_host():
    """Makes a host of this number; all are closed at the end."""
    with contextlib.ExitStack() as hosts:
        def make(number=1):
            host = Host(number)
            hosts.callback(host.close)
            return host
        yield make


@pytest.fixture
def host(make_host):
    return make_host()
