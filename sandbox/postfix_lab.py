"""A real Postfix in a private mount namespace, for the milter's tests and the benchmark.

enter(root) moves the calling process (run it inside `unshare --net`, as root) into a
private mount namespace in which /etc and /usr/local are overlays on a private tmpfs and
Postfix's queue, data and log directories, the key directory and the handler's spool come
from root: nothing of the host is written.  Lab then starts the parts a deployment has:
rsyslogd for the log, nsd for the keys' records, Postfix from Debian's package with its
default master.cf (chrooted services kept), a capture SMTP server behind it, and
keyseal-milter as the keyseal user.
"""
import ctypes
import glob
import os
import pwd
import re
import shutil
import socket
import socketserver
import subprocess
import threading

from sandbox import harness, namespace
from sandbox.harness import wait_for  # noqa: F401 (the tests take it from here)

CLONE_NEWNS = 0x00020000
QUEUE, CAPTURE_PORT = "/var/spool/postfix", 2525
CONFIGURE_INSTANCE = "/usr/lib/postfix/configure-instance.sh"
MAIN_CF = """# the test site's own settings; keyseal-admin postfix setup adds the milter's
myhostname = mx.example.com
mydomain = example.com
myorigin = $mydomain
mydestination =
inet_interfaces = 127.0.0.1
inet_protocols = ipv4
mynetworks = 127.0.0.0/8 10.0.0.0/8
relayhost = [127.0.0.1]:{capture}
smtpd_relay_restrictions = permit_mynetworks permit_sasl_authenticated reject_unauth_destination
smtpd_sasl_auth_enable = yes
smtpd_sasl_path = smtpd
smtpd_tls_security_level = none
smtp_tls_security_level = none
message_size_limit = 104857600
maillog_file =
alias_maps =
alias_database =
compatibility_level = 3.6
"""
RSYSLOG = """global(workDirectory="{d}")
module(load="imuxsock" SysSock.Use="off")
input(type="imuxsock" Socket="/dev/log")
input(type="imuxsock" Socket="{queue}/dev/log")
mail.* action(type="omfile" file="/var/log/mail.log" template="RSYSLOG_TraditionalFileFormat")
"""


