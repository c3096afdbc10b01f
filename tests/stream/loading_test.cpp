// Loading, the once-only set-up and unloading, each on a fresh copy of the library in a folder of
// its own: the loader takes such a copy for a library that it does not know yet.

#include "kalvrin/stream_processor.h"

#include "stream/engine_models.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <link.h>
#include <unistd.h>

#include <barrier>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using namespace TestSupport;
using Orvik::Tesmo::StreamProcessor;
using Stream = std::unique_ptr<StreamProcessor>;
namespace fs = std::filesystem;

const fs::path Library = KALVRIN_LIBRARY;
const fs::path Engine = Library.parent_path() / "libonnxruntime.so.1";
constexpr StreamSizes Sizes = {.hop = 8, .sequence = 2, .channels = 1, .block = 8};

/// The loader's count of modules ever loaded.
unsigned long long LoadedSoFar() {
  unsigned long long count = 0;
  dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t, void* result) {
        *static_cast<unsigned long long*>(result) = info->dlpi_adds;
        return 1;
      },
      &count);
  return count;
}

class LoadingTest : public testing::Test {
protected:
  LoadingTest() : model(MakeAudioModel(PassThroughModel(Sizes))) { StartAfresh(); }
  ~LoadingTest() override { Leave(); }

  /// Another folder with a copy of the library, not yet loaded.
  void StartAfresh() {
    Leave();
    std::string pattern = (fs::temp_directory_path() / "kalvrin-loading.XXXXXX").string();
    folder = mkdtemp(pattern.data());
    fs::copy_file(Library, folder / "libkalvrin.so.1");
  }
  void Leave() {
    Unload();
    if (!folder.empty()) fs::remove_all(folder);
  }
  void PlaceEngine() { fs::create_symlink(Engine, folder / "libonnxruntime.so.1"); }

