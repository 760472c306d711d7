# shellcheck shell=bash
# For scripts that take options; to be sourced. The script has a function usage, which prints its
# help.

# wrong_usage TEXT: says what is wrong, shows the help, and ends with status 2.
wrong_usage() {
    printf '%s: %s\n\n' "${0##*/}" "$1" >&2
    usage >&2
    exit 2
}

# show_help: shows the help, and ends.
show_help() {
    usage
    exit 0
}

# require_number OPTION VALUE: whether it is one from 1.
require_number() {
    [[ ${2-} =~ ^[1-9][0-9]*$ ]] || wrong_usage "$1 takes a whole number from 1"
}
