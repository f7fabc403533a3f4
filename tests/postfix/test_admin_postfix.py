"""keyseal-admin postfix against the lab's real Postfix: setup and remove leave the
configuration as they found it, check names the holes of the live configuration, and
what postsuper -r does to signing."""
import glob
import os
import re
import smtplib
import socket
import subprocess
import time

import pytest

from sandbox import postfix_lab
from sandbox.postfix_lab import reload_postfix
from test_milter import deliver, message, sendmail, signatures, smtp, verifies

MILTER_CONF = "/etc/keyseal/milter.conf"
SOCKET = postfix_lab.QUEUE + "/keyseal/milter.sock"


def postconf(*args):
    return subprocess.run(["postconf", *args], check=True, capture_output=True, text=True).stdout


def configuration():
    """main.cf and master.cf as Postfix reads them: the explicit settings and the services."""
    return postconf("-n"), postconf("-M"), postconf("-P")


@pytest.fixture
def site(lab):
    """The test may rewrite main.cf and master.cf; afterwards the lab's own, set up again."""
    yield lab
    with open(MILTER_CONF, "w"):
        pass
    lab.postfix_config()
    lab.admin("postfix", "setup")


@pytest.mark.parametrize("case,extra,after_setup,kept", [
    ("a fresh site", "", None, None),
    # the site's own milter stays in order, an explicitly empty list stays, and settings
    # setup found as it wanted them are the administrator's
    ("a site with a milter and its own settings",
     "smtpd_milters = inet:127.0.0.1:9999\nnon_smtpd_milters =\nmilter_default_action = tempfail\n"
     "disable_mime_output_conversion = yes\n", None, None),
    ("a setting changed since setup", "", "milter_default_action=reject", "milter_default_action = reject"),
])
def test_remove_leaves_the_configuration_as_setup_found_it(site, case, extra, after_setup, kept):
    site.postfix_config(extra)
    before = configuration()
    copies = []
    for _ in range(5):  # setup again and again: still one undo, and the newest three pairs of copies
        out = site.admin("postfix", "setup").stdout
        copies += re.search(r"^kept copies: (.*)$", out, re.M).group(1).split()
    assert "unix:/keyseal/milter.sock" in postconf("-h", "smtpd_milters")
    assert sorted(glob.glob("/etc/postfix/ma*.cf.keyseal-*")) == sorted(copies[-6:])
    if after_setup:
        postconf("-e", after_setup)
    out = site.admin("postfix", "remove").stdout
    main_cf, master_cf, overrides = configuration()
    if kept:
        assert kept in main_cf and "changed since keyseal-admin postfix setup" in out
        main_cf = main_cf.replace(kept + "\n", "")
    assert (main_cf, master_cf, overrides) == before
    assert not os.path.exists("/etc/postfix/keyseal-setup")
    assert "nothing to change" in site.admin("postfix", "remove").stdout


def check(lab):
    r = lab.admin("postfix", "check", check=False)
    return r.stdout + r.stderr


LOGIN_HOLE = "has SASL on and no reject_sender_login_mismatch with a smtpd_sender_login_maps: " \
             "any authenticated user can have mail signed as any hosted domain"
LOCAL_HOLE = "local_login_sender_maps = static:*: any local user of sendmail"


@pytest.mark.parametrize("case,main_cf,services,holes", [
    ("SASL in main.cf, nothing guards it", "", {}, ["smtp/inet " + LOGIN_HOLE, LOCAL_HOLE]),
    ("the restriction without a map", "smtpd_sender_restrictions = reject_sender_login_mismatch\n",
     {}, ["smtp/inet " + LOGIN_HOLE + "; fix: list each login's addresses in a map", LOCAL_HOLE]),
    ("guarded, relay restrictions", "smtpd_sender_login_maps = inline:{ann@example.com=ann@example.com}\n"
     "smtpd_relay_restrictions = reject_authenticated_sender_login_mismatch, permit_sasl_authenticated, "
     "reject_unauth_destination\nlocal_login_sender_maps = inline:{ { root = * } }\n", {}, []),
    # SASL on a submission service of master.cf alone, guarded through a $name there
    ("submission's -o, unguarded", "smtpd_sasl_auth_enable = no\n",
     {"submission/inet/smtpd_sasl_auth_enable": "yes"}, ["submission/inet " + LOGIN_HOLE, LOCAL_HOLE]),
    ("submission's -o, guarded", "smtpd_sasl_auth_enable = no\nsmtpd_sender_login_maps = "
     "inline:{a=b}\nmua_sender_restrictions = reject_sender_login_mismatch\n",
     {"submission/inet/smtpd_sasl_auth_enable": "yes",
      "submission/inet/smtpd_sender_restrictions": "$mua_sender_restrictions"}, [LOCAL_HOLE]),
])
def test_check_names_the_sender_login_holes(site, case, main_cf, services, holes):
    site.postfix_config(main_cf)
    site.admin("postfix", "setup")
    if services:
        postconf("-M", "submission/inet=submission inet n - y - - smtpd")
        for name, value in services.items():
            postconf("-P", f"{name}={value}")
    out = check(site)
    found = [line for line in out.splitlines() if "any hosted domain" in line]
    assert len(found) == len(holes), out
    for hole in holes:
        assert any(line.startswith("warning: " + hole) for line in found), out


