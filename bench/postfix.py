#!/usr/bin/python3
"""The "through Postfix" rows of make bench: 2 KB messages from smtp-source through a real
Postfix to smtp-sink, with no milter, with Debian's opendkim milter (the usual signing
milter, run here only as the peer to measure against) and with keyseal-milter, both
signing example.com with the same 2048-bit key.  Runs alternate between the three, three
rounds; medians side by side with the ratios.  Then one 50 MB message through each milter,
with the milter's memory before and after.

Run inside `unshare --net` as root: python3 -m bench.postfix BUILD OUT."""
import os
import pwd
import re
import shutil
import smtplib
import statistics
import subprocess
import sys
import time

from sandbox import postfix_lab

N, SESSIONS, ROUNDS, SIZE = 1000, 10, 3, 2048
QUEUE_DIRS = [postfix_lab.QUEUE + "/" + d for d in ("maildrop", "incoming", "active", "deferred")]
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
SOCKETS = {"no milter": "", "opendkim": "unix:/opendkim/opendkim.sock",
           "keyseal-milter": "unix:/keyseal/milter.sock"}


def cpu_seconds():
    """CPU time the whole machine spent, in seconds (every process, user and system)."""
    fields = open("/proc/stat").readline().split()[1:8]
    return sum(int(f) for f in fields[:3] + fields[5:7]) / os.sysconf("SC_CLK_TCK")


def queued():
    return sum(len(files) for d in QUEUE_DIRS for _, _, files in os.walk(d))


def use(lab, who):
    subprocess.run(["postconf", "-e", f"smtpd_milters={SOCKETS[who]}", "non_smtpd_milters="], check=True)
    lab.stop_postfix()
    lab.start_postfix()


def one_run(lab):
    """(messages per second, CPU seconds per message) for N messages in SESSIONS sessions."""
    cpu, start = cpu_seconds(), time.monotonic()
    subprocess.run(["smtp-source", "-s", str(SESSIONS), "-m", str(N), "-l", str(SIZE),
                    "-f", "ann@example.com", "-t", "bob@example.net", "127.0.0.1:25"], check=True)
    postfix_lab.wait_for(lambda: queued() == 0, "the queue to empty", 300)
    return N / (time.monotonic() - start), (cpu_seconds() - cpu) / N


def vm_hwm(pid):
    return int(re.search(r"VmHWM:\s+(\d+)", open(f"/proc/{pid}/status").read()).group(1)) / 1024


def big_message(lab, who, pid):
    before = vm_hwm(pid)
    body = b"".join(b"line %08d of a long message, to be signed as it streams\r\n" % i for i in range(850000))
    msg = (b"From: Ann <ann@example.com>\r\nTo: bob@example.net\r\nSubject: 50 MB through "
           + who.encode() + b"\r\n\r\n" + body)
    with smtplib.SMTP("127.0.0.1", 25, timeout=300) as s:
        s.sendmail("ann@example.com", ["bob@example.net"], msg)
    postfix_lab.wait_for(lambda: queued() == 0, "the 50 MB message to leave", 600)
    return before, vm_hwm(pid)


def start_opendkim(lab):
    shutil.copy("/etc/domainkeys/example.com/default", "/etc/opendkim-bench.key")
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


def main():
    build, out = sys.argv[1], sys.argv[2]
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
    sink = subprocess.Popen(["smtp-sink", "-u", "nobody", "127.0.0.1:" + str(postfix_lab.CAPTURE_PORT),
                             "256"], stdout=subprocess.DEVNULL)
    postfix_lab.wait_for(lambda: postfix_lab.connects(("127.0.0.1", postfix_lab.CAPTURE_PORT))
                         or sink.poll() is not None, "smtp-sink")
    assert sink.poll() is None, "smtp-sink did not start"
    lines = []
    try:
        pwd.getpwnam("opendkim")
        lab.postfix_config("smtpd_milters =\nnon_smtpd_milters =\nmilter_default_action = tempfail\n")
        lab.admin("keygen", "example.com")
        with open("/etc/domainkeys/whitelist", "w") as f:
            f.write("127.0.0.1/32\n")  # smtp-source's mail is eligible, as opendkim's InternalHosts
        lab.start_milter()
        start_opendkim(lab)
        lab.start_postfix()
        results = {who: [] for who in SOCKETS}
        for _ in range(ROUNDS):
            for who in SOCKETS:
                use(lab, who)
                results[who].append(one_run(lab))
        signed = len(re.findall(r"keyseal\[\d+\]: \w+: Whitelisted TCPREMOTEIP=127.0.0.1 -> signing", lab.log()))
        rate = {w: statistics.median(r[0] for r in v) for w, v in results.items()}
        cpu = {w: statistics.median(r[1] for r in v) for w, v in results.items()}
        lines += ["== through Postfix: 2 KB messages, smtp-source -s %d -m %d, 3 rounds ==" % (SESSIONS, N),
                  f"{'':<16}{'msgs/s':>8}{'x opendkim':>12}{'CPU ms/msg':>12}{'signing ms/msg':>16}"]
        for who in SOCKETS:
            sign = (cpu[who] - cpu["no milter"]) * 1000
            lines.append(f"{who:<16}{rate[who]:>8.0f}{rate[who] / rate['opendkim']:>12.2f}"
                         f"{cpu[who] * 1000:>12.2f}{(f'{sign:.2f}' if who != 'no milter' else '-'):>16}")
        lines.append(f"(keyseal-milter signed {signed} of {N * ROUNDS} messages; CPU: the whole machine's; "
                     f"{where})")
        use(lab, "keyseal-milter")
        k0, k1 = big_message(lab, "keyseal-milter", lab.procs["milter"].pid)
        use(lab, "opendkim")
        o0, o1 = big_message(lab, "opendkim", lab.procs["opendkim"].pid)
        lines.append(f"50 MB message: keyseal-milter peak RSS {k0:.1f} -> {k1:.1f} MB (grew {k1 - k0:.1f}); "
                     f"opendkim {o0:.1f} -> {o1:.1f} MB (grew {o1 - o0:.1f})")
        r, s = rate["keyseal-milter"] / rate["opendkim"], cpu["keyseal-milter"] - cpu["no milter"]
        d = cpu["opendkim"] - cpu["no milter"]
        lines += ["targets:",
                  f"  [{'met' if r >= 1.0 else 'NOT met'}] keyseal-milter {r:.2f}x opendkim's msgs/s (>= 1.0; "
                  f"stretch 1.2: {'met' if r >= 1.2 else 'not met'})",
                  f"  [{'met' if s <= d else 'NOT met'}] signing CPU {s * 1000:.2f} ms/msg <= opendkim's {d * 1000:.2f}",
                  f"  [{'met' if signed == N * ROUNDS else 'NOT met'}] every message signed",
                  f"  [{'met' if k1 - k0 <= 16 else 'NOT met'}] 50 MB: the milter's memory grew {k1 - k0:.1f} MB (<= 16)"]
    except KeyError:
        lines.append("through Postfix: not measured (opendkim is not installed: make bench installs it)")
    finally:
        sink.terminate()
        lab.close()
    with open(out, "w") as f:
        f.write("\n".join(lines) + "\n")
    print("\n".join(lines))
    return 0


if __name__ == "__main__":
    sys.exit(main())
