// `kalvrin adapt` on streaming models in the layouts that people publish. Each model returns the
// mean of this window and the last one, so the audio that the adapted model renders through the
// library is known: (x[n] + x[n - hop]) / 2, times the gain of the class.

#include "apps/audio_files.h"
#include "apps/tool_process.h"
#include "support/model_builder.h"
#include "support/seed.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <functional>
#include <numbers>
#include <numeric>

namespace TestSupport {
namespace {

constexpr std::int64_t bins = 9;
constexpr std::size_t hop = 8;

/// Letters as for --input-layout; n and t are N and T of size 1. Without C or c the parts are
/// apart.
struct SourceOptions {
  std::string in = "nFtC";
  std::string out = in;
  std::int64_t opset = 17;
  std::string stateIn = "cache_in", stateOut = "cache_out";
  std::vector<std::int64_t> stateShape = {};  ///< that of a window in layout `in` unless given
  std::vector<float> classes = {1};
  bool statesFirst = false;
  bool isLate = false;  ///< the output is the last window only
  /// With several of N, or of T, in one call the output is wrong: it depends on all of them.
  bool mixesChannels = false, mixesWindows = false;
  bool endsTheEngine = false;  ///< by a division of integers by zero; not on ARM64, which returns 0
  std::string audioIn = "mix", audioOut = "enh";
};

Dimension DimensionOf(char letter) {
  switch (letter) {
  case 'N':
    return "batch";
  case 'T':
    return "frames";
  case 'F':
    return bins;
  case 'C':
    return 2;
  default:
    return 1;
  }
}

class SourceModelMaker {
public:
  explicit SourceModelMaker(const SourceOptions& options) : options(options) {
    model.OpsetVersion(options.opset);
    const bool apart = options.in.find('C') == std::string::npos;
    const std::vector<std::string> parts =
        apart ? std::vector<std::string>{"_re", "_im"} : std::vector<std::string>{""};
    for (const bool states : {options.statesFirst, !options.statesFirst})
      for (const std::string& part : parts)
        states ? DeclareState(part) : DeclareAudio(part);
    for (const std::string& part : parts)
      WritePart(part);
  }

  std::string Bytes() const { return model.Build(); }

private:
  Dimensions WindowShape(bool isState) const {
    Dimensions shape;
    for (const char letter : options.in)
      shape.push_back(DimensionOf(isState && letter == 'T' ? 't' : letter));
    return shape;
  }
  Dimensions StateShape() const {
    if (options.stateShape.empty()) return WindowShape(true);
    return Dimensions(options.stateShape.begin(), options.stateShape.end());
  }
  void DeclareAudio(const std::string& part) {
    Dimensions shape;
    for (const char letter : options.out)
      shape.push_back(letter == 'K' ? Dimension(static_cast<int>(options.classes.size()))
                                    : DimensionOf(letter));
    model.Input(options.audioIn + part, Element::Float, WindowShape(false))
        .Output(options.audioOut + part, Element::Float, shape);
  }
  void DeclareState(const std::string& part) {
    model.Input(options.stateIn + part, Element::Float, StateShape())
        .Output(options.stateOut + part, Element::Float, StateShape());
  }

  std::string Do(const std::string& type, const std::vector<std::string>& inputs,
                 const std::vector<Attribute>& attributes = {}) {
    std::string name = "input" + std::to_string(++count);  // clashes on purpose
    model.Node(type, inputs, {name}, attributes);
    return name;
  }
  std::string Ints(const std::vector<std::int64_t>& values) {
    std::string name = "output" + std::to_string(++count);
    model.Int64s(name, {static_cast<std::int64_t>(values.size())}, values);
    return name;
  }
  std::string Floats(const std::vector<std::int64_t>& shape, const std::vector<float>& values) {
    std::string name = "weights" + std::to_string(++count);
    model.Floats(name, shape, values);
    return name;
  }

