"""rotate auto and delegated domains against a hoster's DNS (sandbox/dns_lab.py: Knot DNS the
primary taking TSIG-signed updates, nsd its secondary, unbound the receivers' resolver) and the
Postfix lab: each message signed before, during and after every step is verified by dkimpy
through unbound, so a message signed with a key the DNS does not serve fails the test."""
import os
import re
import signal
import subprocess
import time

import dkim
import dns.query
import dns.resolver
import dns.tsigkeyring
import dns.update
import pytest

from sandbox import dns_lab
from test_milter import deliver, sendmail, signatures

HOSTED = "shop.hoster.test"          # its records in the hoster's zone, which keyseal updates
DELEGATED = "customer.test"          # its owner's CNAMEs lead into the hoster's zone
MANUAL = "manual.customer.test"      # in the owner's zone, which keyseal cannot update
LATE = "late.customer.test"          # delegated, its owner never publishes the CNAMEs
KEYS = "/etc/domainkeys"
MAP = "/etc/keyseal/selectors"
DAYS = 24 * 3600


def lookup(name, timeout=5):
    res = dns.resolver.Resolver(configure=False)
    res.nameservers = [dns_lab.RESOLVER]
    res.cache = None
    return b"".join(res.resolve(name.decode(), "TXT")[0].strings)


def signed_with(lab, domain):
    """The selectors of the signatures on a message from domain sent now, each verified."""
    data = (f"From: ann@{domain}\r\nTo: bob@example.net\r\nSubject: rotation\r\n"
            f"Message-ID: <{time.time_ns()}@{domain}>\r\n\r\nbody\r\n").encode()
    got, _ = deliver(lab, sendmail, data, sender=f"ann@{domain}")
    out = []
    for i, sig in enumerate(signatures(got)):
        assert dkim.DKIM(got).verify(idx=i, dnsfunc=lookup), f"{domain}: {sig!r} does not verify"
        out.append(re.search(rb"\bs=([^;\s]+)", sig).group(1).decode())
    return out


def state(domain):
    path = f"{KEYS}/{domain}/.rotation"
    return dict(l.split(" ", 1) for l in open(path).read().splitlines()
                if l and not l.startswith("#")) if os.path.exists(path) else {}


def edit_state(domain, fn):
    path = f"{KEYS}/{domain}/.rotation"
    text = open(path).read()
    with open(path, "w") as f:
        f.write(fn(text))


def stamp(t):
    return time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(t))


def age_keys(*domains):
    for d in domains:
        for name in os.listdir(f"{KEYS}/{d}"):
            if not name.startswith("."):
                t = time.time() - 181 * DAYS
                os.utime(f"{KEYS}/{d}/{name}", (t, t))


@pytest.fixture(scope="module")
def hoster(lab, tmp_path_factory):
    """The DNS lab started, dns.conf naming the hoster's zone; the owner's updates (CNAMEs, the
    record of a zone keyseal cannot update) made as a person would, with the zone's key."""
    d = dns_lab.DnsLab(tmp_path_factory.mktemp("dns"))
    d.start()
    with open("/etc/resolv.conf", "w") as f:
        f.write(f"nameserver {dns_lab.RESOLVER}\noptions timeout:1 attempts:2\n")
    with open("/etc/keyseal/dns.conf", "w") as f:
        f.write(f"zone hoster.test key {d.key_file} primary {dns_lab.PRIMARY}\n"
                "delegation_zone hoster.test\n")
    ring = dns.tsigkeyring.from_text({dns_lab.KEY_NAME: d.secret})

    def owner(name, rdtype=None, *values):
        u = dns.update.Update("customer.test", keyring=ring, keyalgorithm="hmac-sha256")
        if values:
            u.replace(name + ".", 60, rdtype, *values)
        else:
            u.delete(name + ".")
        dns.query.tcp(u, dns_lab.PRIMARY, timeout=5)
        serial = d.serial("customer.test")
        dns_lab.wait_for(lambda: dns_lab.ask(dns_lab.SECONDARY, "customer.test", "SOA")[1] == [serial],
                         "nsd to catch up")

    d.owner = owner
    yield d
    os.remove("/etc/keyseal/dns.conf")
    with open("/etc/resolv.conf", "w") as f:
        f.write("nameserver 127.0.0.1\noptions timeout:1 attempts:1\n")
    d.close()


