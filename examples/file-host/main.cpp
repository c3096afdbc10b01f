// Runs a sound file through a model and writes the mix, in time with the input, as 32-bit floats.
// usage: file-host MODEL IN.wav OUT.wav [CLASS=GAIN]...      a gain is a linear factor

#include <kalvrin/stream_processor.h>
#include <sndfile.hh>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using Orvik::Tesmo::StreamProcessor;
using Stream = std::unique_ptr<StreamProcessor>;

namespace {

constexpr std::uint64_t blockFrames = 256;

Stream Open(const std::vector<char>& model, std::uint64_t channelCount) {
  Stream stream(CreateStreamProcessor(model.data(), model.size(), 0, channelCount, blockFrames));
  if (!stream) throw std::runtime_error("the model is refused; kalvrin check says why");
  stream->ResetGains();  // a new stream is silent
  return stream;
}

/// Runs one block of interleaved frames, in place.
void Process(StreamProcessor& stream, std::vector<float>& block, std::uint64_t channelCount) {
  std::vector<std::vector<float>> planes(channelCount, std::vector<float>(blockFrames));
  std::vector<float*> channels;
  for (auto& plane : planes)
    channels.push_back(plane.data());
  for (std::uint64_t i = 0; i < block.size(); ++i)
    planes[i % channelCount][i / channelCount] = block[i];
  stream.ProcessBlock(channels.data(), channels.data(), blockFrames, 1);
  for (std::uint64_t i = 0; i < block.size(); ++i)
    block[i] = planes[i % channelCount][i / channelCount];
}

/// Returns the latency in frames. A stream with every gain at 1 delays its input and changes
/// nothing, so an impulse shows it; LatencyFrames computes it for who knows the model's window.
std::uint64_t MeasureLatency(const std::vector<char>& model, std::uint64_t channelCount) {
  const Stream stream = Open(model, channelCount);
  for (std::uint64_t start = 0; start < 1u << 24; start += blockFrames) {
    std::vector<float> block(blockFrames * channelCount);
    if (start == 0) block[0] = 1.0f;
    Process(*stream, block, channelCount);
    for (std::uint64_t n = 0; n < blockFrames; ++n)
      if (std::abs(block[n * channelCount]) > 0.5f) return start + n;
  }
  throw std::runtime_error("no sound comes out of the stream");
}

void Run(int count, char** arguments) {
  std::ifstream file(arguments[1], std::ios::binary);
  const std::vector<char> model{std::istreambuf_iterator<char>(file), {}};
  SndfileHandle in(arguments[2]);
  if (!in) throw std::runtime_error(std::string(arguments[2]) + ": " + in.strError());
  const auto channelCount = static_cast<std::uint64_t>(in.channels());
  const Stream stream = Open(model, channelCount);
  if (const int rate = stream->GetSampleRate(); rate != 0 && rate != in.samplerate())
    throw std::runtime_error("the model wants audio at " + std::to_string(rate) + " Hz");
  for (int i = 4; i < count; ++i) {
    const std::string wish = arguments[i], name = wish.substr(0, wish.find('='));
    const std::u16string wide(name.begin(), name.end());  // of ASCII
    const float gain = std::strtof(wish.c_str() + std::min(name.size() + 1, wish.size()), nullptr);
    if (!(gain >= 0.0f) || !stream->SetAudioClassGain(wide.c_str(), gain))
      throw std::runtime_error("no class takes " + wish);
  }

  SndfileHandle out(arguments[3], SFM_WRITE, SF_FORMAT_WAV | SF_FORMAT_FLOAT, in.channels(),
                    in.samplerate());
  if (!out) throw std::runtime_error(std::string(arguments[3]) + ": " + out.strError());
  std::uint64_t late = MeasureLatency(model, channelCount);
  for (auto left = static_cast<std::uint64_t>(in.frames()); left != 0;) {
    std::vector<float> block(blockFrames * channelCount);
    in.readf(block.data(), blockFrames);  // behind the end nothing is read: silence
    Process(*stream, block, channelCount);
    const std::uint64_t skipped = std::min(late, blockFrames);
    const std::uint64_t taken = std::min(left, blockFrames - skipped);
    out.writef(block.data() + skipped * channelCount, static_cast<sf_count_t>(taken));
    late -= skipped;
    left -= taken;
  }
}

}  // namespace

int main(int count, char** arguments) {
  if (count < 4) {
    std::fprintf(stderr, "usage: file-host MODEL IN.wav OUT.wav [CLASS=GAIN]...\n");
    return 2;
  }
  try {
    Run(count, arguments);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "file-host: %s\n", error.what());
    return 1;
  }
}
