#pragma once

#include "platform/platform.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace Orvik::Tesmo::Diagnosis {

/// What a model declares, before anything is made of it.
struct FeatureDescription {
  std::string name;  // printable
  Platform::FeatureKind kind = Platform::FeatureKind::Other;
  std::uint32_t tensorKind = 0;  // of tensors only, as is the shape
  Platform::Shape shape;
};

struct ModelDescription {
  std::vector<FeatureDescription> inputs, outputs;
  std::map<std::u16string, std::u16string> metadata;
};

/// Throws what the engine fails with.
ModelDescription DescribeModel(const Platform::Model& model);

/// UTF-8 for people, on one line. What is no valid text, and control characters, come as "?".
std::string PrintableText(std::u16string_view text);
/// The same of bytes that ought to be UTF-8, such as the words of the engine, which quotes names as
/// they stand in a model. White space comes as a space.
std::string PrintableText(std::string_view bytes);

/// Likewise of a metadata value, which may be long: its first 200 characters.
std::string ShortText(std::u16string_view text);

/// "float32", "int64", "sequence", ...
std::string TypeText(const FeatureDescription& feature);

/// "[1, *, 480]", free dimensions as stars.
std::string ShapeText(const Platform::Shape& shape);

}  // namespace Orvik::Tesmo::Diagnosis
