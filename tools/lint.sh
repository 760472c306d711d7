#!/usr/bin/env bash
# Checks the style of everything: format and clang-tidy for C++, shellcheck for scripts. Installs
# what is missing from Debian's packages first.
#
#   tools/lint.sh [--all]     --all: clang-tidy for tests, trials and fuzzers as well
#
# Exit status: 0 clean, 1 not (what is wrong stands above).
set -euo pipefail
cd "$(dirname "$0")/.."

mapfile -t files < <(git ls-files --cached --others --exclude-standard)
((${#files[@]} > 0)) || {
    echo 'lint: no files; is this a checkout?' >&2
    exit 1
}
mapfile -t cpp < <(printf '%s\n' "${files[@]}" | grep -E '\.(h|cpp)$')
mapfile -t scripts < <(grep -lE '^#!.*[ /](ba)?sh$' "${files[@]}")
unclean=()
where="^$PWD/(?!tests/|trials/|fuzz/)"
[[ ${1-} != --all ]] || where="^$PWD/"

# check NAME COMMAND...: runs it, and shows what it says only when it finds something.
check() {
    local name=$1 start=$SECONDS findings
    shift
    printf 'lint: %s\n' "$name"
    if findings=$("$@" 2>&1); then
        printf 'lint: %s: clean, %d s\n' "$name" "$((SECONDS - start))"
    else
        printf '%s\nlint: %s: NOT CLEAN\n' "$findings" "$name" >&2
        unclean+=("$name")
    fi
}

# Every file that is compiled, and the headers that it includes; with --all tests, trials and fuzzers
# too, which take as long as all others.
tidy() {
    run-clang-tidy -quiet -j "$(nproc)" -p build "$where" 2>&1 |
        sed -E '/^clang-tidy|^[0-9]+ (warning|error)s? (generated|treated)|^$/d'
}

tools/install-missing.sh clang-format clang-tidy shellcheck
tools/build.sh release ptypes # little to build; what counts is how the rest would be compiled
check "format of ${#cpp[@]} C++ files" clang-format --dry-run --Werror "${cpp[@]}"
check "shellcheck of ${#scripts[@]} scripts" shellcheck -x "${scripts[@]}"
check "clang-tidy of what is compiled" tidy
((${#unclean[@]} == 0)) || exit 1
echo 'lint: all clean'
