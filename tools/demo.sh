#!/usr/bin/env bash
# Builds the module and shows what it does, in a sandbox home directory so the
# real one is never touched: the module's exports and digests, then a small
# certificate store (a root CA, an intermediate CA and one user certificate
# with its key for the reference helper) seen through pkcs11-tool (objects, a
# signature checked with openssl) and through an NSS database (certutil).
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bash "$root/tools/install-deps.sh"

build="$root/build"
started=$(date +%s)
echo "Building the module, its helper and the demo tools (about a minute on a fresh machine)..."
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
# One line of progress instead of the compiler's chatter.
cmake --build "$build" -j"$(nproc)" --target Tavik_PKCS11 KorvoPerformRsa korvo_demo korvo-store korvo_test_certs |
  grep --line-buffered -o '^\[ *[0-9]*%\]' | tr -d '[]% ' |
  awk '{ if ($1 + 0 > done) { done = $1 + 0; printf "\r  %d%% built", done; fflush() } } END { print "" }'

module="$build/src/libTavik_PKCS11.so.1"
sandbox=$(mktemp -d /tmp/korvo-demo-XXXXXX)
trap 'rm -rf "$sandbox"' EXIT
export HOME="$sandbox"
unset XDG_CONFIG_HOME

echo
echo "== The module =="
echo "A PKCS#11 module is a shared library that applications (browsers, mail clients, signing tools)"
echo "load to reach keys and certificates; it must export only the Cryptoki entry points."
echo "File:   $module"
objdump -p "$module" | awk '/SONAME/ {print "SONAME: " $2}'
exported=$(nm -D --defined-only "$module" | awk '{print $NF}')
echo "Exported symbols: $(echo "$exported" | grep -c . || true) (only Cryptoki C_* entry points may appear)"
[ -n "$exported" ] && echo "$exported" | sed 's/^/  /'

# A sample file to hash, and the system tools' digests beside ours.
sample="$sandbox/sample.txt"
printf 'The Korvo token hashes this file.\n' > "$sample"
echo
echo "korvo_demo shows the layers under the module: its settings, its digests and random generator,"
echo "and real calls of the module traced in the log (switched on for the demo; the module as shipped"
echo "keeps it off), made before any certificate folder exists, so the log says where the token looked."
"$build/tools/korvo_demo" "$sample"

echo
echo "== The same file through the system's tools =="
md5sum "$sample" | awk '{print "MD5        " $1}'
sha1sum "$sample" | awk '{print "SHA-1      " $1}'
openssl dgst -ripemd160 -r "$sample" 2>/dev/null | awk '{print "RIPEMD-160 " $1}' || true
sha224sum "$sample" | awk '{print "SHA-224    " $1}'
sha256sum "$sample" | awk '{print "SHA-256    " $1}'
sha384sum "$sample" | awk '{print "SHA-384    " $1}'
sha512sum "$sample" | awk '{print "SHA-512    " $1}'

# The module as an application sees it: loaded by OpenSC's pkcs11-tool.
echo
echo "== The module through pkcs11-tool =="
echo "OpenSC's pkcs11-tool loads the module as any application does. The module shows one slot"
echo "holding one token; the mechanisms are the operations the token offers."
p11() {
  echo
  echo "\$ pkcs11-tool --module $module $*"
  pkcs11-tool --module "$module" "$@" || {
    status=$?
    echo "pkcs11-tool $* failed with status $status" >&2
    exit "$status"
  }
}
p11 -I
p11 -L
p11 -T
p11 -M
digest="$sandbox/sample.sha256"
p11 --hash -m SHA256 -i "$sample" -o "$digest"

ours=$(od -An -v -tx1 "$digest" | tr -d ' \n')
theirs=$(sha256sum "$sample" | awk '{print $1}')
echo
echo "SHA-256 through the module: $ours"
echo "SHA-256 from sha256sum:     $theirs"
if [ "$ours" = "$theirs" ]; then
  echo "SHA-256 through the module matches sha256sum"
else
  echo "MISMATCH: SHA-256 through the module differs from sha256sum" >&2
  exit 1
fi

