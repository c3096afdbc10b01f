// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
#pragma once

// Short transforms, of which all others are made: straight-line code from one description, over
// Complex<V>, Pairs<V> or single floats. They work in place on an array whose elements the compiler
// keeps in registers; input and output are in natural order.

#include "kernels/complex.h"
#include "kernels/roots.h"

#include <cstdint>
#include <numeric>
#include <utility>

#define KERNELS_INLINE_LAMBDA __attribute__((always_inline))

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

/// body(i) for i in [0, N), each i a compile-time constant.
template <int N, class Body>
KERNELS_INLINE void Unroll(Body&& body) {
  [&]<int... i>(std::integer_sequence<int, i...>) KERNELS_INLINE_LAMBDA {
    (body(std::integral_constant<int, i>{}), ...);
  }
  (std::make_integer_sequence<int, N>{});
}

/// x exp(-2 pi i num / den) forward, x exp(2 pi i num / den) inverse. Multiples of an eighth of a
/// turn cost no full product.
template <int num, int den, Direction dir, class C>
KERNELS_INLINE C Rotated(C x) {
  constexpr int turn = num % den;
  if constexpr (turn == 0) {
    return x;
  } else if constexpr (4 * turn == den) {
    return QuarterTurn<dir>(x);
  } else if constexpr (8 * turn % den == 0 && 4 * turn % den != 0 && 2 * turn != den) {
    constexpr int eighth = 8 * turn / den;
    constexpr float half = cosOf<1, 8>;
    const C turned =
        eighth == 1 || eighth == 5 ? AddQuarterTurn<dir>(x, x) : SubQuarterTurn<dir>(x, x);
    return Scaled(turned, eighth == 1 || eighth == 7 ? half : -half);
  } else {
    using V = typename FormTraits<C>::Vector;
    const V c = Broadcast<V>(cosOf<turn, den>);
    return AddQuarterTurn<dir>(x * c, x, Broadcast<V>(sinOf<turn, den>));
  }
}

/// R odd: symmetric pairs. With s[j] = x[j] + x[R-j] and d[j] = x[j] - x[R-j],
/// X[k], X[R-k] = x[0] + sum cos(2 pi j k / R) s[j] -+ i sum sin(2 pi j k / R) d[j].
template <int R, Direction dir, class C>
KERNELS_INLINE void OddButterfly(C* x) {
  using V = typename FormTraits<C>::Vector;
  constexpr int half = R / 2;
  C sum[half], diff[half];
  const C first = x[0];
  Unroll<half>([&](auto j) KERNELS_INLINE_LAMBDA {
    sum[j] = x[j + 1] + x[R - 1 - j];
    diff[j] = x[j + 1] - x[R - 1 - j];
    x[0] = x[0] + sum[j];
  });
  Unroll<half>([&](auto k) KERNELS_INLINE_LAMBDA {
    C even = first, odd;
    Unroll<half>([&](auto j) KERNELS_INLINE_LAMBDA {
      constexpr int turn = (j + 1) * (k + 1) % R;
      even = MulAdd(sum[j], Broadcast<V>(cosOf<turn, R>), even);
      const V sine = Broadcast<V>(sinOf<turn, R>);
      if constexpr (j == 0)
        odd = diff[j] * sine;
      else
        odd = MulAdd(diff[j], sine, odd);
    });
    x[k + 1] = AddQuarterTurn<dir>(even, odd);
    x[R - 1 - k] = SubQuarterTurn<dir>(even, odd);
  });
}

/// The factor that a composite butterfly runs first.
constexpr int OuterFactor(int R) {
  constexpr int candidates[] = {7, 5, 4, 3, 2};
  for (int c : candidates)
    if (R % c == 0 && R != c) return c;
  return R;
}

/// The k below A B with k mod A = k1 and k mod B = k2.
constexpr int ChineseIndex(int A, int B, int k1, int k2) {
  int k = k1;
  while (k % B != k2)
    k += A;
  return k;
}

/// As OddButterfly<5>, with cos(2 pi / 5), cos(4 pi / 5) = -1/4 +- sqrt(5)/4.
template <Direction dir, class C>
KERNELS_INLINE void Butterfly5(C* x) {
  using V = typename FormTraits<C>::Vector;
  const C s1 = x[1] + x[4], d1 = x[1] - x[4], s2 = x[2] + x[3], d2 = x[2] - x[3];
  const C sum = s1 + s2, spread = s1 - s2;
  const V root = Broadcast<V>(0.55901699437f);
  const V sine1 = Broadcast<V>(sinOf<1, 5>), sine2 = Broadcast<V>(sinOf<2, 5>);
  const C mean = NegMulAdd(sum, Broadcast<V>(0.25f), x[0]);
  const C even1 = MulAdd(spread, root, mean), even2 = NegMulAdd(spread, root, mean);
  const C odd1 = MulAdd(d2, sine2, d1 * sine1), odd2 = NegMulAdd(d2, sine1, d1 * sine2);
  x[0] = x[0] + sum;
  x[1] = AddQuarterTurn<dir>(even1, odd1);
  x[4] = SubQuarterTurn<dir>(even1, odd1);
  x[2] = AddQuarterTurn<dir>(even2, odd2);
  x[3] = SubQuarterTurn<dir>(even2, odd2);
}

