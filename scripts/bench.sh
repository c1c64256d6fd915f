#!/bin/sh
# Benchmarks: obx_read against plain decompression on large generated files, then the
# micro-benchmarks of the hot functions.
#
#   scripts/bench.sh [build folder] [data folder]
#
# The input is written once by obx gen, as a collector writes, into the data folder
# (outside the repository), and reused while what obx gen writes and the sizes asked for
# stay the same. Settings:
#   OBX_BENCH_RUNS          timed runs per case, the best counts (3)
#   OBX_BENCH_EVENTS_MIB    uncompressed MiB of event blocks (1024)
#   OBX_BENCH_COUNTERS_MIB  uncompressed MiB of counter blocks (256)
#   OBX_BENCH_MICRO         0 skips the micro-benchmarks
# Targets, checked here: ndjson and influx within 3 times the time of gzip -dc of the
# same file, json within 3.5 times, obx info within the time of gzip -dc, obx influx
# within 1.5 times, the binary
# re-export of the same events stored as chunks of gzip pages within 1.5 times, and a
# peak resident size below 64 MiB; obx gen writes at least 300 MB/s of uncompressed data.
set -eu

build=${1:-build/release}
data=${2:-$HOME/.cache/obx_read_bench}
runs=${OBX_BENCH_RUNS:-3}
events_mib=${OBX_BENCH_EVENTS_MIB:-1024}
counters_mib=${OBX_BENCH_COUNTERS_MIB:-256}
micro=${OBX_BENCH_MICRO:-1}

reader=$build/obx_read
obx=$build/obx
runner=$build/bench/obx_bench_run
for tool in "$reader" "$obx" "$runner"; do
    if [ ! -x "$tool" ]; then
        echo "bench: $tool is missing; build with OBX_BUILD_BENCH=ON first" >&2
        exit 2
    fi
done

# ---- input, made once by obx gen ----------------------------------------------------------
# One source at 100000 events a second writes about 3.6 MiB of event blocks a second; a
# counters block is one 256-byte chunk a second and source. Each data file is made to hold
# its whole span (file size and age limits out of the way).
export OBX_HOST_NAME=bench
seconds=$(awk -v m="$events_mib" 'BEGIN { s = int(m / 3.6 + 0.5); print s < 1 ? 1 : s }')
counter_blocks=$((counters_mib * 4096))
counter_sources=$(((counter_blocks + 604799) / 604800))
counter_seconds=$(((counter_blocks + counter_sources - 1) / counter_sources))
whole="--file-size 1048576 --file-age 604800"
# What obx gen writes, by the bytes of a small run: a new obx gen that writes other bytes
# makes new input.
probe=$(mktemp -d)
"$obx" -v 4 gen --out "$probe/g" --sources 1 --seconds 2 --rate 10 >/dev/null
fingerprint=$(find "$probe/g" -type f | sort | xargs cat | md5sum | cut -d' ' -f1)
rm -rf "$probe"
want="obx gen $fingerprint
events_mib $events_mib
counters_mib $counters_mib"
have=$(head -n 3 "$data/stamp" 2>/dev/null || true)
if [ "$have" != "$want" ]; then
    echo "bench: writing $events_mib MiB of events and $counters_mib MiB of counters with obx gen in $data"
    mkdir -p "$data"
    rm -rf "$data/wrapped" "$data/pages" "$data/counters" "$data/stamp"
    # shellcheck disable=SC2086
    "$obx" -v 4 gen --out "$data/wrapped" --sources 1 --seconds "$seconds" --rate 100000 --gzip-files $whole --json >"$data/wrapped.json"
    # shellcheck disable=SC2086
    "$obx" -v 4 gen --out "$data/pages" --sources 1 --seconds "$seconds" --rate 100000 --compress gzip $whole >/dev/null
    # shellcheck disable=SC2086
    "$obx" -v 4 gen --out "$data/counters" --sources "$counter_sources" --seconds "$counter_seconds" --rate 0 --gzip-files $whole --json >"$data/counters.json"
    echo "$want" >"$data/stamp"
fi
events_file=$(find "$data/wrapped/data" -name 'events_*')
pages_file=$(find "$data/pages/data" -name 'events_*')
counters_files=$(find "$data/counters/data" -name 'counters_*' | sort | tr '\n' ' ')
events=$(sed -n 's/.*"cpu_sample": \([0-9]*\), "port_sample": \([0-9]*\), "job_end": \([0-9]*\).*/\1 \2 \3/p' "$data/wrapped.json" | awk '{ print $1 + $2 + $3 }')
blocks=$(sed -n 's/.*"counter_blocks": \([0-9]*\).*/\1/p' "$data/counters.json")
schema=$data/wrapped/schema

