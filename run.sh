#!/usr/bin/env bash
# Shows the project at work on simulated cards, from a fresh checkout on.
set -euo pipefail
cd "$(dirname "$0")"
# shellcheck source=tools/usage.sh
. tools/usage.sh

usage() {
    cat <<'TEXT'
Usage: ./run.sh [record|bench] [--seconds N]

Installs what is missing from Debian's packages, builds, and runs on simulated cards:

  record   LineRecorder, the Java recorder, on a four- and an eight-channel card with calls, into
           a new folder under recordings/; 20 seconds when not said otherwise (the default)
  bench    the bench program on a four-channel card; 15 seconds when not said otherwise

At the end the cards report what they saw.

Exit status: 0 the run went through, 1 it did not, 2 wrong usage.
TEXT
}

record() {
    local folder
    folder=$PWD/recordings/$(date +%Y%m%d-%H%M%S)
    tools/build.sh release cardsim firmware dspcard dspcard_examples_jar
    printf 'dspcard: recording calls for %s s into %s\n' "$1" "$folder"
    cd build/firmware # the load files are looked for in the working directory
    ../bin/cardsim --cards 4,8 --traffic --audio pleasant -- \
        java -Djava.library.path=../lib -jar ../lib/dspcard-examples.jar \
        --folder "$folder" --seconds "$1" || exit 1
    printf 'dspcard: the call log, %s/calls.csv:\n' "$folder"
    cat "$folder/calls.csv"
}

bench() {
    tools/build.sh release main cardsim firmware
    cd build/firmware
    ../bin/cardsim --cards 4 --seconds "$1" -- ../bin/main || exit 1
}

job=record
seconds=
while (($# > 0)); do
    case $1 in
        record | bench) job=$1 ;;
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

case $job in
    record) record "${seconds:-20}" ;;
    bench) bench "${seconds:-15}" ;;
esac
