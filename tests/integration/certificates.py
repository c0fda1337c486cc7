"""Certificates for tests, made with the openssl program."""

import subprocess


def run(directory, *arguments):
    subprocess.run(["openssl", *arguments], cwd=directory, check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)


class Authority:
    """A certificate authority in a directory of its own."""

    def __init__(self, directory, name="ca"):
        self.directory = directory / name
        self.directory.mkdir()
        self.name = name
        self.certificate = self.directory / "ca.pem"
        self._key = self.directory / "ca.key"
        run(self.directory, "req", "-x509", "-newkey", "ec", "-pkeyopt",
            "ec_paramgen_curve:prime256v1", "-nodes", "-days", "30", "-subj", f"/CN={name}",
            "-keyout", str(self._key), "-out", str(self.certificate))

    def issue(self, name, subject="DNS:localhost,IP:127.0.0.1", expired=False):
        """A certificate and its key, for that subject, as files."""
        certificate, key = self.directory / f"{name}.pem", self.directory / f"{name}.key"
        request, extensions = self.directory / f"{name}.csr", self.directory / f"{name}.ext"
        run(self.directory, "req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
            "-nodes", "-subj", f"/CN={name}", "-keyout", str(key), "-out", str(request))
        extensions.write_text(f"subjectAltName={subject}\n")
        (self.directory / "index.txt").touch()
        dates = ["-startdate", "20200101000000Z", "-enddate", "20200201000000Z"] if expired \
            else ["-days", "20"]
        config = self.directory / "ca.cnf"
        config.write_text(
            "[ca]\ndefault_ca=d\n[d]\ndatabase=index.txt\nnew_certs_dir=.\nrand_serial=yes\n"
            "default_md=sha256\npolicy=p\nunique_subject=no\n[p]\ncommonName=supplied\n")
        run(self.directory, "ca", "-batch", "-notext", "-config", str(config),
            "-cert", str(self.certificate), "-keyfile", str(self._key), "-in", str(request),
            "-extfile", str(extensions), "-out", str(certificate), *dates)
        return certificate, key
