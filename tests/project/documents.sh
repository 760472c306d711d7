#!/usr/bin/env bash
# Follows the documents: links and anchors lead somewhere, files and names of the code exist, the
# commands have the options that they are given, and the samples are what the programs print.
#   documents.sh SOURCE_DIR BUILD_DIR
# shellcheck disable=SC2016 # backticks in quotes are Markdown here
set -euo pipefail
cd "$1"
source=$PWD build=$2 failed=0
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

wrong() {
    printf '%s: %s\n' "$page" "$1"
    failed=1
}

prose() { sed '/^```/,/^```/d' "$1"; }
blocks() { sed -n '/^```'"$1"'$/,/^```$/p' "$page" | grep -v '^```' || true; }
anchors() { prose "$1" | sed -n 's/^#\+ //p' | tr 'A-Z ' 'a-z-' | sed 's/[^a-z0-9_-]//g'; }
built() { sed -E "s,^(build|\.\.)/bin/,$build/bin/," <<<"$1"; }

# check_command WORD...: the program is there, and its help knows the options.
check_command() {
    local program words=" $*" word help
    program=$(built "$1")
    [[ $program != java || $words != *-recorder.jar\ * ]] ||
        program="java -jar $build/lib/dspcard-recorder.jar" words=${words#*-recorder.jar}
    [[ $program == */* ]] || return 0 # of the system
    command -v "${program%% *}" >/dev/null || wrong "no program $program"
    [[ $words == *' --'* ]] || return 0
    help=$($program --help 2>&1) || wrong "no $program --help"
    while read -r word; do
        grep -qE -- "(^|[^[:alnum:]-])$word([^[:alnum:]-]|$)" <<<"$help" || wrong "$program has no $word"
    done < <(grep -oP -- ' \K--[a-z-]+' <<<"$words")
}

for page in *.md docs/*.md; do
    while read -r link; do
        target=$(dirname "$page")/${link%%#*}
        [[ $link != '#'* ]] || target=$page
        [[ -e $target ]] || wrong "nothing at $link"
        [[ $link != *'#'* ]] || anchors "$target" | grep -xF -- "${link#*#}" >/dev/null ||
            wrong "no such heading: $link"
    done < <(prose "$page" | grep -oP '\]\(\K(?!https?:)[^)]+')
    while read -r name; do
        [[ -e $(built "$name") || ($name == build* && $name != build/bin/*) ]] ||
            grep -rqwF --include='*.'{h,cpp,java,sh,txt} --exclude-dir=build -e "${name##*::}" . ||
            wrong "nothing is called $name"
    done < <(prose "$page" | grep -oP '(?<!`)`\K([a-z]+/[\w./-]+|[A-Za-z]+(::\w+)?)(?=`)' | sort -u)
    while read -ra words; do check_command "${words[@]}"; done < <(blocks sh |
        sed -E ':a; /\\$/ { N; s/\\\n */ /; ba }; s/ *#.*//; s/ -- /\n/; s/^sudo //' | grep .)
done

# What cardtrace refers to is there: messages in troubleshooting, harmless differences in its pages.
page=docs/troubleshooting.md
while read -r message; do
    grep -qF -- "$message" "$page" || wrong "no message: $message"
done < <(tr -d '\n' <cardtrace/show/Advice.cpp | grep -oP '\{"[^"]*",\s*"\K[^"]*(?=",\s*"[^"]*"(,\s*"[^"]*")?\})|\{"\K[^"]*(?=",\s*"[^"]*"(\s*"[^"]*")*,\s*\[\])')
while read -r name; do
    for page in docs/traces.md man/cardtrace.1; do
        grep -qF -- "$name" "$page" || wrong "does not tell of $name"
    done
done < <(grep -oP '^ *\{Harmless::\w+, "\K[^"]+' cardtrace/compare/Harmless.h)

# The programs' lines and those of the samples with N for each number; their order may differ.
plain() { sed -E 's/[^ ]*recordings/recordings/; s/; in virtual time//; s/(0x)?[0-9A-F]*[0-9]/N/g'; }
simulated() { "$build/bin/cardsim" --virtual-time --seed 1 "$@" || true; }
{
    cd "$build/firmware"
    timeout 2 "$build/bin/main" || true
    simulated --seconds 15 -- "$build/bin/main"
    simulated --cards 4,8 --fault wrong-echo/1 -- "$build/bin/cardcheck" --reset-cards
    simulated --cards 4,8 --traffic --seconds 600 -- java \
        -jar "$build/lib/dspcard-recorder.jar" --folder "$work/recordings/1T1Z"
    java -cp "$build/lib/dspcard-recorder.jar" com.zivolt.hardware.dsp.recorder.CallsProgram \
        --folder "$work/recordings/1T1Z" --limit 0
    simulated --cards 4,8 --traffic --speed 10 --seconds 60 -- java -jar "$build/lib/dspcard-example.jar"
    trace=$source/docs/sample.trace
    "$build/bin/cardtrace" show "$trace"
    "$build/bin/cardtrace" show --summary "$trace"
    "$build/bin/cardtrace" compare "$trace"
    "$build/bin/cardtrace" compare --as-real "$trace" || true
    "$build/bin/cardsim" --replay "$trace" --virtual-time -- "$build/bin/main"
} 2>&1 | plain | sort -u >"$work/said"
for page in README.md docs/client.md docs/recorder.md docs/traces.md; do
    while read -r line; do wrong "nothing prints: $line"; done < <(
        blocks text | grep -v '^ *\.\.\.$' | plain | sort -u | comm -23 - "$work/said")
done
((failed == 0)) && echo 'all documents hold'
exit $failed
