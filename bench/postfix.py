#!/usr/bin/python3
"""The "through Postfix" rows of make bench: 2 KB messages (the one the first part of the
benchmark signs: two Received, From, To, Subject, Date, Message-ID, MIME-Version and
Content-Type) from smtp-source through a real Postfix to smtp-sink, with no milter, with the
two peers run here only to be measured against (Debian's opendkim milter, and Debian's
rspamd signing only, its proxy worker in milter mode in front of one normal worker) and
with keyseal-milter in five settings: RSA alone with the default header set, RSA signing
only From, To and Subject, Ed25519 alone, RSA and Ed25519 together, RSA with a selector
map of 100,000 domains, and RSA on the same message with a 2,000-octet body line added, which
keyseal-milter folds before signing as Postfix's SMTP client would (long_lines fold).  All RSA rows sign with the same 2048-bit key.  Runs alternate
between the rows, three rounds; medians side by side with the ratios.  keyseal-milter
changes settings by a reload (SIGHUP), as an administrator's would, and serves /metrics,
read once a second during its rows as a Prometheus server would read it.  Then the
100,000-domain map's reload time and memory, and one 50 MB message through each of
keyseal-milter and opendkim, with the milter's memory before and after.

smtp-sink appends every message to a dump file, from which each row's signatures are
counted: a row counts as signing only if every message it sent arrived with the
signatures the row asks for.  One RSA-2048 signature is timed with openssl speed before and
after the rounds: keyseal-milter's own CPU per message is judged against it.

Run inside `unshare --net` as root: python3 -m bench.postfix BUILD OUT.  For a quick look
while developing, BENCH_POSTFIX_N, BENCH_POSTFIX_ROUNDS and BENCH_POSTFIX_DOMAINS shrink
the messages per run, the rounds and the big map (the report says so)."""
import base64
import glob
import os
import pwd
import re
import shutil
import signal
import smtplib
import statistics
import subprocess
import sys
import threading
import time
import urllib.request

import dkim

from bench import run
from sandbox import postfix_lab

N = int(os.environ.get("BENCH_POSTFIX_N", 1000))
ROUNDS = int(os.environ.get("BENCH_POSTFIX_ROUNDS", 3))
DOMAINS = int(os.environ.get("BENCH_POSTFIX_DOMAINS", 100000))
SESSIONS, SIZE = 10, 2048
QUEUE_DIRS = [postfix_lab.QUEUE + "/" + d for d in ("maildrop", "incoming", "active", "deferred")]
KEYS = "/etc/domainkeys"
BIG_MAP = "/etc/keyseal/selectors-bench"
OPENDKIM_CONF = """Domain example.com
Selector default
KeyFile /etc/opendkim-bench.key
Socket local:/var/spool/postfix/opendkim/opendkim.sock
Canonicalization relaxed/relaxed
Mode s
InternalHosts 127.0.0.1
UserID opendkim:opendkim
UMask 007
Syslog yes
Background no
"""
# Only what signing needs: the dkim module (the plugin signs through it), the dkim_signing
# plugin alone in the plugin directory, none of Debian's rule sets, and a log line per
# message.  Signs for the envelope sender's domain, as keyseal and opendkim here do.
RSPAMD_CONF = """options {{
    pidfile = "{d}/rspamd.pid";
    filters = "dkim";
    local_addrs = [127.0.0.0/8];
    explicit_modules = [];
    tempdir = "{d}/tmp";
    hs_cache_dir = "{d}/db/";
    dns {{ nameserver = ["127.0.0.1"]; timeout = 1s; }}
}}
logging {{
    type = "file";
    filename = "{d}/rspamd.log";
    level = "info";
}}
modules {{
    path = "{d}/plugins";
}}
dkim {{
}}
dkim_signing {{
    use_domain = "envelope";
    allow_hdrfrom_mismatch = true;
    use_esld = false;
    sign_local = true;
    try_fallback = false;
    domain {{
        example.com {{
            selector = "default";
            path = "{d}/example.com.default.key";
        }}
    }}
}}
worker "normal" {{
    bind_socket = "127.0.0.1:11333";
    count = 1;
}}
worker "rspamd_proxy" {{
    bind_socket = "{queue}/rspamd/milter.sock mode=0666 owner=_rspamd";  # the directory keeps others out
    milter = yes;
    timeout = 120s;
    count = 1;
    upstream "local" {{
        default = yes;
        hosts = "127.0.0.1:11333";
    }}
}}
"""