def test_the_fix_check_names_holds_a_login_to_its_addresses(site):
    site.postfix_config()
    site.admin("postfix", "setup")
    with open("/etc/postfix/sender_login", "w") as f:
        f.write("ann@example.com ann@example.com\n")
    subprocess.run(["postmap", "/etc/postfix/sender_login"], check=True)
    postconf("-e", "smtpd_sender_login_maps = hash:/etc/postfix/sender_login",
             "smtpd_sender_restrictions = reject_sender_login_mismatch")
    assert LOGIN_HOLE not in check(site)
    reload_postfix()
    try:
        with pytest.raises(smtplib.SMTPRecipientsRefused) as refused:
            smtp(message(7050, sender=b"ann@other.org"), "ann@other.org", login=("ann@example.com", "secret"))
        assert "not owned by user ann@example.com" in str(refused.value)
        got, _ = deliver(site, smtp, message(7051), login=("ann@example.com", "secret"))
        assert verifies(got)
    finally:
        site.postfix_config()
        site.admin("postfix", "setup")


OPEN = "not on loopback: whoever can reach it can have any message signed"


@pytest.mark.parametrize("conf,milters,warned,noted", [
    ("socket inet:8891@0.0.0.0\n", None, ["keyseal-milter listen on inet:8891@0.0.0.0, " + OPEN], False),
    ("socket inet:8891@192.0.2.1\n", None, ["keyseal-milter listen on inet:8891@192.0.2.1, " + OPEN], False),
    ("socket inet:8891\n", None, [], True),
    ("socket inet:8891@localhost\n", None, [], True),
    # Postfix told to reach the port at the server's outside address
    ("socket inet:8891\n", "inet:10.0.0.5:8891", ["smtpd_milters reaches keyseal-milter's port at "
                                                  "inet:10.0.0.5:8891, " + OPEN], True),
])
def test_check_warns_of_an_inet_socket_off_loopback(site, conf, milters, warned, noted):
    with open(MILTER_CONF, "w") as f:
        f.write(conf)
    if milters:
        postconf("-e", "smtpd_milters = " + milters)
    out = check(site)
    found = [line for line in out.splitlines() if OPEN in line]
    assert len(found) == len(warned), out
    for line, w in zip(found, warned):
        assert line.startswith("warning: " + ("/etc/keyseal/milter.conf has " if w.startswith("keyseal") else "") + w)
    assert ("lets every local user have any message signed" in out) == noted
    assert "keyseal-milter is not running: nothing listens on inet:" in out or "192.0.2.1" in conf


AFTER = " mail after keyseal-milter signed it, so that receivers cannot verify the signature"
TWICE = ": every message the filter hands back passes keyseal-milter a second time, "
UNSIGNED = " never reaches keyseal-milter and goes out unsigned"
BACK_ALONE = ", and give no_milters to the smtpd that takes mail back from the content filter alone"
BACK = [["postconf", "-M", "127.0.0.1:10025/inet=127.0.0.1:10025 inet n - n - - smtpd"],
        ["postconf", "-e", "content_filter = smtp:[127.0.0.1]:10024"],
        ["postconf", "-P", "127.0.0.1:10025/inet/content_filter="]]


