#!/usr/bin/python3
"""make demo: sign the bundled sample message with a freshly generated key.

keyseal runs unchanged inside a private mount namespace in which
/etc/domainkeys, the spool directory and /dev/log belong to a temporary
directory, so the host is not touched.  dkimpy then verifies the result with
the demo's public key, served by a lookup function instead of DNS.
"""
import os
import sys
import tempfile

from sandbox import harness

HERE = os.path.dirname(os.path.abspath(__file__))


def section(title):
    print(f"\n=== {title} " + "=" * (70 - len(title)))


def main():
    binary = os.path.abspath(sys.argv[1])
    with open(os.path.join(HERE, "sample.eml"), "rb") as f:
        message = f.read()
    args = ["dkimsel=default", "alice@example.com", "bob@example.net"]
    with tempfile.TemporaryDirectory(prefix="keyseal-demo-") as root:
        try:
            sandbox = harness.Sandbox(root, binary)
        except harness.Unavailable as e:
            print(f"make demo: {e}", file=sys.stderr)
            return 1
        pem, _, public = harness.generate_key(2048)
        sandbox.put_key("example.com", "default", pem)
        result = sandbox.run(args, message, {"PPP_INSIDE_SENDMAIL": "1"})
        sandbox.close()

    section("commands (run inside the sandbox)")
    print("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out /etc/domainkeys/example.com/default")
    print("PPP_INSIDE_SENDMAIL=1 keyseal " + " ".join(repr(a) if not a else a for a in args)
          + " < demo/sample.eml")
    section("signed message (standard output)")
    sys.stdout.write(result.stdout.decode(errors="replace"))
    section("verdict")
    print(f"standard error: {result.stderr.decode(errors='replace')!r}   exit status: {result.status}")
    print(f"spool files left: {len(result.spool)}")
    section("syslog")
    for line in result.logs:
        print(f"<mail.{line.level}> {line.ident}[{line.pid}]: {line.text}")
    section("independent verifier (dkimpy, key from a lookup function)")
    ok = result.status == 0 and harness.verify(result.stdout, public, "example.com", "default")
    print("signature verifies: PASS" if ok else "signature verifies: FAIL")
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