def reloads(lab):
    """How many reloads keyseal-milter logged so far."""
    return len(re.findall(r"keyseal-milter\[\d+\]: reloaded ", lab.log()))


def reloaded(lab, before):
    """Once keyseal-milter logged a reload more than before: the new map is the one it signs by."""
    dns_lab.wait_for(lambda: reloads(lab) > before, "keyseal-milter's reload")


def reload(lab):
    before = reloads(lab)
    lab.procs["milter"].send_signal(signal.SIGHUP)
    reloaded(lab, before)


def record_strings(lab, domain, selector):
    """The quoted strings of the record keyseal-admin dns prints, as a TXT value."""
    text = lab.admin("dns", domain, "--selector", selector).stdout
    return " ".join('"' + s + '"' for s in re.findall(r'"([^"]*)"', text))


def auto(lab):
    r = lab.admin("rotate", "auto", check=False)
    lines = dict(l.split(": ", 1) for l in r.stdout.splitlines() if l.split(": ", 1)[0] in
                 (HOSTED, DELEGATED, MANUAL, LATE))
    return r.returncode, lines, r.stdout


def test_delegated_without_cname(lab, hoster):
    r = lab.admin("delegate", LATE)
    assert r.stdout == (f"ks1._domainkey.{LATE}. IN CNAME ks1.{LATE}.hoster.test.\n"
                        f"ks2._domainkey.{LATE}. IN CNAME ks2.{LATE}.hoster.test.\n")
    assert dns_lab.ask(dns_lab.PRIMARY, f"ks1.{LATE}.hoster.test")[1]
    check = lab.admin("check", LATE, check=False)
    assert check.returncode == 1
    for sel in ("ks1", "ks2"):
        assert f"error: ks{sel[-1]}._domainkey.{LATE}: the owner's CNAME is missing" in check.stdout
    status, lines, out = auto(lab)
    assert status == 1, out
    assert lines[LATE].startswith(f"waiting to switch to ks1: the owner's CNAME ks1._domainkey.{LATE} is missing"), out
    assert LATE not in open(MAP).read() if os.path.exists(MAP) else True
    assert signed_with(lab, LATE) == []  # no key of its own before: unsigned, never unverifiable
    # the owner publishes one CNAME pointing elsewhere: check names it
    hoster.owner(f"ks1._domainkey.{LATE}", "CNAME", "ks1.elsewhere.test.")
    assert f"points to ks1.elsewhere.test, not ks1.{LATE}.hoster.test" in lab.admin("check", LATE, check=False).stdout
    hoster.owner(f"ks1._domainkey.{LATE}")
    lab.admin("dns", "withdraw", f"{LATE}.hoster.test", "ks1", check=False)
    subprocess.run(["rm", "-rf", f"{KEYS}/{LATE}"], check=True)


