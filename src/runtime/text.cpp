#include "runtime/text.h"

#include "platform/utf16.h"

#include <algorithm>
#include <cstddef>
#include <limits>
#include <stdexcept>

namespace Orvik::Tesmo::Dnn {

namespace {

bool IsHighSurrogate(char16_t unit) {
  return unit >= 0xD800 && unit <= 0xDBFF;
}
bool IsLowSurrogate(char16_t unit) {
  return unit >= 0xDC00 && unit <= 0xDFFF;
}

[[noreturn]] void ThrowBadConversion() {
  throw std::range_error("bad conversion");
}

void AppendUtf8(std::string& text, char32_t code) {
  const auto tail = [&](int shift) { text += static_cast<char>(0x80 | (code >> shift & 0x3F)); };
  if (code < 0x80) {
    text += static_cast<char>(code);
  } else if (code < 0x800) {
    text += static_cast<char>(0xC0 | code >> 6);
    tail(0);
  } else if (code < 0x10000) {
    text += static_cast<char>(0xE0 | code >> 12);
    tail(6);
    tail(0);
  } else {
    text += static_cast<char>(0xF0 | code >> 18);
    tail(12);
    tail(6);
    tail(0);
  }
}

char16_t Lower(char16_t unit) {
  return unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit + (u'a' - u'A')) : unit;
}

}  // namespace

std::string Utf8FromUtf16(std::u16string_view text) {
  std::string result;
  result.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    char32_t code = text[i];
    if (IsHighSurrogate(text[i]) && i + 1 < text.size()) {
      if (!IsLowSurrogate(text[i + 1])) ThrowBadConversion();
      code = 0x10000 + ((code - 0xD800) << 10) + (text[++i] - 0xDC00u);
    }
    AppendUtf8(result, code);
  }
  return result;
}

std::u16string Utf16FromUtf8(std::string_view text) {
  bool isValid = false;
  std::u16string result = ToUtf16(text, &isValid);
  if (!isValid) ThrowBadConversion();
  return result;
}

std::int32_t DecimalValue(std::u16string_view text) {
  constexpr std::int64_t least = std::numeric_limits<std::int32_t>::min();
  constexpr std::int64_t most = std::numeric_limits<std::int32_t>::max();
  const auto start = std::min(text.find_first_not_of(u" \t\n\v\f\r"), text.size());
  text.remove_prefix(start);
  const bool negative = !text.empty() && text[0] == u'-';
  if (negative || (!text.empty() && text[0] == u'+')) text.remove_prefix(1);
  std::int64_t value = 0;
  for (char16_t unit : text) {
    if (unit < u'0' || unit > u'9') break;
    value = std::min(value * 10 + (unit - u'0'), -least);
  }
  return static_cast<std::int32_t>(std::clamp(negative ? -value : value, least, most));
}

bool EqualIgnoringCase(const char16_t* left, const char16_t* right) {
  while (*left && Lower(*left) == Lower(*right)) {
    ++left;
    ++right;
  }
  return Lower(*left) == Lower(*right);
}

}  // namespace Orvik::Tesmo::Dnn
