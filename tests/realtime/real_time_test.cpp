// What ProcessBlock does besides computing, seen from below, in every regime of blocks and models.

#include "kalvrin/stream_processor.h"

#include "realtime/watch.h"
#include "stream/engine_models.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace TestSupport;
using Orvik::Tesmo::StreamProcessor;

/// Keeps the compiler from leaving out a pair of allocation and release.
void* volatile held = nullptr;

template <class Allocate>
void Plant(Allocate allocate) {
  held = allocate();
  std::free(held);
  held = nullptr;
}

TEST(Watch, SeesWhatIsPlanted) {
  static std::mutex mutex;
  static std::shared_mutex readersLock;
  static pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  static sem_t semaphore;
  static const timespec past = {};
  sem_init(&semaphore, 0, 1);
  const struct {
    const char* name;  // as it is reported
    Act act;
    void (*plant)();
  } rows[] = {
      {"malloc", Act::Allocation, [] { Plant([] { return std::malloc(9); }); }},
      {"malloc", Act::Allocation, [] { operator delete(operator new(9)); }},
      {"calloc", Act::Allocation, [] { Plant([] { return std::calloc(3, 3); }); }},
      {"realloc", Act::Allocation, [] { Plant([] { return std::realloc(held, 9); }); }},
      {"aligned_alloc", Act::Allocation, [] { Plant([] { return std::aligned_alloc(64, 64); }); }},
      {"posix_memalign", Act::Allocation,
       [] {
         void* block = nullptr;
         if (posix_memalign(&block, 64, 9) == 0) std::free(block);
       }},
      {"free", Act::Release, [] { std::free(held); }},
      {"pthread_mutex_lock", Act::Wait, [] { const std::lock_guard lock(mutex); }},
      {"pthread_mutex_trylock", Act::Wait,
       [] { const std::unique_lock lock(mutex, std::try_to_lock); }},
      {"pthread_rwlock_rdlock", Act::Wait, [] { const std::shared_lock lock(readersLock); }},
      {"pthread_cond_signal", Act::Wait, [] { pthread_cond_signal(&condition); }},
      {"pthread_cond_timedwait", Act::Wait,
       [] { pthread_cond_timedwait(&condition, mutex.native_handle(), &past); }},
      {"sem_trywait", Act::Wait, [] { sem_trywait(&semaphore); }},
      {"sem_post", Act::WakeUp, [] { sem_post(&semaphore); }},
      {"nanosleep", Act::Wait, [] { nanosleep(&past, nullptr); }},
      {"sched_yield", Act::Wait, [] { sched_yield(); }},
      {"poll", Act::Wait, [] { poll(nullptr, 0, 0); }},
      {"__cxa_guard_acquire", Act::Wait,
       [] {
         static const pid_t late = getpid();
         held = const_cast<pid_t*>(&late);
       }},
      {"system call 110", Act::SystemCall, [] { getppid(); }},
      {"system call 1", Act::SystemCall, [] { EXPECT_EQ(write(-1, "", 0), -1); }},
  };
  for (const auto& row : rows) {
    if (row.act == Act::Release) held = std::malloc(9);
    const Observed seen = RunWatched(row.plant);
    if (row.act == Act::SystemCall && !seen.seesSystemCalls) continue;
    EXPECT_GE(seen.ours[row.act], 1) << row.name;
    EXPECT_EQ(seen.engines.Sum(), 0) << row.name;
    const std::string& first = seen.firstOfOurs[static_cast<std::size_t>(row.act)];
    EXPECT_EQ(first.substr(0, first.find('\n')), row.name);
  }
  EXPECT_EQ(RunWatched([] {}).ours.Sum(), 0) << "nothing planted";
}

struct Regime {
  const char* name;
  StreamSizes sizes;
  std::vector<StateOptions> states = {};
  /// A model of the repository in place of one made for the test; `sizes` are its own.
  const char* recipe = nullptr;
};

std::vector<Regime> Regimes() {
  std::vector<Regime> all;
  const std::vector<StateOptions> counters = {{.isHeard = true}, {.element = Element::Int64}};
  const std::vector<StateOptions> shiftRegister = {
      {}, {.update = StateOptions::Update::PassThrough, .outputName = "state1"}};
  // hop, sequence, channels, lookahead, block
  for (const bool spectra : {false, true}) {
    all.push_back({"prefill, short blocks", {64, 3, 2, 1, 16, spectra}});
    all.push_back({"prefill, one hop a block", {64, 4, 2, 0, 64, spectra}});
    all.push_back({"blocks straddle the ring", {64, 3, 2, 1, 50, spectra}});
    all.push_back({"the block is the ring", {64, 3, 2, 0, 192, spectra}});
    all.push_back({"several evaluations a block", {32, 1, 2, 0, 150, spectra}});
    all.push_back({"one channel, one window", {240, 1, 1, 0, 240, spectra}});
    all.push_back({"eleven channels", {64, 2, 11, 3, 77, spectra}});
    all.push_back({"window with a large prime", {1009, 1, 2, 0, 512, spectra}});
    all.push_back({"recurrent states", {64, 3, 2, 0, 64, spectra}, counters});
    all.push_back({"states copied to states", {64, 2, 2, 0, 48, spectra}, shiftRegister});
  }
  all.push_back({"band_splitter", {256, 1, 2, 0, 128}, {}, "band_splitter"});
  all.push_back({"band_splitter", {256, 4, 2, 0, 300}, {}, "band_splitter"});
  all.push_back({"noise_reducer", {256, 1, 2, 0, 256, true}, {}, "noise_reducer"});
  all.push_back({"noise_reducer", {256, 4, 2, 0, 256, true}, {}, "noise_reducer"});
  all.push_back({"harmonic_percussive", {512, 1, 2, 3, 480, true}, {}, "harmonic_percussive"});
  all.push_back({"harmonic_percussive", {512, 4, 2, 3, 512, true}, {}, "harmonic_percussive"});
  all.push_back({"separator", {256, 1, 2, 0, 256, true}, {}, "separator"});
  all.push_back({"separator", {256, 4, 2, 0, 100, true}, {}, "separator"});
  return all;
}

