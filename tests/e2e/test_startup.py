import pytest

USAGE = "Some args not defined. Use {} <CONTEXT> <FROM> <TO>\n"


@pytest.mark.parametrize("argv0,args", [
    ("keyseal", []),
    ("keyseal", ["ctx", "a@b.c"]),
    ("/usr/local/hlx/handlers/keyseal", ["ctx", "a@b.c"]),
    ("./keyseal", ["ctx"]),
])
def test_usage_error(sandbox, argv0, args):
    r = sandbox.run(args, stdin=b"From: x\n\nbody\n", argv0=argv0)
    assert r.status == 255
    assert r.stderr == USAGE.format(argv0).encode()
    assert r.stdout == b""
    assert r.stdin_left == len(b"From: x\n\nbody\n")
    assert r.spool == []
    trace = f"K{r.logs[0].pid}: "
    assert [(l.facility, l.level, l.ident, l.text) for l in r.logs] == [
        (2, 3, "keyseal", trace + USAGE.format(argv0)),
        (2, 3, "keyseal", trace + "Unable to intialize keyseal mail handler"),
    ]


def test_trace_id_from_environment(sandbox):
    r = sandbox.run([], env={"HALYX_LOG_TRACE_ID": "abc"})
    assert r.logs and all(l.text.startswith("abc: ") for l in r.logs)
