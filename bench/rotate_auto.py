"""rotate auto over many delegated domains: the time of each run and the UPDATE messages it
sent, against the DNS lab (Knot DNS primary, nsd secondary, unbound), in a private mount and
network namespace.  Not a test: it prints what it measured.

usage: unshare --net sh -c 'ip link set lo up && python3 bench/rotate_auto.py BUILD/keyseal-admin [N]'
"""
import os
import re
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
import dns.query  # noqa: E402
import dns.tsigkeyring  # noqa: E402
import dns.update  # noqa: E402

from sandbox import dns_lab, postfix_lab  # noqa: E402

DAYS = 24 * 3600


def main():
    admin, n = sys.argv[1], int(sys.argv[2]) if len(sys.argv) > 2 else 1000
    root = tempfile.mkdtemp(prefix="rotate-bench-")
    postfix_lab.enter(root)
    lab = dns_lab.DnsLab(os.path.join(root, "dns"))
    lab.start()
    try:
        with open("/etc/resolv.conf", "w") as f:
            f.write(f"nameserver {dns_lab.RESOLVER}\noptions timeout:1 attempts:2\n")
        os.makedirs("/etc/keyseal", exist_ok=True)
        with open("/etc/keyseal/milter.conf", "w") as f:
            f.write("pid_file none\n")
        open("/etc/keyseal/selectors", "w").close()
        with open("/etc/keyseal/dns.conf", "w") as f:
            f.write(f"zone hoster.test key {lab.key_file} primary {dns_lab.PRIMARY}\n"
                    "delegation_zone hoster.test\n")
        domains = [f"d{i}.customer.test" for i in range(n)]
        # the owners' CNAMEs, all of them at once
        ring = dns.tsigkeyring.from_text({dns_lab.KEY_NAME: lab.secret})
        for start in range(0, n, 200):
            u = dns.update.Update("customer.test", keyring=ring, keyalgorithm="hmac-sha256")
            for d in domains[start:start + 200]:
                for sel in ("ks1", "ks2"):
                    u.replace(f"{sel}._domainkey.{d}.", 60, "CNAME", f"{sel}.{d}.hoster.test.")
            dns.query.tcp(u, dns_lab.PRIMARY, timeout=30)
        t = time.monotonic()
        for d in domains:
            r = subprocess.run([admin, "delegate", d], capture_output=True, text=True)
            assert r.stderr.startswith("delegated "), r.stderr  # (its reload: no milter here)
        print(f"delegate x{n}: {time.monotonic() - t:.1f} s ({n} UPDATE messages, one each)")
        time.sleep(2)  # the secondary's transfers
        for step in ("switch", "start", "switch"):
            if step == "start":
                for d in domains:
                    path = f"/etc/domainkeys/{d}/ks1"
                    os.utime(path, (time.time() - 181 * DAYS,) * 2)
            t = time.monotonic()
            r = subprocess.run([admin, "rotate", "auto"], capture_output=True, text=True)
            took = time.monotonic() - t
            summary = (r.stdout.strip().splitlines() or [r.stderr.strip()])[-1]
            moved = len(re.findall(rf"^\S+: {'switched' if step == 'switch' else 'started'} ",
                                   r.stdout, re.M))
            print(f"rotate auto ({step}): {took:.1f} s, {moved} domains moved; {summary}")
            time.sleep(2)
    finally:
        lab.close()


if __name__ == "__main__":
    main()
