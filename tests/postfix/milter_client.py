"""The mail server's half of the milter protocol, for tests that need input no Postfix
produces: a client that negotiates as Postfix does, sends the stages a message passes
through with the macros the test chooses, honours the answers the milter said it will not
give, and records what the milter asks for at the end of the message.

Every packet either way is a 4-byte big-endian length, a command byte and its data.
"""
import socket
import struct
from dataclasses import dataclass, field

VERSION = 6
ALL_ACTIONS = 0x1FF  # add/change headers and recipients, body, quarantine, sender, symbol lists
ALL_STEPS = 0x1FFFFF  # every protocol step a server can leave out or not wait for
HDR_LEADSPC = 0x100000
# per stage: the bit that says the server should not send it, and the one that says the
# milter will not answer it
NOT_SENT = {b"C": 0x1, b"H": 0x2, b"M": 0x4, b"R": 0x8, b"B": 0x10, b"L": 0x20, b"N": 0x40, b"T": 0x200}
NO_REPLY = {b"C": 0x1000, b"H": 0x2000, b"M": 0x4000, b"R": 0x8000, b"T": 0x10000, b"L": 0x80,
            b"N": 0x40000, b"B": 0x80000}
# what a milter may ask for at the end of a message before its final answer: headers
# (add, insert, change), body, sender, recipients, quarantine
MODIFICATIONS = b"himbe+-2q"
CHUNK = 65535


class Closed(ConnectionError):
    """The milter closed the connection."""


@dataclass
class Answer:
    final: bytes = b""  # the answer: c, a, t, r, d
    stage: bytes = b""  # the stage it answered
    reply: bytes = b""  # with a reply text ('y'): "451 4.7.1 ...", final t (4xx) or r
    mods: list = field(default_factory=list)  # (cmd, index, name, value), in order
    leadspc: bool = True  # header values the milter sends keep their leading space