def enter(root, disk=None):
    """Move this process into its private mount namespace rooted at root; with disk, an
    image of a file system, root is that file system mounted (in the namespace only), if
    it can be.  Whether it was."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.unshare(CLONE_NEWNS) != 0:
        raise harness.Unavailable("cannot make a private mount namespace: "
                                  + os.strerror(ctypes.get_errno()))
    try:
        namespace.mount(None, "/", None, namespace.MS_REC | namespace.MS_PRIVATE)
    except OSError:
        raise harness.Unavailable(harness.NOT_A_MOUNT_POINT)
    mounted = disk is not None and subprocess.run(["mount", "-o", "loop", disk, root]).returncode == 0
    scratch = os.path.join(root, ".ns")
    os.makedirs(scratch, exist_ok=True)
    namespace.mount("tmpfs", scratch, "tmpfs", 0, "mode=0700")
    namespace.overlay("/etc", scratch, "etc")
    namespace.overlay("/usr/local", scratch, "usrlocal")
    for name, target in (("queue", QUEUE), ("lib", "/var/lib/postfix"), ("log", "/var/log"),
                         ("domainkeys", "/etc/domainkeys"), ("spool", "/usr/local/hlx/handlers/spool")):
        os.makedirs(os.path.join(root, name), exist_ok=True)
        namespace.bind_dir(os.path.join(root, name), target)
    os.chmod("/usr/local/hlx/handlers/spool", 0o1733)
    # /dev/log is rsyslogd's own socket on the private /dev, where every user reaches it
    namespace.private_dev(scratch, os.path.join(root, "log.sock"))
    os.remove("/dev/log")
    return mounted


class Capture(socketserver.ThreadingTCPServer):
    """The next hop: an SMTP server that stores each message's bytes, as received after
    dot-unstuffing, and announces no 8BITMIME."""
    allow_reuse_address = True
    daemon_threads = True

    def __init__(self, directory):
        self.dir, self.count, self.lock = directory, 0, threading.Lock()
        os.makedirs(directory, exist_ok=True)
        super().__init__(("127.0.0.1", CAPTURE_PORT), CaptureHandler)

    def store(self, data):
        with self.lock:
            name = os.path.join(self.dir, "%06d.eml" % (self.count + 1))
            with open(name + ".tmp", "wb") as f:
                f.write(data)
            os.rename(name + ".tmp", name)
            self.count += 1  # only once the file is whole


class CaptureHandler(socketserver.StreamRequestHandler):
    def handle(self):
        say = lambda text: self.wfile.write(text.encode() + b"\r\n")
        say("220 capture ESMTP")
        while True:
            line = self.rfile.readline()
            if not line:
                return
            verb = line[:4].upper()
            if verb == b"EHLO":
                say("250-capture\r\n250 PIPELINING")
            elif verb == b"DATA":
                say("354 go on")
                data = bytearray()
                for body in iter(self.rfile.readline, b""):
                    if body == b".\r\n":
                        break
                    data += body[1:] if body.startswith(b".") else body
                self.server.store(bytes(data))
                say("250 stored")
            elif verb == b"QUIT":
                say("221 bye")
                return
            else:
                say("250 ok")


class Lab:
    """The deployment, started in the namespace enter() made."""

    def __init__(self, root, milter, admin, capture=True):
        """capture: the capture server as the next hop (else the caller starts one)."""
        self.root, self.milter_bin, self.admin_bin = str(root), milter, admin
        self.procs = {}
        self.capture = Capture(os.path.join(self.root, "delivered")) if capture else None
        if capture:
            threading.Thread(target=self.capture.serve_forever, daemon=True).start()
        self._users()
        self._syslog()
        self.nsd = harness.Nsd(os.path.join(self.root, "nsd"))
        with open("/etc/resolv.conf", "w") as f:
            f.write("nameserver 127.0.0.1\noptions timeout:1 attempts:1\n")

    def _users(self):
        run = lambda *a: subprocess.run(a, check=True, capture_output=True)
        if os.path.islink("/etc/resolv.conf"):
            os.remove("/etc/resolv.conf")
        try:
            pwd.getpwnam("keyseal")
        except KeyError:
            run("useradd", "--system", "--user-group", "--no-create-home", "--home-dir", "/nonexistent",
                "--shell", "/usr/sbin/nologin", "keyseal")
        # Postfix's own account and groups, as the package's postinst makes them
        run("sh", "-c", "getent group postdrop >/dev/null || groupadd --system postdrop")

    def _syslog(self):
        os.makedirs(QUEUE + "/dev", exist_ok=True)
        conf = os.path.join(self.root, "rsyslog.conf")
        with open(conf, "w") as f:
            f.write(RSYSLOG.format(d=self.root, queue=QUEUE))
        self.procs["rsyslogd"] = subprocess.Popen(
            ["rsyslogd", "-n", "-f", conf, "-i", os.path.join(self.root, "rsyslogd.pid")])
        wait_for(lambda: os.path.exists("/dev/log"), "rsyslogd's socket")

    def postfix_config(self, extra=""):
        """Debian's default master.cf and this site's main.cf, as a fresh install has them."""
        shutil.copy("/usr/share/postfix/master.cf.dist", "/etc/postfix/master.cf")
        with open("/etc/postfix/main.cf", "w") as f:
            f.write(MAIN_CF.format(capture=CAPTURE_PORT) + extra)
        os.makedirs("/etc/postfix/sasl", exist_ok=True)
        with open("/etc/postfix/sasl/smtpd.conf", "w") as f:
            f.write("pwcheck_method: auxprop\nauxprop_plugin: sasldb\nmech_list: PLAIN LOGIN\n"
                    "sasldb_path: /etc/sasldb2\n")

    def add_sasl_user(self, user, password, domain="example.com"):
        subprocess.run(["saslpasswd2", "-p", "-c", "-u", domain, user], input=password.encode(),
                       check=True)
        # smtpd runs chrooted: its sasldb is the queue directory's copy
        os.makedirs(QUEUE + "/etc", exist_ok=True)
        shutil.copy("/etc/sasldb2", QUEUE + "/etc/sasldb2")
        shutil.chown(QUEUE + "/etc/sasldb2", "root", "postfix")
        os.chmod(QUEUE + "/etc/sasldb2", 0o640)

    def start_postfix(self):
        subprocess.run(["postfix", "set-permissions"], capture_output=True)
        # Debian's chroot set-up (resolv.conf, libraries into the queue directory): an init
        # script's job where Postfix's own start does not run it
        if not postfix_prepares_chroot():
            subprocess.run([CONFIGURE_INSTANCE, "-"], check=True, capture_output=True)
        subprocess.run(["postfix", "start"], check=True, capture_output=True)
        wait_for(lambda: connects(("127.0.0.1", 25)), "Postfix's smtpd")

    def stop_postfix(self):
        subprocess.run(["postfix", "stop"], capture_output=True)
        wait_for(lambda: not glob.glob(QUEUE + "/pid/master.pid") or not alive_pid(QUEUE + "/pid/master.pid"),
                 "Postfix to stop")

    def start_milter(self, conf_text="", name="milter", ready=None):
        """keyseal-milter as the service runs it: as keyseal, /etc/keyseal/milter.conf.  Another
        instance beside Postfix's has a name of its own: its settings are /etc/keyseal/NAME.conf,
        procs[name] its process, and ready() tells when it listens where those settings say."""
        os.makedirs("/etc/keyseal", exist_ok=True)
        # the service's RuntimeDirectory, here on the lab's own /usr/local, where the keyseal
        # user reaches it (the lab's root directory is root's alone): keyseal-admin finds the
        # pid there
        run = "/usr/local/run/keyseal-milter"
        os.makedirs(run, exist_ok=True)
        shutil.chown(run, "keyseal", "keyseal")
        pid_file = os.path.join(run, "keyseal-milter.pid" if name == "milter" else f"{name}.pid")
        if name == "milter":
            self.pid_file = pid_file
        conf = f"/etc/keyseal/{name}.conf"
        with open(conf, "w") as f:
            f.write(conf_text if "pid_file" in conf_text else f"pid_file {pid_file}\n" + conf_text)
        os.makedirs(QUEUE + "/keyseal", exist_ok=True)
        shutil.chown(QUEUE + "/keyseal", "keyseal", "postfix")
        os.chmod(QUEUE + "/keyseal", 0o2750)
        # a sanitizer build keeps freed memory in quarantine: a small one keeps the memory
        # figures of the milter comparable (ignored by a normal build)
        env = {"ASAN_OPTIONS": "quarantine_size_mb=1:thread_local_quarantine_size_kb=64"}
        # installed where the keyseal user can run it, whatever the build tree's permissions
        binary = "/usr/local/sbin/keyseal-milter"
        if not os.path.exists(binary):
            os.makedirs("/usr/local/sbin", exist_ok=True)
            shutil.copy(self.milter_bin, binary)
        self.procs[name] = subprocess.Popen(
            ["setpriv", "--reuid=keyseal", "--regid=keyseal", "--init-groups", binary, "-f", "-c", conf],
            env=env)
        milter = self.procs[name]
        ready = ready or (lambda: os.path.exists(QUEUE + "/keyseal/milter.sock"))
        wait_for(lambda: ready() or milter.poll() is not None, "keyseal-milter's socket")
        # the socket listens before the signing helper is up, and "listening on" comes after:
        # a test that kills the helper must kill a started one (whose end is a restart), not
        # one still starting (whose end ends keyseal-milter)
        listening = rf"keyseal-milter\[{milter.pid}\]: listening on "
        wait_for(lambda: re.search(listening, self.log(), re.M) or milter.poll() is not None,
                 "keyseal-milter's signing helper")
        assert milter.poll() is None, f"keyseal-milter ended with status {milter.returncode}"
        return milter

    def stop_milter(self, sig=15):
        p = self.procs.pop("milter", None)
        if p is not None:
            p.send_signal(sig)
            p.wait(timeout=60)
        if os.path.exists(QUEUE + "/keyseal/milter.sock"):
            os.remove(QUEUE + "/keyseal/milter.sock")

    def admin(self, *args, check=True):
        r = subprocess.run([self.admin_bin, *args], capture_output=True, text=True)
        assert not check or r.returncode == 0, r.stdout + r.stderr
        return r

    def delivered(self, count, seconds=120):
        """The first count messages the next hop received, waiting for them (bounded)."""
        wait_for(lambda: self.capture.count >= count, f"{count} delivered messages", seconds)
        return [open(p, "rb").read() for p in sorted(glob.glob(self.capture.dir + "/*.eml"))[:count]]

    def log(self, until=None):
        """The mail log; with until, once a line matches that pattern (a bounded wait, since
        rsyslogd writes behind the programs that log)."""
        def read():
            with open("/var/log/mail.log", errors="replace") as f:
                return f.read()
        if until is not None:
            wait_for(lambda: re.search(until, read(), re.M), f"a log line matching {until}")
        return read()

    def close(self):
        self.stop_milter()
        self.stop_postfix()
        self.nsd.stop()
        for p in self.procs.values():
            p.terminate()
            p.wait(timeout=60)
        if self.capture is not None:
            self.capture.shutdown()
            self.capture.server_close()


def connects(address):
    try:
        with socket.create_connection(address, timeout=1):
            return True
    except OSError:
        return False


def children(pid):
    """The live processes whose parent is pid."""
    found = []
    for path in glob.glob("/proc/[0-9]*/stat"):
        try:
            state, ppid = open(path).read().rsplit(")", 1)[1].split()[:2]
        except OSError:
            continue
        if int(ppid) == pid and state != "Z":
            found.append(int(path.split("/")[2]))
    return found


def reload_postfix():
    """postfix reload, returned once the processes that ran on the settings of before are
    gone: an idle smtpd or cleanup of before would otherwise take the next message by them."""
    with open(QUEUE + "/pid/master.pid") as f:
        master = int(f.read().split()[0])
    before = set(children(master))
    subprocess.run(["postfix", "reload"], check=True, capture_output=True)
    wait_for(lambda: not before & set(children(master)), "Postfix's processes of before the reload to end")


def alive_pid(path):
    try:
        os.kill(int(open(path).read().split()[0]), 0)
        return True
    except (OSError, ValueError, IndexError):
        return False


def postfix_prepares_chroot():
    """Whether `postfix start` runs Debian's chroot set-up itself (its post-install script
    calls it, and then refuses to be called with an instance argument)."""
    daemon_dir = subprocess.run(["postconf", "-h", "daemon_directory"], capture_output=True,
                                text=True).stdout.strip()
    for script in ("post-install", "postfix-script"):
        try:
            if CONFIGURE_INSTANCE in open(os.path.join(daemon_dir, script), errors="replace").read():
                return True
        except OSError:
            pass
    return False


def queue_ids(log, text):
    """Postfix's queue ids of keyseal lines that carry text."""
    return re.findall(r"keyseal\[\d+\]: ([0-9A-F]+): .*" + re.escape(text), log)
