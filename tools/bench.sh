#!/usr/bin/env bash
# What the driver costs beside the least that the same work takes.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=tools/usage.sh
. tools/usage.sh

usage() {
    cat <<'TEXT'
Usage: tools/bench.sh [--quick]

Installs what is missing from Debian's packages, builds, runs all benchmarks and prints one table:
the floor (the least that the work takes), the driver, their ratio and the goal. Then, below it, how
late the polls of the cards come while all processors and the disk are kept busy, without and with
the permission for real-time priority. About eight minutes; one with --quick, whose figures are
less steady. No card is needed. docs/benchmarks.md tells what the rows mean. The single
results stay in build/bench/results.

Exit status: 0 all goals met, 1 not all or something failed, 2 wrong usage.
TEXT
}

fail() {
    printf 'bench.sh: %s\n' "$1" >&2
    exit 1
}

# run NAME COMMAND...: the command's console goes into NAME.log.
run() {
    local name=$1 log
    shift
    log=$results/$name.log
    printf 'bench.sh: %s\n' "$name" >&2
    "$@" >"$log" 2>&1 || {
        tail -n 20 "$log" >&2
        fail "$name failed, see above; all it said is in $log"
    }
}

# bench NAME PROGRAM [ARGUMENT...]: the figures of a Google Benchmark program go into NAME.json.
bench() {
    local name=$1 program=$2
    shift 2
    run "$name" "$bin/$program" "$@" --benchmark_out="$results/$name.json" \
        --benchmark_repetitions="$repetitions" --benchmark_min_time="$seconds" \
        --benchmark_enable_random_interleaving=true
}

# Two busy shells for each processor, and two writers that make the disk write; each is a process
# group of its own, so that what it started ends with it.
load=()
start_load() {
    local i
    disk=$(mktemp -d "$build/load.XXXXXX")
    set -m
    for ((i = 2 * $(nproc); i > 0; --i)); do
        while :; do :; done &
        load+=($!)
    done
    for i in 1 2; do
        while :; do
            dd if=/dev/zero of="$disk/$i" bs=1M count=64 conv=fsync status=none
        done &
        load+=($!)
    done
    set +m
}
stop_load() {
    if ((${#load[@]} > 0)); then
        kill -- "${load[@]/#/-}" || true
        wait "${load[@]}" 2>/dev/null || true
        load=()
        rm -rf "$disk"
    fi
}

# poll_delay NAME TEXT COMMAND...: runs poll_delay by the command, where no load files are.
poll_delay() {
    local name=$1 text=$2
    shift 2
    run "$name" env -C "$results" "$@" "$bin/poll_delay" "$polled"
    printf 'poll delay %s: %s\n' "$text" "$(tail -n 1 "$results/$name.log")" \
        >>"$results/poll_delay"
}

repetitions=9 seconds=0.1 batches=40000 listened=60 polled=180
while (($# > 0)); do
    case $1 in
        --quick) repetitions=5 seconds=0.05 batches=10000 listened=10 polled=5 ;;
        --help) show_help ;;
        *) wrong_usage "what is $1?" ;;
    esac
    shift
done

tools/build.sh bench benchmarks
build=$PWD/build/bench
bin=$build/bin
results=$build/results
rm -rf "$results"
mkdir -p "$results"

bench exchange_4 exchange_bench 4
bench exchange_8 exchange_bench 8
bench backlog backlog_bench
bench record record_bench
# java_bench NAME CLASS ARGUMENT...: the same of a Java program.
java_bench() {
    local name=$1 class=$2
    shift 2
    run "$name" java -XX:+UseSerialGC -Xmx256m \
        "-Ddspcard.library=$build/lib/bench/libdspcard.so" \
        -cp "$build/lib/dspcard-bench.jar:$build/lib/dspcard.jar" \
        "com.zivolt.hardware.dsp.bench.$class" "$results/$name.json" "$@"
}
java_bench getPacket GetPacketBench "$batches"
java_bench listener ListenerBench "$listened"

without=(prlimit --rtprio=0)
((EUID != 0)) || without=(setpriv '--bounding-set=-sys_nice,-ipc_lock' "${without[@]}")
trap stop_load EXIT
trap 'exit 1' INT TERM
start_load
poll_delay poll_delay_without "without permission" "${without[@]}"
poll_delay poll_delay_with "with what permission there is" env
stop_load

status=0
"$bin/bench_table" "$results"/*.json || status=$?
((status <= 1)) || fail "no table, see above"
cat "$results/poll_delay"
! grep -q 'NO$' "$results/poll_delay" || status=1
((status == 0)) || printf 'bench.sh: not all goals are met\n' >&2
exit $status
