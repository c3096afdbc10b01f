#pragma once

#include "hosting/evaluation.h"
#include "hosting/model_bytes.h"
#include "hosting/rate_converter.h"
#include "juce/levels.h"

#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace Orvik::Tesmo::Plugin {

/// The levels of a model's classes, and of the remainder, before any gain: each is a stream of its
/// own, so that this costs an evaluation for every one of them. For a thread that may be late.
class ClassMeters {
public:
  /// The first classes of `description` have the first of `meters`, the remainder has the last.
  /// `meters` outlive the object. Slow. Throws what HostedStream throws.
  ClassMeters(const Hosting::Description& description, const Hosting::ModelBytes& model,
              double hostRateHz, unsigned channelCount, std::span<LevelMeter> meters);

  /// What has come so far of the input at the host's rate, but not without end.
  void TakeFrom(AudioPipe& pipe);

private:
  struct Strip {
    std::unique_ptr<Hosting::Evaluation> evaluation;
    LevelMeter* meter;
  };
  void Take(const float* const* input, std::size_t frames);
  void AddStrip(const Hosting::Description& description, const Hosting::ModelBytes& model,
                const char16_t* className, LevelMeter& meter);

  double modelRateHz;
  std::size_t channelCount;
  std::vector<Strip> strips;
  std::optional<Hosting::RateConverter> toModel;  // where the rates differ
  Hosting::Frames taken, atModelRate, collected, result;
  std::size_t filled = 0;  // of `collected`
};

}  // namespace Orvik::Tesmo::Plugin
