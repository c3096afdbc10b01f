// Every call of the system that the program makes, and every allocation, fails in turn. Either the
// program says so in one line and leaves no half-written file, or it goes on and the result is
// right.

#include "apps/audio_files.h"
#include "apps/ledger.h"
#include "apps/tool_process.h"
#include "support/audio_models.h"
#include "support/model_builder.h"
#include "support/seed.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <numeric>
#include <random>
#include <sstream>

namespace TestSupport {
namespace {

/// By name: a number from the bytes of a file.
using Files = std::map<std::string, std::size_t>;

struct Injection {
  const char* name;
  const char* line;  ///< of shell, in a folder of `InjectedRun`
  /// After a failure all files are as before (All), or some are finished already (Each).
  enum class Whole { All, Each } whole = Whole::All;
  const char* taken = "";  ///< the name of a file whose bytes cannot be taken back
};

/// A way of failing: the environment of failing_calls.cpp, but for the number of the call.
struct Failing {
  const char* name;
  std::string names;
  int error;
  bool isLasting = false;  ///< all later calls fail, too
  bool mustGoOn = false;
  const char* words = "kalvrin: ";  ///< in the line that says so
};

using Whole = Injection::Whole;
constexpr Injection renderFiles = {"files", "$TOOL render model.onnx in.wav out.wav --block 450"};
constexpr Injection renderPipes = {
    "pipes", "cat in.wav | $TOOL render model.onnx - - --block 450 > piped.wav", Whole::All,
    "piped.wav"};
constexpr Injection info = {"info", "$TOOL info model.onnx"};
constexpr Injection plugin = {"LV2", "$TOOL plugin model.onnx --name old --to lv2"};
constexpr Injection adapt = {"adapt", "$TOOL adapt other.onnx out.wav --rate 16000"};
constexpr Injection rows[] = {
    renderFiles,
    renderPipes,
    {"other format", "$TOOL render model.onnx in.wav new.flac --block 450"},
    {"folder", "$TOOL render model.onnx in out --again --jobs 2 --log log --block 450",
     Whole::Each},
    {"list", "$TOOL render model.onnx list out --list --again --jobs 1 --block 450", Whole::Each},
    {"check", "$TOOL check model.onnx"},
    info,
    adapt,
    plugin,
    {"LADSPA", "$TOOL plugin model.onnx --ladspa --to ladspa", Whole::Each},
};

/// A model of the form that `adapt` takes: half of this window and half of the last.
std::string MakeOtherModel() {
  const Dimensions window = {1, 5, 1, 2};
  return ModelBuilder()
      .Input("mix", Element::Float, window)
      .Input("cache_in", Element::Float, window)
      .Output("enh", Element::Float, window)
      .Output("cache_out", Element::Float, window)
      .Node("Mean", {"mix", "cache_in"}, {"enh"})
      .Node("Identity", {"mix"}, {"cache_out"})
      .Build();
}

/// Copies the program and puts beside it small files in place of the libraries that `plugin`
/// copies. The loader refuses the one with the name of the engine, and finds the real engine in the
/// next place.
std::string MakeToolWithSmallLibraries(const TemporaryFolder& folder) {
  const std::filesystem::path tool = ToolPath(), libraries = tool.parent_path() / "../lib";
  std::filesystem::copy(tool, folder / "kalvrin-tool");
  std::filesystem::create_directory(folder / "kalvrin");
  std::filesystem::create_symlink(libraries / "libonnxruntime.so.1",
                                  folder / "kalvrin/libonnxruntime.so.1");
  for (const char* name :
       {"libonnxruntime.so.1", "libkalvrin.so.1", "kalvrin_lv2.so", "kalvrin_ladspa.so"})
    WriteFile(folder / name, std::string(70'000, '!'));
  return folder / "kalvrin-tool";
}

/// A folder with models, audio and files to replace, and one run in it.
class InjectedRun {
public:
  InjectedRun() {
    static const std::string model = MakeAudioModel({}), other = MakeOtherModel(), audio = [this] {
      WriteAudio(folder / "in.wav", MakeNoise(900, 2, 1));
      return ReadFile(folder / "in.wav");
    }();
    for (const char* name : {"in", "out", "lv2/kalvrin-old.lv2"})
      std::filesystem::create_directories(folder / name);
    for (const char* name : {"in.wav", "in/a.wav", "in/b.wav"})
      WriteFile(folder / name, audio);
    for (const char* name : {"out.wav", "out/a.wav", "lv2/kalvrin-old.lv2/model.plugin"})
      WriteFile(folder / name, "old");
    WriteFile(folder / "list", "in/a.wav\nin/b.wav\n");
    WriteFile(folder / "model.onnx", model);
    WriteFile(folder / "other.onnx", other);
    WriteFile(ledger / "calls", std::string(sizeof(TestSupport::Ledger), '\0'));
  }

  /// Without a number nothing fails.
  Outcome Run(const Injection& row, const Failing& failing, int number = 0) {
    static const TemporaryFolder program;
    static const std::string tool = MakeToolWithSmallLibraries(program);
    std::ostringstream line;
    line << "TOOL='env LD_PRELOAD=" KALVRIN_FAILING_CALLS " KALVRIN_FAIL_FIRST=" << number
         << " KALVRIN_FAIL_LAST=" << (failing.isLasting && number ? INT_MAX : number)
         << " KALVRIN_FAIL_NAMES=" << failing.names << " KALVRIN_FAIL_WITH=" << failing.error
         << " KALVRIN_FAIL_LEDGER=" << ledger / "calls" << ' ' << tool << "'; " << row.line;
    return folder.Run(line.str());
  }
  TestSupport::Ledger Ledger() const {
    TestSupport::Ledger counted;
    std::memcpy(&counted, ReadFile(ledger / "calls").data(), sizeof counted);
    return counted;
  }

  /// All files. The log of a run of many files has times of day in it.
  Files Contents() const {
    Files files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder / "")) {
      const std::string name = entry.path().lexically_relative(folder / "");
      if (!entry.is_regular_file() || name == "log") continue;
      files[name] = std::hash<std::string>()(ReadFile(entry.path()));
    }
    return files;
  }

private:
  TemporaryFolder folder, ledger;
};

/// Whether the file is in a folder that the program says it could not remove.
bool IsToldToBeLeft(const std::string& name, const std::string& errors) {
  const std::size_t end = name.rfind('/');
  return end != std::string::npos &&
         errors.find("warning: cannot remove " + name.substr(0, end) + ":") != std::string::npos;
}

std::vector<std::string> Lines(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);)
    lines.push_back(line);
  return lines;
}

