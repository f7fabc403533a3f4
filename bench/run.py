#!/usr/bin/python3
"""make bench: keyseal side by side with its peers and with two floors.

Every contender signs one message per process (relaxed/relaxed rsa-sha256, the same
2048-bit key, output to /dev/null).  The whole run happens inside one private mount
namespace (the test sandbox), so keyseal runs as deployed, with its real paths, and
/dev/log is a socket drained by a reader as a syslog daemon would.  Contenders are
interleaved round by round; each round runs each contender a few times after one
warm-up; the figures are medians over all rounds.  bench_run spawns each process
without a shell and reads its peak RSS from wait4 (the number /usr/bin/time -v shows).
"""
import argparse
import base64
import datetime
import os
import platform
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import threading

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(HERE)
from sandbox import harness

# (label, bytes, runs per round): five rounds interleave the contenders finely enough
# that the noise of a small shared machine falls on all of them alike.
SIZES = [("2 KB", 2 << 10, 6), ("100 KB", 100 << 10, 4), ("5 MB", 5 << 20, 2), ("50 MB", 50 << 20, 1)]
ROUNDS = 5
PACKAGE = None  # the Debian package's build tree (libcrypto and libopendkim dynamic), if given
ENDINGS = ("LF", "CRLF")
HEADERS = (
    "Received: from laptop.example.com ([192.0.2.10]) by mail.example.com with esmtpsa\n"
    "\tid 1a2b3c; Sat, 21 Nov 2026 06:00:01 +0000\n"
    "Received: from localhost by laptop.example.com; Sat, 21 Nov 2026 06:00:00 +0000\n"
    "From: Ann Example <ann@example.com>\nTo: Bob Example <bob@example.net>\n"
    "Subject: Quarterly report and figures\nDate: Sat, 21 Nov 2026 06:00:00 +0000\n"
    "Message-ID: <20261121060000.4711@laptop.example.com>\nMIME-Version: 1.0\n")