  void WritePart(const std::string& part) {
    std::string x = options.audioIn + part;
    std::string state = options.stateIn + part;
    if (!options.stateShape.empty()) state = Do("Reshape", {state, Ints(OneWindow())});
    const std::size_t time = options.in.find('T');
    std::string last = state, newState = x;
    if (options.mixesChannels)
      x = Do("Sub",
             {Do("Add", {x, x}), Do("ReduceMean", {x}, {{"axes", std::vector<std::int64_t>{0}}})});
    if (time != std::string::npos && !options.mixesWindows) {
      const auto axis = static_cast<std::int64_t>(time);
      const std::string all = Do("Concat", {state, x}, {{"axis", axis}});
      last = Do("Slice", {all, Ints({0}), Ints({-1}), Ints({axis})});
      newState = Do("Slice", {all, Ints({-1}), Ints({1 << 30}), Ints({axis})});
    }
    if (options.endsTheEngine)
      x = Do("Reshape", {x, Do("Mul", {Do("Div", {Ints({0}), Ints({0})}), Do("Shape", {x})})});
    if (!options.stateShape.empty()) newState = Do("Reshape", {newState, Ints(options.stateShape)});
    model.Node("Identity", {newState}, {options.stateOut + part});
    const std::string half = Floats({}, {0.5F});
    model.Node("Identity",
               {WithClasses(options.isLate ? last : Do("Mul", {half, Do("Add", {x, last})}))},
               {options.audioOut + part});
  }

  std::vector<std::int64_t> OneWindow() const {
    std::vector<std::int64_t> shape;
    for (const char letter : options.in)
      shape.push_back(letter == 'F' ? bins : letter == 'C' ? 2 : 1);
    return shape;
  }

  /// From layout `in` to layout `out`; a class dimension goes in front first.
  std::string WithClasses(const std::string& y) {
    std::string letters = options.in;
    std::string result = y;
    if (options.out.find('K') != std::string::npos) {
      std::vector<std::int64_t> shape(letters.size() + 1, 1);
      shape[0] = static_cast<std::int64_t>(options.classes.size());
      result = Do("Mul", {Floats(shape, options.classes), result});
      letters.insert(0, 1, 'K');
    }
    std::vector<std::int64_t> order;
    for (const char letter : options.out)
      order.push_back(static_cast<std::int64_t>(letters.find(letter)));
    return Do("Transpose", {result}, {{"perm", order}});
  }

