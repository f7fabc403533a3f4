"""keyseal-milter as a hostile client and an unlucky server meet it: a milter-protocol client
(milter_client.py) drives a keyseal-milter of the test's own settings inside the lab, where
Postfix cannot produce the input; the long header and the big job also go through Postfix.
What the milter asks for is applied to the message as a server would, then verified by
dkimpy through the lab's DNS."""
import concurrent.futures
import ctypes
import glob
import itertools
import math
import os
import re
import shutil
import signal
import subprocess
import threading
import time

import pytest

from milter_client import applied, session
from sandbox import postfix_lab
from sandbox.postfix_lab import children, wait_for
from test_milter import deliver, message, signatures, smtp, verifies

SOCK = postfix_lab.QUEUE + "/keyseal/hostile.sock"
PORT = 18891
SPOOL = "/usr/local/hlx/handlers/spool"
WHITELIST = "/etc/domainkeys/whitelist"
AUTH = "ann@example.com"
FOREIGN = b"DKIM-Signature: v=1; a=rsa-sha256; d=third.example; s=x; b=CCCC\r\n"
ids = itertools.count(1)


def next_id():
    return "F%05X" % next(ids)


def listening_inode(where):
    """The inode of the socket listening at where (unix:PATH or inet:PORT...), or None."""
    if where.startswith("unix:"):
        for f in (line.split() for line in open("/proc/net/unix").read().splitlines()[1:]):
            if len(f) >= 8 and f[7] == where[5:] and int(f[3], 16) & 0x10000:  # accepts connections
                return f[6]
        return None
    port = int(re.match(r"inet6?:(\d+)", where).group(1))
    for table in ("/proc/net/tcp", "/proc/net/tcp6"):
        for f in (line.split() for line in open(table).read().splitlines()[1:]):
            if f[3] == "0A" and int(f[1].rsplit(":", 1)[1], 16) == port:
                return f[9]
    return None


def descendants(pid):
    found = children(pid)
    return found + [d for c in found for d in descendants(c)]


def workers(pid):
    """The children of keyseal-milter's children: its helper's workers."""
    return [w for helper in children(pid) for w in children(helper)]


def hanging(pid):
    """Whether pid waits in open() for a FIFO's writer."""
    try:
        return open(f"/proc/{pid}/wchan").read() == "wait_for_partner"
    except OSError:
        return False


def whitelist(hang=False):
    """The whitelist admits 10.0.0.5; with hang, it is a FIFO nobody writes to, on which the
    handler hangs until its time limit."""
    if os.path.lexists(WHITELIST):
        os.remove(WHITELIST)
    if hang:
        os.mkfifo(WHITELIST, 0o644)
    else:
        with open(WHITELIST, "w") as f:
            f.write("10.0.0.5/32\n")


@pytest.fixture(autouse=True)
def clean(lab):
    """The whitelist admits 10.0.0.5 during and after each test; the spool is empty after it."""
    whitelist()
    yield
    whitelist()
    wait_for(lambda: os.listdir(SPOOL) == [], "an empty spool directory")


@pytest.fixture
def start(lab):
    """start(settings, listen) - a keyseal-milter of its own beside Postfix's, listening at
    listen; stopped after the test."""
    def start(settings="", listen="unix:" + SOCK):
        if os.path.exists(SOCK):
            os.remove(SOCK)
        return lab.start_milter(f"socket {listen}\n{settings}", name="hostile", ready=lambda: (
            os.path.exists(SOCK) or not listen.startswith("unix:")) and listening_inode(listen) is not None)
    yield start
    p = lab.procs.pop("hostile", None)
    if p is not None and p.poll() is None:
        left = descendants(p.pid)
        p.terminate()
        try:
            p.wait(timeout=60)
        except subprocess.TimeoutExpired:
            p.kill()
            p.wait()
        for pid in left:  # should a helper or worker outlive it, it goes too
            try:
                if open(f"/proc/{pid}/comm").read().strip() == "keyseal-milter":
                    os.kill(pid, signal.SIGKILL)
            except OSError:
                pass


