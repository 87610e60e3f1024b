"""TLS between the daemon and a roaming service: the files of examples/tls as docs/tls.md uses them.

Only ports and the names of files are others here, and stunnel keeps the caller's user.
"""

import pathlib
import subprocess

from harness.proxies import haproxy, proxy, unpacked

examples = pathlib.Path(__file__).resolve().parents[3] / "examples/tls"
service_name = "roaming.example"


def example(name, replacements={}):
    """The text of a file of examples/tls; every text that is to be replaced must be in it."""
    text = (examples / name).read_text()
    for old, new in replacements.items():
        assert old in text, f"examples/tls/{name} holds no '{old}'"
        text = text.replace(old, new)
    return text


class authority:
    """Issues certificates; `file` is its own."""

    def __init__(self, folder, name):
        self.folder, self.name = folder, name
        self.file = folder / f"{name}.pem"
        self.key = folder / f"{name}.key"
        self.request(self.file, self.key, name)

    def request(self, file, key, name, days=2, options=(), clock=()):
        subprocess.run(
            [*clock, "openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
             "ec_paramgen_curve:prime256v1", "-nodes", "-subj", f"/CN={name}", "-days", str(days),
             *options, "-keyout", key, "-out", file], check=True, capture_output=True)

    def issue(self, name, expired=False):
        """A file with a certificate of this name, and its key."""
        file = self.folder / f"{self.name}-{name}{'-expired' * expired}.pem"
        key = file.with_suffix(".key")
        self.request(file, key, name, 1, ["-CA", self.file, "-CAkey", self.key, "-addext",
                                          f"subjectAltName=DNS:{name}", "-addext",
                                          "basicConstraints=critical,CA:FALSE"],
                     ["faketime", "3 days ago"] if expired else [])
        file.write_text(file.read_text() + key.read_text())
        return file


class terminator(haproxy):
    """The service's end. Shows `certificate`; asks for one of the authority `clients`."""

    def __init__(self, place, server_port, certificate, clients=None):
        super().__init__(place, server_port)
        self.certificate, self.clients = certificate, clients

    def config(self):
        replacements = {
            "bind :443": f"bind 127.0.0.1:{self.port}",
            "127.0.0.1:8080": f"127.0.0.1:{self.server_port}",
            "/etc/haproxy/roaming.pem": str(self.certificate)}
        if self.clients:
            clients = "ca-file /etc/haproxy/access-points-ca.pem verify required"
            replacements |= {"TLSv1.2\n": f"TLSv1.2 {clients}\n",
                             "/etc/haproxy/access-points-ca.pem": str(self.clients.file)}
        return example("haproxy.cfg", replacements)


class tunnel(proxy):
    """The daemon's end. Takes a certificate of `trusted`, an authority; shows `certificate`."""

    program = "stunnel"

    def __init__(self, place, far_port, trusted, certificate=None):
        super().__init__(place, far_port)
        self.trusted, self.certificate = trusted, certificate

    def command(self, config_file):
        return [unpacked("stunnel"), str(config_file)]

    def config(self):
        replacements = {
            "127.0.0.1:1011\nconnect": f"127.0.0.1:{self.port}\nconnect",
            f"{service_name}:443": f"127.0.0.1:{self.server_port}",
            "setuid = stunnel4\nsetgid = stunnel4\n": "",
            "/etc/stunnel/roaming-ca.pem": str(self.trusted.file)}
        if self.certificate:
            replacements |= {";cert": "cert", ";key": "key",
                             "/etc/stunnel/access-point.pem": str(self.certificate),
                             "/etc/stunnel/access-point.key": str(self.certificate)}
        return example("stunnel.conf", replacements)
