// Real transforms of 2^4 to 2^22 samples: every build beside FFTW and KissFFT, contiguous aligned
// buffers, nobody scales. Names are fft/DIRECTION/ORDER/CONTENDER; scripts/bench reads them.
//
//   fft_bench --wisdom=FILE [Google Benchmark's flags]
//
// FFTW plans with FFTW_PATIENT up to 2^20 (above, that takes hours: FFTW_MEASURE); the file keeps
// what it found, so that the next run plans nothing.

#include "kernels/build.h"
#include "kernels/ipps.h"

#include <benchmark/benchmark.h>
#include <fftw3.h>
#include <kiss_fftr.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

using namespace Orvik::Tesmo::Kernels;

namespace {

constexpr int firstOrder = 4, lastOrder = 22, lastPatientOrder = 20;
enum class Way { Forward, Inverse };

struct FftwFree {
  void operator()(void* p) const { fftwf_free(p); }
};
using Floats = std::unique_ptr<float[], FftwFree>;
Floats Allocate(std::size_t count) {
  return Floats(fftwf_alloc_real(count));
}

/// Samples and spectrum of one order, the same for all contenders. A source is never written.
struct Data {
  explicit Data(int order)
      : N(std::size_t{1} << order), samples(Allocate(N)), spectrum(Allocate(N + 2)),
        result(Allocate(N + 2)) {
    std::mt19937 engine(1);
    std::normal_distribution<float> normal;
    for (std::size_t i = 0; i < N; ++i)
      samples[i] = normal(engine);
    for (std::size_t i = 0; i < N + 2; ++i)
      spectrum[i] = i == 1 || i == N + 1 ? 0.0f : normal(engine);
  }
  std::size_t N;
  Floats samples, spectrum, result;
};

using Run = std::function<void()>;

Run Ours(Data& data, int order, Way way, int variant) {
  ippVariantIndex = variant;
  IppsFFTSpec_R_32f* spec = nullptr;
  int specSize = 0, initSize = 0, workSize = 0;
  if (ippsFFTInitAlloc_R_32f(&spec, order, IPP_FFT_NODIV_BY_ANY, ippAlgHintNone) != ippStsNoErr)
    std::abort();
  ippsFFTGetSize_R_32f(order, IPP_FFT_NODIV_BY_ANY, ippAlgHintNone, &specSize, &initSize,
                       &workSize);
  auto* work = static_cast<Ipp8u*>(fftwf_malloc(static_cast<std::size_t>(workSize) + 1));
  if (way == Way::Forward)
    return [=, &data] { ippsFFTFwd_RToCCS_32f(data.samples.get(), data.result.get(), spec, work); };
  return [=, &data] { ippsFFTInv_CCSToR_32f(data.spectrum.get(), data.result.get(), spec, work); };
}

Run Fftw(Data& data, int order, Way way, const std::string& wisdom) {
  const unsigned effort = order <= lastPatientOrder ? FFTW_PATIENT : FFTW_MEASURE;
  const int N = static_cast<int>(data.N);
  // Arrays of its own: planning writes over them, and the fastest inverse over its source (zeros,
  // so that they stay what they are).
  float* samples = fftwf_alloc_real(data.N);
  fftwf_complex* spectrum = fftwf_alloc_complex(data.N / 2 + 1);
  const fftwf_plan plan = way == Way::Forward ? fftwf_plan_dft_r2c_1d(N, samples, spectrum,
                                                                      effort | FFTW_PRESERVE_INPUT)
                                              : fftwf_plan_dft_c2r_1d(N, spectrum, samples, effort);
  if (!wisdom.empty()) fftwf_export_wisdom_to_filename(wisdom.c_str());
  std::memset(static_cast<void*>(spectrum), 0, sizeof(fftwf_complex) * (data.N / 2 + 1));
  std::memcpy(samples, data.samples.get(), sizeof(float) * data.N);
  return [=] { fftwf_execute(plan); };
}

Run Kiss(Data& data, Way way) {
  const kiss_fftr_cfg plan =
      kiss_fftr_alloc(static_cast<int>(data.N), way == Way::Inverse, nullptr, nullptr);
  if (way == Way::Forward)
    return [=, &data] {
      kiss_fftr(plan, data.samples.get(), reinterpret_cast<kiss_fft_cpx*>(data.result.get()));
    };
  return [=, &data] {
    kiss_fftri(plan, reinterpret_cast<const kiss_fft_cpx*>(data.spectrum.get()), data.result.get());
  };
}

using MakeRun = std::function<Run()>;

/// `make` runs at the benchmark's first turn, so that a filter also saves the planning.
void Register(int order, Way way, const std::string& contender, int variant, const MakeRun& make) {
  const std::string name = std::string("fft/") + (way == Way::Forward ? "forward/" : "inverse/") +
                           std::to_string(order) + "/" + contender;
  const auto made = std::make_shared<Run>();
  benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
    if (!*made) *made = make();
    ippVariantIndex = variant;
    for (auto _ : state) {
      (*made)();
      benchmark::ClobberMemory();
    }
  });
}

/// Buffers of every order, made when they are first wanted.
Data& DataOf(int order) {
  static std::map<int, Data> all;
  return all.try_emplace(order, order).first->second;
}

}  // namespace

int main(int argc, char** argv) {
  std::string wisdom;
  std::vector<char*> rest;
  for (int i = 0; i < argc; ++i)
    if (std::strncmp(argv[i], "--wisdom=", 9) == 0)
      wisdom = argv[i] + 9;
    else
      rest.push_back(argv[i]);
  int count = static_cast<int>(rest.size());
  benchmark::Initialize(&count, rest.data());
  if (benchmark::ReportUnrecognizedArguments(count, rest.data())) return 1;
  fftwf_set_timelimit(60);  // seconds a plan: past 2^19 a patient search takes hours
  if (!wisdom.empty()) fftwf_import_wisdom_from_filename(wisdom.c_str());

  for (int order = firstOrder; order <= lastOrder; ++order)
    for (const Way way : {Way::Forward, Way::Inverse}) {
      Register(order, way, "FFTW", 0, [=] { return Fftw(DataOf(order), order, way, wisdom); });
      Register(order, way, "KissFFT", 0, [=] { return Kiss(DataOf(order), way); });
      for (const Build* build : builds) {
        const int variant = build->index;
        if (RunsHere(*build))
          Register(order, way, build->name, variant,
                   [=] { return Ours(DataOf(order), order, way, variant); });
      }
    }
  benchmark::RunSpecifiedBenchmarks();
}
