// Every call of the system that the program makes, and every allocation, fails in turn: what it
// answers is one line and whole files, or it goes on and the result is right.

#include "apps/audio_files.h"
#include "apps/failing_plan.h"
#include "apps/tool_process.h"
#include "support/audio_models.h"
#include "support/model_builder.h"
#include "support/seed.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
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

/// By name: how long a file is, and a number from its bytes.
using Files = std::map<std::string, std::pair<std::size_t, std::size_t>>;

struct Injection {
  const char* name;
  const char* line;  ///< of shell, in a folder of `InjectedRun`
  /// How much of a run stands or falls as one: all files, or each for itself.
  enum class Whole { All, Each } whole = Whole::All;
  const char* taken = "";  ///< the name of a file whose bytes cannot be taken back: a pipe's
};

using Whole = Injection::Whole;
constexpr Injection renderFiles = {"files", "$TOOL render model.onnx in.wav out.wav --block 450"};
constexpr Injection renderPipes = {
    "pipes", "$TOOL render model.onnx - - --block 450 < in.wav | cat > piped.wav", Whole::All,
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
  ModelBuilder model;
  for (const char* name : {"mix", "cache_in"})
    model.Input(name, Element::Float, window);
  for (const char* name : {"enh", "cache_out"})
    model.Output(name, Element::Float, window);
  model.Floats("half", {}, {0.5F});
  model.Node("Add", {"mix", "cache_in"}, {"sum"});
  model.Node("Mul", {"sum", "half"}, {"enh"});
  model.Node("Identity", {"mix"}, {"cache_out"});
  return model.Build();
}

/// The program with what `plugin` copies beside it. Of the engine there is a short text, which the
/// loader refuses, and in the next place that it is looked for the real one.
class ToolWithSmallLibraries {
public:
  ToolWithSmallLibraries() {
    const std::filesystem::path tool = ToolPath(), libraries = tool.parent_path() / "../lib";
    std::filesystem::copy(tool, Path());
    std::filesystem::create_directory(folder / "kalvrin");
    std::filesystem::create_symlink(libraries / "libonnxruntime.so.1",
                                    folder / "kalvrin/libonnxruntime.so.1");
    for (const char* name : {"libonnxruntime.so.1", "libkalvrin.so.0", "libsamplerate.so.0",
                             "kalvrin_lv2.so", "kalvrin_ladspa.so"})
      WriteFile(folder / name, std::string(70'000, '!'));
  }
  std::string Path() const { return folder / "kalvrin-tool"; }

private:
  TemporaryFolder folder;
};

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
  Outcome Run(const Injection& row, int number, const std::string& as) {
    static const ToolWithSmallLibraries tool;
    return folder.Run(
        std::string("TOOL='env LD_PRELOAD=" KALVRIN_FAILING_CALLS " KALVRIN_FAIL_CALL=") +
        std::to_string(number) + " KALVRIN_FAIL_AS=" + as +
        " KALVRIN_FAIL_LEDGER=" + ledger / "calls" + " " + tool.Path() + "'; " + row.line);
  }
  /// How many calls there were, and the name of the one that failed.
  std::pair<int, std::string> Ledger() const {
    const std::string bytes = ReadFile(ledger / "calls");
    TestSupport::Ledger counted{};
    std::memcpy(static_cast<void*>(&counted), bytes.data(), sizeof counted);
    return {counted.calls, counted.failed};
  }

  /// All files. The log of a run of many files has times of day in it.
  Files Contents() const {
    Files files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder / "")) {
      const std::string name = entry.path().lexically_relative(folder / "");
      if (!entry.is_regular_file() || name == "log") continue;
      const std::string bytes = ReadFile(entry.path());
      files[name] = {bytes.size(), std::hash<std::string>()(bytes)};
    }
    return files;
  }

private:
  TemporaryFolder folder, ledger;
};

/// Whether it is in a folder that the program says it could not remove.
bool IsToldToBeLeft(const std::string& name, const std::string& errors) {
  const std::size_t end = name.rfind('/');
  return end != std::string::npos &&
         errors.find("warning: cannot remove " + name.substr(0, end) + ":") != std::string::npos;
}

/// What a run prints but for its speed.
std::string Lasting(const std::string& text) {
  std::istringstream lines(text);
  std::string lasting;
  for (std::string line; std::getline(lines, line);)
    if (line.find("real-time factor") == std::string::npos && !line.starts_with("  speed"))
      lasting += line + '\n';
  return lasting;
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
        << file.first << ": " << file.second.first << " bytes";
  for (const auto& [name, bytes] : before)
    EXPECT_TRUE(now.contains(name)) << name << " is gone";
}

/// Lines that tell of more than a warning.
int RefusalsIn(const std::string& errors) {
  std::istringstream lines(errors);
  int count = 0;
  for (std::string line; std::getline(lines, line);)
    count += line.starts_with("kalvrin: ") && !line.starts_with("kalvrin: warning: ");
  return count;
}