def send(sender="ann@example.com", rcpts=("bob@example.net",), data=None, qid=None, auth=AUTH,
         client="10.0.0.6", daemon="mx.example.com", address=SOCK, source=None):
    """One message in a session of its own: (queue id, the message, the milter's answer)."""
    qid = qid or next_id()
    data = data or message(int(qid[1:], 16), sender=sender.encode())
    with session(address, daemon=daemon, client=client, source=source) as m:
        answer = m.message(sender, rcpts, data, queue_id=qid, auth=auth)
        m.quit()
    return qid, data, answer


def signed(data, answer):
    """The message as signed and verified; the new header's tags."""
    assert answer.final == b"c" and {m[0] for m in answer.mods} <= {b"i", b"m"}, answer
    new = [m for m in answer.mods if m[0] == b"i"]
    assert len(new) == 1 and new[0][1:3] == (0, b"DKIM-Signature"), answer
    out = applied(data, answer)
    assert out.split(b"\r\n\r\n", 1)[1] == data.split(b"\r\n\r\n", 1)[1]
    assert verifies(out), out[:800]
    return out, dict(re.findall(rb"(\w+)=([^;\s]*)", new[0][3]))


def unchanged(answer):
    assert answer.final == b"c" and answer.mods == [], answer


@pytest.mark.parametrize("rcpts", [
    ["", "PPP_INSIDE_SENDMAIL=1"],
    ["bob@example.net", "", "PPP_INSIDE_SENDMAIL=1"],
    ["bob@example.net", "", "SMTP_AUTHORIZED=mallory"],
    ["bob@example.net\nPPP_INSIDE_SENDMAIL=1"],
])
def test_recipients_cannot_make_a_client_eligible(lab, start, rcpts):
    start()
    qid, _, answer = send(rcpts=rcpts, auth="")
    unchanged(answer)
    lab.log(until=rf"keyseal\[\d+\]: {qid}: Not sendmail, not authorized, TCPREMOTEIP=10.0.0.6 "
            "not whitelisted - not signing")


def watch(paths):
    """An inotify descriptor reporting any opening of paths or of what is in them."""
    libc = ctypes.CDLL(None, use_errno=True)
    fd = libc.inotify_init1(os.O_NONBLOCK)
    for p in paths:
        assert libc.inotify_add_watch(fd, p.encode(), 0x20 | 0x1) >= 0  # IN_OPEN | IN_ACCESS
    return fd


@pytest.mark.parametrize("sender,domain", [
    ('"x@../../../dev/shm/x"@example.com', None),
    ("x@../../../dev/shm/x", None),
    ("ann@example.com/../../../../dev/shm/x", None),
    ("Ann@Example.COM", "example.com"),
    ("ann@example.com.", "example.com"),
    ("ann@EXAMPLE.com.", "example.com"),
])
def test_the_sender_domain_as_postfix_compares_it(lab, start, sender, domain):
    # a key where a path built from the domain would lead
    planted = ['/dev/shm/x"@example.com', "/dev/shm/x"]
    for d in planted:
        os.makedirs(d, exist_ok=True)
        shutil.copy("/etc/domainkeys/example.com/default", d + "/default")
        os.chmod(d + "/default", 0o644)
    start("strict yes\n")  # no retry can cure a domain that is no host name: not tempfailed
    opened = watch(planted)
    try:
        qid, data, answer = send(sender)
        try:
            events = os.read(opened, 4096)
        except BlockingIOError:
            events = b""
    finally:
        os.close(opened)
        for d in planted:
            shutil.rmtree(d)
    assert events == b""
    if domain is None:
        unchanged(answer)
        log = lab.log(until=rf"keyseal-milter\[\d+\]: {qid}: sender domain '.*' is not a host name: "
                      "not given to the handler; the message passes unsigned")
        assert not re.search(rf"keyseal\[\d+\]: {qid}: ", log)
    else:
        assert signed(data, answer)[1][b"d"] == domain.encode()


