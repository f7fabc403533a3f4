#!/usr/bin/python3
"""namespace.py ROOT [--no-spool] [--argv0 A] [--env K=V]... [--keep-env] [--fd N=PATH|N=-]...
              [--resolver IP] -- PROGRAM ARGS...

Run inside `unshare --mount`: keyseal's fixed paths come from ROOT (/etc/domainkeys from
ROOT/domainkeys, the spool directory from ROOT/spool, /etc/keyseal and /run from ROOT/keyseal
and ROOT/run where those exist, /dev/log -> ROOT/log.sock on a private /dev); /etc and
/usr/local are overlays on a private tmpfs, so the host is never written.
"""
import argparse
import ctypes
import os
import shutil
import sys

MS_BIND, MS_REC, MS_PRIVATE = 4096, 16384, 1 << 18
libc = ctypes.CDLL(None, use_errno=True)


def mount(src, target, fstype=None, flags=0, data=None):
    enc = lambda s: s.encode() if s is not None else None
    if libc.mount(enc(src), enc(target), enc(fstype), flags, enc(data)) != 0:
        err = ctypes.get_errno()
        raise OSError(err, f"mount {src} on {target}: {os.strerror(err)}")


def overlay(lower, scratch, name):
    up, work = os.path.join(scratch, name + ".up"), os.path.join(scratch, name + ".work")
    os.makedirs(up)
    os.makedirs(work)
    mount("overlay", lower, "overlay", 0, f"lowerdir={lower},upperdir={up},workdir={work}")


def bind_dir(src, target):
    os.makedirs(target, exist_ok=True)
    mount(src, target, None, MS_BIND)


def private_dev(scratch, log_socket):
    hostdev = os.path.join(scratch, "hostdev")
    os.makedirs(hostdev)
    mount("/dev", hostdev, None, MS_BIND | MS_REC)
    mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755")
    for node in ("null", "zero", "full", "random", "urandom", "tty"):
        if os.path.exists(os.path.join(hostdev, node)):
            open(os.path.join("/dev", node), "w").close()
            mount(os.path.join(hostdev, node), os.path.join("/dev", node), None, MS_BIND)
    for name, target in (("fd", "/proc/self/fd"), ("stdin", "/proc/self/fd/0"),
                         ("stdout", "/proc/self/fd/1"), ("stderr", "/proc/self/fd/2"),
                         ("log", log_socket)):
        os.symlink(target, os.path.join("/dev", name))


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("root")
    ap.add_argument("--no-spool", action="store_true")
    ap.add_argument("--argv0")
    ap.add_argument("--env", action="append", default=[], help="NAME=VALUE (the only variables)")
    ap.add_argument("--keep-env", action="store_true", help="inherit the caller's environment")
    ap.add_argument("--fd", action="append", default=[], help="N=PATH opens PATH on N, N=- closes N")
    ap.add_argument("--resolver", help="IP of the nameserver /etc/resolv.conf names")
    split = sys.argv.index("--")
    a = ap.parse_args(sys.argv[1:split])
    cmd = sys.argv[split + 1:]
    root = os.path.abspath(a.root)

    mount(None, "/", None, MS_REC | MS_PRIVATE)
    scratch = os.path.join(root, ".ns")
    os.makedirs(scratch, exist_ok=True)
    mount("tmpfs", scratch, "tmpfs", 0, "mode=0700")

    overlay("/etc", scratch, "etc")
    if a.resolver:
        if os.path.lexists("/etc/resolv.conf"):
            os.remove("/etc/resolv.conf")
        with open("/etc/resolv.conf", "w") as f:
            f.write(f"nameserver {a.resolver}\noptions timeout:1 attempts:1\n")
    bind_dir(os.path.join(root, "domainkeys"), "/etc/domainkeys")
    # keyseal-milter's settings and a private /run, for tests that keep them between runs
    for mine, target in (("keyseal", "/etc/keyseal"), ("run", "/run")):
        if os.path.isdir(os.path.join(root, mine)):
            bind_dir(os.path.join(root, mine), target)

    overlay("/usr/local", scratch, "usrlocal")
    spool = "/usr/local/hlx/handlers/spool"
    shutil.rmtree(spool, ignore_errors=True)
    if not a.no_spool:
        bind_dir(os.path.join(root, "spool"), spool)

    private_dev(scratch, os.path.join(root, "log.sock"))

    env = dict(os.environ) if a.keep_env else {}
    env.update(e.split("=", 1) for e in a.env)
    for setting in a.fd:
        n, path = setting.split("=", 1)
        if path == "-":
            os.close(int(n))
        else:
            os.dup2(os.open(path, os.O_RDONLY if n == "0" else os.O_WRONLY), int(n))
    argv = [a.argv0 if a.argv0 is not None else cmd[0]] + cmd[1:]
    os.execve(cmd[0], argv, env)


if __name__ == "__main__":
    sys.exit(main())
