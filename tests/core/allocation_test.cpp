// The heap under the core: nothing on the audio path, and an orderly end wherever it runs out.

#include "core/kalvrin.h"
#include "support/fake_platform.h"
#include "support/outcome.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <vector>

namespace {

/// Of this thread, since the last reset.
struct Heap {
  std::int64_t allocations = 0;
  std::int64_t live = 0;
  std::int64_t failsAt = 0;  ///< the allocation that fails, from 1; 0: none
};
thread_local Heap heap;

void* Allocate(std::size_t size) {
  if (++heap.allocations == heap.failsAt) throw std::bad_alloc();
  void* block = std::malloc(size ? size : 1);
  if (!block) throw std::bad_alloc();
  ++heap.live;
  return block;
}

void Free(void* block) noexcept {
  heap.live -= block ? 1 : 0;
  std::free(block);
}

}  // namespace

void* operator new(std::size_t size) {
  return Allocate(size);
}
void* operator new[](std::size_t size) {
  return Allocate(size);
}
void operator delete(void* block) noexcept {
  Free(block);
}
void operator delete[](void* block) noexcept {
  Free(block);
}
void operator delete(void* block, std::size_t) noexcept {
  Free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
  Free(block);
}

namespace {

using namespace Orvik::Tesmo::Dnn;
using TestSupport::FakeModel;
using TestSupport::FakeRuntime;
using TestSupport::Outcome;

/// On spectra or on samples, with whatever metadata and states allocate for.
FakeModel FullModel(bool isSpectral) {
  FakeModel model = TestSupport::MakeFakeSampleModel(8, {});
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
    heap.allocations = 0;
    for (int i = 0; i < 3; ++i) {
      core.EvaluateWindow(block.data(), block.data());
      core.SetMasterGain(0.5F);
      core.SetAudioClassGain(u"b", 0.5F);
      core.ResetGains();
    }
    EXPECT_EQ(heap.allocations, 0) << isSpectral;
  }
}

TEST(Allocation, ConstructionEndsOrderlyWhereverTheHeapRunsOut) {
  for (const bool isSpectral : {false, true}) {
    FakeRuntime runtime(FullModel(isSpectral));
    runtime.SetRecording(false);
    const std::int64_t live = heap.live;
    std::int64_t n = 0;
    for (bool reached = true; reached;) {
      bool isRefused = false;
      heap.allocations = 0;
      heap.failsAt = ++n;
      try {
        const Kalvrin core(runtime, "model", 5, 3, 2);
      } catch (const std::bad_alloc&) {
        isRefused = true;
      }
      reached = heap.allocations >= heap.failsAt;
      heap.failsAt = 0;
      ASSERT_EQ(isRefused, reached) << "allocation " << n;
      ASSERT_EQ(heap.live, live) << "allocation " << n;
      ASSERT_EQ(runtime.GetLiveObjects(), 0) << "allocation " << n;
    }
    EXPECT_GT(n, 50) << "or the heap is not the one above";
  }
}

TEST(Allocation, AChangeOfSizeIsRefusedWhereverTheHeapRunsOut) {
  FakeRuntime runtime(FullModel(false));
  runtime.SetRecording(false);
  Kalvrin core(runtime, "model", 5, 3, 2);
  core.ResetGains();
  const std::int64_t live = heap.live;
  std::vector<float> block(8 * 3 * 2);
  std::int64_t n = 0;
  for (bool changed = false; !changed;) {
    heap.allocations = 0;
    heap.failsAt = ++n;
    changed = core.SetSequenceSize(5);
    const bool reached = heap.allocations >= heap.failsAt;
    heap.failsAt = 0;
    ASSERT_EQ(changed, !reached) << "allocation " << n;
    if (changed) break;
    ASSERT_EQ(core.GetSequenceSize(), 3U) << "allocation " << n;
    ASSERT_EQ(Outcome([&] { core.EvaluateWindow(block.data(), block.data()); }), "ok")
        << "allocation " << n;
    ASSERT_EQ(heap.live, live + 1) << "allocation " << n << " (the block above is one)";
  }
  EXPECT_GT(n, 10);
}

}  // namespace
