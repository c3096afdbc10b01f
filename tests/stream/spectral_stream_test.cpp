// Streams over models on spectra, in the library as a host has it and with the real engine, beside
// the chain that they are to be: window, transform, the model's rule on the bins, the inverse,
// window, overlap-add. The chain stands here in double precision and by the definitions.

#include "kalvrin/stream_processor.h"

#include "support/model_builder.h"
#include "support/seed.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <limits>
#include <memory>
#include <numbers>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace TestSupport;
using Orvik::Tesmo::LatencyFrames;
using Orvik::Tesmo::StreamProcessor;
using Complex = std::complex<double>;
using Samples = std::vector<double>;
using Spectrum = std::vector<Complex>;  ///< bins 0 to N/2

constexpr float NaN = std::numeric_limits<float>::quiet_NaN();
constexpr float Infinity = std::numeric_limits<float>::infinity();

struct Case {
  std::uint64_t window, lookahead, sequence, channels, classes, block;
  bool isRecurrent;
  /// What the model leaves where the first and the last bin of a real signal have no part.
  float rubbish;

  std::string Text() const {
    return "window " + std::to_string(window) + ", lookahead " + std::to_string(lookahead) +
           ", sequence " + std::to_string(sequence) + ", channels " + std::to_string(channels) +
           ", classes " + std::to_string(classes) + ", block " + std::to_string(block) +
           (isRecurrent ? ", recurrent" : "") + ", rubbish " + std::to_string(rubbish);
  }
};

/// Windows of every kind of transform: a power of two, products of small factors, and two whose
/// half is or holds a large prime.
const Case cases[] = {
    {512, 0, 4, 2, 2, 256, false, 0.0f},      {512, 1, 3, 1, 1, 768, true, NaN},
    {480, 0, 1, 3, 2, 240, true, Infinity},   {480, 1, 4, 2, 3, 128, false, 1e30f},
    {480, 3, 2, 1, 1, 480, true, -7.0f},      {960, 0, 2, 2, 2, 960, true, NaN},
    {960, 3, 4, 1, 2, 480, false, -Infinity}, {106, 0, 5, 2, 3, 53, true, 1.0f},
    {106, 3, 1, 6, 1, 100, true, NaN},        {994, 1, 2, 2, 2, 497, false, 1e30f},
    {994, 0, 3, 1, 1, 1000, true, -Infinity}, {4096, 1, 2, 1, 2, 2048, true, NaN},
};

/// The rule of a model: out of bin b of window s the class k makes
///   mask(k, b) X(s, b) + echo(k) Z(b)
/// where Z is the last window that the evaluation before was given, or nothing.
struct Rule {
  Rule(const Case& sizes, std::mt19937_64& generator)
      : masks(sizes.classes, Spectrum(sizes.window / 2 + 1)), echoes(sizes.classes, 0.0f) {
    std::uniform_real_distribution<float> value(-1, 1);
    for (Spectrum& mask : masks)
      for (Complex& factor : mask)
        factor = {value(generator), value(generator)};
    if (sizes.isRecurrent)
      for (float& echo : echoes)
        echo = value(generator);
  }

  std::vector<Spectrum> masks;
  std::vector<float> echoes;
};

std::string ClassName(std::uint64_t k) {
  return "class" + std::to_string(k);
}

