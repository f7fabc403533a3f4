"""A hoster's DNS in the test's private network namespace, for keyseal-admin's own updates.

Knot DNS (knotd) is the primary of the hoster's zone and of a customer's zone and takes
updates signed with a TSIG key; nsd is their secondary, fed by Knot's NOTIFY and zone
transfers, so that a record is served everywhere only once the secondary caught up; unbound
is the resolver (/etc/resolv.conf names it while the lab runs), with stub zones pointing at
the authoritative servers, following CNAMEs as a receiver's resolver does.  Every server
runs from a directory of its own, on port 53 of a loopback address of its own; nothing of
the host is written (run it inside postfix_lab.enter()'s private /etc).
"""
import base64
import os
import subprocess

import dns.message
import dns.query
import dns.rcode
import dns.rdatatype

from sandbox import harness
from sandbox.harness import wait_for  # noqa: F401 (the tests take it from here)

PRIMARY, SECONDARY, RESOLVER = "127.0.0.2", "127.0.0.3", "127.0.0.4"
ZONES = ("hoster.test", "customer.test")
KEY_NAME = "keyseal-update"

KNOT = """server:
    listen: {primary}@53
    rundir: {d}
    pidfile: {d}/knot.pid
database:
    storage: {d}/db
control:
    listen: {d}/knot.sock
log:
  - target: {d}/knot.log
    any: info
key:
  - id: {key}
    algorithm: hmac-sha256
    secret: {secret}
  - id: keyseal-readonly
    algorithm: hmac-sha256
    secret: {readonly}
remote:
  - id: secondary
    address: {secondary}@53
acl:
  - id: update
    key: {key}
    action: update
  - id: transfer
    address: 127.0.0.0/8
    action: transfer
template:
  - id: default
    storage: {d}/zones
    zonefile-sync: -1
    serial-policy: increment
zone:
{zones}"""

NSD = harness.Nsd.SERVER + "{zones}"

UNBOUND = """server:
  interface: {resolver}
  port: 53
  access-control: 127.0.0.0/8 allow
  do-not-query-localhost: no
  username: ""
  chroot: ""
  directory: "{d}"
  pidfile: "{d}/unbound.pid"
  logfile: "{d}/unbound.log"
  use-syslog: no
  module-config: "iterator"
  cache-max-ttl: 0
  cache-max-negative-ttl: 0
  local-zone: "test." nodefault
  do-ip6: no
remote-control:
  control-enable: no
{stubs}"""


# The update key's secret holds "//" and "+", as about one secret in a hundred tsig-keygen
# writes does: a key file is read with them inside its quotes, not taken for a comment.
UPDATE_SECRET = "keyseal//lab/update+key//with/slashes+0123A="


def secret():
    return base64.b64encode(os.urandom(32)).decode()


def bind_key(name, secret_):
    """A TSIG key file as tsig-keygen writes it."""
    return f'key "{name}" {{\n\talgorithm hmac-sha256;\n\tsecret "{secret_}";\n}};\n'


def zone_text(zone):
    return (f"$ORIGIN {zone}.\n$TTL 60\n"
            "@ IN SOA ns1.hoster.test. hostmaster.hoster.test. 1 3600 3600 86400 1\n"
            "@ IN NS ns1.hoster.test.\n@ IN NS ns2.hoster.test.\n"
            + (f"ns1 IN A {PRIMARY}\nns2 IN A {SECONDARY}\n" if zone == "hoster.test" else ""))


def ask(server, name, rdtype="TXT"):
    """The server's own answer (no recursion): (rcode text, [each record's strings joined]) or
    (rcode, [SOA serial]) for SOA; ("no answer", []) when it does not answer."""
    q = dns.message.make_query(name, rdtype)
    q.flags &= ~0x0100  # RD off: what this server holds
    try:
        r = dns.query.udp(q, server, timeout=2)
    except Exception:
        return "no answer", []
    out = []
    for rrset in r.answer:
        for rd in rrset:
            if rrset.rdtype == dns.rdatatype.TXT and rdtype == "TXT":
                out.append([s.decode() for s in rd.strings])
            elif rrset.rdtype == dns.rdatatype.SOA and rdtype == "SOA":
                out.append(rd.serial)
    return dns.rcode.to_text(r.rcode()), out