def test_every_step(lab, hoster):
    # before: each domain signs with a key the DNS serves
    lab.admin("keygen", HOSTED)
    lab.admin("dns", "publish", HOSTED, "default", "--wait", "30")
    lab.admin("keygen", MANUAL)
    hoster.owner(f"default._domainkey.{MANUAL}", "TXT", record_strings(lab, MANUAL, "default"))
    with open(MAP, "a") as f:
        f.write(f"{HOSTED} default\n{MANUAL} default\n")
    for sel in ("ks1", "ks2"):
        hoster.owner(f"{sel}._domainkey.{DELEGATED}", "CNAME", f"{sel}.{DELEGATED}.hoster.test.")
    r = lab.admin("delegate", DELEGATED, "--wait", "60")
    assert "switched customer.test to ks1" in r.stderr
    reload(lab)
    signing = {HOSTED: "default", DELEGATED: "ks1", MANUAL: "default"}
    for d, sel in signing.items():
        assert signed_with(lab, d) == [sel]

    # three runs: start (keys older than rotate_after), switch, retire (grace moved back)
    age_keys(*signing)
    runs = [("start", 1, {HOSTED: r"started s\w+ to replace default; published at s\w+\._domainkey\.shop\.hoster\.test$",
                          DELEGATED: r"started ks2 to replace ks1; published at ks2\.customer\.test\.hoster\.test$",
                          MANUAL: r"started s\w+ to replace default; its zone is not one keyseal can update"}),
            ("switch", 0, {HOSTED: r"switched from default to s\w+$", DELEGATED: r"switched from ks1 to ks2$",
                           MANUAL: r"switched from default to s\w+$"}),
            ("retire", 0, {HOSTED: r"retired default; its record default\._domainkey\.shop\.hoster\.test withdrawn$",
                           DELEGATED: r"retired ks1; its record ks1\.customer\.test\.hoster\.test withdrawn$",
                           MANUAL: r"retired default; delete its record default\._domainkey\.manual\.customer\.test by hand"})]
    for step, want_status, want in runs:
        if step == "switch":
            new = state(MANUAL)["new"]
            hoster.owner(f"{new}._domainkey.{MANUAL}", "TXT", record_strings(lab, MANUAL, new))
            for name in (f"{state(HOSTED)['new']}._domainkey.{HOSTED}", f"ks2.{DELEGATED}.hoster.test"):
                dns_lab.wait_for(lambda: dns_lab.ask(dns_lab.SECONDARY, name)[1], name)
        if step == "retire":
            for d in signing:
                edit_state(d, back_switch)
        before = reloads(lab)
        run = subprocess.Popen([lab.admin_bin, "rotate", "auto"], stdout=subprocess.PIPE, text=True)
        during = {d: signed_with(lab, d) for d in signing}  # whichever key signs: verified
        out = run.communicate()[0]
        assert run.returncode == want_status, out
        for d, pattern in want.items():
            assert re.search(rf"^{re.escape(d)}: {pattern}", out, re.M), (d, out)
        assert "3 moved" in out, out
        if step == "start":
            assert "1 UPDATE message" in out  # both names of hoster.test in one message
        if step == "switch":
            assert "keyseal-milter reloaded" in out
            signing = {d: state(d)["new"] for d in signing}
            reloaded(lab, before)
        for d, sel in signing.items():
            assert signed_with(lab, d) == [sel], (step, during)
    assert not dns_lab.ask(dns_lab.PRIMARY, f"ks1.{DELEGATED}.hoster.test")[1]
    assert not dns_lab.ask(dns_lab.PRIMARY, f"default._domainkey.{HOSTED}")[1]
    status, lines, out = auto(lab)
    assert (status, lines) == (0, {}), out


def back_switch(text):
    """The state's switch moved eight days back: past the grace period."""
    return re.sub(r"^switched .*$", "switched " + stamp(time.time() - 8 * DAYS), text, flags=re.M)


def pending(step, line):
    """The state as a run killed after the step, before its record, leaves it."""
    return lambda t: re.sub(rf"^{line} .*\n", "", t, flags=re.M) + f"pending {step} {stamp(time.time())}\n"


def hosted_to(lab, step):
    """shop.hoster.test's rotation taken to step ("started" or "switched") by rotate auto."""
    age_keys(HOSTED)
    status, lines, out = auto(lab)
    assert lines[HOSTED].startswith("started "), out
    if step == "switched":
        name = f"{state(HOSTED)['new']}._domainkey.{HOSTED}"
        dns_lab.wait_for(lambda: dns_lab.ask(dns_lab.SECONDARY, name)[1], name)
        status, lines, out = auto(lab)
        assert lines[HOSTED].startswith("switched "), out


