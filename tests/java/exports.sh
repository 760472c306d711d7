#!/usr/bin/env bash
# The driver's library shows the native methods that Java declares, and nothing else.
#   exports.sh LIBRARY CPPBRIDGE_JAVA
set -euo pipefail
library=$1 source=$2

mapfile -t declared < <(sed -nE 's/^ *public native [a-z]+(\[\])? ([A-Za-z]+)\(.*/\2/p' "$source")
((${#declared[@]} == 8)) || { echo "not eight methods: ${declared[*]}"; exit 1; }
diff <(printf 'Java_com_zivolt_hardware_dsp_cppint_CPPBridge_%s\n' "${declared[@]}" | sort) \
    <(nm -D --defined-only "$library" | cut -d' ' -f3 | sort)
