// Real transforms of lengths that are no powers of two: every build beside FFTW, aligned buffers,
// nobody scales, no source is written. Names are dft/DIRECTION/LENGTH/CONTENDER; scripts/bench
// reads them.
//
//   dft_bench --wisdom=FILE [Google Benchmark's flags]
//
// FFTW plans with FFTW_PATIENT; the file keeps what it found, so that the next run plans nothing.

#include "dft_lengths.h"

#include "kernels/build.h"
#include "kernels/ipps.h"

#include <benchmark/benchmark.h>
#include <fftw3.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

using namespace Orvik::Tesmo::Kernels;

namespace {

enum class Way { Forward, Inverse };

struct FftwFree {
  void operator()(void* p) const { fftwf_free(p); }
};
using Floats = std::unique_ptr<float[], FftwFree>;
Floats Allocate(int count) {
  return Floats(fftwf_alloc_real(static_cast<std::size_t>(count)));
}

/// Samples and spectrum of one length, the same for all contenders.
struct Data {
  explicit Data(int N)
      : N(N), samples(Allocate(N)), spectrum(Allocate(N + 2)), result(Allocate(N + 2)) {
    std::mt19937 engine(1);
    std::normal_distribution<float> normal;
    for (int i = 0; i < N; ++i)
      samples[static_cast<std::size_t>(i)] = normal(engine);
    for (int i = 0; i < N + 2; ++i)
      spectrum[static_cast<std::size_t>(i)] = i == 1 || i == N + 1 ? 0.0f : normal(engine);
  }
  int N;
  Floats samples, spectrum, result;
};

using Run = std::function<void()>;

Run Ours(Data& data, Way way, int variant) {
  ippVariantIndex = variant;
  IppsDFTSpec_R_32f* spec = nullptr;
  int workSize = 0;
  if (ippsDFTInitAlloc_R_32f(&spec, data.N, IPP_FFT_NODIV_BY_ANY, ippAlgHintNone) != ippStsNoErr ||
      ippsDFTGetBufSize_R_32f(spec, &workSize) != ippStsNoErr)
    return {};
  auto* work = static_cast<Ipp8u*>(fftwf_malloc(static_cast<std::size_t>(workSize) + 1));
  if (way == Way::Forward)
    return [=, &data] { ippsDFTFwd_RToCCS_32f(data.samples.get(), data.result.get(), spec, work); };
  return [=, &data] { ippsDFTInv_CCSToR_32f(data.spectrum.get(), data.result.get(), spec, work); };
}

Run Fftw(Data& data, Way way, const std::string& wisdom) {
  constexpr unsigned effort = FFTW_PATIENT | FFTW_PRESERVE_INPUT;
  // planning writes over its arrays
  Floats samples = Allocate(data.N), spectrum = Allocate(data.N + 2);
  auto* complex = reinterpret_cast<fftwf_complex*>(spectrum.get());
  const fftwf_plan plan = way == Way::Forward
                              ? fftwf_plan_dft_r2c_1d(data.N, samples.get(), complex, effort)
                              : fftwf_plan_dft_c2r_1d(data.N, complex, samples.get(), effort);
  if (!wisdom.empty()) fftwf_export_wisdom_to_filename(wisdom.c_str());
  if (way == Way::Forward)
    return [=, &data] {
      fftwf_execute_dft_r2c(plan, data.samples.get(),
                            reinterpret_cast<fftwf_complex*>(data.result.get()));
    };
  return [=, &data] {
    fftwf_execute_dft_c2r(plan, reinterpret_cast<fftwf_complex*>(data.spectrum.get()),
                          data.result.get());
  };
}

void Register(int N, Way way, const std::string& contender, int variant, const Run& run) {
  if (!run) return;
  const std::string name = std::string("dft/") + (way == Way::Forward ? "forward/" : "inverse/") +
                           std::to_string(N) + "/" + contender;
  benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State& state) {
    ippVariantIndex = variant;
    for (auto _ : state) {
      run();
      benchmark::ClobberMemory();
    }
  });
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

  std::vector<std::unique_ptr<Data>> data;
  for (const DftLengths& group : dftLengths)
    for (const int N : group.lengths) {
      if (N == 0) break;
      std::fprintf(stderr, "\rplanning %d ", N);
      data.push_back(std::make_unique<Data>(N));
      for (const Way way : {Way::Forward, Way::Inverse}) {
        Register(N, way, "FFTW", 0, Fftw(*data.back(), way, wisdom));
        for (const Build* build : builds)
          if (RunsHere(*build))
            Register(N, way, build->name, build->index, Ours(*data.back(), way, build->index));
      }
    }
  std::fprintf(stderr, "\r");
  benchmark::RunSpecifiedBenchmarks();
}