std::string MakeModel(const Case& sizes, const Rule& rule) {
  const auto K = static_cast<std::int64_t>(sizes.classes);
  const auto F = static_cast<std::int64_t>(sizes.window / 2 + 1);
  const auto L = static_cast<std::int64_t>(sizes.lookahead);
  // (a + bi) (x + yi) = (a x - b y) + (a y + b x) i: straight by a, a and crossed by -b, b
  std::vector<float> straight, crossed, rubbish(static_cast<std::size_t>(2 * F));
  for (const Spectrum& mask : rule.masks)
    for (const Complex& factor : mask) {
      const auto a = static_cast<float>(factor.real()), b = static_cast<float>(factor.imag());
      straight.insert(straight.end(), {a, a});
      crossed.insert(crossed.end(), {-b, b});
    }
  rubbish[1] = rubbish.back() = sizes.rubbish;

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
  if (sizes.isRecurrent) {
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
  for (std::uint64_t k = 0; k < sizes.classes; ++k)
    names += (k ? ",\"" : "\"") + ClassName(k) + '"';
  return model.Node("Add", {"result", "rubbish"}, {"output"})
      .Metadata("LookaheadNumBlocks", std::to_string(L))
      .Metadata("AudioClassNames", "[" + names + "]")
      .Metadata("ChannelToAudioClassBindings", "[[1,\"class0\"]]")
      .Build();
}

/// Transforms of N samples by the definition, and the window around them.
class Plain {
public:
  explicit Plain(std::size_t N) : N(N), roots(N) {
    for (std::size_t i = 0; i < N; ++i) {
      const double angle = 2 * std::numbers::pi * static_cast<double>(i) / static_cast<double>(N);
      roots[i] = std::polar(1.0, angle);
      window.push_back(std::sqrt((1 - std::cos(angle)) / 2));
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

  Samples Windowed(Samples x) const {
    for (std::size_t n = 0; n < N; ++n)
      x[n] *= window[n];
    return x;
  }

private:
  std::size_t Turned(std::size_t turn, std::size_t by) const {
    return turn + by < N ? turn + by : turn + by - N;
  }

  std::size_t N;
  Spectrum roots;
  Samples window;
};

struct Gains {
  double rest;
  std::vector<double> classes;
};

/// What comes out for `input` of one channel, `hops` hops of it, from the first window's first hop.
Samples ExpectedOutput(const Case& sizes, const Rule& rule, const Gains& gains, bool isBound,
                       const std::vector<float>& input, std::uint64_t hops) {
  const Plain plain(sizes.window);
  const std::uint64_t hop = sizes.window / 2, L = sizes.lookahead, F = hop + 1;
  const Samples silence(sizes.window);
  std::vector<Samples> windows(L, silence);
  std::vector<Spectrum> spectra(L, Spectrum(F));
  Samples output(hops * hop + hop);
  for (std::uint64_t h = 0; h < hops; ++h) {
    Samples window(sizes.window);
    for (std::uint64_t n = 0; n < sizes.window; ++n)
      if (h > 0 || n >= hop) window[n] = double{input[h * hop + n - hop]};
    windows.push_back(plain.Windowed(window));
    if (!isBound) spectra.push_back(plain.Forward(windows.back()));
  }
  for (std::uint64_t h = 0; h < hops; ++h) {
    Samples mixed(sizes.window);
    if (!isBound) {
      // the windows of one evaluation share the state: the last one of the evaluation before
      const std::uint64_t given = L + h / sizes.sequence * sizes.sequence;
      Spectrum mix(F);
      for (std::uint64_t k = 0; k < sizes.classes; ++k)
        for (std::uint64_t b = 0; b < F; ++b) {
          const Complex last = h < sizes.sequence ? Complex{} : spectra[given - 1][b];
          mix[b] += (gains.classes[k] - gains.rest) *
                    (rule.masks[k][b] * spectra[h][b] + double{rule.echoes[k]} * last);
        }
      mixed = plain.Inverse(mix);
    }
    const double dry = isBound ? gains.classes[0] : gains.rest;
    for (std::uint64_t n = 0; n < sizes.window; ++n)
      mixed[n] += dry * windows[h][n];
    mixed = plain.Windowed(mixed);
    for (std::uint64_t n = 0; n < sizes.window; ++n)
      output[h * hop + n] += mixed[n];
  }
  return output;
}

/// One stream, fed with noise of its own on each channel.
struct FedStream {
  FedStream(const Case& sizes, const Rule& rule, std::mt19937_64& generator) : sizes(sizes) {
    const std::string model = MakeModel(sizes, rule);
    stream.reset(CreateStreamProcessor(model.data(), model.size(), sizes.sequence, sizes.channels,
                                       sizes.block));
    const std::uint64_t capacity = sizes.window / 2 * sizes.sequence;
    const std::uint64_t least = 2 * capacity + (sizes.lookahead + 2) * sizes.window / 2;
    frames = (least / sizes.block + 1) * sizes.block;
    std::uniform_real_distribution<float> noise(-1, 1);
    input.assign(sizes.channels, std::vector<float>(frames + capacity + sizes.window));
    for (auto& channel : input)
      for (float& sample : channel)
        sample = noise(generator);
    output.assign(sizes.channels, std::vector<float>(frames));
  }

  void Process() {
    for (std::uint64_t start = 0; start < frames; start += sizes.block) {
      std::vector<const float*> from;
      std::vector<float*> to;
      for (std::uint64_t c = 0; c < sizes.channels; ++c) {
        from.push_back(input[c].data() + start);
        to.push_back(output[c].data() + start);
      }
      stream->ProcessBlock(from.data(), to.data(), sizes.block, 1);
    }
  }

  /// Of samples whose terms sum up to 1. In single precision a Hann window is off by up to 2^-25,
  /// and its root near the ends by that over 2 sin(pi / N).
  double Tolerance() const { return 1e-6 + 5e-9 * static_cast<double>(sizes.window); }

  std::uint64_t Latency() const {
    return LatencyFrames(sizes.window, sizes.lookahead, sizes.sequence, sizes.block);
  }

  const Case& sizes;
  std::unique_ptr<StreamProcessor> stream;
  std::uint64_t frames;
  std::vector<std::vector<float>> input, output;
};

TEST(SpectralStream, IsTheChainOfItsDefinitions) {
  std::mt19937_64 generator(TestSeed());
  std::uniform_real_distribution<float> gain(0, 2);
  for (const Case& sizes : cases) {
    const Rule rule(sizes, generator);
    FedStream fed(sizes, rule, generator);
    ASSERT_TRUE(fed.stream) << sizes.Text();
    Gains gains = {gain(generator), {}};
    fed.stream->SetMasterGain(1.0f);
    fed.stream->SetAudioClassGain(u"Rest", static_cast<float>(gains.rest));
    double scale = gains.rest;
    for (std::uint64_t k = 0; k < sizes.classes; ++k) {
      const std::string name = ClassName(k);
      const float value = gain(generator);
      fed.stream->SetAudioClassGain(std::u16string(name.begin(), name.end()).c_str(), value);
      gains.classes.push_back(value);
      scale += std::abs(value - gains.rest);
    }
    fed.Process();
    const std::uint64_t hop = sizes.window / 2;
    // a sample meets its own first window this long before its latency is over
    const std::uint64_t start = fed.Latency() - hop * (1 + sizes.lookahead);
    for (std::uint64_t c = 0; c < sizes.channels; ++c) {
      const Samples expected =
          ExpectedOutput(sizes, rule, gains, c == 1, fed.input[c], (fed.frames + hop - 1) / hop);
      for (std::uint64_t n = 0; n < fed.frames; ++n)
        ASSERT_NEAR(fed.output[c][n], n < start ? 0.0 : expected[n - start],
                    fed.Tolerance() * scale)
            << sizes.Text() << "; channel " << c << ", frame " << n;
    }
  }
}

TEST(SpectralStream, UnityGivesTheInputAtTheLatencyWhateverTheModelGives) {
  std::mt19937_64 generator(TestSeed());
  for (const Case& sizes : cases) {
    FedStream fed(sizes, Rule(sizes, generator), generator);
    ASSERT_TRUE(fed.stream) << sizes.Text();
    fed.stream->ResetGains();
    fed.Process();
    for (std::uint64_t c = 0; c < sizes.channels; ++c)
      for (std::uint64_t n = 0; n < fed.frames; ++n)
        ASSERT_NEAR(fed.output[c][n], n < fed.Latency() ? 0.0f : fed.input[c][n - fed.Latency()],
                    6e-7)
            << sizes.Text() << "; channel " << c << ", frame " << n;
  }
}

}  // namespace
