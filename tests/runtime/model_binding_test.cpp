#include "runtime/model_binding.h"
#include "runtime/model_loading.h"
#include "runtime/tensor_factory.h"
#include "support/fake_platform.h"
#include "support/outcome.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

using namespace Orvik::Tesmo;
using namespace Orvik::Tesmo::Dnn;
using Platform::Shape;
using TestSupport::FakeModel;
using TestSupport::FakeRuntime;
using TestSupport::Outcome;
using Calls = std::vector<std::string>;

Calls CallsOf(const FakeRuntime& runtime, const std::string& operation) {
  Calls calls;
  std::copy_if(runtime.GetCalls().begin(), runtime.GetCalls().end(), std::back_inserter(calls),
               [&](const std::string& call) { return call.rfind(operation, 0) == 0; });
  return calls;
}

ModelBinding Build(FakeRuntime& runtime, std::uint32_t classCount,
                   const ProcessingGeometry& geometry) {
  const auto model = LoadLearningModel(runtime, "x", 1);
  return ModelBinding(runtime, *model, ModelLayout(*model), classCount, geometry);
}

TEST(TensorFactory, MakesEveryKindThatTensorsAreMadeOf) {
  const char* const invalid = "CException: Invalid tensor kind";
  const char* const complex = "CException: Kensor kind is not supported yet";
  const struct {
    std::uint32_t kind;
    Shape shape;
    const char* outcome;  ///< of success the platform's call
  } rows[] = {
      {0, {1}, invalid},
      {14, {1}, complex},
      {15, {-1}, complex},
      {16, {1}, invalid},
      {0x80000001, {1}, invalid},
      {1, {2, 3}, "CreateTensor(1:2,3)"},
      {8, {}, "CreateTensor(8)"},
      {10, {4}, "CreateTensor(10:4)"},
      {13, {0, 1 << 30, 1 << 30}, "CreateTensor(13:0,1073741824,1073741824)"},
      {1, {-1, 4}, "bad_alloc"},
      {1, {-1, -1}, "bad_alloc"},
      {2, {1 << 16, 1 << 15}, "bad_alloc"},
      {2, {std::int64_t{1} << 62, 4, 4}, "bad_alloc"},
  };
  for (const auto& row : rows) {
    FakeRuntime runtime({});
    const std::string outcome = Outcome([&] { CreateTensor(runtime, row.kind, row.shape); });
    EXPECT_EQ(outcome == "ok" ? runtime.GetCalls().at(0) : outcome, row.outcome) << row.kind;
    EXPECT_EQ(outcome == "ok", !runtime.GetCalls().empty()) << row.kind << ": refused first";
  }
}

TEST(ModelBinding, HoldsZeroTensorsAndBuffersOfItsGeometry) {
  FakeModel fake = TestSupport::MakeFakeAudioModel(6, {1, 1});
  fake.inputs.push_back({u"x", {-1, 0, 128}, 7});
  fake.outputs.push_back({u"newX", {-1, 0, 128}, 7});
  fake.inputs.push_back({u"y", {4}, 1});
  fake.outputs.push_back({u"newY", {5}, 11});  // only its name counts
  FakeRuntime runtime(fake);
  const ModelBinding tensors = Build(runtime, 2, {6, 4, 3, 2, 3});

  EXPECT_EQ(tensors.shapes.input, (Shape{3, 6, 6}));
  EXPECT_EQ(tensors.shapes.output, (Shape{2, 3, 4, 6}));
  EXPECT_EQ(CallsOf(runtime, "CreateTensor"),
            (Calls{"CreateTensor(1:3,6,6)", "CreateTensor(1:2,3,4,6)", "CreateTensor(7:3,3,128)",
                   "CreateTensor(1:4)"}));
  const struct {
    const char* name;
    const PlanarBuffer& buffer;
    std::uint64_t length;
  } rows[] = {{"work", tensors.workBuffer, 24},
              {"history", tensors.historyBuffer, 36},
              {"class", tensors.classBuffer, 24}};
  for (const auto& row : rows) {
    EXPECT_EQ(row.buffer.channelCount, 3U) << row.name;
    EXPECT_EQ(row.buffer.channelLength, row.length) << row.name;
    for (std::size_t c = 0; c < 3; ++c)
      EXPECT_EQ(row.buffer.channels[c], row.buffer.data.get() + c * row.length) << row.name;
    EXPECT_EQ(std::count(row.buffer.data.get(), row.buffer.data.get() + 3 * row.length, 0.0F),
              static_cast<std::ptrdiff_t>(3 * row.length))
        << row.name;
  }
  const PlanarBuffer empty(0, 5);
  EXPECT_TRUE(!empty.data && !empty.channels);
}

