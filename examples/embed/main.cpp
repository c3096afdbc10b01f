// Runs one channel of raw 32-bit floats from standard input to standard output, in blocks of 256
// frames, with the gain of one class changed. usage: embed MODEL CLASS GAIN <in.f32 >out.f32

#include <kalvrin/stream_processor.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>
#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#endif

using Orvik::Tesmo::StreamProcessor;

int main(int count, char** arguments) {
#ifdef _WIN32  // samples are no text
  _setmode(_fileno(stdin), _O_BINARY);
  _setmode(_fileno(stdout), _O_BINARY);
#endif
  if (count != 4) {
    std::fprintf(stderr, "usage: embed MODEL CLASS GAIN <in.f32 >out.f32\n");
    return 2;
  }
  std::ifstream file(arguments[1], std::ios::binary);
  const std::vector<char> model{std::istreambuf_iterator<char>(file), {}};
  const std::string name = arguments[2];
  const float gain = std::strtof(arguments[3], nullptr);
  if (!(gain >= 0.0f)) {
    std::fprintf(stderr, "embed: the gain is a number from 0\n");
    return 2;
  }

  constexpr std::uint64_t blockFrames = 256;
  const std::unique_ptr<StreamProcessor> stream(
      CreateStreamProcessor(model.data(), model.size(), 0, 1, blockFrames));
  if (!stream) {
    std::fprintf(stderr, "embed: the model is refused; kalvrin check %s says why\n", arguments[1]);
    return 1;
  }
  stream->ResetGains();  // a new stream is silent
  if (!stream->SetAudioClassGain(std::u16string(name.begin(), name.end()).c_str(), gain)) {
    std::fprintf(stderr, "embed: the model has no class %s\n", name.c_str());
    return 1;
  }

  std::vector<float> block(blockFrames);
  while (const std::size_t frames = std::fread(block.data(), sizeof(float), blockFrames, stdin)) {
    float* const channels[] = {block.data()};
    stream->ProcessBlock(channels, channels, blockFrames, 1);
    std::fwrite(block.data(), sizeof(float), frames, stdout);
  }
}
