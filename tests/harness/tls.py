"""Throw-away certificates, made with the openssl command."""
import datetime
import ssl
import subprocess
import warnings

HOST = "cloud.test"  # in every sandbox's hosts file, and so is "eu." before it
_ISSUER = """[ca]\ndefault_ca=here\n[here]\ndatabase={directory}/index\nnew_certs_dir={directory}
certificate={directory}/{name}.pem\nprivate_key={directory}/{name}.key\ndefault_md=sha256
policy=any\nunique_subject=no\nrand_serial=yes\n[any]\ncommonName=supplied\n"""
# The issuer, subjectAltName, and from which day to which the certificate is good.
_ISSUED = {
    "good": ("ca", f"DNS:{HOST}", -1, 30), "stranger": ("stranger-ca", f"DNS:{HOST}", -1, 30),
    "expired": ("ca", f"DNS:{HOST}", -30, -1), "future": ("ca", f"DNS:{HOST}", 1, 30),
    "wrong-name": ("ca", "DNS:elsewhere.test", -1, 30), "subject-only": ("ca", None, -1, 30),
    "wildcard": ("ca", f"DNS:*.{HOST}", -1, 30), "address": ("ca", "IP:127.0.0.1", -1, 30)}


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
    itself, "pinned"; each has HOST as its subject, but for the authorities."""

    def __init__(self, directory):
        self.directory = directory
        (directory / "index").touch()
        for name in ("ca", "stranger-ca", "pinned"):
            _openssl("req", "-x509", *self._new_key(name), "-subj", f"/CN={name}", "-days", 30,
                     "-out", directory / f"{name}.pem")
            (directory / f"{name}.conf").write_text(
                _ISSUER.format(directory=directory, name=name))
        for name, (issuer, names, first, last) in _ISSUED.items():
            self._issue(name, issuer, names, first, last)
        self.authority = self.text("ca")

    def _new_key(self, name):
        return ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                "-keyout", self.directory / f"{name}.key")

    def _issue(self, name, issuer, names, first, last):
        request, extensions = self.directory / f"{name}.csr", self.directory / f"{name}.ext"
        extensions.write_text(f"subjectAltName={names}\n" if names else "keyUsage=digitalSignature")
        _openssl("req", "-new", *self._new_key(name), "-subj", f"/CN={HOST}", "-out", request)
        _openssl("ca", "-batch", "-notext", "-in", request, "-extfile", extensions,
                 "-config", self.directory / f"{issuer}.conf", "-startdate", _day(first),
                 "-enddate", _day(last), "-out", self.directory / f"{name}.pem")

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
