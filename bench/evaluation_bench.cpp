// One evaluation of a model on spectra without the model: deinterleaving, windows, forward
// transforms, mixing of classes and remainder, inverse transforms, overlap-add, interleaving. The
// library's own objects over an engine whose every class is a copy of its input, beside the same
// chain from FFTW and loops that the compiler vectorises for the same instructions. Prints a table;
// the time of the copies alone is taken off both.
//
//   evaluation_bench [--wisdom=FILE]
//
// The two are timed in short turns one after the other, and their audio is compared first.

#include "plain_chain.h"

#include "core/kalvrin.h"
#include "kernels/ipps.h"
#include "stream/overlap_add_stage.h"
#include "stream/windowed_stream_processor.h"
#include "support/fake_platform.h"

#include <fftw3.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <random>
#include <string>

using namespace Orvik::Tesmo;
using TestSupport::FakeEvaluation;
using TestSupport::FakeModel;
using TestSupport::FakeRuntime;

namespace {

constexpr std::size_t sequence = 4;
constexpr int turns = 41;
constexpr double turnNs = 5e5;

using Samples = std::vector<float>;
using Make = std::unique_ptr<PlainChain>(const ChainSizes&, ChainGains, ChainModel);

struct Build {
  const char* name;
  int variant;
  Make* makePlain;
};
constexpr Build builds[] = {{"sse3", 0, PlainSse3::Make}, {"avx", 5, PlainAvx::Make}};

/// Every class is a copy of the input. Knows where it worked last, so that the copies alone can be
/// timed in the same place.
struct CopyingModel {
  ChainSizes sizes;
  const float* lastIn = nullptr;
  float* lastOut = nullptr;

  void Run(const float* in, float* out) {
    lastIn = in;
    lastOut = out;
    for (std::size_t k = 0; k < sizes.classes; ++k)
      std::memcpy(out + k * sizes.Spectra(), in, sizes.Spectra() * sizeof(float));
  }
};

std::u16string ClassName(std::size_t k) {
  return std::u16string(u"class") + static_cast<char16_t>(u'0' + k);
}

FakeModel MakeModel(const ChainSizes& sizes, CopyingModel& copies) {
  const auto bins = static_cast<std::int64_t>(sizes.Hop() + 1);
  FakeModel model;
  model.inputs = {{u"input", {-1, -1, bins, 2}}};
  model.outputs = {{u"output", {-1, -1, -1, bins, 2}}};
  std::u16string names;
  for (std::size_t k = 0; k < sizes.classes; ++k)
    names += (k ? u",\"" : u"\"") + ClassName(k) + u'"';
  model.metadata = {{u"AudioClassNames", u"[" + names + u"]"}};
  model.evaluate = [&copies](const FakeEvaluation& run) {
    copies.Run(run.inputs[0].Floats(), run.outputs[0].Floats());
    return ResultCodes::Ok;
  };
  return model;
}

/// The library's stage and core over the scripted engine.
class Ours {
public:
  Ours(const ChainSizes& sizes, const ChainGains& gains, CopyingModel& copies)
      : runtime(MakeModel(sizes, copies)),
        processor(Core(sizes, gains), Stage(sizes), sizes.sequence, sizes.channels,
                  sizes.Hop() * sizes.sequence),
        stage(Stage(sizes)) {}

  void Run(const float* input, float* output) { stage->Run(processor, input, output); }

private:
  std::unique_ptr<Dnn::Kalvrin> Core(const ChainSizes& sizes, const ChainGains& gains) {
    runtime.SetRecording(false);
    auto core = std::make_unique<Dnn::Kalvrin>(runtime.Shared(), runtime.Load(), sizes.sequence,
                                               sizes.channels);
    core->SetMasterGain(1.0f);
    core->SetAudioClassGain(u"Rest", gains.rest);
    for (std::size_t k = 0; k < sizes.classes; ++k)
      core->SetAudioClassGain(ClassName(k).c_str(), gains.classes[k]);
    return core;
  }
  static std::unique_ptr<OverlapAddStage> Stage(const ChainSizes& sizes) {
    return std::make_unique<OverlapAddStage>(static_cast<std::uint32_t>(sizes.Hop()),
                                             sizes.sequence, sizes.channels, 1);
  }

  FakeRuntime runtime;
  WindowedStreamProcessor processor;
  std::unique_ptr<OverlapAddStage> stage;
};

/// Of this thread, in ns: a turn that is preempted does not count longer.
double Now() {
  timespec now = {};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return 1e9 * static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec);
}

template <class Run>
double Time(Run run, int times) {
  const double start = Now();
  for (int i = 0; i < times; ++i)
    run();
  return (Now() - start) / times;
}

