#pragma once

// A planned transform on guarded memory, against the definition in double.

#include "guarded_page.h"
#include "input.h"
#include "kernels/ipps.h"

#include <cmath>
#include <complex>
#include <functional>
#include <numbers>
#include <optional>
#include <random>
#include <string>

namespace Fuzz {

/// The relative error in energy that single precision allows.
inline constexpr double tolerance = 6e-7;

/// What to check. Real transforms take N floats to CCS, complex ones N values to N values.
struct Transform {
  using Run = std::function<IppStatus(const float* src, float* dst, Ipp8u* work)>;
  std::string name;  ///< of the build; the check adds the rest
  std::size_t length;
  bool isReal;
  int flag;
  std::optional<std::size_t> workSize = {};  ///< none: the transform gets no buffer
  Run forward = {}, inverse = {};
};

/// An entry on real or complex values with its spec.
template <class Value, class Spec>
Transform::Run Bound(IppStatus (*entry)(const Value*, Value*, const Spec*, Ipp8u*),
                     const Spec* spec) {
  return [entry, spec](const float* src, float* dst, Ipp8u* work) {
    return entry(reinterpret_cast<const Value*>(src), reinterpret_cast<Value*>(dst), spec, work);
  };
}

class TransformCheck {
public:
  TransformCheck(Transform transform, Input& input)
      : t(std::move(transform)), input(input), N(t.length), inFloats(t.isReal ? N : 2 * N),
        outFloats(t.isReal ? (N % 2 ? N + 1 : N + 2) : 2 * N), roots(N),
        bits(input.Number(0, 65535)) {
    t.name += (t.isReal ? " real, " : " complex, ") + std::to_string(N) + " values, flag " +
              std::to_string(t.flag);
    for (std::size_t k = 0; k < N; ++k)
      roots[k] =
          std::polar(1.0, -2 * std::numbers::pi * static_cast<double>(k) / static_cast<double>(N));
    const double byN = 1.0 / static_cast<double>(N);
    scaleForward = t.flag == IPP_FFT_DIV_FWD_BY_N   ? byN
                   : t.flag == IPP_FFT_DIV_BY_SQRTN ? std::sqrt(byN)
                                                    : 1.0;
    scaleInverse = t.flag == IPP_FFT_DIV_INV_BY_N   ? byN
                   : t.flag == IPP_FFT_DIV_BY_SQRTN ? std::sqrt(byN)
                                                    : 1.0;
  }

  void Run() {
    const std::vector<float> x = Signal();
    std::vector<float> X = Both(t.forward, x, inFloats, outFloats);
    CheckBins(x, X);
    if (t.isReal) {
      Expect(X[1] == 0 && (N % 2 || X[N + 1] == 0), "%s: an imaginary part that is 0 is not",
             t.name.c_str());
      // these two the inverse does not read
      X[1] = NAN;
      if (N % 2 == 0) X[N + 1] = NAN;
    }
    const std::vector<float> back = Both(t.inverse, X, outFloats, inFloats);
    const double gain = scaleForward * scaleInverse * static_cast<double>(N);
    double error = 0, norm = 0;
    for (std::size_t i = 0; i < inFloats; ++i) {
      error += std::pow(back[i] / gain - double{x[i]}, 2);
      norm += std::pow(double{x[i]}, 2);
    }
    Expect(error <= std::pow(2 * tolerance, 2) * norm, "%s: comes back with an error of %g",
           t.name.c_str(), std::sqrt(error / norm));
  }

private:
  static constexpr std::size_t capacity = 4 * (2 * (std::size_t{1} << 15) + 16);
  static GuardedRoom& Room(std::size_t i) {
    static GuardedRoom source(capacity), destination(capacity), work(4 * capacity);
    return i == 0 ? source : i == 1 ? destination : work;
  }

