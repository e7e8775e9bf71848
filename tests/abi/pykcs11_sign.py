#!/usr/bin/env python3
"""pykcs11_sign.py MODULE: through PyKCS11, use the token's key pairs that
mirror the user certificates in $HOME/.korvo/user_certificates. For each
certificate it finds the certificate, public-key and private-key objects by
CKA_ID (the SHA-256 of the certificate), signs with CKM_SHA256_RSA_PKCS and
CKM_SHA256_RSA_PKCS_PSS and has openssl verify the signatures against the
certificate and the token verify them with its public key, and decrypts what openssl encrypted to the certificate's key
with PKCS #1 v1.5 padding (CKM_RSA_PKCS) and with OAEP (SHA-1). Exits 0 when
every check holds, 1 otherwise, 77 without PyKCS11."""

import glob
import hashlib
import os
import subprocess
import sys
import tempfile

try:
    import PyKCS11
    from PyKCS11 import (CKA_CLASS, CKA_ID, CKA_KEY_TYPE, CKA_LABEL, CKA_MODULUS, CKA_VALUE, CKG_MGF1_SHA1,
                         CKG_MGF1_SHA256, CKK_RSA, CKM_RSA_PKCS, CKM_RSA_PKCS_OAEP, CKM_SHA256, CKM_SHA256_RSA_PKCS,
                         CKM_SHA256_RSA_PKCS_PSS, CKM_SHA_1, CKO_CERTIFICATE, CKO_PRIVATE_KEY, CKO_PUBLIC_KEY)
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


def openssl(*args, data=None):
    return subprocess.run(["openssl", *args], input=data, capture_output=True)


def write(path, data):
    with open(path, "wb") as f:
        f.write(data)
    return path


def read(path):
    with open(path, "rb") as f:
        return f.read()


def public_key_pem(cert_path, directory):
    """The certificate's public key as a PEM file, and its modulus as bytes."""
    pem = openssl("x509", "-inform", "DER", "-in", cert_path, "-pubkey", "-noout").stdout
    modulus = openssl("x509", "-inform", "DER", "-in", cert_path, "-noout", "-modulus").stdout
    modulus = bytes.fromhex(modulus.decode().strip().split("=", 1)[1])
    return write(os.path.join(directory, "pub.pem"), pem), modulus


def verifies(pub, data, signature, directory, *options):
    data_path = write(os.path.join(directory, "data"), data)
    sig_path = write(os.path.join(directory, "sig"), signature)
    result = openssl("dgst", "-sha256", *options, "-verify", pub, "-signature", sig_path, data_path)
    return result.returncode == 0 and b"Verified OK" in result.stdout


def encrypt(pub, message, *options):
    result = openssl("pkeyutl", "-encrypt", "-pubin", "-inkey", pub, *options, data=message)
    if result.returncode != 0:
        raise RuntimeError("openssl pkeyutl -encrypt failed: " + result.stderr.decode(errors="replace"))
    return result.stdout


def attempt(what, operation):
    """operation()'s result as bytes; None (a failure noted) when the module refuses it."""
    global checks
    try:
        return bytes(operation())
    except PyKCS11.PyKCS11Error as error:
        checks += 1
        failures.append(f"{what}: {error}")
        return None


def one(session, template, what):
    found = session.findObjects(template)
    check(f"number of {what}", len(found), 1)
    return found[0] if found else None


