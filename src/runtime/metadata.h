#pragma once

// The two readers of a model's metadata: by key, most values as JSON; and by a walk over all
// entries, which returns the raw text.

#include "platform/platform.h"
#include "runtime/metadata_json.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Orvik::Tesmo::Dnn {

/// A channel that is known to carry one audio class.
struct ChannelBinding {
  std::uint32_t channel;
  std::u16string audioClass;  ///< as written in the model; need not name a class that exists
};

// Every operation here throws the platform's failures; those that read JSON also what
// ParseMetadataJson throws for a value that is not JSON. None throws for a JSON value of the wrong
// type.

/// The value of `key`, which may be empty text; nullopt where the map does not have the key.
std::optional<std::u16string> TryLookupMetadata(const Platform::MetadataMap& map,
                                                std::u16string_view key);

/// The value of `key` as JSON; nullopt where the key is missing.
std::optional<MetadataJson> ReadMetadataJson(const Platform::Model& model, std::u16string_view key);

/// The raw text, `fallback` where the key is missing.
std::u16string ReadMetadataString(const Platform::Model& model, std::u16string_view key,
                                  std::u16string_view fallback);

/// The low 32 bits of a JSON number without fraction or exponent; `fallback` where the key is
/// missing or the value is anything else.
std::int32_t ReadMetadataInt(const Platform::Model& model, std::u16string_view key,
                             std::int32_t fallback);

/// The strings of the JSON array AudioClassNames; "Extracted" alone where there is none.
std::vector<std::u16string> ReadAudioClassNames(const Platform::Model& model);

/// The elements [channel, class name, ...] of the JSON array ChannelToAudioClassBindings. Of a
/// channel number the low 32 bits count; other elements are skipped.
std::vector<ChannelBinding> ReadChannelBindings(const Platform::Model& model);

/// Walks the map for `key`: true and its raw text in `value`, or false and an empty `value`.
bool FindMetadataValue(const Platform::Model& model, std::u16string_view key,
                       std::u16string& value);

/// The raw text of `key` as a decimal number (DecimalValue), 0 where the key is missing.
std::int32_t FindMetadataDecimal(const Platform::Model& model, std::u16string_view key);

}  // namespace Orvik::Tesmo::Dnn
