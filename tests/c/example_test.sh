#!/usr/bin/env bash
# Builds the example as C89 and runs it: with every gain at 1 the output settles at the input.
# usage: example_test.sh C_FOLDER LIBRARY CC WRITE_MODEL
set -euo pipefail
folder=$1 library=$2 cc=$3 writeModel=$4
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$cc" -std=c89 -pedantic -Wall -Wextra -Werror -I"$folder/include" "$folder/example/gains.c" \
  -o "$work/gains" -L"${library%/*}" -lkalvrin_c -Wl,-rpath,"${library%/*}"
"$writeModel" "$work/model.onnx"
# 512 frames of 0.5 on both channels.
head -c 4096 /dev/zero | tr '\0' '\77' >"$work/in.f32"
"$work/gains" "$work/model.onnx" Rest 1 <"$work/in.f32" >"$work/out.f32"
tail -c 8 "$work/in.f32" | cmp - <(tail -c 8 "$work/out.f32")
[ "$(stat -c %s "$work/out.f32")" = 4096 ]
if "$work/gains" "$work/in.f32" Rest 1 </dev/null 2>"$work/words"; then echo "took audio for a model"; exit 1; fi
grep -q "no model" "$work/words"
