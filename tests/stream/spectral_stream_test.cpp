// Streams over models on spectra, in the library as a host has it and with the real engine, beside
// the chain that they are to be: window, transform, the model's rule on the bins, the inverse,
// window, overlap-add, all in double precision and by the definitions.

#include "kalvrin/stream_processor.h"

#include "stream/compared_stream.h"
#include "support/model_builder.h"
#include "support/seed.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <limits>
#include <memory>
#include <numbers>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace TestSupport;
using Orvik::Tesmo::StreamProcessor;
using Complex = std::complex<double>;
using Spectrum = std::vector<Complex>;  ///< bins 0 to N/2

constexpr float NaN = std::numeric_limits<float>::quiet_NaN();
constexpr float Infinity = std::numeric_limits<float>::infinity();

struct Case {
  StreamSizes sizes;
  std::uint64_t classes;
  bool isRecurrent;
  /// What the model leaves where the first and the last bin of a real signal have no part.
  float rubbish;

  std::uint64_t Window() const { return 2 * sizes.hop; }
  std::uint64_t Bins() const { return sizes.hop + 1; }
  std::string Text() const {
    return sizes.Text() + ", classes " + std::to_string(classes) +
           (isRecurrent ? ", recurrent" : "") + ", rubbish " + std::to_string(rubbish);
  }
};

/// Windows of every kind of transform: a power of two, products of small factors, and two whose
/// half is or holds a large prime. Then windows of other shapes.
const Case cases[] = {
    {{256, 4, 2, 0, 256, true}, 2, false, 0.0f},
    {{256, 3, 1, 1, 768, true}, 1, true, NaN},
    {{240, 1, 3, 0, 240, true}, 2, true, Infinity},
    {{240, 4, 2, 1, 128, true}, 3, false, 1e30f},
    {{240, 2, 1, 3, 480, true}, 1, true, -7.0f},
    {{480, 2, 2, 0, 960, true}, 2, true, NaN},
    {{480, 4, 1, 3, 480, true}, 2, false, -Infinity},
    {{53, 5, 2, 0, 53, true}, 3, true, 1.0f},
    {{53, 1, 6, 3, 100, true}, 1, true, NaN},
    {{497, 2, 2, 1, 497, true}, 2, false, 1e30f},
    {{497, 3, 1, 0, 1000, true}, 1, true, -Infinity},
    {{2048, 2, 1, 1, 2048, true}, 2, true, NaN},
    {{1, 3, 2, 0, 3, true}, 2, true, NaN},
    {{2, 3, 2, 1, 7, true}, 1, true, Infinity},
    {{256, 2, 2, 0, 256, true, DeclaredWindow{"hann", Hann}}, 2, true, NaN},
    {{256, 1, 1, 1, 256, true, DeclaredWindow{"hann", Hann, 400}}, 1, true, 0.0f},
    {{256, 2, 1, 0, 256, true, DeclaredWindow{"vorbis", Vorbis, 401}}, 1, false, 0.0f},
    {{480, 1, 2, 2, 480, true, DeclaredWindow{"vorbis", Vorbis}}, 1, false, 0.0f},
    {{53, 2, 3, 0, 53, true, DeclaredWindow{"rectangular", Rectangular}}, 2, true, 0.0f},
    {{53, 1, 1, 0, 53, true, DeclaredWindow{"root-hann", RootHann, 99}}, 1, false, 0.0f},
    {{240, 1, 1, 1, 120, true, DeclaredWindow{nullptr, Hamming, 0, HannByHamming}}, 2, true, 0.0f},
    {{240, 2, 1, 0, 240, true, DeclaredWindow{nullptr, Hamming, 400}}, 1, false, 0.0f},
};

/// The rule of a model: out of bin b of window s the class k makes
///   mask(k, b) X(s, b) + echo(k) Z(b)
/// where Z is the last window that the evaluation before was given, or nothing.
struct ModelRule {
  ModelRule(const Case& row, std::mt19937_64& generator)
      : masks(row.classes, Spectrum(row.Bins())), echoes(row.classes, 0.0f) {
    std::uniform_real_distribution<float> value(-1, 1);
    for (Spectrum& mask : masks)
      for (Complex& factor : mask)
        factor = {value(generator), value(generator)};
    if (row.isRecurrent)
      for (float& echo : echoes)
        echo = value(generator);
  }

  std::vector<Spectrum> masks;
  std::vector<float> echoes;
};

std::string ClassName(std::uint64_t k) {
  return "class" + std::to_string(k);
}

