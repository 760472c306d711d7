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

# Which room a file is in. The rooms and their arrows are those drawn in ARCHITECTURE.md.
room_of() {
    case $1 in
        dspcard/Console* | dspcard/MadeOnce.h) room=console ;;
        dspcard/javaint/*Packet.* | dspcard/javaint/MessageDispatcher.* | dspcard/ErrorReport.* | \
            dspcard/LineSettingsCmd.h) room=packets ;;
        dspcard/DirectIO.* | dspcard/MemIO.* | dspcard/DSPDetect.* | dspcard/DSPBootLoader.* | \
            dspcard/BootLoadFile.* | dspcard/SectionFile.* | dspcard/RegularFile.h | \
            dspcard/FileDescriptor.h | dspcard/Card*.h) room=hardware ;;
        dspcard/DSPBoard* | dspcard/DSPTransferBoard.* | dspcard/DSPMessageBuffer.h | \
            dspcard/MonitorBuffer.* | dspcard/CircularBuffer.h | dspcard/TriggerLevels.h) room=boards ;;
        dspcard/BoardMgr.*) room=manager ;;
        dspcard/javaint/JavaBridge.cpp | dspcard/javaint/DSPRunner.* | dspcard/Precedence.* | \
            dspcard/boardMgrTest.cpp) room=entrances ;;
        cardsim/* | cardtrace/* | tools/cardcheck/*) room=${1%/*} ;;
        *) room=${1%%/*} ;;
    esac
}

# From each room, the rooms that it may include from, besides itself.
declare -A arrows=(
    [ptypes]=''
    [console]='ptypes'
    [packets]='console ptypes'
    [hardware]='console ptypes'
    [boards]='hardware packets console ptypes'
    [manager]='boards hardware packets console ptypes'
    [entrances]='manager boards hardware packets console ptypes'
    [tools/cardcheck]='boards hardware'
    [cardsim/model]=''
    [cardsim/traps]=''
    [cardsim/pc]='cardsim/model cardsim/traps'
    [cardsim/scenario]='cardsim/model'
    [cardsim/config]='cardsim/pc cardsim/model cardtrace/replay'
    [cardsim/preload]='cardsim/config cardsim/pc cardsim/model cardsim/traps cardtrace/recorder cardtrace/replay'
    [cardsim/launcher]='cardsim/config cardsim/scenario cardsim/pc cardsim/model cardsim/traps cardtrace/recorder cardtrace/replay cardtrace/show cardtrace/format'
    [cardtrace/format]=''
    [cardtrace/ring]='cardtrace/format'
    [cardtrace/cards]='cardtrace/format cardsim/traps cardsim/model'
    [cardtrace/recorder]='cardtrace/cards cardtrace/ring cardtrace/format cardsim/traps cardsim/model'
    [cardtrace/replay]='cardtrace/cards cardtrace/format cardsim/traps cardsim/model'
    [cardtrace/show]='cardtrace/cards cardtrace/format cardsim/model'
    [cardtrace/compare]='cardtrace/cards cardtrace/format cardsim/config cardsim/model'
    [cardtrace/command]='cardtrace/show cardtrace/compare cardtrace/recorder cardtrace/format cardsim/launcher'
)

# Each include of a file of the house: who, and whom.
includes() {
    local file included folder
    grep -rnoE '^#include ["<][^">]+' --include='*.h' --include='*.cpp' \
        dspcard ptypes cardsim cardtrace tools/cardcheck | sed -E 's/:[0-9]+:#include ["<]/ /' |
        while read -r file included; do
            for folder in "${file%/*}" dspcard cardsim cardtrace ptypes/include; do
                target=$folder/$included
                while [[ $target =~ ^(.*/)?[^/]+/\.\./(.*)$ ]]; do
                    target=${BASH_REMATCH[1]}${BASH_REMATCH[2]}
                done
                [[ ! -e $target ]] || { printf '%s %s\n' "$file" "$target" && break; }
            done
        done
}

edges=$(includes)
[[ -n $edges ]] || { echo 'no includes found'; exit 1; }
tsort <<<"$edges" >/dev/null || failed=1 # it names the files of a circle
while read -r from to; do
    room_of "$from" && from_room=$room
    room_of "$to"
    [[ $room == "$from_room" || " ${arrows[$from_room]-} " == *" $room "* ]] || {
        printf 'no arrow from %s to %s: %s includes %s\n' "$from_room" "$room" "$from" "$to"
        failed=1
    }
done <<<"$edges"

forbid 'the driver knows of the simulation' 'cardsim|[Ss]imulat' -- dspcard ptypes
forbid 'ports are read or written outside the hardware classes' '\b(inw|outw|inb|outb|inl|outl)\b' \
    --but DSPBoard.cpp --but DSPBootLoader.cpp -- dspcard ptypes
forbid 'port permission, /dev/mem or mmap outside DirectIO' '\bioperm\b|\biopl\b|/dev/mem|\bmmap\b' \
    --but DirectIO.cpp -- dspcard ptypes
forbid '/dev/port outside DSPDetect' '/dev/port' --but DSPDetect.cpp -- dspcard ptypes
forbid 'card memory is accessed outside MemIO' '\bvolatile\b' --but MemIO.cpp -- dspcard ptypes

forbid 'the trace format knows more than files' '\b(dlsym|sigaction|ucontext_t|cardsim)\b' -- \
    cardtrace/format
forbid 'real ports are touched outside RealMachine' '\b(inw|outw|inb|outb|inl|outl|ioperm|iopl)\b' \
    --but RealMachine.cpp -- cardtrace

((failed == 0)) && echo 'all borders hold'
exit $failed