  std::vector<float> Signal() {
    std::vector<float> x(inFloats);
    std::uniform_real_distribution<float> noise(-1.0F, 1.0F);
    const std::uint8_t kind = input.Byte() % 4;
    for (std::size_t i = 0; i < inFloats; ++i)
      x[i] = kind == 1 ? 1.0F : kind == 2 ? 1e-18F * noise(bits) : noise(bits);
    if (kind == 3) {
      std::fill(x.begin(), x.end(), 0.0F);
      x[bits() % inFloats] = 1.0F;
    }
    return x;
  }

  /// Out of place at places that the input chooses; then in place, without a work buffer, with the
  /// same bits.
  std::vector<float> Both(const Transform::Run& run, const std::vector<float>& values,
                          std::size_t from, std::size_t to) {
    float* const src = Place<float>(Room(0), input, from);
    float* const dst = Place<float>(Room(1), input, to);
    Ipp8u* const buffer = Place<Ipp8u>(Room(2), input, t.workSize.value_or(0));
    Ipp8u* const work = t.workSize ? buffer : nullptr;
    Put(src, values);
    Call(run, src, dst, work);
    std::vector<float> got = Get(dst, to), untouched = Get(src, from);
    Expect(std::memcmp(untouched.data(), values.data(), from * sizeof(float)) == 0,
           "%s changed its source", t.name.c_str());
    Expect(Room(0).Intact(), "%s wrote beside its source", t.name.c_str());
    float* const both = Place<float>(Room(0), input, std::max(from, to));
    Put(both, values);
    Call(run, both, both, input.Flag() ? nullptr : work);
    Expect(std::memcmp(Get(both, to).data(), got.data(), to * sizeof(float)) == 0,
           "%s in place gives other numbers", t.name.c_str());
    return got;
  }

  void Call(const Transform::Run& run, const float* src, float* dst, Ipp8u* work) {
    const IppStatus status = run(src, dst, work);
    Expect(status == ippStsNoErr, "%s: status %d", t.name.c_str(), status);
    for (std::size_t i = 0; i < 3; ++i)
      Expect(Room(i).Intact(), "%s wrote beside a buffer", t.name.c_str());
  }

  /// All bins of a short transform, some of a long one.
  void CheckBins(const std::vector<float>& x, const std::vector<float>& X) {
    const std::size_t bins = t.isReal ? N / 2 + 1 : N;
    double energy = 0;
    for (const float value : x)
      energy += std::pow(double{value}, 2);
    const double unit = std::sqrt(energy) * scaleForward;
    for (std::size_t i = 0; i < (N <= 128 ? bins : 4); ++i) {
      const std::size_t k = N <= 128 ? i : bits() % bins;
      std::complex<double> sum = 0;
      for (std::size_t n = 0; n < N; ++n) {
        const std::complex<double> value =
            t.isReal ? std::complex<double>(x[n]) : std::complex<double>(x[2 * n], x[2 * n + 1]);
        sum += value * roots[k * n % N];
      }
      sum *= scaleForward;
      const double error = std::abs(std::complex<double>(X[2 * k], X[2 * k + 1]) - sum);
      // An error spread over all bins is its share of the energy; any one bin has a few times that,
      // and a constant signal puts its energy into one.
      Expect(error <= 8 * tolerance * unit * (1 + std::abs(sum) / unit), "%s: bin %zu is off by %g",
             t.name.c_str(), k, error / unit);
    }
  }

  Transform t;
  Input& input;
  std::size_t N, inFloats, outFloats;
  std::vector<std::complex<double>> roots;
  std::mt19937 bits;
  double scaleForward = 1, scaleInverse = 1;
};

inline constexpr int flags[] = {IPP_FFT_DIV_INV_BY_N, IPP_FFT_DIV_FWD_BY_N, IPP_FFT_DIV_BY_SQRTN,
                                IPP_FFT_NODIV_BY_ANY};
inline bool IsFlag(int flag) {
  return flag == 1 || flag == 2 || flag == 4 || flag == 8;
}

}  // namespace Fuzz