# ---- timing -----------------------------------------------------------------------------
# Best wall time and largest peak of `runs` runs: "<seconds> <KiB>".
best_of() {
    i=0
    best=""
    peak=0
    while [ "$i" -lt "$runs" ]; do
        result=$("$runner" -- "$@")
        seconds=${result%% *}
        rest=${result#* }
        kib=${rest%% *}
        status=${rest#* }
        if [ "$status" -ne 0 ]; then
            echo "bench: '$*' ended with status $status" >&2
            exit 1
        fi
        best=$(awk -v a="$seconds" -v b="$best" 'BEGIN { print (b == "" || a < b) ? a : b }')
        [ "$kib" -gt "$peak" ] && peak=$kib
        i=$((i + 1))
    done
    echo "$best $peak"
}

failed=0
report_header() {
    printf '\n%s\n' "$1"
    printf '%-22s %9s %7s %8s %12s %9s  %s\n' case seconds ratio target "records/s" "peak MiB" result
}
# report <case> <seconds KiB> <baseline seconds> <target ratio or -> <records>
report() {
    line=$(awk -v name="$1" -v t="$2" -v kib="$3" -v base="$4" -v target="$5" -v n="$6" 'BEGIN {
        ratio = t / base
        rate = n <= 0 ? "-" : (n / t >= 1e6 ? sprintf("%.2fM", n / t / 1e6) : sprintf("%.1fk", n / t / 1e3))
        mib = kib / 1024
        verdict = "PASS"
        if (target != "-" && ratio > target) verdict = "FAIL (time)"
        if (mib >= 64) verdict = "FAIL (memory)"
        if (target == "-" && mib < 64) verdict = "-"
        printf "%-22s %9.2f %7.2f %8s %12s %9.1f  %s", name, t, ratio, target, rate, mib, verdict
    }')
    echo "$line"
    case $line in *FAIL*) failed=1 ;; esac
}

# run_file <files> <records> <format>...: files are paths without blanks, split on blanks.
run_file() {
    files=$1
    records=$2
    shift 2
    # shellcheck disable=SC2086
    result=$(best_of gzip -dc $files)
    base=${result% *}
    report "gzip -dc" "$base" "${result#* }" "$base" - 0
    # ISA-L's own gzip, the floor of inflating alone.
    if command -v igzip >/dev/null 2>&1; then
        # shellcheck disable=SC2086
        result=$(best_of igzip -dc $files)
        report "igzip -dc" "${result% *}" "${result#* }" "$base" - 0
    fi
    for format in "$@"; do
        case $format in
            json) target=3.5 ;;
            *) target=3.0 ;;
        esac
        # shellcheck disable=SC2086
        result=$(best_of "$reader" -s "$schema" -f "$format" $files)
        report "obx_read -f $format" "${result% *}" "${result#* }" "$base" "$target" "$records"
    done
}

report_header "events: about $events_mib MiB of event blocks, $events events ($(du -m "$events_file" | cut -f1) MiB gzip), best of $runs"
run_file "$events_file" "$events" ndjson json influx
# obx info reads the same file once and renders nothing: within the time of gzip -dc.
if [ -x "$build/obx" ]; then
    result=$(best_of "$build/obx" info -s "$schema" "$events_file")
    report "obx info" "${result% *}" "${result#* }" "$base" 1.0 "$events"
    # Every event as a full point of line protocol: within 1.5 times gzip -dc.
    result=$(best_of "$build/obx" influx -s "$schema" "$events_file")
    report "obx influx" "${result% *}" "${result#* }" "$base" 1.5 "$events"
fi
# The same events as chunks of gzip pages, re-exported into a fresh folder each run.
out_dir=$(mktemp -d)
trap 'rm -rf "$out_dir"' EXIT
report_header "bin: the same events as $(du -m "$pages_file" | cut -f1) MiB of gzip pages, re-exported, best of $runs"
result=$(best_of gzip -dc "$events_file")
base=${result% *}
report "gzip -dc (wrapped)" "$base" "${result#* }" "$base" - 0
result=$(best_of sh -c 'rm -rf "$1"/* && exec "$2" -v 3 -s "$3" -f bin --output-dir "$1" "$4"' sh "$out_dir" "$reader" "$schema" "$pages_file")
report "obx_read -f bin" "${result% *}" "${result#* }" "$base" 1.5 "$events"
rm -rf "${out_dir:?}"/*

# shellcheck disable=SC2086
report_header "counters: $counters_mib MiB of counter blocks, $blocks blocks ($(du -cm $counters_files | tail -n 1 | cut -f1) MiB gzip), best of $runs"
run_file "$counters_files" "$blocks" ndjson json

# ---- obx gen -----------------------------------------------------------------------------
# obx gen of uncompressed data into a fresh folder, in MB/s of data files (target at least 300).
if [ -x "$build/obx" ]; then
    gen_dir=$(mktemp -d)
    trap 'rm -rf "$out_dir" "$gen_dir"' EXIT
    set -- -v 4 gen --sources 2 --seconds 30 --rate 100000
    summary=$("$build/obx" "$@" --json --out "$gen_dir/once")
    bytes=$(echo "$summary" | sed -n 's/.*"data_bytes": \([0-9]*\).*/\1/p')
    records=$(echo "$summary" | sed -n 's/.*"cpu_sample": \([0-9]*\), "port_sample": \([0-9]*\), "job_end": \([0-9]*\).*/\1 \2 \3/p' | awk '{ print $1 + $2 + $3 }')
    result=$(best_of sh -c 'rm -rf "$1" && shift && exec "$@"' sh "$gen_dir/run" "$build/obx" "$@" --out "$gen_dir/run")
    printf '\n%s\n' "obx gen: $(awk -v b="$bytes" 'BEGIN { printf "%.0f", b / 1e6 }') MB of uncompressed data files, best of $runs"
    awk -v t="${result% *}" -v b="$bytes" -v kib="${result#* }" 'BEGIN {
        rate = b / t / 1e6
        met = (rate >= 300)
        verdict = met ? "PASS" : "FAIL (time)"
        printf "%-22s %9.2f %9.0f MB/s  target 300 MB/s  peak %.1f MiB  %s\n", "obx gen", t, rate, kib / 1024, verdict
        exit (met ? 0 : 1)
    }' || failed=1
fi

# ---- hot functions ----------------------------------------------------------------------
if [ "$micro" != 0 ] && [ -x "$build/bench/obx_bench" ]; then
    echo
    "$build/bench/obx_bench" --benchmark_min_time=0.2
fi

echo
if [ "$failed" -ne 0 ]; then
    echo "bench: some targets were missed"
    exit 1
fi
echo "bench: all targets met"