@pytest.mark.parametrize("listen,clients,source,to,outcome", [
    ("inet:%d" % PORT, "", "127.0.0.1", "127.0.0.1", "signed"),
    ("inet:%d" % PORT, "", "10.0.0.5", "10.0.0.5", "not listening"),  # loopback's 127.0.0.1 only
    ("inet:%d@0.0.0.0" % PORT, "", "10.0.0.5", "10.0.0.5", "refused"),  # default clients: loopback
    ("inet:%d@0.0.0.0" % PORT, "127.0.0.0/8 10.0.0.5/32", "10.0.0.6", "127.0.0.1", "refused"),
    ("inet:%d@0.0.0.0" % PORT, "127.0.0.0/8 10.0.0.5/32", "10.0.0.5", "10.0.0.5", "signed"),
    ("inet:%d@10.0.0.5" % PORT, "10.0.0.6/32", "10.0.0.6", "10.0.0.5", "signed"),
    ("inet:%d@0.0.0.0" % PORT, "0.0.0.0/0", "10.0.0.6", "10.0.0.5", "signed"),  # every IPv4 peer
    # an IPv4 peer of an IPv6 socket (::ffff:10.0.0.5) is matched as its IPv4 address
    ("inet6:%d@::" % PORT, "10.0.0.5", "10.0.0.5", "10.0.0.5", "signed"),
])
def test_an_inet_socket_serves_only_its_clients(lab, start, listen, clients, source, to, outcome):
    start(f"clients {clients}\n" if clients else "", listen)
    # the signing oracle: a client that claims to be Postfix's local submission
    attempt = lambda: send(daemon="keyseal-local-submission", auth="", address=(to, PORT), source=source)
    if outcome == "not listening":
        with pytest.raises(ConnectionRefusedError):
            attempt()
    elif outcome == "refused":
        with pytest.raises(ConnectionError):
            attempt()
        lab.log(until=rf"keyseal-milter\[\d+\]: refused a connection from {re.escape(source)}: not among clients")
    else:
        _, data, answer = attempt()
        signed(data, answer)


@pytest.mark.parametrize("listen", ["unix:" + SOCK, "inet:%d" % PORT])
def test_the_listening_socket_is_in_no_child(lab, start, listen):
    whitelist(hang=True)
    milter = start("timeout 30\n", listen)
    inode = listening_inode(listen)
    fds = lambda pid: {os.readlink(p) for p in glob.glob(f"/proc/{pid}/fd/*") if os.path.lexists(p)}
    assert f"socket:[{inode}]" in fds(milter.pid)
    address = SOCK if listen.startswith("unix:") else ("127.0.0.1", PORT)
    with concurrent.futures.ThreadPoolExecutor() as pool:
        # a message that holds a worker while the descriptors are looked at
        hung = pool.submit(send, auth="", client="10.0.0.5", address=address)
        wait_for(lambda: any(hanging(w) for w in workers(milter.pid)), "a worker hanging on the whitelist")
        helpers = children(milter.pid)
        for pid in helpers + workers(milter.pid):
            assert f"socket:[{inode}]" not in fds(pid), pid
            # under keyseal-milter's name (ps -C, top), saying which it is
            role = b"--helper" if pid in helpers else b"--worker"
            assert open(f"/proc/{pid}/comm").read() == "keyseal-milter\n"
            assert open(f"/proc/{pid}/cmdline", "rb").read().split(b"\0")[:2] == [b"keyseal-milter", role]
        # the worker killed in its job: the helper, which reaps it, says how it ended
        os.kill(next(w for w in workers(milter.pid) if hanging(w)), signal.SIGKILL)
        qid, _, answer = hung.result()
        unchanged(answer)
    lab.log(until=rf"keyseal-milter\[{milter.pid}\]: {qid}: not signed: the handler ended \(killed by "
            r"SIGKILL\); the message passes unsigned")


def test_thirty_hung_messages_get_at_most_four_workers_and_all_an_answer(lab, start):
    whitelist(hang=True)
    milter = start("workers 4\ntimeout 2\n")
    most = 0
    with concurrent.futures.ThreadPoolExecutor(30) as pool:
        sent = [pool.submit(send, auth="", client="10.0.0.5") for _ in range(30)]
        while not all(f.done() for f in sent):
            most = max(most, len(workers(milter.pid)))
            time.sleep(0.01)
    assert 1 <= most <= 4
    results = [f.result() for f in sent]
    for qid, _, answer in results:
        unchanged(answer)
    log = lab.log(until=rf"keyseal-milter\[\d+\]: {results[-1][0]}: not signed: ")
    for qid, _, _ in results:
        assert re.search(rf"keyseal-milter\[\d+\]: {qid}: not signed: .+; the message passes unsigned", log)


