"""keyseal-admin rotate against two real authoritative nameservers (nsd on 127.0.0.2 and
127.0.0.3, the zone's NS records with glue), keyseal-milter's selector map in the sandbox's
/etc/keyseal, and a process in the pid file that shows whether the reload signal came."""
import os
import re
import shutil
import time

import pytest

from sandbox import harness
from test_admin_keys import ed25519_key

NS = (("ns1", "127.0.0.2"), ("ns2", "127.0.0.3"))
MAP = "# signing selectors\nother.org keep\nexample.com old\nthird.net old  # same name, other domain\n"
PID = "/run/keyseal-milter/keyseal-milter.pid"


@pytest.fixture
def rot(admin, key, tmp_path):
    """example.com signing with the RSA selector 'old', keyseal-admin installed beside
    keyseal-milter, the zone on two nameservers that serve nothing of the new key yet."""
    rot = admin
    rot.servers = [harness.Nsd(tmp_path / name, address=ip) for name, ip in NS]
    rot.resolver = "127.0.0.2"
    rot.put_key("example.com", "old", key[0])
    os.makedirs(os.path.join(rot.root, "keyseal"))
    os.makedirs(os.path.join(rot.root, "run"))
    with open(os.path.join(rot.root, "keyseal", "selectors"), "w") as f:
        f.write(MAP)
    rot.bin = tmp_path / "bin"
    os.makedirs(rot.bin)
    shutil.copy(os.environ["KEYSEAL_ADMIN_BIN"], rot.bin / "keyseal-admin")
    rot.milter(True)
    rot.serve = lambda records, on=(0, 1): [
        s.serve("example.com", records if i in on else "", nameservers=NS)
        for i, s in enumerate(rot.servers)]
    yield rot
    for s in rot.servers:
        s.stop()


def milter(self, installed):
    beside = self.bin / "keyseal-milter"
    if installed and not beside.exists():
        os.symlink(os.path.join(os.path.dirname(os.environ["KEYSEAL_ADMIN_BIN"]), "keyseal-milter"),
                   beside)
    elif not installed and beside.is_symlink():
        beside.unlink()


harness.Sandbox.milter = milter


def rotate(rot, *args, reload_observer=False, pid_file=PID):
    """keyseal-admin rotate ARGS as installed; with reload_observer, a process named in
    keyseal-milter's pid file, and .observer tells what ended it: 'SIGHUP' (the reload) or
    'not signalled'."""
    admin = f"{rot.bin}/keyseal-admin rotate " + " ".join(args)
    script = admin
    if reload_observer:
        script = (f"mkdir -p {os.path.dirname(pid_file)}; sleep 600 & p=$!; echo $p > {pid_file}; "
                  f"{admin}; rc=$?; kill -0 $p 2>/dev/null && kill $p; {{ wait $p; }} 2>/dev/null; "
                  f"echo observer $? >&2; exit $rc")
    r = rot.run(["-c", script], binary="/bin/sh", argv0="sh",
                env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"})
    m = re.search(rb"observer (\d+)\n", r.stderr)
    r.observer = m and ("SIGHUP" if m.group(1) == b"129" else "not signalled")
    r.stderr = re.sub(rb"observer \d+\n", b"", r.stderr)
    return r


def state(rot, domain="example.com"):
    with open(os.path.join(rot.root, "domainkeys", domain, ".rotation")) as f:
        return dict(l.split(None, 1) for l in f.read().splitlines() if not l.startswith("#"))


def age_switch(rot, days, domain="example.com"):
    """The switch made days ago, as if the week had passed."""
    path = os.path.join(rot.root, "domainkeys", domain, ".rotation")
    then = time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(time.time() - days * 86400))
    text = re.sub(r"(?m)^switched .*$", "switched " + then, open(path).read())
    with open(path, "w") as f:
        f.write(text)


def selector_map(rot):
    return open(os.path.join(rot.root, "keyseal", "selectors")).read()


