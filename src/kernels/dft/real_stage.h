// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
#pragma once

// The kernels of real plans of odd length. A block of m real values turns into m floats of packed
// spectrum, X[0] and the pairs X[1] to X[(m-1)/2]; a stage joins r such blocks to one of r m
// floats, and its inverse splits them. Stages read one buffer and write another.
//
// A spectrum is addressed by two pointers: to X[0], and to where the pair of X[0] would stand, one
// float before it in packed order.

#include "kernels/dft/bottom.h"
#include "kernels/dft/planned_dft.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

template <class Float>
struct Spectrum {
  Float* zero;
  Float* pairs;  ///< X[k] at pairs + 2 k, k from 1
};
inline Spectrum<float> PackedSpectrum(float* p) {
  return {p, p - 1};
}
inline Spectrum<const float> PackedSpectrum(const float* p) {
  return {p, p - 1};
}

struct RealStageRun {
  int radix;
  std::ptrdiff_t m;
  const float* twiddles;  ///< groups of q = 1 to (m-1)/2, the last one perhaps overlapping
  const float* roots;
};

/// The blocks' q = 0: a real transform across them.
template <int R>
void JoinZero(const float* blocks, Spectrum<float> out, const RealStageRun& run) {
  float x[R > 0 ? R : genericLimit];
  const int radix = R > 0 ? R : run.radix;
  for (int p = 0; p < radix; ++p)
    x[p] = blocks[p * run.m];
  if constexpr (R > 0)
    RealForward<R>(x);
  else
    GenericRealForward(x, radix, run.roots);
  *out.zero = x[0];
  for (int k = 1; k <= radix / 2; ++k) {
    out.pairs[2 * k * run.m] = x[2 * k - 1];
    out.pairs[2 * k * run.m + 1] = x[2 * k];
  }
}
template <int R>
void SplitZero(Spectrum<const float> in, float* blocks, const RealStageRun& run) {
  float x[R > 0 ? R : genericLimit];
  const int radix = R > 0 ? R : run.radix;
  x[0] = *in.zero;
  for (int k = 1; k <= radix / 2; ++k) {
    x[2 * k - 1] = in.pairs[2 * k * run.m];
    x[2 * k] = in.pairs[2 * k * run.m + 1];
  }
  if constexpr (R > 0)
    RealInverse<R>(x);
  else
    GenericRealInverse(x, radix, run.roots);
  for (int p = 0; p < radix; ++p)
    blocks[p * run.m] = x[p];
}

/// body(group, first q) over all groups of q.
template <int count, class Body>
KERNELS_INLINE void ForGroups(std::ptrdiff_t m, Body&& body) {
  const std::ptrdiff_t pairs = (m - 1) / 2;
  for (std::ptrdiff_t group = 0; group * count < pairs; ++group)
    body(group, 1 + Smaller(group * count, pairs - count));
}

// X[q + k m] of a joined block is, for k above r / 2, the conjugate of X[(r - k) m - q]: those
// pairs stand in falling order of q.

template <class C, int R>
void JoinBlocks(const float* blocks, Spectrum<float> out, const RealStageRun& run) {
  constexpr int count = countOf<C>;
  const int radix = R > 0 ? R : run.radix;
  JoinZero<R>(blocks, out, run);
  ForGroups<count>(run.m, [&](std::ptrdiff_t group, std::ptrdiff_t q) KERNELS_INLINE_LAMBDA {
    C x[R > 0 ? R : genericLimit];
    const float* w = run.twiddles + group * (radix - 1) * 2 * count;
    const auto load = [&](int p) KERNELS_INLINE_LAMBDA {
      const C block = C::LoadU(blocks + p * run.m - 1 + 2 * q);
      x[p] = p == 0 ? block
                    : TimesTwiddle<Direction::Forward>(block, C::Load(w + (p - 1) * 2 * count));
    };
    const auto store = [&](int k) KERNELS_INLINE_LAMBDA {
      if (k <= radix / 2)
        x[k].StoreU(out.pairs + 2 * (q + k * run.m));
      else
        Reversed(Conjugate(x[k])).StoreU(out.pairs + 2 * ((radix - k) * run.m - q - count + 1));
    };
    if constexpr (R > 0) {
      Unroll<R>(load);
      Butterfly<R, Direction::Forward>(x);
      Unroll<R>(store);
    } else {
      for (int p = 0; p < radix; ++p)
        load(p);
      GenericButterfly<Direction::Forward>(x, radix, run.roots);
      for (int k = 0; k < radix; ++k)
        store(k);
    }
  });
}

