#!/usr/bin/env bash
# Installs the build into a staging root (DESTDIR) and checks what an
# application finds there:
#   install_test.sh <build dir> <module file dir>
# - the p11-kit module file names the installed library by a path that exists;
# - that library carries the SONAME its file name promises and is stripped;
# - KorvoPerformRsa lies beside it, executable and stripped;
# - the staged library loads and shows the token "Korvo central server".
set -euo pipefail
build=$1 configs=$2
stage=$(mktemp -d /tmp/korvo-install-XXXXXX)
trap 'rm -rf "$stage"' EXIT
fail() { echo "install test: $*" >&2; exit 1; }

DESTDIR=$stage cmake --install "$build" >/dev/null
modfile=$stage$configs/korvo.module
[ -f "$modfile" ] || fail "no module file at $modfile"
module=$(sed -n 's/^module:[[:space:]]*//p' "$modfile")
case $module in /*) ;; *) fail "module path '$module' is not absolute" ;; esac
library=$stage$module
[ -f "$library" ] || fail "the module file names $module, which the install did not put there"
soname=$(readelf -d "$library" | sed -n 's/.*(SONAME).*\[\(.*\)\].*/\1/p')
[ "$soname" = "$(basename "$module")" ] || fail "SONAME '$soname' does not match $(basename "$module")"
helper=$(dirname "$library")/KorvoPerformRsa
[ -x "$helper" ] || fail "KorvoPerformRsa is not beside the module"
for binary in "$library" "$helper"; do
  if readelf -S "$binary" | grep -Eq '\.(symtab|debug_info)'; then fail "$binary is not stripped"; fi
done
HOME=$stage pkcs11-tool --module "$library" --list-token-slots 2>&1 | grep -q "Korvo central server" ||
  fail "the staged module does not show its token"
echo "install test: $module and its helper installed, stripped, loadable"
