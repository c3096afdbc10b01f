#include "adapt/layout.h"

#include "command_line/errors.h"
#include "platform/platform.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <vector>

namespace Orvik::Tesmo::Tool {
namespace {

constexpr char undecided = '?';

std::string Lower(std::string text) {
  for (char& letter : text)
    letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
  return text;
}

bool NamesTime(const SourceDimension& dimension) {
  static constexpr std::array names = {"t",     "time",     "frames",  "frame",
                                       "seq",   "sequence", "length",  "seq_len",
                                       "steps", "windows",  "n_frames"};
  return std::ranges::find(names, Lower(dimension.symbol)) != names.end();
}

bool NamesBatch(const SourceDimension& dimension) {
  static constexpr std::array names = {"b", "n", "batch", "batch_size", "channels", "channel"};
  return std::ranges::find(names, Lower(dimension.symbol)) != names.end();
}

/// Of the free dimensions that are undecided: first the batch, then time, unless a name or, where
/// there is but one, its place says otherwise.
bool DecideFree(Layout& layout, const std::vector<SourceDimension>& shape) {
  std::vector<std::size_t> free;
  for (std::size_t i = 0; i < shape.size(); ++i)
    if (layout[i] == undecided && shape[i].size == 0) free.push_back(i);
  if (free.size() > 2) return false;
  if (free.size() == 2) {
    const bool swapped = NamesTime(shape[free[0]]) || NamesBatch(shape[free[1]]);
    layout[free[0]] = swapped ? 'T' : 'N';
    layout[free[1]] = swapped ? 'N' : 'T';
  } else if (free.size() == 1) {
    const bool isTime = NamesTime(shape[free[0]]) || (free[0] != 0 && !NamesBatch(shape[free[0]]));
    layout[free[0]] = isTime ? 'T' : 'N';
  }
  return true;
}

/// What is left has the size 1.
std::optional<Layout> Settle(Layout layout, const std::vector<SourceDimension>& shape) {
  if (!DecideFree(layout, shape)) return {};
  for (std::size_t i = 0; i < shape.size(); ++i) {
    if (layout[i] != undecided) continue;
    if (shape[i].size != 1) return {};
    layout[i] = '1';
  }
  return layout;
}

std::vector<std::size_t> AxesOf(const SourceTensor& tensor, auto accept) {
  std::vector<std::size_t> axes;
  for (std::size_t i = 0; i < tensor.shape.size(); ++i)
    if (accept(tensor.shape[i].size)) axes.push_back(i);
  return axes;
}

bool IsAudio(const SourceTensor& tensor) {
  return tensor.kind == Platform::TensorKind::Float && tensor.hasShape;
}

}  // namespace

std::optional<Layout> GuessInputLayout(const SourceTensor& tensor, std::int64_t bins) {
  if (!IsAudio(tensor)) return {};
  const auto binAxes =
      AxesOf(tensor, [=](std::int64_t size) { return bins > 0 ? size == bins : size > 2; });
  const auto partAxes = AxesOf(tensor, [](std::int64_t size) { return size == 2; });
  if (binAxes.size() != 1 || partAxes.size() > 1) return {};
  Layout layout(tensor.shape.size(), undecided);
  layout[binAxes[0]] = 'F';
  if (!partAxes.empty()) layout[partAxes[0]] = 'C';
  return Settle(std::move(layout), tensor.shape);
}

std::optional<Layout> GuessOutputLayout(const SourceTensor& tensor, std::int64_t bins,
                                        bool hasParts) {
  if (!IsAudio(tensor)) return {};
  const auto binAxes = AxesOf(tensor, [=](std::int64_t size) { return size == bins; });
  if (binAxes.size() != 1) return {};
  Layout layout(tensor.shape.size(), undecided);
  const std::size_t binAxis = binAxes[0];
  layout[binAxis] = 'F';
  if (hasParts) {
    // Classes stand further out, so that of two dimensions of size 2 the one nearer to the bins, or
    // else the inner one, has the parts.
    auto partAxes = AxesOf(tensor, [](std::int64_t size) { return size == 2; });
    if (partAxes.empty()) return {};
    const auto distance = [=](std::size_t axis) {
      return axis > binAxis ? axis - binAxis : binAxis - axis;
    };
    std::ranges::reverse(partAxes);
    layout[*std::ranges::min_element(partAxes, {}, distance)] = 'C';
  }
  for (std::size_t i = 0; i < tensor.shape.size(); ++i) {
    if (layout[i] != undecided || tensor.shape[i].size < 2) continue;
    if (Has(layout, 'K')) return {};
    layout[i] = 'K';
  }
  return Settle(std::move(layout), tensor.shape);
}

void CheckLayout(const Layout& layout, std::string_view letters, const SourceTensor& tensor,
                 std::int64_t bins) {
  const std::string shown = "the layout " + layout;
  for (const char letter : layout)
    if (letters.find(letter) == std::string_view::npos ||
        (letter != '1' && std::ranges::count(layout, letter) > 1))
      throw UsageError(shown + " may have the letters " + std::string(letters) +
                       ", each but 1 once");
  if (!Has(layout, 'F')) throw UsageError(shown + " has no F, the bins");
  if (!IsAudio(tensor) || layout.size() != tensor.shape.size())
    throw UsageError(shown + " does not fit " + SourceTensorText(tensor));
  for (std::size_t i = 0; i < layout.size(); ++i) {
    const std::int64_t size = tensor.shape[i].size;
    const bool fits = layout[i] == 'F'   ? size == bins || size == 0
                      : layout[i] == 'C' ? size == 2 || size == 0
                      : layout[i] == 'K' ? size > 0
                                         : size <= 1;
    if (!fits)
      throw UsageError(shown + " does not fit " + SourceTensorText(tensor) + ": " + layout[i] +
                       " cannot have the size " + std::to_string(size));
  }
}

std::string LayoutText(const Layout& layout) {
  std::string text;
  for (const char letter : layout) {
    const char* name = letter == 'N'   ? "channels"
                       : letter == 'T' ? "windows"
                       : letter == 'F' ? "bins"
                       : letter == 'C' ? "parts"
                       : letter == 'K' ? "classes"
                                       : "1";
    text += (text.empty() ? "[" : ", ") + std::string(name);
  }
  return text + "]";
}

}  // namespace Orvik::Tesmo::Tool
