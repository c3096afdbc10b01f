// The VST3 plugin in a host that is made with the same library as the plugin.

#include "juce/processor.h"

#include "apps/audio_files.h"
#include "apps/tool_process.h"
#include "support/audio_models.h"

#include <gtest/gtest.h>

#include <cmath>
#include <malloc.h>
#include <set>

namespace {

using namespace TestSupport;

const std::string separator = KALVRIN_SEPARATOR;

using Plugin = std::unique_ptr<juce::AudioPluginInstance>;

class Vst3 : public testing::Test {
protected:
  juce::OwnedArray<juce::PluginDescription> Find(const std::string& bundle) {
    juce::OwnedArray<juce::PluginDescription> found;
    format.findAllTypesForFile(found, folder / bundle);
    return found;
  }
  Plugin Open(const std::string& bundle, double rateHz, int blockFrames, int channels = 2) {
    const auto found = Find(bundle);
    juce::String error;
    Plugin plugin;
    if (found.size() == 1)
      plugin = format.createInstanceFromDescription(*found[0], rateHz, blockFrames, error);
    if (!plugin) {
      ADD_FAILURE() << bundle << ": " << found.size() << " plugins; " << error;
      throw std::runtime_error("no plugin");
    }
    const auto set = juce::AudioChannelSet::canonicalChannelSet(channels);
    EXPECT_TRUE(plugin->setBusesLayout({{set}, {set}}));
    plugin->setNonRealtime(true);
    Prepare(*plugin, rateHz, blockFrames);
    return plugin;
  }
  /// This host asks for the latency before it starts a plugin, and hears of the right one by a
  /// message.
  static void Prepare(juce::AudioPluginInstance& plugin, double rateHz, int blockFrames) {
    plugin.prepareToPlay(rateHz, blockFrames);
    for (int i = 0; i < 100 && plugin.getLatencySamples() == 0; ++i)
      juce::MessageManager::getInstance()->runDispatchLoopUntil(20);
  }
  static juce::AudioProcessorParameter& Parameter(juce::AudioPluginInstance& plugin,
                                                  const std::string& name) {
    for (auto* parameter : plugin.getParameters())
      if (parameter->getName(99) == juce::String(name)) return *parameter;
    throw std::runtime_error("no parameter " + name);
  }
  static void SetGain(juce::AudioPluginInstance& plugin, const std::string& name, float db) {
    Parameter(plugin, name).setValue((db + 60) / 72);
  }
  /// The plugin's output in time with the input, in blocks of that many frames.
  static std::vector<float> Play(juce::AudioPluginInstance& plugin, const Audio& input,
                                 int blockFrames) {
    const auto channels = static_cast<std::size_t>(input.channels);
    const auto latency = static_cast<std::size_t>(plugin.getLatencySamples());
    std::vector<float> output;
    juce::MidiBuffer none;
    for (std::size_t begin = 0; begin < input.Frames() + latency; begin += blockFrames) {
      juce::AudioBuffer<float> block(input.channels, blockFrames);
      block.clear();
      for (std::size_t c = 0; c < channels; ++c)
        for (std::size_t i = 0; i < std::size_t(blockFrames) && begin + i < input.Frames(); ++i)
          block.setSample(int(c), int(i), input.samples[(begin + i) * channels + c]);
      plugin.processBlock(block, none);
      for (int i = 0; i < blockFrames; ++i)
        for (std::size_t c = 0; c < channels; ++c)
          output.push_back(block.getSample(int(c), i));
    }
    output.erase(output.begin(), output.begin() + std::ptrdiff_t(latency * channels));
    output.resize(input.samples.size());
    return output;
  }
  void Make(const std::string& arguments) {
    const Outcome made = folder.Run("$TOOL plugin " + arguments + " --vst3 --to .");
    ASSERT_EQ(made.exitStatus, 0) << made.err;
  }

  juce::ScopedJuceInitialiser_GUI messages;
  TemporaryFolder folder;
  juce::VST3PluginFormat format;
};

constexpr const char* bundle = "kalvrin-separator.vst3";

TEST_F(Vst3, IsTheModelOfItsBundleAndEqualsTheTool) {
  Make(separator + " --name Separator");
  const struct {
    int rateHz, channels, blockFrames;
  } rows[] = {{16000, 2, 32}, {16000, 1, 100},  {16000, 2, 512}, {16000, 2, 4096},
              {48000, 2, 64}, {48000, 1, 1000}, {48000, 2, 4096}};
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.rateHz << " Hz, " << row.channels << " channels, blocks "
                                    << row.blockFrames);
    Audio input = MakeNoise(static_cast<std::size_t>(row.rateHz), row.channels, 1);
    input.rate = row.rateHz;
    WriteAudio(folder / "in.wav", input);
    const Outcome rendered = folder.Run("$TOOL render " + separator +
                                        " in.wav out.wav --resample --encoding float "
                                        "--gain Music=-12dB --gain Speech=3dB --rest 0");
    ASSERT_EQ(rendered.exitStatus, 0) << rendered.err;
    const Plugin plugin = Open(bundle, row.rateHz, row.blockFrames, row.channels);
    EXPECT_EQ(plugin->getName(), "Separator");
    SetGain(*plugin, "Music", -12);
    SetGain(*plugin, "Speech", 3);
    Parameter(*plugin, "Mute Rest").setValue(1);
    EXPECT_EQ(Play(*plugin, input, row.blockFrames), ReadAudio(folder / "out.wav").samples);
  }
}

