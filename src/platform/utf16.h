#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Orvik::Tesmo {

namespace Utf8 {

/// What may follow a first byte (Unicode 15, table 3-7): the range of the second byte keeps out
/// overlong forms, surrogates and numbers above U+10FFFF. Later bytes are 80 to BF.
struct Sequence {
  std::uint8_t firstLow, firstHigh;
  int following;
  std::uint8_t secondLow, secondHigh;
};
inline constexpr Sequence sequences[] = {
    {0x00, 0x7F, 0, 0x80, 0xBF}, {0xC2, 0xDF, 1, 0x80, 0xBF}, {0xE0, 0xE0, 2, 0xA0, 0xBF},
    {0xE1, 0xEC, 2, 0x80, 0xBF}, {0xED, 0xED, 2, 0x80, 0x9F}, {0xEE, 0xEF, 2, 0x80, 0xBF},
    {0xF0, 0xF0, 3, 0x90, 0xBF}, {0xF1, 0xF3, 3, 0x80, 0xBF}, {0xF4, 0xF4, 3, 0x80, 0x8F},
};

inline constexpr char32_t invalid = 0xFFFFFFFF;

/// The character at `position`, which moves past it; `invalid`, and past the bytes that begin a
/// character without ending it, where there is none.
inline char32_t Next(std::string_view text, std::size_t& position) {
  const auto first = static_cast<std::uint8_t>(text[position++]);
  for (const Sequence& sequence : sequences) {
    if (first < sequence.firstLow || first > sequence.firstHigh) continue;
    constexpr std::uint8_t valueBits[] = {0x7F, 0x1F, 0x0F, 0x07};
    char32_t character = first & valueBits[sequence.following];
    for (int i = 0; i < sequence.following; ++i, ++position) {
      const auto byte = static_cast<std::uint8_t>(position < text.size() ? text[position] : 0);
      if (byte < (i == 0 ? sequence.secondLow : 0x80) ||
          byte > (i == 0 ? sequence.secondHigh : 0xBF))
        return invalid;
      character = character << 6 | (byte & 0x3F);
    }
    return character;
  }
  return invalid;
}

}  // namespace Utf8

/// UTF-8 as UTF-16. Each longest run of bytes that begins a character but does not end it, and each
/// byte that begins none, becomes one U+FFFD; `isValid`, where given, says whether there was none.
/// Surrogates and overlong forms are no UTF-8.
inline std::u16string ToUtf16(std::string_view text, bool* isValid = nullptr) {
  std::u16string result;
  result.reserve(text.size());
  if (isValid) *isValid = true;
  for (std::size_t position = 0; position < text.size();) {
    char32_t character = Utf8::Next(text, position);
    if (character == Utf8::invalid) {
      if (isValid) *isValid = false;
      character = 0xFFFD;
    }
    if (character < 0x10000) {
      result.push_back(static_cast<char16_t>(character));
    } else {
      result.push_back(static_cast<char16_t>(0xD7C0 + (character >> 10)));
      result.push_back(static_cast<char16_t>(0xDC00 + (character & 0x3FF)));
    }
  }
  return result;
}

}  // namespace Orvik::Tesmo
