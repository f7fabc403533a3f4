"""keyseal-milter's /metrics and keyseal-admin's key-state file, read by the real thing: a
Prometheus server that scrapes the milter while mail flows through Postfix, promtool on
both texts and on the README's alert rules.  Scrapes, hard or hostile, change nothing for
signing: every message still arrives signed and verifies."""
import json
import os
import re
import socket
import subprocess
import threading
import urllib.error
import urllib.parse
import urllib.request

import pytest

from sandbox import postfix_lab
from test_milter import deliver, message, sendmail, signatures, smtp, verifies

METRICS = "127.0.0.1:9901"
README = os.path.join(os.path.dirname(__file__), "..", "..", "README.md")


def get(url, method="GET", timeout=10):
    """The status and body of one request."""
    req = urllib.request.Request(url, method=method, data=b"x" if method == "POST" else None)
    try:
        with urllib.request.urlopen(req, timeout=timeout) as r:
            return r.status, r.read().decode()
    except urllib.error.HTTPError as e:
        return e.code, e.read().decode()


def scrape():
    return get(f"http://{METRICS}/metrics")[1]


def sample(text, series):
    m = re.search("^" + re.escape(series) + r" (\S+)$", text, re.M)
    return float(m.group(1)) if m else None


def promtool(*args, text=None):
    return subprocess.run(["promtool", *args], input=text, capture_output=True, text=True)


def restart_milter(lab, conf=""):
    """keyseal-milter restarted once no smtpd is in a session (the lab's own probe of port 25
    included), so that Postfix never finds it gone."""
    # the probe's session is logged (rsyslogd writes behind), and every session ended
    idle = lambda log: (0 < len(re.findall(r"smtpd\[\d+\]: connect from", log))
                        == len(re.findall(r"smtpd\[\d+\]: disconnect from", log)))
    postfix_lab.wait_for(lambda: idle(lab.log()), "Postfix's smtpd sessions to end")
    lab.stop_milter()
    lab.start_milter(conf)


@pytest.fixture
def served(lab):
    """keyseal-milter with its metrics on loopback, its counters from 0."""
    restart_milter(lab, f"metrics {METRICS}\n")
    postfix_lab.wait_for(lambda: postfix_lab.connects(("127.0.0.1", 9901)), "the metrics endpoint")
    yield lab
    restart_milter(lab)


@pytest.fixture
def prometheus(served, tmp_path):
    """A Prometheus server scraping keyseal-milter every second; its query API's address."""
    conf = tmp_path / "prometheus.yml"
    conf.write_text("global:\n  scrape_interval: 1s\n  scrape_timeout: 1s\n"
                    f"scrape_configs:\n  - job_name: keyseal\n    static_configs:\n"
                    f"      - targets: ['{METRICS}']\n")
    proc = subprocess.Popen(["prometheus", f"--config.file={conf}",
                             f"--storage.tsdb.path={tmp_path / 'data'}",
                             "--web.listen-address=127.0.0.1:9090"],
                            stdout=subprocess.DEVNULL, stderr=open(tmp_path / "prometheus.log", "w"))
    try:
        postfix_lab.wait_for(lambda: get("http://127.0.0.1:9090/-/ready")[0] == 200
                             if postfix_lab.connects(("127.0.0.1", 9090)) else False, "Prometheus")
        yield "http://127.0.0.1:9090"
    finally:
        proc.terminate()
        proc.wait(timeout=60)


def query(api, expr):
    """{verdict: value} of an instant query summed by verdict."""
    status, body = get(f"{api}/api/v1/query?" + urllib.parse.urlencode({"query": expr}))
    assert status == 200, body
    return {r["metric"].get("verdict", ""): float(r["value"][1])
            for r in json.loads(body)["data"]["result"]}


def test_prometheus_sees_what_the_sink_saw(served, prometheus):
    # signed (local submission), skipped (a loopback client, neither authenticated nor
    # whitelisted), failed (a domain without a key)
    sent = [(sendmail, "ann@example.com", {}), (sendmail, "ann@example.com", {}),
            (smtp, "ann@example.com", {}), (sendmail, "ann@nokey.example", {})]
    seen = {"signed": 0, "skipped": 0, "failed": 0}
    for n, (send, sender, kw) in enumerate(sent):
        got, _ = deliver(served, send, message(900 + n, sender=sender.encode()), sender=sender, **kw)
        if signatures(got):
            assert verifies(got)
            seen["signed"] += 1
        else:
            seen["skipped" if "nokey" not in sender else "failed"] += 1
    assert seen == {"signed": 2, "skipped": 1, "failed": 1}
    expr = "sum by (verdict) (keyseal_messages_total)"
    postfix_lab.wait_for(lambda: {k: v for k, v in query(prometheus, expr).items() if v} == seen,
                         f"Prometheus to count {seen}")
    # every signed message was timed; signatures counted by algorithm
    assert query(prometheus, "sum(keyseal_signing_duration_seconds_count)") == {"": 4.0}
    assert query(prometheus, 'sum(keyseal_signatures_total{algorithm="rsa-sha256"})') == {"": 2.0}
    checked = promtool("check", "metrics", text=scrape())
    assert checked.returncode == 0, checked.stdout + checked.stderr


