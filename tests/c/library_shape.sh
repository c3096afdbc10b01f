#!/usr/bin/env bash
# What the C library shows to a loader. usage: library_shape.sh HEADER LIBRARY
set -euo pipefail
header=$1 library=$2
faults=0
fault() { echo "FAULT: $*"; faults=$((faults + 1)); }

declared=$(sed -n 's/^KALVRIN_API .*\(kalvrin_[a-z_]*\)(.*/\1/p' "$header" | sort)
[ -n "$declared" ] || fault "no function in $header"
exported=$(nm -D --defined-only "$library" | awk '$2 == "T" {print $3} $2 != "T" {print "not a function: " $3}' | sort)
diff <(echo "$declared") <(echo "$exported") || fault "declared (<) and exported (>) differ"

dynamic=$(readelf -d "$library")
grep -q 'SONAME.*\[libkalvrin_c.so.1\]' <<<"$dynamic" || fault "soname"
if grep NEEDED <<<"$dynamic" | grep -qE 'kalvrin|onnx|sndfile|proto'; then fault "needs another library of this project, of the tool or the engine"; fi
grep -q 'BIND_NOW\|FLAGS.* NOW' <<<"$dynamic" || fault "symbols bound late"

[ "$faults" = 0 ]
