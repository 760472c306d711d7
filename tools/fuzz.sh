#!/usr/bin/env bash
# Lets the fuzzers loose on load files, on the client's bytes, on transfer buffers and on traces.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=tools/usage.sh
. tools/usage.sh

usage() {
    cat <<'TEXT'
Usage: tools/fuzz.sh [--seconds N]

Builds the fuzzers and runs each for N seconds, 60 when not said otherwise, from the seeds in
fuzz/seeds and from what earlier runs found, which is kept in build/fuzz/corpus. An input that
breaks the driver is kept in build/fuzz/found.

Exit status: 0 nothing found, 1 something found or the build failed, 2 wrong usage.
TEXT
}

seconds=60
while (($# > 0)); do
    case $1 in
        --seconds)
            require_number "$1" "${2-}"
            seconds=$2
            shift
            ;;
        --help) show_help ;;
        *) wrong_usage "what is $1?" ;;
    esac
    shift
done

fuzzers=(loadFile putPacket transferBuffer trace)
tools/build.sh fuzz "${fuzzers[@]/%/Fuzzer}"
build=$PWD/build/fuzz
mkdir -p "$build/found"
runs=0
found=0
for fuzzer in "${fuzzers[@]}"; do
    corpus=$build/corpus/$fuzzer
    log=$build/$fuzzer.log
    mkdir -p "$corpus"
    if ! "$build/bin/${fuzzer}Fuzzer" -max_total_time="$seconds" -max_len=8192 -timeout=20 \
        -print_final_stats=1 -artifact_prefix="$build/found/$fuzzer-" \
        "$corpus" "$PWD/fuzz/seeds/$fuzzer" >"$log" 2>&1; then
        found=$((found + 1))
        tail -n 40 "$log"
        printf 'FOUND by %s, see %s and %s\n' "$fuzzer" "$build/found" "$log"
    fi
    count=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    if [[ -z $count ]]; then
        found=$((found + 1))
        printf 'FOUND %s does not run, see %s\n' "$fuzzer" "$log"
    fi
    runs=$((runs + ${count:-0}))
    printf '%s: %s runs\n' "$fuzzer" "${count:-no}"
done
printf 'fuzz: %d runs, %d found\n' "$runs" "$found"
((found == 0))
