#!/usr/bin/env bash
# Runs the trials that try to break the driver, whole, and sums them up.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=tools/usage.sh
. tools/usage.sh

all=(schedules fuzz soak recorder)

usage() {
    cat <<TEXT
Usage: tools/trials.sh [--preset PRESET] [--first N] [--seeds N] [TRIAL...]

Builds and runs the trials named, or all of them, ${all[*]}. The first three take some
minutes, recorder three quarters of an hour.
The schedules run from N seeds, 1000 when not said otherwise, the first of them 1; with --preset
asan or tsan under that sanitizer. For a trial with options of its own see
build/bin/schedules --help, tools/fuzz.sh --help, tools/soak.sh --help and
tools/recorder.sh --help.

Exit status: 0 nothing found, 1 something found or the build failed, 2 wrong usage.
TEXT
}

preset=release
first=1
seeds=1000
trials=()
while (($# > 0)); do
    case $1 in
        --help) show_help ;;
        --preset)
            preset=${2-}
            [[ $preset =~ ^(release|debug|asan|tsan)$ ]] || wrong_usage "what preset is $preset?"
            shift
            ;;
        --first | --seeds)
            require_number "$1" "${2-}"
            [[ $1 == --first ]] && first=$2 || seeds=$2
            shift
            ;;
        schedules | fuzz | soak | recorder) trials+=("$1") ;;
        *) wrong_usage "what is $1?" ;;
    esac
    shift
done
((${#trials[@]} > 0)) || trials=("${all[@]}")

status=0
summary=()
for trial in "${trials[@]}"; do
    printf '== %s\n' "$trial"
    command=("tools/$trial.sh")
    if [[ $trial == schedules ]]; then
        tools/build.sh "$preset" schedules
        program=build/bin/schedules
        [[ $preset == release ]] || program=build/$preset/bin/schedules
        command=(trials/seeds.sh "$program" "$first" "$seeds")
    fi
    start=$SECONDS
    output=$(mktemp)
    "${command[@]}" | tee "$output" || status=1
    summary+=("$(tail -n 1 "$output") ($((SECONDS - start)) s)")
    rm -f "$output"
done
printf '== in all\n'
printf '%s\n' "${summary[@]}"
exit "$status"