class DnsLab:
    def __init__(self, root):
        self.root = str(root)
        self.secret, self.readonly = UPDATE_SECRET, secret()
        self.procs = {}
        for name in ("knot", "nsd", "unbound"):
            os.makedirs(os.path.join(self.root, name), exist_ok=True)
        d = os.path.join(self.root, "knot")
        for sub in ("zones", "db"):
            os.makedirs(os.path.join(d, sub), exist_ok=True)
        for zone in ZONES:
            with open(os.path.join(d, "zones", zone + ".zone"), "w") as f:
                f.write(zone_text(zone))
        with open(os.path.join(d, "knot.conf"), "w") as f:
            f.write(KNOT.format(d=d, primary=PRIMARY, secondary=SECONDARY, key=KEY_NAME,
                                secret=self.secret, readonly=self.readonly,
                                zones="".join(f"  - domain: {z}\n    notify: secondary\n"
                                              "    acl: [update, transfer]\n" for z in ZONES)))
        d = os.path.join(self.root, "unbound")
        with open(os.path.join(d, "unbound.conf"), "w") as f:
            f.write(UNBOUND.format(d=d, resolver=RESOLVER, stubs="".join(
                f"stub-zone:\n  name: \"{z}\"\n  stub-addr: {PRIMARY}\n  stub-addr: {SECONDARY}\n"
                for z in ZONES) + "stub-zone:\n  name: \"example.com\"\n  stub-addr: 127.0.0.1\n"))
        self.key_file = self.write_key("update.key", KEY_NAME, self.secret)

    def write_key(self, name, key_name, secret_, mode=0o600):
        path = os.path.join(self.root, name)
        with open(path, "w") as f:
            f.write(bind_key(key_name, secret_))
        os.chmod(path, mode)
        return path

    def _start(self, name, argv):
        self.procs[name] = subprocess.Popen(argv, stdout=subprocess.DEVNULL,
                                            stderr=subprocess.DEVNULL)

    def start(self):
        self._start("knot", ["knotd", "-c", os.path.join(self.root, "knot", "knot.conf")])
        wait_for(lambda: ask(PRIMARY, "hoster.test", "SOA")[1], "Knot DNS to serve hoster.test")
        self.start_secondary()
        self._start("unbound", ["unbound", "-d", "-c",
                                os.path.join(self.root, "unbound", "unbound.conf")])
        wait_for(lambda: ask(RESOLVER, "hoster.test", "SOA")[0] != "no answer", "unbound")

    def start_secondary(self, notify=True):
        """nsd (again), transferring each zone from Knot at its start; without notify it
        refuses Knot's NOTIFY, so that it stays on what it had (its refresh is an hour).
        With notify it also asks Knot for the serial every two seconds: nsd drops a NOTIFY
        that arrives while it reloads after another zone's transfer, and the zones' own
        refresh would leave it behind for an hour."""
        self.stop("nsd")
        d = os.path.join(self.root, "nsd")
        for f in os.listdir(d):
            os.remove(os.path.join(d, f))
        allow = "  allow-notify: 127.0.0.0/8 NOKEY\n  max-refresh-time: 2\n  max-retry-time: 2\n" if notify else ""
        with open(os.path.join(d, "nsd.conf"), "w") as f:
            f.write(NSD.format(d=d, address=SECONDARY, zones="".join(
                f"zone:\n  name: {z}\n  request-xfr: AXFR {PRIMARY}@53 NOKEY\n{allow}"
                for z in ZONES)))
        self._start("nsd", ["nsd", "-d", "-c", os.path.join(d, "nsd.conf")])
        for z in ZONES:
            wait_for(lambda: ask(SECONDARY, z, "SOA")[1] == ask(PRIMARY, z, "SOA")[1],
                     f"nsd to transfer {z}")

    def serial(self, zone):
        return ask(PRIMARY, zone, "SOA")[1][0]

    def stop(self, name):
        p = self.procs.pop(name, None)
        if p is not None:
            p.terminate()
            p.wait(timeout=30)

    def close(self):
        for name in list(self.procs):
            self.stop(name)
