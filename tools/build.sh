#!/usr/bin/env bash
# Makes this machine ready and builds the project: installs what is missing from Debian's packages,
# configures the preset and builds the targets. Quick when everything is there.
#
#   tools/build.sh PRESET [TARGET...]     all targets when none is given
#
# Exit status: 0 built, 1 something failed (the message says what).
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(
    g++ cmake ninja-build
    libcli11-dev libtomlplusplus-dev nlohmann-json3-dev
    libgtest-dev libgmock-dev
    openjdk-17-jdk-headless junit5
    libpicocli-java libxerial-sqlite-jdbc-java libjackson2-core-java
)

fail() {
    printf 'dspcard: %s\n' "$1" >&2
    exit 1
}

build() {
    local preset=$1 log
    shift
    log=$(mktemp)
    trap 'rm -f "$log"' RETURN
    printf 'dspcard: building (%s)\n' "$preset"
    if ! { cmake --preset "$preset" && cmake --build --preset "$preset" ${1:+--target "$@"}; } \
        >"$log" 2>&1; then
        tail -n 60 "$log" >&2
        fail "the build failed, see above"
    fi
}

(($# > 0)) || fail "which preset? release, debug, asan, tsan, fuzz or bench"
case $1 in
    fuzz) packages+=(clang libclang-rt-14-dev) ;;
    bench) packages+=(libbenchmark-dev) ;;
esac
tools/install-missing.sh "${packages[@]}"
build "$@"
