#include "platform/rig.h"
#include "support/audio_models.h"

#include <gtest/gtest.h>
#include <link.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

// Counts what an evaluation allocates, by who asked: this program stands in front of the C heap,
// and the address a call returns to says whether it came from the engine. Everything else is ours.

namespace {

struct AddressRange {
  std::uintptr_t begin = 0, end = 0;
  bool Holds(const void* address) const {
    const auto value = reinterpret_cast<std::uintptr_t>(address);
    return begin <= value && value < end;
  }
};

struct AllocationCounts {
  long byEngine = 0, byOthers = 0;
};

AddressRange engineCode;
thread_local bool isCounting = false;
thread_local AllocationCounts counts;

void Count(const void* caller) {
  if (!isCounting) return;
  ++(engineCode.Holds(caller) ? counts.byEngine : counts.byOthers);
}

}  // namespace

extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);

#define KALVRIN_INTERPOSED __attribute__((visibility("default"), noinline))
KALVRIN_INTERPOSED void* malloc(std::size_t size) {
  Count(__builtin_return_address(0));
  return __libc_malloc(size);
}
KALVRIN_INTERPOSED void* calloc(std::size_t count, std::size_t size) {
  Count(__builtin_return_address(0));
  return __libc_calloc(count, size);
}
KALVRIN_INTERPOSED void* realloc(void* old, std::size_t size) {
  Count(__builtin_return_address(0));
  return __libc_realloc(old, size);
}
KALVRIN_INTERPOSED void* memalign(std::size_t alignment, std::size_t size) {
  Count(__builtin_return_address(0));
  return __libc_memalign(alignment, size);
}
KALVRIN_INTERPOSED void* aligned_alloc(std::size_t alignment, std::size_t size) {
  Count(__builtin_return_address(0));
  return __libc_memalign(alignment, size);
}
KALVRIN_INTERPOSED int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
  Count(__builtin_return_address(0));
  *memory = __libc_memalign(alignment, size);
  return *memory ? 0 : 12;
}
}

// The engine may reach the C heap through the common operator new, which would hide it.
KALVRIN_INTERPOSED void* operator new(std::size_t size) {
  Count(__builtin_return_address(0));
  if (void* memory = __libc_malloc(size)) return memory;
  throw std::bad_alloc();
}
KALVRIN_INTERPOSED void operator delete(void* memory) noexcept {
  std::free(memory);
}
KALVRIN_INTERPOSED void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

namespace {

using namespace TestSupport;

int FindEngine(dl_phdr_info* info, std::size_t, void*) {
  if (!std::strstr(info->dlpi_name, "libonnxruntime")) return 0;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)& segment = info->dlpi_phdr[i];
    if (segment.p_type != PT_LOAD || !(segment.p_flags & PF_X)) continue;
    engineCode.begin = info->dlpi_addr + segment.p_vaddr;
    engineCode.end = engineCode.begin + segment.p_memsz;
  }
  return 1;
}

template <class Operation>
AllocationCounts Counted(Operation operation) {
  counts = {};
  isCounting = true;
  operation();
  isCounting = false;
  return counts;
}

TEST(Evaluate, AllocatesNothingOfItsOwn) {
  TheRuntime();
  dl_iterate_phdr(FindEngine, nullptr);
  ASSERT_NE(engineCode.begin, 0U);

  using Body = AudioModelOptions::Body;
  using Update = StateOptions::Update;
  const struct {
    const char* name;
    AudioModelOptions options;
    std::vector<std::pair<const char*, const char*>> states;
    Shape stateShape;
    std::int64_t windows;
  } rows[] = {
      {"gain on 512 samples", {.features = 512}, {}, {}, 4},
      {"spectra", {.features = 257, .inputRank = 4, .outputRank = 5}, {}, {}, 4},
      {"counter", {.states = {{}}}, {{"state1", "newState1"}}, {1}, 1},
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
    const auto evaluate = [&](int times) {
      return Counted([&] {
        for (int i = 0; i < times; ++i)
          CheckResult(rig.Evaluate());
      });
    };
    const AllocationCounts first = evaluate(1);
    const AllocationCounts later = evaluate(1000);
    EXPECT_EQ(first.byOthers + later.byOthers, 0) << row.name;
    std::printf("%-26s engine: %ld allocations in the first evaluation, %.2f in later ones\n",
                row.name, first.byEngine, static_cast<double>(later.byEngine) / 1000);
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
