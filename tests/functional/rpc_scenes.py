"""Files that guard a node's RPC server, and their other side."""

import os
import ssl
import subprocess
from typing import Tuple

TOO_LARGE = (-32700, "Request too large")
NOT_FOUND = -32601
NOT_PERMITTED = -32003


def write_password(directory: str, password: str) -> str:
    path = os.path.join(directory, "password")
    with open(os.open(path, os.O_WRONLY | os.O_CREAT, 0o600), "w", encoding="utf-8") as file:
        file.write(password + "\n")
    return path


def make_certificate(directory: str, name: str) -> Tuple[str, str]:
    """Files of a certificate for 127.0.0.1 and localhost that signs itself, and of its key."""
    certificate, key = (os.path.join(directory, f"{name}.{kind}") for kind in ("crt", "key"))
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                    "-subj", "/CN=127.0.0.1", "-addext", "subjectAltName=IP:127.0.0.1,DNS:localhost", "-days", "2",
                    "-keyout", key, "-out", certificate], check=True, capture_output=True, timeout=30)
    return certificate, key


def tls_client(certificate: str) -> ssl.SSLContext:
    return ssl.create_default_context(cafile=certificate)
