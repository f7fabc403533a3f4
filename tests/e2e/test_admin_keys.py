"""keyseal-admin keygen, dns, check and test against a real DNS server serving the record
that keyseal-admin printed."""
import os
import re
import stat
import subprocess

import dkim
import dns.resolver
import pytest

import harness
from test_handler import ARGS, MSG, SENDMAIL

KEY = "domainkeys/example.com/default"


def record_strings(out):
    """The quoted strings of the TXT record that `dns` printed."""
    rr = out[:out.index(b")")]
    return re.findall(rb'"([^"]*)"', rr)


def public_of(path):
    der = subprocess.run(["openssl", "pkey", "-in", path, "-pubout", "-outform", "DER"],
                         check=True, capture_output=True).stdout
    return __import__("base64").b64encode(der)


def publish(admin, out):
    admin.nsd.serve("example.com", out.decode())


def txt(value):
    """A zone-file TXT record of default._domainkey, in strings of at most 255 bytes."""
    value = value.decode()
    return "default._domainkey IN TXT " + " ".join(
        f'"{value[i:i + 255]}"' for i in range(0, len(value), 255))


def test_keygen_writes_a_key_the_handler_signs_with(admin):
    r = admin.run_admin(["keygen", "example.com"])
    assert r.status == 0, r.stderr
    path = os.path.join(admin.root, KEY)
    st, dir_st = os.stat(path), os.stat(os.path.dirname(path))
    assert (stat.S_IMODE(st.st_mode), stat.S_IMODE(dir_st.st_mode)) == (0o640, 0o750)
    strings = record_strings(r.stdout)
    assert all(len(s) <= 255 for s in strings)
    assert b"".join(strings) == b"v=DKIM1; k=rsa; p=" + public_of(path)
    assert b"; v=DKIM1; k=rsa; p=" + public_of(path) + b"\n" in r.stdout  # the unsplit line
    # the printed record, served by nsd, verifies the handler's signature with dkimpy
    publish(admin, r.stdout)
    signed = admin.run(ARGS, MSG, SENDMAIL).stdout
    res = dns.resolver.Resolver(configure=False)
    res.nameservers = ["127.0.0.1"]
    txt = lambda name, timeout=5: b"".join(res.resolve(name.decode(), "TXT")[0].strings)
    assert dkim.verify(signed, dnsfunc=txt)
    # never overwritten without --force; --group sets the readers' group
    before = open(path, "rb").read()
    again = admin.run_admin(["keygen", "example.com"])
    assert (again.status, open(path, "rb").read()) == (1, before)
    assert admin.run_admin(["keygen", "example.com", "--force", "--group", "25"]).status == 0
    assert open(path, "rb").read() != before and os.stat(path).st_gid == 25


@pytest.mark.parametrize("args", [
    ["a/b"], [".example.com"], ["exa mple.com"], ["example.com\x01"],
    ["example.com", "--selector", "../x"], ["example.com", "--bits", "512"], [],
])
def test_keygen_refuses_bad_names(admin, args):
    r = admin.run_admin(["keygen"] + args)
    assert r.status == 2 and b"\n" == r.stderr[-1:] and r.stderr.count(b"\n") <= 2
    assert os.listdir(os.path.join(admin.root, "domainkeys")) == []


def key_file(admin, data, mode=0o640):
    admin.put_key("example.com", "default", data)
    os.chmod(os.path.join(admin.root, KEY), mode)


@pytest.mark.parametrize("case,status,expect", [
    ("match", 0, "ok: the published public key matches the private key"),
    ("other-key", 1, "error: the published public key does not match the private key"),
    ("no-record", 1, "error: no TXT record at default._domainkey.example.com"),
    ("testing", 0, "warning: the record is in testing mode (t=y)"),
    ("missing-key", 1, "error: key file /etc/domainkeys/example.com/default: No such file"),
    ("oversized", 1, "must be at most 9215 bytes"),
    ("world-writable", 1, "is writable by group or others"),
    ("512-bit", 1, "RSA key of 512 bits: the signer refuses keys below 1024 bits"),
])
def test_check(admin, key, case, status, expect):
    pem, _, public = key
    record = b"v=DKIM1; k=rsa; p=" + public
    if case == "other-key":
        record = record.replace(public, harness.generate_key(1024)[2])
    if case == "testing":
        record = record.replace(b"k=rsa;", b"k=rsa; t=y;")
    admin.nsd.serve("example.com", "" if case == "no-record" else txt(record))
    if case != "missing-key":
        data = {"oversized": pem + b"\n" * 9216, "512-bit": harness.generate_key(512)[0]}
        key_file(admin, data.get(case, pem), 0o646 if case == "world-writable" else 0o640)
    r = admin.run_admin(["check", "example.com"])
    assert r.status == status, r.stdout
    assert expect.encode() in r.stdout
    assert (b"error:" in r.stdout) == (status == 1)


@pytest.mark.parametrize("published,status,expect", [
    ("own", 0, b"ok: the signature verifies against the key published in the DNS (2048-bit"),
    ("other", 1, b"error: the signature does not verify"),
])
def test_self_test(admin, key, published, status, expect):
    admin.put_key("example.com", "default", key[0])
    public = key[2] if published == "own" else harness.generate_key(1024)[2]
    admin.nsd.serve("example.com", txt(b"v=DKIM1; p=" + public))
    r = admin.run_admin(["test", "example.com"])
    assert (r.status, admin.spool()) == (status, []), r.stdout + r.stderr
    assert b"ok: the handler signed: verdict PASS, exit status 0" in r.stdout
    assert expect in r.stdout


def test_self_test_reports_a_failing_handler(admin):
    r = admin.run_admin(["test", "example.com", "--selector", "none"])
    assert r.status == 1
    assert re.search(rb"error: the handler did not sign: exit status 255, .*trace id T\d+", r.stdout)