@pytest.mark.parametrize("strict", [False, True])
def test_a_killed_helper_is_replaced_and_the_next_message_signed(lab, start, strict):
    whitelist(hang=True)
    milter = start("timeout 60\n" + ("strict yes\n" if strict else ""))
    wait_for(lambda: len(children(milter.pid)) == 1, "the helper")
    [helper] = children(milter.pid)
    with concurrent.futures.ThreadPoolExecutor() as pool:
        sent = []
        for n in range(1, 4):  # each in its worker before the next begins
            sent.append(pool.submit(send, auth="", client="10.0.0.5"))
            wait_for(lambda: sum(hanging(w) for w in workers(milter.pid)) == n, f"{n} messages in workers")
        os.kill(helper, signal.SIGKILL)
        results = [f.result() for f in sent]
    log = lab.log(until=rf"keyseal-milter\[{milter.pid}\]: the signing helper \(pid {helper}\) ended "
                  r"\(.+\); starting a new one")
    for qid, _, answer in results:
        if strict:
            assert answer.final == b"t" and answer.reply.startswith(b"451 4.7.1"), answer
        else:
            unchanged(answer)
        # answered because the helper went, not after the time limit
        log = lab.log(until=rf"keyseal-milter\[\d+\]: {qid}: not signed: ")
        assert not re.search(rf"{qid}: not signed: .*time limit", log)
    whitelist()
    wait_for(lambda: children(milter.pid) not in ([], [helper]), "a new helper")
    _, data, answer = send(auth="", client="10.0.0.5")
    signed(data, answer)
    assert milter.poll() is None


def test_a_helper_killed_ten_times_is_replaced_each_time_while_mail_flows(lab, start):
    milter = start()
    sent, stop = [], threading.Event()

    def stream():
        while not stop.is_set():
            sent.append(send())
    with concurrent.futures.ThreadPoolExecutor() as pool:
        running = pool.submit(stream)
        for restart in range(1, 11):
            wait_for(lambda: len(children(milter.pid)) == 1 or running.done(), "one helper")
            [helper] = children(milter.pid)
            os.kill(helper, signal.SIGKILL)
            lab.log(until=rf"keyseal-milter\[{milter.pid}\]: started a new signing helper \(pid \d+; "
                    rf"restart {restart}\)")
            _, data, answer = send()
            signed(data, answer)
            assert milter.poll() is None
        stop.set()
        running.result()
    unsigned = 0
    for _, data, answer in sent:  # met a helper's end: passed unsigned, to be retried never
        if answer.mods:
            signed(data, answer)
        else:
            unchanged(answer)
            unsigned += 1
    # only what a helper's workers held when it died: one stream, one message at a time;
    # a message that came while the next helper was starting waited for it
    assert unsigned <= 10
    log = lab.log(until=rf"keyseal-milter\[{milter.pid}\]: started a new signing helper \(pid \d+; restart 10\)")
    assert not re.search(rf"keyseal-milter\[{milter.pid}\]: \S+: not signed: the signing helper is not running", log)


