// A host that calls every operation in any order, beside the plain model of a stream.

#include "stream/reference_stream.h"
#include "stream/set_up.h"
#include "support/fake_platform.h"
#include "support/input.h"
#include "support/outcome.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <random>

namespace {

using Fuzz::Expect;
using Orvik::Tesmo::StreamProcessor;
using namespace TestSupport;

constexpr float NaN = std::numeric_limits<float>::quiet_NaN();
constexpr float infinity = std::numeric_limits<float>::infinity();
constexpr float gains[] = {1.0F, 0.0F, 0.5F, 2.0F, -0.0F, 1e-3F, 0.7F, 1.9F};
constexpr float badGains[] = {-1.0F, -1e-30F, -infinity, NaN};
constexpr std::uint64_t badSizes[] = {0, 1ULL << 31, 1ULL << 32, 1ULL << 62, ~0ULL};
/// Class k of window s is, with the lookahead L and the model's state n, the evaluations so far
/// from 0 to 7 and around,
///   present[k] x[s] + future[k] x[s + L] + counted[k] n + squared[k] x[s]^2
/// On spectra it is the same by the bins, without the square.
constexpr float present[] = {0.5F, -0.1875F}, future[] = {-0.125F, 0.125F};
constexpr float counted[] = {0.0078125F, -0.015625F}, squared[] = {0.0625F, 0.0625F};
constexpr std::size_t classes = 2;
constexpr std::size_t Rest = classes, Mixture = classes + 1;
constexpr const char16_t* names[] = {u"Class0", u"class1", u"rEST"};
/// What is bound to each channel; of a channel's bindings the last one counts.
constexpr std::size_t boundTo[] = {Mixture, 1, 0, Rest, Mixture, Mixture};
constexpr const char16_t* bindings = u"[[1,\"Class0\"],[1,\"cLASS1\"],[2,\"Class0\"],[3,\"Rest\"],"
                                     u"[4,\"Class0\"],[4,\"Nobody\"],[77,\"Class0\"]]";
/// Factors reach 2 (2 + 2 c0 + 2 c1) with |class k| up to ck, and spectra add their own rounding.
constexpr double tolerance = 2e-5;

ResultCode Evaluate(const FakeEvaluation& run, const StreamSizes& sizes) {
  const auto channels = static_cast<std::size_t>(run.inputs[0].shape[0]);
  const std::size_t stride = sizes.isSpectral ? 2 * sizes.hop + 2 : 2 * sizes.hop;
  const std::size_t length = run.inputs[0].count / channels, ahead = sizes.lookahead * stride;
  float* out = run.outputs[0].Floats();
  for (std::size_t k = 0; k < classes; ++k)
    for (std::size_t c = 0; c < channels; ++c) {
      const float* const in = run.inputs[0].Floats() + c * length;
      const float n = run.inputs[1].Floats()[c];
      run.outputs[1].Floats()[c] = n < 7 ? n + 1 : 0;
      for (std::size_t i = 0; i + ahead < length; ++i, ++out) {
        *out = present[k] * in[i] + future[k] * in[i + ahead];
        if (!sizes.isSpectral)
          *out += counted[k] * n + squared[k] * in[i] * in[i];
        else if (i % stride == 0)  // a sample of 1 is a first bin of as many as the window has
          *out += counted[k] * n * static_cast<float>(2 * sizes.hop);
        else if (i % stride == 1 || i % stride == stride - 1)
          *out = 77.0F;  // where a real signal has no part
      }
    }
  return ResultCodes::Ok;
}

std::u16string Digits(std::uint64_t number) {
  const std::string digits = std::to_string(number);
  return {digits.begin(), digits.end()};
}

FakeModel ModelFor(const StreamSizes& sizes) {
  FakeModel model =
      MakeFakeAudioModel(static_cast<std::int64_t>(2 * sizes.hop), {1, 1}, sizes.isSpectral);
  model.inputs.push_back({u"count", {-1}});
  model.outputs.push_back({u"newCount", {-1}});
  model.metadata.emplace_back(u"LookaheadNumBlocks", Digits(sizes.lookahead));
  model.metadata.emplace_back(u"BaselineSequenceSize", Digits(sizes.sequence));
  model.metadata.emplace_back(u"SampleRate", u"16000");
  model.metadata.emplace_back(u"ChannelToAudioClassBindings", bindings);
  model.evaluate = [sizes](const FakeEvaluation& run) { return Evaluate(run, sizes); };
  return model;
}

class Host {
public:
  Host(Fuzz::Input& input, const StreamSizes& sizes)
      : input(input), sizes(sizes), runtime(ModelFor(sizes)), reference(sizes),
        noise(input.Number(0, 255)) {
    runtime.SetRecording(false);
    const std::uint64_t sequence = input.Flag() ? sizes.sequence : 0;
    stream = Orvik::Tesmo::AssembleStream(runtime.Shared(), runtime.Load(), sequence,
                                          sizes.channels, sizes.block);
    Expect(stream->GetSampleRate() == 16000, "sample rate");
    reference.SetRule(
        [this](std::size_t channel, const Planar& windows) { return Mixed(channel, windows); });
  }
  ~Host() {
    stream.reset();
    Expect(runtime.GetLiveObjects() == 0 && runtime.GetHeldTensors() == 0, "something is left");
  }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  void Step() {
    switch (input.Byte() % 12) {
    case 0:
      return SetMaster();
    case 1:
      return SetClass();
    case 2:
      stream->ResetGains();
      master = gain[0] = gain[1] = gain[Rest] = 1.0F;
      return;
    case 3:
      return Resize(true);
    case 4:
      return Resize(false);
    case 5:
      return Process(sizes.block, 0);
    case 6:
      return Process(input.Number(0, sizes.block + 3), input.Int(-2, 2));
    default:
      return Process(sizes.block, 1);
    }
  }

private:
  void SetMaster() {
    const bool good = input.Byte() % 4 != 0;
    const float value = good ? input.Pick(gains) : input.Pick(badGains);
    Expect(stream->SetMasterGain(value) == good, "master gain %g", static_cast<double>(value));
    if (good) master = value;
  }

