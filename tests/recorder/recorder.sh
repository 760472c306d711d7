#!/usr/bin/env bash
# dspcard-record and dspcard-calls from the command line on, on simulated cards. Runs where the
# cards' load files are.
#   recorder.sh STORY CARDSIM SCENARIO JAVA LIBRARY_FOLDER
set -euxo pipefail # what fails stands at the end of the trace
arguments=("${@:2}")
story=$1 cardsim=$2 scenario=$3 java=$4 lib=$5
recorder=("$java" -Xmx64m -jar "$lib/dspcard-recorder.jar")
calls=("$java" -cp "$lib/dspcard-recorder.jar" com.zivolt.hardware.dsp.recorder.CallsProgram)
on_cards=("$cardsim" --cards "4,8" --virtual-time --speed 20)
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

# start COMMAND...: in the background, until it shows its status.
start() {
    : >"$work/said" # what was said before
    "$@" --folder "$work/calls" --status 127.0.0.1:0 >"$work/said" 2>"$work/driver" &
    started=$!
    await 'status at'
    url=$(grep -o 'http://[^/]*' "$work/said")
}

# await TEXT: within a minute it is said.
await() {
    local tenth
    for ((tenth = 0; tenth < 600; ++tenth)); do
        ! grep -q -- "$1" "$work/said" || return 0
        sleep 0.1
    done
    cat "$work/said" "$work/driver"
    return 1
}

# stop: by SIGTERM to the recorder itself, a child of cardsim; its exit status.
stop() {
    local status=0
    kill -TERM "$(pgrep -P "$started" java)"
    wait "$started" || status=$?
    cat "$work/said"
    return "$status"
}

metric() { curl -s "$url/metrics" | grep -F "dspcard_recorder_$1 " | grep -v '^#' | cut -d' ' -f2; }
health() { curl -s "$url/health"; }

misuse() {
    printf 'triger = vox-1\n' >"$work/config"
    expect 2 "there is no option triger" "${recorder[@]}" --config "$work/config"
    printf '# gr\374n\n' >"$work/config"
    expect 2 'is not in UTF-8' "${recorder[@]}" --config "$work/config"
    printf 'folder = %s\nline = 3=vox-2,low,5 16=never\n' "$work/none" >"$work/config"
    expect 2 'Lines are 0 to 15, not 16' "${recorder[@]}" --config "$work/config"
    expect 2 "'loud' is none of" "${recorder[@]}" --beep loud
    expect 2 '4, 8 or none' "${recorder[@]}" --expect 4,5
    printf 'expect = 4,8 \nreserve = plenty\n' >"$work/config"
    expect 2 'such as 500M' "${recorder[@]}" --config "$work/config"
    expect 2 '127.0.0.1:9273' "${recorder[@]}" --status 9273
    expect 1 'nowhere' "${recorder[@]}" --play "$work/nowhere"
    expect 1 "$work/missing: no such file" "$java" "-Ddspcard.library=$work/missing" -jar \
        "$lib/dspcard-recorder.jar" --folder "$work/none"
    expect 1 'there is no folder' "${calls[@]}" --folder "$work/none"
    [[ ! -e $work/none ]] # nothing is made without the driver's library
    expect 1 'no calls were recorded here' "${calls[@]}" check --folder "$work"
    expect 1 'no calls were recorded here' "${calls[@]}" recover --folder "$work"
    expect 2 'is no time like' "${calls[@]}" --from yesterday
    expect 2 'table, csv or json' "${calls[@]}" --format xml
    expect 2 '0 or more' "${calls[@]}" --limit -5
    expect 2 '--from is for the list' "${calls[@]}" --from 2026-01-01 check --folder "$work"
    expect 0 'dspcard [0-9.]*$' "${recorder[@]}" --version
}

