#pragma once

// One piece of audio and what a stream that was alone in the process made of it, to the bit.

#include "kalvrin/stream_processor.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace TestSupport {

class Recording {
public:
  /// `blocks` blocks of noise within +-0.5 on two channels. The audio tells nothing of the model.
  Recording(std::string modelBytes, std::size_t blockFrames, std::size_t blocks, unsigned seed)
      : model(std::move(modelBytes)), blockFrames(blockFrames), blocks(blocks),
        input(channels * blockFrames * blocks), expected(input.size()) {
    std::mt19937 generator(seed);
    std::uniform_real_distribution<float> level(-0.5F, 0.5F);
    for (float& sample : input)
      sample = level(generator);
    const auto stream = MakeStream();
    for (std::size_t b = 0; b < blocks; ++b)
      Process(*stream, b, expected.data() + b * channels * blockFrames);
  }

  std::size_t Blocks() const { return blocks; }

  /// Throws where the model is refused.
  std::unique_ptr<Orvik::Tesmo::StreamProcessor> MakeStream() const {
    std::unique_ptr<Orvik::Tesmo::StreamProcessor> stream(
        CreateStreamProcessor(model.data(), model.size(), 0, channels, blockFrames));
    if (!stream) throw std::runtime_error("the stream is refused");
    stream->SetMasterGain(1);
    stream->SetAudioClassGain(u"Rest", 0.25F);  // all other gains are 0
    return stream;
  }

  /// Block number `block` through `stream`, which has had those before it. False where the output
  /// differs.
  bool Plays(Orvik::Tesmo::StreamProcessor& stream, std::size_t block) const {
    std::vector<float> output(channels * blockFrames);
    Process(stream, block, output.data());
    return std::memcmp(output.data(), expected.data() + block * output.size(),
                       output.size() * sizeof(float)) == 0;
  }

private:
  static constexpr std::size_t channels = 2;

  void Process(Orvik::Tesmo::StreamProcessor& stream, std::size_t block, float* output) const {
    const float* const from = input.data() + block * channels * blockFrames;
    const float* const inputs[] = {from, from + blockFrames};
    float* const outputs[] = {output, output + blockFrames};
    stream.ProcessBlock(inputs, outputs, blockFrames, 1);
  }

  std::string model;
  std::size_t blockFrames, blocks;
  std::vector<float> input, expected;  ///< block by block, in each its channels
};

}  // namespace TestSupport