/// A stream beside everything that the host of it needs on its thread.
class Host {
public:
  Host(std::unique_ptr<StreamProcessor> created, const StreamSizes& sizes)
      : stream(std::move(created)), sizes(sizes), samples(sizes.channels * sizes.block, 0.25f) {
    for (std::uint64_t c = 0; c < sizes.channels; ++c)
      channels.push_back(samples.data() + c * sizes.block);
    stream->ResetGains();
  }

  /// Blocks as this host always gives them, until `count` evaluations or a few more have run.
  /// Returns how many.
  std::uint64_t ProcessEvenly(std::uint64_t count) {
    const std::uint64_t before = Evaluations();
    for (; Evaluations() < before + count; frames += sizes.block)
      stream->ProcessBlock(channels.data(), channels.data(), sizes.block, 1);
    return Evaluations() - before;
  }

  /// Blocks of every length, restarts, and gains set between them.
  void ProcessUnevenly(std::uint64_t blocks) {
    for (std::uint64_t i = 0; i < blocks; ++i) {
      stream->ProcessBlock(channels.data(), channels.data(), i % (sizes.block + 1),
                           i % 97 == 96 ? 0 : 1);
      SetGains(i);
    }
  }

  void SetGains(std::uint64_t turn) {
    stream->SetMasterGain(0.5f);
    stream->SetAudioClassGain(u"REST", 0.5f);
    stream->SetAudioClassGain(u"nobody", 0.5f);
    if (turn % 2 != 0) stream->ResetGains();
  }

private:
  /// Those that even blocks have run: a prefilled stream has its next one due with the last frame
  /// of a ring, any other with the first frame of the following.
  std::uint64_t Evaluations() const {
    const bool isPrefilled = Orvik::Tesmo::PrefillFrames(sizes.Capacity(), sizes.block) != 0;
    return isPrefilled || frames == 0 ? frames / sizes.Capacity() : (frames - 1) / sizes.Capacity();
  }

  std::unique_ptr<StreamProcessor> stream;
  StreamSizes sizes;
  std::vector<float> samples;
  std::vector<float*> channels;
  std::uint64_t frames = 0;  ///< given evenly so far
};

/// Even and uneven blocks, watched, while another thread sets gains all the time.
TEST(RealTime, ProcessBlockNeitherAllocatesNorWaitsOutsideTheEngine) {
  std::printf("The engine in each evaluation (+ in the first on a thread)\n%-28s%10s", "model",
              "windows");
  for (const char* act : actNames)
    std::printf("%18s", act);
  std::printf("\n");
  bool seesSystemCalls = true;
  for (const Regime& regime : Regimes()) {
    const StreamSizes& sizes = regime.sizes;
    AudioModelOptions options = PassThroughModel(sizes);
    options.states = regime.states;
    const std::string model = regime.recipe ? RecipeModel(regime.recipe) : MakeAudioModel(options);
    std::unique_ptr<StreamProcessor> stream(CreateStreamProcessor(
        model.data(), model.size(), sizes.sequence, sizes.channels, sizes.block));
    ASSERT_TRUE(stream) << regime.name << "; " << sizes.Text();
    Host host(std::move(stream), sizes);
    const std::jthread other([&](const std::stop_token& isOver) {
      for (std::uint64_t turn = 0; !isOver.stop_requested(); ++turn) {
        host.SetGains(turn);
        std::this_thread::sleep_for(std::chrono::microseconds(20));
      }
    });
    std::uint64_t few = 0, many = 0;
    const Observed shorter = RunWatched([&] { few = host.ProcessEvenly(4); });
    const Observed longer = RunWatched([&] { many = host.ProcessEvenly(12); });
    const Observed uneven = RunWatched([&] { host.ProcessUnevenly(120); });
    for (const Observed* seen : {&shorter, &longer, &uneven}) {
      EXPECT_EQ(seen->ours.Sum(), 0) << regime.name << "; " << sizes.Text() << '\n' << seen->Text();
      EXPECT_GT(seen->engines[Act::Allocation], 0) << regime.name << ": is it the engine at all?";
      seesSystemCalls = seesSystemCalls && seen->seesSystemCalls;
    }
    std::printf("%-28s%10s", regime.name,
                (std::to_string(sizes.sequence) + (sizes.isSpectral ? " spectra" : "")).c_str());
    for (std::size_t act = 0; act < actNames.size(); ++act) {
      const auto inFew = static_cast<double>(shorter.engines.counts[act]);
      const auto inMany = static_cast<double>(longer.engines.counts[act]);
      const double each = (inMany - inFew) / static_cast<double>(many - few);
      std::printf("%10g (+%4.3g)", each, inFew - each * static_cast<double>(few));
    }
    std::printf("\n");
  }
  if (!seesSystemCalls)
    GTEST_SKIP() << "no filter of system calls can be had here; all else was watched";
}

}  // namespace
