#pragma once

// Both models, the original window by window and the adapted one by evaluations of several, on the
// same noise.

#include "adapt/adapted_model.h"
#include "adapt/roles.h"
#include "platform/platform.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// Spectra of a trial: values in [-8, 8], channels x windows x bins x 2.
struct TrialSignal {
  static constexpr std::int64_t channels = 2, windows = 24, perEvaluation = 3;

  explicit TrialSignal(std::int64_t bins);

  std::int64_t bins;
  std::vector<float> values;
};

/// What the original gives: classes x channels x windows x bins x 2. Throws the engine's failures.
std::vector<float> RunOriginal(Platform::Runtime& runtime, const std::string& bytes,
                               const Roles& roles, const TrialSignal& signal);

/// Likewise what the adapted model gives.
std::vector<float> RunAdapted(Platform::Runtime& runtime, const std::string& bytes,
                              const Roles& roles, const Loops& loops, std::int64_t lookahead,
                              const TrialSignal& signal);

struct Comparison {
  double difference = 0;  ///< the greatest; infinity where a value is no finite number
  double peak = 0;        ///< of the original

  bool IsEqual() const { return difference <= 1e-4 * peak; }
};

Comparison Compare(const std::vector<float>& original, const std::vector<float>& adapted);

}  // namespace Orvik::Tesmo::Tool
