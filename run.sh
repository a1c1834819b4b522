#!/usr/bin/env bash
# One entry point for people and CI: installs what is missing, builds, runs.
#   ./run.sh demo     build, then run the built-in sample (ktexr demo)
#   ./run.sh test     build, then run the whole test suite
#   ./run.sh asan     the test suite under AddressSanitizer + UBSan (leaks on)
#   ./run.sh tsan     the concurrency tests under ThreadSanitizer
#   ./run.sh clang    build with clang++ (warnings as errors) and run the tests
#   ./run.sh fuzz     the libFuzzer targets, FUZZ_SECONDS (default 60) each
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
    # Only the executables that hold tests labelled "concurrency".
    cmake --preset tsan >/dev/null
    cmake --build --preset tsan --target robustness_concurrency plugin_exrDecoder_test
    ctest --preset tsan -L concurrency
    ;;
  clang)
    build clang
    ctest --preset clang
    ;;
  fuzz)
    # Both targets from the sample files; a crash stops with the input saved
    # as build/clang/fuzz/crash-<target>-*. Inputs that found new code stay in
    # build/clang/fuzz/corpus-<target> for the next run.
    cmake --preset clang >/dev/null
    cmake --build --preset clang --target fuzz_loadHeader fuzz_decode fuzz_seeds
    dir=build/clang/fuzz
    "$dir/fuzz_seeds" "$dir/seeds" >/dev/null
    for target in loadHeader decode; do
      mkdir -p "$dir/corpus-$target"
      if ! "$dir/fuzz_$target" -max_total_time="${FUZZ_SECONDS:-60}" -timeout=10 -print_final_stats=1 \
          -dict=fuzz/exr.dict -artifact_prefix="$dir/crash-$target-" \
          "$dir/corpus-$target" "$dir/seeds" >"$dir/$target.log" 2>&1; then
        tail -n 60 "$dir/$target.log" >&2
        exit 1
      fi
      echo "fuzz_$target: $(sed -n 's/^stat::number_of_executed_units: *//p' "$dir/$target.log") executions, no crash"
    done
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
