// Models of any shapes and kinds, at any sizes: taken exactly where the model contract takes them,
// and then right to the sample.

#include "core/kalvrin.h"
#include "runtime/float_array.h"
#include "support/fake_platform.h"
#include "support/input.h"
#include "support/outcome.h"

#include <algorithm>
#include <limits>

namespace {

using namespace Orvik::Tesmo;
using Fuzz::Expect;
using Platform::Shape;
using TestSupport::FakeFeature;
using TestSupport::FakeModel;
__extension__ typedef unsigned __int128 Size;

constexpr std::int64_t limit = MaxFloats, turn = std::int64_t{1} << 32;  // of 32 bits
constexpr std::int64_t least = std::numeric_limits<std::int64_t>::min(), greatest = ~least;
constexpr std::int64_t dimensions[] = {-1,  0,  1,     2,         3,        4,     6,       8,
                                       257, -7, limit, limit + 2, turn + 8, least, greatest};
constexpr std::uint64_t half = std::uint64_t{1} << 63, all = ~std::uint64_t{0};
constexpr std::uint64_t sizes[] = {1, 2, 3, 4, 5, 0, limit, limit + 1, turn + 1, half, all};
constexpr std::int32_t lookaheads[] = {0, 1, 2, 5, -1, 0x40000000, 0x7FFFFFFF};

struct Request {
  std::uint64_t sequence, channels;
};

struct Model {
  FakeModel fake;
  std::int32_t lookahead = 0, baseline = 0;
  std::uint64_t classes = 1;
};

FakeFeature ReadFeature(Fuzz::Input& input, std::u16string name, std::size_t wantedRank) {
  FakeFeature feature{std::move(name), {}};
  // mostly what a model would have, so that the rest is reached
  const std::uint8_t oddity = input.Byte();
  if (oddity >= 0xF0) feature.kind = static_cast<Platform::FeatureKind>(oddity % 5);
  if ((oddity & 0xE0) == 0xC0) feature.tensorKind = oddity % 20U;
  if ((oddity & 0xE0) == 0x80) feature.name += u'x';
  const std::size_t rank = (oddity & 0xE0) == 0xA0 ? oddity % 8U : wantedRank;
  for (std::size_t i = 0; i < rank; ++i)
    feature.shape.push_back(input.Pick(dimensions));
  return feature;
}

std::u16string Decimal(std::int64_t value) {
  const std::string text = std::to_string(value);
  return {text.begin(), text.end()};
}

Model ReadModel(Fuzz::Input& input) {
  Model model;
  const std::size_t states = input.Number(0, 3), newStates = input.Byte() % 16 ? states : 1;
  const bool isSpectral = input.Flag();
  const std::size_t inputRank = isSpectral ? 4 : input.Number(1, 3);
  const std::size_t outputRank = isSpectral ? 5 : input.Number(1, 4);
  FakeModel& fake = model.fake;
  if (input.Byte() != 0xFF) fake.inputs.push_back(ReadFeature(input, u"input", inputRank));
  for (std::size_t i = 0; i < states; ++i)
    fake.inputs.push_back(ReadFeature(input, u"state" + Decimal(static_cast<int>(i)), i));
  if (input.Byte() != 0xFF) fake.outputs.push_back(ReadFeature(input, u"output", outputRank));
  for (std::size_t i = 0; i < newStates; ++i) {
    const bool same = input.Byte() % 16 != 15 && i + 1 < fake.inputs.size();
    fake.outputs.push_back(same ? fake.inputs[i + 1] : ReadFeature(input, u"", i));
    fake.outputs.back().name = u"new" + Decimal(static_cast<int>(i));
  }
  model.lookahead = input.Pick(lookaheads);
  model.baseline = input.Pick(lookaheads);
  model.classes = input.Number(1, 3);
  std::u16string names = u"[\"a\"";
  for (std::uint64_t k = 1; k < model.classes; ++k)
    names += u",\"b" + Decimal(static_cast<std::int64_t>(k)) + u"\"";
  fake.metadata = {{u"LookaheadNumBlocks", Decimal(model.lookahead)},
                   {u"BaselineSequenceSize", Decimal(model.baseline)},
                   {u"AudioClassNames", names + u"]"}};
  return model;
}

/// The contract, read plainly.
struct Verdict {
  bool taken = false;
  Size largest = 0;  ///< elements of the largest tensor
  Size outputFeatures = 0;
  bool needsMuch = false;  ///< a tensor of more elements than this target takes memory for
  std::uint64_t sequence = 0, windowLength = 0;
};

class Contract {
public:
  explicit Contract(const Model& model) : model(model) {}