def message(size):
    """A realistic message of about `size` bytes, LF line ends."""
    text = "Hello Bob,\n\nthe figures for the quarter are attached; see you on Monday.\n\nAnn\n"
    if size <= 4096:
        head = HEADERS + "Content-Type: text/plain; charset=utf-8\n\n"
        filler = "Lorem ipsum dolor sit amet, consectetur adipiscing elit, sed do eiusmod.\n"
        body = text + filler * ((size - len(head) - len(text)) // len(filler))
        return (head + body).encode()
    head = (HEADERS + 'Content-Type: multipart/mixed; boundary="b1"\n\n--b1\n'
            "Content-Type: text/plain\n\n" + text + "--b1\nContent-Type: application/pdf\n"
            "Content-Transfer-Encoding: base64\n\n").encode()
    block = base64.encodebytes(os.urandom(57 * 1000))  # 76-column lines
    need = size - len(head) - 8
    attachment = block * (need // len(block)) + block[:need % len(block) // 77 * 77]
    return head + attachment + b"--b1--\n"


def write_input(path, data, ending):
    with open(path, "wb") as f:
        f.write(data.replace(b"\n", b"\r\n") if ending == "CRLF" else data)
    return os.path.getsize(path)


def drain(sock, stop):
    sock.settimeout(0.2)
    while not stop.is_set():
        try:
            sock.recv(65536)
        except (socket.timeout, OSError):
            pass


def outer(args):
    build = os.path.abspath(args.build)
    work = tempfile.mkdtemp(prefix="keyseal-bench-", dir="/var/tmp")
    try:
        sandbox = harness.Sandbox(os.path.join(work, "root"), os.path.join(build, "keyseal"))
        stop = threading.Event()
        reader = threading.Thread(target=drain, args=(sandbox.log, stop))
        reader.start()
        pem, _, _ = harness.generate_key(2048)
        sandbox.put_key("example.com", "default", pem)
        with open(os.path.join(work, "key.pem"), "wb") as f:
            f.write(pem)
        for name, size, _ in SIZES:
            for ending in ENDINGS:
                write_input(os.path.join(work, f"{size}.{ending}"), message(size), ending)
        # the through-Postfix rows, in namespaces of their own, reported with the rest; a
        # quick run gives them one round
        postfix_rows = os.path.join(work, "postfix.txt")
        postfix_env = dict(os.environ, **({"BENCH_POSTFIX_ROUNDS": "1"} if args.quick else {}))
        subprocess.run(["unshare", "--net", "sh", "-c", "ip link set lo up && exec /usr/bin/python3 -m "
                        f"bench.postfix {build} {postfix_rows}"], cwd=TOP, stdout=subprocess.DEVNULL,
                       env=postfix_env)
        cmd = harness.sandbox_cmd(sandbox.root, ["/usr/bin/python3", "-m", "bench.run", "--inside", work,
                                                 "--build", build] + (["--quick"] if args.quick else [])
                                  + (["--package", os.path.abspath(args.package)] if args.package else []),
                                  keep_env=True)
        env = dict(os.environ, PPP_INSIDE_SENDMAIL="1")
        rc = subprocess.run(cmd, env=env).returncode
        stop.set()
        reader.join()
        return rc
    finally:
        shutil.rmtree(work, ignore_errors=True)


def runs(build, input_path, count, cmd):
    out = subprocess.run([os.path.join(build, "bench", "bench_run"), input_path, str(count), "--"] + cmd,
                         check=True, capture_output=True, text=True).stdout
    rows = [line.split() for line in out.splitlines()]
    if any(int(r[2]) != 0 for r in rows):
        raise SystemExit(f"{cmd[0]} failed on {input_path}")
    return [float(r[0]) for r in rows], [int(r[1]) for r in rows]


def contenders(build, key):
    package = [("keyseal pkg", [os.path.join(PACKAGE or "", "keyseal"), "", "ann@example.com",
                                "bob@example.net"])] if PACKAGE else []
    return [
        ("keyseal", [os.path.join(build, "keyseal"), "", "ann@example.com", "bob@example.net"]),
    ] + package + [
        ("library floor", [os.path.join(build, "bench", "library_floor"), key]),
        ("crypto floor", [os.path.join(build, "bench", "crypto_floor"), key]),
        ("crypto static", [os.path.join(build, "bench", "crypto_floor_static"), key]),
        ("Mail::DKIM", ["/usr/bin/perl", os.path.join(HERE, "maildkim_sign.pl"), key]),
        ("dkimpy", ["/usr/bin/dkimsign", "--hcanon", "relaxed", "--bcanon", "relaxed",
                    "default", "example.com", key]),
    ]


def measure(build, work, rounds):
    key = os.path.join(work, "key.pem")
    results = {}  # (size, ending, contender) -> (times ms, rss kb)
    for name, size, per_round in SIZES:
        for ending in ENDINGS:
            path = os.path.join(work, f"{size}.{ending}")
            for who, cmd in contenders(build, key):
                runs(build, path, 1, cmd)  # warm-up
            for _ in range(rounds):
                for who, cmd in contenders(build, key):
                    t, r = runs(build, path, per_round, cmd)
                    acc = results.setdefault((name, ending, who), ([], []))
                    acc[0].extend(t)
                    acc[1].extend(r)
    return results


def throughput(build, work, rounds):
    """messages/s for 500 messages of 2 KB, two at a time."""
    key, path = os.path.join(work, "key.pem"), os.path.join(work, f"{SIZES[0][1]}.LF")
    rates = {}
    for _ in range(rounds):
        for who, cmd in contenders(build, key):
            if who not in ("keyseal", "crypto floor"):
                continue
            out = subprocess.run([os.path.join(build, "bench", "bench_run"), "-j", "2", path, "500",
                                  "--"] + cmd, check=True, capture_output=True, text=True).stdout
            seconds, failures = out.split()
            assert failures == "0", who
            rates.setdefault(who, []).append(500 / float(seconds))
    return {who: statistics.median(v) for who, v in rates.items()}


def huge_body_rss(build, work):
    path = os.path.join(work, "1GiB")
    block = base64.encodebytes(os.urandom(57 * 10000))
    with open(path, "wb") as f:
        f.write(message(4096))
        for _ in range((1 << 30) // len(block)):
            f.write(block)
    times, rss = runs(build, path, 1, contenders(build, "")[0][1])
    os.unlink(path)
    return times[0], rss[0]


def machine():
    model = next((l.split(":", 1)[1].strip() for l in open("/proc/cpuinfo") if l.startswith("model name")), "?")
    mem = next(l.split()[1] for l in open("/proc/meminfo") if l.startswith("MemTotal"))
    version = lambda p: subprocess.run(["dpkg-query", "-W", "-f=${Version}", p], capture_output=True,
                                       text=True).stdout
    return (f"{model}, {os.cpu_count()} cores, {int(mem) // 1024 // 1024} GiB; {platform.platform()}; "
            f"libopendkim {version('libopendkim11')}, OpenSSL {version('libssl3')}, "
            f"Mail::DKIM {version('libmail-dkim-perl')}, dkimpy {version('python3-dkim')}")


def report(results, rates, huge, sizes_on_disk):
    lines = [f"keyseal benchmark, {datetime.datetime.now():%Y-%m-%d %H:%M}", machine(),
             "keyseal: the source build (libcrypto, libopendkim and the C++ runtime linked in); "
             "crypto static: the crypto floor linked the same way",
             "keyseal pkg: the Debian package's build (libcrypto and libopendkim shared, "
             "hardening flags); crypto floor: libcrypto shared", ""]
    med = {k: statistics.median(v[0]) for k, v in results.items()}
    rss = {k: max(v[1]) / 1024 for k, v in results.items()}
    for name, size, _ in SIZES:
        lines.append(f"== {name} ==")
        lines.append(f"{'contender':<14}{'ending':<7}{'median ms':>10}{'x crypto':>10}{'x library':>10}"
                     f"{'x keyseal':>10}{'RSS MB':>8}{'MB/s':>9}")
        for ending in ENDINGS:
            for who, _ in contenders("", ""):
                m = med[(name, ending, who)]
                mbs = sizes_on_disk[(size, ending)] / (1 << 20) / (m / 1000)
                lines.append(f"{who:<14}{ending:<7}{m:>10.2f}{m / med[(name, ending, 'crypto floor')]:>10.2f}"
                             f"{m / med[(name, ending, 'library floor')]:>10.2f}"
                             f"{m / med[(name, ending, 'keyseal')]:>10.2f}{rss[(name, ending, who)]:>8.1f}"
                             f"{(f'{mbs:.0f}' if size > 100000 else '-'):>9}")
        lines.append("")
    lines.append(f"2 workers, 500 messages of 2 KB: keyseal {rates['keyseal']:.0f}/s, "
                 f"crypto floor {rates['crypto floor']:.0f}/s")
    lines.append(f"1 GiB body through keyseal: {huge[0] / 1000:.1f} s, peak RSS {huge[1] / 1024:.1f} MB")
    lines.append("")
    lines.append("targets:")

    def target(text, ok):
        lines.append(f"  [{'met' if ok else 'NOT met'}] {text}")

    for ending in ENDINGS:
        k = lambda who, s: med[(s, ending, who)]
        r = k("keyseal", "2 KB") / k("crypto floor", "2 KB")
        target(f"2 KB {ending}: keyseal {r:.2f}x the crypto floor (<= 1.15)", r <= 1.15)
        if PACKAGE:
            r = k("keyseal pkg", "2 KB") / k("crypto floor", "2 KB")
            target(f"2 KB {ending}: the package build {r:.2f}x the shared crypto floor (<= 1.25)",
                   r <= 1.25)
        for peer in ("Mail::DKIM", "dkimpy"):
            s = k(peer, "2 KB") / k("keyseal", "2 KB")
            target(f"2 KB {ending}: {s:.1f}x faster than {peer} (>= 10)", s >= 10)
        r = k("keyseal", "50 MB") / k("library floor", "50 MB")
        target(f"50 MB {ending}: keyseal {r:.2f}x the library floor (<= 1.2)", r <= 1.2)
        for peer in ("Mail::DKIM", "dkimpy"):
            s = k(peer, "50 MB") / k("keyseal", "50 MB")
            target(f"50 MB {ending}: {s:.1f}x faster than {peer} (>= 4)", s >= 4)
    peak = max([v for (s, e, w), v in rss.items() if w == "keyseal"] + [huge[1] / 1024])
    target(f"keyseal peak RSS {peak:.1f} MB over every size and the 1 GiB body (<= 8)", peak <= 8)
    t = rates["keyseal"] / rates["crypto floor"]
    target(f"2-worker throughput {t:.2f}x the crypto floor's (>= 0.85)", t >= 0.85)
    return "\n".join(lines) + "\n"


def inside(args):
    work, build = args.inside, args.build
    rounds = 1 if args.quick else ROUNDS
    sizes_on_disk = {(size, e): os.path.getsize(os.path.join(work, f"{size}.{e}"))
                     for _, size, _ in SIZES for e in ENDINGS}
    print("measuring (a few minutes)...", flush=True)
    results = measure(build, work, rounds)
    rates = throughput(build, work, rounds)
    huge = huge_body_rss(build, work)
    text = report(results, rates, huge, sizes_on_disk)
    rows = os.path.join(work, "postfix.txt")
    text += "\n" + (open(rows).read() if os.path.exists(rows) else "through Postfix: not measured\n")
    met, missed = text.count("  [met] "), text.count("  [NOT met] ")
    text += f"\n{met} of {met + missed} targets met" + (" (through Postfix included)" if os.path.exists(rows)
                                                         else "") + "\n"
    print(text)
    os.makedirs(os.path.join(HERE, "results"), exist_ok=True)
    out = os.path.join(HERE, "results", f"bench-{datetime.datetime.now():%Y%m%d-%H%M%S}.txt")
    with open(out, "w") as f:
        f.write(text)
    print(f"written to {os.path.relpath(out, TOP)}")
    return 0


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--build", default=os.path.join(TOP, "build"))
    ap.add_argument("--inside")
    ap.add_argument("--quick", action="store_true", help="one round: a smoke test of the suite")
    ap.add_argument("--package", help="the Debian package's build tree, measured beside --build")
    args = ap.parse_args()
    global PACKAGE
    PACKAGE = args.package
    return inside(args) if args.inside else outer(args)


if __name__ == "__main__":
    sys.exit(main())
