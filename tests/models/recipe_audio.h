#pragma once

// A recipe's model, a test signal, and what each class of the model has to return for it. The
// latter is computed by tests/models/expected.py from the recipe's definition.

#include "support/seed.h"

#include <cstddef>
#include <cstdlib>
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
      : model(ReadWhole<char>(KALVRIN_MODELS "/" + recipe + ".onnx")) {
    std::string pattern = std::filesystem::temp_directory_path() / "kalvrin-expected.XXXXXX";
    const std::filesystem::path folder = mkdtemp(pattern.data());
    const auto inputFile = folder / "input.f32", expectedFile = folder / "expected.f32";
    const std::string line = KALVRIN_EXPECTED " " + recipe + ' ' +
                             std::to_string(TestSupport::TestSeed()) + ' ' +
                             std::to_string(channels) + ' ' + std::to_string(frames) + ' ' +
                             inputFile.string() + ' ' + expectedFile.string();
    const int status = std::system(line.c_str());  // NOLINT(concurrency-mt-unsafe)
    if (status != 0) throw std::runtime_error("this fails: " + line);
    input = ReadWhole<float>(inputFile);
    expected = ReadWhole<float>(expectedFile);
    std::filesystem::remove_all(folder);
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
  std::vector<float> input, expected;
};

}  // namespace Orvik::Tesmo::Test
