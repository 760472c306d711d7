#!/usr/bin/env bash
# Lets a Java application use two simulated cards for a day of their time.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=tools/usage.sh
. tools/usage.sh

usage() {
    cat <<'TEXT'
Usage: tools/soak.sh [--days N | --transfers N] [--seed N]

Builds, and records N days of the cards' time, one when not said otherwise, or N transfers, from a
four- and an eight-channel card with calls, in a real Java VM. Every byte is checked, and the memory
of the process is shown as it goes. The seed, 1 when not said otherwise, is that of the calls.

Exit status: 0 nothing lost and the memory flat, 1 something found, 2 wrong usage.
TEXT
}

length=(--days 1)
seed=1
while (($# > 0)); do
    case $1 in
        --days | --transfers | --seed)
            require_number "$1" "${2-}"
            [[ $1 == --seed ]] && seed=$2 || length=("$1" "$2")
            shift
            ;;
        --help) show_help ;;
        *) wrong_usage "what is $1?" ;;
    esac
    shift
done

tools/build.sh release cardsim firmware dspcard dspcard_trials_jar
cd build/firmware
status=0
# The driver says something for nearly every packet: that goes to soak.log and soak.err.
../bin/cardsim --cards 4,8 --virtual-time --traffic --seed "$seed" -- \
    java -Xms64m -Xmx64m -XX:+AlwaysPreTouch -Djava.library.path=../lib \
    -jar ../lib/dspcard-trials.jar "${length[@]}" \
    > >(tee ../soak.log | grep --line-buffered -E "^(soak:|FOUND)") 2>../soak.err || status=1
wait
((status == 0)) || printf 'soak.sh: all that was said is in build/soak.log and build/soak.err\n' >&2
exit "$status"
