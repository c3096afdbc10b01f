// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
#pragma once

// The stages of a complex plan: butterflies of one radix over blocks of radix x m values, for each
// q below m on the values at q, m + q, 2 m + q, ... times exp(-2 pi i p q / (radix m)), p from 0.

#include "kernels/dft/any_radix.h"

#include <cstddef>

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

struct StageRun {
  int radix;
  int count;  ///< blocks, one behind the other
  std::ptrdiff_t m;
  const float* twiddles;  ///< groups of q, as C holds them; for each the powers p from 1 on
  const float* roots;     ///< of the radix, for generic kernels
  float scale;            ///< read by Output::Scaled
};

/// R = 0: any odd radix. dst may be src.
template <class C, int R, Direction dir, Output output>
[[gnu::noinline]] void StageKernel(const float* src, float* dst, const StageRun& run) {
  constexpr int count = countOf<C>;
  using V = typename FormTraits<C>::Vector;
  const V factor = V::Set1(run.scale);
  constexpr int room = R > 0 ? R : genericLimit;
  const int radix = R > 0 ? R : run.radix;
  const std::ptrdiff_t row = 2 * run.m;
  const auto load = [&](std::ptrdiff_t q, const float* w, C* x) KERNELS_INLINE_LAMBDA {
    x[0] = C::LoadU(src + 2 * q);
    const auto power = [&](int p) KERNELS_INLINE_LAMBDA {
      x[p] = TimesTwiddle<dir>(InRegister(C::LoadU(src + p * row + 2 * q)),
                               LoadedOnce(C::Load(w + (p - 1) * 2 * count)));
    };
    if constexpr (R > 0) {
      Unroll<R - 1>([&](auto p) KERNELS_INLINE_LAMBDA { power(p + 1); });
      Butterfly<R, dir>(x);
    } else {
      for (int p = 1; p < radix; ++p)
        power(p);
      GenericButterfly<dir>(x, radix, run.roots);
    }
  };
  const auto store = [&](std::ptrdiff_t q, const C* x) KERNELS_INLINE_LAMBDA {
    const auto power = [&](int p) KERNELS_INLINE_LAMBDA {
      float* const to = dst + p * row + 2 * q;
      if constexpr (output == Output::Stage)
        x[p].StoreU(to);
      else if constexpr (output == Output::Interleaved)
        StoreColumns(x[p], to);
      else
        StoreColumns(x[p] * factor, to);
    };
    if constexpr (R > 0)
      Unroll<R>([&](auto p) KERNELS_INLINE_LAMBDA { power(p); });
    else
      for (int p = 0; p < radix; ++p)
        power(p);
  };

  const std::ptrdiff_t group = static_cast<std::ptrdiff_t>(radix - 1) * 2 * count;
  const std::ptrdiff_t whole = run.m / count;
  const auto pass = [&]() KERNELS_INLINE_LAMBDA {
    const float* w = run.twiddles;
    for (std::ptrdiff_t i = 0; i < whole; ++i, w += group) {
      C x[room];
      load(i * count, w, x);
      store(i * count, x);
    }
  };
  // grouped values fill a block: no rest
  constexpr bool grouped = count == V::width;
  for (int block = 0; block < run.count; ++block, src += radix * row, dst += radix * row) {
    if (grouped || whole * count == run.m) {
      pass();
    } else {
      // The last values do not fill a C. Theirs begins earlier, over values that pass() changes: it
      // is read before and stored afterwards.
      C rest[room];
      load(run.m - count, run.twiddles + whole * group, rest);
      pass();
      store(run.m - count, rest);
    }
  }
}

template <class C, Direction dir, Output output>
void RunStage(const float* src, float* dst, const StageRun& run) {
  switch (run.radix) {
  case 2:
    return StageKernel<C, 2, dir, output>(src, dst, run);
  case 3:
    return StageKernel<C, 3, dir, output>(src, dst, run);
  case 4:
    return StageKernel<C, 4, dir, output>(src, dst, run);
  case 5:
    return StageKernel<C, 5, dir, output>(src, dst, run);
  case 7:
    return StageKernel<C, 7, dir, output>(src, dst, run);
  case 11:
    return StageKernel<C, 11, dir, output>(src, dst, run);
  case 13:
    return StageKernel<C, 13, dir, output>(src, dst, run);
  default:
    return StageKernel<C, 0, dir, output>(src, dst, run);
  }
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