class Milter:
    def __init__(self, address, source=None, timeout=120):
        """address: a unix socket's path or (host, port); source: the address to bind."""
        family = socket.AF_UNIX if isinstance(address, str) else socket.AF_INET
        self.sock = socket.socket(family, socket.SOCK_STREAM)
        self.sock.settimeout(timeout)
        if source is not None:
            self.sock.bind((source, 0))
        self.sock.connect(address)
        self.protocol = 0

    def close(self):
        self.sock.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def send(self, cmd, data=b""):
        self.sock.sendall(struct.pack(">I", len(data) + 1) + cmd + data)

    def read(self):
        def exactly(n):
            got = b""
            while len(got) < n:
                more = self.sock.recv(n - len(got))
                if not more:
                    raise Closed("the milter closed the connection")
                got += more
            return got
        length = struct.unpack(">I", exactly(4))[0]
        data = exactly(length)
        return data[:1], data[1:]

    def negotiate(self, actions=ALL_ACTIONS, steps=ALL_STEPS):
        self.send(b"O", struct.pack(">III", VERSION, actions, steps))
        cmd, data = self.read()
        assert cmd == b"O", (cmd, data)
        _, self.actions, self.protocol = struct.unpack(">III", data[:12])
        return self

    def stage(self, cmd, data=b"", macros=None):
        """Send one stage (and its macros first) unless the milter asked not to see it;
        its answer, or None where the milter gives none."""
        if self.protocol & NOT_SENT.get(cmd, 0):
            return None
        if macros:
            self.send(b"D", cmd + b"".join(k.encode() + b"\0" + v.encode() + b"\0"
                                          for k, v in macros.items()))
        self.send(cmd, data)
        if self.protocol & NO_REPLY.get(cmd, 0):
            return None
        answer = Answer(stage=cmd, leadspc=bool(self.protocol & HDR_LEADSPC))
        while True:
            c, d = self.read()
            if c == b"p":  # progress: the milter is still at it
                continue
            if c == b"y":  # a reply text of its own: a temporary failure or a rejection with it
                answer.reply = d.rstrip(b"\0")
                answer.final = b"t" if answer.reply[:1] == b"4" else b"r"
                return answer
            if cmd != b"E" or c not in MODIFICATIONS:
                answer.final = c
                return answer
            elif c in b"im":
                answer.mods.append((c, struct.unpack(">I", d[:4])[0]) + tuple(d[4:].split(b"\0")[:2]))
            else:
                answer.mods.append((c, None) + tuple((d.split(b"\0") + [b""])[:2]))

    def connect(self, host="client.example", address="127.0.0.1", port=40000, macros=None):
        family = b"6" if ":" in address else b"4"
        return self.stage(b"C", host.encode() + b"\0" + family + struct.pack(">H", port)
                          + address.encode() + b"\0", macros)

    def helo(self, name="client.example", macros=None):
        return self.stage(b"H", name.encode() + b"\0", macros)

    def mail(self, sender, *args, macros=None):
        return self.stage(b"M", b"".join(a.encode() + b"\0" for a in ("<%s>" % sender, *args)), macros)

    def rcpt(self, rcpt, *args, macros=None):
        return self.stage(b"R", b"".join(a.encode() + b"\0" for a in ("<%s>" % rcpt, *args)), macros)

    def header(self, name, value):
        """value: as it stands after the colon, folds with LF as Postfix passes them."""
        if not self.protocol & HDR_LEADSPC:
            value = value.lstrip(b" \t")
        return self.stage(b"L", name + b"\0" + value + b"\0")

    def headers(self, message):
        """Each header of message (CR LF text) in turn; the body that follows them."""
        head, body = message.split(b"\r\n\r\n", 1)
        for f in fields(head, b"\n"):
            name, value = f.split(b":", 1)
            self.header(name, value)
        return body

    def body(self, data):
        for at in range(0, len(data), CHUNK):
            self.stage(b"B", data[at:at + CHUNK])

    def eom(self, macros=None):
        return self.stage(b"E", b"", macros)

    def abort(self):
        self.send(b"A")

    def quit(self):
        self.send(b"Q")

    def message(self, sender, rcpts, data, queue_id="", auth="", mail_args=()):
        """One whole message of an open session; the milter's answer at its end, or the
        first answer that ends it sooner."""
        answer = self.mail(sender, *mail_args, macros={"i": queue_id, "{auth_authen}": auth})
        for r in rcpts:
            if answer is not None and answer.final != b"c":
                return answer
            answer = self.rcpt(r)
        if answer is not None and answer.final != b"c":
            return answer
        body = self.headers(data)
        self.stage(b"N")
        self.body(body)
        return self.eom(macros={"i": queue_id})


def fields(head, fold):
    """The header fields of a header block (CR LF text), folded lines joined with fold."""
    out = []
    for line in head.split(b"\r\n"):
        if line[:1] in (b" ", b"\t"):
            out[-1] += fold + line
        else:
            out.append(line)
    return out


def session(address, daemon="mx.example.com", client="10.0.0.6", source=None, host="client.example"):
    """A negotiated session of an SMTP client at client, passed on by a server whose
    {daemon_name} is daemon."""
    m = Milter(address, source=source).negotiate()
    m.connect(host, client, macros={"{daemon_name}": daemon, "j": "mx.example.com"})
    m.helo(host)
    return m


def applied(message, answer):
    """message as the server holds it after the answer's header changes."""
    head, body = message.split(b"\r\n\r\n", 1)
    held = fields(head, b"\r\n")
    text = lambda name, value: name + b":" + (b"" if answer.leadspc else b" ") + value.replace(b"\n", b"\r\n")
    for cmd, index, name, value in answer.mods:
        if cmd == b"h":
            held.append(text(name, value))
        elif cmd == b"i":
            held.insert(index, text(name, value))
        elif cmd == b"m":
            places = [i for i, f in enumerate(held) if f.split(b":", 1)[0].lower() == name.lower()]
            if index <= len(places):
                at = places[index - 1]
                held[at:at + 1] = [text(name, value)] if value else []
            elif value:
                held.append(text(name, value))
    return b"\r\n".join(held) + b"\r\n\r\n" + body
