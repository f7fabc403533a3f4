"""Lines longer than Postfix's SMTP line limit.  Postfix's SMTP client breaks them after
keyseal-milter signed; with long_lines fold keyseal-milter breaks them first, the same way,
so that the next hop gets the very bytes Postfix alone delivers, with a signature dkimpy and
Mail::DKIM accept; with long_lines warn the signature fails and the log says why."""
import json
import re
import subprocess

import pytest

from sandbox import postfix_lab
from test_milter import deliver, sendmail, signatures, smtp, verifies
from test_signing import mail_dkim

LOG = "/var/log/mail.log"
AUTH = {"login": ("ann@example.com", "secret")}
LINES = b"".join(b"%075d\r\n" % i for i in range(850))  # 65,450 octets of short lines


def message(n, subject=b"long", headers=b"", body=b"body\r\n"):
    return (b"From: Ann <ann@example.com>\r\nTo: bob@example.net\r\nSubject: " + subject +
            b"\r\nDate: Tue, 24 Nov 2026 08:00:00 +0000\r\nMessage-ID: <long%d.%%s@example.com>\r\n" % n + headers + b"\r\n" + body)


MIME = (b"MIME-Version: 1.0\r\nContent-Type: multipart/mixed; boundary=\"b1\"\r\n",
        b"--b1\r\nContent-Type: text/plain\r\n\r\nshort\r\n--b1\r\nContent-Type: text/html\r\n\r\n<p>" +
        b"m" * 3000 + b"</p>\r\n--b1--\r\n")

# case, how it is sent, the message, how many lines are broken and the first of them
CASES = [
    ("a 2,000-octet body line", sendmail, message(1, body=b"a\r\n" + b"x" * 2000 + b"\r\nend\r\n"),
     1, "body line 2"),
    ("a 1,500-octet header line", smtp, message(2, subject=b"s" * 1491), 1, "header Subject:"),
    ("a line of exactly the limit", sendmail, message(3, body=b"y" * 998 + b"\r\n"), 0, None),
    ("the limit and one", smtp, message(4, body=b"y" * 999 + b"\r\n"), 1, "body line 1"),
    ("a line across two body chunks", smtp, message(5, body=LINES + b"w" * 3000 + b"\r\n"), 1, "body line 851"),
    ("LF line ends, lines of two and three pieces", sendmail,
     message(6, body=b"u" * 1995 + b"\r\nv\r\n" + b"t" * 1996 + b"\r\n"), 2, "body line 1"),
    ("a last line without its end", smtp, message(7, body=b"start\r\n" + b"q" * 1200), 1, "body line 2"),
    ("a long continuation line of a folded header", sendmail,
     message(8, headers=b"References: <a@example.com>\r\n\t" + b"<%04d@example.com> " % 1 * 60 + b"\r\n"),
     1, "header References:"),
    ("a long line inside a MIME part", smtp, message(9, headers=MIME[0], body=MIME[1]), 1, "body line 8"),
]


def send(lab, send, data, tag):
    data = data.replace(b"%s", tag.encode())
    return deliver(lab, send, data, **(AUTH if send is smtp else {}))


def milter(lab, conf):
    """keyseal-milter running with conf, restarted only when it runs with other settings."""
    if getattr(lab, "long_lines_conf", None) != conf:
        lab.stop_milter()
        lab.start_milter(conf)
        lab.long_lines_conf = conf


def without_trace(data):
    """The message without the header fields each pass writes anew (Received:) and the
    signature: what Postfix alone and Postfix behind keyseal-milter must agree on."""
    head, body = data.split(b"\r\n\r\n", 1)
    fields = re.findall(rb"^[^ \t\r\n][^\r\n]*(?:\r\n[ \t][^\r\n]*)*", head, re.M)
    return [f for f in fields if not re.match(rb"(Received|DKIM-Signature):", f, re.I)], body


def postconf(*args):
    return subprocess.run(["postconf", *args], check=True, capture_output=True, text=True).stdout.strip()


@pytest.fixture(scope="module")
def alone(lab):
    """Each case as Postfix alone delivers it: keyseal-milter out of its milter lists."""
    lists = {name: postconf("-h", name) for name in ("smtpd_milters", "non_smtpd_milters")}
    postconf("-e", "smtpd_milters =", "non_smtpd_milters =")
    postfix_lab.reload_postfix()
    try:
        return {case: send(lab, how, data, "alone")[0] for case, how, data, _, _ in CASES}
    finally:
        postconf("-e", *[f"{name} = {value}" for name, value in lists.items()])
        postfix_lab.reload_postfix()