@pytest.mark.parametrize("step,edit,recorded", [
    ("started", pending("publish", "published"), "published"),
    ("switched", pending("switch", "switched"), "switched"),
])
def test_killed_mid_step(lab, hoster, step, edit, recorded):
    """A run killed between a step and its record (the state file as it leaves it): the next
    run takes the step again, and the DNS and the map end as one run leaves them."""
    hosted_to(lab, step)
    edit_state(HOSTED, edit)
    status, lines, out = auto(lab)
    new = state(HOSTED)["new"]
    assert recorded in state(HOSTED) and "pending" not in state(HOSTED), out
    assert len(dns_lab.ask(dns_lab.PRIMARY, f"{new}._domainkey.{HOSTED}")[1]) == 1
    mapped = [l for l in open(MAP) if l.startswith(HOSTED + " ")]
    signs = new if "switched" in state(HOSTED) else state(HOSTED)["old"]  # the map as the state says
    assert mapped == [f"{HOSTED} {signs}\n"], out
    assert signed_with(lab, HOSTED)  # verified, whichever key signs
    for _ in range(3):  # the rotation finished, for what follows
        if "retired" in state(HOSTED):
            break
        dns_lab.wait_for(lambda: dns_lab.ask(dns_lab.SECONDARY, f"{new}._domainkey.{HOSTED}")[1], "nsd")
        if "switched" in state(HOSTED):
            edit_state(HOSTED, back_switch)
        auto(lab)
    assert "retired" in state(HOSTED)


def test_by_hand_publishes(lab, hoster):
    """rotate start, switch and retire by hand where keyseal updates the zone: the new record
    published at the start instead of printed, the old one withdrawn at the retirement."""
    old = state(HOSTED)["new"]
    r = lab.admin("rotate", "start", HOSTED)
    new = state(HOSTED)["new"]
    assert r.stdout == "" and f"published its record at {new}._domainkey.{HOSTED} (hoster.test)" in r.stderr
    dns_lab.wait_for(lambda: dns_lab.ask(dns_lab.SECONDARY, f"{new}._domainkey.{HOSTED}")[1], "nsd")
    before = reloads(lab)
    lab.admin("rotate", "switch", HOSTED)
    reloaded(lab, before)
    assert signed_with(lab, HOSTED) == [new]
    r = lab.admin("rotate", "retire", HOSTED, "--force")
    assert r.stdout == "" and f"withdrew its record {old}._domainkey.{HOSTED} (hoster.test)" in r.stderr
    assert not dns_lab.ask(dns_lab.PRIMARY, f"{old}._domainkey.{HOSTED}")[1]


def test_two_runs_at_once(lab, hoster):
    """The first run holds the lock (its output blocked on a full pipe): the second refuses
    in one line naming it and changes nothing; the first, let go, finishes."""
    r, w = os.pipe()
    os.set_blocking(w, False)
    try:
        while True:
            os.write(w, b"x" * 4095 + b"\n")
    except BlockingIOError:
        pass
    os.set_blocking(w, True)
    age_keys(HOSTED)
    first = subprocess.Popen([lab.admin_bin, "rotate", "auto"], stdout=w, stderr=subprocess.PIPE)
    os.close(w)
    lock = f"{KEYS}/.rotate-auto.lock"
    dns_lab.wait_for(lambda: os.path.exists(lock) and open(lock).read().strip() == str(first.pid),
                     "the first run's lock")
    dns_lab.wait_for(lambda: "started" in state(HOSTED) and "retired" not in state(HOSTED),
                     "the first run's start")
    before = open(f"{KEYS}/{HOSTED}/.rotation").read()
    second = lab.admin("rotate", "auto", check=False)
    after = open(f"{KEYS}/{HOSTED}/.rotation").read()
    out = b""
    while chunk := os.read(r, 65536):
        out += chunk
    os.close(r)
    assert first.wait() == 0, out[-500:]
    assert (second.returncode, second.stdout) == (1, "")
    assert second.stderr == (f"keyseal-admin rotate auto: refused: another rotate auto (pid "
                             f"{first.pid}) holds {lock}; this run changed nothing\n")
    assert before == after
    assert re.search(rb"^shop\.hoster\.test: started ", out, re.M)