def test_a_thousand_scrapes_during_a_stream_change_nothing(served):
    errors, done = [], []

    def loop():
        try:
            for _ in range(1000):
                assert "keyseal_messages_total" in scrape()
            done.append(True)
        except Exception as e:  # noqa: BLE001 - reported by the test below
            errors.append(e)
    scraper = threading.Thread(target=loop)
    scraper.start()
    seen = served.capture.count
    for n in range(30):
        sendmail(message(1000 + n), "ann@example.com")
    got = served.delivered(seen + 30)[seen:]
    scraper.join(timeout=600)
    assert not errors and done
    assert all(signatures(m) and verifies(m) for m in got)
    assert sample(scrape(), 'keyseal_messages_total{verdict="signed",reason="ok"}') == 30


@pytest.mark.parametrize("case", ["slow clients hold every connection", "POST", "bad path"])
def test_hostile_scrapes_do_not_disturb_signing(served, case):
    held = []
    if case == "slow clients hold every connection":
        for _ in range(40):  # more than the endpoint takes at once
            try:
                s = socket.create_connection(("127.0.0.1", 9901), timeout=5)
                s.sendall(b"GET /metr")
                held.append(s)
            except OSError:
                break
    elif case == "POST":
        assert get(f"http://{METRICS}/metrics", method="POST")[0] == 405
    else:
        assert get(f"http://{METRICS}/admin")[0] == 404
    got, _ = deliver(served, sendmail, message(2000 + len(case)))
    assert signatures(got) and verifies(got)
    for s in held:
        s.close()
    # the endpoint serves again once the hostile connections are gone (or timed out)
    postfix_lab.wait_for(lambda: "keyseal_workers" in scrape(), "a scrape after the hostile ones")


@pytest.mark.parametrize("listen,clients,source,admitted", [
    ("10.0.0.5:9902", "10.0.0.6", "10.0.0.6", True),
    ("10.0.0.5:9902", "10.0.0.6", "10.0.0.5", False),
    ("127.0.0.1:9902", "10.0.0.6", "127.0.0.1", True),  # loopback: clients does not apply
])
def test_clients_judges_scrapers_outside_loopback(lab, listen, clients, source, admitted):
    try:
        restart_milter(lab, f"metrics {listen}\nclients {clients}\n")
        host, port = listen.split(":")
        postfix_lab.wait_for(lambda: postfix_lab.connects((host, int(port))), "the metrics endpoint")
        reply = b""
        try:
            with socket.create_connection((host, int(port)), timeout=5,
                                          source_address=(source, 0)) as s:
                s.sendall(b"GET /metrics HTTP/1.0\r\n\r\n")
                while chunk := s.recv(65536):
                    reply += chunk
        except ConnectionResetError:
            pass  # refused: closed at accept
        assert (b"keyseal_messages_total" in reply) == admitted, reply[:100]
    finally:
        restart_milter(lab)


def test_key_state_file(lab, tmp_path):
    out = tmp_path / "keyseal.prom"
    assert lab.admin("check", "--prometheus", str(out), check=False).returncode == 2
    # a key whose record is published, one whose record is not, one rotation staged
    lab.admin("keygen", "example.com", "--selector", "unpublished")
    lab.admin("rotate", "start", "example.com", check=False)
    try:
        r = lab.admin("check", "--all", "--prometheus", str(out), check=False)
        assert r.returncode in (0, 1), r.stderr
        text = out.read_text()
        checked = promtool("check", "metrics", text=text)
        assert checked.returncode == 0, checked.stdout + checked.stderr
        assert sample(text, 'keyseal_dns_record_matches{domain="example.com",selector="default"}') == 1
        assert sample(text, 'keyseal_dns_record_matches{domain="example.com",selector="unpublished"}') == 0
        assert 0 <= sample(text, 'keyseal_key_age_seconds{domain="example.com",selector="default"}') < 86400
        assert sample(text, 'keyseal_rotation_waiting_seconds{domain="example.com",step="staged"}') >= 0
        assert [p for p in os.listdir(tmp_path) if p != "keyseal.prom"] == []  # no temporary left
    finally:
        for name in os.listdir("/etc/domainkeys/example.com"):
            if name not in ("default",):
                os.remove(os.path.join("/etc/domainkeys/example.com", name))


def test_readme_alert_rules_pass_promtool(tmp_path):
    text = open(README).read()
    rules = re.search(r"```yaml\n(groups:\n.*?)```", text, re.S)
    assert rules, "the README's alert rules"
    (tmp_path / "rules.yml").write_text(rules.group(1))
    checked = promtool("check", "rules", str(tmp_path / "rules.yml"))
    assert checked.returncode == 0, checked.stdout + checked.stderr
    assert "SUCCESS: 2 rules found" in checked.stdout