  Verdict Judge(Request request) {
    verdict = {true};
    Require(!model.fake.inputs.empty() && !model.fake.outputs.empty());
    if (!verdict.taken) return verdict;
    Audio(request);
    States(request);
    Require(verdict.largest <= MaxFloats);
    return verdict;
  }

private:
  void Require(bool holds) { verdict.taken = verdict.taken && holds; }
  void Largest(Size elements) {
    constexpr Size small = 1 << 14;
    verdict.largest = std::max(verdict.largest, elements);
    if (elements > small && elements <= MaxFloats) verdict.needsMuch = true;
  }
  static bool IsFloats(const FakeFeature& f) {
    return f.kind == Platform::FeatureKind::Tensor && f.tensorKind == Platform::TensorKind::Float;
  }
  /// A dimension at `fromEnd` places before the last one of a shape: free, or of this size; where
  /// the shape has no such place the size is 1.
  void Fits(const Shape& shape, std::size_t fromEnd, Size size) {
    if (shape.size() <= fromEnd)
      Require(size == 1);
    else if (const std::int64_t declared = shape[shape.size() - 1 - fromEnd]; declared >= 1)
      Require(static_cast<Size>(declared) == size);
  }

  void Audio(Request request) {
    const FakeFeature &in = model.fake.inputs[0], &out = model.fake.outputs[0];
    Require(IsFloats(in) && IsFloats(out));
    const bool spectral = in.shape.size() == 4;
    Require(in.shape.size() >= 1 && in.shape.size() <= 4 && out.shape.size() >= 1 &&
            out.shape.size() <= 5 && spectral == (out.shape.size() == 5));
    if (!verdict.taken) return;
    if (spectral) Require(in.shape.back() == 2 && out.shape.back() == 2);
    const std::size_t last = spectral ? 1 : 0;
    const std::int64_t features = in.shape[in.shape.size() - 1 - last];
    Require(features >= 1 && features <= static_cast<std::int64_t>(MaxFloats));
    if (!verdict.taken) return;
    verdict.windowLength = static_cast<std::uint64_t>(spectral ? 2 * features - 2 : features);
    Require(verdict.windowLength >= 2 && verdict.windowLength % 2 == 0);

    Require(model.lookahead >= 0 && (request.sequence != 0 || model.baseline >= 0));
    const std::uint64_t own = model.baseline ? static_cast<std::uint64_t>(model.baseline) : 4;
    verdict.sequence = request.sequence ? request.sequence : own;
    const Size S = verdict.sequence, C = request.channels,
               windows = S + static_cast<Size>(std::max(model.lookahead, 0));
    Require(C >= 1 && C <= MaxFloats && S <= MaxFloats);
    if (!verdict.taken) return;
    const Size window = static_cast<Size>(features) * (spectral ? 2 : 1);
    Largest(C * windows * verdict.windowLength);
    Fits(in.shape, last + 1, windows);
    Fits(in.shape, last + 2, C);
    const std::int64_t outFeatures = out.shape[out.shape.size() - 1 - last];
    Require(outFeatures < 1 || outFeatures >= features);
    verdict.outputFeatures = static_cast<Size>(outFeatures < 1 ? features : outFeatures);
    Fits(out.shape, last + 1, S);
    Fits(out.shape, last + 2, C);
    // an output without classes has room for one
    Fits(out.shape, last + 3, model.classes);
    if (!verdict.taken) return;
    Largest(C * windows * window);
    Largest(model.classes * C * S);
    if (verdict.taken)
      Largest(std::min(model.classes * C * S, Size{limit} + 1) * verdict.outputFeatures *
              (spectral ? 2 : 1));
    Require(in.name == u"input" && out.name == u"output");  // found out when they are bound
  }

