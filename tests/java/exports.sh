#!/usr/bin/env bash
# The driver's library shows the native methods that Java declares, and nothing else.
#   exports.sh LIBRARY CPPBRIDGE_JAVA
set -euo pipefail
methods='s/^ *public native .* ([A-Za-z]+)\(.*/Java_com_zivolt_hardware_dsp_cppint_CPPBridge_\1/p'
diff <(sed -nE "$methods" "$2" | sort) <(nm -D --defined-only "$1" | cut -d' ' -f3 | sort)
