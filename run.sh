#!/usr/bin/env bash
# Runs the bench program on a simulated four-channel card, from a fresh checkout on.
set -euo pipefail
cd "$(dirname "$0")"

usage() {
    cat <<'TEXT'
Usage: ./run.sh [--seconds N]

Builds what is needed and runs the bench program on a simulated four-channel card for N seconds
(15 when not given). At the end the card reports what it saw.

Exit status: 0 the run went through, 1 it did not, 2 wrong usage.
TEXT
}

seconds=15
while (($# > 0)); do
    case $1 in
        --seconds)
            seconds=${2-}
            shift
            ;;
        --help)
            usage
            exit 0
            ;;
        *)
            usage >&2
            exit 2
            ;;
    esac
    shift
done
if [[ ! $seconds =~ ^[1-9][0-9]*$ ]]; then
    printf 'run.sh: --seconds takes a whole number from 1\n' >&2
    exit 2
fi

tools/build.sh release main cardsim cardsim-preload firmware
cd build/firmware # the load files are looked for in the working directory
exec ../bin/cardsim --cards 4 --seconds "$seconds" -- ../bin/main