@pytest.mark.parametrize("case,files,plant,found", [
    ("the lab's own configuration", {}, [], []),
    # a rule on a header that is not signed is no fault; a continued rule is named by its first line
    ("smtp_header_checks", {"hc": "# privacy\n/^Received:/ IGNORE\n/^Subject:/\n  REPLACE Subject: [ext]\n"},
     [["postconf", "-e", "smtp_header_checks = regexp:/etc/postfix/hc"]],
     [("error: smtp_header_checks = regexp:/etc/postfix/hc: line 3 (REPLACE) changes" + AFTER,
       "fix: take that rule out (a header keyseal-milter does not sign, such as Received, may be changed), "
       "or postconf -X smtp_header_checks")]),
    ("smtp_body_checks on one service, an indexed table",
     {"bc": "unsubscribe REPLACE unsubscribe here\n"},
     [["postmap", "/etc/postfix/bc"], ["postconf", "-P", "relay/unix/smtp_body_checks=hash:/etc/postfix/bc"]],
     [("error: master.cf's relay/unix -o smtp_body_checks=hash:/etc/postfix/bc: 'unsubscribe' (REPLACE) changes" + AFTER,
       "fix: take that rule out, or postconf -P 'relay/unix/smtp_body_checks='")]),
    ("lmtp_mime_header_checks, an inline table and one that cannot be read", {},
     [["postconf", "-e", "lmtp_mime_header_checks = inline:{ {Content-Type: text/plain = STRIP} }, "
       "regexp:/etc/postfix/missing"]],
     [("error: lmtp_mime_header_checks = inline:{ {Content-Type: text/plain = STRIP} }, regexp:/etc/postfix/missing: "
       "inline:{ {Content-Type: text/plain = STRIP} } 'Content-Type: text/plain' (STRIP) changes" + AFTER,
       "or postconf -X lmtp_mime_header_checks"),
      ("warning: lmtp_mime_header_checks = inline:{ {Content-Type: text/plain = STRIP} }, regexp:/etc/postfix/missing: "
       "regexp:/etc/postfix/missing is unchecked (No such file or directory)", "check its rules by hand")]),
    ("MIME output conversion", {}, [["postconf", "-e", "disable_mime_output_conversion = no"]],
     [("error: disable_mime_output_conversion = no: Postfix converts an 8-bit body for a relay without 8BITMIME "
       "after signing", "run postconf -e disable_mime_output_conversion=yes")]),
    # keyseal-milter folds to the limit setup recorded (998): Postfix's, changed since, is named
    ("a shorter line limit", {}, [["postconf", "-e", "smtp_line_length_limit = 500"]],
     [("error: smtp_line_length_limit = 500: Postfix's SMTP client breaks lines longer than 500 characters, "
       "keyseal-milter folds lines longer than 998 (line_length_limit in " + MILTER_CONF + "), so that receivers "
       "cannot verify", "fix: keyseal-admin postfix setup records smtp_line_length_limit")]),
    ("a shorter line limit, recorded", {}, [["postconf", "-e", "smtp_line_length_limit = 500"],
                                            [os.environ["KEYSEAL_ADMIN_BIN"], "postfix", "setup"]], []),
    ("no line limit while folding", {}, [["postconf", "-e", "smtp_line_length_limit = 0"]],
     [("warning: smtp_line_length_limit = 0: Postfix's SMTP client breaks no line, keyseal-milter folds lines "
       "longer than 998", ": lines are folded that Postfix would send whole; fix: keyseal-admin postfix setup "
       "records smtp_line_length_limit")]),
    ("a shorter line limit, long lines only warned of", {},
     [["sh", "-c", "echo 'long_lines warn' >> " + MILTER_CONF], ["postconf", "-e", "smtp_line_length_limit = 500"]],
     [("error: smtp_line_length_limit = 500: Postfix's SMTP client breaks each line longer than 500 characters "
       "after keyseal-milter signed it", "fix: postconf -X smtp_line_length_limit (Postfix's default: 998)")]),
    ("the filter's smtpd with the milter", {},
     BACK + [["postconf", "-P", "127.0.0.1:10025/inet/receive_override_options=no_address_mappings"]],
     [("error: master.cf's 127.0.0.1:10025/inet takes mail back from the content filter (smtp:[127.0.0.1]:10024) "
       "with keyseal-milter in its smtpd_milters" + TWICE,
       "fix: postconf -P '127.0.0.1:10025/inet/receive_override_options=no_address_mappings,no_milters'")]),
    ("the filter's smtpd without", {},
     BACK + [["postconf", "-P", "127.0.0.1:10025/inet/receive_override_options=no_milters"]], []),
    ("no_milters where mail arrives", {}, [["postconf", "-P", "smtp/inet/receive_override_options=no_milters"]],
     [("error: master.cf's smtp/inet has -o receive_override_options=no_milters: the mail it receives" + UNSIGNED,
       "fix: postconf -PX 'smtp/inet/receive_override_options'" + BACK_ALONE)]),
    ("no_milters in main.cf", {},
     [["postconf", "-e", "receive_override_options = no_header_body_checks, no_milters"]],
     [("error: main.cf sets receive_override_options = no_header_body_checks, no_milters: the mail smtp/inet, "
       "pickup/unix receive" + UNSIGNED,
       "fix: postconf -e 'receive_override_options = no_header_body_checks'" + BACK_ALONE + " (its -o "
       "receive_override_options in master.cf)")]),
    ("a filter run by pipe", {}, [["postconf", "-M", "scan/unix=scan unix - n n - 10 pipe user=nobody argv=/bin/true"],
                                  ["postconf", "-e", "content_filter = scan:dummy"]],
     [("error: content_filter scan:dummy hands mail to master.cf's scan/unix, a pipe command, whose filter gives it "
       "back with sendmail" + TWICE + "as a local submission",
       "fix: have the filter give mail back through SMTP, to an smtpd with -o receive_override_options=no_milters")]),
])
def test_check_names_what_changes_or_skips_signing(site, case, files, plant, found):
    for name, text in files.items():
        with open("/etc/postfix/" + name, "w") as f:
            f.write(text)
    for command in plant:
        subprocess.run(command, check=True, capture_output=True)
    r = site.admin("postfix", "check", check=False)
    lines = [line for line in r.stdout.splitlines() if any(
        text in line for text in (AFTER, TWICE, UNSIGNED, "line_length_limit", "unchecked", "MIME"))]
    assert len(lines) == len(found), r.stdout
    for start, fix in found:
        assert any(line.startswith(start) and line.endswith(fix) for line in lines), r.stdout
    assert r.returncode == (1 if any(start.startswith("error") for start, _ in found) else 0), r.stdout + r.stderr