# A folder of another user: the recorder may not write there, and root makes nothing in it.
rights() {
    if ((EUID != 0)) || ! command -v setpriv >/dev/null; then
        echo 'skipped: only root can be another user, by setpriv (Debian package util-linux)'
        exit 77
    fi
    local nobody=(setpriv --reuid 65534 --clear-groups)
    chmod 755 "$work" && mkdir -m 755 "$work/ours" "$work/theirs" "$work/theirs/20261123Z"
    chown -R nobody "$work/theirs"
    expect 2 'nothing may be written in the folder' "${nobody[@]}" "${recorder[@]}" --folder "$work/ours"
    expect 1 'sudo -u nobody' "${calls[@]}" recover --folder "$work/theirs"
    [[ ! -e $work/theirs/calls.db ]]
    expect 0 '0 rows made' "${nobody[@]}" "${calls[@]}" recover --folder "$work/theirs"
}

# Calls, their audio on the speaker, commands at their ends; Ctrl-C in the midst of a call.
record() {
    local command="echo \"\$CALL_LINE \$CALL_CALLER \$CALL_DIGITS \$CALL_OUTCOME \$(wc -c <\$CALL_FILE)\" \
        \$CALL_BYTES >>$work/ended; [ \$CALL_LINE != 7 ]"
    start "${on_cards[@]}" --scenario "$scenario" --speaker "$work/speaker" -- "${recorder[@]}" \
        --monitor 7 --on-call-end "$command"
    await 'line 1: call ended'
    "${calls[@]}" --folder "$work/calls" --outcome open --format csv --limit 0 | grep -q '^[0-9]*,11,1,'
    curl -s "$url/calls?search=498" | grep -q '"caller":"0191 498 0123","digits":"5#"'
    curl -s "$url/day" | grep -q '"7":\[\[.*"11":\[\['
    [[ $(metric 'line_recording{card="1",line="11"}') == 1 ]]
    (($(metric 'line_transfers_total{card="1",line="11"}') > 5))
    [[ $(metric 'calls_total{outcome="complete"}') == 2 ]]
    [[ $(health) == '{"healthy":true'* ]]
    [[ $(curl -s -o "$work/page" -w '%{http_code} %{content_type}' "$url/") == '200 text/html'* ]]
    [[ $(curl -s -X POST -o /dev/null -w '%{http_code}' "$url/") == 405 ]]
    [[ $(curl -s "$url/calls?from=yesterday") == "'yesterday' is no time like"* ]]
    [[ $(curl -s -o /dev/null -w '%{http_code}' "$url/day?date=2026-99-99") == 400 ]]
    [[ $(curl -s -H 'Host: elsewhere.example' -o /dev/null -w '%{http_code}' "$url/calls") == 403 ]]
    stop
    grep -q 'COMMAND for the call of line 7.*ended with status 1' "$work/said"
    printf '%s\n' '1 in 0191 498 0123 5# complete' '11 unknown   process-end' \
        '7 out  01914980456 complete' | diff - <("${calls[@]}" --folder "$work/calls" --format csv |
        awk -F, 'NR > 1 { print $2, $4, $5, $6, $10 }' | sort)
    awk '$(NF - 1) != $NF || NF < 4 { exit 1 }' "$work/ended"
    [[ $(wc -l <"$work/ended") == 3 ]]
    expect 0 '3 recordings in the log, 0 things wrong' "${calls[@]}" check --folder "$work/calls"
    dd if=/dev/zero of="$work/calls/calls.db" bs=4096 seek=5 count=1 conv=notrunc # an index
    expect 0 '3 rows made' "${calls[@]}" recover --folder "$work/calls"
    expect 0 '3 recordings in the log, 0 things wrong' "${calls[@]}" check --folder "$work/calls"
    { set +x; } 2>/dev/null # two long lines of digits: the monitored line is heard
    hex "$work/speaker" | grep -F "$(hex -N 300 "$work"/calls/*/line07*.raw)" >/dev/null
}

