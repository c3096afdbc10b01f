// What ProcessBlock does besides computing, seen from below: every allocation and every lock of the
// process goes through the functions of this file, and the kernel refuses system calls.

#include "kalvrin/stream_processor.h"

#include "stream/assemble_stream.h"
#include "stream/engine_models.h"
#include "support/fake_platform.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <gtest/gtest.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
}

namespace {

/// Whether calls are counted on this thread, and what was counted.
thread_local bool isWatched = false;
thread_local int ours = 0;
thread_local int engines = 0;

bool IsInEngine(void* address) {
  Dl_info info = {};
  return dladdr(address, &info) && info.dli_fname && std::strstr(info.dli_fname, "libonnxruntime");
}

/// A call belongs to the engine when it is anywhere among the callers.
void Count() {
  if (!isWatched) return;
  isWatched = false;
  void* callers[64];
  const int depth = backtrace(callers, 64);
  ++(std::any_of(callers, callers + depth, IsInEngine) ? engines : ours);
  isWatched = true;
}

}  // namespace

#pragma GCC visibility push(default)
extern "C" {
void* malloc(std::size_t size) {
  Count();
  return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
  Count();
  return __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
  Count();
  return __libc_realloc(block, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
  Count();
  return __libc_memalign(alignment, size);
}
int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
  Count();
  *block = __libc_memalign(alignment, size);
  return *block ? 0 : ENOMEM;
}
int pthread_mutex_lock(pthread_mutex_t* mutex) {
  static const auto next =
      reinterpret_cast<int (*)(pthread_mutex_t*)>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
  Count();
  return next(mutex);
}
}
#pragma GCC visibility pop

namespace {

using namespace TestSupport;
using Orvik::Tesmo::AssembleStream;
using Orvik::Tesmo::StreamProcessor;

constexpr StreamSizes Sizes = {
    .hop = 64, .sequence = 3, .channels = 2, .lookahead = 1, .block = 50};

/// Runs `count` blocks of every length up to Sizes.block with changes of gains, watched.
void ProcessBlocks(StreamProcessor& stream, std::size_t count) {
  static float samples[Sizes.channels][Sizes.block];
  float* const channels[] = {samples[0], samples[1]};
  for (std::size_t i = 0; i < count; ++i) {
    std::fill_n(samples[0], Sizes.channels * Sizes.block, 0.25f);
    isWatched = true;
    stream.ProcessBlock(channels, channels, i % (Sizes.block + 1), i % 97 == 96 ? 0 : 1);
    stream.SetMasterGain(0.5f);
    stream.SetAudioClassGain(u"REST", 0.5f);
    if (i % 2) stream.ResetGains();
    isWatched = false;
  }
}

/// A stream over a scripted engine, so that all that is seen is the library's.
std::unique_ptr<StreamProcessor> AssembleUnity(FakeRuntime& runtime) {
  runtime.SetRecording(false);
  auto stream = AssembleStream(runtime, "model", 5, Sizes.sequence, Sizes.channels, Sizes.block);
  stream->ResetGains();
  return stream;
}

FakeModel ModelWithLookahead(bool isSpectral) {
  FakeModel model = MakeFakeAudioModel(2 * Sizes.hop, {1}, isSpectral);
  model.metadata.emplace_back(u"LookaheadNumBlocks", u"1");
  return model;
}

class RealTime : public testing::Test {
protected:
  RealTime() {
    void* frame[1];
    backtrace(frame, 1);  // loads what it needs at its first call
    ours = engines = 0;
  }
};

TEST_F(RealTime, WatchSeesAllocationsAndLocks) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  isWatched = true;
  delete new std::string(100, 'x');
  pthread_mutex_lock(&mutex);
  isWatched = false;
  pthread_mutex_unlock(&mutex);
  EXPECT_EQ(ours, 3);
}

TEST_F(RealTime, BlocksAllocateNothingAndLockNothing) {
  for (const bool isSpectral : {false, true}) {
    FakeRuntime runtime(ModelWithLookahead(isSpectral));
    const auto stream = AssembleUnity(runtime);
    ProcessBlocks(*stream, 500);
    EXPECT_EQ(ours, 0) << (isSpectral ? "spectra" : "samples");
    EXPECT_GT(runtime.GetEvaluationCount(), 20);
  }
}

TEST_F(RealTime, WithTheEngineOnlyTheEngineAllocates) {
  StreamSizes spectra = Sizes;
  spectra.isSpectral = true;
  const std::vector<StateOptions> counters = {{.isHeard = true}, {.element = Element::Int64}};
  const std::vector<StateOptions> shiftRegister = {
      {}, {.update = StateOptions::Update::PassThrough, .outputName = "state1"}};
  const struct {
    const char* name;
    AudioModelOptions options;
    std::vector<StateOptions> states;
  } rows[] = {{"samples", PassThroughModel(Sizes), counters},
              {"spectra", PassThroughModel(spectra), counters},
              {"states copied to states", PassThroughModel(Sizes), shiftRegister}};
  for (const auto& row : rows) {
    AudioModelOptions options = row.options;
    options.states = row.states;
    const std::string model = MakeAudioModel(options);
    const std::unique_ptr<StreamProcessor> stream(CreateStreamProcessor(
        model.data(), model.size(), Sizes.sequence, Sizes.channels, Sizes.block));
    ASSERT_TRUE(stream) << row.name;
    stream->ResetGains();
    ProcessBlocks(*stream, 500);
    EXPECT_EQ(ours, 0) << row.name;
    EXPECT_GT(engines, 0) << "the engine is known to make some";
  }
}

/// In a child that the kernel kills at any system call but read, write and exit.
TEST_F(RealTime, BlocksMakeNoSystemCall) {
  FakeRuntime runtime(ModelWithLookahead(true));
  const auto stream = AssembleUnity(runtime);
  for (const bool breaksTheRule : {false, true}) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT) != 0) _exit(2);
      if (breaksTheRule) getppid();
      ProcessBlocks(*stream, 500);
      syscall(SYS_exit, 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 2)
      GTEST_SKIP() << "the kernel offers no strict mode here";
    EXPECT_EQ(WIFSIGNALED(status), breaksTheRule);
    EXPECT_EQ(WIFEXITED(status), !breaksTheRule);
  }
}

}  // namespace
