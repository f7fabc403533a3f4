"""keyseal-admin dns publish / withdraw against real DNS servers: Knot DNS as the primary
taking TSIG-signed updates, nsd as its secondary fed by NOTIFY and zone transfer, unbound as
the receivers' resolver; the serving gate that publish and rotate switch share."""
import os
import re

import dkim
import dns.query
import dns.resolver
import dns.tsigkeyring
import dns.update
import pytest

from sandbox import dns_lab

DNS_CONF = "/etc/keyseal/dns.conf"
NAME = "sel1._domainkey.hoster.test"


@pytest.fixture(scope="module")
def hoster(lab, tmp_path_factory):
    """The lab's DNS running, /etc/resolv.conf naming its resolver and dns.conf letting
    keyseal-admin update hoster.test; hoster.test has keys sel1 and sel2."""
    d = dns_lab.DnsLab(tmp_path_factory.mktemp("dns"))
    with open("/etc/resolv.conf") as f:
        resolv = f.read()
    try:
        d.start()
        with open("/etc/resolv.conf", "w") as f:
            f.write(f"nameserver {dns_lab.RESOLVER}\noptions timeout:1 attempts:2\n")
        d.conf = f"zone hoster.test key {d.key_file}\nzone customer.test key {d.key_file} primary {dns_lab.PRIMARY}\n"
        write_conf(d.conf)
        for sel in ("sel1", "sel2"):
            lab.admin("keygen", "hoster.test", "--selector", sel, "--force")
        lab.admin("keygen", "customer.test", "--selector", "sel1", "--force")
        yield d
    finally:
        with open("/etc/resolv.conf", "w") as f:
            f.write(resolv)
        if os.path.exists(DNS_CONF):
            os.remove(DNS_CONF)
        d.close()


def write_conf(text):
    with open(DNS_CONF, "w") as f:
        f.write(text)


def published(name=NAME):
    """What the primary and the secondary each hold at name."""
    return [dns_lab.ask(s, name)[1] for s in (dns_lab.PRIMARY, dns_lab.SECONDARY)]


def printed_strings(lab, domain, selector):
    """The strings of the record keyseal-admin dns prints, in their order."""
    out = lab.admin("dns", domain, "--selector", selector).stdout
    return re.findall(r'"([^"]*)"', out.split("\n;")[0])


def verifies_through_cname_resolver(domain, selector):
    """A message signed with the key verifies with dkimpy asking the lab's resolver."""
    with open(f"/etc/domainkeys/{domain}/{selector}", "rb") as f:
        key = f.read()
    msg = b"From: a@" + domain.encode() + b"\r\nTo: b@example.net\r\nSubject: x\r\n\r\nbody\r\n"
    sig = dkim.sign(msg, selector.encode(), domain.encode(), key)
    res = dns.resolver.Resolver(configure=False)
    res.nameservers = [dns_lab.RESOLVER]
    lookup = lambda name, timeout=5: b"".join(res.resolve(name.decode(), "TXT")[0].strings)
    return dkim.verify(sig + msg, dnsfunc=lookup)


@pytest.mark.parametrize("domain,primary", [
    ("hoster.test", "the SOA's primary"),
    ("customer.test", "the primary the settings name"),
])
def test_publish_and_withdraw_twice(lab, hoster, domain, primary):
    """Each step twice: the second changes nothing (no UPDATE, the serial stays) and says so;
    the record is the printed one, string for string, on every server."""
    strings = printed_strings(lab, domain, "sel1")
    name = "sel1._domainkey." + domain
    steps = [
        ("publish", ["publish", domain, "sel1"], r"^published " + name, True),
        ("publish again", ["publish", domain, "sel1"], r"^unchanged: " + name, False),
        ("withdraw", ["withdraw", domain, "sel1"], r"^withdrew the TXT record at " + name, True),
        ("withdraw again", ["withdraw", domain, "sel1"], r"^unchanged: there is no TXT", False),
    ]
    for step, args, said, changes in steps:
        before = hoster.serial(domain)
        r = lab.admin("dns", *args, "--wait", "30", check=False)
        assert r.returncode == 0, (step, r.stdout, r.stderr)
        assert re.search(said, r.stdout, re.M), (step, r.stdout)
        for server in (dns_lab.PRIMARY, dns_lab.SECONDARY):
            assert re.search(rf"^ok: {server} \((ns[12]).hoster.test\) serves", r.stdout, re.M), (step, r.stdout)
        assert re.search(rf"in the zone {domain} at its primary 127\.0\.0\.2$", r.stdout, re.M), (step, primary)
        if step.startswith("publish"):
            assert published(name) == [[strings]] * 2, step
            assert verifies_through_cname_resolver(domain, "sel1"), step
        else:
            assert published(name) == [[], []], step
        assert (hoster.serial(domain) != before) == changes, step


