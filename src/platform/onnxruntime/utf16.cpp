#include "platform/onnxruntime/utf16.h"

#include <cstddef>
#include <cstdint>

namespace Orvik::Tesmo::Platform::OnnxRuntime {
namespace {

/// What may follow a first byte (Unicode 15, table 3-7): the range of the second byte keeps out
/// overlong forms, surrogates and numbers above U+10FFFF. Later bytes are 80 to BF.
struct Sequence {
  std::uint8_t firstLow, firstHigh;
  int following;
  std::uint8_t secondLow, secondHigh;
};
constexpr Sequence sequences[] = {
    {0x00, 0x7F, 0, 0x80, 0xBF}, {0xC2, 0xDF, 1, 0x80, 0xBF}, {0xE0, 0xE0, 2, 0xA0, 0xBF},
    {0xE1, 0xEC, 2, 0x80, 0xBF}, {0xED, 0xED, 2, 0x80, 0x9F}, {0xEE, 0xEF, 2, 0x80, 0xBF},
    {0xF0, 0xF0, 3, 0x90, 0xBF}, {0xF1, 0xF3, 3, 0x80, 0xBF}, {0xF4, 0xF4, 3, 0x80, 0x8F},
};

constexpr char32_t replacement = 0xFFFD;

const Sequence* SequenceOf(std::uint8_t first) {
  for (const Sequence& sequence : sequences)
    if (sequence.firstLow <= first && first <= sequence.firstHigh) return &sequence;
  return nullptr;
}

/// The character at `position`, which moves behind it.
char32_t Next(std::string_view text, std::size_t& position) {
  const auto first = static_cast<std::uint8_t>(text[position++]);
  const Sequence* sequence = SequenceOf(first);
  if (!sequence) return replacement;
  constexpr std::uint8_t valueBits[] = {0x7F, 0x1F, 0x0F, 0x07};
  char32_t character = first & valueBits[sequence->following];
  for (int i = 0; i < sequence->following; ++i) {
    if (position == text.size()) return replacement;
    const auto byte = static_cast<std::uint8_t>(text[position]);
    const std::uint8_t low = i == 0 ? sequence->secondLow : 0x80;
    const std::uint8_t high = i == 0 ? sequence->secondHigh : 0xBF;
    if (byte < low || byte > high) return replacement;
    character = character << 6 | (byte & 0x3F);
    ++position;
  }
  return character;
}

}  // namespace

std::u16string ToUtf16(std::string_view text) {
  std::u16string result;
  result.reserve(text.size());
  for (std::size_t position = 0; position < text.size();) {
    const char32_t character = Next(text, position);
    if (character < 0x10000) {
      result.push_back(static_cast<char16_t>(character));
    } else {
      result.push_back(static_cast<char16_t>(0xD7C0 + (character >> 10)));
      result.push_back(static_cast<char16_t>(0xDC00 + (character & 0x3FF)));
    }
  }
  return result;
}

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
