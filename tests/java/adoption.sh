#!/usr/bin/env bash
# What meets somebody who adopts the client: the page's program and commands do what the page says,
# the application's output is free of the driver's lines, and a wrong library is refused.
#   adoption.sh SOURCE_DIR BUILD_DIR VERSION
set -euxo pipefail # what fails stands at the end of the trace
page=$1/docs/client.md build=$2 version=$3
program=com.zivolt.hardware.dsp.examples.PrintCalls
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# The page's blocks of a language under the line that begins so.
blocks() { sed -n "/^$2/,/^[A-Z#]/p" "$page" | sed -n '/^```'"$1"'$/,/^```$/p' | grep -v '^```'; }

# shellcheck disable=SC2016 # backticks are Markdown
sed -n '/^```java$/,/^```$/p' "$page" | grep -v '^```' | diff - "$1/java/examples/${program//.//}.java"
ln -s "$build" "$work/build"
ln -s "$1/java" "$work/java"
(cd "$work" && bash -e <(blocks sh 'From the repository' | grep -v '^tools/build.sh ')) >"$work/out"
grep -E '^line [0-9]+: call since ' "$work/out"
grep -vE '^(line|card) [0-9]+: ' "$work/out" && exit 1
grep '^Detected 2 boards' "$build/driver.log"

# Whatever java prints and however it ends, nothing is lost.
status=0
"$build/bin/dspcard-java" -cp "$build/nowhere" Nothing >"$work/out" 2>"$work/err" || status=$?
[[ $status == 1 && ! -s $work/out ]] && grep ClassNotFound "$work/err"

# A library of another build, found by its folder since the jar lies elsewhere.
cp "$build/lib/dspcard.jar" "$build/lib/dspcard-example.jar" "$work"
mkdir "$work/old"
sed "s/library version $version/library version ${version//?/0}/" "$build/lib/libdspcard.so" \
    >"$work/old/libdspcard.so"
java "-Djava.library.path=$work/no:$work/old" -jar "$work/dspcard-example.jar" 2>"$work/err" && exit 1
grep "  $work/libdspcard.so: no such file" "$work/err"
grep "  $work/no/libdspcard.so: no such file" "$work/err"
grep "  $work/old/libdspcard.so: is of version ${version//?/0}, this jar of version $version" "$work/err"
