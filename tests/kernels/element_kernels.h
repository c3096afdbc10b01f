#pragma once

#include "kernels/ipps.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>

namespace KernelTest {

/// A kernel of up to two sources and a destination, and what it means for one element.
struct ElementKernel {
  const char* name;
  std::function<IppStatus(const float* a, const float* b, float* dst, int len)> run;
  std::function<float(float a, float b, float dst)> meaning;
};
inline const ElementKernel elementKernels[] = {
    {"Copy", [](auto* a, auto*, float* d, int n) { return ippsCopy_32f(a, d, n); },
     [](float a, float, float) { return a; }},
    {"Add", [](auto* a, auto* b, float* d, int n) { return ippsAdd_32f(a, b, d, n); },
     [](float a, float b, float) { return a + b; }},
    {"Mul", [](auto* a, auto* b, float* d, int n) { return ippsMul_32f(a, b, d, n); },
     [](float a, float b, float) { return a * b; }},
    {"Mul_I", [](auto* a, auto*, float* d, int n) { return ippsMul_32f_I(a, d, n); },
     [](float a, float, float d) { return d * a; }},
    {"MulC 0.3", [](auto* a, auto*, float* d, int n) { return ippsMulC_32f(a, 0.3f, d, n); },
     [](float a, float, float) { return a * 0.3f; }},
    {"MulC 1", [](auto* a, auto*, float* d, int n) { return ippsMulC_32f(a, 1.0f, d, n); },
     [](float a, float, float) { return a; }},
    {"MulC 0", [](auto* a, auto*, float* d, int n) { return ippsMulC_32f(a, 0.0f, d, n); },
     [](float, float, float) { return 0.0f; }},
    {"MulC -0", [](auto* a, auto*, float* d, int n) { return ippsMulC_32f(a, -0.0f, d, n); },
     [](float, float, float) { return 0.0f; }},
    {"MulC NaN",
     [](auto* a, auto*, float* d, int n) {
       return ippsMulC_32f(a, std::numeric_limits<float>::quiet_NaN(), d, n);
     },
     [](float a, float, float) { return a * std::numeric_limits<float>::quiet_NaN(); }},
    {"AddProductC",
     [](auto* a, auto*, float* d, int n) { return ippsAddProductC_32f(a, 0.7f, d, n); },
     [](float a, float, float d) {
       const volatile float product = a * 0.7f;
       return d + product;
     }},
};

inline bool Same(float a, float b) {
  return std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b) ||
         (std::isnan(a) && std::isnan(b));
}

}  // namespace KernelTest
