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

SANDBOX = os.path.join(os.path.dirname(os.path.abspath(__file__)), "sandbox.py")
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
    spool: list  # names left in the spool directory
    stdin_left: int  # bytes of standard input the program did not read

    def texts(self):
        return [l.text for l in self.logs]


def sandbox_cmd(root, argv, env=None, argv0=None, spool=True, keep_env=False, fds=None):
    """The command that runs argv inside a private mount namespace rooted at root.
    fds maps a descriptor to a path to open on it, or to None to close it."""
    cmd = ["unshare", "--mount"] + ([] if os.geteuid() == 0 else ["--map-root-user"])
    cmd += ["/usr/bin/python3", SANDBOX, root] + ([] if spool else ["--no-spool"])
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


class Sandbox:
    def __init__(self, root, binary):
        self.root, self.binary = str(root), binary
        for d in ("domainkeys", "spool"):
            os.makedirs(os.path.join(self.root, d), exist_ok=True)
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

    def run(self, args, stdin=b"", env=None, argv0="keyseal", spool=True, fds=None, timeout=300):
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
        proc = subprocess.Popen(sandbox_cmd(self.root, [self.binary] + args, env, argv0, spool,
                                            fds=fds),
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
