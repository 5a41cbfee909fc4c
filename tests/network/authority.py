"""Makes a certificate authority (CA), and server certificates that are valid, expired, or from an
unknown CA."""

import os
import subprocess

_CONFIG = """
[req]
distinguished_name = name
prompt = no
[name]
CN = {name}
[authority]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign
[server]
subjectAltName = DNS:secure.office.example
[ca]
default_ca = own
[own]
database = {folder}/index
new_certs_dir = {folder}
serial = {folder}/serial
default_md = sha256
policy = policy
x509_extensions = server
[policy]
commonName = supplied
"""
# The period of an expired certificate. It ends before the time that any clock shows.
_PAST = ["-startdate", "20200101000000Z", "-enddate", "20200201000000Z"]
_KEY = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]


class Authority:
    def __init__(self, folder):
        self.folder = folder
        os.makedirs(folder)
        self.certificate = self._path("authority.pem")
        self._make_authority("authority")
        self._make_authority("unknown")
        self._make_server("good", "authority", ["-days", "30"])
        self._make_server("expired", "authority", _PAST)
        self._make_server("stranger", "unknown", ["-days", "30"])

    def _path(self, name):
        return os.path.join(self.folder, name)

    def _config(self, name):
        path = self._path(f"{name}.cnf")
        with open(path, "w") as file:
            file.write(_CONFIG.format(name=name, folder=self.folder))
        return path

    def _openssl(self, *words):
        done = subprocess.run(["openssl", *words], capture_output=True, text=True)
        assert done.returncode == 0, done.stderr

    def _make_authority(self, name):
        self._openssl("req", "-x509", *_KEY, "-config", self._config(name), "-extensions",
                      "authority", "-days", "30", "-keyout", self._path(f"{name}.key"), "-out",
                      self._path(f"{name}.pem"))

    def _make_server(self, name, issuer, validity):
        config = self._config(name)
        open(self._path("index"), "w").close()
        if not os.path.exists(self._path("serial")):
            with open(self._path("serial"), "w") as serial:
                serial.write("01\n")
        self._openssl("req", *_KEY, "-config", config, "-keyout", self._path(f"{name}.key"), "-out",
                      self._path(f"{name}.csr"))
        self._openssl("ca", "-batch", "-notext", "-config", config, "-cert",
                      self._path(f"{issuer}.pem"), "-keyfile", self._path(f"{issuer}.key"), *validity,
                      "-in", self._path(f"{name}.csr"), "-out", self._path(f"{name}.pem"))
