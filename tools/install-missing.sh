#!/usr/bin/env bash
# Installs those of the named Debian packages that are missing, with sudo unless run by root.
#
#   tools/install-missing.sh PACKAGE...
#
# Exit status: 0 all are there, 1 not (the message says why).
set -euo pipefail

fail() {
    printf 'dspcard: %s\n' "$1" >&2
    exit 1
}

missing=()
for package in "$@"; do
    [[ $(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null) == installed ]] ||
        missing+=("$package")
done
((${#missing[@]} > 0)) || exit 0

command -v apt-get >/dev/null ||
    fail "these Debian packages are missing, and there is no apt-get: ${missing[*]}"
as_root=()
if ((EUID != 0)); then
    command -v sudo >/dev/null ||
        fail "run this as root or install sudo; missing packages: ${missing[*]}"
    as_root=(sudo)
fi
printf 'dspcard: installing %d packages from Debian, once; this takes a few minutes: %s\n' \
    "${#missing[@]}" "${missing[*]}"
"${as_root[@]}" apt-get update -qq || fail "apt-get update failed"
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null ||
    fail "apt-get could not install: ${missing[*]}"
