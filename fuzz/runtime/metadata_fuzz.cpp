// A model's metadata, its JSON and both readers, against the JSON library's own tree and the C
// library's numbers.

#include "runtime/metadata.h"
#include "runtime/metadata_json.h"
#include "runtime/model_info.h"
#include "runtime/text.h"
#include "support/fake_platform.h"
#include "support/input.h"
#include "support/outcome.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>

namespace {

using namespace Orvik::Tesmo::Dnn;
using Fuzz::Expect;
using nlohmann::json;
using TestSupport::Outcome;
using Metadata = std::vector<std::pair<std::u16string, std::u16string>>;

constexpr const char16_t* keys[] = {
    u"AudioClassNames",  u"ChannelToAudioClassBindings", u"SampleRate", u"LookaheadNumBlocks",
    u"OverlapInSamples", u"BaselineSequenceSize",        u"Name",       u"WindowShape"};

/// Entries of a byte that picks the key, then text: a byte is a character, but 0xFE stands before
/// any two bytes of one, and 0xFF ends the entry.
Metadata ReadEntries(Fuzz::Input& input) {
  Metadata entries;
  while (!input.IsEmpty() && entries.size() < 10) {
    auto& [key, text] = entries.emplace_back(input.Pick(keys), u"");
    while (!input.IsEmpty()) {
      const std::uint8_t byte = input.Byte();
      if (byte == 0xFF) break;
      text += static_cast<char16_t>(byte == 0xFE ? input.Number(0, 0xFFFF) : byte);
    }
  }
  return entries;
}

void CheckText(const std::u16string& text) {
  std::string utf8;
  const bool converts = Outcome([&] { utf8 = Utf8FromUtf16(text); }) == "ok";
  const auto isSurrogate = [](char16_t unit) { return unit >= 0xD800 && unit <= 0xDFFF; };
  if (std::ranges::none_of(text, isSurrogate))
    Expect(converts && Utf16FromUtf8(utf8) == text, "text does not survive UTF-8");
  std::string bytes;
  for (const char16_t unit : text)
    bytes += static_cast<char>(unit);
  std::u16string back;
  if (Outcome([&] { back = Utf16FromUtf8(bytes); }) == "ok")
    Expect(Utf8FromUtf16(back) == bytes, "bytes that are no UTF-8 were taken");

  std::string narrow;
  for (const char16_t unit : text)
    narrow += static_cast<char>(unit < 0x80 ? unit : u'?');
  const long long wanted =
      std::clamp(std::strtoll(narrow.c_str(), nullptr, 10), -0x80000000LL, 0x7FFFFFFFLL);
  Expect(DecimalValue(text) == wanted, "decimal %d, not %lld", DecimalValue(text), wanted);
}

void CheckSame(const MetadataJson& got, const json& wanted, int depth) {
  using Type = MetadataJson::Type;
  const Type type = wanted.is_number_unsigned()  ? Type::Unsigned
                    : wanted.is_number_integer() ? Type::Integer
                    : wanted.is_string()         ? Type::Text
                    : wanted.is_number()         ? Type::Real
                    : wanted.is_array()          ? Type::Array
                    : wanted.is_object()         ? Type::Object
                                                 : Type::Other;
  Expect(got.type == type, "type %d, not %d", static_cast<int>(got.type), static_cast<int>(type));
  if (type == Type::Unsigned) Expect(got.number == wanted.get<std::uint64_t>(), "number");
  if (type == Type::Integer)
    Expect(got.number == static_cast<std::uint64_t>(wanted.get<std::int64_t>()), "number");
  if (wanted.is_number()) Expect(got.real == wanted.get<double>(), "real number");
  if (type == Type::Text) Expect(got.text == wanted.get<std::string>(), "string");
  if (type != Type::Array || depth == 2) return;
  Expect(got.items.size() == wanted.size(), "%zu items, not %zu", got.items.size(), wanted.size());
  for (std::size_t i = 0; i < wanted.size(); ++i)
    CheckSame(got.items[i], wanted[i], depth + 1);
}

/// The value as the JSON library's tree; nothing where both refuse it in the same words.
std::optional<json> CheckJson(const std::u16string& text) {
  std::optional<json> tree;
  std::optional<MetadataJson> value;
  const std::string wanted = Outcome([&] { tree = json::parse(Utf8FromUtf16(text)); });
  const std::string got = Outcome([&] { value = ParseMetadataJson(text); });
  Expect(got == wanted, "'%s', not '%s'", got.c_str(), wanted.c_str());
  if (tree) CheckSame(*value, *tree, 0);
  return tree;
}

/// Whether a member of the outermost object comes twice; the tree keeps the last one only.
bool HasTwins(const std::u16string& text) {
  std::set<json> names;
  bool hasTwins = false;
  const auto watch = [&](int depth, json::parse_event_t event, json& name) {
    if (event == json::parse_event_t::key && depth == 1)
      hasTwins = !names.insert(name).second || hasTwins;
    return true;
  };
  const json tree = json::parse(Utf8FromUtf16(text), watch);
  return hasTwins;
}

/// What the tree says of the key, or null where it is not there.
class Reference {
public:
  explicit Reference(const Metadata& entries) {
    for (std::size_t i = 0; i < std::size(keys); ++i) {
      const auto entry =
          std::ranges::find(entries, std::u16string_view(keys[i]),
                            [](const auto& e) -> std::u16string_view { return e.first; });
      if (entry == entries.end()) continue;
      raw[i] = entry->second;
      if (i == NameKey) continue;
      const auto tree = CheckJson(entry->second);
      isValid = isValid && tree;
      if (tree) trees[i] = *tree;
    }
  }
  static constexpr std::size_t NameKey = 6, WindowKey = 7;

