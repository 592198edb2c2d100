#!/usr/bin/env bash
# Installs every Debian package the project needs. Idempotent: does nothing when all are there.
# Run as root on Debian 12 (or with sudo available).
set -euo pipefail

PACKAGES=(
  build-essential g++ cmake make pkg-config
  libssl-dev zlib1g-dev libstb-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev
  ccache clang-format
  nodejs
  python3
)

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
# npm may come with Node.js itself; only the Debian package is asked for when there is none.
if ! command -v npm >/dev/null 2>&1; then
  missing+=(npm)
fi
if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all packages present"
else
  SUDO=""
  if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
  echo "install-deps: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -q
  $SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

# The independent NDEF parser of the NDEF cross-check test, pinned by its lock file.
NDEF_CHECK="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/tests/ndef_check"
if [ -d "$NDEF_CHECK/node_modules/ndef" ]; then
  echo "install-deps: ndef package present"
else
  # Not fatal: without it the cross-check test skips and says why.
  (cd "$NDEF_CHECK" && npm ci --no-audit --no-fund) ||
    echo "install-deps: the npm package ndef could not be installed; the NDEF cross-check test will skip"
fi

# The independent BER-TLV parser of the payment card cross-check test, pinned by its lock file.
EMV_CHECK="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/tests/emv_check"
if [ -d "$EMV_CHECK/node_modules/ber-tlv" ]; then
  echo "install-deps: ber-tlv package present"
else
  # Not fatal: without it the cross-check test skips and says why.
  (cd "$EMV_CHECK" && npm ci --no-audit --no-fund) ||
    echo "install-deps: the npm package ber-tlv could not be installed; the payment card cross-check test will skip"
fi
