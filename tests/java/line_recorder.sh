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
    tail -n 40 "$work"/output* 2>/dev/null || true
    exit 1
}

recorder() {
    "$java" -Djava.library.path="$lib" -jar "$lib/dspcard-examples.jar" "$@"
}

# expect STATUS TEXT ARG...: the recorder, without cards, ends with that status and says the text.
expect() {
    local status=$1 text=$2 seen=0
    shift 2
    recorder "$@" >"$work/output" 2>&1 || seen=$?
    ((seen == status)) || fail "status $seen, not $status: $*"
    grep -q -- "$text" "$work/output" || fail "does not say '$text': $*"
}

# Every row of the log stands for a file of the size that it says.
check_sizes() {
    local bytes file rows=0
    while IFS=, read -r _ _ _ _ _ bytes file; do
        [[ $(stat -c %s "$1/$file") == "$bytes" ]] || fail "$file does not have $bytes bytes"
        rows=$((rows + 1))
    done < <(tail -n +2 "$1/calls.csv")
    ((rows > 0)) || fail "no calls in the log"
    [[ $(find "$1" -name '*.raw' | wc -l) == "$rows" ]] || fail "files and rows differ in number"
}

expect 0 'Usage: LineRecorder' --help
expect 2 "'loud' is none of" --beep loud
expect 2 'trigger delay is 0 to 65 seconds, not 66' --delay 66
expect 2 'Lines are 0 to 15, not 16' --line 16=never
expect 2 'monitor takes 0 to 15, not -1' --monitor=-1
expect 1 'nowhere' --play "$work/nowhere"
"$java" -Djava.library.path="$work" -jar "$lib/dspcard-examples.jar" --folder "$work/none" \
    >"$work/output" 2>&1 && fail "runs without the driver's library"
grep -q "Looked in java.library.path: $work" "$work/output" || fail "does not say where it looked"
[[ ! -e $work/none ]] || fail "makes a folder without the driver's library"

"$cardsim" --cards 4,8 --virtual-time --scenario "$scenario" -- \
    "$java" -Djava.library.path="$lib" -jar "$lib/dspcard-examples.jar" \
    --folder "$work/calls" --seconds 5 --monitor 1 >"$work/output" 2>"$work/output.err" ||
    fail "status $? on cards"
check_sizes "$work/calls"
diff <(cut -d, -f1,4,5 "$work/calls/calls.csv") - <<'CSV' || fail "other calls than the scenario's"
line,caller,digits
7,,01914980456
1,0191 498 0123,5#
CSV
grep -q 'recorder: line 1: caller 0191 498 0123' "$work/output" || fail "does not show the caller"
grep -q 'recorder: 2 calls recorded' "$work/output" || fail "does not sum up"

"$cardsim" --cards 4,8 --traffic --seed 1 --seconds 8 -- \
    "$java" -Djava.library.path="$lib" -jar "$lib/dspcard-examples.jar" \
    --folder "$work/ended" >"$work/output" 2>"$work/output.err" || fail "status $? when ended"
check_sizes "$work/ended"
echo 'LineRecorder does as it should'