  SourceOptions options;
  ModelBuilder model;
  int count = 0;
};

using Signal = std::vector<double>;
using Rule = std::function<Signal(const Signal&)>;

/// The rule that makes sample n of the output from the whole input.
Rule EachSample(const std::function<double(const Signal& x, std::size_t n)>& sample) {
  return [sample](const Signal& x) {
    Signal y(x.size());
    for (std::size_t n = 0; n < y.size(); ++n)
      y[n] = sample(x, n);
    return y;
  };
}

/// Runs `adapt` in `folder`, then renders noise of two channels with the sum of all classes. Each
/// channel has to be what `expected` makes of its input. Returns what `adapt` printed.
std::string CheckAdapted(const TemporaryFolder& folder, const std::string& arguments, int rateHz,
                         const Rule& expected, double tolerance) {
  const Outcome adapted = folder.Run("$TOOL adapt " + arguments);
  EXPECT_EQ(adapted.exitStatus, 0) << adapted.err;
  Audio noise = MakeNoise(500, 2, TestSeed());
  noise.rate = rateHz;
  WriteAudio(folder / "in.wav", noise);
  const Outcome rendered = folder.Run("$TOOL render out.onnx in.wav out.wav --rest 0 --sequence 3");
  EXPECT_EQ(rendered.exitStatus, 0) << rendered.err;
  if (rendered.exitStatus != 0) return adapted.out;
  std::vector<float> whole(noise.samples.size());
  for (std::size_t c = 0; c < 2; ++c) {
    Signal x(noise.Frames());
    for (std::size_t n = 0; n < x.size(); ++n)
      x[n] = noise.samples[2 * n + c];
    const Signal y = expected(x);
    for (std::size_t n = 0; n < y.size(); ++n)
      whole[2 * n + c] = static_cast<float>(y[n]);
  }
  EXPECT_LT(GreatestDifference(ReadAudio(folder / "out.wav").samples, whole), tolerance);
  return adapted.out;
}

TEST(Adapt, KeepsTheOutputOfAStreamingModel) {
  const std::vector<float> two = {1, -0.25F};
  const struct {
    const char* name;
    SourceOptions options;
    const char* arguments = "";
    const char* loops = "over channels and windows";
  } rows[] = {
      {"one window a call, bins first", {}},
      {"bins last, opset 11", {.in = "ntFC", .opset = 11}},
      {"parts second, opset 21, a flat state",
       {.in = "nCFt", .opset = 21, .stateShape = {2 * bins}}},
      {"parts apart, five state dimensions", {.in = "nFt", .stateShape = {1, 1, bins, 1, 1}}},
      {"parts apart, no dimension but the bins", {.in = "F", .opset = 12}},
      {"any batch and time", {.in = "NTFC"}, "", "none"},
      {"time first, output turned", {.in = "TNFC", .out = "NFCT"}, "", "none"},
      {"any time", {.in = "nFTC", .opset = 13}, "", "over channels"},
      {"any batch", {.in = "NCtF", .out = "NtFC"}, "", "over windows"},
      {"classes first, states first",
       {.in = "nCtF", .out = "KnCtF", .classes = two, .statesFirst = true},
       "--classes A,B"},
      {"classes and parts apart, any time",
       {.in = "NFT", .out = "NKFT", .stateIn = "h0", .stateOut = "hn", .classes = two},
       "--classes A,B --window 16 --hop 8",
       "none"},
      {"states by option",
       {.stateIn = "foo", .stateOut = "bar:0", .audioIn = "x", .audioOut = "y"},
       "--state foo=bar:0"},
      {"audio and states of one shape",
       {.stateIn = "old", .stateOut = "new", .audioIn = "in_frame", .audioOut = "out_frame"},
       "--input in_frame --output out_frame"},
      {"layout by option", {.out = "ntCF"}, "--input-layout NFTC --output-layout NTCF"},
      {"output a window late", {.isLate = true}, "--lookahead 1"},
      {"channels that hear each other in one batch",
       {.in = "NFTC", .mixesChannels = true},
       "--rate 8000 --rate 16000",
       "over channels"},
      {"time that only works at 1", {.in = "NFTC", .mixesWindows = true}, "", "over windows"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const TemporaryFolder folder;
    WriteFile(folder / "in.onnx", SourceModelMaker(row.options).Bytes());
    const double gain =
        std::accumulate(row.options.classes.begin(), row.options.classes.end(), 0.0);
    const Rule halves = EachSample([&](const Signal& x, std::size_t n) {
      return gain * (row.options.isLate ? x[n] : (x[n] + (n < hop ? 0 : x[n - hop])) / 2);
    });
    const std::string said = CheckAdapted(
        folder, std::string("in.onnx out.onnx --rate 16000 ") + row.arguments, 16000, halves, 2e-6);
    ExpectPart(said, std::string("loops      ") + row.loops + '\n');
  }
}

// ---- Front and back ends: each model against the plain loop over its audio, in double ----

using Spectrum = std::vector<std::complex<double>>;

/// Windows that end at multiples of `step`, in each of which `rule` changes the bins of the
/// transform of as many samples as `window` has; windowed again, divided by the sum of the squares,
/// and added.
Signal OverSpectra(const Signal& x, const Signal& window, std::size_t step,
                   const std::function<void(Spectrum&)>& rule) {
  const std::size_t size = window.size();
  Signal sums(x.size() + size), squares(x.size() + size);
  for (std::size_t end = step; end <= x.size() + size; end += step) {
    Spectrum bins(size / 2 + 1);
    const auto at = [&](std::size_t n) {
      return end + n < size || end + n - size >= x.size() ? 0.0 : x[end + n - size];
    };
    const auto root = [&](std::size_t k, std::size_t n) {
      return std::polar(1.0, 2 * std::numbers::pi * static_cast<double>(k * n % size) /
                                 static_cast<double>(size));
    };
    for (std::size_t k = 0; k <= size / 2; ++k)
      for (std::size_t n = 0; n < size; ++n)
        bins[k] += at(n) * window[n] * std::conj(root(k, n));
    rule(bins);
    for (std::size_t n = 0; n < size; ++n) {
      if (end + n < size || end + n - size >= sums.size()) continue;
      double value = 0;
      for (std::size_t k = 0; k <= size / 2; ++k)
        value += (k % (size / 2) == 0 ? 1 : 2) * (bins[k] * root(k, n)).real() /
                 static_cast<double>(size);
      sums[end + n - size] += value * window[n];
      squares[end + n - size] += window[n] * window[n];
    }
  }
  Signal y(x.size());
  for (std::size_t n = 0; n < y.size(); ++n)
    y[n] = sums[n] / squares[n];
  return y;
}

/// The same for a rule that changes each bin by itself.
Signal
OverBins(const Signal& x, const Signal& window, std::size_t step,
         const std::function<std::complex<double>(std::size_t, std::complex<double>)>& rule) {
  return OverSpectra(x, window, step, [&](Spectrum& bins) {
    for (std::size_t k = 0; k < bins.size(); ++k)
      bins[k] = rule(k, bins[k]);
  });
}

Signal HannWindow(std::size_t length, std::size_t size = 16) {
  Signal window(size);
  for (std::size_t n = 0; n < length; ++n)
    window[(size - length) / 2 + n] =
        0.5 -
        0.5 * std::cos(2 * std::numbers::pi * static_cast<double>(n) / static_cast<double>(length));
  return window;
}

/// m / (1 + m) of the magnitude m; with a history, of the mean of three windows.
ModelBuilder MaskModel(bool hasHistory = false, std::int64_t size = 9) {
  ModelBuilder model;
  const std::int64_t windows = hasHistory ? 3 : 1;
  model.Input("x", Element::Float, {1, windows, size})
      .Output("y", Element::Float, {1, windows, size});
  model.Floats("one", {}, {1});
  if (hasHistory)
    model.Node("ReduceMean", {"x"}, {"mean"}, {{"axes", std::vector<std::int64_t>{1}}})
        .Node("Add", {"mean", "one"}, {"sum"})
        .Node("Div", {"mean", "sum"}, {"ratio"})
        .Int64s("sizes", {3}, {1, 3, 9})
        .Node("Expand", {"ratio", "sizes"}, {"y"});
  else
    model.Node("Add", {"x", "one"}, {"sum"}).Node("Div", {"x", "sum"}, {"y"});
  return model;
}

Signal Masked(const Signal& x, std::size_t step, const Signal& window) {
  return OverBins(x, window, step, [](std::size_t, std::complex<double> bin) {
    return bin * (std::abs(bin) / (1 + std::abs(bin)));
  });
}

TEST(Adapt, WritesFrontAndBackEndIntoTheGraph) {
  const struct {
    const char* name;
    std::vector<ModelBuilder> parts;
    const char* arguments;
    Rule expected;
  } rows[] = {
      {"a mask of magnitudes, hop of a quarter",
       {MaskModel()},
       "--in magnitude --out mask --window hann --hop 4",
       [](const Signal& x) { return Masked(x, 4, HannWindow(16)); }},
      {"windows that the library has, in the graph",
       {MaskModel()},
       "--in magnitude --out mask --window hann --in-graph",
       [](const Signal& x) { return Masked(x, 8, HannWindow(16)); }},
      {"a short window at a hop that does not divide it",
       {MaskModel()},
       "--in magnitude --out mask --window hann:12 --hop 5",
       [](const Signal& x) { return Masked(x, 5, HannWindow(12)); }},
      {"a transform of 1024",
       {MaskModel(false, 513)},
       "--in magnitude --out mask --window hann --hop 300",
       [](const Signal& x) { return Masked(x, 300, HannWindow(1024, 1024)); }},
      {"three windows a call, of the logarithm of the power",
       {MaskModel(true)},
       "--in log-power:2 --out mask --window hann --transform 16 --hop 4",
       [](const Signal& x) {
         std::vector<Signal> past(9, Signal(2));  // the graph's states start at zero
         return OverBins(x, HannWindow(16), 4, [&](std::size_t k, std::complex<double> bin) {
           const double now = std::log(std::max(std::norm(bin), 2.0));
           const double mean = (past[k][0] + past[k][1] + now) / 3;
           past[k] = {past[k][1], now};
           return bin * (mean / (1 + mean));
         });
       }},
      {"complex masks of two classes of a normalised logarithm, opset 9",
       {ModelBuilder()
            .OpsetVersion(9)
            .Input("x", Element::Float, {1, 9})
            .Output("y", Element::Float, {2, 9, 2})
            .Floats("w", {2, 1, 2}, {1, 0.5F, -0.25F, 0.75F})
            .Node("Unsqueeze", {"x"}, {"row"}, {{"axes", std::vector<std::int64_t>{2}}})
            .Node("Mul", {"row", "w"}, {"y"})},
       "--in log-magnitude:+0.5 --out complex-mask --window hann --hop 4 --scale 0.125 "
       "--normalise fixed:0.5:2 --classes A,B",
       [](const Signal& x) {
         return OverBins(x, HannWindow(16), 4, [](std::size_t, std::complex<double> bin) {
           return bin * std::complex(0.75, 1.25) * ((std::log(std::abs(bin) / 8 + 0.5) - 0.5) / 2);
         });
       }},
      {"two parts, the second on samples that are added up",
       {MaskModel(), ModelBuilder()
                         .Input("f", Element::Float, {1, 16})
                         .Output("g", Element::Float, {1, 16})
                         .FloatsElsewhere("factor", {}, "weights", 4)
                         .Node("Mul", {"f", "factor"}, {"g"})},
       "--in magnitude,samples --out mask,samples --window none:16 --hop 4 --join added",
       [](const Signal& x) { return Masked(x, 4, Signal(16, 1)); }},
      {"finished samples of states that do not start at zero",
       {ModelBuilder()
            .Metadata("begin", "[3, -2.5]")
            .Input("x", Element::Float, {1, 8})
            .Input("h_in", Element::Float, {1, 8})
            .Input("step_in", Element::Int64, {1})
            .Output("y", Element::Float, {1, 8})
            .Output("h_out", Element::Float, {1, 8})
            .Output("step_out", Element::Int64, {1})
            .Node("Identity", {"x"}, {"h_out"})
            .Node("Sub", {"step_in", "step_in"}, {"step_out"})
            .Node("Cast", {"step_in"}, {"step"}, {{"to", std::int64_t{1}}})
            .Node("Add", {"x", "h_in"}, {"sum"})
            .Node("Add", {"sum", "step"}, {"y"})},
       "--in samples --out samples --initial h_in=metadata:begin --initial step_in=4",
       EachSample([](const Signal& x, std::size_t n) {
         return x[n] + (n >= 8 ? x[n - 8] : n == 0 ? 7 : n == 1 ? 1.5 : 4);
       })},
      {"a gate with context and a constant",
       {ModelBuilder()
            .Input("x", Element::Float, {1, "samples"})
            .Input("rate", Element::Int64, {})
            .Output("p", Element::Float, {1, 1})
            .Node("Cast", {"rate"}, {"factor"}, {{"to", std::int64_t{1}}})
            .Node("ReduceMean", {"x"}, {"mean"}, {{"axes", std::vector<std::int64_t>{1}}})
            .Node("Mul", {"mean", "factor"}, {"p"})},
       "--in samples --out gate --window none:8 --context 4 --set rate=2",
       EachSample([](const Signal& x, std::size_t n) {
         double sum = 0;
         for (std::size_t i = n / 8 * 8; i < n / 8 * 8 + 12; ++i)
           sum += i < 4 || i - 4 >= x.size() ? 0 : x[i - 4];
         return x[n] * 2 * sum / 12;
       })},
      {"a row of samples for each sample",
       {ModelBuilder()
            .Input("x", Element::Float, {"batch", 1, 3})
            .Output("y", Element::Float, {"batch", 1})
            .Node("ReduceMean", {"x"}, {"y"},
                  {{"axes", std::vector<std::int64_t>{2}}, {"keepdims", std::int64_t{0}}})},
       "--in rows --out samples --context 2 --hop 8",
       EachSample([](const Signal& x, std::size_t n) {
         return (x[n] + (n > 0 ? x[n - 1] : 0) + (n > 1 ? x[n - 2] : 0)) / 3;
       })},
      {"a hidden state, output without sizes",
       {ModelBuilder()
            .Input("x", Element::Float, {8, 1, 1})
            .Output("y", Element::Float, {}, Declared::TensorWithoutShape)
            .Floats("w", {1, 1, 1}, {0.5F})
            .Floats("r", {1, 1, 1}, {0.75F})
            .Node("RNN", {"x", "w", "r"}, {"all"}, {{"hidden_size", std::int64_t{1}}})
            .Int64s("sizes", {3}, {8, 1, 1})
            .Node("Reshape", {"all", "sizes"}, {"y"})},
       "--in samples --out samples --carry-hidden",
       [](const Signal& x) {
         Signal y(x.size());
         for (std::size_t n = 0; n < y.size(); ++n)
           y[n] = std::tanh(0.5 * x[n] + (n > 0 ? 0.75 * y[n - 1] : 0));
         return y;
       }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const TemporaryFolder folder;
    WriteFile(folder / "weights", {"    \0\0\x80\x3e", 8});  // 0.25
    std::string files;
    for (std::size_t i = 0; i < row.parts.size(); ++i) {
      const std::string file = "part" + std::to_string(i) + ".onnx";
      WriteFile(folder / file, row.parts[i].Build());
      files += file + ' ';
    }
    CheckAdapted(folder, files + "out.onnx " + row.arguments, 48000, row.expected, 5e-6);
  }
}

// ---- Three files around one spectrum: features with running levels, gains of bands, a filter ----

/// An encoder, the gains of three bands, and three factors for each of the lowest four bins. Time
/// is free, its padding hidden in the graphs: of two windows in a Pad, of one in a Conv.
std::vector<ModelBuilder> ThreeParts(std::int64_t ahead = 0) {
  const Dimensions bands = {1, 1, "S", 3}, parts = {1, 2, "S", 4};
  std::vector<ModelBuilder> models(3);
  models[0]
      .Input("bands", Element::Float, bands)
      .Input("low", Element::Float, parts)
      .Output("e", Element::Float, bands)
      .Output("c", Element::Float, parts)
      .Int64s("pads", {8}, {0, 0, 2 - ahead, 0, 0, 0, ahead, 0})
      .Floats("w", {1, 1, 3, 1}, {0.5F, -0.25F, 1})
      .Node("Pad", {"bands", "pads"}, {"padded"})
      .Node("Conv", {"padded", "w"}, {"e"})
      .Node("Identity", {"low"}, {"c"});
  models[1].Input("e", Element::Float, bands).Output("m", Element::Float, bands);
  models[1].Node("Sigmoid", {"e"}, {"m"});
  std::vector<float> weights(24);
  for (std::size_t i = 0; i < weights.size(); ++i)
    weights[i] = static_cast<float>(i % 5) / 8 - 0.25F;
  models[2]
      .Input("c", Element::Float, parts)
      .Output("coefs", Element::Float, {1, "S", 4, 6})
      .Floats("w", {6, 2, 2, 1}, weights)
      .Node("Conv", {"c", "w"}, {"y"}, {{"pads", std::vector<std::int64_t>{1, 0, 0, 0}}})
      .Node("Transpose", {"y"}, {"coefs"}, {{"perm", std::vector<std::int64_t>{0, 2, 3, 1}}});
  return models;
}

/// What they make of audio, two windows late.
Signal ThroughThreeParts(const Signal& x) {
  constexpr std::array<std::size_t, 4> edges = {0, 2, 5, 9};
  std::array<double, 3> mean = {-3, -4, -5};
  std::array<double, 4> level = {1, 2, 3, 4};
  std::array<std::array<double, 3>, 3> features{};  // of this window and two before
  std::array<std::array<std::complex<double>, 4>, 2> low{};
  std::array<Spectrum, 4> windows;
  windows.fill(Spectrum(9));
  const auto rule = [&](Spectrum& bins) {
    std::rotate(windows.begin(), windows.end() - 1, windows.end());
    std::rotate(features.begin(), features.end() - 1, features.end());
    std::rotate(low.begin(), low.end() - 1, low.end());
    windows[0] = bins;
    for (std::size_t b = 0; b < 3; ++b) {
      double power = 0;
      for (std::size_t k = edges[b]; k < edges[b + 1]; ++k)
        power += std::norm(bins[k] / 8.0) / static_cast<double>(edges[b + 1] - edges[b]);
      mean[b] = mean[b] / 2 + std::log(power + 0.01) / 2;
      features[0][b] = 0.25 * (std::log(power + 0.01) - mean[b]);
      const double e = features[0][b] - features[1][b] / 4 + features[2][b] / 2;
      for (std::size_t k = edges[b]; k < edges[b + 1]; ++k)
        bins[k] = windows[2][k] / (1 + std::exp(-e));
    }
    for (std::size_t k = 0; k < 4; ++k) {
      level[k] = level[k] / 2 + std::abs(windows[0][k]) / 16;
      low[0][k] = windows[0][k] / 8.0 / std::sqrt(level[k]);
      bins[k] = 0;
      for (std::size_t tap = 0; tap < 3; ++tap) {
        const auto factor = [&](std::size_t row) {
          const auto weight = [&](std::size_t i) { return static_cast<double>(i % 5) / 8 - 0.25; };
          return weight(4 * row) * low[1][k].real() + weight(4 * row + 1) * low[0][k].real() +
                 weight(4 * row + 2) * low[1][k].imag() + weight(4 * row + 3) * low[0][k].imag();
        };
        bins[k] += std::complex(factor(2 * tap), factor(2 * tap + 1)) * windows[3 - tap][k];
      }
    }
  };
  Signal longer = x;
  longer.resize(x.size() + 2 * hop);
  Signal y = OverSpectra(longer, HannWindow(16), hop, rule);
  y.erase(y.begin(), y.begin() + 2 * hop);
  return y;
}

constexpr const char* threeParts =
    "a.onnx b.onnx c.onnx out.onnx --window hann:16 --hop 8 --scale 0.125 --bands 2,3,4 "
    "--in bands=power/bands/log:+0.01/running-mean:0.5:-3..-5/times:0.25 "
    "--in low=spectrum/lowest:4/running-root:0.5:1..4 --link e,c --carry-hidden --rate 48000 ";

TEST(Adapt, PutsThreeFilesAroundOneSpectrum) {
  std::vector<ModelBuilder> models = ThreeParts();
  const TemporaryFolder folder;
  for (std::size_t i = 0; i < 3; ++i)
    WriteFile(folder / (std::string(1, "abc"[i]) + ".onnx"), models[i].Build());
  const std::string given = threeParts;
  CheckAdapted(folder, given + "--out none,mask/bands,complex-mask/lowest:4/taps:3:1 --lookahead 2",
               48000, ThroughThreeParts, 5e-6);
  const struct {
    const char* arguments;
    const char* text;
  } refused[] = {
      {"--out none,mask/bands,complex-mask/lowest:4/taps:3:1", "takes 1 window after its own"},
      {"--out none,mask/bands,complex-mask/lowest:4/taps:2", "carries a window's complex-mask"},
      {"--out none,mask/bands,complex-mask/taps:3 --bands 4,5", "cannot be told apart of 2 bins"},
      {"--out none,mask/bands,none", "the last model has to return audio"},
      {"--out none,mask,none --link c=e", "'c' float32 [1, 2, *, 4] of a.onnx does not fit"},
  };
  for (const auto& row : refused) {
    SCOPED_TRACE(row.arguments);
    const Outcome outcome = folder.Run("$TOOL adapt " + given + row.arguments);
    EXPECT_NE(outcome.exitStatus, 0);
    ExpectPart(outcome.err, row.text);
  }
  WriteFile(folder / "a.onnx", ThreeParts(1)[0].Build());
  ExpectPart(folder.Run("$TOOL adapt " + given + "--out none,mask/bands,none").err,
             "it looks ahead");
}

TEST(Adapt, RefusesWhatItCannotAdaptAndWritesNothing) {
  const struct {
    const char* arguments;
    int status;
    const char* text;
    SourceOptions options = {};
  } rows[] = {
      {"--hop 20", 1, "a hop of 20 samples is longer than"},
      {"--window hann:20", 1,
       "'mix' float32 [1, 9, 1, 2] takes windows of 16 samples; --window says 20"},
      {"--window hat", 2, "'hat' is none of root-hann, hann, vorbis"},
      {"--window 17", 2, "a window has an even number of samples"},
      {"", 1, "opset 6; 7 to 21", {.opset = 6}},
      {"", 1, "opset 22; 7 to 21", {.opset = 22}},
      {"",
       1,
       "Pair them with --state IN:OUT",
       {.in = "nFt", .stateIn = "foo", .stateOut = "bar", .stateShape = {3, 3}}},
      {"--state cache_in:nothing", 1, "no output 'nothing'"},
      {"", 1, "--classes A,B", {.out = "KnFtC", .classes = {1, 2}}},
      {"--classes A,B", 1, "gives 1 class, --classes names 2"},
      {"--input mix_re --output enh_re", 1, "say so: --in magnitude", {.in = "nFt"}},
      {"--input-layout FNTC", 2, "N cannot have the size 9"},
      {"--input-layout NTTC", 2, "each but 1 once"},
      {"", 1, "the engine ended its process (signal 8)", {.endsTheEngine = true}},
      {"--input nobody", 1, "it has 'mix' float32 [1, 9, 1, 2]"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
#if !defined(__x86_64__)
    if (row.options.endsTheEngine) continue;
#endif
    const TemporaryFolder folder;
    WriteFile(folder / "in.onnx", SourceModelMaker(row.options).Bytes());
    const Outcome outcome =
        folder.Run(std::string("$TOOL adapt in.onnx out.onnx ") + row.arguments);
    EXPECT_EQ(outcome.exitStatus, row.status);
    ExpectPart(outcome.err, row.text);
    EXPECT_EQ(folder.Names(), std::vector<std::string>{"in.onnx"});
  }
}

}  // namespace
}  // namespace TestSupport
