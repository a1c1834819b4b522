#!/usr/bin/env bash
# One entry point for people and CI: installs what is missing, builds, runs.
#   ./run.sh demo     build, then run the built-in sample (ktexr demo)
#   ./run.sh test     build, then run the whole test suite
#   ./run.sh asan     the test suite under AddressSanitizer + UBSan (leaks on)
#   ./run.sh tsan     the concurrency tests under ThreadSanitizer
#   ./run.sh clang    build with clang++ (warnings as errors) and run the tests
#   ./run.sh fuzz     the libFuzzer targets, FUZZ_SECONDS (default 150) each
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
    cmake --build --preset tsan --target robustness_concurrency robustness_decodePaths_test \
      plugin_exrDecoder_test plugin_encodePaths_test
    ctest --preset tsan -L concurrency
    ;;
  clang)
    build clang
    ctest --preset clang
    ;;
  fuzz)
    # Every target against OpenEXR built from Debian's source with the same
    # sanitizers (scripts/build-instrumented-openexr.sh, cached in
    # build/openexr-fuzz). Seeds: the checked-in corpus fuzz/corpus/<target>,
    # the sample files, the files of OpenEXR's known defect classes, the
    # findings' reproducers and the shared real-world corpus. OpenEXR 3.1.5's
    # DwaCompressor adds offsets to a null pointer for every lossy-DCT channel
    # it decompresses (undefined behaviour without a memory access, open and
    # accepted; see the README's Robustness section); the instrumented build
    # exempts that one check there (fuzz/openexrKnownFindings.ignorelist) so
    # that DWA inputs get on into the decoding behind it. Inputs that found new code stay in build/clang/fuzz/corpus-<target> for
    # the next run, and FUZZ_MERGE=1 adds those that find new code within their
    # first 4 KiB to fuzz/corpus, kept small in the repository. A
    # crash stops with the input saved as build/clang/fuzz/crash-<target>-*.
    scripts/build-instrumented-openexr.sh build/openexr-fuzz
    cmake --preset clang -DKT_FUZZ_OPENEXR_DIR="$PWD/build/openexr-fuzz/install" >/dev/null
    targets=(loadHeader decode encode metadata deflate)
    cmake --build --preset clang --target fuzz_seeds "${targets[@]/#/fuzz_}"
    dir=build/clang/fuzz
    "$dir/fuzz_seeds" "$dir/seeds" >/dev/null
    shared=()
    [[ -d ../shared/corpus ]] && shared=(../shared/corpus)
    total=0
    for target in "${targets[@]}"; do
      mkdir -p "$dir/corpus-$target" "fuzz/corpus/$target"
      seeds=("fuzz/corpus/$target")
      [[ $target == loadHeader || $target == decode ]] &&
        seeds+=(tests/robustness/reproducers "$dir/seeds/samples" "$dir/seeds/known" "${shared[@]}")
      if ! "$dir/fuzz_$target" -max_total_time="${FUZZ_SECONDS:-150}" -timeout=10 -max_len=32768 \
          -close_fd_mask=1 -print_final_stats=1 -dict=fuzz/exr.dict -artifact_prefix="$dir/crash-$target-" \
          "$dir/corpus-$target" "${seeds[@]}" >"$dir/$target.log" 2>&1; then
        tail -n 60 "$dir/$target.log" >&2
        exit 1
      fi
      runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$dir/$target.log")
      total=$((total + runs))
      echo "fuzz_$target: $runs executions, $(sed -n 's/.*cov: \([0-9]*\).*/\1/p' "$dir/$target.log" | tail -n 1) edges, no finding"
      if [[ "${FUZZ_MERGE:-0}" == 1 ]]; then
        "$dir/fuzz_$target" -merge=1 -max_len=4096 "fuzz/corpus/$target" "$dir/corpus-$target" >"$dir/$target-merge.log" 2>&1
      fi
    done
    echo "fuzzing: $total executions in all"
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