def test_check_says_when_keyseal_milter_is_not_running(lab):
    assert "keyseal-milter is not running" not in check(lab)
    lab.stop_milter()
    try:
        assert re.search(r"^error: keyseal-milter is not running: no socket .*; start it: "
                         r"systemctl start keyseal-milter$", check(lab), re.M)
        # a socket file left behind by a killed milter: nothing listens
        with socket.socket(socket.AF_UNIX) as s:
            s.bind(SOCKET)
        os.chmod(SOCKET, 0o770)
        assert re.search(r"^error: keyseal-milter is not running: nothing listens on " + SOCKET +
                         r" \(a socket file left behind\); start it: systemctl start keyseal-milter$",
                         check(lab), re.M)
    finally:
        if os.path.exists(SOCKET):
            os.remove(SOCKET)
        lab.start_milter()


def test_postsuper_requeue_passes_no_milter(lab):
    """Re-queued mail keeps what it had: a signed message its one signature, an unsigned
    one none, and keyseal sees neither again."""
    postconf("-e", "defer_transports = smtp")
    reload_postfix()
    try:
        smtp(message(7060), "ann@example.com")  # a client at 127.0.0.1: not signed
        sendmail(message(7061), "ann@example.com")  # local submission: signed
        qids = lambda n: re.findall(rf"cleanup\[\d+\]: ([0-9A-F]+): message-id=<case{n}@", lab.log())
        first = {n: lab.log(until=rf"message-id=<case{n}@") and qids(n)[-1] for n in (7060, 7061)}
        for n, qid in first.items():
            lab.log(until=rf"{qid}: .*status=deferred")
            subprocess.run(["postsuper", "-r", qid], check=True, capture_output=True)
    finally:
        postconf("-X", "defer_transports")
        reload_postfix()
    seen = lab.capture.count

    def flushed():  # the queue manager that deferred them may outlive the reload a moment
        subprocess.run(["postqueue", "-f"], check=True)
        time.sleep(1)
        return lab.capture.count >= seen + 2
    postfix_lab.wait_for(flushed, "the re-queued messages delivered")
    got = {re.search(rb"Subject: case (\d+)", m).group(1): m for m in lab.delivered(seen + 2)[seen:]}
    assert signatures(got[b"7060"]) == []
    assert len(signatures(got[b"7061"])) == 1 and verifies(got[b"7061"])
    for n in first:
        again = qids(n)[-1]
        lab.log(until=rf"{again}: .*status=sent")
        assert again != first[n] and not re.search(rf"keyseal(-milter)?\[\d+\]: {again}:", lab.log())


