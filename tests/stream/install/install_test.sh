#!/usr/bin/env bash
# Installs, moves what was installed, and builds and runs a host against it, by the CMake package and
# by pkg-config. usage: install_test.sh BUILDDIR CMAKE CXX WRITE_MODEL
set -euo pipefail
build=$1 cmake=$2 cxx=$3 writeModel=$4
client=$(cd "$(dirname "$0")/client" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix="$work/a place of its own"

"$cmake" --install "$build" --prefix "$work/first" >/dev/null
mv "$work/first" "$prefix"
library=$(find "$prefix" -name libkalvrin.so.1 -not -path '*/vst3/*')
for file in "$library" "${library%.1}" "${library%/*}/libonnxruntime.so.1" \
    "$prefix/include/kalvrin/stream_processor.h" "$prefix/bin/kalvrin" \
    "${library%/*}/libkalvrin_c.so" "$prefix/include/kalvrin.h"; do
  [ -e "$file" ] || { echo "not installed: $file"; exit 1; }
done
if grep -rlF -e "$work/first" -e "$build" "$prefix/include" "${library%/*}/cmake" "${library%/*}/pkgconfig" "$library"; then
  echo "these hold a path of this machine"; exit 1
fi
"$writeModel" "$work/model.onnx"

"$cmake" -S "$client" -B "$work/client" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$cxx" >/dev/null
"$cmake" --build "$work/client" >/dev/null
"$work/client/client" "$work/model.onnx" || { echo "client of the CMake package: exit status $?"; exit 1; }

export PKG_CONFIG_PATH="${library%/*}/pkgconfig"
flags=()  # eval, since pkg-config quotes the blanks in the prefix
eval "flags=($(pkg-config --cflags --libs kalvrin))"
"$cxx" "$client/main.cpp" -o "$work/by-pkg-config" "${flags[@]}" -Wl,-rpath,"${library%/*}"
"$work/by-pkg-config" "$work/model.onnx" || { echo "client by pkg-config: exit status $?"; exit 1; }

# The C interface finds the library beside it, wherever that is.
eval "flags=($(pkg-config --cflags --libs kalvrin_c))"
"$cxx" -x c -std=c89 -pedantic -Wall -Wextra -Werror "$client/../../../../examples/c/gains.c" \
  -o "$work/gains" "${flags[@]}" -Wl,-rpath,"${library%/*}"
# 512 frames of 0.5 on both channels, to which the output settles.
head -c 4096 /dev/zero | tr '\0' '\77' >"$work/in.f32"
"$work/gains" "$work/model.onnx" Rest 1 <"$work/in.f32" >"$work/out.f32" || { echo "client of the C interface: exit status $?"; exit 1; }
tail -c 8 "$work/in.f32" | cmp - <(tail -c 8 "$work/out.f32")
if "$work/gains" "$work/in.f32" Rest 1 </dev/null 2>"$work/words"; then echo "took audio for a model"; exit 1; fi
grep -q "no model" "$work/words"

# Plugins refer to the installed libraries or, portable, to nothing outside. The second run replaces the links.
for kind in lv2 ladspa; do
  flag=(); [ $kind = lv2 ] || flag=(--ladspa)
  "$prefix/bin/kalvrin" plugin "$work/model.onnx" --to "$work/$kind" ${flag[@]+"${flag[@]}"} >/dev/null
  [ "$(find "$work/$kind" -lname "$prefix/*" | wc -l)" = 2 ] || { echo "$kind: not two links"; exit 1; }
  "$prefix/bin/kalvrin" plugin "$work/model.onnx" --to "$work/$kind" --portable ${flag[@]+"${flag[@]}"} >/dev/null
  [ -z "$(find "$work/$kind" -type l)" ] || { echo "$kind: a portable plugin has links"; exit 1; }
done
