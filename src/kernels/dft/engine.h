// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
#pragma once

// Runs a spec: the stages of a plan, the chirp convolution and the direct methods, and around them
// the steps that make a complex transform of n points a real one of N.

#include "kernels/dft/bottom.h"
#include "kernels/dft/direct.h"
#include "kernels/dft/planned_dft.h"
#include "kernels/dft/real_stage.h"
#include "kernels/dft/recombine.h"
#include "kernels/dft/stage.h"
#include "kernels/entry.h"
#include "kernels/fft/plan.h"

#include <cstring>

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

inline BottomRun BottomOf(const IppsDFTSpec_R_32f& spec) {
  const DftStageTables& last = spec.stages[spec.lastStage];
  const DftStageTables& bottom = spec.stages[spec.lastStage + 1];
  return {bottom.radix, last.count * last.radix, spec.stages[spec.lastRun].stride, spec.digitOrder,
          bottom.directTable};
}

/// Runs a complex plan. Every block lies in `target` at the place of its results. The last step,
/// which is stage 0, writes to `dst`, which may be `target`, and multiplies by `scale` where the
/// direction is inverse.
template <Direction dir>
class ComplexWalk {
public:
  ComplexWalk(const IppsDFTSpec_R_32f& spec, int n, float* target, float* dst, float scale)
      : spec(spec), n(n), target(target), dst(dst), scale(scale),
        isGrouped(IsGrouped(n, Vec::width)), bottom(BottomOf(spec)) {}

  void Run(const float* src) { Run(0, src, target); }

private:
  void Run(int first, const float* src, float* block) {
    if (first < spec.lastRun) {
      const DftStageTables& stage = spec.stages[first];
      for (int p = 0; p < stage.radix; ++p)
        Run(first + 1, src + 2 * static_cast<std::ptrdiff_t>(p) * stage.stride,
            block + 2 * static_cast<std::ptrdiff_t>(p) * stage.remaining);
      Stage(first, block);
      return;
    }
    if (isGrouped)
      RunGroupedBottom<Vec, dir>(src, block, bottom);
    else
      RunPairsBottom<Vec::UpTo8, dir>(src, block, bottom);
    for (int i = spec.lastStage; i >= first; --i)
      Stage(i, block);
  }

  /// All blocks of a stage in its run.
  [[gnu::noinline]] void Stage(int index, float* blocks) {
    const DftStageTables& stage = spec.stages[index];
    const StageRun run = {stage.radix,    stage.count,       stage.remaining,
                          stage.twiddles, stage.directTable, scale};
    if (index > 0) return RunStageTo<Output::Stage>(blocks, blocks, run);
    if constexpr (dir == Direction::Inverse)
      if (scale != 1.0f) return RunStageTo<Output::Scaled>(blocks, dst, run);
    RunStageTo<Output::Interleaved>(blocks, dst, run);
  }
  template <Output output>
  KERNELS_INLINE void RunStageTo(const float* blocks, float* out, const StageRun& run) {
    // pairs are interleaved in every stage
    constexpr Output ofPairs = output == Output::Interleaved ? Output::Stage : output;
    const int pairs = isGrouped ? 0 : PairsWidth(run.m, Vec::width);
    if (isGrouped)
      RunStage<Complex<Vec>, dir, output>(blocks, out, run);
    else if (pairs == Vec::width / 2)
      RunStage<Pairs<Vec>, dir, ofPairs>(blocks, out, run);
    else if (pairs == Vec::UpTo8::width / 2)
      RunStage<Pairs<Vec::UpTo8>, dir, ofPairs>(blocks, out, run);
    else
      RunStage<Pairs<Vec4>, dir, ofPairs>(blocks, out, run);
  }

  const IppsDFTSpec_R_32f& spec;
  const std::ptrdiff_t n;
  float* const target;
  float* const dst;
  const float scale;
  const bool isGrouped;  ///< real and imaginary parts in registers of their own
  const BottomRun bottom;
};

