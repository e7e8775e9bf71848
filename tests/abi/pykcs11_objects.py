#!/usr/bin/env python3
"""pykcs11_objects.py MODULE: through PyKCS11, create an X.509 certificate
object (from a DER certificate `openssl req -x509` makes below $HOME) and a
data object as session objects, find them and read them back. Exits 0 when
every check holds, 1 otherwise, 77 without PyKCS11."""

import os
import subprocess
import sys
import tempfile

try:
    import PyKCS11
    from PyKCS11 import (CKA_APPLICATION, CKA_CERTIFICATE_TYPE, CKA_CLASS, CKA_ID, CKA_ISSUER, CKA_LABEL,
                         CKA_MODIFIABLE, CKA_PRIVATE, CKA_SERIAL_NUMBER, CKA_START_DATE, CKA_SUBJECT, CKA_TOKEN,
                         CKA_TRUSTED, CKA_VALUE, CKC_X_509, CKO_CERTIFICATE, CKO_DATA)
except ImportError:
    print("PyKCS11 is not installed")
    sys.exit(77)

failures = []
checks = 0


def check(what, got, expected):
    global checks
    checks += 1
    if got != expected:
        failures.append(f"{what}: got {got!r}, expected {expected!r}")


def der_elements(der, start, end):
    """(content start, content end, whole element) of each DER element in der[start:end]."""
    out = []
    while start < end:
        length, head = der[start + 1], 2
        if length & 0x80:
            n = length & 0x7F
            length, head = int.from_bytes(der[start + 2:start + 2 + n], "big"), 2 + n
        out.append((start + head, start + head + length, der[start:start + head + length]))
        start += head + length
    return out


def certificate_fields(der):
    """Serial number, issuer and subject of a DER certificate, each as DER."""
    (cert_start, cert_end, _), = der_elements(der, 0, len(der))
    tbs_start, tbs_end, _ = der_elements(der, cert_start, cert_end)[0]
    fields = [element for _, _, element in der_elements(der, tbs_start, tbs_end)]
    if fields[0][0] == 0xA0:  # explicit version
        fields = fields[1:]
    return fields[0], fields[2], fields[4]


def make_certificate(directory):
    der_path = os.path.join(directory, "cert.der")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", os.path.join(directory, "key"),
                    "-subj", "/CN=Korvo object test", "-days", "2", "-outform", "DER", "-out", der_path],
                   check=True, capture_output=True)
    with open(der_path, "rb") as f:
        return f.read()


def main(module):
    with tempfile.TemporaryDirectory(dir=os.environ.get("HOME")) as directory:
        der = make_certificate(directory)
    serial, issuer, subject = certificate_fields(der)
    handles = lambda objects: [o.value() for o in objects]

    lib = PyKCS11.PyKCS11Lib()
    lib.load(module)
    slot = lib.getSlotList(tokenPresent=True)[0]
    session = lib.openSession(slot)  # read-only: session objects need no more
    cert = session.createObject([
        (CKA_CLASS, CKO_CERTIFICATE), (CKA_CERTIFICATE_TYPE, CKC_X_509), (CKA_TOKEN, False),
        (CKA_LABEL, "Korvo object test"), (CKA_ID, b"\x01\x02\x03"), (CKA_SUBJECT, subject),
        (CKA_ISSUER, issuer), (CKA_SERIAL_NUMBER, serial), (CKA_VALUE, der)])
    data = session.createObject([
        (CKA_CLASS, CKO_DATA), (CKA_TOKEN, False), (CKA_LABEL, "notes"),
        (CKA_APPLICATION, "pykcs11 test"), (CKA_VALUE, b"hello, korvo")])

    check("all objects", handles(session.findObjects()), handles([cert, data]))
    check("certificates", handles(session.findObjects([(CKA_CLASS, CKO_CERTIFICATE)])), handles([cert]))
    check("by label", handles(session.findObjects([(CKA_LABEL, "notes")])), handles([data]))

    found, = session.findObjects([(CKA_CLASS, CKO_CERTIFICATE), (CKA_CERTIFICATE_TYPE, CKC_X_509)])
    label, value, subj, ctype, token, trusted, modifiable, start = session.getAttributeValue(
        found, [CKA_LABEL, CKA_VALUE, CKA_SUBJECT, CKA_CERTIFICATE_TYPE, CKA_TOKEN, CKA_TRUSTED, CKA_MODIFIABLE,
                CKA_START_DATE])
    check("certificate", (label, bytes(value), bytes(subj), ctype), ("Korvo object test", der, subject, CKC_X_509))
    check("certificate defaults: token, trusted, modifiable, start date", (token, trusted, modifiable, bytes(start)),
          (False, False, True, bytes(8)))

    label, app, value, private = session.getAttributeValue(data, [CKA_LABEL, CKA_APPLICATION, CKA_VALUE, CKA_PRIVATE])
    check("data object", (label, app, bytes(value), private), ("notes", "pykcs11 test", b"hello, korvo", False))

    session.destroyObject(data)
    check("after destroying the data object", handles(session.findObjects()), handles([cert]))
    session.closeSession()

    for failure in failures:
        print("FAILED", failure)
    print(f"{checks - len(failures)} of {checks} checks held")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
