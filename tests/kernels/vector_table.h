#pragma once

// The vector kernels and what they mean.

#include "kernels/members.h"

#include <bit>
#include <cmath>
#include <type_traits>

namespace KernelTest {

inline bool Same(float a, float b) {
  return std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b) ||
         (std::isnan(a) && std::isnan(b));
}

/// An entry with those of the arguments that it takes: two sources, a constant, the destination.
template <auto entry>
IppStatus Run(const Members& m, const float* a, const float* b, float factor, float* d, int n) {
  const auto run = m.*entry;
  if constexpr (std::is_invocable_v<decltype(run), const float*, const float*, float*, int>)
    return run(a, b, d, n);
  else if constexpr (std::is_invocable_v<decltype(run), const float*, float, float*, int>)
    return run(a, factor, d, n);
  else if constexpr (std::is_invocable_v<decltype(run), float, float*, int>)
    return run(factor, d, n);
  else if constexpr (std::is_invocable_v<decltype(run), const float*, float*, int>)
    return run(a, d, n);
  else
    return run(d, n);
}

inline float Scaled(float value, float factor) {
  if (factor == 0) return 0;
  return factor == 1 ? value : value * factor;
}

inline float AddProduct(float a, float, float factor, float d) {
  const volatile float product = a * factor;  // rounded of its own
  return d + product;
}

/// `run` has `sources` sources; `meaning` returns what becomes of one element.
struct Kernel {
  const char* name;
  int sources;
  IppStatus (*run)(const Members&, const float* a, const float* b, float factor, float* d, int n);
  float (*meaning)(float a, float b, float factor, float d);
  bool isRoot = false;  ///< elements below zero have their own status, and raise no exception
};
inline constexpr Kernel kernels[] = {
    {"Copy", 1, Run<&Members::ippsCopy_32f>, [](float a, float, float, float) { return a; }},
    {"Add", 2, Run<&Members::ippsAdd_32f>, [](float a, float b, float, float) { return a + b; }},
    {"Mul", 2, Run<&Members::ippsMul_32f>, [](float a, float b, float, float) { return a * b; }},
    {"Mul_I", 1, Run<&Members::ippsMul_32f_I>,
     [](float a, float, float, float d) { return d * a; }},
    {"MulC", 1, Run<&Members::ippsMulC_32f>,
     [](float a, float, float factor, float) { return Scaled(a, factor); }},
    {"MulC_I", 0, Run<&Members::ippsMulC_32f_I>,
     [](float, float, float factor, float d) { return Scaled(d, factor); }},
    {"AddProductC", 1, Run<&Members::ippsAddProductC_32f>, AddProduct},
    {"Zero", 0, Run<&Members::ippsZero_32f>, [](float, float, float, float) { return 0.0F; }},
    {"Sqrt_I", 0, Run<&Members::ippsSqrt_32f_I>,
     [](float, float, float, float d) { return std::sqrt(d); }, true},
};

}  // namespace KernelTest