  void SetClass() {
    const std::uint8_t choice = input.Byte();
    const std::size_t which = choice % 3;
    if (choice >= 0xF0) {
      Expect(!stream->SetAudioClassGain(choice & 1 ? nullptr : u"Class2", 1.0F), "unknown class");
    } else if (choice >= 0xE0) {
      try {
        stream->SetAudioClassGain(names[which], badGains[choice % 3]);
        Expect(false, "a gain below 0 was taken");
      } catch (const std::exception&) {
      }
    } else {
      gain[which] = input.Pick(gains);
      Expect(stream->SetAudioClassGain(names[which], gain[which]), "class gain");
    }
  }

  void Resize(bool ofSequence) {
    const std::uint8_t kind = input.Byte();
    const bool isBad = kind < 0x20;
    const std::uint64_t size = isBad ? input.Pick(badSizes) : input.Number(1, ofSequence ? 9 : 6);
    if (kind >= 0xC0)
      runtime.FailCall(input.Number(1, 40),
                       kind % 2 ? ResultCodes::AccessDenied : ResultCodes::OutOfMemory);
    if (ofSequence)
      stream->SetSequenceSize(size);
    else
      stream->SetChannelCount(size);
    if (runtime.StopFailing() || isBad) return;
    evaluations = 0;
    (ofSequence ? sizes.sequence : sizes.channels) = size;
    reference.Resize(sizes.sequence, sizes.channels);
  }

