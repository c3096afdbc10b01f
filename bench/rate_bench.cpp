// What the conversion of sample rates costs, and how exact it is: one channel between a model at 16
// kHz and hosts, in blocks of 256 frames.

#include "hosting/rate_converter.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <numbers>
#include <vector>

namespace {

using Orvik::Tesmo::Hosting::RateConverter;

constexpr double seconds = 10, toneHz = 1000;

double ProcessorSeconds() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

std::vector<float> Tone(double rateHz, std::size_t frames) {
  std::vector<float> tone(frames);
  for (std::size_t i = 0; i < frames; ++i)
    tone[i] = static_cast<float>(
        0.5 * std::sin(2 * std::numbers::pi * toneHz * static_cast<double>(i) / rateHz));
  return tone;
}

struct Figures {
  double percentOfCore, errorDb;
};

Figures Measure(double fromHz, double toHz) {
  constexpr std::size_t block = 256, ends = 1000;
  const std::vector<float> input = Tone(fromHz, static_cast<std::size_t>(seconds * fromHz));
  RateConverter converter(fromHz, toHz, 1);
  std::vector<float> output(converter.MostFrames(input.size()));
  std::size_t made = 0;
  const double begin = ProcessorSeconds();
  for (std::size_t done = 0; done < input.size(); done += block) {
    const float* const from = input.data() + done;
    float* const to = output.data() + made;
    made += converter.Process(&from, std::min(block, input.size() - done), &to);
  }
  const double used = ProcessorSeconds() - begin;
  const std::vector<float> expected = Tone(toHz, made);
  double error = 0;
  for (std::size_t i = ends; i + ends < made; ++i)
    error = std::max(error, std::fabs(static_cast<double>(output[i]) - expected[i]));
  return {100 * used / seconds, 20 * std::log10(error / 0.5)};
}

}  // namespace

int main() {
  std::puts("\nconversion of sample rates, one channel and a model at 16 kHz: percent of a core\n"
            "       host  to the model      back  error of a tone");
  for (const double hostHz : {44100.0, 48000.0, 96000.0, 192000.0}) {
    const Figures down = Measure(hostHz, 16000);
    const Figures up = Measure(16000, hostHz);
    std::printf("%8.1f kHz %13.2f %9.2f %13.0f dB\n", hostHz / 1000, down.percentOfCore,
                up.percentOfCore, std::max(down.errorDb, up.errorDb));
  }
}
