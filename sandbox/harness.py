"""The sandbox, for the tests, make demo and make bench: run keyseal (or keyseal-admin) as
deployed, with its fixed paths in a temporary directory, and see everything it did."""
import base64
import dataclasses
import fcntl
import os
import re
import socket
import subprocess
import threading
import time

import dkim

SANDBOX = os.path.join(os.path.dirname(os.path.abspath(__file__)), "namespace.py")
SANITIZER_VARS = ("ASAN_OPTIONS", "LSAN_OPTIONS", "UBSAN_OPTIONS")
SYSLOG_RE = re.compile(rb"<(\d+)>\w{3} [ \d]\d \d\d:\d\d:\d\d (\S+?)\[(\d+)\]: (.*)", re.S)


def wait_for(condition, what, seconds=60):
    """A bounded wait: polls condition until it holds, or fails naming what it waited for
    (what may be a function, for a message that says what was found at the end)."""
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise AssertionError(f"waited {seconds} s for {what() if callable(what) else what}")
        time.sleep(0.05)


@dataclasses.dataclass
class LogLine:
    facility: int
    level: int
    ident: str
    pid: int
    text: str


@dataclasses.dataclass
class Result:
    status: int
    stdout: bytes
    stderr: bytes
    logs: list
    spool: list  # names left in the spool directory
    stdin_left: int  # bytes of standard input the program did not read

    def texts(self):
        return [l.text for l in self.logs]


def sandbox_cmd(root, argv, env=None, argv0=None, spool=True, keep_env=False, fds=None,
                resolver=None):
    """The command that runs argv inside a private mount namespace rooted at root.
    fds maps a descriptor to a path to open on it, or to None to close it; resolver is
    the nameserver that /etc/resolv.conf names there."""
    cmd = ["unshare", "--mount"] + ([] if os.geteuid() == 0 else ["--map-root-user"])
    cmd += ["/usr/bin/python3", SANDBOX, root] + ([] if spool else ["--no-spool"])
    cmd += ["--resolver", resolver] if resolver else []
    for n, path in (fds or {}).items():
        cmd += ["--fd", f"{n}={path or '-'}"]
    cmd += ["--argv0", argv0] if argv0 is not None else []
    cmd += ["--keep-env"] if keep_env else []
    env = dict(env or {})
    for k in SANITIZER_VARS:  # a sanitizer build needs its options; keyseal reads none of them
        if k in os.environ and not keep_env:
            env.setdefault(k, os.environ[k])
    for k, v in env.items():
        cmd += ["--env", f"{k}={v}"]
    return cmd + ["--"] + list(argv)


class Unavailable(Exception):
    """The sandbox cannot start here; the text names the cause in one line."""


# In a plain chroot, / is not a mount point and cannot be made private; mounting anyway
# could reach the host through shared propagation, so the sandbox refuses and says why.
NOT_A_MOUNT_POINT = ("/ is not a mount point here (a plain chroot?): bind the chroot's directory "
                     "onto itself before entering it (mount --bind DIR DIR), as make check-debian13 does")


def probe(root):
    """Start the sandbox once with /bin/true, so that a missing right is reported as such and
    not as keyseal's own stderr and exit status."""
    r = subprocess.run(sandbox_cmd(root, ["/bin/true"]), capture_output=True, text=True)
    if r.returncode != 0:
        lines = (r.stderr.strip() or f"exit status {r.returncode}").splitlines()
        why = NOT_A_MOUNT_POINT if "propagation" in lines[-1] else lines[-1]
        raise Unavailable("cannot start the sandbox (a private mount namespace, as root): " + why)


