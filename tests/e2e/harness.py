"""Test-side API of the sandbox: run keyseal, see everything it did."""
import base64
import dataclasses
import fcntl
import os
import re
import socket
import subprocess
import threading

import dkim

HERE = os.path.dirname(os.path.abspath(__file__))
SANDBOX = os.path.join(HERE, "sandbox.py")
SANITIZER_VARS = ("ASAN_OPTIONS", "LSAN_OPTIONS", "UBSAN_OPTIONS")
SYSLOG_RE = re.compile(rb"<(\d+)>\w{3} [ \d]\d \d\d:\d\d:\d\d (\S+?)\[(\d+)\]: (.*)", re.S)


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
    spool: list  # file names left in the spool directory
    stdin_left: int  # bytes of stdin the program did not read

    def texts(self, level=None):
        return [l.text for l in self.logs if level is None or l.level == level]


def namespace_cmd():
    cmd = ["unshare", "--mount"]
    if os.geteuid() != 0:
        cmd.append("--map-root-user")
    return cmd


def sandbox_cmd(root, argv, env=None, argv0=None, spool=True, keep_env=False):
    cmd = namespace_cmd() + ["/usr/bin/python3", SANDBOX, root]
    if not spool:
        cmd.append("--no-spool")
    if argv0 is not None:
        cmd += ["--argv0", argv0]
    if keep_env:
        cmd.append("--keep-env")
    env = dict(env or {})
    for k in SANITIZER_VARS:  # a sanitizer build needs its options; keyseal reads none of them
        if k in os.environ and not keep_env:
            env.setdefault(k, os.environ[k])
    for k, v in env.items():
        cmd += ["--env", f"{k}={v}"]
    return cmd + ["--"] + list(argv)


class Sandbox:
    def __init__(self, root, binary):
        self.root = str(root)
        self.binary = binary
        for d in ("domainkeys", "spool"):
            os.makedirs(os.path.join(self.root, d), exist_ok=True)
        self.log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.log.bind(os.path.join(self.root, "log.sock"))
        os.chmod(os.path.join(self.root, "log.sock"), 0o666)
        self.log.setblocking(False)

    def close(self):
        self.log.close()

    def put_key(self, domain, selector, data):
        d = os.path.join(self.root, "domainkeys", domain)
        os.makedirs(d, exist_ok=True)
        with open(os.path.join(d, selector), "wb") as f:
            f.write(data)

    def put_whitelist(self, text):
        with open(os.path.join(self.root, "domainkeys", "whitelist"), "w") as f:
            f.write(text)

    def _drain_log(self):
        lines = []
        while True:
            try:
                data = self.log.recv(65536)
            except BlockingIOError:
                return lines
            m = SYSLOG_RE.match(data)
            assert m, data
            pri = int(m.group(1))
            lines.append(LogLine(pri >> 3, pri & 7, m.group(2).decode(), int(m.group(3)),
                                 m.group(4).decode(errors="replace")))

    def run(self, args, stdin=b"", env=None, argv0="keyseal", spool=True):
        self._drain_log()
        r, w = os.pipe()
        fcntl.fcntl(w, fcntl.F_SETPIPE_SZ, 1 << 20)
        keep = os.dup(r)  # to count what the program left unread

        def feed():
            try:
                os.write(w, stdin) if len(stdin) <= (1 << 20) else _write_all(w, stdin)
            except BrokenPipeError:
                pass
            finally:
                os.close(w)

        writer = threading.Thread(target=feed)
        writer.start()
        proc = subprocess.Popen(sandbox_cmd(self.root, [self.binary] + list(args), env, argv0,
                                            spool), stdin=r, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE)
        os.close(r)
        out, err = proc.communicate(timeout=120)
        os.set_blocking(keep, False)
        left = 0
        while True:
            try:
                chunk = os.read(keep, 1 << 16)
            except BlockingIOError:
                if not writer.is_alive():
                    break
                writer.join(0.01)
                continue
            if not chunk:
                break
            left += len(chunk)
        writer.join()
        os.close(keep)
        spool_dir = os.path.join(self.root, "spool")
        return Result(proc.returncode, out, err, self._drain_log(),
                      sorted(os.listdir(spool_dir)) if spool else [], left)


def _write_all(fd, data):
    view = memoryview(data)
    while view:
        view = view[os.write(fd, view):]


def generate_key(bits=2048):
    """(PEM private key, base64 DER of the public key) made by the openssl tool."""
    pem = subprocess.run(["openssl", "genpkey", "-algorithm", "RSA", "-pkeyopt",
                          f"rsa_keygen_bits:{bits}"], check=True, capture_output=True).stdout
    der = subprocess.run(["openssl", "pkey", "-pubout", "-outform", "DER"], input=pem,
                         check=True, capture_output=True).stdout
    return pem, base64.b64encode(der)


def verify(message, public_b64, domain=None, selector=None):
    """dkimpy's verdict on the first signature, the key served by a lookup function."""
    asked = []

    def lookup(name, timeout=5):
        asked.append(name)
        return b"v=DKIM1; k=rsa; p=" + public_b64

    ok = dkim.verify(message, dnsfunc=lookup)
    if ok and domain is not None:
        want = f"{selector}._domainkey.{domain}."
        assert [n.decode() if isinstance(n, bytes) else n for n in asked] == [want], asked
    return ok
