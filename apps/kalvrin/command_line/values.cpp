#include "command_line/values.h"

#include "command_line/errors.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>

namespace Orvik::Tesmo::Tool {
namespace {

/// Takes a trailing "dB" in either case off `text`.
bool CutDecibelUnit(std::string_view& text) {
  const std::size_t size = text.size();
  if (size < 2 || (text[size - 2] | 0x20) != 'd' || (text[size - 1] | 0x20) != 'b') return false;
  text.remove_suffix(2);
  while (text.ends_with(' '))
    text.remove_suffix(1);
  return true;
}

/// The whole of `text` as a number, infinities included; NaN where it is none.
double Number(std::string_view text) {
  if (text.starts_with('+') && !text.starts_with("+-")) text.remove_prefix(1);
  double value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  const bool whole = error == std::errc{} && end == text.data() + text.size();
  return whole ? value : std::numeric_limits<double>::quiet_NaN();
}

}  // namespace

std::uint64_t ParseCount(std::string_view text, std::uint64_t least, std::uint64_t most) {
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc{} || end != text.data() + text.size() || value < least || value > most)
    throw UsageError("'" + std::string(text) + "' is not a whole number from " +
                     std::to_string(least) + " to " + std::to_string(most));
  return value;
}

float ParseGain(std::string_view text) {
  std::string_view number = text;
  const bool decibels = CutDecibelUnit(number);
  const double value = Number(number);
  const auto gain = static_cast<float>(decibels ? std::pow(10.0, value / 20) : value);
  if (!std::isfinite(gain) || gain < 0)
    throw UsageError("'" + std::string(text) +
                     "' is no gain; write a factor from 0 (0.5) or decibels (-6dB)");
  return gain + 0.0F;  // -0 becomes 0
}

ClassGain ParseClassGain(std::string_view text) {
  const std::size_t equals = text.rfind('=');
  if (equals == std::string_view::npos || equals == 0)
    throw UsageError("'" + std::string(text) +
                     "' is not NAME=GAIN; write Speech=0.5 or Speech=-6dB");
  return {std::string(text.substr(0, equals)), ParseGain(text.substr(equals + 1))};
}

std::string LowerCase(std::string text) {
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c |= 0x20;
  return text;
}

std::string GainText(float gain) {
  char text[64];
  if (gain == 0 || gain == 1)
    std::snprintf(text, sizeof text, "%g", gain);
  else
    std::snprintf(text, sizeof text, "%.4g (%+.1f dB)", gain, 20 * std::log10(gain));
  return text;
}

}  // namespace Orvik::Tesmo::Tool
