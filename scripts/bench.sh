#!/usr/bin/env bash
# Builds the benchmarks (release) and prints one table: each library operation beside the raw
# OpenSSL work it replaces, same inputs, same process, with the ratio library/raw and its target.
#
#   scripts/bench.sh [FILTER]             every row, or the rows whose id matches the regex FILTER
#                                         (ids: see --list; "TrustStore_memory" and
#                                         "CertificateRevocationList_memory" are the memory rows)
#   scripts/bench.sh --list               the row ids
#   scripts/bench.sh --lsan [FILTER]      each benchmark briefly under LeakSanitizer (bench-asan)
#   scripts/bench.sh --callgrind FILTER   callgrind profile of the timed loops of the matching
#                                         benchmarks, e.g. 'validateCertificate_store_rsa/lib'
#
# BENCH_REPETITIONS (default 9) and BENCH_MIN_TIME (seconds per repetition, default 0.05) trade
# time for precision. Results stay in build/bench/results/. A profile runs BENCH_ITERATIONS
# (default 10) iterations and lists CALLGRIND_LINES (default 30) functions.
set -euo pipefail
cd "$(dirname "$0")/.."

mode=table
case "${1:-}" in
    --lsan | --callgrind | --list) mode="${1#--}"; shift ;;
esac
filter="${1:-}"

build() {
    local preset="$1" log="build/$1.log"
    mkdir -p build
    if ! { cmake --preset "$preset" && nice -n 10 cmake --build --preset "$preset"; } >"$log" 2>&1; then
        cat "$log" >&2
        echo "build of preset $preset failed" >&2
        exit 1
    fi
}

memory_selected() {
    [[ -z "$filter" || "TrustStore_memory" =~ $filter ]]
}

list_memory_selected() {
    [[ -z "$filter" || "CertificateRevocationList_memory" =~ $filter ]]
}

case "$mode" in
list)
    build bench
    ./build/bench/bench/foundation_bench --benchmark_list_tests=true | sed 's,/.*,,' | uniq
    echo TrustStore_memory
    echo CertificateRevocationList_memory
    ;;

table)
    build bench
    results=build/bench/results
    rm -rf "$results"
    mkdir -p "$results"
    args=(--benchmark_repetitions="${BENCH_REPETITIONS:-9}"
          --benchmark_min_time="${BENCH_MIN_TIME:-0.05}"
          --benchmark_report_aggregates_only=true
          --benchmark_enable_random_interleaving=true
          --benchmark_out="$results/bench.json" --benchmark_out_format=json)
    table_args=()
    if [[ -n "$filter" ]]; then args+=(--benchmark_filter="$filter"); fi
    if [[ -z "$filter" ]] || ./build/bench/bench/foundation_bench --benchmark_list_tests=true \
            --benchmark_filter="$filter" | grep -q .; then
        echo "Running the benchmarks (console output in $results/console.txt) ..." >&2
        if ! ./build/bench/bench/foundation_bench "${args[@]}" >"$results/console.txt" 2>&1; then
            cat "$results/console.txt" >&2
            exit 1
        fi
        table_args+=(--bench "$results/bench.json")
    fi
    if memory_selected; then
        echo "Measuring trust store memory ..." >&2
        ./build/bench/bench/foundation_bench_memory >"$results/memory.json"
        table_args+=(--memory "$results/memory.json")
    fi
    if list_memory_selected; then
        echo "Measuring revocation list memory ..." >&2
        ./build/bench/bench/foundation_bench_list_memory >"$results/list-memory.json"
        table_args+=(--list-memory "$results/list-memory.json")
    fi
    python3 scripts/bench_table.py "${table_args[@]}"
    ;;

lsan)
    build bench-asan
    export ASAN_OPTIONS="detect_leaks=1:halt_on_error=1"
    args=(--benchmark_repetitions=1 --benchmark_min_time=0.001)
    if [[ -n "$filter" ]]; then args+=(--benchmark_filter="$filter"); fi
    if ! ./build/bench-asan/bench/foundation_bench "${args[@]}" >build/bench-asan/lsan.txt 2>&1; then
        cat build/bench-asan/lsan.txt >&2
        exit 1
    fi
    echo "foundation_bench: no leaks"
    grep "ERROR OCCURRED" build/bench-asan/lsan.txt >&2 || true
    if memory_selected; then
        ./build/bench-asan/bench/foundation_bench_memory >/dev/null
        echo "foundation_bench_memory: no leaks"
    fi
    if list_memory_selected; then
        ./build/bench-asan/bench/foundation_bench_list_memory 1000 >/dev/null
        echo "foundation_bench_list_memory: no leaks"
    fi
    ;;

callgrind)
    if [[ -z "$filter" ]]; then
        echo "--callgrind needs a FILTER, e.g. 'getAsPEMString' (both sides) or 'getAsPEMString/lib'" >&2
        exit 2
    fi
    build bench
    # One profile per matching benchmark. Collection is on only inside the timed loops (see loop()
    # in bench/BenchSupport.hpp), so set-up and the benchmark framework stay out of it.
    for name in $(./build/bench/bench/foundation_bench --benchmark_list_tests=true \
                      --benchmark_filter="$filter" | sed 's,/iterations:[0-9]*$,,'); do
        out="build/bench/callgrind.$(echo "$name" | tr -c 'A-Za-z0-9_\n' '_').out"
        BENCH_ITERATIONS="${BENCH_ITERATIONS:-10}" valgrind --tool=callgrind --collect-atstart=no \
            --callgrind-out-file="$out" ./build/bench/bench/foundation_bench \
            --benchmark_filter="^${name}(/iterations:[0-9]+)?\$" --benchmark_repetitions=1 \
            --benchmark_format=json >"$out.json" 2>"$out.log" || {
            cat "$out.log" >&2
            exit 1
        }
        python3 scripts/bench_profile.py "$out" "$out.json" "${CALLGRIND_LINES:-30}"
    done
    ;;
esac
