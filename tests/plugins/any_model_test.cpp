// The LV2 plugin that takes any model, in a host with worker, messages and state.

#include "apps/tool_process.h"
#include "plugins/lv2_host.h"
#include "support/audio_models.h"

#include <gtest/gtest.h>

#include <cmath>
#include <malloc.h>

namespace {

using namespace TestSupport;

constexpr double rateHz = 16000;
constexpr std::uint32_t block = 160;
constexpr const char* modelProperty = "urn:kalvrin:model";
constexpr const char* statusProperty = "urn:kalvrin:status";

/// A folder with the bundle and three models: their first class is half of the input, all of it,
/// and all of it for two channels only.
class AnyModel : public testing::Test {
protected:
  AnyModel() {
    Write("half", {.features = 128, .classGains = {0.5F}});
    Write("all", {.features = 512, .classGains = {1}});
    Write("pair", {.features = 64, .inputShape = Dimensions{2, -1, 64}});
    WriteFile(folder / "bad.onnx", "no model");
    const Outcome made = folder.Run("$TOOL plugin --any --to .");
    EXPECT_EQ(made.exitStatus, 0) << made.err;
    Start();
    host->Activate();
  }
  void Start() {
    host.emplace(folder / "kalvrin-any_model.lv2", "urn:kalvrin:any_model:mono", rateHz, block);
    host->Control("mode") = 1;  // the test runs faster than real time
  }
  void Write(const std::string& name, AudioModelOptions options) const {
    options.metadata = {{"SampleRate", "16000"}, {"BaselineSequenceSize", "1"}, {"Name", name}};
    WriteFile(folder / (name + ".onnx"), MakeAudioModel(options));
  }
  /// Runs for a second with the worker at work, with 0.5 as the input. Steps beyond `steepest` fail
  /// the test. Returns the last sample; `status` is the plugin's last word.
  float Play(float steepest) {
    for (int i = 0; i < 100; ++i) {
      for (const float sample : host->Run(0.5F)) {
        EXPECT_LE(std::fabs(sample - last), steepest) << "in block " << i;
        last = sample;
      }
      for (const auto& [property, text] : host->Said())
        (property == statusProperty ? status : model) = text;
      host->Work();
    }
    return last;
  }
  float Change(const std::string& file, float steepest) {
    host->Set(modelProperty, file.empty() ? "" : folder / file);
    return Play(steepest);
  }

  TemporaryFolder folder;
  std::optional<Lv2Host> host;
  float last = 0.5F;
  std::string status, model;
};

TEST_F(AnyModel, ChangesWithoutAGap) {
  constexpr float rounding = 1e-6F;
  EXPECT_NEAR(Play(rounding), 0.5, rounding);
  EXPECT_EQ(host->Control("latency"), 0);
  // with all gains at 0 dB nobody hears a change
  const struct {
    const char* file;
    float latency;
    const char* status;
  } rows[] = {{"half.onnx", 128, "half: Class 1 is Extracted"},
              {"all.onnx", 512, "all: Class 1 is Extracted"},
              {"", 0, "no model: the input plays"},
              {"all.onnx", 512, "all: Class 1 is Extracted"},
              {"half.onnx", 128, "half: Class 1 is Extracted"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.file);
    EXPECT_NEAR(Change(row.file, rounding), 0.5, rounding);
    EXPECT_EQ(host->Control("latency"), row.latency);
    EXPECT_EQ(status, row.status);
  }
  // else it fades over 50 ms, which are 800 frames
  host->Control("gain_class_1") = -60;
  EXPECT_NEAR(Play(0.01F), 0.25, rounding);
  EXPECT_NEAR(Change("all.onnx", 0.25F / 800 * 1.01F), 0, rounding);
}

TEST_F(AnyModel, ARefusedModelChangesNothingAndSaysWhy) {
  Change("half.onnx", 1e-6F);
  host->Control("gain_class_1") = -60;
  Play(0.01F);
  for (const auto& [file, text] : {std::pair{"bad.onnx", "bad.onnx is refused"},
                                   {"missing.onnx", "cannot read"},
                                   {"pair.onnx", "asked for: 1 channel"},
                                   {"kalvrin-any_model.lv2", "is no file"}}) {
    EXPECT_NEAR(Change(file, 1e-6F), 0.25, 1e-6);
    ExpectPart(status, text);
    EXPECT_EQ(model, folder / "half.onnx") << "the one that is heard";
  }
}

TEST_F(AnyModel, ASessionKeepsTheModel) {
  Change("all.onnx", 1e-6F);
  std::filesystem::create_directory(folder / "session");
  host->Save(folder / "session");
  for (const bool withWorker : {false, true}) {
    Start();
    host->Restore(folder / "session", withWorker);
    if (!withWorker) host->Activate();
    host->Control("gain_class_1") = -60;
    EXPECT_NEAR(Play(1), 0, 1e-6) << withWorker;
    EXPECT_EQ(host->Control("latency"), 512);
  }
  // a model that is missing today is in the session tomorrow
  std::filesystem::rename(folder / "all.onnx", folder / "elsewhere.onnx");
  Start();
  host->Restore(folder / "session", false);
  EXPECT_NEAR(Play(1), 0.5, 1e-6);
  ExpectPart(status, "cannot read");
  std::filesystem::create_directory(folder / "again");
  host->Save(folder / "again");
  ExpectPart(ReadFile(folder / "again/state.ttl"), "all.onnx");
}

std::ptrdiff_t ThreadCount() {
  const std::filesystem::directory_iterator threads("/proc/self/task");
  return std::distance(begin(threads), end(threads));
}

TEST_F(AnyModel, AHundredModelsLeaveNothingBehind) {
  const auto load = [&](int count) {
    for (int i = 0; i < count; ++i)
      Change(i % 2 ? "all.onnx" : "half.onnx", 1e-6F);
  };
  load(10);
  const auto threads = ThreadCount();
  const auto bytes = static_cast<std::ptrdiff_t>(mallinfo2().uordblks);
  load(100);
  EXPECT_EQ(ThreadCount(), threads);
  EXPECT_LT(static_cast<std::ptrdiff_t>(mallinfo2().uordblks) - bytes, 100 << 10);
}

}  // namespace
