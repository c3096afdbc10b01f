#!/usr/bin/env bash
# What the shared library shows to a loader. usage: library_shape.sh LIBRARY
set -euo pipefail
library=$1
faults=0
fault() { echo "FAULT: $*"; faults=$((faults + 1)); }
same() { [ "$2" = "$3" ] || fault "$1: '$2', wanted '$3'"; }

same exports "$(nm -D --defined-only "$library" | awk '{print $2, $3}')" "T CreateStreamProcessor"

dynamic=$(readelf -d "$library")
same soname "$(sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p' <<<"$dynamic")" libkalvrin.so.1
case "$(sed -n 's/.*R[UN]*PATH.*\[\(.*\)\]/\1/p' <<<"$dynamic")" in ''|'$ORIGIN') ;; *) fault "a search path of its own" ;; esac
if grep NEEDED <<<"$dynamic" | grep -qi onnx; then fault "linked to the engine"; fi

segments=$(readelf -lW "$library")
grep -q GNU_RELRO <<<"$segments" || fault "tables that stay writable"
grep -qE 'BIND_NOW|FLAGS.* NOW' <<<"$dynamic" || fault "symbols bound late"
grep GNU_STACK <<<"$segments" | grep -q ' RW ' || fault "an executable stack"
grep -q __stack_chk_fail <<<"$(nm -D --undefined-only "$library")" || fault "no guard of the stack"

symbols=$(objdump -tC "$library")
code=$(grep ' RT_CODE' <<<"$symbols")
constants=$(grep ' RT_CONST' <<<"$symbols")
for name in \
    SignalPrimitives::{Copy,Deinterleave,Interleave,Add,AddProductC,MulC,Mul,Mul_I,Sqrt_I,IntFromSize,ReportAssertionFailure} \
    Dnn::Kalvrin::{EvaluateWindow,SetMasterGain,ResetGains,SetAudioClassGain} Dnn::SpectralFeaturePath::{ForwardWindows,InverseWindows} \
    {Fft,Dft}SpectralTransform::{Forward,Inverse} \
    OverlapAddStage::Run WindowedStreamProcessor::{ProcessBlock,Evaluate}; do
  grep -q "Orvik::Tesmo::.*$name(" <<<"$code" || fault "$name is not in RT_CODE"
done
strays=$(grep -E ' F \.text' <<<"$symbols" | grep -E '[[:space:]]Orvik::Tesmo::(SignalPrimitives|Dnn::Kalvrin)::' | grep -v '{lambda' || true)
[ -z "$strays" ] || fault "outside RT_CODE: $strays"
for operation in Copy Deinterleave Interleave Add AddProductC MulC Mul Mul_I Sqrt_I IntFromSize; do
  [ "$(grep -c "SignalPrimitives::$operation(" <<<"$constants")" = 2 ] || fault "texts of $operation are not in RT_CONST"
done

[ "$faults" = 0 ]
