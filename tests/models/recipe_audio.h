#pragma once

// A recipe's model, a test signal, and what each class of the model gives for it by definition. The
// build makes the files (tests/models/expected.py).

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace Orvik::Tesmo::Test {

template <class Element>
std::vector<Element> ReadWhole(const std::filesystem::path& path) {
  std::vector<Element> content(std::filesystem::file_size(path) / sizeof(Element));
  std::ifstream file(path, std::ios::binary);
  const auto bytes = static_cast<std::streamsize>(content.size() * sizeof(Element));
  if (!file.read(reinterpret_cast<char*>(content.data()), bytes))
    throw std::runtime_error("cannot read " + path.string());
  return content;
}

class RecipeAudio {
public:
  static constexpr std::size_t channels = 3, frames = 24000;

  explicit RecipeAudio(const std::string& recipe)
      : model(ReadWhole<char>(Folder() / (recipe + ".onnx"))),
        input(ReadWhole<float>(Folder() / "expected" / (recipe + ".input.f32"))),
        expected(ReadWhole<float>(Folder() / "expected" / (recipe + ".expected.f32"))) {
    if (input.size() != channels * frames || expected.size() % input.size() != 0)
      throw std::runtime_error("the expected audio of " + recipe + " has another size");
  }

  std::size_t ClassCount() const { return expected.size() / input.size(); }
  std::span<const float> Input(std::size_t channel) const {
    return std::span(input).subspan(channel * frames, frames);
  }
  /// In time with the input.
  std::span<const float> Class(std::size_t audioClass, std::size_t channel) const {
    return std::span(expected).subspan((audioClass * channels + channel) * frames, frames);
  }

  std::vector<char> model;

private:
  static std::filesystem::path Folder() { return KALVRIN_MODELS; }

  std::vector<float> input, expected;
};

}  // namespace Orvik::Tesmo::Test