# fails CARD STATE METRIC PROBLEM STATUS OPTION...: what is told, shown and answered of a card that
# never works as it should, or never again.
fails() {
    local card=$1 state=$2 metric=$3 problem=$4 status=$5 seen=0
    shift 5
    rm -rf "$work/calls"
    start "${on_cards[@]}" --traffic --seed 1 "$@"
    await "[Cc][Aa][Rr][Dd] $card $state"
    [[ $(metric "$metric") == 0 ]]
    [[ $(curl -s -o /dev/null -w '%{http_code}' "$url/health") == 503 ]]
    health | grep -qF "\"$problem\""
    wait "$started" || seen=$?
    cat "$work/said"
    ((seen == status))
    [[ $(grep -c "^recorder: [^ ]* \(EXPECTED otherwise: card\|CARD\) $card $state" "$work/said") == 1 ]]
    expect 0 ' 0 things wrong' "${calls[@]}" check --folder "$work/calls"
}

# calls_of CARD: how many are in the log.
calls_of() {
    "${calls[@]}" --folder "$work/calls" --format csv --limit 0 | cut -d, -f3 | grep -cx "$1" || true
}

# No phantom calls, and everybody can know.
failures() {
    local record=(-- "${recorder[@]}" --seconds 8)
    fails 1 'not running' 'card_running{card="1"}' 'card 1: not running' 1 \
        --fault byte-stuck@57/1 "${record[@]}"
    (($(calls_of 0) > 0 && $(calls_of 1) == 0))
    fails 1 'not running' 'card_running{card="1"}' 'card 1: not running' 1 \
        --fault counter-stuck@60-66/1 --fault dead-after-boot@2/1 "${record[@]}"
    (($(calls_of 0) > 0 && $(calls_of 1) > 0))
    fails 0 'not running' 'healthy' 'card 0: not running' 3 --fault dead-after-boot/0 \
        "${record[@]}" --exit-when-silent 0.1
    grep -q 'without it no line of any card has calls' "$work/said"
    fails 1 'not running' 'healthy' 'card 1: not running' 3 --fault dead-after-boot/1 \
        "${record[@]}" --exit-when-silent 0.1 --expect 4,8
    fails "1 has 8" 'lines, not 4' 'healthy' 'card 1 has 8 lines, not 4' 1 "${record[@]}" --expect 4,4
}

# Seven lock-ups and a new boot, on cards that forget their settings: calls by sound come again. The
# lines have their levels, since the file that takes them is said to be the journal.
reboot() {
    local again
    touch "$work/said"
    JOURNAL_STREAM=$(stat -c %d:%i "$work/said")
    export JOURNAL_STREAM
    start "${on_cards[@]}" --traffic --seed 1 --fault counter-stuck@60-66/1 -- "${recorder[@]}" \
        --trigger vox-1 --expect 4,8
    await 'CARD 1 restarting'
    await 'card 1 runs again, after'
    await 'card 0 runs again, after'
    [[ $(metric 'card_lock_ups_total{card="1"}') == 7 && $(metric 'card_boots_total{card="0"}') == 2 ]]
    again=$(grep 'runs again' "$work/said" | tail -n 1 | cut -d' ' -f2)
    sleep 3
    [[ $(health) == '{"healthy":true'* ]]
    timeout 30 "${calls[@]}" --folder "$work/calls" --follow | head -n 1
    stop
    grep -q '^<3>recorder: .* CARD 1 restarting' "$work/said"
    grep -q '^recorder: .* card 1 runs again' "$work/said"
    "${calls[@]}" --folder "$work/calls" --from "$again" --format csv | cut -d, -f3 | sort -u |
        tr '\n' ' ' | grep -q '0 1'
    expect 0 ' 0 things wrong' "${calls[@]}" check --folder "$work/calls"
}

# A disk that is full from the start, then has room, then is full again at the next start: each time
# calls are logged, and everybody can know. The disk is a small one in memory.
full() {
    if ((EUID != 0)) || ! unshare --mount true; then
        echo 'skipped: no small disk can be mounted here'
        exit 77
    fi
    unshare --mount "$0" on_full_disk "${arguments[@]}"
}

