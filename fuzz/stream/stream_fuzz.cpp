// A host that calls every operation in any order, beside the plain model of a stream.

#include "stream/assemble_stream.h"
#include "stream/reference_stream.h"
#include "support/fake_platform.h"
#include "support/input.h"

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
constexpr std::uint64_t badSizes[] = {0, 1ULL << 27, 1ULL << 32, 1ULL << 62, ~0ULL};
/// Two classes, of which class k is amounts[k] times the input, and Rest. Channels 1 to 3 are
/// bound.
constexpr float amounts[] = {0.75F, -0.5F};
constexpr const char16_t* names[] = {u"Class0", u"class1", u"rEST"};
constexpr std::size_t Rest = 2;
constexpr std::size_t boundTo[] = {Rest + 1, 1, 0, Rest};
/// Factors reach 2 (2 + 2 |a0| + 2 |a1|), and spectra add their own rounding.
constexpr double tolerance = 2e-5;

FakeModel ModelFor(const StreamSizes& sizes) {
  FakeModel model = MakeFakeAudioModel(static_cast<std::int64_t>(2 * sizes.hop),
                                       {amounts[0], amounts[1]}, sizes.isSpectral);
  const std::string lookahead = std::to_string(sizes.lookahead);
  model.metadata.emplace_back(u"LookaheadNumBlocks",
                              std::u16string(lookahead.begin(), lookahead.end()));
  model.metadata.emplace_back(u"ChannelToAudioClassBindings",
                              u"[[1,\"Class1\"],[2,\"Class0\"],[3,\"Rest\"],[77,\"Class0\"]]");
  return model;
}

class Host {
public:
  Host(Fuzz::Input& input, const StreamSizes& sizes)
      : input(input), sizes(sizes), runtime(ModelFor(sizes)), reference(sizes),
        noise(input.Number(0, 255)) {
    runtime.SetRecording(false);
    stream = Orvik::Tesmo::AssembleStream(runtime, "model", 5, sizes.sequence, sizes.channels,
                                          sizes.block);
    TellFactors();
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
      return TellFactors();
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
    TellFactors();
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
    TellFactors();
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
    (ofSequence ? sizes.sequence : sizes.channels) = size;
    reference.Resize(sizes.sequence, sizes.channels);
    TellFactors();
  }

  /// Host arrays of exactly the frames that the call may touch, so that a sanitizer sees any other.
  void Process(std::uint64_t frames, std::int32_t continuation) {
    const bool inPlace = input.Flag(), fails = input.Byte() >= 0xF0;
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
    const double never = std::numeric_limits<double>::infinity();
    if (fails) runtime.FailCall(1, ResultCodes::Canceled, "Evaluate");
    reference.FailFrom(fails ? -never : never);

    std::optional<Planar> wanted;
    try {
      wanted = reference.Process(block, continuation != 0);
    } catch (const std::runtime_error&) {
    }
    bool done = false;
    try {
      stream->ProcessBlock(from.data(), to.data(), frames, continuation);
      done = true;
    } catch (const winrt::hresult_canceled&) {
    }
    runtime.StopFailing();
    Expect(done == wanted.has_value(), "a block of %llu frames: %s",
           static_cast<unsigned long long>(frames), done ? "no failure" : "a failure");
    for (std::uint64_t c = 0; c < sizes.channels; ++c)
      for (std::uint64_t i = 0; i < count; ++i) {
        const double expected = wanted ? (*wanted)[c][i] : before[c][i];
        Expect(std::abs(to[c][i] - expected) <= (wanted ? tolerance : 0.0),
               "%s; channel %llu, frame %llu of %llu: %.9g, not %.9g", sizes.Text().c_str(),
               static_cast<unsigned long long>(c), static_cast<unsigned long long>(i),
               static_cast<unsigned long long>(frames), static_cast<double>(to[c][i]), expected);
      }
  }

  void TellFactors() {
    const double rest = gain[Rest];
    double mixed = rest;
    for (std::size_t k = 0; k < 2; ++k)
      mixed += double{amounts[k]} * (double{gain[k]} - rest);
    std::vector<double> factors(sizes.channels, mixed * master);
    for (std::size_t c = 1; c < std::min<std::size_t>(sizes.channels, 4); ++c)
      factors[c] = double{gain[boundTo[c]]} * master;
    reference.SetRule([factors](std::size_t channel, const Planar& windows) {
      Planar scaled = windows;
      for (Samples& window : scaled)
        for (double& sample : window)
          sample *= factors[channel];
      return scaled;
    });
  }

  Fuzz::Input& input;
  StreamSizes sizes;
  FakeRuntime runtime;
  ReferenceStream reference;
  std::mt19937 noise;
  std::unique_ptr<StreamProcessor> stream;
  float master = 0.0F;
  float gain[3] = {};
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
