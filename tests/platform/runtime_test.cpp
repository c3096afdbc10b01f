#include "platform/onnxruntime/runtime.h"

#include "platform/rig.h"
#include "support/audio_models.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <malloc.h>

#include <filesystem>

namespace {

using namespace TestSupport;

TEST(CreateOnnxRuntime, RefusesWhatIsNoEngine) {
  const struct {
    const char* name;
    void* module;
    ResultCode code;
  } rows[] = {
      {"no module", nullptr, ResultCodes::ClassNotRegistered},
      {"another library", dlopen("libm.so.6", RTLD_NOW), ResultCodes::ClassNotAvailable},
      {"engine too old", dlopen(KALVRIN_TEST_OLD_ENGINE, RTLD_NOW), ResultCodes::ClassNotAvailable},
  };
  for (const auto& row : rows) {
    std::shared_ptr<Runtime> runtime;
    EXPECT_EQ(Hex(CreateOnnxRuntime(row.module, runtime)), Hex(row.code)) << row.name;
    EXPECT_EQ(runtime, nullptr) << row.name;
  }
}

TEST(LoadModel, RefusesBytesThatAreNoModelAndSaysWhy) {
  const std::string good = MakeAudioModel();
  const std::string unknownOperator = ModelBuilder()
                                          .Input("input", Element::Float, {1})
                                          .Output("output", Element::Float, {1})
                                          .Node("NoSuchOperator", {"input"}, {"output"})
                                          .Build();
  const struct {
    const char* name;
    std::string bytes;
    ResultCode code;
    const char* said;  ///< part of the engine's message, which is the only reason a user gets
  } rows[] = {
      {"empty", "", ResultCodes::InvalidArgument, "no model bytes"},
      {"zeros", std::string(100, '\0'), ResultCodes::InvalidArgument, "protobuf"},
      {"last byte missing", good.substr(0, good.size() - 1), ResultCodes::InvalidArgument,
       "protobuf"},
      {"unknown operator", unknownOperator, ResultCodes::InvalidArgument, "NoSuchOperator"},
      {"future opset", ModelBuilder().OpsetVersion(9999).Build(), ResultCodes::Fail, "opset"},
  };
  for (const auto& row : rows) {
    std::shared_ptr<Model> model;
    const ResultCode code = TheRuntime().LoadModel(
        row.bytes.data(), static_cast<std::uint32_t>(row.bytes.size()), model);
    EXPECT_EQ(Hex(code), Hex(row.code)) << row.name;
    EXPECT_EQ(model, nullptr) << row.name;
    const std::string said = winrt::hresult_error(code).message();
    EXPECT_NE(said.find(row.said), std::string::npos) << row.name << ": " << said;
  }
}

TEST(SessionOptions, TakeOneThreadAndABatchOfOneOnly) {
  std::shared_ptr<SessionOptions> options;
  ASSERT_EQ(Hex(TheRuntime().CreateSessionOptions(options)), Hex(ResultCodes::Ok));
  for (const std::uint32_t value : {0U, 1U, 2U}) {
    const ResultCode expected = value == 1 ? ResultCodes::Ok : ResultCodes::NotImplemented;
    EXPECT_EQ(Hex(options->SetBatchSizeOverride(value)), Hex(expected)) << value;
    EXPECT_EQ(Hex(options->SetIntraOpNumThreadsOverride(value)), Hex(expected)) << value;
  }
  std::shared_ptr<Device> device;
  EXPECT_EQ(Hex(TheRuntime().CreateDevice(static_cast<DeviceKind>(2), device)),
            Hex(ResultCodes::InvalidArgument));
}

/// The host's streams and threads are the host's, also when things go wrong.
TEST(Runtime, WritesNothingAndStartsNoThread) {
  const auto threadCount = [] {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return std::distance(begin(tasks), end(tasks));
  };
  const auto threadsBefore = threadCount();
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  std::shared_ptr<Model> model;
  EXPECT_TRUE(Failed(TheRuntime().LoadModel("nonsense", 8, model)));
  Rig rig(MakeAudioModel({.outputShape = Dimensions{1, 1, 1, 9}, .failsOnLevel = true}));
  const auto input = rig.Input("input", {1, 1, 8});
  rig.Output("output", {1, 1, 1, 8});
  EXPECT_EQ(Hex(rig.Prepare()), Hex(ResultCodes::Ok));
  Elements(*input, 8)[0] = 3;
  EXPECT_TRUE(Failed(rig.Evaluate()));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(threadCount(), threadsBefore);
}

// The sanitizers have a heap of their own.
#ifndef KALVRIN_SANITIZED

/// Bytes of the C library's heap that are in use.
std::size_t HeapInUse() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

TEST(Session, GivesItsMemoryBack) {
  const std::string model = MakeAudioModel();
  std::size_t before = 0;
  for (int round = 0; round < 30; ++round) {
    Rig rig(model);
    if (round == 5) before = HeapInUse();
  }
  EXPECT_LT(HeapInUse(), before);  // with no session at all
}

TEST(Session, SharesTheWeightsWithOthersOfTheSameBytes) {
  const std::string model = RecipeModel("separator");  // 3.5 MiB of weights
  { const Rig first(model); }                          // what the engine keeps for good
  const std::size_t before = HeapInUse();
  std::vector<std::unique_ptr<Rig>> rigs(8);
  for (auto& rig : rigs)
    rig = std::make_unique<Rig>(model);
  const std::size_t withAll = HeapInUse();
  rigs.resize(2);
  EXPECT_LT(withAll - HeapInUse(), 6 * (std::size_t{3} << 19));  // the graph is 1.46 MiB
  rigs.clear();
  EXPECT_LT(HeapInUse(), before + (1 << 18)) << "the weights go with the last session";
}

/// Between two evaluations the engine holds what it worked in, of which the least is a mebibyte.
TEST(Session, KeepsItsWorkingMemoryWhileItLives) {
  Rig rig(MakeAudioModel({.states = {{.isHeard = true}}}));
  rig.Input("input", {1, 1, 8});
  rig.Output("output", {1, 1, 1, 8});
  rig.State("state1", "newState1", {1});
  const std::size_t before = HeapInUse();
  ASSERT_EQ(Hex(rig.Prepare()), Hex(ResultCodes::Ok));
  EXPECT_GT(HeapInUse(), before + (1 << 19));
}

#endif

}  // namespace