# The rows: (name, milter socket inside Postfix's chroot, keyseal-milter's settings, the
# envelope sender, the signatures each message must carry)
RSA, ED = "rsa-sha256", "ed25519-sha256"
KEYSEAL = "unix:/keyseal/milter.sock"
METRICS = "127.0.0.1:9901"  # keyseal-milter's /metrics, scraped as a Prometheus server would
LONG = "long@example.com"  # the sender of the message with a long line
ROWS = [
    ("no milter", "", None, "ann@example.com", []),
    ("opendkim", "unix:/opendkim/opendkim.sock", None, "ann@example.com", [RSA]),
    ("rspamd", "unix:/rspamd/milter.sock", None, "ann@example.com", [RSA]),
    ("keyseal RSA", KEYSEAL, "", "ann@example.com", [RSA]),
    ("keyseal RSA 3 fields", KEYSEAL, "headers From To Subject\noversign none\n", "ann@example.com", [RSA]),
    ("keyseal Ed25519", KEYSEAL, "selector ed1\n", "ann@example.com", [ED]),
    ("keyseal RSA+Ed25519", KEYSEAL, "selector default ed1\n", "ann@example.com", [RSA, ED]),
    ("keyseal 100k domains", KEYSEAL, f"selector_map {BIG_MAP}\n", f"ann@d{DOMAINS // 2}.example", [RSA]),
    ("keyseal RSA long line", KEYSEAL, "", LONG, [RSA]),
]


def cpu_seconds():
    """CPU time the whole machine spent, in seconds (every process, user and system)."""
    fields = open("/proc/stat").readline().split()[1:8]
    return sum(int(f) for f in fields[:3] + fields[5:7]) / os.sysconf("SC_CLK_TCK")


def tree_cpu(pid):
    """CPU seconds a process and its descendants spent, those that ended included (as
    their parents reaped them): the milter's own share of the machine's."""
    children, times = {}, {}
    for stat in glob.glob("/proc/[0-9]*/stat"):
        try:
            text = open(stat).read()
        except OSError:
            continue  # ended meanwhile
        fields = text[text.rindex(")") + 2:].split()
        children.setdefault(int(fields[1]), []).append(int(stat.split("/")[2]))
        times[int(stat.split("/")[2])] = sum(int(f) for f in fields[11:15])
    total, todo = 0, [pid]
    while todo:
        p = todo.pop()
        total += times.get(p, 0)
        todo += children.get(p, [])
    return total / os.sysconf("SC_CLK_TCK")


def own_parts(pid):
    """keyseal-milter's CPU seconds by process: its own (libmilter's threads and the
    session), its helper's, and its workers' (those the helper reaped included)."""
    def stat(p):
        try:
            text = open(f"/proc/{p}/stat").read()
        except OSError:
            return None
        f = text[text.rindex(")") + 2:].split()
        return int(f[1]), sum(int(x) for x in f[11:13]), sum(int(x) for x in f[13:15])
    procs = {int(p): stat(p) for p in os.listdir("/proc") if p.isdigit()}
    procs = {p: s for p, s in procs.items() if s is not None}
    kids = lambda parent: [p for p, s in procs.items() if s[0] == parent]
    tick = os.sysconf("SC_CLK_TCK")
    milter, helpers = procs[pid][1], kids(pid)
    helper = sum(procs[h][1] for h in helpers)
    workers = sum(procs[h][2] for h in helpers) + sum(procs[w][1] + procs[w][2] for h in helpers for w in kids(h))
    return milter / tick, helper / tick, workers / tick


def queued():
    return sum(len(files) for d in QUEUE_DIRS for _, _, files in os.walk(d))


def vm(pid, field):
    """A memory figure of /proc/PID/status (VmRSS, VmHWM), in MB."""
    return int(re.search(field + r":\s+(\d+)", open(f"/proc/{pid}/status").read()).group(1)) / 1024


