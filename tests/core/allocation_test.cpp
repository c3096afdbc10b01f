// The heap under the core: nothing on the audio path, and an orderly end wherever it runs out.

#include "core/kalvrin.h"
#include "support/failing_heap.h"
#include "support/fake_platform.h"
#include "support/outcome.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

using namespace Orvik::Tesmo::Dnn;
using namespace TestSupport;

/// On spectra or on samples, with whatever metadata and states allocate for.
FakeModel FullModel(bool isSpectral) {
  FakeModel model = MakeFakeSampleModel(8, {});
  if (isSpectral) {
    model.inputs[0].shape = {-1, -1, 5, 2};
    model.outputs[0].shape = {-1, -1, -1, 5, 2};
  }
  for (const auto* name : {u"a", u"a state with a name too long to be kept in place"}) {
    model.inputs.push_back({name, {-1, 3}, 8});
    model.outputs.push_back({name, {-1, 3}, 8});
  }
  model.evaluate = nullptr;
  model.metadata = {
      {u"Name", u"a name too long to be kept in place"},
      {u"LookaheadNumBlocks", u"1"},
      {u"AudioClassNames", u"[\"A class with a name too long to be kept in place\",\"B\",[[{}]]]"},
      {u"ChannelToAudioClassBindings", u"[[0,\"B\"],[7,\"C\",[{\"k\":[1,[2]]}]]]"}};
  return model;
}

TEST(Allocation, TheAudioPathAndTheGainsMakeNone) {
  for (const bool isSpectral : {false, true}) {
    FakeRuntime runtime(FullModel(isSpectral));
    runtime.SetRecording(false);
    Kalvrin core(runtime, "model", 5, 3, 2);
    std::vector<float> block(8 * 3 * 2, 1.0F);
    const FailingHeap heap(0, FailingHeap::Extent::All);
    for (int i = 0; i < 3; ++i) {
      core.EvaluateWindow(block.data(), block.data());
      core.SetMasterGain(0.5F);
      core.SetAudioClassGain(u"b", 0.5F);
      core.ResetGains();
    }
    EXPECT_FALSE(heap.HasFailed()) << isSpectral;
  }
}

TEST(Allocation, ConstructionEndsOrderlyWhereverTheHeapRunsOut) {
  for (const bool isSpectral : {false, true}) {
    FakeRuntime runtime(FullModel(isSpectral));
    runtime.SetRecording(false);
    for (long n = 0;; ++n) {
      const FailingHeap heap(n, FailingHeap::Extent::One);
      bool isRefused = false;
      try {
        const Kalvrin core(runtime, "model", 5, 3, 2);
      } catch (const std::bad_alloc&) {
        isRefused = true;
      }
      ASSERT_EQ(isRefused, heap.HasFailed()) << "allocation " << n;
      ASSERT_EQ(runtime.GetLiveObjects(), 0) << "allocation " << n;
      if (heap.HasFailed()) continue;
      EXPECT_GT(n, 50) << "or the heap is not the one that fails";
      break;
    }
  }
}

TEST(Allocation, AChangeOfSizeIsRefusedWhereverTheHeapRunsOut) {
  FakeRuntime runtime(FullModel(false));
  runtime.SetRecording(false);
  Kalvrin core(runtime, "model", 5, 3, 2);
  core.ResetGains();
  const std::int64_t liveObjects = runtime.GetLiveObjects();
  std::vector<float> block(8 * 3 * 2);
  long n = 0;
  for (bool changed = false; !changed; ++n) {
    {
      const FailingHeap heap(n, FailingHeap::Extent::One);
      changed = core.SetSequenceSize(5);
      ASSERT_EQ(changed, !heap.HasFailed()) << "allocation " << n;
    }
    ASSERT_EQ(core.GetSequenceSize(), changed ? 5U : 3U) << "allocation " << n;
    ASSERT_EQ(runtime.GetLiveObjects(), liveObjects) << "allocation " << n;
    block.resize(8 * core.GetSequenceSize() * 2);
    ASSERT_EQ(Outcome([&] { core.EvaluateWindow(block.data(), block.data()); }), "ok")
        << "allocation " << n;
  }
  EXPECT_GT(n, 10);
}

}  // namespace