HOSTED = ("virtual_mailbox_domains = hash:/etc/postfix/vdomains\n"
          "virtual_alias_domains = alias.example, /etc/postfix/more_domains, !not.example\n"
          "relay_domains = mysql:/etc/postfix/relay.cf\n"
          "mydestination = $myhostname, localhost.$mydomain, localhost, local.example\n")
FILE_200 = "# the hosted domains\nexample.com\n" + "".join(
    f"D{n}.Example.\n" if n % 50 == 0 else f"d{n}.example  # customer {n}\n\n" for n in range(200)) + "d7.example\n"


@pytest.mark.parametrize("case,main_cf,listed,args,made,unlisted", [
    # a file's names in its order, once each; example.com has its key already
    ("a file of 200 domains", "", FILE_200, ["--type", "ed25519"],
     [f"d{n}.example" for n in range(200)], []),
    # Postfix's lists: a hash table, a name, a file of names; the host's own names left out,
    # a database table named as one that cannot be listed
    ("Postfix's domain lists", HOSTED, None, [],
     ["alias.example", "file1.example", "local.example", "v1.example", "v2.example"],
     ["relay_domains: mysql:/etc/postfix/relay.cf cannot be listed"]),
    ("a file with a line that is no domain", "", "ok.example\nbad/name.example\n", [], None, []),
], ids=["a file of 200 domains", "Postfix's domain lists", "a line that is no domain"])
def test_keygen_missing_makes_a_key_for_each_domain_without_one(site, tmp_path, case, main_cf, listed,
                                                                args, made, unlisted):
    site.postfix_config(main_cf)
    with open("/etc/postfix/vdomains", "w") as f:
        f.write("v1.example OK\nV2.Example OK\n")
    subprocess.run(["postmap", "hash:/etc/postfix/vdomains"], check=True)
    with open("/etc/postfix/more_domains", "w") as f:
        f.write("file1.example  # moved here in May\n")
    before = set(os.listdir("/etc/domainkeys"))
    files = []
    if listed is not None:
        (tmp_path / "domains").write_text(listed)
        files = [str(tmp_path / "domains")]
    try:
        if made is None:
            r = site.admin("keygen", "--missing", *files, check=False)
            assert (r.returncode, r.stderr) == (2, f"keyseal-admin keygen: {files[0]}:2: invalid domain "
                                                   "'bad/name.example': not a host name (letters, digits, "
                                                   "hyphens and dots) or an address literal such as "
                                                   "[192.0.2.1]\n")
            assert set(os.listdir("/etc/domainkeys")) == before
            return
        check_all = lambda: site.admin("check", "--all", check=False).stdout
        hosted = check_all() if listed is None else ""
        for d in made if listed is None else []:
            assert f"warning: {d}: hosted here" in hosted
        r = site.admin("keygen", "--missing", *files, *args)
        assert sorted(set(os.listdir("/etc/domainkeys")) - before) == sorted(made)
        # each record printed is the one its key has
        assert r.stdout == "".join(site.admin("dns", d).stdout for d in made)
        for line in unlisted:
            assert f"warning: {line}" in r.stderr
        total = len(made) + (listed is not None)  # the file's example.com has its key
        assert r.stderr.endswith(f"{len(made)} of {total} domains had no key: {len(made)} made; "
                                 f"publish the {len(made)} records printed\n"), r.stderr
        again = site.admin("keygen", "--missing", *files, *args)
        assert (again.stdout, again.stderr.splitlines()[-1]) == ("", f"0 of {total} domains had no key: 0 made")
        if listed is None:
            assert "hosted here" not in check_all()
    finally:
        for d in set(os.listdir("/etc/domainkeys")) - before:
            subprocess.run(["rm", "-r", "/etc/domainkeys/" + d], check=True)
