#pragma once

// A stream beside its plain model, however it was made. What differs is reported through
// GoogleTest.

#include "kalvrin/stream_processor.h"
#include "stream/reference_stream.h"

#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <vector>

namespace TestSupport {

/// Samples of full scale 1 agree within this.
inline constexpr double Tolerance = 6e-7;

/// A host's planar arrays, with room behind the block that nobody may write.
struct HostBlock {
  HostBlock(std::uint64_t channels, std::uint64_t frames, float value)
      : samples(channels, std::vector<float>(frames + 8, value)) {
    for (auto& channel : samples)
      pointers.push_back(channel.data());
  }

  std::vector<std::vector<float>> samples;
  std::vector<float*> pointers;
};

/// Makes a stream of these sizes with every gain at 0; over a model of one class that passes its
/// input through, where nothing else is said.
using StreamMaker =
    std::function<std::unique_ptr<Orvik::Tesmo::StreamProcessor>(const StreamSizes&)>;

/// One stream beside its plain model, both given the same blocks.
class ComparedStream {
public:
  /// Every gain is 1: the stream returns its input. With `fromModel` the gain of the remainder is 0
  /// instead, so that it returns the output of the model.
  ComparedStream(const StreamMaker& make, const StreamSizes& sizes, std::uint64_t seed,
                 bool fromModel = false);

  /// Gives both a block of noise and compares what comes back; also that nothing beyond the block
  /// is written. With `inPlace` the host's input arrays are its output arrays. Where the plain
  /// model says that an evaluation fails, ProcessBlock must throw and write nothing.
  void Process(std::uint64_t frames, std::int32_t continuation, bool inPlace = false);
  /// The change is one that the model accepts.
  void SetSequenceSize(std::uint64_t size);
  void SetChannelCount(std::uint64_t count);

  /// Every sample of the blocks to come; nullopt: noise.
  void SetSignal(std::optional<float> value) { signal = value; }
  int Failures() const { return failures; }
  /// Samples agree within Tolerance times this.
  void SetScale(double fullScale) { scale = fullScale; }

  Orvik::Tesmo::StreamProcessor& Stream() { return *stream; }
  ReferenceStream& Reference() { return reference; }

private:
  StreamSizes sizes;
  std::unique_ptr<Orvik::Tesmo::StreamProcessor> stream;
  ReferenceStream reference;
  std::mt19937_64 generator;
  std::uint64_t position = 0;
  double scale = 1.0;
  std::optional<float> signal;
  int failures = 0;
};

}  // namespace TestSupport