class Bench:
    def __init__(self, lab, root):
        self.lab, self.root = lab, root
        self.dump = os.path.join(root, "sink", "dump")  # written by smtp-sink as nobody
        self.keyseal_conf = None
        self.reloads = []  # seconds from SIGHUP to the "reloaded" line, into the big map
        self.rss = None  # the milter's VmRSS before and after its first load of the big map
        self.parts = {}  # keyseal rows: per run, CPU seconds per message by process (own_parts)
        self.scraper = Scraper()

    def milter_conf(self, extra):
        return f"pid_file {self.lab.pid_file}\nmetrics {METRICS}\n" + extra

    def reload(self, extra):
        """keyseal-milter's settings with extra, by a reload; its time when it took one."""
        if extra == self.keyseal_conf:
            return None
        with open("/etc/keyseal/milter.conf", "w") as f:
            f.write(self.milter_conf(extra))
        offset, new = os.path.getsize("/var/log/mail.log"), b""
        start = time.monotonic()
        os.kill(self.lab.procs["milter"].pid, signal.SIGHUP)
        while not re.search(rb"keyseal-milter\[\d+\]: reloaded ", new):
            assert time.monotonic() - start < 120, "keyseal-milter did not reload"
            assert b"keeping the running settings" not in new, "keyseal-milter's reload failed"
            time.sleep(0.002)
            with open("/var/log/mail.log", "rb") as f:
                f.seek(offset)
                new = f.read()
        self.keyseal_conf = extra
        return time.monotonic() - start

    def use(self, row):
        _, socket, conf, _, _ = row
        if conf is not None:
            pid = self.lab.procs["milter"].pid
            big = BIG_MAP in conf
            before = vm(pid, "VmRSS")
            took = self.reload(conf)
            if big and took is not None:
                self.reloads.append(took)
                if self.rss is None:
                    self.rss = before, vm(pid, "VmRSS")
        subprocess.run(["postconf", "-e", f"smtpd_milters={socket}", "non_smtpd_milters="], check=True)
        self.lab.stop_postfix()
        self.lab.start_postfix()

    def milter_pid(self, row):
        who = who_is(row)
        return who and self.lab.procs[who].pid

    def one_run(self, row):
        """(messages per second, CPU seconds per message, the milter's own CPU seconds per
        message, messages that arrived signed as the row asks) for N messages in SESSIONS
        sessions."""
        _, _, _, sender, wanted = row
        offset = os.path.getsize(self.dump) if os.path.exists(self.dump) else 0
        pid = self.milter_pid(row)
        own = tree_cpu(pid) if pid else 0
        parts = own_parts(pid) if who_is(row) == "milter" else None
        if parts is not None:
            self.scraper.start()
        cpu, start = cpu_seconds(), time.monotonic()
        subprocess.run(["smtp-source", "-s", str(SESSIONS), "-m", str(N), "-F", self.message(sender),
                        "-f", sender, "-t", "bob@example.net", "127.0.0.1:25"], check=True)
        postfix_lab.wait_for(lambda: queued() == 0, "the queue to empty", 300)
        if parts is not None:
            self.scraper.end()
        rate, cpu = N / (time.monotonic() - start), (cpu_seconds() - cpu) / N
        own = (tree_cpu(pid) - own) / N if pid else 0
        if parts is not None:
            self.parts.setdefault(row[0], []).append([(b - a) / N for a, b in zip(parts, own_parts(pid))])
        postfix_lab.wait_for(lambda: len(self.messages(offset)) >= N, f"smtp-sink to hold {N} messages")
        got = self.messages(offset)
        return rate, cpu, own, sum(1 for m in got if signatures(m) == wanted), verified(got[0], len(wanted))

    def message(self, sender):
        """A file with the 2 KB message the first part of the benchmark signs, its From:
        the envelope sender (an unaligned one would add a warning line per message); LONG's
        with a 2,000-octet line at the end of its body, longer than Postfix's SMTP line limit."""
        path = os.path.join(self.root, sender + ".eml")
        if not os.path.exists(path):
            with open(path, "wb") as f:
                data = run.message(SIZE).replace(b"ann@example.com", sender.encode())
                f.write(data + (b"x" * 2000 + b"\n" if sender == LONG else b""))
        return path

    def messages(self, offset):
        with open(self.dump, "rb") as f:
            f.seek(offset)
            return re.split(rb"^X-Client-Addr: ", f.read(), flags=re.M)[1:]


