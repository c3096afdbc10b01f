#include "runtime/metadata_json.h"

#include "runtime/text.h"

#include <nlohmann/json.hpp>

#include <array>
#include <cstddef>

namespace Orvik::Tesmo::Dnn {

namespace {

using Json = nlohmann::json;

/// Takes the parser's events. The parser's own tree is not built: its destructor allocates, which
/// ends the process when the heap is exhausted, and model bytes may nest it as deep as they like.
class Reader {
public:
  explicit Reader(MetadataJson& root) : open{&root} {}

  // The parser asks for these names and signatures.
  bool null() { return Add(MetadataJson::Type::Other); }
  bool boolean(bool) { return Add(MetadataJson::Type::Other); }
  bool number_integer(Json::number_integer_t value) {
    return Add(MetadataJson::Type::Integer, static_cast<std::uint64_t>(value),
               static_cast<double>(value));
  }
  bool number_unsigned(Json::number_unsigned_t value) {
    return Add(MetadataJson::Type::Unsigned, value, static_cast<double>(value));
  }
  bool number_float(Json::number_float_t value, const Json::string_t&) {
    return Add(MetadataJson::Type::Real, 0, value);
  }
  bool string(Json::string_t& value) {
    if (MetadataJson* place = Place()) {
      place->type = MetadataJson::Type::Text;
      place->text = std::move(value);
    }
    return true;
  }
  bool binary(Json::binary_t&) { return Add(MetadataJson::Type::Other); }
  bool start_object(std::size_t) { return Open(MetadataJson::Type::Object); }
  bool key(Json::string_t& value) {
    name = std::move(value);
    return true;
  }
  bool end_object() { return Close(); }
  bool start_array(std::size_t) { return Open(MetadataJson::Type::Array); }
  bool end_array() { return Close(); }
  template <class Error>
  bool parse_error(std::size_t, const std::string&, const Error& error) {
    throw Error(error);
  }

private:
  /// Where the next value goes; null where it is not kept.
  MetadataJson* Place() {
    if (depth == 0) return open[0];
    if (depth > MaxDepth || !open[depth - 1]) return nullptr;
    MetadataJson& place = open[depth - 1]->items.emplace_back();
    if (open[depth - 1]->type == MetadataJson::Type::Object) place.name = std::move(name);
    return &place;
  }

  bool Add(MetadataJson::Type type, std::uint64_t number = 0, double real = 0) {
    if (MetadataJson* place = Place()) {
      place->type = type;
      place->number = number;
      place->real = real;
    }
    return true;
  }

  bool Open(MetadataJson::Type type) {
    MetadataJson* place = Place();
    if (place) place->type = type;
    if (depth < MaxDepth) open[depth] = place;
    ++depth;
    return true;
  }

  bool Close() {
    --depth;
    return true;
  }

  static constexpr std::size_t MaxDepth = 2;
  std::array<MetadataJson*, MaxDepth>
      open;               ///< the containers that the walk is in, outermost first
  std::size_t depth = 0;  ///< how many, also beyond MaxDepth
  std::string name;       ///< of the member that comes next
};

}  // namespace

MetadataJson ParseMetadataJson(std::u16string_view text) {
  MetadataJson root;
  Reader reader(root);
  Json::sax_parse(Utf8FromUtf16(text), &reader);
  return root;
}

}  // namespace Orvik::Tesmo::Dnn
