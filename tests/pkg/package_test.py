#!/usr/bin/python3
"""package_test.py DEB SCRATCH: install the .deb into a throwaway root, sign and verify a
message with the installed programs, purge, and show that only the keys are left.

Run inside `unshare --mount` as root: the root is an overlay of / whose upper layer is a
tmpfs under SCRATCH, so the host's dpkg database and /etc are never written."""
import os
import shutil
import subprocess
import sys

MSG = b"From: Ann <ann@example.com>\nTo: bob@example.net\nSubject: package test\n\nhello\n"
VERIFY = """
import dkim, re, subprocess, sys
out = subprocess.run(["keyseal-admin", "dns", "example.com"], check=True, capture_output=True).stdout
record = b"".join(re.findall(rb'"([^"]*)"', out[:out.index(b")")]))
sys.exit(0 if dkim.verify(sys.stdin.buffer.read(), dnsfunc=lambda *a, **k: record) else 1)
"""


def mount(*args):
    subprocess.run(["mount", *args], check=True)


def chroot(root, *cmd, stdin=None, check=True):
    r = subprocess.run(["chroot", root, *cmd], input=stdin, capture_output=True,
                       env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LANG": "C"})
    if check and r.returncode != 0:
        raise SystemExit(f"FAILED: {' '.join(cmd)}: exit {r.returncode}\n{r.stdout.decode()}"
                         f"{r.stderr.decode()}")
    return r


def main():
    deb, scratch = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    mount("--make-rprivate", "/")
    os.makedirs(scratch, exist_ok=True)
    mount("-t", "tmpfs", "tmpfs", scratch)
    up, work, root = (os.path.join(scratch, d) for d in ("up", "work", "root"))
    for d in (up, work, root):
        os.makedirs(d)
    mount("-t", "overlay", "overlay", "-o", f"lowerdir=/,upperdir={up},workdir={work}", root)
    for fs in ("/proc", "/dev", "/sys"):
        mount("--rbind", fs, root + fs)
    mount("-t", "tmpfs", "tmpfs", root + "/tmp")
    subprocess.run(["cp", deb, root + "/tmp/keyseal.deb"], check=True)

    # a site's Postfix, as Debian's package would configure it
    shutil.copy(root + "/usr/share/postfix/main.cf.debian", root + "/etc/postfix/main.cf")
    main_cf = open(root + "/etc/postfix/main.cf").read()
    chroot(root, "dpkg", "-i", "/tmp/keyseal.deb")
    spool_mode = os.stat(root + "/usr/local/hlx/handlers/spool").st_mode & 0o7777
    main_cf_untouched = open(root + "/etc/postfix/main.cf").read() == main_cf
    milter = chroot(root, "keyseal-milter", "--check-config").stdout
    conffiles = chroot(root, "dpkg-query", "-W", "-f=${Conffiles}", "keyseal").stdout
    sock = os.stat(root + "/var/spool/postfix/keyseal")
    keyseal_uid = int(chroot(root, "id", "-u", "keyseal").stdout)
    postfix_gid = int(chroot(root, "getent", "group", "postfix").stdout.split(b":")[2])
    postfix_before = [chroot(root, "postconf", flag).stdout for flag in ("-n", "-P")]
    chroot(root, "keyseal-admin", "postfix", "setup")
    set_up = chroot(root, "postconf", "-h", "smtpd_milters").stdout.strip()
    chroot(root, "keyseal-admin", "keygen", "example.com")
    key = root + "/etc/domainkeys/example.com/default"
    group = int(chroot(root, "getent", "group", "keyseal").stdout.split(b":")[2])
    signed = chroot(root, "env", "PPP_INSIDE_SENDMAIL=1", "/usr/sbin/keyseal", "", "ann@example.com",
                    "bob@example.net", stdin=MSG, check=False)
    verified = chroot(root, "python3", "-c", VERIFY, stdin=signed.stdout, check=False).returncode
    key_mode = os.stat(key).st_mode & 0o777
    unit_path = root + "/lib/systemd/system/keyseal-milter.service"
    unit = open(unit_path).read().splitlines() if os.path.exists(unit_path) else []
    # the exposure score in tenths, as systemd-analyze's --threshold counts it
    exposure = subprocess.run(["systemd-analyze", "security", "--offline=true", "--threshold=25",
                               unit_path], capture_output=True).returncode
    rotate_units = [os.path.exists(f"{root}/lib/systemd/system/keyseal-rotate.{u}") for u in ("service", "timer")]
    rotate_enabled = os.path.lexists(root + "/etc/systemd/system/timers.target.wants/keyseal-rotate.timer")
    chroot(root, "dpkg", "--purge", "keyseal")
    postfix_after = [chroot(root, "postconf", flag).stdout for flag in ("-n", "-P")]
    steps = [("spool directory 1730", spool_mode == 0o1730),
             ("postinst leaves Postfix's main.cf alone", main_cf_untouched),
             ("keyseal-milter installed, default settings", b"socket unix:/var/spool/postfix/keyseal/milter.sock" in milter),
             ("milter.conf a conffile", b"/etc/keyseal/milter.conf" in conffiles),
             ("systemd unit: restarts, reloads, stops gently, a pid directory",
              {"Restart=on-failure", "ExecReload=/bin/kill -HUP $MAINPID", "KillMode=mixed",
               "RuntimeDirectory=keyseal-milter"} <= set(unit)),
             ("systemd unit: exposure 2.5 at most", unit and exposure == 0),
             ("rotation timer and service installed, not enabled", all(rotate_units) and not rotate_enabled),
             ("socket directory keyseal:postfix 2750",
              (sock.st_uid, sock.st_gid, sock.st_mode & 0o7777) == (keyseal_uid, postfix_gid, 0o2750)),
             ("postfix setup names the milter", set_up == b"unix:/keyseal/milter.sock"),
             ("removal leaves main.cf and master.cf as setup found them",
              postfix_after == postfix_before and not os.path.exists(root + "/etc/postfix/keyseal-setup")),
             ("key 0640, group keyseal", (key_mode, os.stat(key).st_gid) == (0o640, group)),
             ("installed handler signs", (signed.returncode, signed.stderr) == (0, b"PASS")),
             ("dkimpy verifies", verified == 0),
             ("package gone from dpkg", chroot(root, "dpkg-query", "-W", "keyseal", check=False).returncode != 0),
             ("programs gone", not os.path.exists(root + "/usr/sbin/keyseal")),
             ("spool directory gone", not os.path.exists(root + "/usr/local/hlx")),
             ("keys kept", os.path.exists(key))]
    for name, ok in steps:
        print(f"{'ok' if ok else 'FAILED'}: {name}")
    failed = sum(not ok for _, ok in steps)
    print(f"{len(steps) - failed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
