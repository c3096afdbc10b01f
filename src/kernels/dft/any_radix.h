// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
#pragma once

// Butterflies of any odd radix, as loops over symmetric pairs: for primes that have no
// straight-line code.

#include "kernels/butterfly.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

/// Largest odd radix plus one.
inline constexpr int genericLimit = 150;

/// Any odd r: the pairs of OddButterfly in loops; `roots` holds r factors (cos, -sin)(2 pi k / r).
template <Direction dir, class C>
void GenericButterfly(C* x, int r, const float* roots) {
  using V = typename FormTraits<C>::Vector;
  const int half = r / 2;
  C y[genericLimit];
  C total = x[0];
  for (int j = 1; j <= half; ++j) {
    const C a = x[j], b = x[r - j];
    x[j] = a + b;
    x[r - j] = b - a;  // the roots hold -sin
    total = total + x[j];
  }
  for (int k = 1; k <= half; ++k) {
    C even = MulAdd(x[1], Broadcast<V>(roots[2 * k]), x[0]);
    C odd = Scaled(x[r - 1], roots[2 * k + 1]);
    for (int j = 2, turn = k; j <= half; ++j) {
      turn += k;
      if (turn >= r) turn -= r;
      even = MulAdd(x[j], Broadcast<V>(roots[2 * turn]), even);
      odd = MulAdd(x[r - j], Broadcast<V>(roots[2 * turn + 1]), odd);
    }
    y[k] = AddQuarterTurn<dir>(even, odd);
    y[r - k] = SubQuarterTurn<dir>(even, odd);
  }
  x[0] = total;
  for (int k = 1; k < r; ++k)
    x[k] = y[k];
}

/// The same of real values: as RealForward and RealInverse, in place in packed order.
template <class V>
void GenericRealForward(V* x, int r, const float* roots) {
  const int half = r / 2;
  V y[genericLimit];
  y[0] = x[0];
  for (int j = 1; j <= half; ++j) {
    const V a = x[j], b = x[r - j];
    x[j] = a + b;
    x[r - j] = a - b;
    y[0] = y[0] + x[j];
  }
  for (int k = 1; k <= half; ++k) {
    V re = x[0], im = Broadcast<V>(0.0f);
    for (int j = 1, turn = k; j <= half; ++j) {
      re = MulAdd(x[j], Broadcast<V>(roots[2 * turn]), re);
      im = MulAdd(x[r - j], Broadcast<V>(roots[2 * turn + 1]), im);
      turn += k;
      if (turn >= r) turn -= r;
    }
    y[2 * k - 1] = re;
    y[2 * k] = im;
  }
  for (int k = 0; k < r; ++k)
    x[k] = y[k];
}
template <class V>
void GenericRealInverse(V* x, int r, const float* roots) {
  const int half = r / 2;
  V y[genericLimit];
  y[0] = x[0];
  for (int k = 1; k < r; ++k)
    x[k] = x[k] + x[k];
  for (int k = 1; k <= half; ++k)
    y[0] = y[0] + x[2 * k - 1];
  for (int j = 1; j <= half; ++j) {
    V even = x[0], odd = Broadcast<V>(0.0f);
    for (int k = 1, turn = j; k <= half; ++k) {
      even = MulAdd(x[2 * k - 1], Broadcast<V>(roots[2 * turn]), even);
      odd = MulAdd(x[2 * k], Broadcast<V>(roots[2 * turn + 1]), odd);  // -sin
      turn += j;
      if (turn >= r) turn -= r;
    }
    y[j] = even + odd;
    y[r - j] = even - odd;
  }
  for (int k = 0; k < r; ++k)
    x[k] = y[k];
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
