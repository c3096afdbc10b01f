#pragma once

// The windows around a model: what the metadata key WindowShape declares, and the numbers that the
// overlap-add stage multiplies by.

#include "platform/platform.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Orvik::Tesmo::Dnn {

/// What a model declares: a window by its name, or by its numbers.
struct WindowShape {
  std::string name;              ///< "root-hann", "hann", "vorbis", "rectangular"; empty: numbers
  std::uint64_t length = 0;      ///< of the window, in samples; 0: the model's own
  std::vector<double> analysis;  ///< `length` numbers; empty with a name
  /// As many; empty: the library makes the synthesis window (MakeWindowPair).
  std::vector<double> synthesis;
};

/// The window before the model and the one behind it, W numbers each; both empty where the model
/// declares none.
struct WindowPair {
  std::vector<float> analysis;
  std::vector<float> synthesis;
};

/// The value of WindowShape; nullopt where the key is missing. Throws the platform's failures, what
/// ParseMetadataJson throws, ContractException(WindowShapeForm) for JSON of another form.
std::optional<WindowShape> ReadWindowShape(const Platform::Model& model);

/// The windows of `shape` for a model whose windows have `windowLength` samples, W, even, with the
/// hop H = W / 2. A shorter window stands in the middle, with zeros around it. To an analysis
/// window w without a synthesis window v belongs
///     v(n) = w(n) / (w(n)^2 + w(n + H)^2),    n + H modulo W,
/// the least-squares inverse of the cut into windows. Throws ContractException(WindowIsTooLong),
/// and WindowsDoNotAddUp with the error where |w(n) v(n) + w(n + H) v(n + H) - 1| is above 1e-5
/// for some n. Where w has a gap (the sum of squares is below a millionth of its largest value)
/// there is no v, and the error is 1.
WindowPair MakeWindowPair(const std::optional<WindowShape>& shape, std::uint32_t windowLength);

}  // namespace Orvik::Tesmo::Dnn
