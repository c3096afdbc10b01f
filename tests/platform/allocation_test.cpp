#include "platform/rig.h"
#include "support/audio_models.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <new>

// Counts what an evaluation allocates, by who asked: the engine's calls of operator new come here
// too, and the address that a call returns to says which are its own. All others are ours.

namespace {

struct AllocationCounts {
  long byEngine = 0, byOthers = 0;
};

thread_local bool isCounting = false;
thread_local AllocationCounts counts;

void* Allocate(std::size_t alignment, std::size_t size, const void* caller) {
  if (isCounting) {
    Dl_info module = {};
    dladdr(caller, &module);
    const bool isEngine = module.dli_fname && std::strstr(module.dli_fname, "libonnxruntime");
    ++(isEngine ? counts.byEngine : counts.byOthers);
  }
  if (void* memory = std::aligned_alloc(alignment, (size + alignment) / alignment * alignment))
    return memory;
  throw std::bad_alloc();
}

}  // namespace

#define KALVRIN_INTERPOSED __attribute__((visibility("default"), noinline))
KALVRIN_INTERPOSED void* operator new(std::size_t size) {
  return Allocate(alignof(std::max_align_t), size, __builtin_return_address(0));
}
KALVRIN_INTERPOSED void* operator new(std::size_t size, std::align_val_t alignment) {
  return Allocate(static_cast<std::size_t>(alignment), size, __builtin_return_address(0));
}
KALVRIN_INTERPOSED void operator delete(void* memory) noexcept {
  std::free(memory);
}
KALVRIN_INTERPOSED void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
KALVRIN_INTERPOSED void operator delete(void* memory, std::align_val_t) noexcept {
  std::free(memory);
}

namespace {

using namespace TestSupport;

template <class Operation>
AllocationCounts Counted(Operation operation) {
  counts = {};
  isCounting = true;
  operation();
  isCounting = false;
  return counts;
}

TEST(Evaluate, AllocatesNothingOfItsOwn) {
  using Body = AudioModelOptions::Body;
  using Update = StateOptions::Update;
  const struct {
    const char* name;
    AudioModelOptions options;
    std::vector<std::pair<const char*, const char*>> states;
    Shape stateShape;
    std::int64_t windows;
  } rows[] = {
      {"spectra", {.features = 257, .inputRank = 4, .outputRank = 5}, {}, {}, 4},
      {"delay", {.body = Body::Delay}, {{"lastAudio", "thisAudio"}}, {1, 4, 8}, 4},
      {"GRU 32", {.features = 32, .body = Body::Gru}, {{"hidden", "newHidden"}}, {1, 1, 32}, 6},
      {"shift register by copies",
       {.states = {{}, {.update = Update::PassThrough, .outputName = "state1"}}},
       {{"state1", "newState1"}, {"state2", "state1"}},
       {1},
       1},
  };
  for (const auto& row : rows) {
    Rig rig(MakeAudioModel(row.options));
    const bool isSpectral = row.options.inputRank == 4;
    Shape input = {1, row.windows, row.options.features};
    if (isSpectral) input.push_back(2);
    Shape output = input;
    output.insert(output.begin(), 1);
    rig.Input("input", input);
    rig.Output("output", output);
    for (const auto& [in, out] : row.states)
      rig.State(in, out, row.stateShape);
    ASSERT_EQ(Hex(rig.Prepare()), Hex(ResultCodes::Ok)) << row.name;
    const AllocationCounts evaluations = Counted([&] {
      for (int i = 0; i < 100; ++i)
        CheckResult(rig.Evaluate());
    });
    EXPECT_EQ(evaluations.byOthers, 0) << row.name;
  }
}

/// The model wants more than a process can address, then again what it can have.
TEST(Evaluate, ThatRunsOutOfMemorySaysSoAndCanGoOn) {
  Rig rig(ModelBuilder()
              .Input("size", Element::Int64, {1})
              .Output("sum", Element::Float, {})
              .Floats("one", {1}, {1})
              .Node("Expand", {"one", "size"}, {"expanded"})
              .Node("ReduceSum", {"expanded"}, {"sum"}, {{"keepdims", 0}})
              .Build());
  const auto size = rig.Input("size", {1}, TensorKind::Int64);
  const auto sum = rig.Output("sum", {});
  ASSERT_EQ(Hex(rig.Prepare()), Hex(ResultCodes::Ok));
  Elements<std::int64_t>(*size, 1)[0] = std::int64_t{1} << 46;
  EXPECT_EQ(Hex(rig.Evaluate()), Hex(ResultCodes::OutOfMemory));
  Elements<std::int64_t>(*size, 1)[0] = 5;
  ASSERT_EQ(Hex(rig.Evaluate()), Hex(ResultCodes::Ok));
  EXPECT_EQ(Elements(*sum, 1)[0], 5.0F);
}

/// So that a zero above means something.
TEST(Counter, SeesAllocationsOfBothSides) {
  const AllocationCounts ours = Counted([] { MakeTensor(TensorKind::Float, {4}); });
  EXPECT_GT(ours.byOthers, 0);
  EXPECT_GT(ours.byEngine, 0);
}

}  // namespace
