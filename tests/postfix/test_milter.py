"""keyseal-milter in front of a real Postfix: what reaches the next hop, verified by dkimpy
through the lab's DNS, and what the log says, by Postfix's queue id."""
import json
import os
import re
import smtplib
import subprocess

import dkim
import dns.resolver
import pytest

from sandbox import postfix_lab

OWN = b"DKIM-Signature: v=1; a=rsa-sha256; d=example.com; s=old; b=AAAA\r\n"
FOREIGN = b"DKIM-Signature: v=1; a=rsa-sha256; d=other.org; s=x;\r\n\tb=CCCC\r\n"
LOWER = b"dkim-signature: v=1; a=rsa-sha256; d=other.org; s=low; b=DDDD\r\n"


def message(n, extra=b"", sender=b"ann@example.com", body=b"body line\r\n"):
    return (extra + b"From: Ann <" + sender + b">\r\nTo: bob@example.net\r\nSubject: case %d\r\n"
            b"Message-ID: <case%d@example.com>\r\n\r\n" % (n, n) + body)


def verifies(data):
    res = dns.resolver.Resolver(configure=False)
    res.nameservers = ["127.0.0.1"]
    lookup = lambda name, timeout=5: b"".join(res.resolve(name.decode(), "TXT")[0].strings)
    return dkim.verify(data, dnsfunc=lookup)


def sendmail(data, sender):
    subprocess.run(["/usr/sbin/sendmail", "-f", sender, "bob@example.net"],
                   input=data.replace(b"\r\n", b"\n"), check=True)


def smtp(data, sender, source="127.0.0.1", login=None):
    with smtplib.SMTP("127.0.0.1", 25, source_address=(source, 0), timeout=120) as s:
        if login:
            s.login(*login)
        s.sendmail(sender, ["bob@example.net"], data)


def deliver(lab, send, data, sender="ann@example.com", **kw):
    """Send one message; the delivered copy and the queue id Postfix gave it."""
    seen = lab.capture.count
    send(data, sender, **kw)
    got = lab.delivered(seen + 1)[seen]
    msgid = re.search(rb"Message-ID: <([^>]+)>", data).group(1).decode()
    cleanup = r"postfix/cleanup\[\d+\]: ([0-9A-F]+): message-id=<" + re.escape(msgid)
    qid = re.findall(cleanup, lab.log(until=cleanup))[-1]  # rsyslogd writes behind Postfix
    return got, qid


def signatures(data):
    head = data.split(b"\r\n\r\n", 1)[0]
    return re.findall(rb"^DKIM-Signature:.*?(?=\r\n\S|\Z)", head, re.M | re.S)


@pytest.mark.parametrize("case,send,kw,extra,signed,log", [
    ("sendmail", sendmail, {}, b"", True, "Sendmail (PPP_INSIDE_SENDMAIL=1) -> signing"),
    ("auth", smtp, {"login": ("ann@example.com", "secret")}, b"", True,
     "Authorized user (SMTP_AUTHORIZED=ann@example.com) -> signing"),
    ("loopback, no auth", smtp, {}, b"", False,
     "Not sendmail, not authorized, TCPREMOTEIP=127.0.0.1 not whitelisted - not signing"),
    ("whitelisted", smtp, {"source": "10.0.0.5"}, b"", True, "Whitelisted TCPREMOTEIP=10.0.0.5 -> signing"),
    ("not whitelisted", smtp, {"source": "10.0.0.6"}, b"", False,
     "Not sendmail, not authorized, TCPREMOTEIP=10.0.0.6 not whitelisted - not signing"),
    ("old and foreign signatures", sendmail, {}, OWN + FOREIGN, True, "-> signing"),
    # the milter numbers signatures without regard to case, as Postfix's header index does
    ("lower-case foreign, then old", sendmail, {}, LOWER + b"X-A: 1\r\n" + OWN, True, "-> signing"),
    ("8-bit body", smtp, {"login": ("ann@example.com", "secret")}, b"", True, "-> signing"),
])
def test_policy_decides_and_the_milter_applies(lab, case, send, kw, extra, signed, log):
    with open("/etc/domainkeys/whitelist", "w") as f:
        f.write("10.0.0.5/32\n")
    n = hash(case) % 100000
    body = "grüße, 8-bit\r\n".encode() if case == "8-bit body" else b"body line\r\n"
    sent = message(n, extra, body=body)
    got, qid = deliver(lab, send, sent, **kw)
    assert got.endswith(b"\r\n\r\n" + body) and got.count(body) == 1  # the body byte for byte
    sigs = signatures(got)
    if signed:
        assert got.startswith(b"DKIM-Signature: v=1; a=rsa-sha256; c=relaxed/relaxed; d=example.com;")
        assert verifies(got), got[:600]
        # the same domain's old signature went; another domain's stayed
        assert [s for s in sigs if b"s=old" in s] == [] and len(sigs) == 1 + (FOREIGN in sent)
        assert (LOWER in got) == (LOWER in sent)
    else:
        assert sigs == []
    log = lab.log(until=rf"keyseal\[\d+\]: {qid}: .*{re.escape(log)}")
    assert not re.search(r"warning: .*milter", log)
    assert os.listdir("/usr/local/hlx/handlers/spool") == []


