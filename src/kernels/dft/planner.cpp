// From a plan to a spec: the tables in the order in which the kernels of a build read them.

#include "kernels/dft/planned_dft.h"
#include "kernels/fft/plan.h"
#include "kernels/roots.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace Orvik::Tesmo::Kernels {
namespace {

/// A block of `count` values; false when there is no memory for it.
template <class T>
bool Allocate(T*& block, std::int64_t count) {
  const std::int64_t bytes = count * static_cast<std::int64_t>(sizeof(T));
  if (bytes > std::numeric_limits<std::int32_t>::max()) return false;
  block = reinterpret_cast<T*>(ippsMalloc(static_cast<std::int32_t>(bytes)));
  return block != nullptr;
}

/// A table of roots for the time of planning; null without memory.
class TemporaryRoots {
public:
  explicit TemporaryRoots(std::int64_t N) {
    if (Allocate(memory, RootTable::Floats(N))) table = RootTable(memory, N);
  }
  ~TemporaryRoots() { ippsFree(memory); }
  TemporaryRoots(const TemporaryRoots&) = delete;
  TemporaryRoots& operator=(const TemporaryRoots&) = delete;
  const RootTable* Get() const { return memory ? &table : nullptr; }

private:
  float* memory = nullptr;
  RootTable table;
};

/// One group of factors; at(l) returns the factor of value l in memory order.
template <class At>
void FillGroup(float* group, int width, bool apart, At&& at) {
  for (int l = 0; l < width; ++l) {
    const int value = apart ? ColumnOf(l, width) : l;
    const Ipp32fc factor = at(value);
    group[apart ? l : 2 * l] = factor.re;
    group[apart ? width + l : 2 * l + 1] = factor.im;
  }
}

bool MakeTwiddles(DftStageTables& stage, const StageGroups& vecWidth, std::int64_t first,
                  std::int64_t count, const RootTable& roots) {
  const std::int64_t width = vecWidth.width;
  const std::int64_t groups = (count + width - 1) / width;
  if (!Allocate(stage.twiddles, groups * (stage.radix - 1) * 2 * width)) return false;
  float* group = stage.twiddles;
  for (std::int64_t g = 0; g < groups; ++g) {
    const std::int64_t q = first + std::min(g * width, count - width);
    for (std::int64_t p = 1; p < stage.radix; ++p, group += 2 * width)
      FillGroup(group, vecWidth.width, vecWidth.apart, [&](int l) {
        const std::int64_t block = static_cast<std::int64_t>(stage.radix) * stage.remaining;
        return roots.At(p * (q + l), block);
      });
  }
  return true;
}

bool MakeDirectTable(float*& table, int n, const RootTable& roots) {
  if (!Allocate(table, 2 * static_cast<std::int64_t>(n))) return false;
  for (int k = 0; k < n; ++k) {
    const Ipp32fc root = roots.At(k, n);
    table[2 * k] = root.re;
    table[2 * k + 1] = root.im;
  }
  return true;
}

bool MakeRecombination(IppsDFTSpec_R_32f& spec, int vecWidth, const RootTable& roots) {
  const std::int64_t n = spec.length / 2;
  const int width = RecombineWidth(n, vecWidth);
  const std::int64_t groups = RecombineGroups(n, vecWidth);
  if (!Allocate(spec.recombFwd, groups * 2 * width) ||
      !Allocate(spec.recombInv, groups * 2 * width))
    return false;
  for (std::int64_t g = 0; g < groups; ++g) {
    const std::int64_t k = RecombineStart(n, vecWidth, g);
    FillGroup(spec.recombFwd + g * 2 * width, width, true, [&](int l) {
      const Ipp32fc w = roots.At(k + l, spec.length);
      return Ipp32fc{0.5f * w.re, 0.5f * w.im + 0.5f};
    });
    FillGroup(spec.recombInv + g * 2 * width, width, true,
              [&](int l) { return roots.At(k + l, spec.length); });
  }
  return true;
}

bool MakeDigitOrder(IppsDFTSpec_R_32f& spec, const DftPlan& plan) {
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

IppStatus MakeStages(IppsDFTSpec_R_32f& spec, const DftPlan& plan, DftKind kind, int vecWidth,
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
    const bool made =
        spec.realPlan
            ? MakeTwiddles(stage, {RealStageWidth(m, vecWidth), false}, 1, (m - 1) / 2, roots)
            : MakeTwiddles(stage, GroupsOf(plan.points, m, vecWidth), 0, m, roots);
    if (!made) return ippStsMemAllocErr;
  }
  spec.workSize = static_cast<std::int32_t>(OwnWorkSize(plan, kind));
  return MakeDigitOrder(spec, plan) ? ippStsNoErr : ippStsMemAllocErr;
}

IppStatus MakeConvolution(const Build& build, IppsDFTSpec_R_32f& spec, const DftPlan& plan,
                          const RootTable& roots) {
  const std::int64_t n = plan.points, M = plan.convLength;
  if (!Allocate(spec.chirp, 2 * n) || !Allocate(spec.chirpSpectrum, 2 * M))
    return ippStsMemAllocErr;
  std::memset(spec.chirpSpectrum, 0, static_cast<std::size_t>(M) * 2 * sizeof(float));
  for (std::int64_t k = 0, square = 0; k < n; square = (square + 2 * k + 1) % (2 * n), ++k) {
    const Ipp32fc w = roots.At(square, 2 * n);
    spec.chirp[2 * k] = w.re, spec.chirp[2 * k + 1] = w.im;
    const std::int64_t mirror = k == 0 ? 0 : M - k;
    spec.chirpSpectrum[2 * k] = spec.chirpSpectrum[2 * mirror] = w.re;
    spec.chirpSpectrum[2 * k + 1] = spec.chirpSpectrum[2 * mirror + 1] = -w.im;
  }
  spec.convLength = plan.convLength;
  IppStatus status = PlanDftSpec(build, &spec.convSpec, plan.convLength, IPP_FFT_NODIV_BY_ANY,
                                 ippAlgHintNone, DftKind::Complex);
  auto* const spectrum = reinterpret_cast<Ipp32fc*>(spec.chirpSpectrum);
  if (status == ippStsNoErr)
    status = build.ippsDFTFwd_CToC_32fc(spectrum, spectrum, spec.convSpec, nullptr);
  if (status != ippStsNoErr) return status;
  build.ippsMulC_32f_I(1.0f / static_cast<float>(M), spec.chirpSpectrum, static_cast<int>(2 * M));
  const std::int64_t workSize = spec.convSpec->workSize + M * 8 + 32;
  if (workSize > std::numeric_limits<std::int32_t>::max()) return ippStsMemAllocErr;
  spec.workSize = static_cast<std::int32_t>(workSize);
  return ippStsNoErr;
}

IppStatus MakeFft(const Limits& limits, IppsDFTSpec_R_32f& spec, int flag, DftKind kind) {
  int order = 0;
  while (1 << order < spec.length)
    ++order;
  spec.usesFft = 1;
  if (kind == DftKind::Complex) {
    const IppStatus status = PlanComplexFft(limits, &spec.complexFftSpec, order, flag, spec.hint);
    if (status == ippStsNoErr) spec.workSize = spec.complexFftSpec->workSize;
    return status;
  }
  const IppStatus status = PlanRealFft(limits, &spec.fftSpec, order, flag, spec.hint);
  if (status == ippStsNoErr && spec.fftSpec->workSize > 0)
    spec.workSize = spec.fftSpec->workSize + 32;
  return status;
}

bool SetScale(IppsDFTSpec_R_32f& spec, int flag) {
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
IppStatus FillSpec(const Build& build, IppsDFTSpec_R_32f& spec, int flag, DftKind kind) {
  if (!SetScale(spec, flag)) return ippStsFftFlagErr;
  if (spec.length >= LengthLimit && !IsPowerOfTwo(spec.length)) return ippStsSizeErr;
  const DftPlan plan = PlanDft(spec.length, kind);
  if (plan.method == DftMethod::Fft) return MakeFft(build.limits, spec, flag, kind);
  if (spec.length <= DirectKernelLimit) return ippStsNoErr;
  if (plan.method == DftMethod::Convolution && plan.points >= ConvolutionPointLimit)
    return ippStsSizeErr;
  // the chirp wants 2 n roots
  const bool isDoubled = plan.method == DftMethod::Convolution && plan.points == spec.length;
  const TemporaryRoots temporary(std::int64_t{spec.length} * (isDoubled ? 2 : 1));
  if (!temporary.Get()) return ippStsMemAllocErr;
  const RootTable& roots = *temporary.Get();
  const int vecWidth = build.limits.vecWidth;
  if (kind == DftKind::Real && spec.length % 2 == 0 && !MakeRecombination(spec, vecWidth, roots))
    return ippStsMemAllocErr;
  switch (plan.method) {
  case DftMethod::MixedRadix:
    return MakeStages(spec, plan, kind, vecWidth, roots);
  case DftMethod::DirectSum:
    spec.workSize = static_cast<std::int32_t>(OwnWorkSize(plan, kind));
    return MakeDirectTable(spec.directTable, plan.points, roots) ? ippStsNoErr : ippStsMemAllocErr;
  case DftMethod::Convolution:
    return MakeConvolution(build, spec, plan, roots);
  default:
    return ippStsNoErr;
  }
}

void ReleaseSpec(IppsDFTSpec_R_32f* spec) {
  if (!spec) return;
  FreeFft(spec->fftSpec, FftSpec::liveReal);
  FreeFft(spec->complexFftSpec, FftSpec::liveComplex);
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

}  // namespace

IppStatus PlanDftSpec(const Build& build, IppsDFTSpec_R_32f** made, int length, int flag, int hint,
                      DftKind kind) {
  if (!made) return ippStsNullPtrErr;
  if (length < 1) return ippStsSizeErr;
  IppsDFTSpec_R_32f* spec = nullptr;
  if (!Allocate(spec, 1)) return ippStsMemAllocErr;
  std::memset(spec, 0, sizeof *spec);
  spec->id = kind == DftKind::Real ? RealDftId : ComplexDftId;
  spec->length = length;
  spec->hint = hint;
  const IppStatus status = FillSpec(build, *spec, flag, kind);
  if (status == ippStsNoErr)
    *made = spec;
  else
    ReleaseSpec(spec);
  return status;
}

IppStatus FreeDft(IppsDFTSpec_R_32f* spec, std::int32_t id) {
  if (!spec) return ippStsNullPtrErr;
  if (spec->id != id) return ippStsContextMatchErr;
  ReleaseSpec(spec);
  return ippStsNoErr;
}

}  // namespace Orvik::Tesmo::Kernels