on_full_disk() {
    local i status=0 record=("${on_cards[@]}" --traffic --seed 1 -- "${recorder[@]}" --reserve 1M)
    mkdir "$work/calls"
    mount -t tmpfs -o size=20m,nr_inodes=400 tmpfs "$work/calls"
    head -c 100M /dev/zero >"$work/calls/filling" || true
    start "${record[@]}" --seconds 12
    await 'THE DISK IS FULL'
    [[ $(metric disk_full) == 1 && $(metric write_failures_total) != 0 ]]
    [[ $(curl -s -o /dev/null -w '%{http_code}' "$url/health") == 503 ]]
    health | grep -qF '"the disk is full"'
    rm "$work/calls/filling"
    await 'the disk has room again'
    await 'call ended, [0-9]* bytes in'
    [[ $(health) == '{"healthy":true'* ]]
    wait "$started" || status=$?
    ((status == 1))
    [[ $(grep -c 'DISK IS FULL' "$work/said") == 1 ]]
    head -c 100M /dev/zero >"$work/calls/filling" || true
    start "${record[@]}"
    await 'call ended, no recording'
    [[ $(metric write_failures_total) == 1 ]]
    for ((i = 0; i < 400; ++i)); do
        : >"$work/calls/more$i" || break
    done
    : >"$work/calls/filling" # bytes enough, and none for another file
    sleep 3
    ((i < 400 && $(grep -c 'has room again' "$work/said") == 0))
    stop
    (($("${calls[@]}" --folder "$work/calls" --outcome disk-full --format csv | wc -l) > 3))
    expect 0 ' 0 things wrong' "${calls[@]}" check --folder "$work/calls"
    umount "$work/calls"
}

# A disk that takes audio, and fails to force it: the calls say so.
unforced() {
    command -v cc >/dev/null || {
        echo 'skipped: there is no C compiler'
        exit 77
    }
    cc -shared -fPIC -o "$work/failing.so" -x c - <<'C'
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>
static int fails(int file) {
    char link[40], name[4096] = "";
    sprintf(link, "/proc/self/fd/%d", file);
    return readlink(link, name, sizeof name - 1) < 0 || strstr(name, ".part") ? (errno = EIO, -1) : 0;
}
int fsync(int file) { return fails(file); }
int fdatasync(int file) { return fails(file); }
C
    start env LD_PRELOAD="$work/failing.so" "${on_cards[@]}" --scenario "$scenario" -- "${recorder[@]}"
    await 'CANNOT close'
    await 'line 7: call ended'
    health | grep -qF 'could not be written'
    stop
    [[ $("${calls[@]}" --folder "$work/calls" --outcome not-written --format csv | wc -l) == 4 ]]
}

# The page in a browser: it shows what the lines said as text; the picture is kept beside this test.
page() {
    command -v chromium >/dev/null || {
        echo 'skipped: chromium is not installed'
        exit 77
    }
    local caller='<img src=x onerror=alert(1)>' browser=(timeout 60 chromium --headless --no-sandbox
        --disable-gpu --user-data-dir="$work/browser" --virtual-time-budget=4000)
    printf 'event = [{ at = 9, line = 2, do = "call", caller = "%s", ring = 1, talk = 900 }]\n' \
        "$caller" >"$work/scenario"
    start "${on_cards[@]}" --scenario "$work/scenario" -- "${recorder[@]}"
    await 'line 2: call started'
    sleep 1
    for size in 1200,1000 390,844; do
        "${browser[@]}" --window-size="$size" --screenshot="$lib/../status-page-${size%,*}.png" "$url/"
    done 2>&1 | grep 'bytes written'
    "${browser[@]}" --dump-dom "$url/" >"$work/dom" 2>/dev/null
    stop
    tr -d '\n' <"$work/dom" >"$work/page"
    grep -q '>all is well<' "$work/page"
    grep -q '<div class="tile recording"><b>line 2: recording</b><div>&lt;img src=x' "$work/page"
    grep -q '<rect [^>]*class="talk"' "$work/page"
    grep -q '<td>in</td><td>&lt;img src=x onerror=alert(1)&gt;</td>' "$work/page"
    ! grep -q '<img' "$work/page"
}