def test_a_helper_that_cannot_start_ends_the_milter_saying_why(lab, start):
    # the program as the milter runs it, on a mount of its own that becomes noexec
    binary, copy = "/usr/local/sbin/keyseal-milter", "/usr/local/noexec"
    os.makedirs(copy, exist_ok=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=0755", "tmpfs", copy], check=True)
    try:
        shutil.copy(binary, copy)
        subprocess.run(["mount", "--bind", copy + "/keyseal-milter", binary], check=True)
        milter = start()
        wait_for(lambda: len(children(milter.pid)) == 1, "the helper")
        subprocess.run(["mount", "-o", "remount,bind,noexec", binary], check=True)
        os.kill(children(milter.pid)[0], signal.SIGKILL)
        assert milter.wait(timeout=120) != 0
        lab.log(until=rf"keyseal-milter\[{milter.pid}\]: cannot start a new signing helper: Permission denied")
    finally:
        subprocess.run(["umount", "-l", binary])
        subprocess.run(["umount", "-l", copy])


def test_sighup_reloads_the_selector_map_and_keeps_settings_on_an_error(lab, start):
    for s in ("s1", "s2"):
        if not os.path.exists(f"/etc/domainkeys/example.com/{s}"):
            lab.admin("keygen", "example.com", "--selector", s)
    lab.nsd.serve("example.com", "".join(lab.admin("dns", "example.com", "--selector", s).stdout
                                         for s in ("default", "s1", "s2")))
    selectors, conf = "/etc/keyseal/hostile-selectors", "/etc/keyseal/hostile.conf"

    def write(path, text):
        with open(path + ".new", "w") as f:
            f.write(text)
        os.rename(path + ".new", path)
    write(selectors, "example.com s1\n")
    milter = start(f"selector_map {selectors}\n")
    phase, sent, stop = ["before"], [], threading.Event()

    def stream():  # one message after another, each noting the phase it began in
        while not stop.is_set():
            began = phase[0]
            sending = send()
            # a message takes its settings at MAIL FROM: one that began before the map
            # changed may still meet the reload
            sent.append(("before" if began == phase[0] == "before" else
                         "during" if began != "after" else "after",) + sending)
    with concurrent.futures.ThreadPoolExecutor() as pool:
        running = pool.submit(stream)

        def until(more, began, what):  # the stream's own failure, should it end
            wait_for(lambda: sum(1 for s in sent if s[0] == began) >= more or running.done(), what)
            if running.done():
                running.result()
        until(5, "before", "messages before the reload")
        write(selectors, "example.com s2\n")
        phase[0] = "during"
        os.kill(milter.pid, signal.SIGHUP)
        lab.log(until=rf"keyseal-milter\[{milter.pid}\]: reloaded ")
        phase[0] = "after"
        until(5, "after", "messages after the reload")
        settings = open(conf).read()
        for path, text in ((selectors, "example.com\n"), (conf, settings + "no_such 1\n")):
            write(path, text)
            line = text.count("\n")
            os.kill(milter.pid, signal.SIGHUP)
            lab.log(until=rf"keyseal-milter\[{milter.pid}\]: {re.escape(path)}:{line}: .+; "
                    "keeping the running settings")
        until(sum(1 for s in sent if s[0] == "after") + 5, "after", "messages after the failed reloads")
        stop.set()
        running.result()
    for began, qid, data, answer in sent:  # none lost
        want = {"before": {b"s1"}, "during": {b"s1", b"s2"}, "after": {b"s2"}}[began]
        assert signed(data, answer)[1][b"s"] in want, (began, qid)
    assert milter.poll() is None


def test_sigterm_lets_a_message_in_flight_finish(lab, start):
    milter = start()
    qid = next_id()
    data = message(int(qid[1:], 16))
    with session(SOCK) as m:
        m.mail("ann@example.com", macros={"i": qid, "{auth_authen}": AUTH})
        m.rcpt("bob@example.net")
        body = m.headers(data)
        milter.send_signal(signal.SIGTERM)
        lab.log(until=rf"keyseal-milter\[{milter.pid}\]: stopping: \d+ messages in flight")
        m.stage(b"N")
        m.body(body)
        answer = m.eom(macros={"i": qid})
        m.quit()
    signed(data, answer)
    assert milter.wait(timeout=120) == 0
    assert not os.path.exists(SOCK)


PIECE = 32765  # the handler reads a header line in pieces of at most this many bytes


def long_header_message(n):
    """A header line whose second piece looks like our domain's signature, then a real
    signature of a third party."""
    line = b"X-Long: " + b"a" * (PIECE - len(b"X-Long: "))
    fake = b"DKIM-Signature: v=1; a=rsa-sha256; d=example.com; s=old; b=AAAA\r\n"
    return message(n, extra=line + fake + FOREIGN)


def test_a_third_partys_signature_after_a_long_header_stays(lab, start):
    start("line_length_limit 0\n")  # the handler's reading of a long line, not folded first
    qid = next_id()
    data = long_header_message(int(qid[1:], 16))
    _, _, answer = send(data=data, qid=qid)
    assert not [m for m in answer.mods if m[0] == b"m"], answer
    out, _ = signed(data, answer)
    assert FOREIGN in out and data.split(b"\r\n", 1)[0] in out
    lab.log(until=rf"keyseal-milter\[\d+\]: {qid}: warning: the handler cut DKIM-Signature header 1, "
            "which the mail server does not hold as cut: left in place")

    # the same through Postfix: what the next hop receives
    sent = long_header_message(int(qid[1:], 16) + 1)
    got, _ = deliver(lab, smtp, sent, login=(AUTH, "secret"))
    assert got.endswith(b"\r\n\r\n" + sent.split(b"\r\n\r\n", 1)[1])
    assert FOREIGN in got and len(signatures(got)) == 2 and verifies(got)


def test_a_thousand_long_recipients_through_sendmail_are_signed(lab):
    rcpts = ["r%04d" % i + "x" * (250 - 5 - len("@example.net")) + "@example.net" for i in range(1000)]
    assert {len(r) for r in rcpts} == {250}
    limit = int(subprocess.run(["postconf", "-xh", "smtp_destination_recipient_limit"],
                               capture_output=True, text=True, check=True).stdout)
    seen, sent = lab.capture.count, message(4242)
    subprocess.run(["/usr/sbin/sendmail", "-f", "ann@example.com", *rcpts],
                   input=sent.replace(b"\r\n", b"\n"), check=True)
    copies = lab.delivered(seen + math.ceil(len(rcpts) / limit))[seen:]
    assert all(c == copies[0] for c in copies)
    got = copies[0]
    assert got.endswith(b"\r\n\r\n" + sent.split(b"\r\n\r\n", 1)[1]) and verifies(got)
    qid = re.findall(r"postfix/cleanup\[\d+\]: ([0-9A-F]+): message-id=<case4242@", lab.log())[-1]
    assert not re.search(rf"keyseal-milter\[\d+\]: {qid}: not signed", lab.log())


WORDS = b"X-Words:" + b" w" * 18 + b"\r\n"  # 19 words: more than the removal walk parses


@pytest.mark.parametrize("sender,extra,final,why", [
    ("ann@nokey.example", b"", b"t", r"temporary failure \(strict\)"),
    ("ann@example.com", FOREIGN + WORDS, b"c",
     "a retry would fail the same way, so the message passes unsigned"),
])
def test_strict_tempfails_only_what_a_retry_can_cure(lab, start, sender, extra, final, why):
    start("strict yes\n")
    qid = next_id()
    _, data, answer = send(sender, data=message(int(qid[1:], 16), extra, sender=sender.encode()), qid=qid)
    if final == b"t":
        assert answer.final == b"t" and answer.reply.startswith(b"451 4.7.1"), answer
    else:
        unchanged(answer)
    lab.log(until=rf"keyseal-milter\[\d+\]: {qid}: not signed: .+; {why}")



def folded_header(size, name=b"X-Long"):
    """A header of size bytes (line ends included), folded as a mailing list's would be."""
    h = name + b": start"
    while len(h) < size - 40:
        h += b",\r\n\tsomeone.%06d@example.net" % len(h)
    return h + b"x" * (size - 2 - len(h)) + b"\r\n"


def one_line(canonical, name=b"To"):
    """A header on one line whose relaxed canonical form is canonical bytes, CRLF included."""
    return name + b": bob@example.net" + b"x" * (canonical - len(name + b":bob@example.net\r\n")) + b"\r\n"


@pytest.mark.parametrize("header,way,signs", [
    # libmilter's own packet limit is 64 KB; Postfix takes a header up to header_size_limit
    (folded_header(93_000), "postfix", True),
    (folded_header(93_000), "client", True),       # not a signed field: any length signs
    (folded_header(64_797, b"To"), "client", True),
    (folded_header(93_000, b"To"), "client", False),  # the signer would hash it cut short
    (one_line(65_534), "client", True),
    (one_line(65_535), "client", False),
    # folded to Postfix's line limit first, it passes the limit: a space per fold
    (one_line(65_534), "client, folded", False),
], ids=["x-93k-postfix", "x-93k", "to-64k", "to-93k", "to-at-limit", "to-past-limit", "to-folded-past-limit"])
def test_a_header_as_long_as_postfix_takes(lab, start, header, way, signs):
    if way == "postfix":
        sent = message(len(header), extra=header)
        got, qid = deliver(lab, smtp, sent, login=(AUTH, "secret"))
        assert got.endswith(b"\r\n\r\n" + sent.split(b"\r\n\r\n", 1)[1])
        assert len(signatures(got)) == 1 and verifies(got), qid
        return
    # as the signer takes them, not folded first, save where the case says so
    start("strict yes\n" + ("" if way == "client, folded" else "line_length_limit 0\n"))
    qid = next_id()
    data = b"From: Ann <ann@example.com>\r\n" + header + (b"" if header.startswith(b"To") else b"To: b@example.net\r\n") + \
        b"Subject: long\r\nMessage-ID: <%s@example.com>\r\n\r\nbody\r\n" % qid.encode()
    _, _, answer = send(data=data, qid=qid)
    if signs:
        signed(data, answer)
        return
    unchanged(answer)  # even under strict: it would fail the same way every time
    lab.log(until=rf"keyseal-milter\[\d+\]: {qid}: not signed: its To: header is \d+ bytes unfolded"
            r"(?: once folded to Postfix's line limit)?, more than the signer hashes whole \(65534\); "
            r"a retry would fail the same way")


@pytest.mark.parametrize("macros,ends", [
    (b"Mi\0Q1\0zz\0", True),   # a name without its value
    (b"Mi\0Q1\0zz\0yy", True),  # the last value without its NUL
    (b"M", False),                 # no macros at all
    (b"Mi\0\0zz\0\0", False),      # empty values, paired
])
def test_a_malformed_macro_packet_ends_only_its_connection(lab, start, macros, ends):
    """libmilter's macro lookup reads past an unpaired list: such a connection is ended
    before keyseal-milter looks a macro up, and the service goes on."""
    milter = start()
    with session(SOCK) as m:
        try:
            m.send(b"D", macros)
            m.send(b"M", b"<ann@example.com>\0")
            m.send(b"A")  # abort: a connection still open answers nothing, then sees QUIT
            m.send(b"Q")
            assert m.sock.recv(1) == b""
        except ConnectionError:
            pass
    qid, data, answer = send()
    signed(data, answer)
    log = lab.log(until=rf"keyseal\[\d+\]: {qid}: ")
    assert bool(re.search(rf"keyseal-milter\[{milter.pid}\]: ended a connection that sent a malformed "
                          r"macro packet \(names and values unpaired\)", log)) == ends
    assert milter.poll() is None


def flowing(count, during):
    """count messages sent one after another while during() runs beside them; each is
    signed, and the milter still serves at the end."""
    sent, stop = [], threading.Event()

    def stream():
        while not stop.is_set() or len(sent) < count:
            sent.append(send())
    with concurrent.futures.ThreadPoolExecutor() as pool:
        running = pool.submit(stream)
        try:
            during()
        finally:
            stop.set()
        running.result()
    for qid, data, answer in sent:
        assert signed(data, answer), qid
    return sent


@pytest.mark.parametrize("who", ["main, twice at once", "every process"])
def test_sighup_while_mail_flows_stops_nothing(lab, start, who):
    milter = start()

    def hups():
        for _ in range(150 if who.startswith("main") else 40):
            targets = [milter.pid] * 2 if who.startswith("main") else [milter.pid] + descendants(milter.pid)
            # one shell per signal, started together: the signals arrive as from two tools
            kills = [subprocess.Popen(["/bin/kill", "-HUP", str(p)], stderr=subprocess.DEVNULL) for p in targets]
            for k in kills:
                k.wait()
            time.sleep(0.02)
    flowing(20, hups)
    assert milter.poll() is None
    log = lab.log(until=rf"keyseal-milter\[{milter.pid}\]: reloaded ")
    assert not re.search(rf"keyseal-milter\[{milter.pid}\]: (stopping|.*killed by SIGHUP)", log)


def test_a_sighup_as_soon_as_the_pid_file_is_there_is_a_reload(lab):
    """Whoever reloads by the pid file (keyseal-admin rotate, a script) may do so the moment
    it appears."""
    conf, sock = "/etc/keyseal/early.conf", postfix_lab.QUEUE + "/keyseal/early.sock"
    pid_file = "/usr/local/run/keyseal-milter/early.pid"
    with open(conf, "w") as f:
        f.write(f"socket unix:{sock}\npid_file {pid_file}\n")
    for _ in range(5):
        if os.path.exists(pid_file):
            os.remove(pid_file)
        p = subprocess.Popen(["/usr/local/sbin/keyseal-milter", "-f", "-c", conf])
        gone = time.monotonic() + 60
        while not os.path.exists(pid_file) and p.poll() is None and time.monotonic() < gone:
            pass
        p.send_signal(signal.SIGHUP)
        wait_for(lambda: os.path.exists(sock) or p.poll() is not None, "the early milter's socket")
        lab.log(until=rf"keyseal-milter\[{p.pid}\]: reloaded {conf}")
        assert p.poll() is None, p.returncode
        p.terminate()
        assert p.wait(timeout=60) == 0
