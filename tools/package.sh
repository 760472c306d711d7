#!/usr/bin/env bash
# Builds the Debian package, build/package/dspcard_VERSION_ARCHITECTURE.deb.
#
#   tools/package.sh
#
# Exit status: 0 built (the last line names the file), 1 something failed (the message says what).
set -euo pipefail
cd "$(dirname "$0")/.."

tools/install-missing.sh dpkg-dev file
tools/build.sh release cardsim cardcheck main dspcard dspcard_recorder_jar firmware package_files
rm -rf build/package
log=$(mktemp)
trap 'rm -f "$log"' EXIT
if ! cpack --config build/CPackConfig.cmake >"$log" 2>&1; then
    tail -n 40 "$log" >&2
    printf 'dspcard: the package could not be built, see above\n' >&2
    exit 1
fi
printf 'dspcard: built %s\n' build/package/*.deb
