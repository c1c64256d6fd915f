#!/bin/sh
# Real fuzzing: builds every fuzz target and the whole library with clang (libFuzzer
# coverage, AddressSanitizer, UndefinedBehaviorSanitizer), runs each target for
# FUZZ_SECONDS (60) and merges the inputs that add coverage into fuzz/corpus/<name>/.
# A crash, leak, hang or out-of-memory stops the run; its input is kept under
# build/fuzz/artifacts/ to be fixed and added to the corpus.
#
#   scripts/fuzz.sh [target...]     (default: every fuzz/*_fuzz.cpp)
set -eu
seconds=${FUZZ_SECONDS:-60}
jobs=${JOBS:-2}
dir=build/fuzz

if [ "$#" -gt 0 ]; then
    targets="$*"
else
    targets=$(for f in fuzz/*_fuzz.cpp; do basename "$f" .cpp; done)
fi

CC=clang CXX=clang++ cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DOBX_FUZZ=ON -DOBX_BUILD_BENCH=OFF \
    "-DCMAKE_CXX_FLAGS=-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined" >/dev/null
# shellcheck disable=SC2086
cmake --build "$dir" -j "$jobs" --target $targets

mkdir -p "$dir/artifacts"
export ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1
for target in $targets; do
    corpus=fuzz/corpus/${target%_fuzz}
    mkdir -p "$corpus"
    work=$(mktemp -d)
    echo "fuzz: $target for $seconds s"
    if ! "$dir/fuzz/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=65536 \
        -artifact_prefix="$dir/artifacts/$target-" -print_final_stats=1 "$work" "$corpus" >"$dir/$target.log" 2>&1; then
        tail -n 40 "$dir/$target.log" >&2
        echo "fuzz: $target failed; the input is in $dir/artifacts/" >&2
        rm -rf "$work"
        exit 1
    fi
    grep -E '^stat::number_of_executed_units|^stat::peak_rss_mb' "$dir/$target.log" | tr '\n' ' '
    echo
    before=$(ls "$corpus" | wc -l)
    "$dir/fuzz/$target" -merge=1 "$corpus" "$work" >"$dir/$target.merge.log" 2>&1
    echo "fuzz: $target corpus $before -> $(ls "$corpus" | wc -l) inputs"
    rm -rf "$work"
done
echo "fuzz: every target ran clean"
