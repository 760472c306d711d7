#!/usr/bin/env bash
# Runs RecorderTrial; with --fill in a mount namespace of its own, on a small disk in memory.
#   recorder.sh BUILD_FOLDER EMPTY_FOLDER OPTION...
# Exit status: that of the trial; 77 when nothing may be mounted here.
set -euo pipefail
build=$1 folder=$2
shift 2
trial=(java -cp "$build/lib/dspcard-trials.jar" com.zivolt.hardware.dsp.trials.RecorderTrial
    --build "$build" --folder "$folder/calls" "$@")
if [[ " $* " == *' --fill '* ]]; then
    own_mounts=(unshare --mount)
    ((EUID == 0)) || own_mounts+=(--map-root-user)
    if ! "${own_mounts[@]}" mount -t tmpfs -o size=24m tmpfs "$folder"; then
        echo 'recorder trial: skipped, no small disk can be mounted here'
        exit 77
    fi
    # shellcheck disable=SC2016 # for the shell inside
    trial=("${own_mounts[@]}" sh -c 'mount -t tmpfs -o size=24m tmpfs "$0" && exec "$@"' "$folder"
        "${trial[@]}")
fi
exec "${trial[@]}"