/// What a run prints but for its speed.
std::vector<std::string> Lasting(const std::string& text) {
  std::vector<std::string> lines = Lines(text);
  std::erase_if(lines, [](const std::string& line) {
    return line.find("real-time factor") != std::string::npos || line.starts_with("  speed");
  });
  return lines;
}

/// Each file is what it was or what a whole run makes of it, and there is no other.
void ExpectWholeFiles(const Injection& row, Files now, Files before, Files made) {
  for (Files* const files : {&now, &before, &made})
    files->erase(row.taken);
  if (row.whole == Whole::All && now != made) {
    EXPECT_EQ(now, before);
  }
  for (const auto& file : now)
    EXPECT_TRUE(std::ranges::count(before, file) + std::ranges::count(made, file) > 0)
        << file.first << " is neither";
  for (const auto& [name, bytes] : before)
    EXPECT_TRUE(now.contains(name)) << name << " is gone";
}

/// Lines that tell of more than a warning.
std::ptrdiff_t RefusalsIn(const std::string& errors) {
  return std::ranges::count_if(Lines(errors), [](const std::string& line) {
    return line.starts_with("kalvrin: ") && !line.starts_with("kalvrin: warning: ");
  });
}

/// One line for each thing that failed, and the status that goes with it.
void ExpectRefusal(const Injection& row, const Outcome& outcome) {
  EXPECT_EQ(outcome.exitStatus, 1);
  for (const std::string& line : Lines(outcome.err))
    EXPECT_TRUE(line.starts_with("kalvrin: "));
  if (row.whole == Whole::All) {
    EXPECT_EQ(RefusalsIn(outcome.err), 1);
  }
}