  void Load(const char* path = nullptr) {
    handle = dlopen(path ? path : (folder / "libkalvrin.so.1").c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_TRUE(handle) << path;
    create = reinterpret_cast<decltype(create)>(dlsym(handle, "CreateStreamProcessor"));
    ASSERT_TRUE(create);
  }
  void Unload() {
    if (handle) dlclose(handle);
    handle = nullptr;
  }

  Stream Create() const {
    return Stream(create(model.data(), model.size(), Sizes.sequence, Sizes.channels, Sizes.block));
  }
  bool IsLoaded(const char* file) const {
    void* const found = dlopen((folder / file).c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (found) dlclose(found);
    return found != nullptr;
  }

  fs::path folder;
  std::string model;
  void* handle = nullptr;
  decltype(&CreateStreamProcessor) create = nullptr;
};

/// Runs the stream until its output must be its input, and returns the last sample.
float RunAtUnity(StreamProcessor& stream, float value) {
  stream.ResetGains();
  stream.SetAudioClassGain(u"Rest", 0.0f);
  std::vector<float> samples;
  for (int i = 0; i < 6; ++i) {
    samples.assign(Sizes.block, value);
    float* const channels[] = {samples.data()};
    stream.ProcessBlock(channels, channels, Sizes.block, 1);
  }
  return samples.back();
}

TEST_F(LoadingTest, EngineIsOpenedByTheFirstStreamAndOnlyThen) {
  PlaceEngine();
  ASSERT_NO_FATAL_FAILURE(Load());
  EXPECT_FALSE(IsLoaded("libonnxruntime.so.1")) << "loading the library alone opens nothing";
  Stream first = Create();
  ASSERT_TRUE(first);
  EXPECT_TRUE(IsLoaded("libonnxruntime.so.1"));
  const auto before = LoadedSoFar();
  Stream second = Create();
  ASSERT_TRUE(second);
  EXPECT_EQ(LoadedSoFar(), before) << "the second stream has loaded something";
  first.reset();
  EXPECT_NEAR(RunAtUnity(*second, 0.5f), 0.5f, 1e-6);
  second.reset();
  EXPECT_TRUE(IsLoaded("libonnxruntime.so.1")) << "gone before the library";
}

TEST_F(LoadingTest, EngineMayStandInAFolderOfItsOwnBelow) {
  fs::create_directory(folder / "kalvrin");
  fs::create_symlink(Engine, folder / "kalvrin/libonnxruntime.so.1");
  ASSERT_NO_FATAL_FAILURE(Load());
  EXPECT_TRUE(Create());
  EXPECT_TRUE(IsLoaded("kalvrin/libonnxruntime.so.1"));
}

/// Whatever does not load at the first attempt is not tried again before the library is unloaded.
TEST_F(LoadingTest, UnusableEngineGivesNullForGood) {
  const struct {
    const char* name;
    std::function<void(const fs::path& engine)> place;
  } rows[] = {
      {"no file", [](const fs::path&) {}},
      {"text", [](const fs::path& engine) { std::ofstream(engine) << "not a library"; }},
      {"another library", [](const fs::path& engine) { fs::copy_file(Library, engine); }},
      {"a folder", [](const fs::path& engine) { fs::create_directory(engine); }},
  };
  for (const auto& row : rows) {
    StartAfresh();
    row.place(folder / "libonnxruntime.so.1");
    ASSERT_NO_FATAL_FAILURE(Load()) << row.name;
    EXPECT_FALSE(Create()) << row.name;
    fs::remove_all(folder / "libonnxruntime.so.1");
    PlaceEngine();
    EXPECT_FALSE(Create()) << row.name << ": the engine came too late";
    Unload();
    ASSERT_FALSE(IsLoaded("libkalvrin.so.1")) << row.name;
    ASSERT_NO_FATAL_FAILURE(Load()) << row.name;
    EXPECT_TRUE(Create()) << row.name << ": a fresh start finds it";
  }
}

TEST_F(LoadingTest, UnloadingKeepsOnlyTheEngineAndReopeningStartsAfresh) {
  PlaceEngine();
  for (int round = 0; round < 3; ++round) {
    ASSERT_NO_FATAL_FAILURE(Load());
    Stream stream = Create();
    ASSERT_TRUE(stream);
    EXPECT_NEAR(RunAtUnity(*stream, 0.5f), 0.5f, 1e-6) << round;
    stream.reset();
    Unload();
    EXPECT_FALSE(IsLoaded("libkalvrin.so.1")) << round;
    EXPECT_TRUE(IsLoaded("libonnxruntime.so.1")) << round;
  }
}

/// A host may load by a relative path and go elsewhere before it makes its first stream.
TEST_F(LoadingTest, FolderIsThatOfTheLoadWhereverTheProcessHasGone) {
  PlaceEngine();
  const fs::path home = fs::current_path();
  fs::current_path(folder);
  ASSERT_NO_FATAL_FAILURE(Load("./libkalvrin.so.1"));
  fs::current_path("/");
  EXPECT_TRUE(Create());
  fs::current_path(home);
}

/// A stream in a static object of the host, made before the library's own, ends after them.
TEST_F(LoadingTest, StreamMayLiveUntilTheProcessEnds) {
  PlaceEngine();
  ASSERT_NO_FATAL_FAILURE(Load());
  const auto endWithAStream = [this] {
    static Stream stream;
    stream = Create();
    std::exit(stream ? 0 : 1);  // NOLINT(concurrency-mt-unsafe)
  };
  EXPECT_EXIT(endWithAStream(), testing::ExitedWithCode(0), "");
}

TEST_F(LoadingTest, EightThreadsMakeRunAndEndStreamsAtOnce) {
  PlaceEngine();
  ASSERT_NO_FATAL_FAILURE(Load());
  std::barrier start(8);
  std::vector<std::thread> threads;
  threads.reserve(8);
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      for (int round = 0; round < 5; ++round) {
        const Stream stream = Create();
        ASSERT_TRUE(stream) << t << ", " << round;
        const float value = 0.1f * static_cast<float>(t);
        EXPECT_NEAR(RunAtUnity(*stream, value), value, 1e-6) << t << ", " << round;
      }
    });
  }
  for (std::thread& thread : threads)
    thread.join();
}

}  // namespace