def test_a_full_rotation(rot):
    r = rotate(rot, "start", "EXAMPLE.com")
    new = time.strftime("s%Y%m%d", time.gmtime())
    assert r.status == 0 and f"{new}._domainkey.example.com. IN TXT".encode() in r.stdout, r.stderr
    assert state(rot)["old"] == "old" and state(rot)["new"] == new and state(rot)["type"] == "rsa"
    assert b"staged " + new.encode() in rotate(rot, "status").stdout

    record = r.stdout.decode()
    rot.serve(record, on=(0,))  # ns2 still serves the zone without the new record
    r = rotate(rot, "switch", "example.com", reload_observer=True)
    assert (r.status, r.observer, selector_map(rot)) == (1, "not signalled", MAP), r.stderr
    assert r.stderr.count(b"\n") == 1 and b"127.0.0.3 (ns2.example.com) has no TXT record" in r.stderr
    assert b"127.0.0.2 (ns1" not in r.stderr and b"ok: 127.0.0.2 (ns1.example.com)" in r.stdout

    rot.serve(record)
    r = rotate(rot, "switch", "example.com", reload_observer=True)
    assert (r.status, r.observer) == (0, "SIGHUP"), r.stdout + r.stderr
    assert selector_map(rot) == MAP.replace("example.com old", f"example.com {new}")
    assert os.path.exists(os.path.join(rot.root, "domainkeys/example.com/old"))  # kept for mail in transit
    assert re.search(rf"signing with {new} \(rsa\) since .* next: keyseal-admin rotate retire "
                     rf"example.com from ".encode(), rotate(rot, "status", "example.com").stdout)

    r = rotate(rot, "retire", "example.com")
    assert r.status == 1 and b"may still be in transit until" in r.stderr
    assert os.path.exists(os.path.join(rot.root, "domainkeys/example.com/old"))
    age_switch(rot, 8)
    r = rotate(rot, "retire", "example.com")
    kept = os.listdir(os.path.join(rot.root, "domainkeys/example.com"))
    assert (r.status, r.stdout) == (0, b"old._domainkey.example.com. IN TXT\n"), r.stderr
    assert "old" not in kept and any(re.fullmatch(r"\.old\.retired-\d{8}T\d{6}", k) for k in kept)
    assert b"example.com: retired old on " in rotate(rot, "status").stdout


@pytest.mark.parametrize("stale,said", [
    ("nothing", b"127.0.0.3 (ns2.example.com) has no TXT record there"),
    ("other-key", b"127.0.0.3 (ns2.example.com) answers another key"),
    ("rsa", b"127.0.0.3 (ns2.example.com) answers k=rsa"),
    ("down", b"127.0.0.3 (ns2.example.com) did not answer"),
])
@pytest.mark.parametrize("force", [False, True])
def test_switch_names_each_server_that_does_not_serve_the_new_key(rot, stale, said, force):
    r = rotate(rot, "start", "example.com", "--type", "ed25519", "--selector", "ed1")
    assert r.status == 0, r.stderr
    other = {"other-key": txt_record("ed1", b"k=ed25519; p=" + ed25519_key()[1]),
             "rsa": txt_record("ed1", b"k=rsa; p=" + harness.generate_key(1024)[2])}
    rot.servers[0].serve("example.com", r.stdout.decode(), nameservers=NS)
    if stale != "down":
        rot.servers[1].serve("example.com", other.get(stale, ""), nameservers=NS)
    r = rotate(rot, "switch", "example.com", *(["--force"] if force else []), reload_observer=True)
    assert said in (r.stdout + r.stderr), r.stdout + r.stderr
    if force:
        assert (r.status, r.observer, b"switching anyway (--force)" in r.stdout) == (0, "SIGHUP", True)
        assert "example.com ed1\n" in selector_map(rot)
    else:
        assert (r.status, r.observer, selector_map(rot)) == (1, "not signalled", MAP)
        assert "switched" not in state(rot)


def txt_record(selector, value):
    return f'{selector}._domainkey IN TXT "v=DKIM1; {value.decode()}"\n'


def test_switch_asks_only_the_servers_given(rot):
    """--nameserver replaces the zone's NS: the stale ns2 is not asked."""
    r = rotate(rot, "start", "example.com", "--selector", "n1")
    rot.serve(r.stdout.decode(), on=(0,))
    r = rotate(rot, "switch", "example.com", "--nameserver", "127.0.0.2", reload_observer=True)
    assert (r.status, r.observer, b"127.0.0.3" in r.stdout) == (0, "SIGHUP", False), r.stderr


