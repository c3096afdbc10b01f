// What the heart does on the audio thread: every allocation, lock and wait of this thread passes
// through the functions of this file. Those of the inference engine count apart.

#include "heart/heart.h"

#include "plugins/plugin_models.h"

#include <dlfcn.h>
#include <execinfo.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <semaphore.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
void __libc_free(void*);
}

namespace {

/// Whether this thread is watched, and what was counted.
thread_local bool isWatched = false;
thread_local int ours = 0;
thread_local int engines = 0;
thread_local int wakeUps = 0;

bool IsInEngine(void* address) {
  Dl_info info = {};
  return dladdr(address, &info) && info.dli_fname && std::strstr(info.dli_fname, "libonnxruntime");
}

void Count() {
  if (!isWatched) return;
  isWatched = false;
  void* callers[64];
  const int depth = backtrace(callers, 64);
  ++(std::any_of(callers, callers + depth, IsInEngine) ? engines : ours);
  isWatched = true;
}

template <class Function>
Function Next(Function, const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

#pragma GCC visibility push(default)
extern "C" {
void* malloc(std::size_t size) {
  Count();
  return __libc_malloc(size);
}
void free(void* block) {
  if (block) Count();
  __libc_free(block);
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
  static const auto next = Next(&pthread_mutex_lock, "pthread_mutex_lock");
  Count();
  return next(mutex);
}
int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
  static const auto next = Next(&pthread_cond_wait, "pthread_cond_wait");
  Count();
  return next(condition, mutex);
}
int sem_wait(sem_t* semaphore) {
  static const auto next = Next(&sem_wait, "sem_wait");
  Count();
  return next(semaphore);
}
int sem_post(sem_t* semaphore) {
  static const auto next = Next(&sem_post, "sem_post");
  if (isWatched) ++wakeUps;
  return next(semaphore);
}
}
#pragma GCC visibility pop

namespace {

using namespace Orvik::Tesmo::Plugin;
using TestSupport::CountingModel;

/// Blocks of all lengths with knobs in motion, bypass and changes of mode among it.
void Play(Heart& heart, ModeWish mode) {
  static std::vector<float> left(8192), right(8192);
  float* const channels[] = {left.data(), right.data()};
  float gains[] = {0};
  const bool isShort = mode == ModeWish::Spread;  // longer calls evaluate, too
  for (std::uint32_t i = 0; i < 400; ++i) {
    std::fill(left.begin(), left.end(), 0.25F);
    std::fill(right.begin(), right.end(), i % 7 ? 0.25F : std::nanf(""));
    gains[0] = static_cast<float>(i % 72) - 60;
    Controls controls{.classGainsDb = gains, .isBypassed = i / 30 % 2 == 0, .mode = mode};
    if (mode == ModeWish::Automatic)
      controls.mode = i / 60 % 2 ? ModeWish::Spread : ModeWish::Direct;
    isWatched = true;
    heart.Process(channels, channels, isShort ? i % 128 : i % 50 ? i % 400 : 8192, controls);
    isWatched = false;
  }
}

TEST(HeartRealTime, TheWatchSees) {
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  void* frame[1];
  backtrace(frame, 1);  // loads what it needs at its first call
  ours = 0;
  isWatched = true;
  delete new std::string(100, 'x');
  pthread_mutex_lock(&mutex);
  isWatched = false;
  pthread_mutex_unlock(&mutex);
  EXPECT_EQ(ours, 5);
}

TEST(HeartRealTime, AllocatesNothingAndWaitsForNothing) {
  const struct {
    const char* name;
    ModeWish mode;
    double hostHz;
    bool evaluates;  // on this thread
  } rows[] = {{"direct", ModeWish::Direct, 16000, true},
              {"direct, converted", ModeWish::Direct, 44100, true},
              {"spread", ModeWish::Spread, 16000, false},
              {"spread, converted", ModeWish::Spread, 192000, false},
              {"changing", ModeWish::Automatic, 48000, true}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto model = CountingModel(64, 2, 16000);
    Heart heart(model.description, model.bytes, row.hostHz, 2);
    ours = engines = wakeUps = 0;
    Play(heart, row.mode);
    EXPECT_EQ(ours, 0);
    EXPECT_EQ(engines > 0, row.evaluates);
    EXPECT_EQ(wakeUps > 0, row.mode != ModeWish::Direct);
  }
}

}  // namespace
