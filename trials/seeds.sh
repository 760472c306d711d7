#!/usr/bin/env bash
# Runs the random schedules, as many at once as there are processors, and sums them up.
#   seeds.sh PROGRAM FIRST COUNT
# A seed that crashes, or takes more than a minute of the machine's time, is a finding too; so is
# one that goes another way the second time.
set -euo pipefail
export program=$1
first=$2 count=$3

run() {
    local line status=0
    line=$(timeout 60 "$program" --seed "$1" 2>&1) || status=$?
    ((status <= 1)) || line+=$'\n'"FOUND seed $1: ends with status $status"
    ((status == 0)) || line+=$'\n'"    again: $program --seed $1"
    printf '%s\n' "$line"
}
export -f run

output=$(seq "$first" $((first + count - 1)) | xargs -P "$(nproc)" -I{} bash -c 'run {}')
once=$(run "$first")
grep -qxF "$(head -n 1 <<<"$once")" <<<"$output" || output+=$'\n'"FOUND seed $first: again, $once"
other=$(run $((first + 1)))
[[ ${once##* } != "${other##* }" ]] || output+=$'\n'"FOUND the same digest from another seed"

grep -vE '^seed [0-9]+: ' <<<"$output" || true
awk '/^seed / { runs++; exchanges += $3; calls += $5; faults += $10 }
     /^FOUND / { found++ }
     END { printf "schedules: %d runs, %d exchanges, %d calls inside a pass, %d faults, %d found\n",
           runs, exchanges, calls, faults, found; exit found > 0 || runs == 0 }' <<<"$output"