# A certificate store in the sandbox home, laid out as the token reads it:
# the build's test root CA, its intermediate CA and one user certificate
# (tools/testcerts/make-test-certs.sh), raw DER under their SHA-256 names,
# and the user's key where the reference helper looks for it. Every name in
# them is invented.
echo
echo "== A certificate store in the sandbox home =="
echo "The token's objects are certificate files in three folders of the user's home. korvo-store"
echo "puts them there under the names the module reads; the user's key goes where the reference"
echo "helper KorvoPerformRsa looks for it (a real helper keeps the key elsewhere)."
made="$build/testcerts"
certs="$sandbox/certs"
store="$HOME/.korvo"
mkdir -p "$certs" "$store/root_certificates" "$store/intermediate_certificates" "$store/user_certificates" "$store/keys"
cp "$made/root-ca.der" "$certs/root.der"
cp "$made/intermediate-ca.der" "$certs/intermediate.der"
cp "$made/user-person.der" "$certs/alice.der"
cp "$made/user-person.key.pem" "$certs/alice.key.pem"
sha() { sha256sum "$1" | cut -d' ' -f1; }
user_id=$(sha "$certs/alice.der")
tool="$build/tools/korvo-store"
for command in "add-root $certs/root.der" "add-intermediate $certs/intermediate.der" "add-user alice $certs/alice.der"; do
  echo "\$ korvo-store $command"
  # shellcheck disable=SC2086
  "$tool" $command
done
cp "$certs/alice.key.pem" "$store/keys/$user_id.pem"
echo "\$ korvo-store list"
"$tool" list

echo
echo "== The token's objects =="
echo "Each user certificate becomes three objects (certificate, public key, private key) sharing one"
echo "ID, the certificate's SHA-256; each CA certificate a certificate object, each root also a trust"
echo "object that tells applications what the root is trusted for."
p11 -O
echo "(pkcs11-tool names the root CA's NSS trust object, class CKO_NSS_TRUST = 0xCE534353 = 3461563219, by number only)"

# A signature made by the helper beside the module (KorvoPerformRsa), checked
# by openssl against the public key of the user's certificate.
echo
echo "== A signature through the token, checked with openssl =="
echo "Signing never reads a key inside the module: the module runs KorvoPerformRsa beside it, and"
echo "openssl checks the result against the certificate's public key."
signature="$sandbox/sample.sig"
p11 --sign -m SHA256-RSA-PKCS --id "$user_id" -i "$sample" -o "$signature"
openssl x509 -inform DER -in "$certs/alice.der" -pubkey -noout > "$certs/alice.pub.pem"
echo
echo "\$ openssl dgst -sha256 -verify alice.pub.pem -signature sample.sig sample.txt"
if openssl dgst -sha256 -verify "$certs/alice.pub.pem" -signature "$signature" "$sample"; then
  echo "The SHA256-RSA-PKCS signature made through the module verifies against the certificate's public key"
else
  echo "MISMATCH: the signature made through the module does not verify against the certificate" >&2
  exit 1
fi

# The token as a browser sees it: a fresh NSS database with the module added.
echo
echo "== The token in an NSS database, as a browser sees it =="
echo "Firefox and Thunderbird keep their modules in an NSS database. certutil shows each certificate"
echo "with its trust flags (SSL, e-mail, object signing): u,u,u marks a certificate whose private key"
echo "the token holds; CT,C, marks the root as a trusted issuer of TLS servers and clients (C, T) and of"
echo "e-mail (C), taken from the token's trust object."
nssdb="$sandbox/nssdb"
mkdir -p "$nssdb"
certutil -N -d "sql:$nssdb" --empty-password
echo "\$ modutil -dbdir sql:$nssdb -add \"Korvo token\" -libfile $module -force"
modutil -dbdir "sql:$nssdb" -add "Korvo token" -libfile "$module" -force </dev/null
echo
echo "\$ certutil -L -h all -d sql:$nssdb"
listing=$(certutil -L -h all -d "sql:$nssdb")
echo "$listing"
listed=$(echo "$listing" | grep -c '^Korvo central server:' || true)
echo
if [ "$listed" -eq 3 ]; then
  echo "NSS lists the token's 3 certificates (root CA, intermediate CA, user)"
else
  echo "NSS lists $listed certificates of the token, not 3 (root CA, intermediate CA, user)" >&2
  exit 1
fi

echo
echo "demo passed: the module loads, hashes, lists its token and objects, signs through its helper,"
echo "and shows its certificates to NSS ($(( $(date +%s) - started )) s)"
