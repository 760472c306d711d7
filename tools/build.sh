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
    libcli11-dev libtomlplusplus-dev nlohmann-json3-dev libzstd-dev zlib1g-dev
    libgtest-dev libgmock-dev
    openjdk-17-jdk-headless junit5 curl procps sox
    libpicocli-java libxerial-sqlite-jdbc-java libjackson2-core-java
)

fail() {
    printf 'dspcard: %s\n' "$1" >&2
    exit 1
}

# Of the lines of the build those that say how far it is: one that is overwritten on a terminal,
# elsewhere one a quarter.
show_progress() {
    local terminal=0
    [[ ! -t 1 ]] || terminal=1
    awk -v terminal="$terminal" -F '[][/ ]+' '
        /^\[[0-9]+\/[0-9]+\]/ {
            if (terminal) printf "\rdspcard: %d of %d steps", $2, $3
            else if (int(4 * $2 / $3) > quarter) printf "dspcard: %d of %d steps\n", $2, $3
            quarter = int(4 * $2 / $3)
            fflush()
            shown = 1
        }
        END { if (terminal && shown) print "" }'
}

build() {
    local preset=$1 log
    shift
    log=$(mktemp)
    trap 'rm -f "$log"' RETURN
    printf 'dspcard: building (%s); a few minutes the first time\n' "$preset"
    if ! { cmake --preset "$preset" && cmake --build --preset "$preset" ${1:+--target "$@"}; } 2>&1 |
        tee "$log" | show_progress; then
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
