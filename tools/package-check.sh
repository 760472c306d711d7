#!/usr/bin/env bash
# Proves the Debian package where nothing of this machine helps it. See --help.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=tools/usage.sh
. tools/usage.sh

usage() {
    cat <<'TEXT'
Usage: tools/package-check.sh

Builds the Debian package, makes a clean Debian 12 root, installs the package there with apt,
records calls on simulated cards from it, removes it, and checks that nothing of it is left.
Takes some minutes, a network and 1 GB under TMPDIR (/tmp); run it as root.

  DEBIAN_MIRROR   where Debian comes from; debootstrap's own choice when not set

Exit status: 0 all of it went well, 1 something did not (the message says what), 2 wrong usage.
TEXT
}

case ${1-} in
    '') ;;
    --help) show_help ;;
    *) wrong_usage "what is $1?" ;;
esac

mirror=(${DEBIAN_MIRROR:+"$DEBIAN_MIRROR"})
work=
child=

fail() {
    printf 'package-check: FAILED: %s\n' "$1" >&2
    exit 1
}

say() { printf 'package-check: %4d s  %s\n' "$SECONDS" "$1"; }

# Ends what runs in the root and takes the mounts away first: they must not be deleted through.
clean_up() {
    trap '' INT TERM HUP
    if [[ -n $child ]]; then
        kill -KILL -- "-$child" || true
        wait "$child" || true
    fi 2>/dev/null
    [[ -n $work ]] || return 0
    local folder
    while read -r folder; do
        umount --lazy "$folder" || true
    done < <(awk -v root="$work/" 'index($2, root) == 1 { print $2 }' /proc/mounts | sort -r)
    rm -rf --one-file-system "$work"
}
trap clean_up EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM

# run WHAT COMMAND...: in a process group of its own, so that all of it can be ended at once.
run() {
    local what=$1
    shift
    say "$what"
    setsid "$@" </dev/null >"$work/log" 2>&1 &
    child=$!
    wait "$child" || {
        tail -n 40 "$work/log" >&2
        fail "$what"
    }
    child=
}

# The same in the root, with nothing of this environment but the way to the network.
inside() {
    local what=$1
    shift
    run "$what" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C DEBIAN_FRONTEND=noninteractive \
        ${http_proxy:+http_proxy="$http_proxy"} chroot "$@"
}

install() { inside "$1" "$root" apt-get install -y --no-install-recommends "${@:2}"; }
as_user() { inside "$1" --userspec=nobody:nogroup "$root" sh -c "cd /usr/share/dspcard/firmware && $2"; }

# expect WHAT TEXT: the last command said that.
expect() { grep -q -- "$2" "$work/log" || fail "$1: not a word of '$2'"; }

# Every path of the root but the records and stores of dpkg and apt.
list_files() {
    (cd "$root" && find . -xdev \( -path ./proc -o -path ./dev -o -path ./tmp -o -path ./var/lib/dpkg \
        -o -path ./var/lib/apt -o -path ./var/cache -o -path ./var/log \) -prune -o -print) | sort
}

check_calls() {
    as_user "checking what was recorded" 'dspcard-calls check --folder /tmp/calls'
    expect "the recordings" '^[1-9][0-9]* recordings in the log, 0 things wrong'
    say "  $(tail -n 1 "$work/log")"
}

check_man_pages() {
    local program
    for program in "$root"/usr/bin/cardsim "$root"/usr/bin/cardcheck "$root"/usr/bin/dspcard-*; do
        zgrep -q '^\.SH EXIT STATUS' "$root/usr/share/man/man1/${program##*/}.1.gz" ||
            fail "no man page with the exit status of ${program##*/}"
    done
}

((EUID == 0)) || fail "debootstrap and chroot need root"
tools/install-missing.sh debootstrap
work=$(mktemp -d "${TMPDIR:-/tmp}/package-check.XXXXXX")
chmod 755 "$work"
root=$work/root

run "building the package" tools/package.sh
package=(build/package/*.deb)
if command -v lintian >/dev/null; then
    run "lintian" lintian --allow-root --fail-on error,warning "${package[0]}"
fi
run "making a clean Debian 12" debootstrap --variant=minbase bookworm "$root" "${mirror[@]}"
mount -t proc proc "$root/proc"
cp "${package[0]}" "$root/tmp/dspcard.deb"

# The dependencies first and the package by itself: then the list of files shows what it leaves.
inside "apt: what the package depends on" "$root" apt-get satisfy -y --no-install-recommends \
    "$(dpkg-deb --field "${package[0]}" Depends)"
install "apt: a compiler, for the client's page" openjdk-17-jdk-headless
list_files >"$work/before"
install "apt: the package" /tmp/dspcard.deb
expect "the package's dependencies" '^0 upgraded, 1 newly installed, 0 to remove'
check_man_pages

as_user "cardcheck on simulated cards" 'cardsim --cards 4,8 -- cardcheck --reset-cards'
expect "cardcheck" '^cardcheck: .* 0 failed'
as_user "the bench program" 'cardsim --virtual-time --seconds 60 -- dspcard-bench'
expect "the bench program" 'Transfer Count = 100'
as_user "the commands of the client's page" "$(sed -n '/^With the package/,/^Either/p' docs/client.md |
    grep -vE '^(```|sudo|[WE]|$)')"
expect "the client's page" '^line [0-9]*: call since'
as_user "Java finds the library by itself" 'cardsim --virtual-time -- java \
    -jar /usr/share/java/dspcard-recorder.jar --folder /tmp/found --seconds 2'
as_user "recording calls for 15 s" 'cardsim --cards 4,8 --traffic --seed 1 -- \
    dspcard-record --folder /tmp/calls --seconds 15'
check_calls

inside "apt: removing the package" "$root" apt-get purge -y dspcard
list_files >"$work/after"
diff "$work/before" "$work/after" >&2 || fail "removed, and the files are not what they were"
# shellcheck disable=SC2016 # for the shell inside
inside "dpkg has forgotten the package" "$root" sh -c '! dpkg-query -W dspcard'

say "all well: ${package[0]} installs, records calls, and leaves nothing behind"