TEST_F(Vst3, KeepsTheWholeBand) {
  Make(separator + " --name Separator");
  for (const int rateHz : {8000, 44100, 48000, 96000, 192000}) {
    const Audio input = MakeNoise(static_cast<std::size_t>(rateHz), 2, 2);
    const Plugin plugin = Open(bundle, rateHz, 512);
    EXPECT_LT(GreatestDifference(Play(*plugin, input, 512), input.samples), 3e-7) << rateHz;
    // bypassed it is the input to the bit
    Parameter(*plugin, "Bypass").setValue(1);
    SetGain(*plugin, "Master", -60);
    Prepare(*plugin, rateHz, 512);
    EXPECT_EQ(Play(*plugin, input, 512), input.samples) << rateHz;
  }
}

TEST_F(Vst3, PluginsOfModelsAreDifferentPluginsAndKeepTheirState) {
  Make(separator + " --name Separator");
  Make(separator + " --name Other");
  Make("--any");
  std::set<int> numbers;
  for (const char* name : {"separator", "other", "any_model"})
    for (const auto* found : Find(std::string("kalvrin-") + name + ".vst3"))
      numbers.insert(found->uniqueId);
  EXPECT_EQ(numbers.size(), 3);

  juce::MemoryBlock state;
  {
    const Plugin plugin = Open(bundle, 16000, 512);
    SetGain(*plugin, "Speech", -12);
    Parameter(*plugin, "Solo Music").setValue(1);
    Play(*plugin, MakeNoise(1000, 2, 3), 512);
    plugin->getStateInformation(state);
  }
  const Plugin plugin = Open(bundle, 16000, 512);
  plugin->setStateInformation(state.getData(), static_cast<int>(state.getSize()));
  EXPECT_EQ(Parameter(*plugin, "Speech").getCurrentValueAsText(), "-12.00 dB");
  EXPECT_EQ(Parameter(*plugin, "Solo Music").getValue(), 1);
  EXPECT_EQ(Parameter(*plugin, "Rest").getCurrentValueAsText(), "0.00 dB");

  // of the one that takes any, the gains have the names of its model's classes
  const Plugin any = Open("kalvrin-any_model.vst3", 16000, 512);
  EXPECT_NO_THROW(Parameter(*any, "Class 8"));
}

TEST_F(Vst3, OpenedAHundredTimesItLeavesNothingBehind) {
  Make(separator + " --name Separator");
  const Audio input = MakeNoise(1000, 2, 4);
  const bool hasScreen = juce::SystemStats::getEnvironmentVariable("DISPLAY", {}).isNotEmpty();
  // as in a program of its own, JUCE goes on where a screen without a window manager misses a name
  juce::JUCEApplicationBase::createInstance = []() -> juce::JUCEApplicationBase* {
    return nullptr;
  };
  const auto open = [&](int times) {
    for (int i = 0; i < times; ++i) {
      const Plugin plugin = Open(bundle, 48000, 512);
      Play(*plugin, input, 512);
      if (!hasScreen) continue;
      const std::unique_ptr<juce::AudioProcessorEditor> window(plugin->createEditor());
      window->addToDesktop(0);
      window->setVisible(true);
      juce::MessageManager::getInstance()->runDispatchLoopUntil(50);
    }
  };
  const auto count = [](const char* folder) {
    return std::distance(std::filesystem::directory_iterator(folder), {});
  };
  open(10);
  const auto threads = count("/proc/self/task"), files = count("/proc/self/fd");
  const auto bytes = static_cast<std::ptrdiff_t>(mallinfo2().uordblks);
  open(100);
  EXPECT_EQ(count("/proc/self/task"), threads);
  EXPECT_EQ(count("/proc/self/fd"), files);
  EXPECT_LT(static_cast<std::ptrdiff_t>(mallinfo2().uordblks) - bytes, 200 << 10);
}

}  // namespace
