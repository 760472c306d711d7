#!/usr/bin/env bash
# A seed gives the same run each time, to the last access and byte; another seed another run.
set -euo pipefail

digests() {
    "$1" schedules --list --count 6 --seed "$2" | grep digest
}

first=$(digests "$1" 1000)
[[ $first == "$(digests "$1" 1000)" ]] || {
    printf 'other runs from the same seeds\n' >&2
    exit 1
}
[[ $(cut -d' ' -f4 <<<"$first" | sort -u | wc -l) == 6 ]] || {
    printf 'the same run from different seeds\n' >&2
    exit 1
}
