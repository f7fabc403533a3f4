"""keyseal-admin explain --queue-id, report and postfix check, reading the lab's own mail log
(rsyslogd's file) after real messages went through Postfix and keyseal-milter."""
import json
import os
import re

import pytest

from test_milter import deliver, message, sendmail, signatures, smtp, verifies

LOG = "/var/log/mail.log"


@pytest.mark.parametrize("case,send,sender,verdict,lines,advice", [
    ("signed", sendmail, "ann@example.com", "signed",
     [r"postfix/pickup\[\d+\]: {q}: uid=\d+ from=<ann@example.com>", r"keyseal\[\d+\]: {q}: Sendmail"],
     r"rule: submitted on this server with sendmail \(PPP_INSIDE_SENDMAIL=1\)"),
    ("skipped", smtp, "ann@example.com", "not signed (SKIP)",
     [r"postfix/smtpd\[\d+\]: {q}: client=localhost\[127.0.0.1\]", r"keyseal\[\d+\]: {q}: Not sendmail"],
     r"to change it: have each application log in with SMTP AUTH .* keyseal-admin whitelist add 127.0.0.1/32"),
    ("failed", sendmail, "ann@nokey.example", "failed, not signed",
     [r"keyseal\[\d+\]: {q}: cannot get sender domain key", r"keyseal-milter\[\d+\]: {q}: not signed: "],
     r"to change it: keyseal-admin keygen nokey.example, publish the record"),
])
def test_explain_tells_one_message_s_story(lab, case, send, sender, verdict, lines, advice):
    got, qid = deliver(lab, send, message(hash(case) % 100000, sender=sender.encode()), sender=sender)
    assert bool(signatures(got)) == (case == "signed") and (case != "signed" or verifies(got))
    lab.log(until=rf"postfix/qmgr\[\d+\]: {qid}: from=")
    r = lab.admin("explain", "--queue-id", qid, LOG, check=False)
    print(r.stdout)
    assert r.returncode == 0, r.stderr
    out = r.stdout.splitlines()
    logged = [l[len("log: "):] for l in out if l.startswith("log: ")]
    assert all(re.search(rf"\b{qid}: ", l) for l in logged)  # that message's lines, no other's
    for pattern in lines + [r"postfix/cleanup\[\d+\]: {q}: message-id=<", r"postfix/qmgr\[\d+\]: {q}: from=<"]:
        assert any(re.search(pattern.format(q=qid), l) for l in logged), pattern
    assert f"verdict: {verdict}" in out
    assert re.search(advice, r.stdout)


def test_unknown_queue_id_is_exit_1(lab):
    r = lab.admin("explain", "--queue-id", "0BADC0FFEE", LOG, check=False)
    assert (r.returncode, r.stdout) == (1, "")
    assert "queue id 0BADC0FFEE is not in the files named" in r.stderr


def test_report_and_postfix_check_count_loopback_clients_left_unsigned(lab):
    deliver(lab, smtp, message(77001))  # 127.0.0.1, no AUTH, not whitelisted
    log = lab.log(until=r"TCPREMOTEIP=127.0.0.1 not whitelisted")
    unsigned = len(re.findall(r"keyseal\[\d+\]: \w+: .*TCPREMOTEIP=127\.\d+\.\d+\.\d+ not whitelisted", log))
    report = json.loads(lab.admin("report", "--json", LOG).stdout)
    assert report["skipped_loopback"] == unsigned >= 1
    check = lab.admin("postfix", "check", check=False).stdout
    assert re.search(rf"warning: {unsigned} messages from SMTP clients at loopback addresses .* went out "
                     r"unsigned .*whitelist add 127.0.0.1/32 \(then every local user", check), check


def test_explain_notes_misaligned_mail_and_report_shows_the_pair(lab):
    if not os.path.exists("/etc/domainkeys/host.example.net/default"):
        lab.admin("keygen", "host.example.net")
    lab.stop_milter()
    lab.start_milter()  # signing_domain envelope, the default
    # a From: domain of its own, so that other tests' pairs keep their counts
    sent = message(77002).replace(b"From: Ann <ann@example.com>", b"From: Shop <shop@shop.example>")
    got, qid = deliver(lab, sendmail, sent, sender="www-data@host.example.net")
    assert b"d=host.example.net;" in signatures(got)[0]
    lab.log(until=rf"keyseal-milter\[\d+\]: {qid}: signed d=host.example.net but From: is shop.example")
    assert "      1  host.example.net / shop.example\n" in lab.admin("report", LOG).stdout
    r = lab.admin("explain", "--queue-id", qid, LOG)
    assert "verdict: signed\n" in r.stdout and re.search(
        r"note: signed d=host.example.net but the From: header's domain is shop.example: .*"
        r"keyseal-admin keygen shop.example", r.stdout)
