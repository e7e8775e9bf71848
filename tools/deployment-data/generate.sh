#!/usr/bin/env bash
# Generates the built-in deployment data of the configuration defaults: the two
# server public keys, the SRP modulus, the "hParams"/"sigParams" values, the
# signing service's parameter certificate and three TLS root certificates. All
# of it is invented for this project; nothing here belongs to a real service.
# Prints C++ definitions for src/config/deployment_defaults.cpp.
set -euo pipefail
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
cd "$work"

spki_hex() { openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 2>/dev/null |
             openssl pkey -pubout -outform DER | od -An -v -tx1 | tr -d ' \n' | tr a-f A-F; }
b64() { base64 -w0; }

outer=$(spki_hex); inner=$(spki_hex)
prime=$(openssl prime -generate -bits 1024 -safe -hex)
srp="00$(printf '%s' "$prime" | tr a-f A-F)"
hparams=$(head -c 32 /dev/urandom | b64)
sigparams=$(head -c 129 /dev/urandom | b64)

cat > policy.cnf <<'CNF'
[korvo_leaf]
basicConstraints = critical,CA:FALSE
keyUsage = critical,digitalSignature
certificatePolicies = 1.2.208.169.1.1.1.3.5
[korvo_ca]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign,cRLSign
subjectKeyIdentifier = hash
CNF
openssl req -x509 -newkey rsa:2048 -nodes -keyout k.pem -days 7300 -subj \
  "/C=XX/O=Korvo Invented Test Data/serialNumber=CVR:00000000-UID:00000001/CN=Korvo Signing Service" \
  -extensions korvo_leaf -config <(cat /usr/lib/ssl/openssl.cnf policy.cnf) -outform DER -out param.der 2>/dev/null
paramcert=$(b64 < param.der)
roots=()
for n in 1 2 3; do
  openssl req -x509 -newkey rsa:2048 -nodes -keyout r$n.pem -days 7300 -subj \
    "/C=XX/O=Korvo Invented Test Data/CN=Korvo Invented TLS Root $n" \
    -extensions korvo_ca -config <(cat /usr/lib/ssl/openssl.cnf policy.cnf) -outform DER -out r$n.der 2>/dev/null
  roots+=("$(b64 < r$n.der)")
done

emit() { printf 'const char* const %s =\n    "%s";\n' "$1" "$2"; }
emit kServerOuterPublicKeyHex "$outer"
emit kServerInnerPublicKeyHex "$inner"
emit kSrpModulusHex "$srp"
emit kHParamsBase64 "$hparams"
emit kSigParamsBase64 "$sigparams"
emit kParamCertBase64 "$paramcert"
emit kSslRootCertsBase64 "${roots[0]},${roots[1]},${roots[2]}"
