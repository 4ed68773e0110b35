"""Throw-away certificates, made with the openssl command."""
import ssl
import subprocess

HOST = "cloud.test"  # in every sandbox's hosts file


def _openssl(*arguments):
    done = subprocess.run(["openssl", *map(str, arguments)], capture_output=True, text=True,
                          check=False)
    if done.returncode != 0:
        raise RuntimeError(f"openssl {arguments[0]}: {done.stderr}")


class Certificates:
    """Two authorities, "ca" and "stranger-ca", and servers that they issued."""

    def __init__(self, directory):
        self.directory = directory
        for name in ("ca", "stranger-ca"):
            _openssl("req", "-x509", *self._new_key(name), "-subj", f"/CN={name}", "-days", 30,
                     "-out", directory / f"{name}.pem")
        self._issue("good", "ca", HOST, 30)
        self._issue("stranger", "stranger-ca", HOST, 30)
        self._issue("expired", "ca", HOST, -1)
        self._issue("wrong-name", "ca", "elsewhere.test", 30)
        self.authority = (directory / "ca.pem").read_text()

    def _new_key(self, name):
        return ("-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                "-keyout", self.directory / f"{name}.key")

    def _issue(self, name, authority, host, days):
        request, extensions = self.directory / f"{name}.csr", self.directory / f"{name}.ext"
        extensions.write_text(f"subjectAltName=DNS:{host}\n")
        _openssl("req", "-new", *self._new_key(name), "-subj", f"/CN={host}", "-out", request)
        _openssl("x509", "-req", "-in", request, "-days", days, "-extfile", extensions,
                 "-CA", self.directory / f"{authority}.pem", "-CAkey",
                 self.directory / f"{authority}.key", "-out", self.directory / f"{name}.pem")

    def paths(self, name="good"):
        return self.directory / f"{name}.pem", self.directory / f"{name}.key"

    def context(self, name="good"):
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(*self.paths(name))
        return context