class Sandbox:
    resolver = None  # the nameserver of /etc/resolv.conf inside, when a test serves DNS
    probed = False

    def __init__(self, root, binary):
        self.root, self.binary = str(root), binary
        for d in ("domainkeys", "spool"):
            os.makedirs(os.path.join(self.root, d), exist_ok=True)
        if not Sandbox.probed:
            probe(self.root)
            Sandbox.probed = True
        self.log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.log.bind(os.path.join(self.root, "log.sock"))
        os.chmod(os.path.join(self.root, "log.sock"), 0o666)
        self.log.setblocking(False)

    def close(self):
        self.log.close()

    def put_key(self, domain, selector, data):
        os.makedirs(os.path.join(self.root, "domainkeys", domain), exist_ok=True)
        with open(os.path.join(self.root, "domainkeys", domain, selector), "wb") as f:
            f.write(data)

    def put_whitelist(self, text):
        with open(os.path.join(self.root, "domainkeys", "whitelist"), "w") as f:
            f.write(text)

    def _read_log(self):
        lines = []
        while True:
            try:
                raw = self.log.recv(65536)
            except BlockingIOError:
                return lines
            m = SYSLOG_RE.match(raw)
            if m is None:  # not a syslog line: kept whole, so that a test can see what leaked
                lines.append(LogLine(-1, -1, "", 0, raw.decode(errors="replace")))
                continue
            pri = int(m.group(1))
            lines.append(LogLine(pri >> 3, pri & 7, m.group(2).decode(), int(m.group(3)),
                                 m.group(4).decode(errors="replace")))

    def start(self, args, env=None, argv0="keyseal"):
        """keyseal running in the background, its standard streams pipes."""
        self._read_log()
        return subprocess.Popen(sandbox_cmd(self.root, [self.binary] + args, env, argv0),
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE)

    def spool(self):
        return sorted(os.listdir(os.path.join(self.root, "spool")))

    def logs(self):
        return self._read_log()

    def run(self, args, stdin=b"", env=None, argv0="keyseal", spool=True, fds=None, timeout=300,
            binary=None):
        self._read_log()
        r, w = os.pipe()
        fcntl.fcntl(w, fcntl.F_SETPIPE_SZ, 1 << 20)
        unread = os.dup(r)  # counts what the program left in the pipe

        def feed():
            try:
                view = memoryview(stdin)
                while view:
                    view = view[os.write(w, view):]
            except BrokenPipeError:
                pass
            os.close(w)

        writer = threading.Thread(target=feed)
        writer.start()
        proc = subprocess.Popen(sandbox_cmd(self.root, [binary or self.binary] + args, env, argv0,
                                            spool, fds=fds, resolver=self.resolver),
                                stdin=r, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        os.close(r)
        try:
            out, err = proc.communicate(timeout=timeout)
        except subprocess.TimeoutExpired:
            proc.kill()
            raise
        os.set_blocking(unread, False)
        left = 0
        while True:
            try:
                chunk = os.read(unread, 1 << 16)
            except BlockingIOError:  # the writer is still filling the pipe
                writer.join(0.01)
                continue
            if not chunk:
                break
            left += len(chunk)
        writer.join()
        os.close(unread)
        return Result(proc.returncode, out, err, self._read_log(),
                      self.spool() if spool else [], left)


def generate_key(bits=2048):
    """(PEM private key, base64 DER private key, base64 DER public key) from the openssl tool."""
    pem = subprocess.run(["openssl", "genpkey", "-algorithm", "RSA", "-pkeyopt",
                          f"rsa_keygen_bits:{bits}"], check=True, capture_output=True).stdout
    der = [subprocess.run(["openssl", "pkey", *opts, "-outform", "DER"], input=pem, check=True,
                          capture_output=True).stdout for opts in ([], ["-pubout"])]
    return pem, base64.b64encode(der[0]), base64.b64encode(der[1])


def verify(message, public_b64, domain, selector):
    """dkimpy's verdict on the first signature; the key comes from a lookup function."""
    asked = []

    def lookup(name, timeout=5):
        asked.append(name.decode() if isinstance(name, bytes) else name)
        return b"v=DKIM1; k=rsa; p=" + public_b64

    ok = dkim.verify(message, dnsfunc=lookup)
    return ok and asked == [f"{selector}._domainkey.{domain}."]


class Nsd:
    """A real authoritative DNS server (nsd) on port 53 of a loopback address (127.0.0.1 unless
    given) of the test's private network namespace, serving one zone built from pasted record
    text."""
    # the server part alone, for others' zones (the DNS lab's secondary)
    SERVER = """server:
  ip-address: {address}
  port: 53
  username: ""
  chroot: ""
  database: ""
  zonesdir: "{d}"
  pidfile: "{d}/nsd.pid"
  xfrdfile: "{d}/xfrd.state"
  zonelistfile: "{d}/zone.list"
  logfile: "{d}/nsd.log"
remote-control:
  control-enable: no
"""
    CONF = SERVER + """zone:
  name: {zone}
  zonefile: {zone}.zone
"""

    def __init__(self, directory, address="127.0.0.1"):
        self.dir, self.proc, self.address = str(directory), None, address
        os.makedirs(self.dir, exist_ok=True)

    def serve(self, zone, records="", nameservers=(("ns", "127.0.0.1"),)):
        """(Re)start serving zone with the given zone-file lines; nameservers are the zone's
        NS hosts (names inside the zone) with their glue addresses."""
        self.stop()
        ns = "".join(f"@ IN NS {name}\n{name} IN A {ip}\n" for name, ip in nameservers)
        with open(os.path.join(self.dir, zone + ".zone"), "w") as f:
            f.write(f"$ORIGIN {zone}.\n$TTL 60\n@ IN SOA {nameservers[0][0]} hostmaster 1 60 60 60 60\n"
                    f"{ns}{records}\n")
        with open(os.path.join(self.dir, "nsd.conf"), "w") as f:
            f.write(self.CONF.format(d=self.dir, zone=zone, address=self.address))
        self.proc = subprocess.Popen(["nsd", "-d", "-c", os.path.join(self.dir, "nsd.conf")],
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        for _ in range(500):  # a bounded wait until it answers
            if self._answers(zone):
                return
            assert self.proc.poll() is None, open(os.path.join(self.dir, "nsd.log")).read()
        raise AssertionError("nsd does not answer")

    def _answers(self, zone):
        query = b"\x12\x34\x01\x00\x00\x01\x00\x00\x00\x00\x00\x00" + b"".join(
            bytes([len(p)]) + p.encode() for p in zone.split(".")) + b"\x00\x00\x06\x00\x01"
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
            s.settimeout(0.02)
            try:
                s.sendto(query, (self.address, 53))
                return s.recv(512)[:2] == b"\x12\x34"
            except OSError:
                return False

    def stop(self):
        if self.proc is not None:
            self.proc.terminate()
            self.proc.wait(timeout=30)
            self.proc = None
