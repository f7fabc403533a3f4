"""keyseal-admin takes a domain as mail servers compare it, and refuses names the handler or
keyseal-milter could never use."""
import os

import pytest


@pytest.mark.parametrize("argv,status,expect", [
    (["keygen", "Example.COM."], 0, "domainkeys/example.com/default"),
    (["keygen", "shop.example", "--selector", "a,b"], 2, "invalid selector 'a,b': it holds ','"),
    (["keygen", "../x"], 2, "invalid domain '../x': not a host name"),
    (["keygen", "[192.0.2.1]"], 0, "domainkeys/[192.0.2.1]/default"),
])
def test_domains_in_any_case_and_names_refused(admin, argv, status, expect):
    r = admin.run_admin(argv)
    assert r.status == status, r.stderr
    if status == 0:
        assert os.path.exists(os.path.join(admin.root, expect))
        assert admin.run_admin(["dns", argv[1].upper()]).status == 0  # looked up in lower case too
    else:
        assert r.stderr.decode().startswith(f"keyseal-admin keygen: {expect}")
