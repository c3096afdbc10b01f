// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
#pragma once

// From a plan to a spec: the tables in the order in which this build's kernels read them.

#include "kernels/dft/planned_dft.h"
#include "kernels/dft/real_stage.h"
#include "kernels/dft/recombine.h"
#include "kernels/fft/plan.h"

#include <cmath>
#include <cstring>
#include <limits>

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD::Dft {

/// A block of `count` values; false when there is no memory for it.
template <class T>
bool Allocate(T*& block, std::int64_t count) {
  const std::int64_t bytes = count * static_cast<std::int64_t>(sizeof(T));
  if (bytes > std::numeric_limits<std::int32_t>::max()) return false;
  block = reinterpret_cast<T*>(ippsMalloc(static_cast<std::int32_t>(bytes)));
  return block != nullptr;
}

/// Temporary: all N roots exp(-2 pi i k / N).
class RootTable {
public:
  RootTable() = default;
  RootTable(const RootTable&) = delete;
  RootTable& operator=(const RootTable&) = delete;
  ~RootTable() { ippsFree(roots); }

  /// Calls sine and cosine in the first eighth (N a multiple of 4), quarter (even) or half of the
  /// turn and mirrors the rest, so that symmetric roots are exactly symmetric.
  bool Make(std::int64_t length) {
    size = length;
    if (!Allocate(roots, 2 * length)) return false;
    for (std::int64_t k = 0; k < length; ++k) {
      float* w = roots + 2 * k;
      if (2 * k > length) {
        const float* mirror = roots + 2 * (length - k);
        w[0] = mirror[0], w[1] = -mirror[1];
      } else if (length % 2 == 0 && 4 * k > length) {
        const float* mirror = roots + 2 * (length / 2 - k);
        w[0] = -mirror[0], w[1] = mirror[1];
      } else if (length % 4 == 0 && 8 * k > length) {
        const float* mirror = roots + 2 * (length / 4 - k);
        w[0] = -mirror[1], w[1] = -mirror[0];
      } else {
        const double angle =
            6.283185307179586 * static_cast<double>(k) / static_cast<double>(length);
        w[0] = static_cast<float>(std::cos(angle)), w[1] = static_cast<float>(-std::sin(angle));
      }
    }
    return true;
  }
  /// exp(-2 pi i num / den); den divides N.
  const float* At(std::int64_t num, std::int64_t den) const {
    return roots + 2 * (num % den * (size / den));
  }
  std::int64_t Size() const { return size; }

private:
  float* roots = nullptr;
  std::int64_t size = 0;
};

/// One lane group of factors, at(l) giving the value of lane l in memory order.
template <class At>
void FillGroup(float* group, int width, bool apart, At&& at) {
  for (int l = 0; l < width; ++l) {
    const int value = apart ? ColumnOf(l, width) : l;
    const Ipp32fc factor = at(value);
    group[apart ? l : 2 * l] = factor.re;
    group[apart ? width + l : 2 * l + 1] = factor.im;
  }
}

/// How a stage of a complex plan over n points holds its values.
struct StageLanes {
  int width;   ///< complex values in a group
  bool apart;  ///< real and imaginary parts apart
};
constexpr bool Grouped(std::ptrdiff_t n) {
  return n % Vec::width == 0;
}
constexpr StageLanes LanesOf(std::ptrdiff_t n, std::ptrdiff_t m) {
  if (Grouped(n)) return {Vec::width, true};
  return {m >= Vec::width / 2 ? Vec::width / 2 : 2, false};
}

inline bool MakeTwiddles(DftStageTables& stage, const StageLanes& lanes, std::int64_t first,
                         std::int64_t count, const RootTable& roots) {
  const std::int64_t width = lanes.width;
  const std::int64_t groups = (count + width - 1) / width;
  if (!Allocate(stage.twiddles, groups * (stage.radix - 1) * 2 * width)) return false;
  float* group = stage.twiddles;
  for (std::int64_t g = 0; g < groups; ++g) {
    const std::int64_t q = first + Smaller(g * width, count - width);
    for (std::int64_t p = 1; p < stage.radix; ++p, group += 2 * width)
      FillGroup(group, lanes.width, lanes.apart, [&](int l) {
        const std::int64_t block = static_cast<std::int64_t>(stage.radix) * stage.remaining;
        const float* w = roots.At(p * (q + l), block);
        return Ipp32fc{w[0], w[1]};
      });
  }
  return true;
}

inline bool MakeDirectTable(float*& table, int n, const RootTable& roots) {
  if (!Allocate(table, 2 * static_cast<std::int64_t>(n))) return false;
  for (int k = 0; k < n; ++k)
    std::memcpy(table + 2 * k, roots.At(k, n), 2 * sizeof(float));
  return true;
}

inline bool MakeRecombination(IppsDFTSpec_R_32f& spec, const RootTable& roots) {
  const std::ptrdiff_t n = spec.length / 2;
  const int width = RecombineWidth(n);
  const std::ptrdiff_t groups = RecombineGroups(n);
  if (!Allocate(spec.recombFwd, groups * 2 * width) ||
      !Allocate(spec.recombInv, groups * 2 * width))
    return false;
  for (std::ptrdiff_t g = 0; g < groups; ++g) {
    const std::ptrdiff_t k = RecombineStart(n, g);
    FillGroup(spec.recombFwd + g * 2 * width, width, true, [&](int l) {
      const float* w = roots.At(k + l, spec.length);
      return Ipp32fc{0.5f * w[0], 0.5f * w[1] + 0.5f};
    });
    FillGroup(spec.recombInv + g * 2 * width, width, true, [&](int l) {
      const float* w = roots.At(k + l, spec.length);
      return Ipp32fc{w[0], w[1]};
    });
  }
  return true;
}

inline bool MakeDigitOrder(IppsDFTSpec_R_32f& spec, const DftPlan& plan) {
  const DftStage& last = plan.stages[static_cast<std::size_t>(spec.lastStage)];
  std::int32_t* offsets = nullptr;
  if (!Allocate(offsets, last.count)) return false;
  const bool made = Allocate(spec.digitOrder, static_cast<std::int64_t>(last.count) * last.radix);
  if (made) {
    FillDigitOrder(plan, offsets);
    for (int block = 0; block < last.count; ++block)
      for (int digit = 0; digit < last.radix; ++digit)
        spec.digitOrder[offsets[block] + digit * last.count] =
            (block * last.radix + digit) * last.remaining;
  }
  ippsFree(offsets);
  return made;
}

inline IppStatus MakeStages(IppsDFTSpec_R_32f& spec, const DftPlan& plan, DftKind kind,
                            const RootTable& roots) {
  spec.hasPlan = 1;
  spec.realPlan = kind == DftKind::Real && spec.length % 2 == 1;
  spec.lastStage = plan.stageCount - 2;
  spec.lastRun = LastRunStart(plan);
  for (int i = 0; i < plan.stageCount; ++i) {
    const DftStage& planned = plan.stages[static_cast<std::size_t>(i)];
    DftStageTables& stage = spec.stages[i];
    stage.radix = planned.radix;
    stage.remaining = planned.remaining;
    stage.stride = planned.stride;
    stage.count = planned.count;
    if (stage.radix % 2 == 1 && stage.radix >= 15) {
      if (i > 0 && spec.stages[i - 1].radix == stage.radix)
        stage.directTable = spec.stages[i - 1].directTable;
      else if (!MakeDirectTable(stage.directTable, stage.radix, roots))
        return ippStsMemAllocErr;
    }
    if (i > spec.lastStage) break;
    const std::int64_t m = stage.remaining;
    const bool made = spec.realPlan
                          ? MakeTwiddles(stage, {RealStageWidth(m), false}, 1, (m - 1) / 2, roots)
                          : MakeTwiddles(stage, LanesOf(plan.points, m), 0, m, roots);
    if (!made) return ippStsMemAllocErr;
  }
  spec.workSize = static_cast<std::int32_t>(OwnWorkSize(plan, kind));
  return MakeDigitOrder(spec, plan) ? ippStsNoErr : ippStsMemAllocErr;
}

inline IppStatus MakeSpec(IppsDFTSpec_R_32f** made, int length, int flag, int hint, DftKind kind);
inline IppStatus RunComplex(Direction dir, const float* src, float* dst,
                            const IppsDFTSpec_C_32fc& spec, Ipp8u* buffer);

inline IppStatus MakeConvolution(IppsDFTSpec_R_32f& spec, const DftPlan& plan,
                                 const RootTable& roots) {
  const std::int64_t n = plan.points, M = plan.convLength;
  RootTable own;
  if (roots.Size() != 2 * n && !own.Make(2 * n)) return ippStsMemAllocErr;
  const RootTable& turns = roots.Size() == 2 * n ? roots : own;
  if (!Allocate(spec.chirp, 2 * n) || !Allocate(spec.chirpSpectrum, 2 * M))
    return ippStsMemAllocErr;
  std::memset(spec.chirpSpectrum, 0, static_cast<std::size_t>(M) * 2 * sizeof(float));
  for (std::int64_t k = 0, square = 0; k < n; square = (square + 2 * k + 1) % (2 * n), ++k) {
    const float* w = turns.At(square, 2 * n);
    spec.chirp[2 * k] = w[0], spec.chirp[2 * k + 1] = w[1];
    const std::int64_t mirror = k == 0 ? 0 : M - k;
    spec.chirpSpectrum[2 * k] = spec.chirpSpectrum[2 * mirror] = w[0];
    spec.chirpSpectrum[2 * k + 1] = spec.chirpSpectrum[2 * mirror + 1] = -w[1];
  }
  spec.convLength = plan.convLength;
  IppStatus status = MakeSpec(&spec.convSpec, plan.convLength, IPP_FFT_NODIV_BY_ANY, ippAlgHintNone,
                              DftKind::Complex);
  if (status == ippStsNoErr)
    status = RunComplex(Direction::Forward, spec.chirpSpectrum, spec.chirpSpectrum, *spec.convSpec,
                        nullptr);
  if (status != ippStsNoErr) return status;
  ippsMulC_32f_I(1.0f / static_cast<float>(M), spec.chirpSpectrum, static_cast<int>(2 * M));
  const std::int64_t workSize = spec.convSpec->workSize + M * 8 + 32;
  if (workSize > std::numeric_limits<std::int32_t>::max()) return ippStsMemAllocErr;
  spec.workSize = static_cast<std::int32_t>(workSize);
  return ippStsNoErr;
}

inline IppStatus MakeFft(IppsDFTSpec_R_32f& spec, int flag, DftKind kind) {
  int order = 0;
  while (1 << order < spec.length)
    ++order;
  spec.usesFft = 1;
  if (kind == DftKind::Complex) {
    const IppStatus status = ippsFFTInitAlloc_C_32fc(&spec.complexFftSpec, order, flag, spec.hint);
    return status != ippStsNoErr ? status
                                 : ippsFFTGetBufSize_C_32fc(spec.complexFftSpec, &spec.workSize);
  }
  IppStatus status = KERNELS_BUILD::ippsFFTInitAlloc_R_32f(&spec.fftSpec, order, flag, spec.hint);
  int specSize, initSize, workSize = 0;
  if (status == ippStsNoErr)
    status = KERNELS_BUILD::ippsFFTGetSize_R_32f(order, flag, spec.hint, &specSize, &initSize,
                                                 &workSize);
  spec.workSize = workSize > 0 ? workSize + 32 : 0;
  return status;
}

inline bool SetScale(IppsDFTSpec_R_32f& spec, int flag) {
  switch (flag) {
  case IPP_FFT_DIV_FWD_BY_N:
    spec.fwdScaled = 1;
    break;
  case IPP_FFT_DIV_INV_BY_N:
    spec.invScaled = 1;
    break;
  case IPP_FFT_DIV_BY_SQRTN:
    spec.fwdScaled = spec.invScaled = 1;
    break;
  case IPP_FFT_NODIV_BY_ANY:
    break;
  default:
    return false;
  }
  spec.scale = flag == IPP_FFT_DIV_BY_SQRTN
                   ? static_cast<float>(1.0 / std::sqrt(static_cast<double>(spec.length)))
                   : 1.0f / static_cast<float>(spec.length);
  return true;
}

/// Everything behind the header.
inline IppStatus FillSpec(IppsDFTSpec_R_32f& spec, int flag, DftKind kind) {
  if (!SetScale(spec, flag)) return ippStsFftFlagErr;
  if (spec.length >= LengthLimit && !IsPowerOfTwo(spec.length)) return ippStsSizeErr;
  const DftPlan plan = PlanDft(spec.length, kind);
  if (plan.method == DftMethod::Fft) return MakeFft(spec, flag, kind);
  if (spec.length <= DirectKernelLimit) return ippStsNoErr;
  if (plan.method == DftMethod::Convolution && plan.points >= ConvolutionPointLimit)
    return ippStsSizeErr;
  RootTable roots;
  if (!roots.Make(spec.length)) return ippStsMemAllocErr;
  if (kind == DftKind::Real && spec.length % 2 == 0 && !MakeRecombination(spec, roots))
    return ippStsMemAllocErr;
  switch (plan.method) {
  case DftMethod::MixedRadix:
    return MakeStages(spec, plan, kind, roots);
  case DftMethod::DirectSum:
    spec.workSize = static_cast<std::int32_t>(OwnWorkSize(plan, kind));
    return MakeDirectTable(spec.directTable, plan.points, roots) ? ippStsNoErr : ippStsMemAllocErr;
  case DftMethod::Convolution:
    return MakeConvolution(spec, plan, roots);
  default:
    return ippStsNoErr;
  }
}

inline void ReleaseSpec(IppsDFTSpec_R_32f* spec) {
  if (!spec) return;
  if (spec->fftSpec) KERNELS_BUILD::ippsFFTFree_R_32f(spec->fftSpec);
  if (spec->complexFftSpec) ippsFFTFree_C_32fc(spec->complexFftSpec);
  for (void* table :
       {spec->directTable, spec->recombFwd, spec->recombInv, spec->chirp, spec->chirpSpectrum})
    ippsFree(table);
  ReleaseSpec(spec->convSpec);
  ippsFree(spec->digitOrder);
  const float* released = nullptr;
  for (DftStageTables& stage : spec->stages) {
    if (stage.directTable != released) ippsFree(stage.directTable);
    released = stage.directTable;
    ippsFree(stage.twiddles);
  }
  spec->id = 0;
  ippsFree(spec);
}

/// `length` is at least 1. *made is written on success only.
inline IppStatus MakeSpec(IppsDFTSpec_R_32f** made, int length, int flag, int hint, DftKind kind) {
  IppsDFTSpec_R_32f* spec = nullptr;
  if (!Allocate(spec, 1)) return ippStsMemAllocErr;
  std::memset(spec, 0, sizeof *spec);
  spec->id = kind == DftKind::Real ? RealDftId : ComplexDftId;
  spec->length = length;
  spec->hint = hint;
  const IppStatus status = FillSpec(*spec, flag, kind);
  if (status == ippStsNoErr)
    *made = spec;
  else
    ReleaseSpec(spec);
  return status;
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD::Dft