@pytest.mark.parametrize("case,setup,rc,said", [
    ("a wrong secret", lambda d: d.write_key("wrong.key", dns_lab.KEY_NAME, dns_lab.secret()),
     1, r"refused by 127\.0\.0\.2 for the zone hoster\.test \(BADSIG\): the server does not accept the TSIG key keyseal-update"),
    ("a key the server does not know", lambda d: d.write_key("unknown.key", "stranger", dns_lab.secret()),
     1, r"\(BADKEY\): the server does not accept the TSIG key stranger"),
    # Knot answers a key it knows but does not let update as it answers a key it does not know
    ("a key without the right to update", lambda d: d.write_key("ro.key", "keyseal-readonly", d.readonly),
     1, r"refused by 127\.0\.0\.2 for the zone hoster\.test \(BADKEY\): the server does not accept "
        r"the TSIG key keyseal-readonly"),
    ("a key file others can read", lambda d: d.write_key("open.key", dns_lab.KEY_NAME, d.secret, 0o644),
     1, r"can be read by group or others: chmod 0600"),
])
def test_refused_update_names_why_and_changes_nothing(lab, hoster, case, setup, rc, said):
    key = setup(hoster)
    write_conf(f"zone hoster.test key {key} primary {dns_lab.PRIMARY}\n")
    try:
        before = hoster.serial("hoster.test")
        r = lab.admin("dns", "publish", "hoster.test", "sel2", "--wait", "0", check=False)
    finally:
        write_conf(hoster.conf)
    assert r.returncode == rc, r.stdout + r.stderr
    assert re.search(said, r.stderr), r.stderr
    assert len(r.stderr.strip().splitlines()) == 1, r.stderr
    assert hoster.serial("hoster.test") == before
    assert published("sel2._domainkey.hoster.test") == [[], []]


def test_a_zone_the_server_does_not_hold(lab, hoster):
    """The settings send elsewhere.test's updates to Knot, which holds no such zone."""
    lab.admin("keygen", "elsewhere.test", "--selector", "sel1", "--force")
    write_conf(hoster.conf + f"zone elsewhere.test key {hoster.key_file} primary {dns_lab.PRIMARY}\n")
    try:
        r = lab.admin("dns", "publish", "elsewhere.test", "sel1", "--wait", "0", check=False)
    finally:
        write_conf(hoster.conf)
    assert r.returncode == 1
    assert re.search(r"the primary 127\.0\.0\.2 of elsewhere\.test did not answer|"
                     r"\((NOTAUTH|NOTZONE|REFUSED)\)", r.stderr), r.stderr


def test_a_name_no_zone_setting_holds(lab, hoster):
    r = lab.admin("dns", "publish", "example.com", "--wait", "0", check=False)
    assert r.returncode == 1
    assert re.search(r"no zone line of /etc/keyseal/dns.conf encloses default._domainkey.example.com: "
                     r"keyseal cannot update it", r.stderr), r.stderr


def test_force_replaces_another_key(lab, hoster):
    """sel2's name first holds sel1's key: without --force it stays, with it sel2's key."""
    name = "sel2._domainkey.hoster.test"
    other = printed_strings(lab, "hoster.test", "sel1")
    own = printed_strings(lab, "hoster.test", "sel2")
    lab.admin("dns", "publish", "hoster.test", "sel1", "--wait", "30")
    hoster_update(hoster, name, other)
    cases = [
        ("without --force", [], 1, r"holds another record: not replaced \(--force replaces it\)", other),
        ("with --force", ["--force"], 0, r"^replaced the record at " + name, own),
        ("again", [], 0, r"^unchanged: ", own),
    ]
    for case, extra, rc, said, held in cases:
        r = lab.admin("dns", "publish", "hoster.test", "sel2", "--wait", "30", *extra, check=False)
        assert r.returncode == rc, (case, r.stdout, r.stderr)
        assert re.search(said, r.stdout + r.stderr, re.M), (case, r.stdout, r.stderr)
        assert dns_lab.wait_for(lambda: published(name) == [[held]] * 2, case) is None
    lab.admin("dns", "withdraw", "hoster.test", "sel2", "--wait", "30")
    lab.admin("dns", "withdraw", "hoster.test", "sel1", "--wait", "30")


def hoster_update(d, name, strings):
    """A record put at name by another hand: a TSIG-signed update of dnspython's."""
    ring = dns.tsigkeyring.from_text({dns_lab.KEY_NAME: d.secret})
    u = dns.update.Update("hoster.test", keyring=ring, keyalgorithm="hmac-sha256")
    u.replace(name + ".", 60, "TXT", " ".join(f'"{s}"' for s in strings))
    assert dns.query.tcp(u, dns_lab.PRIMARY, timeout=5).rcode() == 0


