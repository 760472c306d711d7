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
the floor (the least that the work takes), the driver, their ratio, and the goal where there is
one. About three minutes; one with --quick, whose figures are less steady. No card is needed.
docs/benchmarks.md tells what the rows mean. The single results stay in build/bench/results.

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

repetitions=9 seconds=0.1 long_run=500000 batches=40000 transfers=100000 idle=60
while (($# > 0)); do
    case $1 in
        --quick) repetitions=5 seconds=0.05 long_run=20000 batches=10000 transfers=20000 idle=5 ;;
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

java=(java -XX:+UseSerialGC -Xmx256m -cp "$build/lib/dspcard-bench.jar:$build/lib/dspcard.jar")
package=com.zivolt.hardware.dsp.bench
cards=("$bin/cardsim" --cards '4,8' --virtual-time --seed 1 --)

bench exchange_4 exchange_bench 4 "$long_run"
bench exchange_8 exchange_bench 8 "$long_run"
bench queue queue_bench
bench boot boot_bench
run getPacket "${java[@]}" -Djava.library.path="$build/lib/bench" \
    $package.GetPacketBench "$results/getPacket.json" "$batches"
# The load files are looked for in the working directory.
run headroom env -C "$build/firmware" "${cards[@]}" "${java[@]}" \
    -Djava.library.path="$build/lib" $package.Headroom "$results/headroom.json" "$transfers"
bench idle idle_bench "$idle"

status=0
"$bin/bench_table" "$results"/*.json || status=$?
((status <= 1)) || fail "no table, see above"
((status == 0)) || printf 'bench.sh: not all goals are met\n' >&2
exit $status
