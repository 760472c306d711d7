#!/usr/bin/env bash
# Builds everything and runs all tests, from a fresh checkout on.
set -euo pipefail
cd "$(dirname "$0")"
# shellcheck source=tools/usage.sh
. tools/usage.sh

usage() {
    cat <<'TEXT'
Usage: ./test.sh [PRESET...]

Builds and tests with each preset: release (the default), debug, asan (address and undefined
behaviour sanitizers), tsan (thread sanitizer).

Exit status: 0 all tests passed, 1 one failed or the build did, 2 wrong usage.
TEXT
}

presets=("$@")
((${#presets[@]} > 0)) || presets=(release)
for preset in "${presets[@]}"; do
    case $preset in
        release | debug | asan | tsan) ;;
        --help) show_help ;;
        *) wrong_usage "what is $preset?" ;;
    esac
done

for preset in "${presets[@]}"; do
    tools/build.sh "$preset"
    ctest --preset "$preset" --progress || {
        printf 'dspcard: tests failed (%s)\n' "$preset" >&2
        exit 1
    }
done
printf 'dspcard: all tests passed (%s)\n' "${presets[*]}"
