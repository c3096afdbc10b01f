// The processor behind the window and VST3, called as a host would.

#include "juce/processor.h"

#include "apps/tool_process.h"
#include "realtime/watch.h"
#include "support/audio_models.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numeric>

namespace {

using namespace Orvik::Tesmo::Plugin;
using namespace TestSupport;

constexpr double rateHz = 16000;

/// Lets messages and timers of the message thread run.
void RunMessages(int milliseconds = 150) {
  juce::MessageManager::getInstance()->runDispatchLoopUntil(milliseconds);
}

/// A stereo processor that plays 0.5, and models whose first class is half of the input, or all.
class App : public testing::Test {
protected:
  App() {
    for (const auto& [name, window, gain] : {std::tuple{"half", 128, 0.5F}, {"all", 512, 1.0F}}) {
      AudioModelOptions options{.features = window, .classGains = {gain}};
      options.metadata = {{"SampleRate", "16000"},
                          {"BaselineSequenceSize", "1"},
                          {"Name", name},
                          {"License", "CC0-1.0"}};
      WriteFile(folder / (std::string(name) + ".onnx"), MakeAudioModel(options));
    }
    WriteFile(folder / "bad.onnx", "no model");
    Start();
    Set("mode", 1);  // the tests run faster than real time
    processor->prepareToPlay(rateHz, 160);
  }

  void Start() {
    processor.emplace();
    processor->setPlayConfigDetails(2, 2, rateHz, 160);
  }
  void Set(const juce::String& id, float value) {
    auto& parameter = *processor->parameters.getParameter(id);
    parameter.setValueNotifyingHost(parameter.convertTo0to1(value));
  }
  std::string NameOf(const juce::String& id) {
    return processor->parameters.getParameter(id)->getName(99).toStdString();
  }
  void Change(const std::string& name) {
    processor->ChangeModel(name.empty() ? juce::File() : juce::File(folder / name));
    while (processor->News().isLoading)
      RunMessages(5);
    RunMessages(20);
  }
  /// A second of 0.5. Steps beyond `steepest` fail the test. Returns the last sample.
  float Play(float steepest, int blockFrames = 160) {
    juce::AudioBuffer<float> audio(2, blockFrames);
    juce::MidiBuffer none;
    for (int done = 0; done < 16000; done += blockFrames) {
      for (int c = 0; c < 2; ++c)
        std::fill_n(audio.getWritePointer(c), blockFrames, 0.5F);
      processor->processBlock(audio, none);
      for (int i = 0; i < blockFrames; ++i) {
        EXPECT_LE(std::fabs(audio.getSample(1, i) - last), steepest) << "at frame " << done + i;
        last = audio.getSample(1, i);
      }
    }
    return last;
  }

  juce::ScopedJuceInitialiser_GUI messages;
  TemporaryFolder folder;
  std::optional<Processor> processor;
  float last = 0.5F;
};

TEST_F(App, ChangesTheModelWithoutAGapAndSaysWhatPlays) {
  constexpr float rounding = 1e-6F;
  EXPECT_NEAR(Play(rounding), 0.5, rounding);
  const struct {
    const char* file;
    const char* strip;
    int latency;
  } rows[] = {{"half.onnx", "Extracted", 128}, {"all.onnx", "Extracted", 512}, {"", "Class 1", 0}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.file);
    Change(row.file);
    EXPECT_NEAR(Play(rounding), 0.5, rounding);
    RunMessages();
    EXPECT_EQ(processor->getLatencySamples(), row.latency);
    EXPECT_EQ(NameOf("gain_class_1"), row.strip);
    EXPECT_EQ(NameOf("mute_gain_class_1"), std::string("Mute ") + row.strip);
    EXPECT_EQ(processor->News().licence, *row.file ? "CC0-1.0" : "");
    EXPECT_EQ(processor->IsStripUsed(0), *row.file != 0);
  }
  // where a gain is turned it fades over 50 ms, which are 800 frames
  Change("half.onnx");
  Set("gain_class_1", -60);
  EXPECT_NEAR(Play(0.01F), 0.25, rounding);
  Change("bad.onnx");
  EXPECT_NEAR(Play(rounding), 0.25, rounding);
  ExpectPart(processor->News().refusal.toStdString(), "bad.onnx is refused");
  EXPECT_EQ(processor->News().name, "half") << "it plays on";
  Change("all.onnx");
  EXPECT_NEAR(Play(0.25F / 800 * 1.01F), 0, rounding);
}

TEST_F(App, MutesSolosAndBypasses) {
  Change("half.onnx");
  const struct {
    const char* on;
    float output;  // of the class, which is half of the input, and of Rest
  } rows[] = {{"mute_gain_class_1", 0.25F},
              {"mute_rest", 0.25F},
              {"solo_gain_class_1", 0.25F},
              {"solo_gain_class_2", 0},
              {"bypass", 0.5F}};
  Set("rest", -6);
  const float rest = 0.25F * std::pow(10.0F, -0.3F);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.on);
    Set(row.on, 1);
    const bool hearsRest = std::string_view(row.on) == "mute_gain_class_1";
    EXPECT_NEAR(Play(1), hearsRest ? rest : row.output, 1e-6);
    Set(row.on, 0);
    EXPECT_NEAR(Play(1), 0.25F + rest, 1e-6);
  }
}

