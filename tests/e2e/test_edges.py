"""The handler in a hostile or careless environment: every edge ends in a clean failure
(or death by the chain's signal) with nothing on stderr, nothing of the message in the
log and nothing left in the spool directory."""
import os
import signal
import subprocess
import time

import pytest

from test_handler import ARGS, SENDMAIL

MARK = b"confidential-body-line"
MSG = b"From: ann@example.com\nTo: bob@example.net\nSubject: s\n\n" + MARK + b"\n"


def protected_key(sandbox):
    sandbox.put_key("example.com", "default", subprocess.run(
        ["openssl", "genpkey", "-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:1024", "-aes256",
         "-pass", "pass:x"], check=True, capture_output=True).stdout)


def fifo_key(sandbox):
    os.mkfifo(os.path.join(sandbox.root, "domainkeys", "example.com", "default"))


def killed_mid_body(sandbox):
    """SIGTERM while the body is still arriving: the chain's timeout."""
    proc = sandbox.start(ARGS, SENDMAIL)
    proc.stdin.write(MSG + MARK * 1000)
    proc.stdin.flush()
    for _ in range(3000):  # a bounded wait for the spool file, not a timing assertion
        if sandbox.spool():
            break
        time.sleep(0.01)
    assert sandbox.spool(), "keyseal never spooled the message"
    proc.send_signal(signal.SIGTERM)
    out, err = proc.communicate(timeout=60)
    return proc.returncode, out, err, sandbox.logs()


@pytest.mark.parametrize("setup,fds,status,log", [
    (None, {0: None}, 255, "cannot parse the e-mail's envelope."),
    (None, {1: None}, 255, "cannot write the e-mail's envelope into '"),
    (None, {1: "/dev/full"}, 255, "cannot write the e-mail's envelope into '"),
    (fifo_key, {}, 255, "cannot get sender domain key from /etc/domainkeys/example.com/default"),
    (protected_key, {}, 255, "DKIM error: DKIM Resource unavailable"),
    (killed_mid_body, None, -signal.SIGTERM, None),
], ids=["stdin-closed", "stdout-closed", "stdout-full", "fifo-key", "protected-key", "sigterm"])
def test_edge(signer, setup, fds, status, log):
    if fds is None:
        code, out, err, logs = setup(signer)
    else:
        if setup:  # replaces the good key
            os.remove(os.path.join(signer.root, "domainkeys", "example.com", "default"))
            setup(signer)
        r = signer.run(ARGS, MSG, SENDMAIL, fds=fds, timeout=60)  # a hang fails the case
        code, out, err, logs = r.status, r.stdout, r.stderr, r.logs
    assert (code, err, signer.spool()) == (status, b"", [])
    texts = [l.text for l in logs]
    assert not any(MARK.decode() in t for t in texts), texts
    assert log is None or any(log in t for t in texts), texts
