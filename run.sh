#!/usr/bin/env bash
# One entry point for people and CI: installs what is missing, builds, runs.
#   ./run.sh demo     build, then run the built-in sample (ktexr demo)
#   ./run.sh test     build, then run the whole test suite
#   ./run.sh asan     the test suite under AddressSanitizer + UBSan (leaks on)
#   ./run.sh tsan     the concurrency tests under ThreadSanitizer
#   ./run.sh clang    build with clang++ (warnings as errors) and run the tests
#   ./run.sh bench    build and run the benchmarks against OpenEXR
set -euo pipefail
cd "$(dirname "$0")"
scripts/setup-debian.sh

build() {  # build <preset>
  cmake --preset "$1" >/dev/null
  cmake --build --preset "$1"
}

case "${1:-}" in
  demo)
    build release
    build/release/tools/ktexr demo build/demo
    ;;
  test)
    build release
    ctest --preset release
    ;;
  asan)
    build asan
    ctest --preset asan
    ;;
  tsan)
    build tsan
    ctest --preset tsan -L concurrency
    ;;
  clang)
    build clang
    ctest --preset clang
    ;;
  bench)
    build release
    for b in build/release/bench/*_bench; do [[ -x "$b" ]] && "$b"; done
    ;;
  *)
    sed -n '2,9p' "$0" | sed 's/^# \{0,1\}//' >&2
    exit 2
    ;;
esac
