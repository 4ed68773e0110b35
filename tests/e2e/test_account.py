"""The account check against real password and shadow files."""
import ctypes
import subprocess

import pytest

from harness.cloud import VERIFY, BackEnd
from harness.sandbox import PID_FILE

PASSWORD = "correct horse"
LONG_NAME, LONG_PASSWORD = "u" * 255, "p" * 255
OK = (0, "verify account ok", "null")
FAILED = (101607, "verify account failed", "null")
UNREADABLE = (101601, "parse VerifyAccount failed", "null")
UNKNOWN_LINE, FAILED_LINE = "Unknown account:user!", "verify account failed!"


def sha512(password):
    return subprocess.run(["openssl", "passwd", "-6", password], capture_output=True, text=True,
                          check=True).stdout.strip()


def yescrypt(password):
    library = ctypes.CDLL("libcrypt.so.1")
    library.crypt.restype = ctypes.c_char_p
    return library.crypt(password.encode(), b"$y$j9T$F5Jx5fExrKuPp53xLKQ..1$").decode()


@pytest.fixture(scope="module")
def account_files():
    stored = sha512(PASSWORD)
    entries = {  # user: (password field, shadow field or None for no entry)
        "sha512": ("x", stored), "yescrypt": ("x", yescrypt(PASSWORD)), "long": ("x", sha512(LONG_PASSWORD)),
        LONG_NAME: ("x", stored), "direct": (stored, "*"), "locked": ("x", "!" + stored), "starred": ("x", "*"),
        "empty": ("x", ""), "nopassword": ("", ""), "unshadowed": ("x", None), "at": ("x", "@" + stored),
        "broken": ("x", "$6$"), "admin": ("##admin", stored), "other": ("##admin", stored)}
    passwd = "".join(f"{user}:{field}:{n}:{n}::/:/bin/sh\n" for n, (user, (field, _)) in enumerate(entries.items(), 1000))
    shadow = "".join(f"{user}:{field}:19000:0:99999:7:::\n" for user, (_, field) in entries.items() if field is not None)
    return {"etc/passwd": passwd, "etc/shadow": shadow}


@pytest.fixture(scope="module")
def verified(launch, account_files):
    back_end = BackEnd()
    gateway = launch(accounts={"cloud": back_end.port, "files": account_files})["accounts"]
    channel = back_end.channel()
    gateway.log.wait("I", "handshake response code is 0!")
    return gateway, channel


@pytest.mark.parametrize("user, password, answer, printed", [
    ("sha512", PASSWORD, OK, None), ("yescrypt", PASSWORD, OK, None), ("direct", PASSWORD, OK, None),
    ("admin", PASSWORD, OK, None), ("long", LONG_PASSWORD, OK, None), (LONG_NAME, PASSWORD, OK, None),
    ("sha512", PASSWORD + "x", FAILED, FAILED_LINE), ("yescrypt", "x", FAILED, FAILED_LINE),
    ("long", LONG_PASSWORD[:-1], FAILED, FAILED_LINE), ("locked", PASSWORD, FAILED, FAILED_LINE),
    ("starred", "*", FAILED, FAILED_LINE), ("starred", "*0", FAILED, FAILED_LINE), ("empty", "x", FAILED, FAILED_LINE),
    ("nopassword", "x", FAILED, FAILED_LINE), ("unshadowed", "x", FAILED, FAILED_LINE),
    ("at", PASSWORD, FAILED, FAILED_LINE), ("broken", PASSWORD, FAILED, FAILED_LINE),
    ("other", PASSWORD, FAILED, FAILED_LINE), ("other", "##admin", FAILED, FAILED_LINE),
    ("nobody", PASSWORD, FAILED, UNKNOWN_LINE), ("../shadow", PASSWORD, FAILED, UNKNOWN_LINE)],
    ids=lambda value: None if isinstance(value, tuple) else str(value)[:12])
def test_verify_account(verified, user, password, answer, printed):
    gateway, channel = verified
    mark, before = gateway.log.mark(), gateway.daemon.stdout.read_text()
    response = channel.request(VERIFY, f'{{"username":"{user}","password":"{password}"}}'.encode())
    assert (response.token, response.answer) == ("", answer)
    assert gateway.daemon.stdout.read_text() == before + (f"{printed}\n" if printed else "")
    assert len(gateway.log.find("I", "verify account successfully", mark)) == (answer is OK)


@pytest.mark.parametrize("body, level, reason", [
    ('{"password":"p"}', "E", "verify account body is invalid: "),
    ('{"username":"u"}', "E", "verify account body is invalid: "),
    ('{"username":7,"password":"p"}', "E", "verify account body is invalid: "),
    ('{"username":"u","password":""}', "E", "verify account body is invalid: "),
    ("no json", "E", "verify account body is invalid: "),
    (f'{{"username":"{"u" * 256}"}}', "W", "account:username is too long: "),
    (f'{{"username":"u","password":"{"p" * 256}"}}', "W", "account:password is too long: ")])
def test_unreadable_request(verified, body, level, reason):
    gateway, channel = verified
    mark = gateway.log.mark()
    assert channel.request(VERIFY, body.encode()).answer == UNREADABLE
    gateway.log.wait(level, reason + body + " ", mark)


def test_closed_standard_descriptors_are_not_reused(launch, account_files):
    """Started without descriptors 0 to 2, the daemon must not print into its PID file or a session."""
    back_end = BackEnd()
    gateway = launch(closed={
        "cloud": back_end.port, "files": account_files, "command":
        ["/bin/sh", "-c", "exec /brimlock/gateway/build/bin/remote_access_daemon <&- >&- 2>&-"]})["closed"]
    channel = back_end.channel()
    assert channel.request(VERIFY, b'{"username":"sha512","password":"wrong"}').answer == FAILED
    assert (gateway.root / PID_FILE).read_bytes() == b"2\0"
