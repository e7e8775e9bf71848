#!/usr/bin/env bash
# Installs the Debian package on this machine with apt, uses the token as an
# application does through p11-kit, and purges the package again: meant for
# a throw-away machine (CMake option KORVO_SYSTEM_TESTS, needs root).
#   system_package_test.sh <build dir> <test certificates dir>
# - after the install p11-kit lists the token;
# - p11-kit's proxy module shows its certificates and signs through the
#   packaged helper (checked with OpenSSL);
# - after the purge nothing of the package is left.
set -euo pipefail
build=$1 certs=$2
work=$(mktemp -d /tmp/korvo-system-XXXXXX)
fail() { echo "system package test: $*" >&2; exit 1; }
cleanup() { apt-get purge -y -qq korvo-token >/dev/null 2>&1 || true; rm -rf "$work"; }
trap cleanup EXIT

(cd "$work" && cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/out" >/dev/null) || fail "cpack failed"
deb=$(ls "$work"/out/*.deb)
files=$(dpkg-deb -c "$deb" | awk '{print substr($6, 2)}' | grep -v '/$')
DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$deb" >/dev/null || fail "apt could not install $deb"
p11-kit list-modules | grep -q "token: Korvo central server" || fail "p11-kit does not list the token"

proxy=$(pkg-config --variable=proxy_module p11-kit-1 2>/dev/null || true)
[ -n "$proxy" ] || proxy=/usr/lib/x86_64-linux-gnu/p11-kit-proxy.so
home=$work/home
mkdir -p "$home/.korvo"
cp -r "$certs/store/." "$home/.korvo/"
token=(--module "$proxy" --token-label "Korvo central server")
shown=$(HOME=$home pkcs11-tool "${token[@]}" -O 2>/dev/null | grep -c "Certificate Object" || true)
[ "$shown" -ge 1 ] || fail "the proxy shows no certificate of the token"
certificate=$certs/user-company.der
printf 'signed through p11-kit' >"$work/data"
HOME=$home pkcs11-tool "${token[@]}" --sign -m SHA256-RSA-PKCS --id "$(sha256sum "$certificate" | cut -c1-64)" \
  -i "$work/data" -o "$work/signature" >/dev/null 2>&1 || fail "signing through the proxy failed"
openssl x509 -inform DER -in "$certificate" -pubkey -noout >"$work/key.pem"
openssl dgst -sha256 -verify "$work/key.pem" -signature "$work/signature" "$work/data" >/dev/null ||
  fail "the signature does not verify"

DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq korvo-token >/dev/null || fail "apt could not purge the package"
for file in $files; do [ ! -e "$file" ] || fail "$file is left after the purge"; done
! p11-kit list-modules 2>/dev/null | grep -q "Korvo central server" || fail "p11-kit still lists the token"
echo "system package test: installed, listed by p11-kit, signed through the proxy, purged without a trace"
