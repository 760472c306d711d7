#!/usr/bin/env bash
# Builds the Debian packages. See --help.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=tools/usage.sh
. tools/usage.sh

usage() {
    cat <<'TEXT'
Usage: tools/package.sh [FOLDER]

Builds the Debian packages of what is committed into FOLDER, build/package when none is given, for
the architecture of this machine; installs what that takes. Two builds of one commit are the same,
bit for bit. Runs no tests: ./test.sh does.

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
rm -rf "$folder"
mkdir -p "$folder/dspcard"
git archive HEAD | tar -x -C "$folder/dspcard"
cd "$folder/dspcard"
log=$folder/build.log
dpkg-checkbuilddeps 2>/dev/null ||
    "${as_root[@]}" apt-get build-dep -y -qq --no-install-recommends . >"$log" 2>&1 ||
    fail "what the build needs cannot be installed, see $log"

printf 'dspcard: building the packages\n'
DEB_BUILD_OPTIONS="nocheck parallel=$(nproc)" dpkg-buildpackage -b -us -uc >"$log" 2>&1 || {
    tail -n 40 "$log" >&2
    fail "the packages could not be built, see above"
}
cd ..
rm -rf dspcard
mkdir debug
mv -- *-dbgsym_*.deb debug
printf 'dspcard: built %s\n' "$folder"/*.deb
