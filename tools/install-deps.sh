#!/usr/bin/env bash
# Installs every Debian package that building, testing and demonstrating the
# module needs. Safe to run again: when everything is present it prints nothing.
set -euo pipefail

packages=(
  build-essential cmake pkg-config binutils
  file dpkg-dev   # cpack -G DEB: file finds the binaries, dpkg-shlibdeps their dependencies
  qt6-base-dev
  libssl-dev openssl
  libnss3-dev libnspr4-dev
  libp11-kit-dev   # where p11-kit looks for modules and module files: the install goes there
  libnss3   # NSS's software token (libsoftokn3.so), the peer of the whole-library differential tests
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  opensc softhsm2 python3-pykcs11
  libnss3-tools gnutls-bin libengine-pkcs11-openssl p11-kit p11-kit-modules ca-certificates   # client applications
  clang libclang-rt-14-dev   # the fuzz build: clang, libFuzzer and the sanitizer runtimes
  libtsan2 libasan8 libubsan1   # g++'s ThreadSanitizer (build-tsan/) and AddressSanitizer + UBSan (build-asan/) runtimes
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q '^install ok installed$'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null 2>&1 || { echo "install-deps: need root (or sudo) to install: ${missing[*]}" >&2; exit 1; }
  sudo="sudo"
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