class Scraper:
    """A Prometheus server's part during the keyseal rows: /metrics read once a second, so
    that the rows measure signing as it runs when watched."""

    def __init__(self):
        self.scrapes, self.failures, self.stop = 0, 0, threading.Event()
        self.thread = None

    def start(self):
        self.stop.clear()
        self.thread = threading.Thread(target=self.loop, daemon=True)
        self.thread.start()

    def loop(self):
        while True:
            try:
                with urllib.request.urlopen(f"http://{METRICS}/metrics", timeout=5) as r:
                    r.read()
                self.scrapes += 1
            except OSError:
                self.failures += 1
            if self.stop.wait(1):
                return

    def end(self):
        self.stop.set()
        self.thread.join()


def who_is(row):
    """The lab's name of the row's milter process, None for no milter."""
    return {"opendkim": "opendkim", "rspamd": "rspamd", "no milter": None}.get(row[0], "milter")


def signatures(message):
    """The algorithms of a message's DKIM-Signature headers, in order."""
    head = message.split(b"\n\n", 1)[0].replace(b"\r\n", b"\n")
    return [re.search(rb"\ba=([\w-]+)", re.sub(rb"\n[ \t]", b" ", h)).group(1).decode()
            for h in re.findall(rb"^DKIM-Signature:.*(?:\n[ \t].*)*", head, re.M | re.I)]


def public_record(path):
    """The DNS record of a private key's public half, as keyseal-admin dns prints it."""
    der = subprocess.run(["openssl", "pkey", "-in", path, "-pubout", "-outform", "DER"], check=True,
                         capture_output=True).stdout
    ed = b"ED25519" in subprocess.run(["openssl", "pkey", "-in", path, "-noout", "-text"], check=True,
                                      capture_output=True).stdout.upper()
    return f"v=DKIM1; k={'ed25519' if ed else 'rsa'}; p={base64.b64encode(der[-32:] if ed else der).decode()}"


def verified(message, count):
    """Whether each of the message's count signatures verifies (dkimpy, the records of the
    bench's keys: every RSA row signs with the same key)."""
    lines = message.replace(b"\r\n", b"\n").split(b"\n")[1:]
    while lines and lines[0].startswith(b"X-"):
        lines.pop(0)  # smtp-sink's lines, then its three-line Received header
    msg = b"\r\n".join(lines[3:])
    records = {s: public_record(f"{KEYS}/example.com/{s}") for s in ("default", "ed1")}
    dns = lambda name, timeout=5: records[name.decode().split(".")[0]].encode()
    return all(dkim.DKIM(msg).verify(idx=i, dnsfunc=dns) for i in range(count))


def big_message(lab, who, pid):
    before = vm(pid, "VmHWM")
    body = b"".join(b"line %08d of a long message, to be signed as it streams\r\n" % i for i in range(850000))
    msg = (b"From: Ann <ann@example.com>\r\nTo: bob@example.net\r\nSubject: 50 MB through "
           + who.encode() + b"\r\n\r\n" + body)
    with smtplib.SMTP("127.0.0.1", 25, timeout=300) as s:
        s.sendmail("ann@example.com", ["bob@example.net"], msg)
    postfix_lab.wait_for(lambda: queued() == 0, "the 50 MB message to leave", 600)
    return before, vm(pid, "VmHWM")


def start_opendkim(lab):
    shutil.copy(KEYS + "/example.com/default", "/etc/opendkim-bench.key")
    shutil.chown("/etc/opendkim-bench.key", "opendkim", "opendkim")
    os.chmod("/etc/opendkim-bench.key", 0o600)
    with open("/etc/opendkim-bench.conf", "w") as f:
        f.write(OPENDKIM_CONF)
    os.makedirs(postfix_lab.QUEUE + "/opendkim", exist_ok=True)
    shutil.chown(postfix_lab.QUEUE + "/opendkim", "opendkim", "postfix")
    os.chmod(postfix_lab.QUEUE + "/opendkim", 0o2750)
    lab.procs["opendkim"] = subprocess.Popen(["opendkim", "-f", "-x", "/etc/opendkim-bench.conf"])
    postfix_lab.wait_for(lambda: os.path.exists(postfix_lab.QUEUE + "/opendkim/opendkim.sock"),
                         "opendkim's socket")