/// The real plan of an odd length. Stage i joins blocks of buffer i + 1 into those of buffer i;
/// buffer 0 is the spectrum, the others the two halves of the work area in turn.
class RealWalk {
public:
  RealWalk(const IppsDFTSpec_R_32f& spec, Ipp8u* work) : spec(spec), bottom(BottomOf(spec)) {
    half[1] = reinterpret_cast<float*>(work);
    half[0] = reinterpret_cast<float*>(
        work + AlignUp(static_cast<std::size_t>(spec.length) * sizeof(float)));
  }
  void Forward(const float* src, Spectrum<float> spectrum) { Forward(0, src, 0, spectrum); }
  void Inverse(Spectrum<const float> spectrum, float* dst) { Inverse(0, spectrum, 0, dst); }

private:
  RealStageRun StageOf(int index) const {
    const DftStageTables& stage = spec.stages[index];
    return {stage.radix, stage.remaining, stage.twiddles, stage.directTable};
  }
  float* Buffer(int index, std::ptrdiff_t offset) const { return half[index & 1] + offset; }

  void Forward(int first, const float* src, std::ptrdiff_t offset, Spectrum<float> spectrum) {
    const auto stage = [&](int index) {
      const RealStageRun run = StageOf(index);
      for (int i = 0; i < spec.stages[index].count; ++i) {
        const std::ptrdiff_t at = offset + i * run.m * run.radix;
        JoinRealStage(Buffer(index + 1, at),
                      index == 0 ? spectrum : PackedSpectrum(Buffer(index, at)), run);
      }
    };
    if (first < spec.lastRun) {
      const DftStageTables& split = spec.stages[first];
      for (std::ptrdiff_t p = 0; p < split.radix; ++p)
        Forward(first + 1, src + p * split.stride, offset + p * split.remaining, spectrum);
      stage(first);
      return;
    }
    RunRealBottom(Direction::Forward, src, Buffer(spec.lastStage + 1, offset), bottom);
    for (int i = spec.lastStage; i >= first; --i)
      stage(i);
  }

  void Inverse(int first, Spectrum<const float> spectrum, std::ptrdiff_t offset, float* dst) {
    const auto stage = [&](int index) {
      const RealStageRun run = StageOf(index);
      for (int i = 0; i < spec.stages[index].count; ++i) {
        const std::ptrdiff_t at = offset + i * run.m * run.radix;
        const float* packed = Buffer(index, at);
        SplitRealStage(index == 0 ? spectrum : PackedSpectrum(packed), Buffer(index + 1, at), run);
      }
    };
    if (first < spec.lastRun) {
      stage(first);
      const DftStageTables& split = spec.stages[first];
      for (std::ptrdiff_t p = 0; p < split.radix; ++p)
        Inverse(first + 1, spectrum, offset + p * split.remaining, dst + p * split.stride);
      return;
    }
    for (int i = first; i <= spec.lastStage; ++i)
      stage(i);
    RunRealBottom(Direction::Inverse, Buffer(spec.lastStage + 1, offset), dst, bottom);
  }

  const IppsDFTSpec_R_32f& spec;
  const BottomRun bottom;
  float* half[2];
};

inline IppStatus RunComplex(Direction dir, const float* src, float* dst,
                            const IppsDFTSpec_C_32fc& spec, Ipp8u* buffer);

/// The chirp convolution of n complex values: y[k] = value(k) c[k], and X[k] = c[k] times what
/// comes back. The work buffer holds y and, behind it, the inner transforms' own.
class ChirpConvolution {
public:
  ChirpConvolution(const IppsDFTSpec_R_32f& spec, int n, Ipp8u* work)
      : spec(spec), n(n), y(reinterpret_cast<float*>(work)),
        inner(work + static_cast<std::ptrdiff_t>(spec.convLength) * 8) {}

