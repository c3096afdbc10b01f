#pragma once

// A planned transform on guarded memory, against the definition in double.

#include "kernels/guarded_room.h"
#include "kernels/ipps.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <complex>
#include <functional>
#include <memory>
#include <numbers>
#include <optional>
#include <random>
#include <string>

namespace KernelTest {

/// The relative L2 error that single precision allows.
struct Tolerance {
  double forward, back;
};
/// Well planned lengths stay near 1e-7; long sums over a large prime go highest.
inline constexpr Tolerance anyLengthTolerance = {5e-7, 5e-7};
inline Tolerance FftTolerance(int order, int flag) {
  // 1/sqrt(N) is one Newton step from the processor's estimate.
  const double root = flag == IPP_FFT_DIV_BY_SQRTN ? 2e-7 : 0.0;
  const double rounding = 7e-8 * std::sqrt(order < 4 ? 4.0 : order);
  return {rounding + root, 2 * (rounding + root)};
}

/// What to check. Real transforms take N floats to CCS, complex ones N values to N values.
struct Transform {
  using Run = std::function<IppStatus(const float* src, float* dst, Ipp8u* work)>;
  std::string name;  ///< of the build; the check adds the rest
  std::size_t length;
  bool isReal;
  int flag;
  Tolerance tolerance;
  std::optional<std::size_t> workSize = {};  ///< none: the transform gets no buffer
  Run forward = {}, inverse = {};
  std::shared_ptr<const void> plan = {};  ///< theirs
};

inline constexpr int flags[] = {IPP_FFT_DIV_INV_BY_N, IPP_FFT_DIV_FWD_BY_N, IPP_FFT_DIV_BY_SQRTN,
                                IPP_FFT_NODIV_BY_ANY};
inline bool IsFlag(int flag) {
  return std::ranges::find(flags, flag) != std::end(flags);
}

/// exp(-2 pi i k / N), as the product of two from tables of some sqrt(N).
class Roots {
public:
  explicit Roots(std::size_t N) : N(N), shift(static_cast<int>(std::bit_width(N)) / 2) {
    for (std::size_t k = 0; k < std::size_t{1} << shift; ++k)
      fine.push_back(Root(k));
    for (std::size_t k = 0; k < N; k += fine.size())
      coarse.push_back(Root(k));
  }
  /// k to N - 1.
  std::complex<double> operator()(std::size_t k) const {
    return coarse[k >> shift] * fine[k & (fine.size() - 1)];
  }

private:
  std::complex<double> Root(std::size_t k) const {
    return std::polar(1.0, -2 * std::numbers::pi * static_cast<double>(k) / static_cast<double>(N));
  }
  std::size_t N;
  int shift;
  std::vector<std::complex<double>> fine, coarse;
};

enum class Signal { Noise, Constant, Tiny, Impulses };
inline constexpr Signal signals[] = {Signal::Noise, Signal::Constant, Signal::Tiny,
                                     Signal::Impulses};

class TransformCheck {
public:
  TransformCheck(Transform transform, Input& input)
      : t(std::move(transform)), input(input), N(t.length), inFloats(t.isReal ? N : 2 * N),
        outFloats(t.isReal ? (N % 2 ? N + 1 : N + 2) : 2 * N), roots(N),
        bits(input.Number(0, 65535)) {
    t.name += (t.isReal ? " real, " : " complex, ") + std::to_string(N) + " values, flag " +
              std::to_string(t.flag);
    const double byN = 1.0 / static_cast<double>(N);
    const auto scale = [&](int flag) {
      return t.flag == flag ? byN : t.flag == IPP_FFT_DIV_BY_SQRTN ? std::sqrt(byN) : 1.0;
    };
    scaleForward = scale(IPP_FFT_DIV_FWD_BY_N);
    scaleInverse = scale(IPP_FFT_DIV_INV_BY_N);
  }

  /// The spectrum of a signal by the definition, and the way back.
  void Run(Signal signal) {
    const std::vector<float> x = Make(signal);
    std::vector<float> X = Both(t.forward, x, inFloats, outFloats);
    CheckBins(signal, x, X);
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
      error += Square(back[i] / gain - double{x[i]});
      norm += Square(x[i]);
    }
    // noise is what it is made for; a few impulses meet the same errors again and again
    const double most = (signal == Signal::Noise ? 1 : 2.4) * t.tolerance.back;
    Expect(std::sqrt(error / norm) <= most, "%s: comes back with an error of %g", t.name.c_str(),
           std::sqrt(error / norm));
  }

private:
  static double Square(double value) { return value * value; }
  static GuardedRoom& Room(std::size_t i) {
    static GuardedRoom rooms[3];
    return rooms[i];
  }

  std::vector<float> Make(Signal signal) {
    std::vector<float> x(inFloats);
    std::uniform_real_distribution<float> noise(-1.0F, 1.0F);
    if (signal == Signal::Impulses) {
      for (const float height : {1.0F, 0.75F, -0.5F})
        x[bits() % inFloats] += height;
      return x;
    }
    for (float& value : x)
      value = signal == Signal::Constant ? 1.0F
              : signal == Signal::Tiny   ? 1e-18F * noise(bits)
                                         : noise(bits);
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

  /// All bins of a short transform, more of a few impulses, some otherwise: the ends among
  /// them, but for a constant, whose energy strays to its neighbours.
  void CheckBins(Signal signal, const std::vector<float>& x, const std::vector<float>& X) {
    const std::size_t width = t.isReal ? 1 : 2, bins = t.isReal ? N / 2 + 1 : N;
    std::vector<std::size_t> places;
    double energy = 0;
    for (std::size_t i = 0; i < inFloats; ++i) {
      if (x[i] != 0 && (places.empty() || places.back() != i / width)) places.push_back(i / width);
      energy += Square(x[i]);
    }
    const std::size_t sums = places.size() <= 3 ? 1 << 17 : 1 << 16;
    const std::size_t count = std::min(bins, std::max<std::size_t>(6, sums / places.size()));
    const double unit = std::sqrt(energy) * scaleForward;
    double error = 0, norm = 0;
    for (std::size_t i = 0; i < count; ++i) {
      const bool atEnds = i < 3 && signal != Signal::Constant;
      const std::size_t k = count == bins ? i : atEnds ? (i == 2 ? bins - 1 : i) : bits() % bins;
      std::complex<double> sum = 0;
      for (const std::size_t n : places)
        sum +=
            std::complex<double>(x[width * n], t.isReal ? 0 : x[width * n + 1]) * roots(k * n % N);
      sum *= scaleForward;
      const double off = std::abs(std::complex<double>(X[2 * k], X[2 * k + 1]) - sum);
      error += off * off;
      norm += std::norm(sum);
      // An error spread over all bins is its share of the energy; any one bin has a few times that,
      // and a constant signal puts its energy into one.
      Expect(off <= 8 * t.tolerance.forward * unit * (1 + std::abs(sum) / unit),
             "%s: bin %zu is off by %g", t.name.c_str(), k, off / unit);
    }
    if (count == bins)
      Expect(std::sqrt(error / norm) <= t.tolerance.forward, "%s: an error of %g", t.name.c_str(),
             std::sqrt(error / norm));
  }

  Transform t;
  Input& input;
  std::size_t N, inFloats, outFloats;
  Roots roots;
  std::mt19937 bits;
  double scaleForward = 1, scaleInverse = 1;
};

}  // namespace KernelTest
