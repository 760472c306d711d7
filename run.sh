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

  record   the recorder on a four- and an eight-channel card with calls, into a new folder under
           recordings/, and then the table of calls; 20 seconds when not said otherwise (the
           default), less after Ctrl-C
  bench    the bench program on a four-channel card; 15 seconds when not said otherwise

At the end the cards report what they saw.

Exit status: 0 the run went through, 1 it did not, 2 wrong usage.
TEXT
}

record() {
    local folder status=0
    folder=$PWD/recordings/$(date -u +%Y%m%dT%H%M%SZ)
    tools/build.sh release cardsim firmware dspcard dspcard_recorder_jar
    printf 'dspcard: recording calls for %s s, or until Ctrl-C, into %s\n' "$1" "$folder"
    cd build/firmware # the load files are looked for in the working directory
    trap : INT        # ends the recorder; this script goes on with the table
    ../bin/cardsim --cards 4,8 --traffic --audio pleasant -- \
        java -jar ../lib/dspcard-recorder.jar --folder "$folder" --seconds "$1" || status=1
    trap - INT
    printf 'dspcard: the calls, as dspcard-calls lists them:\n'
    java -cp ../lib/dspcard-recorder.jar com.zivolt.hardware.dsp.recorder.CallsProgram \
        --folder "$folder" || status=1
    exit "$status"
}

bench() {
    tools/build.sh release main cardsim firmware
    cd build/firmware
    ../bin/cardsim --cards 4 --seconds "$1" -- ../bin/main || exit 1
}

# The dynamic linker preloads nothing from such a path, and without that there are no simulated cards.
if [[ $PWD == *[[:space:]:]* ]]; then
    printf 'dspcard: %s has a space or a colon in its path; move the folder elsewhere\n' "$PWD" >&2
    exit 1
fi

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