  /// Host arrays of exactly the frames that the call may touch, so that a sanitizer sees any other.
  void Process(std::uint64_t frames, std::int32_t continuation) {
    const bool inPlace = input.Flag();
    const std::uint8_t fault = input.Byte();
    const std::uint64_t count = std::min(frames, sizes.block);
    std::vector<std::vector<float>> in(sizes.channels, std::vector<float>(count));
    std::vector<std::vector<float>> out(sizes.channels, std::vector<float>(count, 77.0F));
    std::vector<float*> from, to;
    Planar block(sizes.channels, Samples(frames));
    std::uniform_real_distribution<float> level(-1.0F, 1.0F);
    for (std::uint64_t c = 0; c < sizes.channels; ++c) {
      for (std::uint64_t i = 0; i < count; ++i)
        block[c][i] = in[c][i] = level(noise);
      from.push_back(in[c].data());
      to.push_back(inPlace ? in[c].data() : out[c].data());
    }
    const auto before = inPlace ? in : out;
    const std::string failure = Fail(fault);

    std::optional<Planar> wanted;
    try {
      wanted = reference.Process(block, continuation != 0);
    } catch (const std::runtime_error&) {
    }
    const std::string outcome =
        Outcome([&] { stream->ProcessBlock(from.data(), to.data(), frames, continuation); });
    runtime.StopFailing();
    Expect(outcome == (wanted ? "ok" : failure), "a block of %llu frames: %s",
           static_cast<unsigned long long>(frames), outcome.c_str());
    for (std::uint64_t c = 0; c < sizes.channels; ++c)
      for (std::uint64_t i = 0; i < count; ++i) {
        const double expected = wanted ? (*wanted)[c][i] : before[c][i];
        Expect(std::abs(to[c][i] - expected) <= (wanted ? tolerance : 0.0),
               "%s; channel %llu, frame %llu of %llu: %.9g, not %.9g", sizes.Text().c_str(),
               static_cast<unsigned long long>(c), static_cast<unsigned long long>(i),
               static_cast<unsigned long long>(frames), static_cast<double>(to[c][i]), expected);
      }
  }

  /// Lets the next evaluation of both fail for one byte in sixteen: before the model has run, in
  /// it, or behind it. Returns how ProcessBlock ends then.
  std::string Fail(std::uint8_t fault) {
    const double never = std::numeric_limits<double>::infinity();
    const bool fails = fault >= 0xF0;
    failsLate = fails && fault % 4 == 3;
    reference.FailFrom(fails && !failsLate ? -never : never);
    const bool isMemory = fault % 8 >= 4;
    if (fails)
      runtime.FailCall(failsLate ? 2 : 1,
                       isMemory ? ResultCodes::OutOfMemory : ResultCodes::Canceled,
                       fault % 2 ? "Acquire" : "Evaluate");
    return isMemory ? "bad_alloc" : "0x800704C7";
  }

  /// What the model and the gains make of windows.
  Planar Mixed(std::size_t channel, const Planar& windows) {
    if (channel == 0) n = static_cast<double>(evaluations++ % 8);
    if (failsLate) throw std::runtime_error("evaluation");
    const std::size_t bound = boundTo[channel];
    const double rest = gain[Rest];
    Planar mixed(sizes.sequence, Samples(2 * sizes.hop));
    for (std::size_t s = 0; s < sizes.sequence; ++s)
      for (std::size_t i = 0; i < mixed[s].size(); ++i) {
        const double x = windows[s][i], ahead = windows[s + sizes.lookahead][i];
        double& y = mixed[s][i];
        y = x * (bound == Mixture ? rest : gain[bound]);
        for (std::size_t k = 0; k < classes && bound == Mixture; ++k)
          y += (gain[k] - rest) * (present[k] * x + future[k] * ahead + counted[k] * n +
                                   (sizes.isSpectral ? 0.0 : squared[k] * x * x));
        y *= master;
      }
    return mixed;
  }

  Fuzz::Input& input;
  StreamSizes sizes;
  FakeRuntime runtime;
  ReferenceStream reference;
  std::mt19937 noise;
  std::unique_ptr<StreamProcessor> stream;
  float master = 0.0F;
  float gain[3] = {};
  std::uint64_t evaluations = 0;  ///< since the states were zeros
  double n = 0;                   ///< the state of the present one
  bool failsLate = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Fuzz::Input input(data, size);
  StreamSizes sizes;
  sizes.hop = input.Number(1, 16);
  sizes.sequence = input.Number(1, 6);
  sizes.channels = input.Number(1, 6);
  sizes.lookahead = input.Number(0, 7);
  sizes.block = input.Number(1, 50);
  sizes.isSpectral = input.Flag();
  if (input.Flag()) sizes.block = sizes.hop;
  Host host(input, sizes);
  for (int steps = 0; steps < 200 && !input.IsEmpty(); ++steps)
    host.Step();
  return 0;
}
