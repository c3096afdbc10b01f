#pragma once

// Text of models and hosts: conversions between UTF-16 and UTF-8, numbers, names. No state, no
// locale: any thread.

#include <cstdint>
#include <string>
#include <string_view>

namespace Orvik::Tesmo::Dnn {

/// Throws std::range_error("bad conversion") for a high surrogate that something other than a low
/// surrogate follows. Any other unpaired surrogate becomes the three bytes of its code point, which
/// are no UTF-8: a strict reader refuses them.
std::string Utf8FromUtf16(std::u16string_view text);

/// Throws std::range_error("bad conversion") for bytes that are no UTF-8.
std::u16string Utf16FromUtf8(std::string_view text);

/// The decimal number at the start of `text`: white space, a sign, digits, up to the first other
/// character. 0 without a digit; for a number outside 32 bits the nearest one inside.
std::int32_t DecimalValue(std::u16string_view text);

/// Two zero-terminated names are the same but for the case of the letters A to Z.
bool EqualIgnoringCase(const char16_t* left, const char16_t* right);

}  // namespace Orvik::Tesmo::Dnn
