#!/usr/bin/env bash
# LineRecorder from the command line on: what it records on simulated cards, of a call that goes on
# too, and what it says when it is used wrongly. Runs where the cards' load files are.
#   line_recorder.sh CARDSIM SCENARIO JAVA LIBRARY_FOLDER
set -euxo pipefail # what fails stands at the end of the trace
cardsim=$1 scenario=$2 java=$3 jar=$4/dspcard-examples.jar
recorder=("$java" "-Djava.library.path=$4" -jar "$jar")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# expect STATUS TEXT COMMAND...: the command ends with that status and says the text.
expect() {
    local status=$1 text=$2 seen=0
    shift 2
    "$@" >"$work/output" 2>&1 || seen=$?
    tail -n 40 "$work/output"
    ((seen == status)) && grep -q -- "$text" "$work/output"
}

hex() { od -An -v -tx1 "$@" | tr -d ' \n'; }

expect 2 "'loud' is none of" "${recorder[@]}" --beep loud
expect 2 'Lines are 0 to 15, not 16' "${recorder[@]}" --line 16=never
expect 1 'nowhere' "${recorder[@]}" --play "$work/nowhere"
expect 1 "$work/missing: no such file" "$java" "-Ddspcard.library=$work/missing" -jar "$jar" \
    --folder "$work/none"
[[ ! -e $work/none ]] # nothing is made without the driver's library

expect 0 'recorder: line 1: caller 0191 498 0123' "$cardsim" --cards 4,8 --virtual-time \
    --scenario "$scenario" --speaker "$work/speaker" -- \
    "${recorder[@]}" --folder "$work/calls" --seconds 10 --monitor 7
cd "$work/calls"
# A row for each call, and for each file a row that tells its size.
printf '%s\n' line,caller,digits 7,,01914980456 '1,0191 498 0123,5#' 11,, |
    diff <(cut -d, -f1,4,5 calls.csv) -
diff <(tail -n +2 calls.csv | cut -d, -f6,7 | sort) <(find . -name '*.raw' -printf '%s,%f\n' | sort)
{ set +x; } 2>/dev/null # two long lines of digits: the monitored line is heard
hex "$work/speaker" | grep -F "$(hex -N 300 line07*.raw)" >/dev/null
