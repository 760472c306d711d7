#!/usr/bin/env bash
# Runs the trials that try to break the driver, whole, and sums them up.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=tools/usage.sh
. tools/usage.sh

all=(boots corruption schedules backlog fuzz soak)

usage() {
    cat <<TEXT
Usage: tools/trials.sh [--preset PRESET] [TRIAL...]

Builds and runs the trials named, or all of them, in some minutes: ${all[*]}.
With --preset asan or tsan the first four run under that sanitizer. For a trial with options of
its own see build/bin/trials --help, tools/fuzz.sh --help and tools/soak.sh --help.

Exit status: 0 nothing found, 1 something found or the build failed, 2 wrong usage.
TEXT
}

preset=release
trials=()
while (($# > 0)); do
    case $1 in
        --help) show_help ;;
        --preset)
            preset=${2-}
            [[ $preset =~ ^(release|debug|asan|tsan)$ ]] || wrong_usage "what preset is $preset?"
            shift
            ;;
        boots | corruption | schedules | backlog | fuzz | soak) trials+=("$1") ;;
        *) wrong_usage "what is $1?" ;;
    esac
    shift
done
((${#trials[@]} > 0)) || trials=("${all[@]}")

program=build/bin/trials
[[ $preset == release ]] || program=build/$preset/bin/trials
tools/build.sh "$preset" trials

status=0
summary=()
for trial in "${trials[@]}"; do
    printf '== %s\n' "$trial"
    command=("$program" "$trial")
    [[ $trial == fuzz || $trial == soak ]] && command=("tools/$trial.sh")
    start=$SECONDS
    output=$(mktemp)
    "${command[@]}" | tee "$output" || status=1
    summary+=("$(tail -n 1 "$output") ($((SECONDS - start)) s)")
    rm -f "$output"
done
printf '== in all\n'
printf '%s\n' "${summary[@]}"
exit "$status"
