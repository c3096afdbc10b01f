#pragma once

// What a real transform of a given length will run, for people who choose a window length.

#include <optional>
#include <string>
#include <vector>

namespace Orvik::Tesmo::Kernels {

struct TransformDescription {
  const char* build;  ///< of the kernels, "sse3" to "avx"
  int length;
  std::string method;  ///< in words
  int points;          ///< complex values of the half-length transform, or real samples if odd
  /// Radices in running order, run by run; a run passes over one block after another and does all
  /// its stages there. Of a convolution, those of its inner transforms. Empty for direct methods.
  std::vector<std::vector<int>> runs;
  int convLength;  ///< points of a convolution, or 0
  int workSize;    ///< bytes that a transform needs beside its result
};

/// Under the build that ippVariantIndex selects. Nothing for lengths that no plan takes. Allocates
/// its result and nothing else: no table is built.
std::optional<TransformDescription> DescribeTransform(int length);

}  // namespace Orvik::Tesmo::Kernels
