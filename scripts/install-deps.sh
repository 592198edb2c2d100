#!/usr/bin/env bash
# Installs the Debian packages the project needs. Idempotent: does nothing when all are there.
# Run as root on Debian 12 (or with sudo available).
#   install-deps.sh demo   what building the library, the tool and the simulated reader needs
#   install-deps.sh test   that and what the tests need: GoogleTest, Google Benchmark, clang for the fuzz
#                          targets and the sanitizers, Node.js and the npm oracles of the cross-checks
set -euo pipefail
PROFILE=${1:-test}
case "$PROFILE" in
  demo|test) ;;
  *) echo "usage: install-deps.sh [demo|test]" >&2; exit 2 ;;
esac

PACKAGES=(
  build-essential g++ cmake make pkg-config
  libssl-dev zlib1g-dev libstb-dev libjpeg62-turbo-dev libcli11-dev
  ccache
)
if [ "$PROFILE" = test ]; then
  PACKAGES+=(
    libgtest-dev libgmock-dev libbenchmark-dev
    clang libclang-rt-14-dev
    clang-format
    nodejs
    python3
  )
fi

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
# npm may come with Node.js itself; only the Debian package is asked for when there is none.
if [ "$PROFILE" = test ] && ! command -v npm >/dev/null 2>&1; then
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

[ "$PROFILE" = test ] || exit 0

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
# The npm oracles of the cross-check tests, each pinned by its lock file. Not fatal: without them those tests
# skip and say why. A registry that cannot be reached is given up on within seconds.
NPM_QUICK=(--no-audit --no-fund --fetch-retries=0 --fetch-timeout=5000)
registry_reachable=""
npm_oracle() { # folder, package, what the package checks
  local dir="$ROOT/tests/$1"
  if [ -d "$dir/node_modules/$2" ]; then
    echo "install-deps: $2 package present"
    return 0
  fi
  if [ -z "$registry_reachable" ]; then
    if timeout 10 npm ping "${NPM_QUICK[@]}" >/dev/null 2>&1; then registry_reachable=yes; else registry_reachable=no; fi
  fi
  if [ "$registry_reachable" = yes ] && (cd "$dir" && timeout 120 npm ci "${NPM_QUICK[@]}"); then
    return 0
  fi
  echo "install-deps: the npm package $2 could not be installed; the $3 cross-check test will skip"
}
npm_oracle ndef_check ndef "NDEF"
npm_oracle vcard_check vcf "contact record"
npm_oracle emv_check ber-tlv "payment card"
