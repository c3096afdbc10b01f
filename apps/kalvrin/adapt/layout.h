#pragma once

// What the dimensions of an audio tensor mean, outermost first, one letter for each: N channels (a
// batch), T windows (time), F bins, C real and imaginary part, K classes, 1 nothing (its size is
// 1). F is always there, every letter but 1 at most once.

#include "adapt/source_model.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Orvik::Tesmo::Tool {

using Layout = std::string;

inline bool Has(const Layout& layout, char letter) {
  return layout.find(letter) != Layout::npos;
}

/// The layout of an input that carries one window of spectrum or several. `bins`: 0 for any, above
/// 2. Nothing where the tensor does not look like one.
std::optional<Layout> GuessInputLayout(const SourceTensor& tensor, std::int64_t bins);

/// Of an output of `bins` bins, with or without the dimension C.
std::optional<Layout> GuessOutputLayout(const SourceTensor& tensor, std::int64_t bins,
                                        bool hasParts);

/// UsageError unless `layout` is one, of the letters in `letters`, and fits the tensor's sizes.
void CheckLayout(const Layout& layout, std::string_view letters, const SourceTensor& tensor,
                 std::int64_t bins);

/// "[channels, bins, windows, parts]"
std::string LayoutText(const Layout& layout);

}  // namespace Orvik::Tesmo::Tool
