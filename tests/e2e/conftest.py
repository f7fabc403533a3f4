import os
import sys

import pytest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import harness  # noqa: E402


@pytest.fixture
def sandbox(tmp_path):
    binary = os.environ.get("KEYSEAL_BIN")
    assert binary, "KEYSEAL_BIN names the keyseal binary under test"
    sb = harness.Sandbox(tmp_path, os.path.abspath(binary))
    yield sb
    sb.close()


@pytest.fixture(scope="session")
def key():
    """(PEM private key, base64 DER private key, base64 public key), made once."""
    return harness.generate_key(2048)


@pytest.fixture
def signer(sandbox, key):
    """A sandbox holding example.com's key under the selector 'default'."""
    sandbox.put_key("example.com", "default", key[0])
    return sandbox
