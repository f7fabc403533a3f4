#!/usr/bin/python3
"""verify_dkim.py PUBLIC_KEY_BASE64 MESSAGE_FILE [DOMAIN SELECTOR]

dkimpy's verdict on the message's first DKIM signature; the public key comes
from a lookup function, never from DNS.  Exit 0 and "pass", or 1 and "fail".
"""
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "e2e"))
import harness  # noqa: E402

with open(sys.argv[2], "rb") as f:
    message = f.read()
ok = harness.verify(message, sys.argv[1].encode(), *sys.argv[3:5])
print("pass" if ok else "fail")
sys.exit(0 if ok else 1)