@pytest.mark.parametrize("of,status,expect_map", [
    (None, 2, None),
    ("ed25519", 0, "example.com rsa1 NEW\n"),
    ("rsa", 0, "example.com NEW ed1\n"),
])
def test_dual_signing_rotates_one_of_the_two(rot, key, of, status, expect_map):
    rot.put_key("example.com", "rsa1", key[0])
    rot.put_key("example.com", "ed1", ed25519_key()[0])
    with open(os.path.join(rot.root, "keyseal", "selectors"), "w") as f:
        f.write("example.com rsa1 ed1\n")
    r = rotate(rot, "start", "example.com", "--selector", "NEW", *(["--selector-of", of] if of else []))
    assert r.status == status, r.stderr
    if of is None:
        assert b"rsa1 (rsa), ed1 (ed25519): say which to rotate with --selector-of" in r.stderr
        return
    assert f"k={of};".encode() in r.stdout  # the new key has the replaced key's type
    rot.serve(r.stdout.decode())
    r = rotate(rot, "switch", "example.com", reload_observer=True)
    assert (r.status, selector_map(rot)) == (0, expect_map), r.stdout + r.stderr


def test_chain_without_milter_is_told_its_context(rot):
    rot.milter(False)
    shutil.rmtree(os.path.join(rot.root, "keyseal"))
    r = rotate(rot, "start", "example.com", "--type", "ed25519")
    assert r.status == 1 and b"the handler chain's keyseal signs rsa-sha256" in r.stderr, r.stderr
    r = rotate(rot, "start", "example.com", "--selector", "c2")
    rot.serve(r.stdout.decode())
    r = rotate(rot, "switch", "example.com")
    assert r.status == 0 and b"put dkimsel=c2 where the chain now gives dkimsel=old" in r.stdout, r.stderr


@pytest.mark.parametrize("case,status,expect", [
    ("under-way", 1, b"a rotation of example.com is under way (staged"),
    ("taken", 0, b"DAYb._domainkey.example.com."),
    ("no-reload", 1, b"the selector map is switched, but keyseal-milter was not reloaded"),
    ("early-force", 0, b"old._domainkey.example.com. IN TXT"),
    ("retire-staged", 1, b"example.com still signs with old: keyseal-admin rotate switch"),
    ("map-edited", 1, b"warning: example.com: but the selector map /etc/keyseal/selectors signs it "
                      b"with old, not DAY"),
])
def test_refusals_and_overrides(rot, key, case, status, expect):
    day = time.strftime("s%Y%m%d", time.gmtime())
    if case == "taken":
        rot.put_key("example.com", day, key[0])
    r = rotate(rot, "start", "example.com")
    assert r.status == 0, r.stderr
    rot.serve(r.stdout.decode())
    if case == "under-way":
        r = rotate(rot, "start", "example.com")
    elif case == "no-reload":
        r = rotate(rot, "switch", "example.com")
        assert f"example.com {day}".encode() in selector_map(rot).encode()  # the switch stands
    elif case == "early-force":
        assert rotate(rot, "switch", "example.com", reload_observer=True).status == 0
        r = rotate(rot, "retire", "example.com", "--force")
    elif case == "map-edited":  # switched, then the map's line put back by hand
        assert rotate(rot, "switch", "example.com", reload_observer=True).status == 0
        with open(os.path.join(rot.root, "keyseal", "selectors"), "w") as f:
            f.write(MAP)
        r = rotate(rot, "status")
    elif case == "retire-staged":
        r = rotate(rot, "retire", "example.com")
    assert r.status == status and expect.replace(b"DAY", day.encode()) in r.stdout + r.stderr, \
        r.stdout + r.stderr


@pytest.mark.parametrize("conf,map_file,pid_file,before,after", [
    # the settings name the map and the pid file; the line is found whatever its spelling
    ("selector_map /etc/keyseal/map2\npid_file /run/m.pid\n", "map2", "/run/m.pid",
     "Example.COM. old\n", "example.com NEW\n"),
    # no line for the domain: it signed with the default selector, and gets a line of its own
    ("selector old\n", "selectors", PID, "other.org keep\n", "other.org keep\nexample.com NEW\n"),
])
def test_switch_follows_milter_conf(rot, conf, map_file, pid_file, before, after):
    with open(os.path.join(rot.root, "keyseal", "milter.conf"), "w") as f:
        f.write(conf)
    with open(os.path.join(rot.root, "keyseal", map_file), "w") as f:
        f.write(before)
    r = rotate(rot, "start", "example.com", "--selector", "NEW")
    assert r.status == 0 and b"to replace old" in r.stderr, r.stderr
    rot.serve(r.stdout.decode())
    r = rotate(rot, "switch", "example.com", reload_observer=True, pid_file=pid_file)
    assert (r.status, r.observer) == (0, "SIGHUP"), r.stdout + r.stderr
    assert open(os.path.join(rot.root, "keyseal", map_file)).read() == after
