// Runs a target over files, for builds without a fuzzer: REPLAY FILE-OR-FOLDER...

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

void Run(const std::filesystem::path& file) {
  std::ifstream stream(file, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(stream), {}};
  std::printf("%s\n", file.c_str());
  std::fflush(stdout);
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

int main(int count, char** values) {
  int files = 0;
  for (int i = 1; i < count; ++i) {
    if (!std::filesystem::is_directory(values[i])) {
      Run(values[i]);
      ++files;
      continue;
    }
    for (const auto& entry : std::filesystem::directory_iterator(values[i])) {
      Run(entry.path());
      ++files;
    }
  }
  return files > 0 ? 0 : 1;
}
