#!/usr/bin/env bash
# Builds examples/embed, which takes the library in by add_subdirectory, and runs it. With `configure` it only runs
# CMake and looks at what would be built. usage: embed_test.sh FOLDER JOBS [configure]
set -euo pipefail
source=$(cd "$(dirname "$0")/../.." && pwd)
mkdir -p "$1"
work=$(cd "$1" && pwd) jobs=$2
fail() { echo "embed_test: $*" >&2; exit 1; }

# CMake may not download anything: an npm that leaves a trace comes first, and the cache with an engine is out of reach.
mkdir -p "$work/path"
printf '#!/bin/sh\ntouch "%s/fetched"\nexit 1\n' "$work" >"$work/path/npm"
chmod +x "$work/path/npm"
rm -rf "$work/fetched" "$work/build/CMakeCache.txt"
env PATH="$work/path:$PATH" XDG_CACHE_HOME="$work/no-cache" \
  cmake -S "$source/examples/embed" -B "$work/build" -G Ninja >"$work/log" 2>&1 || { cat "$work/log" >&2; fail "CMake fails"; }
[ ! -e "$work/fetched" ] || fail "CMake downloads the engine though nobody asked for it"
[ ! -e "$work/build/bin" ] || fail "the program of the embedding project does not belong in bin"

targets=$(ninja -C "$work/build" -t targets all)
grep -q 'libkalvrin\.so:' <<<"$targets" || fail "the library is not built"
if grep -E '^(kalvrin_(tool|program|hosting|lv2|ladspa|c|diagnosis)|models)[:.]' <<<"$targets"; then fail "more than the library is built"; fi
commands=$(ninja -C "$work/build" -t commands)
if grep -q -e -Werror <<<"$commands"; then fail "warnings are errors"; fi
grep -q -e '-O2.*src/stream/' <<<"$commands" || fail "the library is not optimised without CMAKE_BUILD_TYPE"
if grep -q -e '-O2.*embed/main.cpp' <<<"$commands"; then fail "the flags of the library reach the embedding project"; fi
[ "${3:-}" != configure ] || exit 0

cmake -DKALVRIN_ENGINE="$("$source/scripts/fetch-engine")" "$work/build" >"$work/log"
cmake --build "$work/build" -j "$jobs"
# A second of 0.747: with all gains at 1 the output settles at the input.
head -c 64000 /dev/zero | tr '\0' '\77' >"$work/in.f32"
"$work/build/embed" "$source/models/separator/separator.onnx" Music 1 <"$work/in.f32" >"$work/out.f32"
[ "$(stat -c %s "$work/out.f32")" = 64000 ] || fail "the output has another length than the input"
tail -c 4 "$work/out.f32" | od -An -tf4 | awk '{exit !($1 > 0.7470 && $1 < 0.7472)}' || fail "the output is not the input"
if "$work/build/embed" "$work/in.f32" Music 1 </dev/null 2>"$work/words"; then fail "takes audio for a model"; fi
grep -q refused "$work/words" || fail "does not say that the model is refused"
echo "examples/embed: built without anything but the library, and runs"
