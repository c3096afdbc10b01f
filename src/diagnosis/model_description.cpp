#include "diagnosis/model_description.h"

#include "platform/utf16.h"
#include "runtime/text.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

namespace Orvik::Tesmo::Diagnosis {
namespace {

FeatureDescription DescribeFeature(const Platform::FeatureDescriptor& feature) {
  FeatureDescription description;
  std::u16string name;
  CheckResult(feature.GetName(name));
  description.name = PrintableText(name);
  CheckResult(feature.GetKind(description.kind));
  if (description.kind == Platform::FeatureKind::Tensor) {
    CheckResult(feature.GetTensorKind(description.tensorKind));
    CheckResult(feature.GetShape(description.shape));
  }
  return description;
}

std::vector<FeatureDescription> DescribeFeatures(const Platform::FeatureList& features) {
  std::vector<FeatureDescription> descriptions;
  std::uint32_t size = 0;
  CheckResult(features.GetSize(size));
  for (std::uint32_t index = 0; index < size; ++index) {
    std::shared_ptr<Platform::FeatureDescriptor> feature;
    CheckResult(features.GetAt(index, feature));
    descriptions.push_back(DescribeFeature(*feature));
  }
  return descriptions;
}

std::map<std::u16string, std::u16string> DescribeMetadata(const Platform::Model& model) {
  std::map<std::u16string, std::u16string> entries;
  std::shared_ptr<Platform::MetadataMap> map;
  CheckResult(model.GetMetadata(map));
  std::shared_ptr<Platform::MetadataIterator> iterator;
  CheckResult(map->First(iterator));
  for (;;) {
    bool has = false;
    CheckResult(iterator->HasCurrent(has));
    if (!has) return entries;
    std::u16string key, value;
    CheckResult(iterator->Current(key, value));
    entries[key] = value;
    CheckResult(iterator->MoveNext());
  }
}

}  // namespace

ModelDescription DescribeModel(const Platform::Model& model) {
  ModelDescription description;
  std::shared_ptr<Platform::FeatureList> features;
  CheckResult(model.GetInputFeatures(features));
  description.inputs = DescribeFeatures(*features);
  CheckResult(model.GetOutputFeatures(features));
  description.outputs = DescribeFeatures(*features);
  description.metadata = DescribeMetadata(model);
  return description;
}

std::string PrintableText(std::u16string_view text) {
  std::u16string shown(text);
  for (std::size_t i = 0; i < shown.size(); ++i) {
    const auto isHigh = [](char16_t c) { return c >= 0xD800 && c < 0xDC00; };
    const auto isLow = [](char16_t c) { return c >= 0xDC00 && c < 0xE000; };
    if (isHigh(shown[i]) && i + 1 < shown.size() && isLow(shown[i + 1])) {
      ++i;
      continue;
    }
    const bool control = shown[i] < 0x20 || (shown[i] >= 0x7F && shown[i] < 0xA0);
    if (control || isHigh(shown[i]) || isLow(shown[i])) shown[i] = u'?';
  }
  return Dnn::Utf8FromUtf16(shown);
}

std::string ShortText(std::u16string_view text) {
  constexpr std::size_t most = 200;
  return PrintableText(text.substr(0, most)) + (text.size() > most ? "..." : "");
}

std::string PrintableText(std::string_view bytes) {
  std::u16string text = ToUtf16(bytes);
  std::ranges::replace(text, u'\uFFFD', u'?');
  for (const char16_t space : {u'\n', u'\r', u'\t'})
    std::ranges::replace(text, space, u' ');
  return PrintableText(text);
}

std::string TypeText(const FeatureDescription& feature) {
  static constexpr const char* kinds[] = {"tensor", "sequence", "map", "image", "other"};
  static constexpr const char* elements[] = {
      "undefined", "float32", "uint8",   "int8",   "uint16", "int16",  "int32",     "int64",
      "string",    "bool",    "float16", "double", "uint32", "uint64", "complex64", "complex128"};
  const auto kind = static_cast<std::size_t>(feature.kind);
  if (feature.kind != Platform::FeatureKind::Tensor)
    return kind < std::size(kinds) ? kinds[kind] : "other";
  if (feature.tensorKind < std::size(elements)) return elements[feature.tensorKind];
  return "element type " + std::to_string(feature.tensorKind);
}

std::string ShapeText(const Platform::Shape& shape) {
  std::string text = "[";
  for (const std::int64_t dimension : shape) {
    if (text.size() > 1) text += ", ";
    text += dimension < 1 ? "*" : std::to_string(dimension);
  }
  return text + "]";
}

}  // namespace Orvik::Tesmo::Diagnosis