  /// Results times `scale`.
  [[gnu::noinline]] IppStatus Complex(Direction dir, const float* src, float* dst, float scale) {
    Ipp32fc* out = reinterpret_cast<Ipp32fc*>(dst);
    ippsMul_32fc(reinterpret_cast<const Ipp32fc*>(src), Chirp(), Y(), n);
    const IppStatus status = Convolve();
    if (status != ippStsNoErr) return status;
    ippsMul_32fc(Y(), Chirp(), out, n);
    // the inverse is the forward transform read backwards
    if (dir == Direction::Forward) return ippsMulC_32f_I(scale, dst, 2 * n);
    Reverse(dst, scale);
    return ippStsNoErr;
  }

  /// n real samples to the bins 0 to n / 2, complex.
  IppStatus RealForward(const float* src, float* dst) {
    const float* c = spec.chirp;
    std::ptrdiff_t k = 0;
    for (; k + Vec::width <= n; k += Vec::width) {
      const Vec x = Vec::LoadU(src + k);
      Vec lo, hi;
      Interleave(x, x, lo, hi);
      (lo * Vec::LoadU(c + 2 * k)).StoreU(y + 2 * k);
      (hi * Vec::LoadU(c + 2 * k + Vec::width)).StoreU(y + 2 * k + Vec::width);
    }
    for (; k < n; ++k) {
      y[2 * k] = src[k] * c[2 * k];
      y[2 * k + 1] = src[k] * c[2 * k + 1];
    }
    const IppStatus status = Convolve();
    if (status == ippStsNoErr)
      ippsMul_32fc(Y(), Chirp(), reinterpret_cast<Ipp32fc*>(dst), n / 2 + 1);
    return status;
  }

  /// n is odd, and so c[n - k] = -c[k].
  IppStatus RealInverse(const float* src, float* dst) {
    const float* c = spec.chirp;
    y[0] = src[0] * c[0];
    y[1] = src[0] * c[1];
    std::ptrdiff_t k = 1;
    for (; k + countOf<Pairs<Vec>> <= n / 2 + 1; k += countOf<Pairs<Vec>>)
      StoreWithMirror<Pairs<Vec>>(src, k);
    for (; k <= n / 2; ++k)
      StoreWithMirror<Pairs<Vec2>>(src, k);
    const IppStatus status = Convolve();
    if (status != ippStsNoErr) return status;
    for (k = 0; k + Vec::width <= n; k += Vec::width) {
      const float* value = y + 2 * k;
      Vec re, im;
      Deinterleave(Vec::LoadU(value) * Vec::LoadU(c + 2 * k),
                   Vec::LoadU(value + Vec::width) * Vec::LoadU(c + 2 * k + Vec::width), re, im);
      (re - im).StoreU(dst + k);
    }
    for (; k < n; ++k)
      dst[k] = y[2 * k] * c[2 * k] - y[2 * k + 1] * c[2 * k + 1];
    return status;
  }

private:
  /// Value k, times `scale`, goes to n - k; value 0 stays.
  void Reverse(float* x, float scale) const {
    constexpr int count = countOf<Pairs<Vec>>;
    x[0] *= scale;
    x[1] *= scale;
    std::ptrdiff_t k = 1;
    for (; 2 * (k + count) <= n + 1; k += count)
      Exchange<Pairs<Vec>>(x, k, scale);
    for (; 2 * k <= n; ++k)
      Exchange<Pairs<Vec2>>(x, k, scale);
  }
  template <class C>
  KERNELS_INLINE void Exchange(float* x, std::ptrdiff_t k, float scale) const {
    float *const front = x + 2 * k, *const back = x + 2 * (n - k - countOf<C> + 1);
    const C a = C::LoadU(front), b = C::LoadU(back);
    Reversed(Scaled(b, scale)).StoreU(front);
    Reversed(Scaled(a, scale)).StoreU(back);
  }

  /// The conjugate of X[k] to k and X[k] to n - k, times their chirps.
  template <class C>
  KERNELS_INLINE void StoreWithMirror(const float* src, std::ptrdiff_t k) {
    const C x = C::LoadU(src + 2 * k), c = C::LoadU(spec.chirp + 2 * k);
    (Conjugate(x) * c).StoreU(y + 2 * k);
    Reversed(C{} - x * c).StoreU(y + 2 * (n - k - countOf<C> + 1));
  }

