#!/usr/bin/env bash
# Installs the Debian packages that the build, the tests and the demo need, when missing.
# Usage: scripts/install-deps.sh [package...]   (as root; no-op when all are present)
set -euo pipefail

want=(cmake make g++ gcc g++-multilib qemu-user libgtest-dev googletest clang
      libclang-rt-14-dev clang-format valgrind "$@")
missing=()
for p in "${want[@]}"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ "${#missing[@]}" -gt 0 ]; then
    echo "installing: ${missing[*]}"
    SUDO=""
    [ "$(id -u)" -eq 0 ] || SUDO="sudo"
    $SUDO apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends \
        "${missing[@]}" >/dev/null
fi