@pytest.mark.parametrize("case,how,data,broken,first", CASES, ids=[c[0] for c in CASES])
def test_fold_delivers_what_postfix_alone_does_and_the_signature_verifies(lab, alone, case, how, data,
                                                                          broken, first):
    milter(lab, "long_lines fold\nline_length_limit 998\n")
    got, qid = send(lab, how, data, "fold")
    assert len(signatures(got)) == 1
    assert verifies(got) and mail_dkim(got) == ["pass"], got[:3000]
    assert without_trace(got) == without_trace(alone[case].replace(b".alone@", b".fold@"))
    assert max(len(line) for line in got.split(b"\r\n")) <= 998
    lab.log(until=rf"keyseal\[\d+\]: {qid}: ")
    folded = re.search(rf"keyseal-milter\[\d+\]: {qid}: lines folded as Postfix's SMTP client would, before "
                       r"signing: (\d+) longer than 998 characters, the first (.*)$", lab.log(), re.M)
    assert (folded and (int(folded.group(1)), folded.group(2))) == ((broken, first) if broken else None)


def test_a_message_the_handler_does_not_sign_is_not_folded(lab):
    """A loopback client neither authenticated nor local: the handler skips it, and its long
    line is left to whatever comes after (a sender's own signature stays whole here)."""
    milter(lab, "long_lines fold\nline_length_limit 998\n")
    data = CASES[0][2].replace(b"%s", b"skipped")
    got, qid = deliver(lab, smtp, data)
    assert signatures(got) == []
    lab.log(until=rf"keyseal\[\d+\]: {qid}: ")
    assert not re.search(rf"{qid}: lines folded", lab.log())


@pytest.mark.parametrize("case,how,data,broken,first", [c for c in CASES if c[0].startswith("a 1,500")
                                                        or c[0].startswith("a 2,000") or c[3] == 0],
                         ids=["2,000 body", "1,500 header", "exact limit"])
def test_warn_leaves_the_line_and_names_it(lab, case, how, data, broken, first):
    milter(lab, "long_lines warn\n")
    got, qid = send(lab, how, data, "warn")
    length = 2000 if "2,000" in case else 1500
    warning = (rf"keyseal-milter\[\d+\]: {qid}: warning: {first} is {length} characters long, more than "
               r"Postfix's SMTP line limit of 998: Postfix will break it after signing and the signature "
               r"will not verify at the receiver")
    if broken:
        assert not verifies(got) and mail_dkim(got) == ["fail"]
        lab.log(until=warning)
        story = lab.admin("explain", "--queue-id", qid, LOG).stdout
        assert f"note: {first} is {length} characters long" in story and "long_lines fold" in story
    else:
        assert verifies(got) and mail_dkim(got) == ["pass"]
        lab.log(until=rf"keyseal\[\d+\]: {qid}: ")
        assert not re.search(rf"{qid}: warning: ", lab.log())


def test_the_limit_setup_records_is_the_one_folded_to(lab):
    postconf("-e", "smtp_line_length_limit = 120")
    milter(lab, "")  # the settings file as the lab writes it, then setup's line added
    try:
        out = lab.admin("postfix", "setup").stdout
        assert "changed: line_length_limit 120 in /etc/keyseal/milter.conf" in out
        assert lab.admin("postfix", "setup").stdout.count("unchanged: line_length_limit 120") == 1
        with open("/etc/keyseal/milter.conf") as f:
            milter(lab, f.read())
        got, qid = send(lab, smtp, message(10, subject=b"s" * 200, body=b"x" * 300 + b"\r\n"), "setup")
        assert verifies(got) and mail_dkim(got) == ["pass"]
        assert b"\r\nSubject: " + b"s" * 111 + b"\r\n " + b"s" * 89 + b"\r\n" in got
        assert b"\r\n\r\n" + b"x" * 120 + b"\r\n " + b"x" * 119 + b"\r\n " + b"x" * 61 + b"\r\n" in got
        lab.log(until=rf"{qid}: lines folded as .*: 2 longer than 120 characters")
    finally:
        postconf("-X", "smtp_line_length_limit")
        lab.admin("postfix", "setup")


def test_report_counts_folded_and_warned_messages(lab):
    long_lines = json.loads(lab.admin("report", "--json", LOG).stdout)["long_lines"]
    assert long_lines == {"folded": sum(1 for c in CASES if c[3]) + 1, "warned": 2}
    milter(lab, "")