TEST_F(App, ShowsLevelsAndWhatWasPlayed) {
  Change("half.onnx");
  processor->SetSeen(true);
  Set("gain_class_1", -60);
  // the levels of classes come from another thread, which needs some time to make its streams
  Level strip;
  for (int i = 0; i < 200 && strip.rms < 0.24F; ++i) {
    Play(1);
    RunMessages(20);
    strip = processor->TakeStripLevel(0);
  }
  EXPECT_NEAR(strip.rms, 0.25, 0.01) << "before its gain";
  EXPECT_NEAR(processor->TakeStripLevel(processor->Strips().size() - 1).rms, 0.25, 0.01);
  EXPECT_EQ(processor->TakeInputLevel(1).peak, 0.5F);
  EXPECT_EQ(processor->TakeInputLevel(1).peak, 0) << "it has been taken";
  EXPECT_NEAR(processor->TakeOutputLevel(0).rms, 0.25, 0.01);
  // input and output of the same time
  Set("gain_class_1", 0);
  processor->SetSeen(true);
  juce::AudioBuffer<float> audio(2, 4000);
  juce::MidiBuffer none;
  for (int c = 0; c < 2; ++c)
    std::iota(audio.getWritePointer(c), audio.getWritePointer(c) + 4000, 0.0F);
  processor->processBlock(audio, none);
  std::vector<float> before(4000), after(4000);
  ASSERT_EQ(processor->TakePlayed(before.data(), after.data(), 4000), 4000);
  for (std::size_t i = 500; i < 4000; ++i)
    ASSERT_NEAR(before[i], after[i], 0.01) << i;
}

TEST_F(App, ASessionKeepsModelAndParameters) {
  Change("all.onnx");
  Set("gain_class_1", -12);
  Set("mute_rest", 1);
  const float expected = 0.5F * std::pow(10.0F, -0.6F);
  EXPECT_NEAR(Play(1), expected, 1e-6);
  juce::MemoryBlock session, again;
  processor->getStateInformation(session);
  const auto restore = [&](bool isPreparedFirst) {
    Start();
    if (isPreparedFirst) processor->prepareToPlay(rateHz, 160);
    processor->setStateInformation(session.getData(), static_cast<int>(session.getSize()));
    if (!isPreparedFirst) processor->prepareToPlay(rateHz, 160);
    last = 0;
    return Play(1);
  };
  for (const bool isPreparedFirst : {false, true})
    EXPECT_NEAR(restore(isPreparedFirst), expected, 1e-6) << isPreparedFirst;
  // a model that is missing today is in the session tomorrow
  std::filesystem::rename(folder / "all.onnx", folder / "elsewhere.onnx");
  EXPECT_NEAR(restore(true), 0.5, 1e-6);
  ExpectPart(processor->News().refusal.toStdString(), "cannot read");
  processor->getStateInformation(again);
  ExpectPart(juce::AudioProcessor::getXmlFromBinary(again.getData(), int(again.getSize()))
                 ->toString()
                 .toStdString(),
             "all.onnx");
}

/// Blocks of all lengths, changes of the model with their fades, parameters and what a window
/// reads.
TEST_F(App, AllocatesNothingAndWaitsForNothingOnTheAudioThread) {
  Set("mode", 2);
  processor->SetSeen(true);
  juce::AudioBuffer<float> audio(2, 4096);
  audio.clear();
  juce::MidiBuffer none;
  long wakeUps = 0;
  int changes = 0, latency = processor->LatencyFrames();
  for (const char* file : {"half.onnx", "all.onnx", "bad.onnx", ""}) {
    Change(file);
    Set("gain_class_1", changes % 2 ? -3.0F : -60.0F);
    Set("solo_rest", changes % 2 ? 1 : 0);
    const Observed seen = RunWatched([&] {
      for (const int frames : {32, 64, 100, 512, 4096, 32})
        for (int i = 0; i < 50; ++i) {
          juce::AudioBuffer<float> block(audio.getArrayOfWritePointers(), 2, frames);
          processor->processBlock(block, none);
        }
    });
    const long systemCalls = seen.ours[Act::SystemCall];
    wakeUps += seen.ours[Act::WakeUp];
    EXPECT_EQ(seen.ours.Sum() - seen.ours[Act::WakeUp] - systemCalls, 0) << file << seen.Text();
    EXPECT_LE(systemCalls, seen.ours[Act::WakeUp]) << file << seen.Text();
    changes += processor->LatencyFrames() != latency;
    latency = processor->LatencyFrames();
  }
  EXPECT_EQ(changes, 3) << "all but the bad one";
  EXPECT_GT(wakeUps, 0);
}

}  // namespace