# Commands have none of the capabilities that a recorder without root's rights was given. Here it is
# another one than for real cards, which cardsim takes from everybody.
capabilities() {
    local user=(setpriv --reuid nobody --clear-groups --inh-caps=+chown --ambient-caps=+chown)
    "${user[@]}" test -r "$lib/dspcard-recorder.jar" || {
        echo 'skipped: only root may give capabilities, to a user who may read what was built'
        exit 77
    }
    chown nobody "$work"
    expect 0 'calls recorded' "${user[@]}" "${on_cards[@]}" --traffic --seed 1 -- "${recorder[@]}" \
        --seconds 3 --folder "$work/calls" --on-call-end 'grep CapPrm /proc/self/status >>../caps'
    [[ $(sort -u "$work/caps") == $'CapPrm:\t0000000000000000' ]]
}

# On a terminal the table is painted over nothing else's lines, and all is as before at the end.
terminal() {
    script -qec true /dev/null || {
        echo 'skipped: no terminal can be made here, by script (Debian package bsdutils) and /dev/pts'
        exit 77
    }
    local command
    command=$(printf '%q ' "${on_cards[@]}" --traffic --seed 1 -- "${recorder[@]}" \
        --folder "$work/calls" --seconds 6)
    script -qec "stty rows 30 cols 100; stty -a; $command; stty -a" "$work/typescript" >/dev/null
    { set +x; } 2>/dev/null
    perl -0777 -ne '
        sub check { my ($holds, $what) = @_; $holds or die "not so: $what\n" }
        my @settings = /speed \d+ baud.*?-extproc/gs;
        check(@settings == 2 && $settings[0] eq $settings[1], "the terminal is as before");
        check(/\e7(?:(?!\e8).)*line  state.*?RECORDING.*?\e8/s, "a table was painted");
        check(/.*\e\[r\e\[30;1H\r\n(.*)/s && $1 =~ /calls recorded into/, "the end is told below");
        my ($top) = /\e\[(\d+);30r(?!.*;30r)/s;
        my ($last) = /.*\e7(.*?)\e8/s;
        check($_ < $top, "row $_ is the table") for $last =~ /\e\[(\d+);1H/g;
        check(!/\e\[\d*[JLMST]/, "nothing is cleared or moved");
        s/\e7.*?\e8//gs;
        s/\e\[r\e\[30;1H(?:(?:\r\n){30}\e\[\d+;30r\e\[\d+;1H)?//g;
        check(!/\e/, "nothing else is painted");
        my @sent = /^Sending Packet to Java.*$/mg;
        check(@sent > 0, "the driver says something"); # on a busy machine not much
        /^Sending Packet to Java: channel=\d+ length=\d+\r?$/ or check(0, "whole: $_") for @sent;
    ' "$work/typescript"
}

# The line of the page on daily use that makes a WAV file of what simulated cards recorded.
wav() {
    command -v sox >/dev/null || {
        echo 'skipped: sox is not installed'
        exit 77
    }
    local line file
    line=$(grep '|| sox ' "${0%/*}/../../docs/recorder.md")
    start "${on_cards[@]}" --scenario "$scenario" --audio pleasant -- "${recorder[@]}"
    await 'line 7: call ended'
    stop
    for file in "$work"/calls/*/line{01,07}*.raw; do
        CALL_FILE=$file bash -c "$line"
        "${calls[@]}" --folder "$work/calls" --format csv | grep -F "${file##*/}" | cut -d, -f9 |
            awk -v wav="$(soxi -D "$file.wav")" '{ exit !($1 > 2 && wav - $1 < 0.5 && $1 - wav < 0.5) }'
    done
}

"$story"
