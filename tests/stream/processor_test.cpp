// The stream over a scripted engine: refusals, and the heap running out.

#include "stream/set_up.h"

#include "failure/exceptions.h"
#include "stream/compared_stream.h"
#include "stream/overlap_add_stage.h"
#include "stream/windowed_stream_processor.h"
#include "support/failing_heap.h"
#include "support/fake_platform.h"
#include "support/seed.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <deque>

namespace {

using namespace TestSupport;
using namespace Orvik::Tesmo;
using Orvik::Tesmo::Dnn::Kalvrin;
using Stream = std::unique_ptr<StreamProcessor>;

/// Passes its first class, the first S windows, through. Names, metadata and states are such that
/// all that a model can bring has to be allocated for.
FakeModel ModelFor(const StreamSizes& sizes) {
  FakeModel model =
      MakeFakeAudioModel(static_cast<std::int64_t>(2 * sizes.hop), {1}, sizes.isSpectral);
  for (const auto* name : {u"a", u"a state with a name too long to be kept in place"}) {
    model.inputs.push_back({name, {-1, 3}, 8});
    model.outputs.push_back({name, {-1, 3}, 8});
  }
  const std::string lookahead = std::to_string(sizes.lookahead);
  model.metadata = {
      {u"Name", u"a name too long to be kept in place"},
      {u"LookaheadNumBlocks", {lookahead.begin(), lookahead.end()}},
      {u"AudioClassNames", u"[\"A class with a name too long to be kept in place\",[[{}]]]"},
      {u"ChannelToAudioClassBindings", u"[[7,\"C\",[{\"k\":[1,[2]]}]]]"}};
  return model;
}

Stream Assemble(FakeRuntime& runtime, const StreamSizes& sizes) {
  return AssembleStream(runtime.Shared(), runtime.Load(), sizes.sequence, sizes.channels,
                        sizes.block);
}

/// Makes streams each on an engine of its own, and keeps the engines.
struct Maker {
  Stream operator()(const StreamSizes& sizes) {
    return Assemble(runtimes.emplace_back(ModelFor(sizes)), sizes);
  }
  StreamMaker Reference() {
    return [this](const StreamSizes& sizes) { return (*this)(sizes); };
  }
  std::deque<FakeRuntime> runtimes;
};

TEST(Processor, WhatIsOutOfRangeIsRefusedBeforeTheCoreIsBuilt) {
  const struct {
    std::uint64_t channels, block;
  } rows[] = {{0, 4}, {1, 0}, {2, 1ULL << 30}, {2, 1ULL << 63}};
  FakeRuntime runtime(ModelFor({}));
  const auto model = runtime.Load();
  runtime.ClearCalls();
  for (const auto& row : rows)
    EXPECT_THROW(AssembleStream(runtime.Shared(), model, 2, row.channels, row.block),
                 ContractException)
        << row.channels << " channels, blocks of " << row.block;
  EXPECT_TRUE(runtime.GetCalls().empty());
  auto core = std::make_unique<Kalvrin>(runtime.Shared(), model, 2, 1);
  EXPECT_THROW(OverlapAddStage(4, 0, 1, 0), ContractException);
  EXPECT_THROW(WindowedStreamProcessor(std::move(core), nullptr, 2, 1, 0), ContractException);
}

/// With a model that returns ones once and then zeros the output is the window itself. It is
/// defined in single precision, step by step; rounded from double it differs in hundreds of bits.
TEST(Processor, TheWindowIsThatOfSinglePrecision) {
  constexpr std::uint64_t hop = 240;
  FakeModel model = MakeFakeAudioModel(2 * hop, {1});
  float level = 1;
  model.evaluate = [&level](const FakeEvaluation& run) {
    std::fill_n(run.outputs[0].Floats(), run.outputs[0].count, level);
    return ResultCodes::Ok;
  };
  FakeRuntime runtime(model);
  const Stream stream = AssembleStream(runtime.Shared(), runtime.Load(), 1, 1, hop);
  stream->ResetGains();
  stream->SetAudioClassGain(u"Rest", 0);
  std::vector<float> window;
  for (int block = 0; block < 3; ++block) {
    std::vector<float> samples(hop);
    float* const channels[] = {samples.data()};
    stream->ProcessBlock(channels, channels, hop, 1);
    if (block > 0) window.insert(window.end(), samples.begin(), samples.end());
    if (block > 0) level = 0;
  }
  const float step = 6.2831855F / (2.0F * hop);
  for (std::size_t i = 0; i < window.size(); ++i)
    ASSERT_EQ(window[i], (1.0F - std::cos(static_cast<float>(i) * step)) * 0.5F) << i;
}

/// Only what 32 bits cannot count is out of range; what is left is a question of memory, and a size
/// that the model does not have costs none.
TEST(Processor, LargeSizesAreAQuestionOfMemory) {
  const std::uint64_t none = 0, range = 1ULL << 31;  // a window has 8 frames
  const struct {
    const char* name;
    bool hasFixedWindows;
    std::uint64_t sequence, channels;
    bool isAskedOfTheHeap;
  } rows[] = {
      {"gigabytes of windows", false, range / 16, none, true},
      {"windows out of range", false, range / 8, none, false},
      {"gigabytes of channels", false, none, range / 64, true},
      {"channels out of range", false, none, range / 16, false},
      {"channels out of any range", false, none, ~none, false},
      {"windows that the model does not have", true, 60000, none, false},
  };
  for (const auto& row : rows) {
    FakeModel model = ModelFor({.hop = 4});
    if (row.hasFixedWindows) model.inputs[0].shape[1] = 2;
    FakeRuntime runtime(model);
    runtime.SetRecording(false);
    const Stream stream = AssembleStream(runtime.Shared(), runtime.Load(), 2, 1, 4);
    const FailingHeap heap(std::size_t{1} << 16);
    try {
      if (row.sequence)
        stream->SetSequenceSize(row.sequence);
      else
        stream->SetChannelCount(row.channels);
      EXPECT_FALSE(row.isAskedOfTheHeap) << row.name;
    } catch (const std::bad_alloc&) {
      EXPECT_TRUE(row.isAskedOfTheHeap) << row.name;
    }
    EXPECT_EQ(heap.HasFailed(), row.isAskedOfTheHeap) << row.name;
  }
}

/// Whether one allocation fails or all from one on: the change is refused and nothing has changed.
TEST(Processor, HeapFailureDuringAChangeLeavesTheOldStream) {
  for (const auto extent : {FailingHeap::Extent::One, FailingHeap::Extent::All})
    for (const bool changesChannels : {false, true}) {
      const StreamSizes sizes = {
          .hop = 4, .sequence = 3, .channels = 2, .lookahead = 1, .block = 4};
      Maker maker;
      ComparedStream compared(maker.Reference(), sizes, TestSeed(), true);
      FakeRuntime& runtime = maker.runtimes[0];
      runtime.SetRecording(false);
      const std::int64_t liveObjects = runtime.GetLiveObjects();
      bool isThrough = false;
      int thrown = 0;
      for (long n = 0; !isThrough; ++n) {
        for (int i = 0; i < 4; ++i)
          ASSERT_NO_FATAL_FAILURE(compared.Process(4, 1))
              << "after failure of allocation " << n - 1;
        ASSERT_EQ(runtime.GetLiveObjects(), liveObjects) << "allocation " << n - 1;
        FailingHeap heap(n, extent);
        try {
          if (changesChannels)
            compared.Stream().SetChannelCount(5);
          else
            compared.Stream().SetSequenceSize(6);
        } catch (const std::bad_alloc&) {
          ++thrown;
        }
        isThrough = !heap.HasFailed();
      }
      EXPECT_GT(thrown, 5) << "the stream's own arrays were not among what failed";
      if (changesChannels)
        compared.SetChannelCount(5);
      else
        compared.SetSequenceSize(6);
      for (int i = 0; i < 20; ++i)
        ASSERT_NO_FATAL_FAILURE(compared.Process(4, i == 0 ? 0 : 1));
    }
}

TEST(Processor, HeapFailureDuringAssemblyLeavesNothingBehind) {
  for (const bool isSpectral : {false, true}) {
    const StreamSizes sizes = {4, 3, 2, 1, 16, isSpectral};
    FakeRuntime runtime(ModelFor(sizes));
    runtime.SetRecording(false);
    long n = 0;
    for (bool isThrough = false; !isThrough; ++n) {
      Stream stream;
      FailingHeap heap(n, FailingHeap::Extent::One);
      try {
        stream = Assemble(runtime, sizes);
      } catch (const std::bad_alloc&) {
      } catch (const DSP::IPPException&) {
      }
      isThrough = !heap.HasFailed();
      ASSERT_EQ(stream != nullptr, isThrough) << "allocation " << n;
      stream.reset();
      ASSERT_EQ(runtime.GetLiveObjects(), 0) << "allocation " << n;
    }
    EXPECT_GT(n, 50) << "or the heap is not the one that fails";
  }
}

}  // namespace
