#!/usr/bin/env bash
# Kills the recorder, fills its disk, and lets it record a day, on simulated cards.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=tools/usage.sh
. tools/usage.sh

usage() {
    cat <<'TEXT'
Usage: tools/recorder.sh [--kills N] [--fills N] [--hours N] [--seed N]

Builds, and records busy lines of a four- and an eight-channel card: killed (SIGKILL) at N random
moments, 200 when not said otherwise; with its disk, a small one in memory, full at random moments in
N runs, each ended by a kill, 20 when not said otherwise; and N hours of the cards' time at a stretch
in a small heap with the status asked for every second, 24 when not said otherwise. Each time every
call must be in the log once, with what the cards sent. The seed, 1 when not said otherwise, is that
of calls and moments. All of it takes three quarters of an hour; 0 leaves a part out.

Exit status: 0 nothing found, 1 something found, 2 wrong usage.
TEXT
}

declare -A given=([kills]=200 [fills]=20 [hours]=24 [seed]=1)
while (($# > 0)); do
    case $1 in
        --kills | --fills | --hours | --seed)
            [[ ${2-} == 0 ]] || require_number "$1" "${2-}"
            given[${1#--}]=$2
            shift
            ;;
        --help) show_help ;;
        *) wrong_usage "what is $1?" ;;
    esac
    shift
done

tools/build.sh release cardsim firmware dspcard dspcard_recorder_jar dspcard_trials_jar
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
status=0

# trial OPTION...
trial() {
    trials/recorder.sh build "$work" --seed "${given[seed]}" "$@" || status=1
    rm -rf "${work:?}"/*
}

((given[kills] == 0)) || trial --runs "${given[kills]}"
((given[fills] == 0)) || trial --runs "${given[fills]}" --fill
((given[hours] == 0)) || trial --runs 0 --speed 200 --seconds $((given[hours] * 18))
exit "$status"