std::string MakeModel(const Case& row, const ModelRule& rule) {
  const auto K = static_cast<std::int64_t>(row.classes);
  const auto F = static_cast<std::int64_t>(row.Bins());
  const auto L = static_cast<std::int64_t>(row.sizes.lookahead);
  // (a + bi) (x + yi) = (a x - b y) + (a y + b x) i: straight by a, a and crossed by -b, b
  std::vector<float> straight, crossed, rubbish(static_cast<std::size_t>(2 * F));
  for (const Spectrum& mask : rule.masks)
    for (const Complex& factor : mask) {
      const auto a = static_cast<float>(factor.real()), b = static_cast<float>(factor.imag());
      straight.insert(straight.end(), {a, a});
      crossed.insert(crossed.end(), {-b, b});
    }
  rubbish[1] = rubbish.back() = row.rubbish;

  ModelBuilder model;
  model.Input("input", Element::Float, {"C", "T", F, 2})
      .Output("output", Element::Float, {"K", "C", "S", F, 2})
      .Floats("straight", {K, 1, 1, F, 2}, straight)
      .Floats("crossed", {K, 1, 1, F, 2}, crossed)
      .Floats("rubbish", {F, 2}, rubbish)
      .Int64s("zero", {1}, {0})
      .Int64s("one", {1}, {1})
      .Int64s("swap", {2}, {1, 0})
      .Int64s("windows", {1}, {L == 0 ? std::numeric_limits<std::int32_t>::max() : -L})
      .Node("Slice", {"input", "zero", "windows", "one"}, {"present"})
      .Node("Unsqueeze", {"present", "zero"}, {"spectra"})
      .Node("Gather", {"spectra", "swap"}, {"swapped"}, {{"axis", 4}})
      .Node("Mul", {"spectra", "straight"}, {"product1"})
      .Node("Mul", {"swapped", "crossed"}, {"product2"})
      .Node("Add", {"product1", "product2"}, {"masked"});
  if (row.isRecurrent) {
    model.Input("last", Element::Float, {"C", 1, F, 2})
        .Output("newLast", Element::Float, {"C", 1, F, 2})
        .Floats("echoes", {K, 1, 1, 1, 1}, rule.echoes)
        .Int64s("end", {1}, {std::numeric_limits<std::int32_t>::max()})
        .Int64s("back", {1}, {-1})
        .Node("Slice", {"input", "back", "end", "one"}, {"newLast"})
        .Node("Unsqueeze", {"last", "zero"}, {"lastSpectra"})
        .Node("Mul", {"lastSpectra", "echoes"}, {"echo"})
        .Node("Add", {"masked", "echo"}, {"result"});
  } else {
    model.Node("Identity", {"masked"}, {"result"});
  }
  std::string names;
  for (std::uint64_t k = 0; k < row.classes; ++k)
    names += (k ? ",\"" : "\"") + ClassName(k) + '"';
  if (row.sizes.window) model.Metadata("WindowShape", row.sizes.window->Json(row.Window()));
  return model.Node("Add", {"result", "rubbish"}, {"output"})
      .Metadata("LookaheadNumBlocks", std::to_string(L))
      .Metadata("AudioClassNames", "[" + names + "]")
      .Metadata("ChannelToAudioClassBindings", "[[1,\"class0\"]]")
      .Build();
}

/// Transforms of N samples by the definition.
class Plain {
public:
  explicit Plain(std::size_t N) : N(N), roots(N) {
    for (std::size_t i = 0; i < N; ++i) {
      const double angle = 2 * std::numbers::pi * static_cast<double>(i) / static_cast<double>(N);
      roots[i] = std::polar(1.0, angle);
    }
  }

  Spectrum Forward(const Samples& x) const {
    Spectrum X(N / 2 + 1);
    for (std::size_t k = 0; k < X.size(); ++k)
      for (std::size_t n = 0, turn = 0; n < N; ++n, turn = Turned(turn, k))
        X[k] += x[n] * std::conj(roots[turn]);
    return X;
  }

  /// Of a real signal: the bins above N/2 are the conjugates, and the two that have no conjugate
  /// count by their real parts.
  Samples Inverse(const Spectrum& X) const {
    Samples x(N);
    for (std::size_t n = 0; n < N; ++n) {
      double sum = 0;
      for (std::size_t k = 1, turn = n; k < N / 2; ++k, turn = Turned(turn, n))
        sum += X[k].real() * roots[turn].real() - X[k].imag() * roots[turn].imag();
      const double last = n % 2 ? -X[N / 2].real() : X[N / 2].real();
      x[n] = (2 * sum + X[0].real() + last) / static_cast<double>(N);
    }
    return x;
  }

private:
  std::size_t Turned(std::size_t turn, std::size_t by) const {
    return turn + by < N ? turn + by : turn + by - N;
  }

  std::size_t N;
  Spectrum roots;
};

struct Gains {
  float master, rest;
  std::vector<float> classes;