template <class C, int R>
void SplitBlocks(Spectrum<const float> in, float* blocks, const RealStageRun& run) {
  constexpr int count = countOf<C>;
  const int radix = R > 0 ? R : run.radix;
  SplitZero<R>(in, blocks, run);
  ForGroups<count>(run.m, [&](std::ptrdiff_t group, std::ptrdiff_t q) KERNELS_INLINE_LAMBDA {
    C x[R > 0 ? R : genericLimit];
    const float* w = run.twiddles + group * (radix - 1) * 2 * count;
    const auto load = [&](int k) KERNELS_INLINE_LAMBDA {
      if (k <= radix / 2)
        x[k] = C::LoadU(in.pairs + 2 * (q + k * run.m));
      else
        x[k] = Reversed(Conjugate(C::LoadU(in.pairs + 2 * ((radix - k) * run.m - q - count + 1))));
    };
    const auto store = [&](int p) KERNELS_INLINE_LAMBDA {
      const C block =
          p == 0 ? x[p] : TimesTwiddle<Direction::Inverse>(x[p], C::Load(w + (p - 1) * 2 * count));
      block.StoreU(blocks + p * run.m - 1 + 2 * q);
    };
    if constexpr (R > 0) {
      Unroll<R>(load);
      Butterfly<R, Direction::Inverse>(x);
      Unroll<R>(store);
    } else {
      for (int k = 0; k < radix; ++k)
        load(k);
      GenericButterfly<Direction::Inverse>(x, radix, run.roots);
      for (int p = 0; p < radix; ++p)
        store(p);
    }
  });
}

/// Calls kernel.operator()<C, R>() with the form of values that suits blocks of m, and the radix; 0
/// stands for a radix without code of its own.
template <class C, class Kernel>
KERNELS_INLINE void WithRadix(int radix, Kernel&& kernel) {
  switch (radix) {
  case 3:
    return kernel.template operator()<C, 3>();
  case 5:
    return kernel.template operator()<C, 5>();
  case 7:
    return kernel.template operator()<C, 7>();
  case 11:
    return kernel.template operator()<C, 11>();
  case 13:
    return kernel.template operator()<C, 13>();
  default:
    return kernel.template operator()<C, 0>();
  }
}
template <class Kernel>
KERNELS_INLINE void WithWidth(const RealStageRun& run, Kernel&& kernel) {
  const int width = RealStageWidth(run.m, Vec::width);
  if (width == 1)
    WithRadix<Pairs<Vec2>>(run.radix, kernel);
  else if (width == Vec::width / 2)
    WithRadix<Pairs<Vec>>(run.radix, kernel);
  else if (width == Vec::UpTo8::width / 2)
    WithRadix<Pairs<Vec::UpTo8>>(run.radix, kernel);
  else
    WithRadix<Pairs<Vec4>>(run.radix, kernel);
}

// The first kernels: real transforms of strided samples. A register holds the same value of several
// transforms, at neighbouring offsets.

/// `radix` floats of each of V::width blocks to or from registers that hold one float of each
/// block. Four floats at a time, the last four over values already moved; radix 3 moves single
/// floats.
template <class V, int R>
KERNELS_INLINE void RowsToBlocks(const V* x, float* const* block, int r) {
  if constexpr (R == 3) {
    alignas(32) float rows[3][V::width];
    Unroll<3>([&](auto k) KERNELS_INLINE_LAMBDA { x[k].Store(rows[k]); });
    for (int l = 0; l < V::width; ++l)
      for (int k = 0; k < 3; ++k)
        block[l][k] = rows[k][l];
  } else {
    const auto quad = [&](int first) KERNELS_INLINE_LAMBDA {
      const int k = Smaller(first, r - 4);
      V a[4] = {x[k], x[k + 1], x[k + 2], x[k + 3]};
      TransposeLanes(a[0], a[1], a[2], a[3]);
      Unroll<4>([&](auto i) KERNELS_INLINE_LAMBDA {
        a[i].StoreLanes(block[i] + k, block[V::width - 4 + i] - block[i]);
      });
    };
    if constexpr (R > 0)
      Unroll<(R + 3) / 4>([&](auto i) KERNELS_INLINE_LAMBDA { quad(4 * i); });
    else
      for (int k = 0; k < r; k += 4)
        quad(k);
  }
}
template <class V, int R>
KERNELS_INLINE void BlocksToRows(const float* const* block, V* x, int r) {
  if constexpr (R == 3) {
    alignas(32) float rows[3][V::width];
    for (int l = 0; l < V::width; ++l)
      for (int k = 0; k < 3; ++k)
        rows[k][l] = block[l][k];
    Unroll<3>([&](auto k) KERNELS_INLINE_LAMBDA { x[k] = V::Load(rows[k]); });
  } else {
    const auto quad = [&](int first) KERNELS_INLINE_LAMBDA {
      const int k = Smaller(first, r - 4);
      V a[4];
      Unroll<4>([&](auto i) KERNELS_INLINE_LAMBDA {
        a[i] = V::LoadLanes(block[i] + k, block[V::width - 4 + i] - block[i]);
      });
      TransposeLanes(a[0], a[1], a[2], a[3]);
      Unroll<4>([&](auto i) KERNELS_INLINE_LAMBDA { x[k + i] = a[i]; });
    };
    if constexpr (R > 0)
      Unroll<(R + 3) / 4>([&](auto i) KERNELS_INLINE_LAMBDA { quad(4 * i); });
    else
      for (int k = 0; k < r; k += 4)
        quad(k);
  }
}

