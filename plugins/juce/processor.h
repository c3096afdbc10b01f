#pragma once

#include "juce/class_meters.h"
#include "juce/levels.h"
#include "wrapper/instance.h"
#include "wrapper/model_exchange.h"

#include <juce_audio_processors/juce_audio_processors.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace Orvik::Tesmo::Plugin {

/// What there is to say of the model that plays, and of the last one asked for.
struct ModelNews {
  juce::File file;            // none: there is no model, and the input plays
  juce::String name;          // one line
  double sampleRateHz = 0;    // 0: any
  juce::StringArray classes;  // all that a gain can reach, without Rest; gains are for the first
  juce::String licence;       // in the model's words; empty: it does not say
  juce::String refusal;       // why the last file asked for does not play; empty: it does
  juce::File refusedFile;
  bool isLoading = false;  // one asked for is not there yet
};

/// The ids of the parameters of one class, or of Rest.
struct StripIds {
  juce::String gain, mute, solo;
};

/// The plugin and the program: a stream behind JUCE's parameters. The audio goes through the
/// stream of the other plugins, Instance.
///
/// Parameters, in `parameters`: the gains of Strips() and "master" in dB from -60, which is mute,
/// to 12; mute and solo of each strip, and "mute_master", on or off; "bypass"; where there is a
/// choice "mode" (Automatic, Direct, Spread) and "high_band" (Follow, Rest). A strip is silent
/// where it is muted or another is solo and it is not. The names of gains change with the model,
/// the ids do not.
///
/// processBlock is for the audio thread. It allocates, locks and waits for nothing of its own. All
/// that a window reads and sets is for the message thread.
class Processor final : public juce::AudioProcessor,
                        public juce::ChangeBroadcaster,
                        private juce::AsyncUpdater,
                        private juce::Timer {
  // before the parameters, whose names come from here
  mutable std::mutex mutex;      // not for the audio thread
  Hosting::Description playing;  // the model in the news
  std::vector<StripIds> strips;

public:
  Processor();
  ~Processor() override;

  /// Before `parameters`, which records in it.
  juce::UndoManager undo;
  /// A window may keep things of its own in `parameters.state`, in a child of the type "window";
  /// sessions keep it. Nobody else changes it, but a session replaces the whole tree.
  juce::AudioProcessorValueTreeState parameters;

  /// One for each gain of a class, then Rest.
  const std::vector<StripIds>& Strips() const { return strips; }
  /// The name of a strip with the model that plays: "Speech"; "Class 3" where it has no such class.
  juce::String StripName(std::size_t strip) const;
  /// Whether the model that plays has that strip's class.
  bool IsStripUsed(std::size_t strip) const;
  /// Whether any strip has its solo on. Any thread.
  bool HasSolo() const;
  /// Whether mute or, with HasSolo, another's solo silences a strip, or the master, which is after
  /// the last of them. Any thread.
  bool IsSilenced(std::size_t strip, bool hasSolo) const;

  /// Else the plugin is of one model, and ChangeModel does nothing.
  bool TakesAnyModel() const;
  /// Loads it on a thread of its own; no file: no model. Returns at once. A model that is refused
  /// changes nothing but the news. Listeners of the ChangeBroadcaster hear of every change of the
  /// news.
  void ChangeModel(const juce::File& file);
  ModelNews News() const;

  // Of the audio that plays now:

  /// 0 to 1; at 1 audio is lost.
  float Load() const { return load.load(std::memory_order_relaxed); }
  int LateResults() const { return lateResults.load(std::memory_order_relaxed); }
  /// In frames of the host; getLatencySamples() follows soon after.
  int LatencyFrames() const { return latencyFrames.load(std::memory_order_relaxed); }

  // For one window at a time:

  /// Levels of classes and played samples cost time, the classes an evaluation each; they are there
  /// while a window is seen.
  void SetSeen(bool isSeen);
  Level TakeInputLevel(int channel);
  Level TakeOutputLevel(int channel);
  /// Before the gain of the strip, about as late as the output.
  Level TakeStripLevel(std::size_t strip);
  /// Copies up to `most` frames that were played since the last call and returns how many. Both are
  /// means of the channels, and of the same time: `before` is the input that `after` was made of.
  int TakePlayed(float* before, float* after, int most);

  // juce::AudioProcessor
  const juce::String getName() const override;
  void prepareToPlay(double sampleRate, int blockFrames) override;
  void releaseResources() override {}
  void processBlock(juce::AudioBuffer<float>& audio, juce::MidiBuffer& messages) override;
  using juce::AudioProcessor::processBlock;
  bool isBusesLayoutSupported(const BusesLayout& layout) const override;
  juce::AudioProcessorParameter* getBypassParameter() const override;
  double getTailLengthSeconds() const override;
  bool acceptsMidi() const override { return false; }
  bool producesMidi() const override { return false; }
  bool hasEditor() const override { return true; }
  juce::AudioProcessorEditor* createEditor() override;
  int getNumPrograms() override { return 1; }
  int getCurrentProgram() override { return 0; }
  void setCurrentProgram(int) override {}
  const juce::String getProgramName(int) override { return {}; }
  void changeProgramName(int, const juce::String&) override {}
  void getStateInformation(juce::MemoryBlock& data) override;
  /// Loads the session's model before it returns.
  void setStateInformation(const void* data, int size) override;

private:
  using Parameters = juce::AudioProcessorValueTreeState::ParameterLayout;
  Parameters MakeParameters();
  void handleAsyncUpdate() override;
  void timerCallback() override;
  void MakeInstance(const StreamWish& now);
  void LoadModel(const std::string& file);
  void ReadParameters();
  void Report();
  void Work();
  void RunClassMeters();

  static constexpr std::size_t playedFrames = 1 << 16;
  struct Fader {
    const std::atomic<float>*gain, *mute, *solo;  // the master has no solo
  };
  std::vector<Fader> faders;  // of the strips, then of the master
  struct Control {
    std::size_t port;
    const std::atomic<float>* value;
    std::optional<std::size_t> fader;
  };

  // Of the stream. Changed by prepareToPlay only, while no audio runs.
  std::optional<Form> form;
  std::unique_ptr<Instance> instance;  // null where the host's rate is out of range
  std::vector<float> values;           // by port
  std::vector<Control> controls;
  ModelExchange exchange;

  // From the audio thread.
  std::atomic<float> load = 0;
  std::atomic<int> lateResults = 0, latencyFrames = 0;
  std::array<LevelMeter, Hosting::mostChannels> inputMeters, outputMeters;
  std::vector<LevelMeter> stripMeters;
  std::unique_ptr<AudioPipe> toClassMeters;  // made anew as `instance` is
  AudioPipe before{1, playedFrames}, after{1, playedFrames};
  std::atomic<bool> isSeen = false;

  std::vector<float> delayed;  // of TakePlayed: a ring of the last input
  std::size_t delayedPlace = 0;
  int lastLatency = 0;  // of the timer

  std::mutex loading;  // one at a time loads, prepares or meters classes
  std::unique_ptr<ClassMeters> classMeters;
  std::uint64_t meteredNumber = 0;  // of the model in them

  // under `mutex`:
  std::condition_variable wake;
  bool ends = false;
  std::optional<std::string> wanted;  // by ChangeModel
  std::string sessionFile;            // that sessions keep
  StreamWish wish;                    // a rate of 0: not prepared
  ModelNews news;
  std::uint64_t modelNumber = 0;  // of that in the news
  std::thread worker;
};

}  // namespace Orvik::Tesmo::Plugin