  void Set(StreamProcessor& stream) const {
    stream.SetMasterGain(master);
    stream.SetAudioClassGain(u"Rest", rest);
    for (std::uint64_t k = 0; k < classes.size(); ++k) {
      const std::string name = ClassName(k);
      stream.SetAudioClassGain(std::u16string(name.begin(), name.end()).c_str(), classes[k]);
    }
  }
};

/// The rule of a model and of the present gains behind it, by windows. Channel 1 is bound to class
/// 0. `gains` outlives it.
class Chain {
public:
  Chain(const Case& row, ModelRule rule, const Gains& gains)
      : rule(std::move(rule)), gains(gains), sequence(row.sizes.sequence), plain(row.Window()),
        last(row.sizes.channels, Spectrum(row.Bins())) {}

  Planar operator()(std::size_t channel, const Planar& windows) {
    const bool isBound = channel == 1;
    Planar mixed = windows;
    for (Samples& window : mixed)
      for (double& sample : window)
        sample *= double{gains.master} * (isBound ? gains.classes[0] : gains.rest);
    for (std::size_t s = 0; s < sequence && !isBound; ++s) {
      const Spectrum X = plain.Forward(windows[s]);
      Spectrum mix(X.size());
      for (std::size_t k = 0; k < gains.classes.size(); ++k)
        for (std::size_t b = 0; b < mix.size(); ++b)
          mix[b] += double{gains.master} * (double{gains.classes[k]} - gains.rest) *
                    (rule.masks[k][b] * X[b] + double{rule.echoes[k]} * last[channel][b]);
      const Samples made = plain.Inverse(mix);
      for (std::size_t n = 0; n < made.size(); ++n)
        mixed[s][n] += made[n];
    }
    last[channel] = plain.Forward(windows.back());
    return mixed;
  }

private:
  ModelRule rule;
  const Gains& gains;
  std::size_t sequence;
  Plain plain;
  std::vector<Spectrum> last;  ///< by channel: the last window of the evaluation before
};

/// A stream over a model of this rule beside its plain model, every gain 1.
ComparedStream Compare(const Case& row, const ModelRule& rule, std::uint64_t seed) {
  const auto make = [&](const StreamSizes& sizes) {
    const std::string model = MakeModel(row, rule);
    return std::unique_ptr<StreamProcessor>(CreateStreamProcessor(
        model.data(), model.size(), sizes.sequence, sizes.channels, sizes.block));
  };
  return {make, row.sizes, seed};
}

/// Two evaluations, and as far again as the first window of the second one reaches.
void RunOn(ComparedStream& compared, const StreamSizes& sizes, std::int32_t first = 1) {
  const std::uint64_t least = 2 * sizes.Capacity() + (sizes.lookahead + 2) * sizes.hop;
  for (std::uint64_t start = 0; start <= least; start += sizes.block)
    ASSERT_NO_FATAL_FAILURE(compared.Process(sizes.block, start == 0 ? first : 1));
}

/// From the start, with other gains, and after a change of size, which starts history and states
/// again.
TEST(SpectralStream, IsTheChainOfItsDefinitions) {
  std::mt19937_64 generator(TestSeed());
  const auto gain = [&] { return std::uniform_real_distribution<float>(0, 2)(generator); };
  for (const Case& row : cases) {
    SCOPED_TRACE(row.Text());
    const ModelRule rule(row, generator);
    ComparedStream compared = Compare(row, rule, generator());
    Gains gains = {};
    compared.Reference().SetRule(Chain(row, rule, gains));
    double most = 0;  // of a class sample up to 1 and the input, by the gains so far
    for (const bool isResized : {false, false, true}) {
      gains = {gain(), gain(), {}};
      double sum = gains.rest;
      for (std::uint64_t k = 0; k < row.classes; ++k)
        sum += std::abs(gains.classes.emplace_back(gain()) - gains.rest);
      most = std::max(most, sum * gains.master);
      gains.Set(compared.Stream());
      if (isResized) {
        compared.SetSequenceSize(row.sizes.sequence);
        compared.Reference().SetRule(Chain(row, rule, gains));
      }
      // In single precision a Hann window is off by up to 2^-25, and its root near the ends by that
      // over 2 sin(pi / N).
      compared.SetScale((1e-6 + 5e-9 * static_cast<double>(row.Window())) / Tolerance * most);
      ASSERT_NO_FATAL_FAILURE(RunOn(compared, row.sizes, isResized ? 0 : 1));
    }
  }
}

TEST(SpectralStream, UnityGivesTheDelayedInputWhateverTheModelGives) {
  std::mt19937_64 generator(TestSeed());
  for (const Case& row : cases) {
    SCOPED_TRACE(row.Text());
    ComparedStream compared = Compare(row, ModelRule(row, generator), generator());
    ASSERT_NO_FATAL_FAILURE(RunOn(compared, row.sizes));
  }
}

}  // namespace