def main(module):
    certs = sorted(glob.glob(os.path.join(os.environ["HOME"], ".korvo", "user_certificates", "*.cer")))
    if not certs:
        print("FAILED no user certificates in the store")
        return 1

    lib = PyKCS11.PyKCS11Lib()
    lib.load(module)
    slot = lib.getSlotList(tokenPresent=True)[0]
    session = lib.openSession(slot)  # read-only, no login: the token's objects are public

    pkcs1 = PyKCS11.Mechanism(CKM_RSA_PKCS, None)
    oaep = PyKCS11.RSAOAEPMechanism(CKM_SHA_1, CKG_MGF1_SHA1)
    sha256_rsa = PyKCS11.Mechanism(CKM_SHA256_RSA_PKCS, None)
    sha256_pss = PyKCS11.RSA_PSS_Mechanism(CKM_SHA256_RSA_PKCS_PSS, CKM_SHA256, CKG_MGF1_SHA256, 32)

    with tempfile.TemporaryDirectory(dir=os.environ.get("HOME")) as directory:
        for cert_path in certs:
            name = os.path.basename(cert_path)
            der = read(cert_path)
            cka_id = hashlib.sha256(der).digest()
            pub, modulus = public_key_pem(cert_path, directory)

            cert = one(session, [(CKA_CLASS, CKO_CERTIFICATE), (CKA_ID, cka_id)], f"certificates of {name}")
            public = one(session, [(CKA_CLASS, CKO_PUBLIC_KEY), (CKA_ID, cka_id)], f"public keys of {name}")
            private = one(session, [(CKA_CLASS, CKO_PRIVATE_KEY), (CKA_ID, cka_id)], f"private keys of {name}")
            if None in (cert, public, private):
                continue

            cert_label, value = session.getAttributeValue(cert, [CKA_LABEL, CKA_VALUE])
            public_label, public_type, public_modulus = session.getAttributeValue(
                public, [CKA_LABEL, CKA_KEY_TYPE, CKA_MODULUS])
            private_label, private_type, private_modulus = session.getAttributeValue(
                private, [CKA_LABEL, CKA_KEY_TYPE, CKA_MODULUS])
            check(f"{name}: certificate value", bytes(value), der)
            check(f"{name}: labels of public and private key", (public_label, private_label),
                  (cert_label, cert_label))
            check(f"{name}: key types", (public_type, private_type), (CKK_RSA, CKK_RSA))
            check(f"{name}: moduli of public and private key", (bytes(public_modulus), bytes(private_modulus)),
                  (modulus, modulus))

            data = f"a message to {name}, to be signed by its key\n".encode() * 40
            signature = attempt(f"{name}: CKM_SHA256_RSA_PKCS signing",
                                lambda: session.sign(private, data, sha256_rsa))
            if signature is not None:
                check(f"{name}: CKM_SHA256_RSA_PKCS signature verifies", verifies(pub, data, signature, directory),
                      True)
                check(f"{name}: the token's public key verifies it", session.verify(public, data, signature, sha256_rsa),
                      True)
                check(f"{name}: and refuses another message", session.verify(public, data + b"!", signature, sha256_rsa),
                      False)
            signature = attempt(f"{name}: CKM_SHA256_RSA_PKCS_PSS signing",
                                lambda: session.sign(private, data, sha256_pss))
            if signature is not None:
                check(f"{name}: CKM_SHA256_RSA_PKCS_PSS signature verifies",
                      verifies(pub, data, signature, directory, "-sigopt", "rsa_padding_mode:pss",
                               "-sigopt", "rsa_pss_saltlen:32"), True)
                check(f"{name}: the token's public key verifies the PSS signature",
                      session.verify(public, data, signature, sha256_pss), True)

            # Two different ciphertexts and the first again: each result must be
            # that of its own input, not a remembered earlier one.
            secret_1, secret_2 = f"first secret of {name}".encode(), f"second secret of {name}".encode()
            ciphertext_1 = encrypt(pub, secret_1)
            ciphertext_2 = encrypt(pub, secret_2, "-pkeyopt", "rsa_padding_mode:oaep")
            for what, ciphertext, mechanism, secret in (("CKM_RSA_PKCS", ciphertext_1, pkcs1, secret_1),
                                                        ("CKM_RSA_PKCS_OAEP", ciphertext_2, oaep, secret_2),
                                                        ("CKM_RSA_PKCS again", ciphertext_1, pkcs1, secret_1)):
                plain = attempt(f"{name}: {what} decryption", lambda: session.decrypt(private, ciphertext, mechanism))
                if plain is not None:
                    check(f"{name}: {what} decryption", plain, secret)
    session.closeSession()

    for failure in failures:
        print("FAILED", failure)
    print(f"{checks - len(failures)} of {checks} checks held over {len(certs)} user certificates")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
