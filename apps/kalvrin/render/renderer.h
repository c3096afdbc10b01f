#pragma once

#include "audio/sound_file.h"
#include "command_line/progress.h"
#include "hosting/full_band_stream.h"
#include "model/model.h"
#include "render/mix.h"
#include "render/render_stream.h"

#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Orvik::Tesmo::Tool {

/// What the command line of `render` asks for.
struct RenderSettings {
  std::string model, input, output;
  StreamRequest stream;  // the channels come from the input
  Gains gains;
  int container = 0;  // libsndfile's number; 0 until it is settled
  std::optional<int> encoding;
  std::string stemFolder;  // empty: no stems
  bool rawLatency = false;
  bool resample = false;
  Hosting::HighBand highBand = Hosting::HighBand::Follow;
};

/// One render: reads a file and writes the mix and, where asked, the stems. Each has a stream of
/// its own; all get the same blocks.
class Renderer {
public:
  /// Opens the files, loads `model` where that has not been done, and builds the streams. `model`
  /// must outlive this object. Throws Refusal and UsageError.
  Renderer(RenderSettings settings, LoadedModel& model);

  /// Processes all audio; at the end the output files appear. Throws Refusal and Interrupted.
  void Run(ProgressLine& progress);

  /// After Run: prints what was done, as labelled lines.
  void PrintSummary(std::ostream& out) const;
  /// After Run: what the user should know, a sentence each.
  std::vector<std::string> Warnings() const;

  std::size_t ChannelCount() const { return channelCount; }
  int SampleRate() const { return reader.SampleRate(); }
  /// The length of the audio read so far.
  double AudioSeconds() const;

private:
  void BuildMix();
  void BuildStems();
  bool IsConverted() const;
  void ExpectRate() const;
  std::unique_ptr<StreamProcessor> MakeStream(Hosting::HighBand highBand);
  RenderStream& AddStream(std::unique_ptr<StreamProcessor> stream);
  std::unique_ptr<AudioWriter> MakeWriter(const std::string& path) const;
  void ReadAll(ProgressLine& progress);
  void Feed(std::span<const float> audio);
  void RunBlock(const float* interleaved);
  void Flush();

  RenderSettings settings;
  AudioReader reader;
  LoadedModel& model;
  std::size_t channelCount;
  std::uint64_t latency = 0;  // frames
  AudioFormat format;
  std::optional<StemFolder> stemFolder;
  std::vector<std::unique_ptr<RenderStream>> streams;     // the first is the mix
  std::vector<const Hosting::FullBandStream*> converted;  // those that convert, owned by `streams`
  std::vector<float> pending;  // frames that do not fill a block yet, interleaved
  std::optional<Hosting::Frames> block;
  std::uint64_t readFrames = 0;  // of the file
  std::uint64_t runFrames = 0;   // gone through the streams
};

}  // namespace Orvik::Tesmo::Tool