def start_rspamd(lab, root):
    """rspamd with a configuration directory of its own under the lab's root: nothing of the
    package's configuration, state or log directories is used."""
    d = os.path.join(root, "rspamd")
    for sub in ("", "/db", "/tmp", "/plugins"):
        os.makedirs(d + sub, exist_ok=True)
        shutil.chown(d + sub, "_rspamd", "_rspamd")
    shutil.copy("/usr/share/rspamd/plugins/dkim_signing.lua", d + "/plugins")
    shutil.copy(KEYS + "/example.com/default", d + "/example.com.default.key")
    shutil.chown(d + "/example.com.default.key", "_rspamd", "_rspamd")
    os.chmod(d + "/example.com.default.key", 0o600)
    with open(d + "/rspamd.conf", "w") as f:
        f.write(RSPAMD_CONF.format(d=d, queue=postfix_lab.QUEUE))
    sock = postfix_lab.QUEUE + "/rspamd"
    os.makedirs(sock, exist_ok=True)
    shutil.chown(sock, "_rspamd", "postfix")
    os.chmod(sock, 0o2750)
    lab.procs["rspamd"] = subprocess.Popen(
        ["rspamd", "-f", "-u", "_rspamd", "-g", "_rspamd", "-c", d + "/rspamd.conf", "--var=DBDIR=" + d + "/db",
         "--var=RUNDIR=" + d, "--var=LOGDIR=" + d, "--var=LOCAL_CONFDIR=" + d],
        stdout=subprocess.DEVNULL, stderr=subprocess.STDOUT)
    rspamd = lab.procs["rspamd"]
    postfix_lab.wait_for(lambda: os.path.exists(sock + "/milter.sock") or rspamd.poll() is not None,
                         "rspamd's milter socket")
    assert rspamd.poll() is None, f"rspamd ended with status {rspamd.returncode}: see {d}/rspamd.log"


def ed25519_key():
    """An Ed25519 key beside the RSA one, as keyseal-admin keygen leaves a key."""
    path = KEYS + "/example.com/ed1"
    subprocess.run(["openssl", "genpkey", "-algorithm", "ed25519", "-out", path], check=True)
    shutil.chown(path, "root", "keyseal")
    os.chmod(path, 0o640)


def big_map():
    """A selector map of DOMAINS domains, each with its key directory; the keys are copies
    of example.com's, nearly all of them hard links, so that making them takes seconds."""
    key, gid = KEYS + "/example.com/default", pwd.getpwnam("keyseal").pw_gid
    os.makedirs(os.path.dirname(BIG_MAP), exist_ok=True)
    with open(BIG_MAP, "w") as f:
        for i in range(1, DOMAINS + 1):
            d = f"{KEYS}/d{i}.example"
            os.mkdir(d, 0o750)
            os.chown(d, 0, gid)
            if i % 50000 == 1:  # a file system allows some 65,000 links to one file
                shutil.copy(key, d + "/default")
                os.chown(d + "/default", 0, gid)
                os.chmod(d + "/default", 0o640)
                first = d + "/default"
            else:
                os.link(first, d + "/default")
            f.write(f"d{i}.example default\n")


def check_config_seconds(build, conf):
    """How long keyseal-milter --check-config takes to read conf: the best of three."""
    with open("/etc/keyseal/check-bench.conf", "w") as f:
        f.write(conf)
    times = []
    for _ in range(3):
        start = time.monotonic()
        subprocess.run([os.path.join(build, "keyseal-milter"), "--check-config", "-c",
                        "/etc/keyseal/check-bench.conf"], check=True, stdout=subprocess.DEVNULL)
        times.append(time.monotonic() - start)
    return min(times)


def journaled_disk(root):
    """An image of a journaled ext4 for the lab, or None.  The machine's own file system
    may have no journal, and ext4 without one passes over every inode freed in the last
    minute at each file it creates: at hundreds of messages a second, that scan (paid by
    Postfix's queue files and the handler's spool file alike) would be measured instead of
    the mail path.  A server's disk has a journal."""
    image = root + ".img"
    try:
        with open(image, "wb") as f:
            f.truncate(4 << 30)
        subprocess.run(["mkfs.ext4", "-q", "-F", image], check=True, capture_output=True)
        return image
    except (OSError, subprocess.CalledProcessError):
        if os.path.exists(image):
            os.remove(image)
        return None


def version(package):
    return subprocess.run(["dpkg-query", "-W", "-f=${Version}", package], capture_output=True,
                          text=True).stdout or "?"


