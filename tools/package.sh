#!/usr/bin/env bash
# Builds the Debian packages. See --help.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=tools/usage.sh
. tools/usage.sh

usage() {
    cat <<'TEXT'
Usage: tools/package.sh [FOLDER]

Builds the Debian packages of what is committed, and the source package, for the architecture of this
machine, and puts them into FOLDER, build/package when none is given; what else is there stays.
Installs what that takes. Two builds of one commit are the same, bit for bit. Runs no tests: ./test.sh
does. Works under TMPDIR (/tmp), in 1 GB.

Exit status: 0 built (the last lines name the files), 1 something failed (the message says what),
2 wrong usage.
TEXT
}

case ${1-} in
    --help) show_help ;;
    -*) wrong_usage "what is $1?" ;;
esac
(($# <= 1)) || wrong_usage 'one folder at most'

fail() {
    printf 'dspcard: %s\n' "$1" >&2
    exit 1
}

as_root=()
((EUID == 0)) || as_root=(sudo)
folder=$(realpath -m "${1:-build/package}")
tools/install-missing.sh dpkg-dev debhelper fakeroot git
mkdir -p "$folder" || fail "no folder $folder"
work=$(mktemp -d "${TMPDIR:-/tmp}/dspcard-package.XXXXXX")
trap 'rm -rf "$work"' EXIT
trap 'exit 129' HUP
trap 'exit 130' INT
trap 'exit 143' TERM
umask 022 # the modes of what is unpacked are those in the source package
mkdir "$work/dspcard"
git archive HEAD | tar -x -C "$work/dspcard"
cd "$work/dspcard"
log=$folder/build.log
dpkg-checkbuilddeps 2>/dev/null ||
    "${as_root[@]}" apt-get build-dep -y -qq --no-install-recommends . >"$log" 2>&1 ||
    fail "what the build needs cannot be installed, see $log"

printf 'dspcard: building the packages\n'
DEB_BUILD_OPTIONS="nocheck parallel=$(nproc)" dpkg-buildpackage -us -uc >"$log" 2>&1 || {
    tail -n 40 "$log" >&2
    fail "the packages could not be built, see above"
}
cd ..
cp -- *.deb *.dsc *.tar.* *.buildinfo *.changes "$folder"
printf "dspcard: built $folder/%s\n" *.deb *.dsc