/// Calls body(offsets, whether they are neighbours in memory) for groups of V::width offsets of a
/// run. The last group starts early, over transforms already done; in a run shorter than a group
/// the last transform is repeated.
template <class V, class Body>
KERNELS_INLINE void ForOffsets(const BottomRun& run, Body&& body) {
  constexpr int width = V::width;
  for (int group = 0; group < run.total; group += width) {
    int offset[width];
    const int first = run.total < width ? 0 : Smaller(group, run.total - width);
    for (int l = 0; l < width; ++l)
      offset[l] = Smaller(first + l, run.total - 1);
    body(offset, run.stride == 1 && run.total >= width);
  }
}

template <class V, int R>
void RealBottomForward(const float* src, float* dst, const BottomRun& run) {
  const int radix = R > 0 ? R : run.radix;
  const std::ptrdiff_t spacing = run.stride * run.total;
  ForOffsets<V>(run, [&](const int* offset, bool contiguous) KERNELS_INLINE_LAMBDA {
    V x[R > 0 ? R : genericLimit];
    float* block[V::width];
    for (int l = 0; l < V::width; ++l)
      block[l] = dst + run.place[offset[l]];
    for (int k = 0; k < radix; ++k) {
      const float* row = src + k * spacing;
      if (contiguous) {
        x[k] = V::LoadU(row + offset[0]);
      } else {
        alignas(32) float values[V::width];
        for (int l = 0; l < V::width; ++l)
          values[l] = row[run.stride * offset[l]];
        x[k] = V::Load(values);
      }
    }
    if constexpr (R > 0)
      RealForward<R>(x);
    else
      GenericRealForward(x, radix, run.roots);
    RowsToBlocks<V, R>(x, block, radix);
  });
}

template <class V, int R>
void RealBottomInverse(const float* src, float* dst, const BottomRun& run) {
  const int radix = R > 0 ? R : run.radix;
  const std::ptrdiff_t spacing = run.stride * run.total;
  ForOffsets<V>(run, [&](const int* offset, bool contiguous) KERNELS_INLINE_LAMBDA {
    V x[R > 0 ? R : genericLimit];
    const float* block[V::width];
    for (int l = 0; l < V::width; ++l)
      block[l] = src + run.place[offset[l]];
    BlocksToRows<V, R>(block, x, radix);
    if constexpr (R > 0)
      RealInverse<R>(x);
    else
      GenericRealInverse(x, radix, run.roots);
    for (int k = 0; k < radix; ++k) {
      float* row = dst + k * spacing;
      if (contiguous) {
        x[k].StoreU(row + offset[0]);
      } else {
        alignas(32) float values[V::width];
        x[k].Store(values);
        for (int l = 0; l < V::width; ++l)
          row[run.stride * offset[l]] = values[l];
      }
    }
  });
}

[[gnu::noinline]] inline void JoinRealStage(const float* blocks, Spectrum<float> out,
                                            const RealStageRun& run) {
  WithWidth(run, [&]<class C, int R>() { JoinBlocks<C, R>(blocks, out, run); });
}
[[gnu::noinline]] inline void SplitRealStage(Spectrum<const float> in, float* blocks,
                                             const RealStageRun& run) {
  WithWidth(run, [&]<class C, int R>() { SplitBlocks<C, R>(in, blocks, run); });
}
[[gnu::noinline]] inline void RunRealBottom(Direction dir, const float* src, float* dst,
                                            const BottomRun& run) {
  WithRadix<Pairs<Vec::UpTo8>>(run.radix, [&]<class C, int R>() {
    using V = typename FormTraits<C>::Vector;
    if (dir == Direction::Forward)
      RealBottomForward<V, R>(src, dst, run);
    else
      RealBottomInverse<V, R>(src, dst, run);
  });
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