def rsa_signature_ms():
    """One RSA-2048 signature as this machine's libcrypto makes it, in ms (openssl speed)."""
    out = subprocess.run(["openssl", "speed", "-seconds", "2", "-mr", "rsa2048"], capture_output=True,
                         text=True).stdout
    m = re.search(r"^\+F2:\d+:2048:([\d.]+):", out, re.M)
    return 1000 / float(m.group(1)) if m and float(m.group(1)) > 0 else float("nan")


def per(a, b):
    """a over b; not a number (no target met) when either is not above zero: the noise of a
    busy machine or a shortened run, not a measurement."""
    return a / b if a > 0 and b > 0 else float("nan")


def target(ok, text):
    return f"  [{'met' if ok else 'NOT met'}] {text}"


def report(b, results, where, check, k, o, rsa_ms):
    """The table and the targets."""
    names = [r[0] for r in ROWS]
    rate = {w: statistics.median(r[0] for r in v) for w, v in results.items()}
    cpu = {w: statistics.median(r[1] for r in v) for w, v in results.items()}
    own = {w: statistics.median(r[2] for r in v) * 1000 for w, v in results.items()}
    signed = {w: sum(r[3] for r in v) for w, v in results.items()}
    checked = all(r[4] for v in results.values() for r in v)
    sign = {w: (cpu[w] - cpu["no milter"]) * 1000 for w in names}
    lines = [f"== through Postfix: 2 KB messages, smtp-source -s {SESSIONS} -m {N} -F, {ROUNDS} rounds ==",
             f"{'':<22}{'msgs/s':>8}{'x opendkim':>12}{'CPU ms/msg':>12}{'signing ms/msg':>16}"
             f"{'x RSA':>7}{'milter ms/msg':>15}{'x RSA':>7}{'signed':>14}"]
    for w in names:
        lines.append(f"{w:<22}{rate[w]:>8.0f}{rate[w] / rate['opendkim']:>12.2f}{cpu[w] * 1000:>12.2f}"
                     + (f"{'-':>16}{'-':>7}{'-':>15}{'-':>7}{'-':>14}" if w == "no milter" else
                        f"{sign[w]:>16.2f}{per(sign[w], sign['keyseal RSA']):>7.2f}"
                        f"{own[w]:>15.2f}{per(own[w], own['keyseal RSA']):>7.2f}"
                        f"{f'{signed[w]} of {N * ROUNDS}':>14}"))
    lines += ["keyseal RSA: the default header set, over-signed; 3 fields: headers From To Subject, oversign none;",
              "signing ms/msg: CPU per message over the no-milter row's; x RSA: that over keyseal RSA's;",
              "milter ms/msg: the milter's own processes' CPU per message (rspamd: its proxy and worker);",
              "signed: messages that reached smtp-sink with the row's signatures (RSA, Ed25519 or both);",
              "long line: keyseal RSA's message with a 2,000-octet body line, folded before signing "
              f"(long_lines fold): {rate['keyseal RSA long line'] / rate['keyseal RSA']:.2f}x keyseal RSA's msgs/s, "
              f"the milter's own CPU {per(own['keyseal RSA long line'], own['keyseal RSA']):.2f}x;",
              f"CPU: the whole machine's; {where}",
              f"peers: Debian's opendkim {version('opendkim')} and rspamd {version('rspamd')}"]
    parts = [statistics.median(run[i] for run in b.parts["keyseal RSA"]) * 1000 for i in range(3)]
    lines.append("keyseal RSA's own CPU by process, ms/msg: the milter (libmilter's threads, the session) "
                 f"{parts[0]:.2f}, the helper {parts[1]:.2f}, the workers (the engine, the signature) {parts[2]:.2f}")
    big = f"{DOMAINS} domains" if DOMAINS != 100000 else "100,000 domains"
    reload_s = max(b.reloads)
    r0, r1 = b.rss
    lines.append(f"selector map of {big}: reload {statistics.median(b.reloads):.3f} s (slowest of {len(b.reloads)}: "
                 f"{reload_s:.3f} s; SIGHUP to the log line); --check-config {check[1]:.3f} s "
                 f"(one domain: {check[0]:.3f} s); milter RSS {r0:.1f} -> {r1:.1f} MB")
    k0, k1 = k
    o0, o1 = o
    lines.append(f"50 MB message: keyseal-milter peak RSS {k0:.1f} -> {k1:.1f} MB (grew {k1 - k0:.1f}); "
                 f"opendkim {o0:.1f} -> {o1:.1f} MB (grew {o1 - o0:.1f})")
    if (N, ROUNDS, DOMAINS) != (1000, 3, 100000):
        lines.append(f"(a shortened run: BENCH_POSTFIX_N={N}, ROUNDS={ROUNDS}, DOMAINS={DOMAINS})")
    ks = "keyseal RSA"
    r = rate[ks] / rate["opendkim"]
    peer = min(("opendkim", "rspamd"), key=lambda w: sign[w])
    dual, ed = per(sign["keyseal RSA+Ed25519"], sign[ks]), per(sign["keyseal Ed25519"], sign[ks])
    hs = per(sign[ks], sign["keyseal RSA 3 fields"])
    mine = lambda w: f"; the milter's own CPU: {per(own[w], own[ks]):.2f}x"  # steadier on a busy machine
    big_rate = rate["keyseal 100k domains"] / rate[ks]
    every = all(signed[w] == N * ROUNDS for w in names if w != "no milter")
    peers = ("opendkim", "rspamd")
    ed_own = per(own["keyseal Ed25519"], own[ks])
    fastest = max(peers, key=lambda w: rate[w])
    leanest = min(peers, key=lambda w: own[w])
    lines += ["targets:",
              target(own[ks] <= 3 * rsa_ms, f"keyseal RSA: the milter's own CPU {own[ks]:.2f} ms/msg, "
                                            f"{per(own[ks], rsa_ms):.1f}x one RSA-2048 signature ({rsa_ms:.3f} ms, "
                                            "openssl speed in this run) (<= 3x)"),
              target(rate[ks] >= 0.85 * rate["no milter"] and rate[ks] > rate[fastest],
                     f"keyseal RSA {rate[ks]:.0f} msgs/s: {rate[ks] / rate['no milter']:.2f}x Postfix alone "
                     f"(>= 0.85) and above every peer's ({fastest}: {rate[fastest]:.0f})"),
              target(own[ks] < own[leanest], f"keyseal RSA: the milter's own CPU {own[ks]:.2f} ms/msg below every "
                                             f"peer's ({leanest}: {own[leanest]:.2f})"),
              target(r >= 1.0, f"keyseal RSA {r:.2f}x opendkim's msgs/s (>= 1.0; stretch 1.2: "
                               f"{'met' if r >= 1.2 else 'not met'})"),
              target(sign[ks] <= sign[peer], f"keyseal RSA signing CPU {sign[ks]:.2f} ms/msg <= the leanest "
                                             f"peer's ({peer}, {sign[peer]:.2f}; the milters' own CPU: "
                                             f"{own[ks]:.2f} and {own[peer]:.2f})"),
              target(dual <= 1.3, f"RSA+Ed25519 signing CPU {dual:.2f}x RSA alone "
                                  f"(<= 1.3{mine('keyseal RSA+Ed25519')})"),
              target(ed_own <= 0.6, f"Ed25519: the milter's own CPU {ed_own:.2f}x the RSA row's (<= 0.6; "
                                    f"signing CPU {ed:.2f}x)"),
              target(hs <= 1.05, f"the default header set, over-signed: signing CPU {hs:.2f}x "
                                 f"h=From:To:Subject's (<= 1.05; the milter's own CPU: "
                                 f"{per(own[ks], own['keyseal RSA 3 fields']):.2f}x)"),
              target(reload_s <= 1.0, f"{big}: reload {reload_s:.3f} s (<= 1)"),
              target(r1 - r0 <= 30, f"{big}: the milter's RSS grew {r1 - r0:.1f} MB (<= 30)"),
              target(big_rate >= 0.95, f"{big}: {big_rate:.2f}x the one-domain msgs/s (>= 0.95)"),
              target(every and checked, "every message signed as its row asks, and the first of each run "
                                        f"verifies (dkimpy){'' if checked else ': one did NOT'}"),
              target(k1 - k0 <= 16, f"50 MB: the milter's memory grew {k1 - k0:.1f} MB (<= 16)")]
    return lines