/// One line for each thing that failed, and the status that goes with it.
void ExpectRefusal(const Injection& row, const Outcome& outcome) {
  if (!*row.taken) {  // the status is that of the line's last command
    EXPECT_EQ(outcome.exitStatus, 1);
  }
  std::istringstream lines(outcome.err);
  for (std::string line; std::getline(lines, line);)
    EXPECT_TRUE(line.starts_with("kalvrin: "));
  if (row.whole == Whole::All) {
    EXPECT_EQ(RefusalsIn(outcome.err), 1);
  }
}

/// A way of failing.
struct Failing {
  const char* name;
  std::string as;  ///< KALVRIN_FAIL_AS
  bool mustGoOn = false;
  const char* words = "kalvrin: ";  ///< in the line that says so
};

/// A whole run, and then runs in which one call after the other fails.
class Sweep {
public:
  Sweep(const Injection& row, const Failing& failing) : row(row), failing(failing) {
    before = whole.Contents();
    wholeOutcome = whole.Run(row, 0, failing.as);
    EXPECT_EQ(wholeOutcome.exitStatus, 0) << row.name << wholeOutcome.err;
    made = whole.Contents();
  }

  /// Runs with as many calls failing as there is time for: any ones, or all if the environment has
  /// KALVRIN_TEST_SWEEP=all. How many they were.
  int RunSome(std::size_t most) {
    std::vector<int> numbers(static_cast<std::size_t>(whole.Ledger().first));
    std::iota(numbers.begin(), numbers.end(), 1);
    const char* const wish = std::getenv("KALVRIN_TEST_SWEEP");  // NOLINT(concurrency-mt-unsafe)
    if (!wish || wish != std::string_view("all")) {
      std::ranges::shuffle(numbers, random);
      numbers.resize(std::min(numbers.size(), most));
    }
    for (const int number : numbers)
      Run(number);
    std::printf("%s, %s: %zu of %d calls\n", row.name, failing.name, numbers.size(),
                whole.Ledger().first);
    return static_cast<int>(numbers.size());
  }

private:
  void Run(int number) {
    InjectedRun run;
    const Outcome outcome = run.Run(row, number, failing.as);
    const std::string call = run.Ledger().second;
    SCOPED_TRACE(testing::Message() << row.name << ", call " << number << ", " << call << ", "
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

  const Injection& row;
  const Failing& failing;
  std::mt19937_64 random{TestSeed()};
  InjectedRun whole;
  Outcome wholeOutcome;
  Files before, made;
};

TEST(Injection, EveryCallOfTheSystemFails) {
  const Failing failings[] = {{"input or output fails", std::to_string(EIO)},
                              {"the disk is full", std::to_string(ENOSPC)}};
  int calls = 0;
  for (const Failing& failing : failings)
    for (const Injection& row : rows)
      calls += Sweep(row, failing).RunSome(25);
  std::printf("%d calls failed\n", calls);
  EXPECT_GT(calls, 200) << "or they are not the ones that fail";
}

TEST(Injection, InterruptedAndShortTransfersGoOn) {
  const Failing interrupted = {"interrupted", std::to_string(EINTR), true};
  const Failing halves = {"short", "short", true};
  Sweep(renderFiles, interrupted).RunSome(20);
  Sweep(renderFiles, halves).RunSome(20);
  Sweep(renderPipes, halves).RunSome(20);
}

TEST(Injection, EveryAllocationFails) {
  const Failing failings[] = {{"an allocation fails", "memory", false, "memory"},
                              {"memory is at an end", "all-memory", false, "memory"}};
  int calls = 0;
  for (const Failing& failing : failings)
    for (const Injection& row : {info, renderFiles, adapt, plugin})
      calls += Sweep(row, failing).RunSome(8);
  std::printf("%d allocations failed\n", calls);
  EXPECT_GT(calls, 60) << "or they are not the ones that fail";
}

/// The model is read once, at the start.
TEST(Injection, AModelFileThatChangesMeanwhileChangesNothing) {
  const TemporaryFolder folder;
  WriteFile(folder / "model.onnx", MakeAudioModel({}));
  WriteAudio(folder / "in.wav", MakeNoise(60000, 2, 1));
  ASSERT_EQ(folder.Run("$TOOL render model.onnx in.wav whole.wav --stems stems").exitStatus, 0);
  ToolOnTerminal tool({"render", folder / "model.onnx", folder / "in.wav", folder / "out.wav",
                       "--stems", folder / "stems"});
  ASSERT_TRUE(tool.WaitFor("%")) << "no progress bar";
  WriteFile(folder / "model.onnx", "");
  EXPECT_EQ(tool.Finish().exitStatus, 0);
  EXPECT_EQ(ReadFile(folder / "out.wav"), ReadFile(folder / "whole.wav"));
}

}  // namespace
}  // namespace TestSupport
