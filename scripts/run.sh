#!/usr/bin/env bash
# The two entry points of the README:
#   scripts/run.sh demo   installs what is needed, builds, and runs the demo against the simulated reader
#   scripts/run.sh test   installs what is needed, builds, and runs every test: plainly, then the examples
#                         built against the installed package, under AddressSanitizer with
#                         UndefinedBehaviorSanitizer, the threaded tests under ThreadSanitizer, and the fuzz
#                         targets for a total time budget
# Each stage prints its time. ccache is used when installed (the install script installs it).
set -euo pipefail
cd "$(dirname "$0")/.."
JOBS=${JOBS:-$(nproc)}
# Seconds shared by all fuzz targets, and the least any one target gets.
FUZZ_BUDGET=${FUZZ_BUDGET:-360}
FUZZ_MIN_SECONDS=${FUZZ_MIN_SECONDS:-4}

# ccache keys on paths relative to the tree, so that every build tree and clone shares one cache.
export CCACHE_BASEDIR="$PWD"
export CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime

STAGE_NAME=""
STAGE_START=0
stage() { # name: ends the running stage (printing its time) and starts the next
  local now=$SECONDS
  if [ -n "$STAGE_NAME" ]; then
    printf '== %s: %d s\n' "$STAGE_NAME" $((now - STAGE_START))
  fi
  STAGE_NAME=$1
  STAGE_START=$now
  [ -n "$STAGE_NAME" ] && echo "== $STAGE_NAME"
  return 0
}

build() { # dir, extra cmake args... (BUILD_TARGETS, when set, limits what is built)
  # Every option is set on each call, so that no tree keeps what an earlier command chose (the demo's
  # build without tests, say); the arguments given come last and win.
  local dir=$1; shift
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZEL_TESTS=ON -DZEL_BENCH=ON -DZEL_FUZZ=OFF \
    -DZEL_SANITIZE= "$@" >/dev/null
  # shellcheck disable=SC2086
  cmake --build "$dir" -j "$JOBS" ${BUILD_TARGETS:+--target $BUILD_TARGETS}
}

case "${1:-}" in
  demo)
    bash scripts/install-deps.sh demo
    build build -DZEL_BENCH=OFF -DZEL_TESTS=OFF
    ./build/bin/tandro demo
    ;;
  test)
    stage "install"
    bash scripts/install-deps.sh test
    stage "plain build"
    build build
    stage "plain tests"
    (cd build && ctest --output-on-failure --no-tests=error -j "$JOBS")
    stage "installed package: examples built with pkg-config and CMake, run against tandro-sim"
    JOBS=$JOBS bash tests/installed_examples.sh build
    stage "AddressSanitizer + UndefinedBehaviorSanitizer build"
    build build-asan -DZEL_SANITIZE=address -DZEL_BENCH=OFF
    stage "AddressSanitizer + UndefinedBehaviorSanitizer tests"
    (cd build-asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
       ctest --output-on-failure --no-tests=error -j "$JOBS")
    stage "ThreadSanitizer build (threaded tests only)"
    BUILD_TARGETS="zel_threaded_tests" build build-tsan -DZEL_SANITIZE=thread -DZEL_BENCH=OFF
    stage "ThreadSanitizer tests"
    (cd build-tsan && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure --no-tests=error -j "$JOBS" -L threaded)
    stage "fuzz build"
    CC=clang CXX=clang++ BUILD_TARGETS=fuzz_all build build-fuzz -DZEL_FUZZ=ON -DZEL_TESTS=OFF -DZEL_BENCH=OFF
    targets=()
    for t in build-fuzz/fuzz/fuzz_*; do [ -x "$t" ] && targets+=("$t"); done
    [ ${#targets[@]} -gt 0 ] || { echo "-- no fuzz target was built"; exit 1; }
    per=$(( ${#targets[@]} > 0 ? FUZZ_BUDGET / ${#targets[@]} : 0 ))
    [ "$per" -lt "$FUZZ_MIN_SECONDS" ] && per=$FUZZ_MIN_SECONDS
    stage "fuzz targets: ${#targets[@]} of ${per} s each (every seed first)"
    for t in "${targets[@]}"; do
      name=$(basename "$t")
      corpus=()
      if [ -d "fuzz/corpus/$name" ]; then
        mkdir -p "build-fuzz/corpus/$name"
        corpus=("build-fuzz/corpus/$name" "fuzz/corpus/$name")
      fi
      "$t" -max_total_time="$per" -rss_limit_mb=2048 "${corpus[@]}" > "build-fuzz/$name.log" 2>&1 ||
        { echo "-- $name failed"; tail -n 40 "build-fuzz/$name.log"; exit 1; }
      echo "-- $name: $(tail -n 1 "build-fuzz/$name.log")"
    done
    stage ""
    echo "== all stages passed in $SECONDS s"
    (cd build && ctest -j "$JOBS" 2>&1 | tail -n 3)
    ;;
  *)
    echo "usage: scripts/run.sh demo|test" >&2
    exit 2
    ;;
esac
