// `kalvrin adapt` over streaming models in the layouts that people publish. Each is a filter over
// windows, 1/2 of this one and 1/2 of the last, so that the audio that the adapted model renders
// through the library is known: x[n] / 2 + x[n - hop] / 2 per class, times the gain of the class.

#include "apps/audio_files.h"
#include "apps/tool_process.h"
#include "support/model_builder.h"
#include "support/seed.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace TestSupport {
namespace {

constexpr std::int64_t bins = 9;
constexpr std::size_t hop = 8;

/// Letters as for --input-layout; n and t are N and T of size 1. Without C or c the parts are
/// apart.
struct SourceOptions {
  std::string in = "nFtC";
  std::string out = "nFtC";
  std::int64_t opset = 17;
  std::string stateIn = "cache_in", stateOut = "cache_out";
  std::vector<std::int64_t> stateShape = {};  ///< that of a window in layout `in` unless given
  std::vector<float> classes = {1};
  bool statesFirst = false;
  bool isLate = false;  ///< gives the last window alone
  /// Is another with several of N, or of T, in a call.
  bool mixesChannels = false, mixesWindows = false;
  bool endsTheEngine = false;  ///< by a division of integers by zero
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

/// Adapts, then renders noise of two channels with the sum of all classes.
void CheckAdapted(const std::string& name, const SourceOptions& options,
                  const std::string& arguments, const std::string& loops) {
  SCOPED_TRACE(name);
  const TemporaryFolder folder;
  WriteFile(folder / "in.onnx", SourceModelMaker(options).Bytes());
  const Outcome adapted = folder.Run("$TOOL adapt in.onnx out.onnx --rate 16000 " + arguments);
  ASSERT_EQ(adapted.exitStatus, 0) << adapted.err;
  ExpectPart(adapted.out, "loops      " + loops + '\n');

  Audio noise = MakeNoise(500, 2, TestSeed());
  noise.rate = 16000;
  WriteAudio(folder / "in.wav", noise);
  const Outcome rendered = folder.Run("$TOOL render out.onnx in.wav out.wav --rest 0 --sequence 3");
  ASSERT_EQ(rendered.exitStatus, 0) << rendered.err;
  float gain = 0;
  for (const float one : options.classes)
    gain += one;
  std::vector<float> expected = noise.samples;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    const float last = i < 2 * hop ? 0.0F : noise.samples[i - 2 * hop];
    expected[i] = gain * (options.isLate ? noise.samples[i] : (noise.samples[i] + last) / 2);
  }
  EXPECT_LT(GreatestDifference(ReadAudio(folder / "out.wav").samples, expected), 2e-6);
}

TEST(Adapt, GivesWhatTheModelGives) {
  const std::vector<float> two = {1, -0.25F};
  const struct {
    const char* name;
    SourceOptions options;
    const char* arguments;
    const char* loops;
  } rows[] = {
      {"one window a call, bins first", {}, "", "over channels and windows"},
      {"bins last, opset 11",
       {.in = "ntFC", .out = "ntFC", .opset = 11},
       "",
       "over channels and windows"},
      {"parts second, opset 21, a flat state",
       {.in = "nCFt", .out = "nCFt", .opset = 21, .stateShape = {2 * bins}},
       "",
       "over channels and windows"},
      {"parts apart, five state dimensions",
       {.in = "nFt", .out = "nFt", .stateShape = {1, 1, bins, 1, 1}},
       "",
       "over channels and windows"},
      {"parts apart, no dimension but the bins",
       {.in = "F", .out = "F", .opset = 12},
       "",
       "over channels and windows"},
      {"any batch and time", {.in = "NTFC", .out = "NTFC"}, "", "none"},
      {"time first, output turned", {.in = "TNFC", .out = "NFCT"}, "", "none"},
      {"any time", {.in = "nFTC", .out = "nFTC", .opset = 13}, "", "over channels"},
      {"any batch", {.in = "NCtF", .out = "NtFC"}, "", "over windows"},
      {"classes first, states first",
       {.in = "nCtF", .out = "KnCtF", .classes = two, .statesFirst = true},
       "--classes A,B",
       "over channels and windows"},
      {"classes and parts apart, any time",
       {.in = "NFT", .out = "NKFT", .stateIn = "h0", .stateOut = "hn", .classes = two},
       "--classes A,B --window 16 --hop 8",
       "none"},
      {"states by option",
       {.stateIn = "foo", .stateOut = "bar:0", .audioIn = "x", .audioOut = "y"},
       "--state foo=bar:0",
       "over channels and windows"},
      {"audio and states of one shape",
       {.stateIn = "old", .stateOut = "new", .audioIn = "in_frame", .audioOut = "out_frame"},
       "--input in_frame --output out_frame",
       "over channels and windows"},
      {"layout by option",
       {.in = "nFtC", .out = "ntCF"},
       "--input-layout NFTC --output-layout NTCF",
       "over channels and windows"},
      {"output a window late", {.isLate = true}, "--lookahead 1", "over channels and windows"},
      {"channels that hear each other in one batch",
       {.in = "NFTC", .out = "NFTC", .mixesChannels = true},
       "--rate 8000 --rate 16000",
       "over channels"},
      {"time that only works at 1",
       {.in = "NFTC", .out = "NFTC", .mixesWindows = true},
       "",
       "over windows"},
  };
  for (const auto& row : rows)
    CheckAdapted(row.name, row.options, row.arguments, row.loops);
}

TEST(Adapt, RefusesWhatItCannotAdaptAndWritesNothing) {
  const struct {
    const char* name;
    SourceOptions options;
    const char* arguments;
    int status;
    const char* text;
  } rows[] = {
      {"a hop beyond the window", {}, "--hop 20", 1, "a hop of 20 samples is longer than"},
      {"a window longer than the bins say",
       {},
       "--window hann:20",
       1,
       "'mix' float32 [1, 9, 1, 2] takes windows of 16 samples; --window says 20"},
      {"an unknown window", {}, "--window hat", 2, "'hat' is none of root-hann, hann, vorbis"},
      {"odd window", {}, "--window 17", 2, "a window has an even number of samples"},
      {"old opset", {.opset = 6}, "", 1, "opset 6; 7 to 21"},
      {"future opset", {.opset = 22}, "", 1, "opset 22; 7 to 21"},
      {"states that no name pairs",
       {.in = "nFt", .out = "nFt", .stateIn = "foo", .stateOut = "bar", .stateShape = {3, 3}},
       "",
       1,
       "Pair them with --state IN:OUT"},
      {"a pair that is none", {}, "--state cache_in:nothing", 1, "no output 'nothing'"},
      {"classes without names", {.out = "KnFtC", .classes = {1, 2}}, "", 1, "--classes A,B"},
      {"another number of names", {}, "--classes A,B", 1, "gives 1 class, --classes names 2"},
      {"magnitudes",
       {.in = "nFt", .out = "nFt"},
       "--input mix_re --output enh_re",
       1,
       "say so: --in magnitude"},
      {"a layout of other sizes", {}, "--input-layout FNTC", 2, "N cannot have the size 9"},
      {"a layout without bins", {}, "--input-layout NTTC", 2, "each but 1 once"},
      {"a fault in the engine",
       {.endsTheEngine = true},
       "",
       1,
       "the engine ended its process (signal 8)"},
      {"an unknown input", {}, "--input nobody", 1, "it has 'mix' float32 [1, 9, 1, 2]"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
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