def main():
    build, out = sys.argv[1], sys.argv[2]
    began = time.monotonic()
    root = os.path.join(os.path.dirname(os.path.abspath(out)), "postfix-lab")
    shutil.rmtree(root, ignore_errors=True)
    os.makedirs(root)
    disk = journaled_disk(root)
    try:
        journaled = postfix_lab.enter(root, disk)
    finally:
        if disk is not None:
            os.remove(disk)  # a mount keeps it while the lab runs
    where = ("the lab's files on a journaled ext4 image, as on a server's disk" if journaled else
             "the lab's files where the report goes: no journaled ext4 image could be mounted")
    lab = postfix_lab.Lab(root, os.path.join(build, "keyseal-milter"), os.path.join(build, "keyseal-admin"),
                          capture=False)
    b = Bench(lab, root)
    os.makedirs(os.path.dirname(b.dump))
    shutil.chown(os.path.dirname(b.dump), "nobody")
    # smtp-sink writes as nobody: the directories above its own must let it pass (a
    # temporary work directory is its creator's alone)
    for d in (root, os.path.dirname(os.path.abspath(root))):
        os.chmod(d, os.stat(d).st_mode | 0o011)
    sink = subprocess.Popen(["smtp-sink", "-u", "nobody", "-D", b.dump,
                             "127.0.0.1:" + str(postfix_lab.CAPTURE_PORT), "256"], stdout=subprocess.DEVNULL)
    postfix_lab.wait_for(lambda: postfix_lab.connects(("127.0.0.1", postfix_lab.CAPTURE_PORT))
                         or sink.poll() is not None, "smtp-sink")
    assert sink.poll() is None, "smtp-sink did not start"
    lines = []
    try:
        for user, package in (("opendkim", "opendkim"), ("_rspamd", "rspamd")):
            try:
                pwd.getpwnam(user)
            except KeyError:
                raise SystemExit(f"through Postfix: not measured ({package} is not installed: "
                                 "make bench installs it)")
        lab.postfix_config("smtpd_milters =\nnon_smtpd_milters =\nmilter_default_action = tempfail\n")
        lab.admin("keygen", "example.com")
        ed25519_key()
        with open("/etc/domainkeys/whitelist", "w") as f:
            f.write("127.0.0.1/32\n")  # smtp-source's mail is eligible, as opendkim's InternalHosts
        started = time.monotonic()
        big_map()
        made = time.monotonic() - started
        check = (check_config_seconds(build, ""), check_config_seconds(build, f"selector_map {BIG_MAP}\n"))
        lab.start_milter(f"metrics {METRICS}\n")
        b.keyseal_conf = ""
        start_opendkim(lab)
        start_rspamd(lab, root)
        lab.start_postfix()
        rsa_ms = [rsa_signature_ms()]
        results, rounds = {row[0]: [] for row in ROWS}, time.monotonic()
        for _ in range(ROUNDS):
            for row in ROWS:
                b.use(row)
                results[row[0]].append(b.one_run(row))
        rounds = time.monotonic() - rounds
        rsa_ms.append(rsa_signature_ms())
        # a milter that never held the big map, whose memory the message could reuse unseen
        lab.stop_milter()
        lab.start_milter(f"metrics {METRICS}\n")
        b.keyseal_conf = ""
        row = {r[0]: r for r in ROWS}
        b.use(row["keyseal RSA"])
        subprocess.run(["smtp-source", "-m", "20", "-f", "ann@example.com", "-t", "bob@example.net",
                        "127.0.0.1:25"], check=True)  # warmed up as in service
        postfix_lab.wait_for(lambda: queued() == 0, "the queue to empty")
        k = big_message(lab, "keyseal-milter", lab.procs["milter"].pid)
        b.use(row["opendkim"])
        o = big_message(lab, "opendkim", lab.procs["opendkim"].pid)
        lines = report(b, results, where, check, k, o, statistics.mean(rsa_ms))
        lines.append(f"(keyseal-milter's /metrics scraped once a second during the keyseal rows: "
                     f"{b.scraper.scrapes} scrapes, {b.scraper.failures} failed)")
        lines.append(f"(the {DOMAINS} key directories and the map took {made:.0f} s to make, the rounds "
                     f"{rounds:.0f} s, all of it {time.monotonic() - began:.0f} s)")
    except SystemExit as e:
        lines.append(str(e))
    finally:
        sink.terminate()
        lab.close()
    with open(out, "w") as f:
        f.write("\n".join(lines) + "\n")
    print("\n".join(lines))
    return 0


if __name__ == "__main__":
    sys.exit(main())
