"""Temporary certificates, made with the openssl command."""
import datetime
import ssl
import subprocess
import warnings

HOST = "cloud.test"  # in every sandbox's hosts file, and so is "eu." before it
_ISSUER = """[ca]\ndefault_ca=here\n[here]\ndatabase={directory}/index\nnew_certs_dir={directory}
certificate={directory}/{name}.pem\nprivate_key={directory}/{name}.key\ndefault_md=sha256
policy=any\nunique_subject=no\nrand_serial=yes\n[any]\ncommonName=supplied\n"""
# What strict clients ask for, as Python is from 3.13 on.
_AUTHORITY = """basicConstraints=critical,CA:TRUE
keyUsage=critical,digitalSignature,keyCertSign\nsubjectKeyIdentifier=hash"""
_OF_ISSUER = "authorityKeyIdentifier=keyid\n"
# The issuer (None: it signs itself), subjectAltName, and from which day to which the certificate is
# good. The faults step the clock, so what is good is so on the day before, too.
_ISSUED = {
    "ca": (None, None, -2, 30), "stranger-ca": (None, None, -2, 30), "pinned": (None, None, -2, 30),
    "good": ("ca", f"DNS:{HOST}", -1, 30), "stranger": ("stranger-ca", f"DNS:{HOST}", -1, 30),
    "expired": ("ca", f"DNS:{HOST}", -30, -1), "future": ("ca", f"DNS:{HOST}", 1, 30),
    "wrong-name": ("ca", "DNS:elsewhere.test", -1, 30), "subject-only": ("ca", None, -1, 30),
    "wildcard": ("ca", f"DNS:*.{HOST}", -1, 30), "address": ("ca", "IP:127.0.0.1", -1, 30),
    "operator": ("ca", "email:anna@example.com", -1, 30),
    "late-operator": ("ca", "email:anna@example.com", -30, -1),
    "strange-operator": ("stranger-ca", "email:anna@example.com", -1, 30)}


def _openssl(*arguments):
    done = subprocess.run(["openssl", *map(str, arguments)], capture_output=True, text=True,
                          check=False)
    if done.returncode != 0:
        raise RuntimeError(f"openssl {arguments[0]}: {done.stderr}")


def _day(number):
    when = datetime.datetime.now(datetime.timezone.utc) + datetime.timedelta(days=number)
    return when.strftime("%Y%m%d%H%M%SZ")


class Certificates:
    """Two authorities, "ca" and "stranger-ca", the servers that they issued, and one that signed
    itself, "pinned"; those issued have HOST as their subject."""

    def __init__(self, directory):
        self.directory = directory
        if not (directory / "index").exists():  # made by another process of this run
            (directory / "index").touch()
            for name, issued in _ISSUED.items():
                self.issue(name, *issued)
        self.authority = self.text("ca")

    def issue(self, name, issuer, names, first=-1, last=30):
        place = self.directory / name
        place.with_suffix(".conf").write_text(_ISSUER.format(directory=self.directory, name=name))
        place.with_suffix(".ext").write_text(
            _AUTHORITY if not issuer else _OF_ISSUER +
            (f"subjectAltName={names}" if names else "keyUsage=digitalSignature"))
        _openssl("req", "-new", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                 "-nodes", "-keyout", f"{place}.key", "-out", f"{place}.csr",
                 "-subj", f"/CN={HOST if issuer else name}")
        _openssl("ca", "-batch", "-notext", "-in", f"{place}.csr", "-extfile", f"{place}.ext",
                 *([] if issuer else ["-selfsign"]), "-out", f"{place}.pem",
                 "-config", self.directory / f"{issuer or name}.conf",
                 "-startdate", _day(first), "-enddate", _day(last))

    def text(self, name):
        return (self.directory / f"{name}.pem").read_text()

    def paths(self, name="good"):
        return self.directory / f"{name}.pem", self.directory / f"{name}.key"

    def context(self, name="good"):
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(*self.paths(name))
        return context

    def old_context(self):
        """A server that knows nothing newer than TLS 1.1."""
        context = self.context()
        with warnings.catch_warnings():
            warnings.simplefilter("ignore", DeprecationWarning)
            context.minimum_version = context.maximum_version = ssl.TLSVersion.TLSv1_1
        context.set_ciphers("DEFAULT:@SECLEVEL=0")
        return context