def test_a_secondary_that_does_not_catch_up_holds_publish_and_switch(lab, hoster):
    """nsd refuses Knot's NOTIFY: the record reaches the primary only, and neither publish's
    wait nor rotate switch passes; each names the lagging server."""
    hoster.start_secondary(notify=False)
    lab.admin("rotate", "start", "hoster.test", "--replaces", "sel1", "--selector", "lag1")
    try:
        r = lab.admin("dns", "publish", "hoster.test", "lag1", "--wait", "2", check=False)
        assert r.returncode == 1, r.stdout + r.stderr
        assert re.search(r"^ok: 127\.0\.0\.2 \(ns1\.hoster\.test\) serves the new key", r.stdout, re.M)
        assert re.search(r"^error: 127\.0\.0\.3 \(ns2\.hoster\.test\) has no TXT record there", r.stdout, re.M)
        assert re.search(r"not every server of the zone hoster\.test serves the record at "
                         r"lag1\._domainkey\.hoster\.test after 2 seconds: 127\.0\.0\.3 \(ns2\.hoster\.test\)",
                         r.stderr), r.stderr
        s = lab.admin("rotate", "switch", "hoster.test", check=False)
        assert s.returncode == 1
        assert re.search(r"not switched: .*127\.0\.0\.3 \(ns2\.hoster\.test\) has no TXT record there", s.stderr)
        hoster.start_secondary()  # caught up by its transfer at start: the gate passes
        r = lab.admin("dns", "publish", "hoster.test", "lag1", "--wait", "30", check=False)
        assert r.returncode == 0 and re.search(r"^unchanged: ", r.stdout, re.M), r.stdout + r.stderr
    finally:
        hoster.start_secondary()
        os.remove("/etc/domainkeys/hoster.test/.rotation")
        lab.admin("dns", "withdraw", "hoster.test", "lag1", "--wait", "30")


@pytest.mark.parametrize("case,conf,found", [
    ("the lab's settings", None, [r"^ok: the zone hoster\.test is updated with the TSIG key keyseal-update$",
                                  r"^ok: the zone hoster\.test's primary is 127\.0\.0\.2$",
                                  r"^ok: the zone customer\.test's primary is 127\.0\.0\.2$"]),
    ("a line not understood", "zone hoster.test\n", [r"^error: /etc/keyseal/dns\.conf:1: expected 'zone ZONE key FILE"]),
    ("an unknown setting", "# c\nrotate_after 90\nswitch_alarm 3\nrotat_after 9\n",
     [r"^error: /etc/keyseal/dns\.conf:4: unknown setting 'rotat_after'"]),
    ("a missing key file", "zone hoster.test key /nonexistent.key\n",
     [r"^error: /etc/keyseal/dns\.conf:1: the TSIG key /nonexistent\.key: No such file"]),
    ("a zone whose primary cannot be found", "zone nowhere.test key {key}\n",
     [r"^error: /etc/keyseal/dns\.conf:1: no SOA record for nowhere\.test"]),
])
def test_check_checks_the_dns_settings(lab, hoster, case, conf, found):
    if conf is not None:
        write_conf(conf.format(key=hoster.key_file))
    try:
        r = lab.admin("check", "example.com", "--nameserver", "127.0.0.1", check=False)
    finally:
        write_conf(hoster.conf)
    for pattern in found:
        assert re.search(pattern, r.stdout, re.M), (case, r.stdout)
    assert (r.returncode == 0) == (conf is None), (case, r.stdout)


def test_keygen_missing_publishes_one_update_per_zone(lab, hoster, tmp_path):
    """Keys made for four domains: the two under hoster.test go out in one UPDATE (the serial
    moves by one), the one under customer.test in another, the one no zone line holds is
    printed for a person."""
    domains = ["shop.hoster.test", "blog.hoster.test", "web.customer.test", "other.example"]
    listing = tmp_path / "domains"
    listing.write_text("\n".join(domains) + "\n")
    before = {z: hoster.serial(z) for z in ("hoster.test", "customer.test")}
    try:
        r = lab.admin("keygen", "--missing", str(listing), "--selector", "km", check=False)
        assert r.returncode == 0, r.stdout + r.stderr
        for d in domains[:3]:
            assert re.search(rf"^wrote /etc/domainkeys/{d}/km.*; published its record$", r.stderr, re.M), r.stderr
            dns_lab.wait_for(lambda: published(f"km._domainkey.{d}") == [[printed_strings(lab, d, "km")]] * 2,
                             lambda: f"{d} on both servers: {published(f'km._domainkey.{d}')}")
        assert re.findall(r"^km\._domainkey\.(\S+)\. IN TXT", r.stdout, re.M) == ["other.example"]
        assert hoster.serial("hoster.test") == before["hoster.test"] + 1
        assert hoster.serial("customer.test") == before["customer.test"] + 1
    finally:
        for d in domains:
            if os.path.exists(f"/etc/domainkeys/{d}/km"):
                if d != "other.example":
                    lab.admin("dns", "withdraw", d, "km", "--wait", "30", check=False)
                os.remove(f"/etc/domainkeys/{d}/km")
                os.rmdir(f"/etc/domainkeys/{d}")