  Ipp32fc* Y() const { return reinterpret_cast<Ipp32fc*>(y); }
  const Ipp32fc* Chirp() const { return reinterpret_cast<const Ipp32fc*>(spec.chirp); }

  /// Whether the inner transforms need no work buffer when source and destination differ.
  bool RunsBetweenVectors() const {
    if (!spec.convSpec->usesFft) return true;
    int order = 0;
    while (1 << order < spec.convLength)
      ++order;
    return MethodOf(limits, order + 1) == Method::Flat && IsAligned(y, sizeof(Vec));
  }

  IppStatus Convolve() {
    // Where the inner transforms do not use their work buffer, it holds the spectrum.
    float* const spectrum = RunsBetweenVectors() ? reinterpret_cast<float*>(inner) : y;
    ippsZero_32fc(Y() + n, spec.convLength - n);
    IppStatus status = RunComplex(Direction::Forward, y, spectrum, *spec.convSpec, inner);
    if (status != ippStsNoErr) return status;
    ippsMul_32fc_I(reinterpret_cast<const Ipp32fc*>(spec.chirpSpectrum),
                   reinterpret_cast<Ipp32fc*>(spectrum), spec.convLength);
    return RunComplex(Direction::Inverse, spectrum, y, *spec.convSpec, inner);
  }

  const IppsDFTSpec_R_32f& spec;
  const int n;
  float* const y;
  Ipp8u* const inner;
};

/// The complex part of any spec but a power of two: n points, results times `scale`. `work` is
/// aligned.
inline IppStatus RunPoints(Direction dir, const float* src, float* dst,
                           const IppsDFTSpec_R_32f& spec, int n, Ipp8u* work, float scale) {
  if (n <= DirectKernelLimit) {
    RunDirectComplex(dir, n, src, dst, scale);
    return ippStsNoErr;
  }
  if (spec.hasPlan) {
    float* target = src == dst ? reinterpret_cast<float*>(work) : dst;
    if (dir == Direction::Inverse) {
      ComplexWalk<Direction::Inverse>(spec, n, target, dst, scale).Run(src);
      return ippStsNoErr;
    }
    ComplexWalk<Direction::Forward>(spec, n, target, dst, 1.0f).Run(src);
    return ippsMulC_32f_I(scale, dst, 2 * n);
  }
  if (n <= DirectSumLimit) {
    ComplexDirectSum(dir, src, dst, n, spec.directTable, scale);
    return ippStsNoErr;
  }
  return ChirpConvolution(spec, n, work).Complex(dir, src, dst, scale);
}

inline IppStatus RunComplex(Direction dir, const float* src, float* dst,
                            const IppsDFTSpec_C_32fc& spec, Ipp8u* buffer) {
  const bool scaled = (dir == Direction::Forward ? spec.fwdScaled : spec.invScaled) != 0;
  const WorkBuffer work(spec.workSize, buffer);
  if (work.missing) return ippStsMemAllocErr;
  if (spec.usesFft) {
    const auto run = dir == Direction::Forward ? ippsFFTFwd_CToC_32fc : ippsFFTInv_CToC_32fc;
    return run(reinterpret_cast<const Ipp32fc*>(src), reinterpret_cast<Ipp32fc*>(dst),
               spec.complexFftSpec, work.bytes);
  }
  return RunPoints(dir, src, dst, spec, spec.length, work.bytes, scaled ? spec.scale : 1.0f);
}

/// From packed order, in place: even N moves X[N/2] behind, odd N moves the pairs up.
inline void PackedToCcs(float* x, int N) {
  if (N % 2 == 0) {
    x[N] = x[1];
    x[N + 1] = 0.0f;
  } else {
    std::memmove(x + 2, x + 1, static_cast<std::size_t>(N - 1) * sizeof(float));
  }
  x[1] = 0.0f;
}
inline void CcsToPacked(const float* src, float* x, int N) {
  const float nyquist = N % 2 == 0 ? src[N] : 0.0f;
  x[0] = src[0];
  if (N % 2 == 0) {
    std::memmove(x + 2, src + 2, static_cast<std::size_t>(N - 2) * sizeof(float));
    x[1] = nyquist;
  } else {
    std::memmove(x + 1, src + 2, static_cast<std::size_t>(N - 1) * sizeof(float));
  }
}

