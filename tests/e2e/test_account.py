"""The account check against real password and shadow files."""
import ctypes
import subprocess

import pytest

from harness.cloud import VERIFY, BackEnd
from harness.sandbox import COMMAND, PASSWORD, PID_FILE

LONG_NAME, LONG_PASSWORD = "u" * 255, "p" * 255
OK = (0, "verify account ok", "null")
FAILED = (101607, "verify account failed", "null")
UNREADABLE = (101601, "parse VerifyAccount failed", "null")
UNKNOWN_LINE, FAILED_LINE = "Unknown account:user!\n", "verify account failed!\n"


def sha512(password):
    return subprocess.run(["openssl", "passwd", "-6", password], capture_output=True, text=True,
                          check=True).stdout.strip()


def yescrypt(password):
    library = ctypes.CDLL("libcrypt.so.1")
    library.crypt.restype = ctypes.c_char_p
    return library.crypt(password.encode(), b"$y$j9T$F5Jx5fExrKuPp53xLKQ..1$").decode()


@pytest.fixture(scope="module")
def files():
    stored = sha512(PASSWORD)
    users = {  # password field, and shadow field or None for no entry
        "sha512": ("x", stored), "yescrypt": ("x", yescrypt(PASSWORD)), LONG_NAME: ("x", stored),
        "long": ("x", sha512(LONG_PASSWORD)), "direct": (stored, "*"), "starred": ("x", "*"),
        "locked": ("x", "!" + stored), "at": ("x", "@" + stored), "empty": ("x", ""),
        "nopassword": ("", ""), "unshadowed": ("x", None), "broken": ("x", "$6$"),
        "admin": ("##admin", stored), "other": ("##admin", stored)}
    return {"etc/passwd": "".join(f"{user}:{field}:{number}:{number}::/:/bin/sh\n" for number,
                                  (user, (field, _)) in enumerate(users.items(), 1000)),
            "etc/shadow": "".join(f"{user}:{field}:19000:0:99999:7:::\n"
                                  for user, (_, field) in users.items() if field is not None)}


@pytest.fixture(scope="module")
def link(connect, files):
    return connect("accounts", files=files)


@pytest.mark.parametrize("user, password, answer, printed", [
    *[(user, PASSWORD, OK, "") for user in ("sha512", "yescrypt", "direct", "admin", LONG_NAME)],
    ("long", LONG_PASSWORD, OK, ""), ("long", LONG_PASSWORD[:-1], FAILED, FAILED_LINE),
    *[(user, PASSWORD, FAILED, FAILED_LINE) for user in (
        "locked", "starred", "empty", "nopassword", "at", "unshadowed", "broken", "other")],
    ("sha512", PASSWORD + "x", FAILED, FAILED_LINE), ("yescrypt", "x", FAILED, FAILED_LINE),
    ("starred", "*", FAILED, FAILED_LINE), ("starred", "*0", FAILED, FAILED_LINE),
    ("unshadowed", "x", FAILED, FAILED_LINE), ("other", "##admin", FAILED, FAILED_LINE),
    ("nobody", PASSWORD, FAILED, UNKNOWN_LINE)],
    ids=lambda value: value[:12] if isinstance(value, str) else None)
def test_verify_account(link, user, password, answer, printed):
    mark, before = link.log.mark(), link.gateway.daemon.stdout.read_text()
    body = f'{{"username":"{user}","password":"{password}"}}'
    response = link.channel.request(VERIFY, body.encode())
    assert (response.token, response.answer) == ("", answer)
    assert link.gateway.daemon.stdout.read_text() == before + printed
    assert len(link.log.find("I", "verify account successfully", mark)) == (answer is OK)


@pytest.mark.parametrize("body, level, reason", [
    *[(body, "E", "verify account body is invalid: ") for body in (
        '{"password":"p"}', '{"username":"u"}', '{"username":7,"password":"p"}',
        '{"username":"u","password":""}', "no json")],
    (f'{{"username":"{"u" * 256}"}}', "W", "account:username is too long: "),
    (f'{{"username":"u","password":"{"p" * 256}"}}', "W", "account:password is too long: ")])
def test_unreadable_request(link, body, level, reason):
    mark = link.log.mark()
    assert link.channel.request(VERIFY, body.encode()).answer == UNREADABLE
    link.log.wait(level, f"{reason}{body} ", mark)


def test_closed_standard_descriptors_are_not_reused(launch, files):
    """Started without descriptors 0 to 2, it must not print into its PID file or a session."""
    back_end = BackEnd()
    gateway = launch(closed={"cloud": back_end.port, "files": files, "command": [
        "/bin/sh", "-c", f"exec {' '.join(COMMAND)} <&- >&- 2>&-"]})["closed"]
    answer = back_end.channel().request(VERIFY, b'{"username":"sha512","password":"no"}').answer
    assert answer == FAILED
    assert (gateway.root / PID_FILE).read_bytes() == b"2\0"
