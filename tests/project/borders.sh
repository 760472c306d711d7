#!/usr/bin/env bash
# Guards the borders of the house: who may include whom, and who may touch the hardware.
#   borders.sh SOURCE_DIR
set -euo pipefail
cd "$1"

failed=0

# forbid MESSAGE PATTERN [--but FILE]... -- PATH...: no line of code of the paths matches.
forbid() {
    local message=$1 pattern=$2 hits
    local exceptions=()
    shift 2
    while [[ $1 == --but ]]; do
        exceptions+=(--exclude="$2")
        shift 2
    done
    shift
    hits=$(grep -rnE "$pattern" --include='*.h' --include='*.cpp' "${exceptions[@]}" "$@") ||
        (($? == 1)) # nothing found; more is an error, such as a path that is not there
    hits=$(grep -vE '^[^:]+:[0-9]+: *//' <<<"$hits") || true
    if [[ -n $hits ]]; then
        printf '%s:\n%s\n' "$message" "$hits"
        failed=1
    fi
}

driver_headers=$(find dspcard -name '*.h' -printf '%f|' | sed 's/|$//; s/\./\\./g')
simulation_headers=$(find cardsim -name '*.h' -printf '%f|' | sed 's/|$//; s/\./\\./g')
[[ -n $driver_headers && -n $simulation_headers ]] || { echo 'no headers found'; exit 1; }

forbid 'the simulation includes the driver' \
    "#include.*(dspcard/|[\"/<]($driver_headers)[\">])" -- cardsim
forbid 'the driver includes the simulation' \
    "#include.*(cardsim/|[\"/<]($simulation_headers)[\">])" -- dspcard ptypes
forbid 'the driver knows of the simulation' 'cardsim|[Ss]imulat' -- dspcard ptypes
forbid 'ports are read or written outside the hardware classes' '\b(inw|outw|inb|outb|inl|outl)\b' \
    --but DSPBoard.cpp --but DSPBootLoader.cpp -- dspcard ptypes
forbid 'port permission, /dev/mem or mmap outside DirectIO' '\bioperm\b|\biopl\b|/dev/mem|\bmmap\b' \
    --but DirectIO.cpp -- dspcard ptypes
forbid '/dev/port outside DSPDetect' '/dev/port' --but DSPDetect.cpp -- dspcard ptypes
forbid 'card memory is accessed outside MemIO' '\bvolatile\b' --but MemIO.cpp -- dspcard ptypes

((failed == 0)) && echo 'all borders hold'
exit $failed