def test_domain_without_key_passes_unsigned_with_an_error_line(lab):
    got, qid = deliver(lab, sendmail, message(1, sender=b"ann@nokey.example"), sender="ann@nokey.example")
    assert signatures(got) == []
    log = lab.log(until=rf"keyseal-milter\[\d+\]: {qid}: not signed: cannot get sender domain key from "
                  r"/etc/domainkeys/nokey.example/default; the message passes unsigned")
    assert qid in postfix_lab.queue_ids(log, "cannot get sender domain key from /etc/domainkeys/nokey.example/default")


def test_bounce_is_not_given_to_the_handler(lab):
    got, qid = deliver(lab, smtp, message(2, sender=b"MAILER-DAEMON@example.com"), sender="",
                       login=("ann@example.com", "secret"))
    assert signatures(got) == []
    lab.log(until=rf"keyseal-milter\[\d+\]: {qid}: null sender \(a bounce\): not given to the handler")


def test_fifty_megabytes_signed_with_the_milters_memory_flat(lab):
    pid = lab.procs["milter"].pid
    hwm = lambda: int(re.search(r"VmHWM:\s+(\d+)", open(f"/proc/{pid}/status").read()).group(1))
    before = hwm()
    body = b"".join(b"line %08d of a long message, to be signed as it streams\r\n" % i for i in range(850000))
    got, _ = deliver(lab, smtp, message(3, body=body), login=("ann@example.com", "secret"))
    assert len(got) > 50_000_000 and got.endswith(body) and verifies(got)
    assert hwm() - before <= 16 * 1024  # kB
    assert os.listdir("/usr/local/hlx/handlers/spool") == []


def test_faults_lose_nothing_and_strict_holds_until_cleared(lab):
    # a whitelist nobody writes to: the handler hangs on it until its time limit
    os.remove("/etc/domainkeys/whitelist")
    os.mkfifo("/etc/domainkeys/whitelist")
    lab.stop_milter()
    lab.start_milter("timeout 1\n")
    got, qid = deliver(lab, smtp, message(4), source="10.0.0.5")
    assert signatures(got) == [] and got.endswith(b"body line\r\n")
    lab.log(until=rf"{qid}: not signed: the handler ran past the time limit of 1 s")

    lab.stop_milter()
    lab.start_milter("timeout 1\nstrict yes\n")
    with pytest.raises(smtplib.SMTPDataError) as refused:
        smtp(message(5), "ann@example.com", source="10.0.0.5")
    assert refused.value.smtp_code == 451
    os.remove("/etc/domainkeys/whitelist")  # the fault cleared, the client tries again
    with open("/etc/domainkeys/whitelist", "w") as f:
        f.write("10.0.0.5/32\n")
    got, _ = deliver(lab, smtp, message(5), source="10.0.0.5")
    assert verifies(got)

    lab.stop_milter(sig=9)  # the milter killed: Postfix passes mail on (milter_default_action)
    got, _ = deliver(lab, sendmail, message(6), "ann@example.com")
    assert signatures(got) == [] and got.endswith(b"body line\r\n")
    lab.start_milter()
    got, _ = deliver(lab, sendmail, message(7), "ann@example.com")
    assert verifies(got)
    assert os.listdir("/usr/local/hlx/handlers/spool") == []


def test_a_worker_carries_nothing_from_one_message_to_the_next(lab):
    # the second client is neither authenticated nor whitelisted, and must not inherit the
    # first one's login: it sends until the worker that served the first serves it (the idle
    # workers take their turns)
    signed, q1 = deliver(lab, smtp, message(8), login=("ann@example.com", "secret"))
    log = lab.log(until=rf"keyseal\[\d+\]: {q1}: ")
    first = re.search(rf"keyseal\[(\d+)\]: {q1}: ", log).group(1)
    assert verifies(signed)
    for n in range(9, 60):
        unsigned, q2 = deliver(lab, smtp, message(n), source="10.0.0.6")
        log = lab.log(until=rf"keyseal\[\d+\]: {q2}: ")
        assert signatures(unsigned) == []
        if re.search(rf"keyseal\[(\d+)\]: {q2}: ", log).group(1) == first:
            break
    else:
        pytest.fail("the first message's worker served no other")
    # keyseal-admin report still counts one run per message, not one per worker
    report = json.loads(lab.admin("report", "--json", "/var/log/mail.log").stdout)
    decisions = re.findall(r"keyseal\[\d+\]: \w+: .*(?:-> signing|- not signing)", log)
    assert report["runs"] == len(decisions)


def test_workers_end_after_their_hundred_and_no_message_is_lost(lab):
    with open("/etc/domainkeys/whitelist", "w") as f:
        f.write("10.0.0.5/32\n")
    seen, start = lab.capture.count, len(lab.log())
    with smtplib.SMTP("127.0.0.1", 25, source_address=("10.0.0.5", 0), timeout=120) as s:
        for n in range(120):  # one after another: more than one worker's life
            s.sendmail("ann@example.com", ["bob@example.net"], message(1000 + n))
    got = lab.delivered(seen + 120)[seen:]
    assert len(got) == 120 and all(verifies(m) for m in got)
    log = lab.log()[start:]
    assert len(set(re.findall(r"keyseal\[(\d+)\]: \w+: Whitelisted", log))) >= 2
    assert "not signed" not in log
