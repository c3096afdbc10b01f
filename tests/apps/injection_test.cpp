// Every call of the system that the program makes fails in turn: what it answers is one line and
// whole files, or it goes on and the result is right.

#include "apps/audio_files.h"
#include "apps/tool_process.h"
#include "support/audio_models.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <map>

namespace TestSupport {
namespace {

using Files = std::map<std::string, std::string>;

/// All files under a folder with their bytes.
Files Contents(const TemporaryFolder& folder) {
  Files files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(folder / ""))
    if (entry.is_regular_file()) files[entry.path()] = ReadFile(entry.path());
  return files;
}

struct Injection {
  const char* name;
  const char* line;  ///< after the name of the program
};

/// A folder with a model, audio and a file to replace, and one run in it.
class InjectedRun {
public:
  explicit InjectedRun(const Injection& row) : row(row) {
    static const std::string model = MakeAudioModel({}), audio = [this] {
      WriteAudio(folder / "in.wav", MakeNoise(900, 2, 1));
      return ReadFile(folder / "in.wav");
    }();
    WriteFile(folder / "model.onnx", model);
    WriteFile(folder / "in.wav", audio);
    WriteFile(folder / "out.wav", "old");
  }

  /// Without a number nothing fails.
  Outcome Run(int number, const std::string& as) {
    return RunShell("cd " + folder / "" + " && LD_PRELOAD=" KALVRIN_FAILING_CALLS +
                    " KALVRIN_FAIL_CALL=" + std::to_string(number) + " KALVRIN_FAIL_AS=" + as +
                    " KALVRIN_FAIL_LOG=" + log / "call" + " \"$TOOL\" " + row.line);
  }
  std::string FailedCall() const { return ReadFile(log / "call"); }

  TemporaryFolder folder, log;

private:
  const Injection& row;
};

constexpr Injection rows[] = {
    {"files", "render model.onnx in.wav out.wav --block 450"},
    {"pipes", "render model.onnx - - --block 450 < in.wav | cat > piped.wav"},
    {"other format", "render model.onnx in.wav new.flac --block 450"},
    {"check", "check model.onnx"},
};

/// Each file is what it was or what a whole run makes of it, and there is no other.
void ExpectWholeFiles(const Files& after, const Files& before, const Files& whole, bool isPipe) {
  const auto strip = [](const Files& files) {
    Files named;
    for (const auto& [path, bytes] : files)  // from /tmp/NAME/ on
      named[path.substr(path.find('/', path.find("kalvrin-test-")))] = bytes;
    return named;
  };
  const Files now = strip(after), old = strip(before), made = strip(whole);
  for (const auto& [path, bytes] : now) {
    if (isPipe && path == "/piped.wav") continue;  // what went down a pipe cannot be taken back
    const auto wasThere = old.find(path), isMade = made.find(path);
    EXPECT_TRUE((wasThere != old.end() && wasThere->second == bytes) ||
                (isMade != made.end() && isMade->second == bytes))
        << path << ": " << bytes.size() << " bytes";
  }
  for (const auto& [path, bytes] : old)
    EXPECT_TRUE(now.contains(path)) << path << " is gone";
}

/// As in the table: `as` for call after call, until none is left to fail. The number of runs.
int Sweep(const Injection& row, const std::string& as, bool mustGoOn) {
  InjectedRun whole(row);
  const Files before = Contents(whole.folder);
  EXPECT_EQ(whole.Run(0, "0").exitStatus, 0) << row.name;
  const Files made = Contents(whole.folder);
  const bool isPipe = std::string_view(row.line).find('|') != std::string_view::npos;
  int number = 1;
  for (; number < 400; ++number) {
    InjectedRun run(row);
    const Outcome outcome = run.Run(number, as);
    const std::string call = run.FailedCall();
    if (call.empty()) break;
    SCOPED_TRACE(testing::Message()
                 << row.name << ", call " << number << ", " << call << " as " << as << ":\n"
                 << outcome.err);
    const Files after = Contents(run.folder);
    ExpectWholeFiles(after, before, made, isPipe);
    if (outcome.err.empty() || outcome.err.find("kalvrin: ") == std::string::npos) {
      EXPECT_EQ(outcome.exitStatus, 0);
      EXPECT_EQ(after.size(), made.size());
    } else {
      EXPECT_FALSE(mustGoOn);
      if (!isPipe) {
        EXPECT_EQ(outcome.exitStatus, 1);
      }
      EXPECT_TRUE(outcome.err.starts_with("kalvrin: "));
      EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1);
    }
  }
  EXPECT_LT(number, 400) << "the calls have no end";
  return number - 1;
}

TEST(Injection, EveryCallOfTheSystemFails) {
  int calls = 0;
  for (const Injection& row : rows)
    calls += Sweep(row, std::to_string(EIO), false);
  std::printf("%d calls failed\n", calls);
  EXPECT_GT(calls, 60) << "or they are not the ones that fail";
}

TEST(Injection, InterruptedAndShortTransfersGoOn) {
  Sweep(rows[0], std::to_string(EINTR), true);
  Sweep(rows[0], "short", true);
  Sweep(rows[1], "short", true);
}

/// The model is read once, at the start.
TEST(Injection, AModelFileThatChangesMeanwhileChangesNothing) {
  const TemporaryFolder folder;
  WriteFile(folder / "model.onnx", MakeAudioModel({}));
  WriteAudio(folder / "in.wav", MakeNoise(60000, 2, 1));
  ASSERT_EQ(RunTool({"render", folder / "model.onnx", folder / "in.wav", folder / "whole.wav",
                     "--stems", folder / "stems"})
                .exitStatus,
            0);
  ToolOnTerminal tool({"render", folder / "model.onnx", folder / "in.wav", folder / "out.wav",
                       "--stems", folder / "stems"});
  ASSERT_TRUE(tool.WaitFor("%")) << "no progress bar";
  WriteFile(folder / "model.onnx", "");
  EXPECT_EQ(tool.Finish().exitStatus, 0);
  EXPECT_EQ(ReadFile(folder / "out.wav"), ReadFile(folder / "whole.wav"));
}

}  // namespace
}  // namespace TestSupport