  /// The window is missing, a known name, or an object that declares one.
  bool IsWindow() const {
    const json& window = trees[WindowKey];
    const auto isName = [](const json& name) {
      return name == "root-hann" || name == "hann" || name == "vorbis" || name == "rectangular";
    };
    const auto isList = [](const json& list) {
      return list.is_array() && !list.empty() && std::ranges::all_of(list, [](const json& number) {
               return number.is_number() && std::abs(number.get<double>()) <= 3.4028234663852886e38;
             });
    };
    if (!raw[WindowKey] || isName(window)) return true;
    if (!window.is_object() || HasTwins(*raw[WindowKey]) || window.empty() || window.size() > 2)
      return false;
    if (window.contains("shape"))
      return isName(window["shape"]) &&
             (window.size() == 1 ||
              (window.contains("length") && window["length"].is_number_unsigned() &&
               window["length"].get<std::uint64_t>() != 0));
    return window.contains("analysis") && isList(window["analysis"]) &&
           (window.size() == 1 || (window.contains("synthesis") && isList(window["synthesis"]) &&
                                   window["synthesis"].size() == window["analysis"].size()));
  }

  std::int32_t Int(std::size_t key, std::int32_t fallback) const {
    if (trees[key].is_number_unsigned())
      return static_cast<std::int32_t>(trees[key].get<std::uint64_t>());
    return trees[key].is_number_integer()
               ? static_cast<std::int32_t>(trees[key].get<std::int64_t>())
               : fallback;
  }
  std::vector<std::string> Classes() const {
    std::vector<std::string> names;
    if (trees[0].is_array())
      for (const json& item : trees[0])
        if (item.is_string()) names.push_back(item.get<std::string>());
    if (names.empty()) names.emplace_back("Extracted");
    return names;
  }
  std::vector<std::pair<std::uint32_t, std::string>> Bindings() const {
    std::vector<std::pair<std::uint32_t, std::string>> bindings;
    if (trees[1].is_array())
      for (const json& item : trees[1])
        if (item.is_array() && item.size() >= 2 && item[0].is_number_unsigned() &&
            item[1].is_string())
          bindings.emplace_back(static_cast<std::uint32_t>(item[0].get<std::uint64_t>()),
                                item[1].get<std::string>());
    return bindings;
  }

  std::optional<std::u16string> raw[std::size(keys)];
  json trees[std::size(keys)];
  bool isValid = true;
};

void CheckInfo(const ModelInfo& info, const Reference& reference) {
  Expect(info.GetName() ==
             std::u16string_view(
                 reference.raw[Reference::NameKey].value_or(u"(Model name N/A)").c_str()),
         "name");
  Expect(info.GetSampleRate() == reference.Int(2, 48000), "sample rate");
  Expect(info.GetLookaheadNumBlocks() == reference.Int(3, 0), "lookahead");
  Expect(info.GetOverlapInSamples() == reference.Int(4, 0), "overlap");
  Expect(info.GetBaselineSequenceSize() == reference.Int(5, 0), "sequence size");
  const auto classes = reference.Classes();
  Expect(info.GetAudioClassCount() == classes.size(), "classes");
  for (std::uint32_t i = 0; i < classes.size(); ++i)
    Expect(info.GetAudioClassName(i) == std::u16string_view(Utf16FromUtf8(classes[i]).c_str()),
           "class %u", i);
  const auto bindings = reference.Bindings();
  Expect(info.GetChannelBindings().size() == bindings.size(), "bindings");
  for (std::size_t i = 0; i < bindings.size(); ++i)
    Expect(info.GetChannelBindings()[i].channel == bindings[i].first &&
               info.GetChannelBindings()[i].audioClass == Utf16FromUtf8(bindings[i].second),
           "binding %zu", i);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Fuzz::Input input(data, size);
  const Metadata entries = ReadEntries(input);
  for (const auto& [key, text] : entries)
    CheckText(text);
  const Reference reference(entries);

  TestSupport::FakeModel fake;
  fake.metadata = entries;
  TestSupport::FakeRuntime runtime(fake);
  runtime.SetRecording(false);
  std::shared_ptr<Orvik::Tesmo::Platform::Model> model;
  CheckResult(runtime.LoadModel("x", 1, model));
  std::optional<ModelInfo> info;
  const std::string outcome = Outcome([&] { info.emplace(*model); });
  Expect(info.has_value() == (reference.isValid && reference.IsWindow()), "metadata: %s",
         outcome.c_str());
  if (info) CheckInfo(*info, reference);
  for (std::size_t i = 0; i < std::size(keys); ++i) {
    std::u16string value = u"before";
    Expect(FindMetadataValue(*model, keys[i], value) == reference.raw[i].has_value() &&
               value == reference.raw[i].value_or(u""),
           "the walk over the entries");
  }
  return 0;
}
