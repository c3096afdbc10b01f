// What a hosted stream does on the audio thread, seen from below, in every mode.

#include "hosting/hosted_stream.h"

#include "apps/tool_process.h"
#include "plugins/lv2_host.h"
#include "plugins/plugin_models.h"
#include "realtime/watch.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

namespace {

using namespace Orvik::Tesmo::Hosting;
using namespace TestSupport;

/// Blocks of all lengths with knobs in motion, bypass and changes of mode among it.
void Play(HostedStream& stream, ModeWish mode, std::vector<float>& left,
          std::vector<float>& right) {
  float* const channels[] = {left.data(), right.data()};
  float gains[] = {0};
  const bool isShort = mode == ModeWish::Spread;  // longer calls evaluate, too
  for (std::uint32_t i = 0; i < 400; ++i) {
    std::fill(left.begin(), left.end(), 0.25F);
    std::fill(right.begin(), right.end(), i % 7 ? 0.25F : std::nanf(""));
    gains[0] = static_cast<float>(i % 72) - 60;
    Controls controls{.classGainsDb = gains,
                      .highBand = i % 9 ? HighBand::Follow : HighBand::Rest,
                      .isBypassed = i / 30 % 2 == 0,
                      .mode = mode};
    if (mode == ModeWish::Automatic)
      controls.mode = i / 60 % 2 ? ModeWish::Spread : ModeWish::Direct;
    stream.Process(channels, channels, isShort ? i % 128 : i % 50 ? i % 400 : 8192, controls);
  }
}

TEST(HostedStreamRealTime, AllocatesNothingAndWaitsForNothing) {
  const struct {
    const char* name;
    ModeWish mode;
    double hostHz;
    bool evaluates;  // on this thread
  } rows[] = {{"direct", ModeWish::Direct, 16000, true},
              {"direct, converted", ModeWish::Direct, 44100, true},
              {"spread", ModeWish::Spread, 16000, false},
              {"spread, converted", ModeWish::Spread, 192000, false},
              {"changing", ModeWish::Automatic, 48000, true}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto model = CountingModel(64, 2, 16000);
    HostedStream stream(model.description, model.bytes, row.hostHz, 2);
    std::vector<float> left(8192), right(8192);
    const Observed seen = RunWatched([&] { Play(stream, row.mode, left, right); });
    // all but to wake the worker, each time by one system call at most
    const long wakeUps = seen.ours[Act::WakeUp], systemCalls = seen.ours[Act::SystemCall];
    EXPECT_EQ(seen.ours.Sum() - wakeUps - systemCalls, 0) << seen.Text();
    EXPECT_LE(systemCalls, wakeUps) << seen.Text();
    EXPECT_EQ(wakeUps > 0, row.mode != ModeWish::Direct);
    EXPECT_EQ(seen.engines.Sum() > 0, row.evaluates);
  }
}

/// Messages, changes of the model with their fades, refusals and what goes back to the worker.
TEST(AnyModelRealTime, AllocatesNothingAndWaitsForNothing) {
  const TemporaryFolder folder;
  for (const std::int64_t window : {128, 512}) {
    AudioModelOptions options{.features = window};
    options.metadata = {{"SampleRate", "16000"}};
    WriteFile(folder / (std::to_string(window) + ".onnx"), MakeAudioModel(options));
  }
  ASSERT_EQ(folder.Run("$TOOL plugin --any --to .").exitStatus, 0);
  Lv2Host host(folder / "kalvrin-any_model.lv2", "urn:kalvrin:any_model:mono", 48000, 64);
  host.Activate();
  long changes = 0;
  for (const char* file : {"128.onnx", "512.onnx", "missing.onnx", "128.onnx", ""}) {
    host.Set("urn:kalvrin:model", folder / file);
    if (!*file) host.Set("urn:kalvrin:model", "");
    const float latency = host.Control("latency");
    for (int i = 0; i < 3; ++i) {
      const Observed seen = RunWatched([&host] {
        for (int n = 0; n < 100; ++n)
          host.Run(0.25F);
      });
      const long wakeUps = seen.ours[Act::WakeUp], systemCalls = seen.ours[Act::SystemCall];
      EXPECT_EQ(seen.ours.Sum() - wakeUps - systemCalls, 0) << file << '\n' << seen.Text();
      EXPECT_LE(systemCalls, wakeUps) << seen.Text();
      while (host.Work())
        host.Run(0);
    }
    changes += host.Control("latency") != latency;
  }
  EXPECT_EQ(changes, 4) << "all but the one that is missing";
}

}  // namespace