/// 1 to `count` where the environment has KALVRIN_TEST_SWEEP=all, otherwise `most` of them at most.
std::vector<int> Drawn(int count, std::size_t most) {
  std::vector<int> numbers(static_cast<std::size_t>(count));
  std::iota(numbers.begin(), numbers.end(), 1);
  const char* const wish = std::getenv("KALVRIN_TEST_SWEEP");  // NOLINT(concurrency-mt-unsafe)
  if (wish && wish == std::string_view("all")) return numbers;
  static std::mt19937_64 random(TestSeed());
  std::ranges::shuffle(numbers, random);
  numbers.resize(std::min(numbers.size(), most));
  return numbers;
}

/// A whole run, and then `most` runs in which one call or the other fails. How many they were.
std::size_t Sweep(const Injection& row, const Failing& failing, std::size_t most) {
  InjectedRun whole;
  const Files before = whole.Contents();
  const Outcome wholeOutcome = whole.Run(row, failing);
  EXPECT_EQ(wholeOutcome.exitStatus, 0) << row.name << wholeOutcome.err;
  const Files made = whole.Contents();
  const int calls = whole.Ledger().calls;
  const std::vector<int> numbers = Drawn(calls, most);
  for (const int number : numbers) {
    InjectedRun run;
    const Outcome outcome = run.Run(row, failing, number);
    SCOPED_TRACE(testing::Message()
                 << row.name << ", call " << number << ", " << run.Ledger().failed << ", "
                 << failing.name << ", status " << outcome.exitStatus << ":\n"
                 << outcome.err);
    Files after = run.Contents();
    std::erase_if(after, [&](const auto& file) { return IsToldToBeLeft(file.first, outcome.err); });
    ExpectWholeFiles(row, after, before, made);
    if (RefusalsIn(outcome.err) == 0) {
      EXPECT_EQ(outcome.exitStatus, 0);
      EXPECT_EQ(after, made);
      EXPECT_EQ(Lasting(outcome.out), Lasting(wholeOutcome.out));
    } else {
      EXPECT_FALSE(failing.mustGoOn);
      ExpectRefusal(row, outcome);
      ExpectPart(outcome.err, failing.words);
    }
  }
  std::printf("%s, %s: %zu of %d calls\n", row.name, failing.name, numbers.size(), calls);
  return numbers.size();
}

TEST(Injection, EveryCallOfTheSystemFails) {
  std::size_t calls = 0;
  for (const Failing& failing :
       {Failing{"input or output fails", "", EIO}, Failing{"the disk is full", "write", ENOSPC}})
    for (const Injection& row : rows)
      calls += Sweep(row, failing, 25);
  EXPECT_GT(calls, 200) << "or they are not the ones that fail";
}

TEST(Injection, InterruptedAndShortTransfersGoOn) {
  const Failing interrupted = {"interrupted", "read,write", EINTR, false, true};
  const Failing halves = {"short", "read,write", 0, false, true};
  Sweep(renderFiles, interrupted, 20);
  Sweep(renderFiles, halves, 20);
  Sweep(renderPipes, halves, 20);
}

TEST(Injection, EveryAllocationFails) {
  std::size_t calls = 0;
  for (const bool isLasting : {false, true})
    for (const Injection& row : {info, renderFiles, adapt, plugin})
      calls += Sweep(row, {"no memory", "memory", ENOMEM, isLasting, false, "memory"}, 8);
  EXPECT_GT(calls, 60) << "or they are not the ones that fail";
}

}  // namespace
}  // namespace TestSupport