  void States(Request request) {
    const auto &inputs = model.fake.inputs, &outputs = model.fake.outputs;
    Require(inputs.size() == outputs.size());
    for (std::size_t i = 1; verdict.taken && i < inputs.size(); ++i) {
      const FakeFeature &old = inputs[i], &next = outputs[i];
      using namespace Platform::TensorKind;
      Require(old.kind == Platform::FeatureKind::Tensor && old.tensorKind != Undefined &&
              old.tensorKind < Complex64);
      if (!verdict.taken) return;
      Size elements = 1;
      Shape shape = old.shape;
      for (std::int64_t& size : shape) {
        if (size < 1) size = static_cast<std::int64_t>(request.channels);
        elements = std::min(elements * static_cast<Size>(size), Size{1} << 63);
      }
      Largest(elements);
      Require(next.tensorKind == old.tensorKind && next.shape.size() == shape.size());
      for (std::size_t d = 0; verdict.taken && d < shape.size(); ++d)
        Require(next.shape[d] < 1 || next.shape[d] == shape[d]);
    }
  }

  const Model& model;
  Verdict verdict;
};

/// With every gain at 1 and no lookahead the input comes back, whatever the model returns. Every
/// tensor holds what the audio path reads and writes.
void CheckEvaluation(Dnn::Kalvrin& core, const Model& model, const Verdict& verdict) {
  const auto& geometry = core.GetGeometry();
  Expect(geometry.windowLength == verdict.windowLength && geometry.sequenceSize == verdict.sequence,
         "geometry");
  core.ResetGains();
  std::vector<float> in(verdict.windowLength * verdict.sequence * geometry.channelCount);
  for (std::size_t i = 0; i < in.size(); ++i)
    in[i] = static_cast<float>(i % 101) - 50.0F;
  for (int i = 0; i < 2; ++i) {
    std::vector<float> out(in.size());
    core.EvaluateWindow(in.data(), out.data());
    if (model.lookahead == 0) Expect(in == out, "not the input at unity");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Fuzz::Input input(data, size);
  Model model = ReadModel(input);
  Request request{input.Pick(sizes), input.Pick(sizes)};

  std::size_t inputFloats = 0, outputFloats = 0;
  model.fake.evaluate = [&](const TestSupport::FakeEvaluation& evaluation) {
    inputFloats = evaluation.inputs[0].count;
    outputFloats = evaluation.outputs[0].count;
    for (std::size_t i = 0; i < outputFloats; ++i)
      evaluation.outputs[0].Floats()[i] = 1e3F * static_cast<float>(i);
    return ResultCodes::Ok;
  };
  Contract contract(model);
  Verdict verdict = contract.Judge(request);
  if (verdict.needsMuch) return 0;
  TestSupport::FakeRuntime runtime(model.fake);
  runtime.SetRecording(false);
  std::unique_ptr<Dnn::Kalvrin> core;
  const std::string outcome = TestSupport::Outcome([&] {
    core = std::make_unique<Dnn::Kalvrin>(runtime.Shared(), runtime.Load(), request.sequence,
                                          request.channels);
  });
  Expect((core != nullptr) == verdict.taken, "%s; the contract %s the model", outcome.c_str(),
         verdict.taken ? "takes" : "refuses");
  if (!core) {
    Expect(runtime.GetLiveObjects() == 0, "a refused model left objects");
    return 0;
  }
  request.sequence = verdict.sequence;
  for (int change = 0; change < 4; ++change) {
    CheckEvaluation(*core, model, verdict);
    const auto windows = verdict.sequence + static_cast<std::uint64_t>(model.lookahead);
    const auto window = verdict.windowLength + (core->IsSpectral() ? 2 : 0);
    Expect(inputFloats == request.channels * windows * window, "floats of the input");
    Expect(outputFloats == model.classes * request.channels * verdict.sequence *
                               static_cast<std::uint64_t>(verdict.outputFeatures) *
                               (core->IsSpectral() ? 2 : 1),
           "floats of the output");
    if (input.IsEmpty()) break;
    Request next = request;
    const bool ofChannels = input.Flag();
    (ofChannels ? next.channels : next.sequence) = input.Pick(sizes);
    Verdict changed = contract.Judge(next);
    if (!ofChannels && next.sequence == 0) changed.taken = false;  // no default here
    if (changed.needsMuch) break;
    const bool done =
        ofChannels ? core->SetChannelCount(next.channels) : core->SetSequenceSize(next.sequence);
    Expect(done == changed.taken, "the change was %s", done ? "made" : "refused");
    if (!done) continue;
    request = next;
    verdict = changed;
  }
  return 0;
}
