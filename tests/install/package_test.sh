#!/usr/bin/env bash
# Builds the Debian package and checks it as apt would see it and as an
# application would use it, without touching the system:
#   package_test.sh <build dir> <test certificates dir>
# - control fields: name, version, dependencies found by dpkg-shlibdeps;
# - contents: module, helper, p11-kit module file, korvo-store, manual page;
# - unpacked into a scratch root, the module file names a library that is
#   there, and that library shows the token and signs through the packaged
#   helper (checked with OpenSSL against the certificate).
set -euo pipefail
build=$1 certs=$2
work=$(mktemp -d /tmp/korvo-package-XXXXXX)
trap 'rm -rf "$work"' EXIT
fail() { echo "package test: $*" >&2; exit 1; }

(cd "$work" && cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/out" >/dev/null) || fail "cpack failed"
deb=$(ls "$work"/out/*.deb)
[ "$(dpkg-deb -f "$deb" Package)" = korvo-token ] || fail "package name"
depends=$(dpkg-deb -f "$deb" Depends)
for library in libc6 libqt6core6 libqt6network6 libssl3; do
  grep -q "$library" <<<"$depends" || fail "Depends lacks $library: $depends"
done
contents=$(dpkg-deb -c "$deb")
for file in /pkcs11/libTavik_PKCS11.so.1 /pkcs11/KorvoPerformRsa /p11-kit/modules/korvo.module /usr/bin/korvo-store \
            /man1/korvo-store.1; do
  grep -q -- "$file\$" <<<"$contents" || fail "the package lacks $file"
done

root=$work/root
dpkg-deb -x "$deb" "$root"
module=$(sed -n 's/^module:[[:space:]]*//p' "$root"/usr/share/p11-kit/modules/korvo.module)
library=$root$module
[ -f "$library" ] || fail "korvo.module names $module, which the package does not hold"

home=$work/home
mkdir -p "$home/.korvo"
cp -r "$certs/store/." "$home/.korvo/"
HOME=$home pkcs11-tool --module "$library" --list-token-slots 2>&1 | grep -q "Korvo central server" ||
  fail "the packaged module does not show its token"
certificate=$certs/user-company.der
id=$(sha256sum "$certificate" | cut -c1-64)
printf 'signed through the packaged helper' >"$work/data"
HOME=$home pkcs11-tool --module "$library" --sign --mechanism SHA256-RSA-PKCS --id "$id" \
  --input-file "$work/data" --output-file "$work/signature" >/dev/null 2>&1 || fail "signing through the helper failed"
openssl x509 -inform DER -in "$certificate" -pubkey -noout >"$work/key.pem"
openssl dgst -sha256 -verify "$work/key.pem" -signature "$work/signature" "$work/data" >/dev/null ||
  fail "the signature does not verify"
echo "package test: $(basename "$deb") holds what it should and signs through its helper"
