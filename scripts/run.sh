#!/usr/bin/env bash
# The two entry points of the README:
#   scripts/run.sh demo   installs what is needed, builds, and runs the demo against the simulated reader
#   scripts/run.sh test   installs what is needed, builds, and runs every test: plainly, under AddressSanitizer
#                         with UndefinedBehaviorSanitizer, the threaded tests under ThreadSanitizer, and each
#                         fuzz target briefly
set -euo pipefail
cd "$(dirname "$0")/.."
JOBS=${JOBS:-$(nproc)}
FUZZ_SECONDS=${FUZZ_SECONDS:-15}

bash scripts/install-deps.sh

build() { # dir, extra cmake args... (BUILD_TARGET limits what is built)
  local dir=$1; shift
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j "$JOBS" ${BUILD_TARGET:+--target "$BUILD_TARGET"}
}

case "${1:-}" in
  demo)
    build build -DZEL_BENCH=OFF -DZEL_TESTS=OFF
    ./build/bin/tandro demo
    ;;
  test)
    echo "== plain build"
    build build
    (cd build && ctest --output-on-failure -j "$JOBS")
    echo "== AddressSanitizer + UndefinedBehaviorSanitizer"
    build build-asan -DZEL_SANITIZE=address -DZEL_BENCH=OFF
    (cd build-asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
       ctest --output-on-failure -j "$JOBS")
    echo "== ThreadSanitizer (threaded tests)"
    build build-tsan -DZEL_SANITIZE=thread -DZEL_BENCH=OFF
    (cd build-tsan && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -j "$JOBS" -L threaded)
    echo "== fuzz targets, ${FUZZ_SECONDS}s each"
    CC=clang CXX=clang++ BUILD_TARGET=fuzz_all build build-fuzz -DZEL_FUZZ=ON -DZEL_TESTS=OFF -DZEL_BENCH=OFF
    for t in build-fuzz/fuzz/fuzz_*; do
      [ -x "$t" ] || continue
      name=$(basename "$t")
      echo "-- $name"
      corpus=()
      if [ -d "fuzz/corpus/$name" ]; then
        mkdir -p "build-fuzz/corpus/$name"
        corpus=("build-fuzz/corpus/$name" "fuzz/corpus/$name")
      fi
      "$t" -max_total_time="$FUZZ_SECONDS" -rss_limit_mb=2048 "${corpus[@]}" > "build-fuzz/$name.log" 2>&1 ||
        { tail -n 40 "build-fuzz/$name.log"; exit 1; }
      tail -n 1 "build-fuzz/$name.log"
    done
    echo "== all stages passed"
    (cd build && ctest -j "$JOBS" 2>&1 | tail -n 3)
    ;;
  *)
    echo "usage: scripts/run.sh demo|test" >&2
    exit 2
    ;;
esac