double Median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + turns / 2, values.end());
  return values[turns / 2];
}

/// Both chains against one another and against the input times `gain`, a hop later.
bool SameAudio(const ChainSizes& sizes, double gain, Ours& ours, PlainChain& plain) {
  std::mt19937 engine(1);
  std::uniform_real_distribution<float> noise(-1, 1);
  const std::size_t hop = sizes.Hop() * sizes.channels, count = sizes.sequence * hop;
  Samples input(hop + count), first(count), second(count);
  for (int run = 0; run < 3; ++run) {
    std::copy(input.end() - static_cast<std::ptrdiff_t>(hop), input.end(), input.begin());
    for (std::size_t i = hop; i < input.size(); ++i)
      input[i] = noise(engine);
    ours.Run(input.data() + hop, first.data());
    plain.Run(input.data() + hop, second.data());
    for (std::size_t i = 0; i < count; ++i) {
      const double expected = gain * static_cast<double>(input[i]);
      if (!(std::abs(static_cast<double>(first[i]) - expected) < 1e-5) ||
          !(std::abs(static_cast<double>(second[i]) - expected) < 1e-5)) {
        std::printf("sample %zu of run %d: %g and %g instead of %g\n", i, run,
                    static_cast<double>(first[i]), static_cast<double>(second[i]), expected);
        return false;
      }
    }
  }
  return true;
}

/// Prints one row and gives the ratio; 0 where the audio differs.
double Compare(const Build& build, const ChainSizes& sizes) {
  ChainGains gains = {0.5f, {}};
  double gain = 0.5;
  for (std::size_t k = 0; k < sizes.classes; ++k) {
    gains.classes.push_back(0.25f * static_cast<float>(k));
    gain += 0.25 * static_cast<double>(k) - 0.5;
  }
  ippVariantIndex = build.variant;
  CopyingModel oursModel = {sizes}, plainModel = {sizes};
  Ours ours(sizes, gains, oursModel);
  const auto plain = build.makePlain(
      sizes, gains, [&plainModel](const float* in, float* out) { plainModel.Run(in, out); });
  if (!SameAudio(sizes, gain, ours, *plain)) return 0;

  const std::size_t count = sizes.Hop() * sizes.sequence * sizes.channels;
  Samples input(count, 0.25f), output(count);
  const auto runPlain = [&] { plain->Run(input.data(), output.data()); };
  const int times = 1 + static_cast<int>(turnNs / Time(runPlain, 20));
  std::vector<double> nsOurs, nsPlain;
  const auto withoutCopies = [&](auto run, CopyingModel& model) {
    const double all = Time(run, times);
    return all - Time([&] { model.Run(model.lastIn, model.lastOut); }, times);
  };
  for (int turn = 0; turn < turns; ++turn) {
    nsOurs.push_back(withoutCopies([&] { ours.Run(input.data(), output.data()); }, oursModel));
    nsPlain.push_back(withoutCopies(runPlain, plainModel));
  }
  const double a = Median(nsOurs), b = Median(nsPlain);
  std::printf("%-6s %6zu %8zu %7zu %10.2f %10.2f %7.2f\n", build.name, sizes.window, sizes.channels,
              sizes.classes, a / static_cast<double>(count), b / static_cast<double>(count), a / b);
  std::fflush(stdout);
  return a / b;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string wisdom =
      argc > 1 && std::strncmp(argv[1], "--wisdom=", 9) == 0 ? argv[1] + 9 : "";
  fftwf_set_timelimit(60);  // seconds a plan
  if (!wisdom.empty()) fftwf_import_wisdom_from_filename(wisdom.c_str());
  std::printf("\nOne evaluation on spectra without the model, median ns per frame and channel\n"
              "%-6s %6s %8s %7s %10s %10s %7s\n",
              "build", "window", "channels", "classes", "kalvrin", "FFTW", "ratio");
  for (const Build& build : builds) {
    if (build.variant > ippBestVariantIndex()) continue;
    double logarithms = 0, worst = 0;
    int rows = 0;
    for (const std::size_t window : {480, 512, 960, 1024})
      for (const std::size_t channels : {1, 2, 6})
        for (const std::size_t classes : {2, 4}) {
          const double ratio = Compare(build, {window, sequence, channels, classes});
          if (ratio == 0) return 1;
          if (!wisdom.empty()) fftwf_export_wisdom_to_filename(wisdom.c_str());
          logarithms += std::log(ratio);
          worst = std::max(worst, ratio);
          ++rows;
        }
    std::printf("%-6s geometric mean %.3f, worst %.2f\n", build.name, std::exp(logarithms / rows),
                worst);
  }
}
