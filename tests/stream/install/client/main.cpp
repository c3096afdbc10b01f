#include <kalvrin/stream_processor.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

int main(int, char** arguments) {
  std::ifstream file(arguments[1], std::ios::binary);
  const std::vector<char> model{std::istreambuf_iterator<char>(file), {}};
  const std::unique_ptr<Orvik::Tesmo::StreamProcessor> stream(
      CreateStreamProcessor(model.data(), model.size(), 0, 1, 64));
  if (!stream) return 1;
  stream->ResetGains();
  std::vector<float> samples;
  for (int block = 0; block < 20; ++block) {
    samples.assign(64, 0.5f);
    float* channels[] = {samples.data()};
    stream->ProcessBlock(channels, channels, 64, 1);
  }
  return samples.back() > 0.49f && samples.back() < 0.51f ? 0 : 2;
}
