import os
import shutil

import pytest

from sandbox import harness


def pytest_sessionfinish(session):
    """Test keys live in pytest's folders: none is kept after the run."""
    factory = getattr(session.config, "_tmp_path_factory", None)
    if factory is not None and factory._basetemp is not None:
        shutil.rmtree(factory._basetemp, ignore_errors=True)


@pytest.fixture
def sandbox(tmp_path):
    binary = os.environ.get("KEYSEAL_BIN")
    assert binary, "KEYSEAL_BIN names the keyseal binary under test"
    try:
        sb = harness.Sandbox(tmp_path, os.path.abspath(binary))
    except harness.Unavailable as e:
        pytest.exit(str(e), returncode=1)
    yield sb
    sb.close()


@pytest.fixture
def admin(sandbox, tmp_path):
    """The sandbox with a DNS server for the zone example.com; .run_admin() runs keyseal-admin."""
    binary = os.environ.get("KEYSEAL_ADMIN_BIN")
    assert binary, "KEYSEAL_ADMIN_BIN names the keyseal-admin binary under test"
    sandbox.nsd = harness.Nsd(tmp_path / "nsd")
    sandbox.resolver = "127.0.0.1"
    sandbox.run_admin = lambda args, **kw: sandbox.run(args, argv0="keyseal-admin",
                                                       binary=os.path.abspath(binary), **kw)
    yield sandbox
    sandbox.nsd.stop()


@pytest.fixture(scope="session")
def key():
    """(PEM private key, base64 DER private key, base64 public key), made once."""
    return harness.generate_key(2048)


@pytest.fixture
def signer(sandbox, key):
    """A sandbox holding example.com's key under the selector 'default'."""
    sandbox.put_key("example.com", "default", key[0])
    return sandbox