template <int R, Direction dir, class C>
KERNELS_INLINE void Butterfly(C* x) {
  constexpr int A = OuterFactor(R);
  constexpr int B = R / A;
  if constexpr (R == 1) {
  } else if constexpr (R == 2) {
    const C a = x[0];
    x[0] = a + x[1];
    x[1] = a - x[1];
  } else if constexpr (R == 4) {
    const C a = x[0] + x[2], b = x[0] - x[2];
    const C c = x[1] + x[3], d = x[1] - x[3];
    x[0] = a + c;
    x[2] = a - c;
    x[1] = AddQuarterTurn<dir>(b, d);
    x[3] = SubQuarterTurn<dir>(b, d);
  } else if constexpr (R == 5) {
    Butterfly5<dir>(x);
  } else if constexpr (B == 1) {
    OddButterfly<R, dir>(x);
  } else {
    // R = A B, input n1, n2 and output k1, k2. Coprime factors need no rotation between them.
    constexpr bool coprime = std::gcd(A, B) == 1;
    C y[B][A];
    Unroll<B>([&](auto n2) KERNELS_INLINE_LAMBDA {
      Unroll<A>([&](auto n1) KERNELS_INLINE_LAMBDA {
        constexpr int n = coprime ? (B * n1 + A * n2) % R : B * n1 + n2;
        y[n2][n1] = x[n];
      });
      Butterfly<A, dir>(y[n2]);
    });
    Unroll<A>([&](auto k1) KERNELS_INLINE_LAMBDA {
      C z[B];
      Unroll<B>([&](auto n2) KERNELS_INLINE_LAMBDA {
        z[n2] = Rotated < coprime ? 0 : n2 * k1, R, dir > (y[n2][k1]);
      });
      Butterfly<B, dir>(z);
      Unroll<B>([&](auto k2) KERNELS_INLINE_LAMBDA {
        constexpr int k = coprime ? ChineseIndex(A, B, k1, k2) : k1 + A * k2;
        x[k] = z[k2];
      });
    });
  }
}

/// 8 values, in fewer steps than by factors. value(i) is taken where it is first used: so few
/// registers have to be spilled.
template <Direction dir, class C, class Value>
KERNELS_INLINE void Butterfly8(C (&y)[8], Value value) {
  using V = typename FormTraits<C>::Vector;
  const C x0 = value(0), x4 = value(4), s0 = x0 + x4, d0 = x0 - x4;
  const C x2 = value(2), x6 = value(6), s2 = x2 + x6, d2 = x2 - x6;
  const C e0 = s0 + s2, e2 = s0 - s2;
  const C e1 = AddQuarterTurn<dir>(d0, d2), e3 = SubQuarterTurn<dir>(d0, d2);
  const C x1 = value(1), x5 = value(5), s1 = x1 + x5, d1 = x1 - x5;
  const C x3 = value(3), x7 = value(7), s3 = x3 + x7, d3 = x3 - x7;
  const C o0 = s1 + s3, o2 = s1 - s3;
  y[0] = e0 + o0;
  y[4] = e0 - o0;
  y[2] = AddQuarterTurn<dir>(e2, o2);
  y[6] = SubQuarterTurn<dir>(e2, o2);
  // An eighth of a turn is x and its quarter turn, times the root of 1/2.
  const V half = V::Set1(0.70710678f);
  const C v = AddQuarterTurn<dir>(d1, d3), w = SubQuarterTurn<dir>(d1, d3);
  const C o1 = AddQuarterTurn<dir>(v, v), o3 = AddQuarterTurn<dir>(w, w);
  y[1] = MulAdd(o1, half, e1);
  y[5] = NegMulAdd(o1, half, e1);
  y[3] = AddQuarterTurn<dir>(e3, o3, half);
  y[7] = SubQuarterTurn<dir>(e3, o3, half);
}
template <Direction dir, class C>
KERNELS_INLINE void Butterfly8(C (&y)[8]) {
  Butterfly8<dir>(y, [&](int i) KERNELS_INLINE_LAMBDA { return y[i]; });
}

/// V::width values of each of V::width / 2 transforms, whose values k stand beside each other at
/// src + k stride, interleaved. Each result is one group.
template <Direction dir, class V>
KERNELS_INLINE void TransformRows(const float* src, std::ptrdiff_t stride, Complex<V>* group) {
  Pairs<V> row[V::width];
  for (int k = 0; k < V::width; ++k)
    row[k].v = V::LoadU(src + k * stride);
  if constexpr (V::width == 8)
    Butterfly8<dir>(row);
  else
    Butterfly<V::width, dir>(row);
  V t[V::width];
  for (int k = 0; k < V::width; ++k)
    t[k] = row[k].v;
  Transpose(t);
  for (int i = 0; i < V::width / 2; ++i)
    group[i] = {t[2 * i], t[2 * i + 1]};
}

