#!/usr/bin/env bash
# Builds the module and shows what it does, in a sandbox home directory so the
# real one is never touched.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bash "$root/tools/install-deps.sh"

build="$root/build"
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)" --target Tavik_PKCS11 korvo_demo >/dev/null

module="$build/src/libTavik_PKCS11.so.1"
sandbox=$(mktemp -d /tmp/korvo-demo-XXXXXX)
trap 'rm -rf "$sandbox"' EXIT
export HOME="$sandbox"
unset XDG_CONFIG_HOME

echo "== The module =="
echo "File:   $module"
objdump -p "$module" | awk '/SONAME/ {print "SONAME: " $2}'
exported=$(nm -D --defined-only "$module" | awk '{print $NF}')
echo "Exported symbols: $(echo "$exported" | grep -c . || true) (only Cryptoki C_* entry points may appear)"
[ -n "$exported" ] && echo "$exported" | sed 's/^/  /'

# A sample file to hash, and the system tools' digests beside ours.
sample="$sandbox/sample.txt"
printf 'The Korvo token hashes this file.\n' > "$sample"
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
