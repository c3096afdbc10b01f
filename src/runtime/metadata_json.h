#pragma once

// The JSON texts in a model's metadata, as far as they can mean anything there.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Orvik::Tesmo::Dnn {

/// A JSON value. Arrays and objects are kept two deep: what lies deeper is checked for its grammar
/// and dropped.
struct MetadataJson {
  enum class Type {
    Unsigned,  ///< a number without sign, fraction or exponent, of at most 64 bits
    Integer,   ///< likewise, with a minus sign
    Real,      ///< any other number
    Text,
    Array,
    Object,
    Other,
  };
  Type type = Type::Other;
  std::uint64_t number = 0;         ///< of Unsigned and Integer: two's complement
  double real = 0;                  ///< of all numbers
  std::string text;                 ///< of Text: UTF-8
  std::string name;                 ///< of a member of an Object: UTF-8
  std::vector<MetadataJson> items;  ///< of Array and Object, in the order of the text
};

/// Parses `text` whole. Throws the parser's parse_error (a std::exception) where it is no JSON, and
/// what Utf8FromUtf16 throws.
MetadataJson ParseMetadataJson(std::u16string_view text);

}  // namespace Orvik::Tesmo::Dnn
