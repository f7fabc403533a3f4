import os
import shutil
import subprocess

import pytest

from sandbox import harness, postfix_lab


@pytest.fixture(scope="session")
def lab(tmp_path_factory):
    """One Postfix lab for the session, keyseal-milter in front of it, example.com's key
    published; each test may restart the milter with its own configuration."""
    if not shutil.which("postfix"):
        other = subprocess.run(["sh", "-c", "dpkg-query -W -f='${Package} ${Status}\\n' "
                                "'exim4-daemon-*' sendmail-bin opensmtpd nullmailer 2>/dev/null | "
                                "awk '/ok installed/ {print $1}'"], capture_output=True, text=True).stdout.split()
        pytest.skip("Postfix is not installed: " + (f"the MTA {other[0]} is, and make deps never replaces it"
                                                   if other else "run make deps"))
    root = tmp_path_factory.mktemp("lab")
    try:
        postfix_lab.enter(str(root))
    except harness.Unavailable as e:
        pytest.exit(str(e), returncode=1)
    lab = postfix_lab.Lab(root, os.environ["KEYSEAL_MILTER_BIN"], os.environ["KEYSEAL_ADMIN_BIN"])
    try:
        lab.postfix_config()
        lab.admin("keygen", "example.com")
        lab.nsd.serve("example.com", lab.admin("dns", "example.com").stdout)
        lab.add_sasl_user("ann", "secret")
        lab.admin("postfix", "setup")
        lab.start_milter()  # first, as the service's unit orders it: Postfix never misses it
        lab.start_postfix()
        yield lab
    finally:
        lab.close()