// Real transforms of N values over a vector (or float) V, in place in packed order: X[0], for even
// N X[N/2], then real and imaginary parts of X[1], X[2], ...

template <int N, class V>
KERNELS_INLINE void RealForward(V* x) {
  if constexpr (N == 2) {
    const V a = x[0];
    x[0] = a + x[1];
    x[1] = a - x[1];
  } else if constexpr (N % 2 == 1) {
    constexpr int half = N / 2;
    V sum[half + 1], diff[half + 1];
    const V first = x[0];
    Unroll<half>([&](auto j) KERNELS_INLINE_LAMBDA {
      sum[j] = x[j + 1] + x[N - 1 - j];
      diff[j] = x[N - 1 - j] - x[j + 1];
      x[0] = x[0] + sum[j];
    });
    Unroll<half>([&](auto k) KERNELS_INLINE_LAMBDA {
      V re = first, im;
      Unroll<half>([&](auto j) KERNELS_INLINE_LAMBDA {
        constexpr int turn = (j + 1) * (k + 1) % N;
        re = MulAdd(sum[j], Broadcast<V>(cosOf<turn, N>), re);
        const V sine = Broadcast<V>(sinOf<turn, N>);
        if constexpr (j == 0)
          im = diff[j] * sine;
        else
          im = MulAdd(diff[j], sine, im);
      });
      x[2 * k + 1] = re;
      x[2 * k + 2] = im;
    });
  } else if constexpr (N >= 4) {
    constexpr int n = N / 2;
    Complex<V> z[n];
    Unroll<n>([&](auto j) KERNELS_INLINE_LAMBDA { z[j] = {x[2 * j], x[2 * j + 1]}; });
    Butterfly<n, Direction::Forward>(z);
    x[0] = z[0].re + z[0].im;
    x[1] = z[0].re - z[0].im;
    Unroll<n / 2>([&](auto j) KERNELS_INLINE_LAMBDA {
      constexpr int k = j + 1;
      const Complex<V> a = z[k], b = z[n - k];
      const V T = a.re + b.re, U = a.im - b.im;
      const Complex<V> t = Rotated<k, N, Direction::Forward>(Complex<V>{a.im + b.im, b.re - a.re});
      const V half = Broadcast<V>(0.5f);
      x[2 * k] = (T + t.re) * half;
      x[2 * k + 1] = (t.im + U) * half;
      if constexpr (k != n - k) {
        x[2 * (n - k)] = (T - t.re) * half;
        x[2 * (n - k) + 1] = (t.im - U) * half;
      }
    });
  }
}

template <int N, class V>
KERNELS_INLINE void RealInverse(V* x) {
  if constexpr (N == 2) {
    RealForward<2>(x);
  } else if constexpr (N % 2 == 1) {
    constexpr int half = N / 2;
    V re[half + 1], im[half + 1];
    const V first = x[0];
    Unroll<half>([&](auto k) KERNELS_INLINE_LAMBDA {
      re[k] = x[2 * k + 1] + x[2 * k + 1];
      im[k] = x[2 * k + 2] + x[2 * k + 2];
      x[0] = x[0] + re[k];
    });
    Unroll<half>([&](auto j) KERNELS_INLINE_LAMBDA {
      V even = first, odd;
      Unroll<half>([&](auto k) KERNELS_INLINE_LAMBDA {
        constexpr int turn = (j + 1) * (k + 1) % N;
        even = MulAdd(re[k], Broadcast<V>(cosOf<turn, N>), even);
        const V sine = Broadcast<V>(sinOf<turn, N>);
        if constexpr (k == 0)
          odd = im[k] * sine;
        else
          odd = MulAdd(im[k], sine, odd);
      });
      x[j + 1] = even - odd;
      x[N - 1 - j] = even + odd;
    });
  } else if constexpr (N >= 4) {
    constexpr int n = N / 2;
    Complex<V> z[n];
    z[0] = {x[0] + x[1], x[0] - x[1]};
    Unroll<n / 2>([&](auto j) KERNELS_INLINE_LAMBDA {
      constexpr int k = j + 1;
      const Complex<V> a = {x[2 * k], x[2 * k + 1]}, b = {x[2 * (n - k)], x[2 * (n - k) + 1]};
      const V T = a.re + b.re, U = a.im - b.im;
      const Complex<V> t =
          Rotated<k, N, Direction::Inverse>(Complex<V>{Negated(a.im + b.im), a.re - b.re});
      z[k] = {T + t.re, U + t.im};
      z[n - k] = {T - t.re, t.im - U};
    });
    Butterfly<n, Direction::Inverse>(z);
    Unroll<n>([&](auto j) KERNELS_INLINE_LAMBDA {
      x[2 * j] = z[j].re;
      x[2 * j + 1] = z[j].im;
    });
  }
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
