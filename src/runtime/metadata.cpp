#include "runtime/metadata.h"

#include "runtime/text.h"

namespace Orvik::Tesmo::Dnn {

namespace {

std::shared_ptr<Platform::MetadataMap> MetadataOf(const Platform::Model& model) {
  std::shared_ptr<Platform::MetadataMap> map;
  CheckResult(model.GetMetadata(map));
  return map;
}

/// The elements of the array at `key`; none where it is missing or no array.
std::vector<MetadataJson> ReadMetadataArray(const Platform::Model& model, std::u16string_view key) {
  auto json = ReadMetadataJson(model, key);
  if (!json || json->type != MetadataJson::Type::Array) return {};
  return std::move(json->items);
}

}  // namespace

std::optional<std::u16string> TryLookupMetadata(const Platform::MetadataMap& map,
                                                std::u16string_view key) {
  std::u16string value;
  const ResultCode code = map.Lookup(key, value);
  // engines differ in what they answer for a key that is not there
  if (code == ResultCodes::OutOfBounds || code == ResultCodes::Fail ||
      code == ResultCodes::FileNotFound)
    return std::nullopt;
  CheckResult(code);
  return value;
}

std::optional<MetadataJson> ReadMetadataJson(const Platform::Model& model,
                                             std::u16string_view key) {
  const auto text = TryLookupMetadata(*MetadataOf(model), key);
  if (!text) return std::nullopt;
  return ParseMetadataJson(*text);
}

std::u16string ReadMetadataString(const Platform::Model& model, std::u16string_view key,
                                  std::u16string_view fallback) {
  auto value = TryLookupMetadata(*MetadataOf(model), key);
  return value ? std::move(*value) : std::u16string(fallback);
}

std::int32_t ReadMetadataInt(const Platform::Model& model, std::u16string_view key,
                             std::int32_t fallback) {
  const auto json = ReadMetadataJson(model, key);
  if (!json ||
      (json->type != MetadataJson::Type::Unsigned && json->type != MetadataJson::Type::Integer))
    return fallback;
  return static_cast<std::int32_t>(json->number);
}

std::vector<std::u16string> ReadAudioClassNames(const Platform::Model& model) {
  std::vector<std::u16string> names;
  for (const MetadataJson& item : ReadMetadataArray(model, u"AudioClassNames")) {
    if (item.type == MetadataJson::Type::Text) names.push_back(Utf16FromUtf8(item.text));
  }
  if (names.empty()) names.emplace_back(u"Extracted");
  return names;
}

std::vector<ChannelBinding> ReadChannelBindings(const Platform::Model& model) {
  std::vector<ChannelBinding> bindings;
  for (const MetadataJson& item : ReadMetadataArray(model, u"ChannelToAudioClassBindings")) {
    if (item.type == MetadataJson::Type::Array && item.items.size() >= 2 &&
        item.items[0].type == MetadataJson::Type::Unsigned &&
        item.items[1].type == MetadataJson::Type::Text)
      bindings.push_back(
          {static_cast<std::uint32_t>(item.items[0].number), Utf16FromUtf8(item.items[1].text)});
  }
  return bindings;
}

bool FindMetadataValue(const Platform::Model& model, std::u16string_view key,
                       std::u16string& value) {
  value.clear();
  std::shared_ptr<Platform::MetadataIterator> entry;
  CheckResult(MetadataOf(model)->First(entry));
  bool has = false;
  for (CheckResult(entry->HasCurrent(has)); has; CheckResult(entry->HasCurrent(has))) {
    std::u16string entryKey, entryValue;
    CheckResult(entry->Current(entryKey, entryValue));
    if (entryKey == key) {
      value = std::move(entryValue);
      return true;
    }
    CheckResult(entry->MoveNext());
  }
  return false;
}

std::int32_t FindMetadataDecimal(const Platform::Model& model, std::u16string_view key) {
  std::u16string text;
  return FindMetadataValue(model, key, text) ? DecimalValue(text) : 0;
}

}  // namespace Orvik::Tesmo::Dnn
