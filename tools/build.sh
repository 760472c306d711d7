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
    openjdk-17-jdk-headless libpicocli-java junit5
)

fail() {
    printf 'dspcard: %s\n' "$1" >&2
    exit 1
}

missing_packages() {
    local package
    for package in "${packages[@]}"; do
        [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) == installed ]] ||
            printf '%s\n' "$package"
    done
}

install_missing() {
    local missing as_root=()
    mapfile -t missing < <(missing_packages)
    ((${#missing[@]} > 0)) || return 0
    command -v apt-get >/dev/null ||
        fail "these Debian packages are missing, and there is no apt-get: ${missing[*]}"
    if ((EUID != 0)); then
        command -v sudo >/dev/null ||
            fail "run this as root or install sudo; missing packages: ${missing[*]}"
        as_root=(sudo)
    fi
    printf 'dspcard: installing %s\n' "${missing[*]}"
    "${as_root[@]}" apt-get update -qq || fail "apt-get update failed"
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null ||
        fail "apt-get could not install: ${missing[*]}"
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

(($# > 0)) || fail "which preset? release, debug, asan or tsan"
install_missing
build "$@"
