// Included by a build's .cpp, which names its namespace in KERNELS_BUILD.
#pragma once

#include "kernels/vec4.h"

namespace Orvik::Tesmo::Kernels::KERNELS_BUILD {

/// y[p] to X[k] = sum over p of y[p] exp(-+2 pi i p k / 4), in place.
template <Direction dir, class C>
KERNELS_INLINE void Butterfly4(C& y0, C& y1, C& y2, C& y3) {
  const C a = y0 + y2, b = y0 - y2, c = y1 + y3, d = y1 - y3;
  y0 = a + c;
  y2 = a - c;
  y1 = AddTurned<dir>(b, d);
  y3 = SubTurned<dir>(b, d);
}

/// The same of 8 values.
template <Direction dir, class C>
KERNELS_INLINE void Butterfly8(C (&y)[8]) {
  C e0 = y[0], e1 = y[2], e2 = y[4], e3 = y[6];
  Butterfly4<dir>(e0, e1, e2, e3);
  const C s = y[1] + y[5], d = y[1] - y[5], t = y[3] + y[7], u = y[3] - y[7];
  const C o0 = s + t, o2 = s - t;
  const C o1 = EighthTurn<dir>(AddTurned<dir>(d, u)), o3 = EighthTurn<dir>(SubTurned<dir>(d, u));
  y[0] = e0 + o0;
  y[4] = e0 - o0;
  y[1] = e1 + o1;
  y[5] = e1 - o1;
  y[2] = AddTurned<dir>(e2, o2);
  y[6] = SubTurned<dir>(e2, o2);
  y[3] = AddTurned<dir>(e3, o3);
  y[7] = SubTurned<dir>(e3, o3);
}

}  // namespace Orvik::Tesmo::Kernels::KERNELS_BUILD
