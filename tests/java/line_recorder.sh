#!/usr/bin/env bash
# LineRecorder from the command line on: what it records on simulated cards, how it ends, and what
# it says when it is used wrongly. Runs where the cards' load files are.
#   line_recorder.sh CARDSIM SCENARIO JAVA LIBRARY_FOLDER
set -euo pipefail
cardsim=$1 scenario=$2 java=$3 lib=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    printf 'FAILED: %s\n' "$1"
    tail -n 40 "$work"/output*
    exit 1
}

# expect STATUS TEXT COMMAND...: the command ends with that status and says the text.
expect() {
    local status=$1 text=$2 seen=0
    shift 2
    "$@" >"$work/output" 2>"$work/output.err" || seen=$?
    ((seen == status)) || fail "status $seen, not $status: $*"
    grep -q -- "$text" "$work"/output* || fail "does not say '$text': $*"
}

# Every row of the log stands for a file of the size that it says, and every file for a row.
check_sizes() {
    grep -q raw "$1/calls.csv" || fail "no calls in the log"
    diff <(tail -n +2 "$1/calls.csv" | cut -d, -f6,7 | sort) \
        <(find "$1" -name '*.raw' -printf '%s,%f\n' | sort) || fail "other sizes than in the log"
}

hex() { od -An -v -tx1 "$@" | tr -d ' \n'; }

recorder=("$java" "-Djava.library.path=$lib" -jar "$lib/dspcard-examples.jar")
expect 0 'Usage: LineRecorder' "${recorder[@]}" --help
expect 2 "'loud' is none of" "${recorder[@]}" --beep loud
expect 2 'Lines are 0 to 15, not 16' "${recorder[@]}" --line 16=never
expect 2 'monitor takes 0 to 15, not -1' "${recorder[@]}" --monitor=-1
expect 1 'nowhere' "${recorder[@]}" --play "$work/nowhere"
expect 1 "Looked in java.library.path: $work" "$java" "-Djava.library.path=$work" \
    -jar "$lib/dspcard-examples.jar" --folder "$work/none"
[[ ! -e $work/none ]] || fail "makes a folder without the driver's library"

expect 0 'recorder: line 1: caller 0191 498 0123' "$cardsim" --cards 4,8 --virtual-time \
    --scenario "$scenario" --speaker "$work/speaker" -- \
    "${recorder[@]}" --folder "$work/calls" --seconds 5 --monitor 7
check_sizes "$work/calls"
diff <(cut -d, -f1,4,5 "$work/calls/calls.csv") - <<'CSV' || fail "other calls than the scenario's"
line,caller,digits
7,,01914980456
1,0191 498 0123,5#
CSV
hex "$work/speaker" | grep -F "$(hex -N 300 "$work"/calls/line07*.raw)" >/dev/null ||
    fail "the monitored line is not heard"

expect 0 'recorder: .* calls recorded' "$cardsim" --cards 4,8 --traffic --seed 1 --seconds 8 -- \
    "${recorder[@]}" --folder "$work/ended"
check_sizes "$work/ended"