inline IppStatus RunRealForward(const float* src, float* dst, const IppsDFTSpec_R_32f& spec,
                                Ipp8u* buffer) {
  const int N = spec.length;
  if (N <= DirectKernelLimit) {
    RunDirectReal(Direction::Forward, N, src, dst, spec.fwdScaled ? spec.scale : 1.0f);
    PackedToCcs(dst, N);
    return ippStsNoErr;
  }
  const WorkBuffer work(spec.workSize, buffer);
  if (work.missing) return ippStsMemAllocErr;
  IppStatus status = ippStsNoErr;
  if (spec.usesFft) {
    status = KERNELS_BUILD::ippsFFTFwd_RToPack_32f(src, dst, spec.fftSpec, work.bytes);
    if (status == ippStsNoErr) PackedToCcs(dst, N);
    return status;
  }
  if (N % 2 == 1) {
    // the spectrum comes out in CCS order but for the imaginary part of X[0]
    if (spec.realPlan)
      RealWalk(spec, work.bytes).Forward(src, {dst, dst});
    else if (N > DirectSumLimit)
      status = ChirpConvolution(spec, N, work.bytes).RealForward(src, dst);
    else
      RealDirectSumForward(src, dst, N, spec.directTable);
    if (status != ippStsNoErr) return status;
    dst[1] = 0.0f;
    if (spec.fwdScaled) ippsMulC_32f_I(spec.scale, dst, N + 1);
    return status;
  }
  const int n = N / 2;
  status = RunPoints(Direction::Forward, src, dst, spec, n, work.bytes, 1.0f);
  if (status != ippStsNoErr) return status;
  const float scale = spec.fwdScaled ? spec.scale : 1.0f;
  Recombine<Direction::Forward>(dst, dst, n, spec.recombFwd, scale);
  const float re = dst[0], im = dst[1];
  dst[0] = (re + im) * scale;
  dst[1] = (re - im) * scale;
  PackedToCcs(dst, N);
  return status;
}

inline IppStatus RunRealInverse(const float* src, float* dst, const IppsDFTSpec_R_32f& spec,
                                Ipp8u* buffer) {
  const int N = spec.length;
  if (N <= DirectKernelLimit) {
    CcsToPacked(src, dst, N);
    RunDirectReal(Direction::Inverse, N, dst, dst, spec.invScaled ? spec.scale : 1.0f);
    return ippStsNoErr;
  }
  const WorkBuffer work(spec.workSize, buffer);
  if (work.missing) return ippStsMemAllocErr;
  if (spec.usesFft) return KERNELS_BUILD::ippsFFTInv_CCSToR_32f(src, dst, spec.fftSpec, work.bytes);
  IppStatus status = ippStsNoErr;
  if (N % 2 == 1) {
    if (spec.realPlan)
      RealWalk(spec, work.bytes).Inverse({src, src}, dst);
    else if (N > DirectSumLimit)
      status = ChirpConvolution(spec, N, work.bytes).RealInverse(src, dst);
    else
      RealDirectSumInverse(src, dst, N, spec.directTable);
    if (status == ippStsNoErr && spec.invScaled) ippsMulC_32f_I(spec.scale, dst, N);
    return status;
  }
  const int n = N / 2;
  const float first = src[0], nyquist = src[N];
  Recombine<Direction::Inverse>(src, dst, n, spec.recombInv, 1.0f);
  dst[0] = first + nyquist;
  dst[1] = first - nyquist;
  return RunPoints(Direction::Inverse, dst, dst, spec, n, work.bytes,
                   spec.invScaled ? spec.scale : 1.0f);
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
