#include "audio/file_names.h"

#include <set>

namespace Orvik::Tesmo::Tool {
namespace {

constexpr std::size_t longest = 100;

std::string SafeFileName(std::string_view text) {
  constexpr std::string_view troublesome = "/\\:*?\"<>|";
  std::string name;
  for (const char c : text) {
    const bool control = static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
    name += control || troublesome.find(c) != std::string_view::npos ? '_' : c;
  }
  if (name.size() > longest) {
    std::size_t end = longest;
    while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xC0) == 0x80)
      --end;  // not in the middle of a character
    name.resize(end);
  }
  // A leading dot hides the file, a leading dash looks like an option.
  if (name.empty() || name.front() == '.' || name.front() == '-') name.insert(0, 1, '_');
  return name;
}

}  // namespace

std::string LowerCase(std::string text) {
  for (char& c : text)
    if (c >= 'A' && c <= 'Z') c |= 0x20;
  return text;
}

std::vector<std::string> SafeFileNames(const std::vector<std::string>& texts) {
  std::set<std::string> used;
  std::vector<std::string> names;
  for (const std::string& text : texts) {
    const std::string plain = SafeFileName(text);
    std::string name = plain;
    for (int number = 2; !used.insert(LowerCase(name)).second; ++number)
      name = plain + "-" + std::to_string(number);
    names.push_back(name);
  }
  return names;
}

}  // namespace Orvik::Tesmo::Tool
