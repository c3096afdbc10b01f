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
#include <functional>
#include <limits>
#include <numbers>

namespace {

using namespace TestSupport;
using Orvik::Tesmo::AssembleStream;
using Orvik::Tesmo::StreamProcessor;
using Stream = std::unique_ptr<StreamProcessor>;

/// Input [C, S + L, X], output [1, C, S, X]; X is a window or a packed spectrum. `evaluate` as in
/// FakeModel; by default the first S windows go through.
FakeModel ModelFor(const StreamSizes& sizes,
                   const std::function<ResultCode(const FakeEvaluation&)>& evaluate = nullptr) {
  const auto window = static_cast<std::int64_t>(2 * sizes.hop);
  Platform::Shape input = {-1, -1, window}, output = {-1, -1, -1, window};
  if (sizes.isSpectral) {
    input = {-1, -1, window / 2 + 1, 2};
    output = {-1, -1, -1, window / 2 + 1, 2};
  }
  const auto passThrough = [](const FakeEvaluation& evaluation) {
    const FakeTensorView& in = evaluation.inputs[0];
    const FakeTensorView& out = evaluation.outputs[0];
    const std::size_t channels = static_cast<std::size_t>(in.shape[0]);
    const std::size_t kept = out.count / channels;
    for (std::size_t c = 0; c < channels; ++c)
      std::copy_n(in.Floats() + c * (in.count / channels), kept, out.Floats() + c * kept);
    return ResultCodes::Ok;
  };
  const std::string lookahead = std::to_string(sizes.lookahead);
  return {.inputs = {{u"input", input}},
          .outputs = {{u"output", output}},
          .metadata = {{u"LookaheadNumBlocks", {lookahead.begin(), lookahead.end()}}},
          .evaluate = evaluate ? evaluate : passThrough};
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

TEST(Processor, BlocksOfAnyRhythmGiveTheDelayedInput) {
  Maker maker;
  CheckBlockPatterns(maker.Reference());
}

TEST(Processor, SizesChangeAtRunTime) {
  Maker maker;
  CheckSizeChanges(maker.Reference());
}

/// The windows before the model, seen in its input tensor, and those behind it, seen in the
/// stream's output for a model that gives 1 everywhere.
TEST(OverlapAdd, WindowsOnBothSidesOfTheModel) {
  for (const std::size_t hop : {1, 2, 3, 8, 240}) {
    for (const bool isSpectral : {false, true}) {
      const StreamSizes sizes = {
          .hop = hop, .sequence = 3, .channels = 2, .block = 3 * hop, .isSpectral = isSpectral};
      std::vector<float> seen;
      FakeRuntime runtime(ModelFor(sizes, [&](const FakeEvaluation& evaluation) {
        const FakeTensorView& in = evaluation.inputs[0];
        seen.assign(in.Floats(), in.Floats() + in.count);
        const FakeTensorView& out = evaluation.outputs[0];
        const std::size_t stride = isSpectral ? 2 * hop + 2 : 1;
        std::fill_n(out.Floats(), out.count, 0.0f);
        for (std::size_t i = 0; i < out.count; i += stride)
          out.Floats()[i] = isSpectral ? static_cast<float>(2 * hop) : 1.0f;
        return ResultCodes::Ok;
      }));
      const Stream stream = Assemble(runtime, sizes);
      stream->SetMasterGain(1.0f);
      stream->SetAudioClassGain(u"Extracted", 1.0f);
      std::vector<float> left(sizes.block, 1.0f), right(sizes.block, 0.5f);
      float* const channels[] = {left.data(), right.data()};
      stream->ProcessBlock(channels, channels, sizes.block, 1);
      stream->ProcessBlock(channels, channels, sizes.block, 1);

      const auto behind = [&](std::size_t i) {
        return isSpectral ? std::sqrt(Hann(i, hop)) : Hann(i, hop);
      };
      EXPECT_EQ(left[0], 0.0f) << sizes.Text();
      for (std::size_t i = 0; i < 3 * hop; ++i) {
        const double expected = i < hop ? behind(i) : behind(i % hop + hop) + behind(i % hop);
        // the root of a small value magnifies the rounding of the cosine
        ASSERT_NEAR(left[i], expected, isSpectral ? 5e-6 : 3e-7) << sizes.Text() << ", frame " << i;
        ASSERT_EQ(left[i], right[i]) << sizes.Text() << ", frame " << i;
      }
      // The first window begins with a hop of silence; the others hold the input throughout.
      const double before = isSpectral ? 0.0 : 1.0;
      const std::size_t window = isSpectral ? 2 * hop + 2 : 2 * hop;
      ASSERT_EQ(seen.size(), 2 * 3 * window);
      for (std::size_t c = 0; c < 2; ++c) {
        const double level = c == 0 ? 1.0 : 0.5;
        if (!isSpectral) {
          for (std::size_t i = 0; i < 3 * window; ++i)
            ASSERT_EQ(seen[c * 3 * window + i], i < hop ? 0.0 : level * before) << sizes.Text();
        } else {
          double sum = 0;  // the bin at frequency 0 is the sum of the tapered window
          for (std::size_t i = 0; i < 2 * hop; ++i)
            sum += level * std::sqrt(Hann(i, hop));
          ASSERT_NEAR(seen[c * 3 * window + window], sum, 1e-6 * sum) << sizes.Text();
        }
      }
    }
  }
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

TEST(Processor, ArgumentsOutOfRangeAreRefusedBeforeTheModelIsLoaded) {
  const std::uint64_t top = std::uint64_t{1} << 63;
  const struct {
    const char* name;
    const void* model;
    std::uint64_t channels, block;
  } rows[] = {
      {"no model", nullptr, 1, 4},         {"no channel", "model", 0, 4},
      {"block of nothing", "model", 1, 0}, {"huge block", "model", 1, top},
      {"huge count", "model", top, 1},     {"product wraps", "model", top, 2},
  };
  for (const auto& row : rows) {
    FakeRuntime runtime(ModelFor({}));
    EXPECT_THROW(AssembleStream(runtime, row.model, 5, 2, row.channels, row.block),
                 Orvik::Tesmo::ContractException)
        << row.name;
    EXPECT_TRUE(runtime.GetCalls().empty()) << row.name;
  }
}

/// Either the one failure refuses the change and nothing has changed, or it never came.
TEST(Processor, HeapFailureDuringAChangeLeavesTheOldStream) {
  for (const bool changesChannels : {false, true}) {
    const StreamSizes sizes = {.hop = 4, .sequence = 3, .channels = 2, .lookahead = 1, .block = 4};
    Maker maker;
    ComparedStream compared(maker.Reference(), sizes, TestSeed(), true);
    maker.runtimes[0].SetRecording(false);
    bool isThrough = false;
    int thrown = 0;
    for (long n = 0; !isThrough; ++n) {
      for (int i = 0; i < 4; ++i)
        ASSERT_NO_FATAL_FAILURE(compared.Process(4, 1)) << "after failure of allocation " << n - 1;
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
  const StreamSizes sizes = {
      .hop = 4, .sequence = 3, .channels = 2, .block = 16, .isSpectral = true};
  FakeRuntime runtime(ModelFor(sizes));
  runtime.SetRecording(false);
  for (long n = 0;; ++n) {
    Stream stream;
    FailingHeap heap(n, FailingHeap::Extent::One);
    try {
      stream = Assemble(runtime, sizes);
    } catch (const std::bad_alloc&) {
    } catch (const DSP::IPPException&) {
    }
    ASSERT_EQ(stream != nullptr, !heap.HasFailed()) << "allocation " << n;
    stream.reset();
    ASSERT_EQ(runtime.GetLiveObjects(), 0) << "allocation " << n;
    if (!heap.HasFailed()) break;
  }
}

}  // namespace