TEST(ModelBinding, RefusesWhatDoesNotFit) {
  constexpr std::uint64_t huge = ~std::uint64_t{0};
  const char* const pairs = "CException: Model is not compatible with automatic buffer binding";
  const char* const range = "Stream sizes out of range";
  const Shape in = {-1, -1, 8}, out = {-1, -1, -1, 8};
  // clang-format off
  const struct {
    const char* name;
    Shape input, output;
    std::size_t states, newStates;
    std::uint32_t classes, lookahead;
    std::uint64_t sequence, channels;
    const char* outcome;
  } rows[] = {
      {"free", in, {-1, -1, -1, -1}, 1, 1, 2, 1, 4, 2, "ok"},
      {"smallest", {8}, {8}, 0, 0, 1, 0, 1, 1, "ok"},
      {"state without output", in, out, 1, 0, 1, 0, 4, 2, pairs},
      {"output without state", in, out, 0, 1, 1, 0, 4, 2, pairs},
      {"shapes before states", {2, -1, 8}, out, 1, 0, 1, 0, 4, 3,
       "Number of input channels cannot be changed on this model"},
      {"shapes before fit", {4, 8}, out, 0, 0, 1, 0, 3, 2,
       "Input sequence size cannot be changed on this model"},
      {"no input channels", {-1, 8}, out, 0, 0, 1, 0, 4, 2,
       "The input has no channel dimension: only 1 channel is possible"},
      {"no output channels", in, {-1, 8}, 0, 0, 1, 0, 4, 2,
       "The output has no channel dimension: only 1 channel is possible"},
      {"no input sequence", {8}, {-1, 8}, 0, 0, 1, 1, 1, 1,
       "The input has no sequence dimension: only sequence size 1 without lookahead is possible"},
      {"no output sequence", {-1, 8}, {8}, 0, 0, 1, 0, 2, 1,
       "The output has no sequence dimension: only sequence size 1 is possible"},
      {"no classes", in, in, 0, 0, 2, 0, 4, 2,
       "The output has no class dimension: only 1 audio class is possible"},
      {"longer windows out", in, {-1, -1, -1, 10}, 0, 0, 1, 0, 4, 2, "ok"},
      {"shorter windows out", in, {-1, -1, -1, 6}, 0, 0, 1, 0, 4, 2,
       "The output's windows (Features) must not be shorter than the input's"},
      {"no channels", in, out, 0, 0, 1, 0, 4, 0, "The number of channels must be at least 1"},
      {"no windows", in, out, 0, 0, 1, 0, 0, 2, "The sequence size must be at least 1"},
      {"sum wraps", in, out, 0, 0, 1, 2, huge, 1, range},
      {"product wraps", in, out, 0, 0, 1, 0, 1 << 20, huge / 2 + 1, range},
      {"low 32 bits would do", in, out, 0, 0, 1, 0, (huge >> 32) + 5, 1, range},
      {"lookahead alone", in, out, 0, 0, 1, 0x7FFFFFFF, 1, 1, range},
      {"classes alone", in, out, 0, 0, 1 << 28, 0, 1, 1, range},
  };
  // clang-format on
  for (const auto& row : rows) {
    FakeModel fake;
    fake.inputs.assign(1 + row.states, {u"input", {1}});
    fake.outputs.assign(1 + row.newStates, {u"output", {1}});
    fake.inputs[0].shape = row.input;
    fake.outputs[0].shape = row.output;
    FakeRuntime runtime(fake);
    const std::string outcome = Outcome([&] {
      Build(runtime, row.classes, {8, row.sequence, row.channels, row.lookahead, 4});
    });
    EXPECT_EQ(outcome, row.outcome) << row.name;
    if (outcome == range) {
      EXPECT_EQ(CallsOf(runtime, "CreateTensor"), Calls{}) << row.name << ": refused first";
    }
    EXPECT_EQ(runtime.GetLiveObjects(), 0) << row.name;
  }
}

}  // namespace
