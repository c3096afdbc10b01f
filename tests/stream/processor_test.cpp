// The stream over a scripted engine: what the model is given, failures, and the heap running out.

#include "stream/assemble_stream.h"

#include "failure/exceptions.h"
#include "failure/result_code.h"
#include "stream/stream_checks.h"
#include "support/failing_heap.h"
#include "support/fake_platform.h"
#include "support/seed.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <deque>
#include <limits>
#include <numbers>

namespace {

using namespace TestSupport;
using Orvik::Tesmo::AssembleStream;
using Orvik::Tesmo::StreamProcessor;
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
  return AssembleStream(runtime, "model", 5, sizes.sequence, sizes.channels, sizes.block);
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

/// The window in double precision: periodic Hann over two hops.
double Hann(std::size_t i, std::size_t hop) {
  return 0.5 - 0.5 * std::cos(std::numbers::pi * static_cast<double>(i) / static_cast<double>(hop));
}

/// The windows before the model, seen in its input tensor, and those behind it, seen in the
/// stream's output for a model that gives 1 everywhere.
void CheckWindows(const StreamSizes& sizes) {
  SCOPED_TRACE(sizes.Text());
  const std::size_t hop = sizes.hop;
  const std::size_t window = sizes.isSpectral ? 2 * hop + 2 : 2 * hop;  // floats of the model's
  std::vector<float> seen;
  FakeModel model = ModelFor(sizes);
  model.evaluate = [&](const FakeEvaluation& evaluation) {
    const FakeTensorView& in = evaluation.inputs[0];
    const FakeTensorView& out = evaluation.outputs[0];
    seen.assign(in.Floats(), in.Floats() + in.count);
    for (std::size_t i = 0; i < out.count; ++i) {
      const float spectrum = i % window == 0 ? static_cast<float>(2 * hop) : 0.0f;
      out.Floats()[i] = sizes.isSpectral ? spectrum : 1.0f;
    }
    return ResultCodes::Ok;
  };
  FakeRuntime runtime(model);
  const Stream stream = Assemble(runtime, sizes);
  stream->ResetGains();
  stream->SetAudioClassGain(u"Rest", 0.0f);
  std::vector<float> left(sizes.block, 1.0f), right(sizes.block, 0.5f);
  float* const channels[] = {left.data(), right.data()};
  stream->ProcessBlock(channels, channels, sizes.block, 1);
  stream->ProcessBlock(channels, channels, sizes.block, 1);

  const auto behind = [&](std::size_t i) {
    return sizes.isSpectral ? std::sqrt(Hann(i, hop)) : Hann(i, hop);
  };
  EXPECT_EQ(left[0], 0.0f);
  for (std::size_t i = 0; i < 3 * hop; ++i) {
    const double expected = i < hop ? behind(i) : behind(i % hop + hop) + behind(i % hop);
    // the root of a small value magnifies the rounding of the cosine
    ASSERT_NEAR(left[i], expected, sizes.isSpectral ? 5e-6 : 3e-7) << "frame " << i;
    ASSERT_EQ(left[i], right[i]) << "frame " << i;
  }
  // The first window begins with a hop of silence; the others hold the input throughout.
  ASSERT_EQ(seen.size(), 2 * 3 * window);
  for (std::size_t c = 0; c < 2; ++c) {
    const double level = c == 0 ? 1.0 : 0.5;
    const float* const windows = seen.data() + c * 3 * window;
    if (sizes.isSpectral) {
      double sum = 0;  // the bin at frequency 0 is the sum of the tapered window
      for (std::size_t i = 0; i < 2 * hop; ++i)
        sum += level * std::sqrt(Hann(i, hop));
      ASSERT_NEAR(windows[window], sum, 1e-6 * sum);
      continue;
    }
    for (std::size_t i = 0; i < 3 * window; ++i)
      ASSERT_EQ(windows[i], i < hop ? 0.0 : level);
  }
}

TEST(OverlapAdd, WindowsOnBothSidesOfTheModel) {
  for (const std::size_t hop : {1, 2, 3, 8, 240})
    for (const bool isSpectral : {false, true})
      CheckWindows({hop, 3, 2, 0, 3 * hop, isSpectral});
}

TEST(Processor, EvaluationFailuresReachTheHostAsTheirClassAndTheStreamGoesOn) {
  const double never = std::numeric_limits<double>::infinity();
  std::mt19937_64 generator(TestSeed());
  for (const StreamSizes& sizes :
       {StreamSizes{.hop = 4, .sequence = 3, .channels = 2, .block = 4},
        StreamSizes{.hop = 4, .sequence = 3, .lookahead = 2, .block = 7},
        StreamSizes{.hop = 2, .sequence = 1, .lookahead = 1, .block = 9, .isSpectral = true}}) {
    Maker maker;
    ComparedStream compared(maker.Reference(), sizes, generator(), true);
    for (int i = 0; i < 120; ++i) {
      if (generator() % 3 == 0) {
        maker.runtimes[0].FailCall(1, ResultCodes::Canceled, "Evaluate");
        compared.Reference().FailFrom(-never);
      }
      ASSERT_NO_FATAL_FAILURE(compared.Process(sizes.block - generator() % 2, 1)) << i;
      maker.runtimes[0].StopFailing();
      compared.Reference().FailFrom(never);
    }
    EXPECT_GT(compared.Failures(), 5);
    EXPECT_EQ(maker.runtimes[0].GetHeldTensors(), 0);
  }
}

TEST(Processor, FailureCodesBecomeExceptionsOfTheHost) {
  const StreamSizes sizes = {.hop = 4, .sequence = 1, .block = 4};
  FakeRuntime runtime(ModelFor(sizes));
  const Stream stream = Assemble(runtime, sizes);
  float samples[4] = {};
  float* const channels[] = {samples};
  stream->ProcessBlock(channels, channels, 4, 1);
  const auto process = [&] { stream->ProcessBlock(channels, channels, 4, 1); };
  runtime.FailCall(1, ResultCodes::AccessDenied, "Evaluate");
  EXPECT_THROW(process(), winrt::hresult_access_denied);
  runtime.FailCall(1, ResultCodes::OutOfMemory, "Evaluate");
  EXPECT_THROW(process(), std::bad_alloc);
  runtime.FailCall(1, ResultCodes::Fail, "Acquire");
  EXPECT_THROW(process(), winrt::hresult_error);
  runtime.StopFailing();
  EXPECT_NO_THROW(process());
}

TEST(Processor, WhatIsOutOfRangeIsRefusedBeforeTheModelIsLoaded) {
  const struct {
    const void* model;
    std::uint64_t channels, block;
  } rows[] = {{nullptr, 1, 4}, {"model", 0, 4}, {"model", 1, 0}, {"model", 2, 1ULL << 63}};
  for (const auto& row : rows) {
    FakeRuntime runtime(ModelFor({}));
    EXPECT_THROW(AssembleStream(runtime, row.model, 5, 2, row.channels, row.block),
                 Orvik::Tesmo::ContractException)
        << row.channels << " channels, blocks of " << row.block;
    EXPECT_TRUE(runtime.GetCalls().empty());
  }
}

/// Either the one failure refuses the change and nothing has changed, or it never came.
TEST(Processor, HeapFailureDuringAChangeLeavesTheOldStream) {
  for (const bool changesChannels : {false, true}) {
    const StreamSizes sizes = {.hop = 4, .sequence = 3, .channels = 2, .lookahead = 1, .block = 4};
    Maker maker;
    ComparedStream compared(maker.Reference(), sizes, TestSeed(), true);
    FakeRuntime& runtime = maker.runtimes[0];
    runtime.SetRecording(false);
    const std::int64_t liveObjects = runtime.GetLiveObjects();
    bool isThrough = false;
    int thrown = 0;
    for (long n = 0; !isThrough; ++n) {
      for (int i = 0; i < 4; ++i)
        ASSERT_NO_FATAL_FAILURE(compared.Process(4, 1)) << "after failure of allocation " << n - 1;
      ASSERT_EQ(runtime.GetLiveObjects(), liveObjects) << "allocation " << n - 1;
      FailingHeap heap(n, FailingHeap::Extent::One);
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

/// With no memory at all the engine may not even take its old tensors back: the stream then throws,
/// until a change goes through.
TEST(Processor, ExhaustedHeapDuringAChangeIsOverWithTheNextChange) {
  const StreamSizes sizes = {.hop = 4, .sequence = 3, .channels = 2, .block = 4};
  Maker maker;
  ComparedStream compared(maker.Reference(), sizes, TestSeed(), true);
  maker.runtimes[0].SetRecording(false);
  bool isThrough = false;
  for (long n = 0; !isThrough; ++n) {
    {
      FailingHeap heap(n, FailingHeap::Extent::All);
      try {
        compared.Stream().SetSequenceSize(5);
      } catch (const std::bad_alloc&) {
      }
      isThrough = !heap.HasFailed();
    }
    compared.SetSequenceSize(n % 2 ? 3 : 2);
    for (int i = 0; i < 8; ++i)
      ASSERT_NO_FATAL_FAILURE(compared.Process(4, i == 0 ? 0 : 1)) << "after allocation " << n;
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
