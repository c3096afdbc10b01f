// Whatever goes wrong, the tool prints one clear line, exits with 1, and leaves no unfinished file.

#include "apps/audio_files.h"
#include "apps/tool_process.h"
#include "support/audio_models.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sndfile.h>

namespace TestSupport {
namespace {

class Failure : public testing::Test {
protected:
  Failure() {
    WriteFile(folder / "model.onnx", MakeAudioModel({}));
    WriteFile(folder / "failing.onnx", MakeAudioModel({.failsFromEvaluation = 5}));
    WriteFile(folder / "text.onnx", "no model");
    WriteFile(folder / "wideband.onnx", MakeAudioModel({.metadata = {{"SampleRate", "96000"}}}));
    WriteFile(folder / "text.wav", "no audio");
    WriteAudio(folder / "in.wav", MakeNoise(20000, 2, 1));
    WriteAudio(folder / "wide.wav", MakeNoise(100, 64, 1));
    Audio flac = MakeNoise(20000, 2, 1);
    flac.format = SF_FORMAT_FLAC | SF_FORMAT_PCM_16;
    WriteAudio(folder / "in.flac", flac);
    std::string damaged = ReadFile(folder / "in.flac");
    damaged.replace(damaged.size() / 2, 2000, 2000, '\xFF');
    WriteFile(folder / "damaged.flac", damaged);
    before = folder.Names();
  }

  TemporaryFolder folder;
  std::vector<std::string> before;
};

TEST_F(Failure, IsOneLineAndLeavesNothing) {
  const struct {
    const char* line;
    const char* message;
  } rows[] = {
      {"render model.onnx nowhere.wav out.wav",
       "cannot read nowhere.wav: No such file or directory"},
      {"render model.onnx - out.wav", "standard input is no audio that can be read: "},
      {"render text.onnx in.wav out.wav", "text.onnx is refused: the file is no model"},
      {"render wideband.onnx in.wav out.wav",
       "48000 Hz, and the model works at 96000 Hz; --resample"},
      {"render failing.onnx in.wav out.wav --stems stems", "the model failed at "},
      {"render model.onnx in.wav nowhere/out.wav",
       "cannot write nowhere/out.wav: no file can be made in nowhere"},
      {"render model.onnx in.wav .", "cannot write .: Is a directory"},
      {"render model.onnx in.wav out.wav --stems text.wav", "cannot make the folder text.wav"},
      {"render model.onnx in.wav - > /dev/full",
       "cannot write standard output: No space left on device"},
      {"render model.onnx wide.wav out.flac",
       "FLAC, 24-bit cannot hold 64 channels at 48000 Hz; FLAC holds at most 8"},
      {"render model.onnx in.wav out.flac --encoding float",
       "FLAC holds 16-bit and 24-bit samples only"},
      {"render model.onnx in.wav out.ogg --encoding pcm16",
       "--encoding has no meaning for Ogg Vorbis"},
      {"render model.onnx damaged.flac out.wav", "damaged.flac cannot be read past "},
  };
  for (const auto& row : rows) {
    const Outcome outcome = folder.Run(std::string("$TOOL ") + row.line);
    EXPECT_EQ(outcome.exitStatus, 1) << row.line << '\n' << outcome.err;
    ExpectPart(outcome.err, row.message, row.line);
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
    EXPECT_EQ(outcome.out, "") << row.line;
    EXPECT_EQ(folder.Names(), before) << row.line;
  }
}

TEST_F(Failure, AProtectedFileIsKept) {
  WriteFile(folder / "out.wav", "old");
  const auto all = std::filesystem::perms::all;
  std::filesystem::permissions(folder / "", all);
  std::filesystem::permissions(folder / "out.wav", std::filesystem::perms::owner_read);
  // Root may write everything, so the program runs as nobody then.
  const std::string nobody = "setpriv --reuid=65534 --regid=65534 --clear-groups ";
  const std::string line = "$TOOL render model.onnx in.wav out.wav";
  const Outcome outcome = folder.Run(geteuid() == 0 ? nobody + line : line);
  if (outcome.exitStatus >= 126) GTEST_SKIP() << "nobody may not run the program: " << outcome.err;
  EXPECT_EQ(outcome.exitStatus, 1);
  EXPECT_EQ(outcome.err, "kalvrin: cannot write out.wav: Permission denied\n");
  EXPECT_EQ(ReadFile(folder / "out.wav"), "old");
}

TEST_F(Failure, ATooLongFileKeepsTheOldOne) {
  WriteFile(folder / "out.ogg", "old");
  // 8 blocks of 512 bytes is all that a file may have.
  const Outcome outcome = folder.Run("ulimit -f 8 && $TOOL render model.onnx in.wav out.ogg");
  EXPECT_EQ(outcome.err, "kalvrin: cannot write out.ogg: File too large\n");
  EXPECT_EQ(ReadFile(folder / "out.ogg"), "old");
}

TEST_F(Failure, AKilledRenderLeavesNothing) {
  WriteAudio(folder / "long.wav", MakeNoise(2'000'000, 1, 1));
  before = folder.Names();
  for (const int signal : {SIGKILL, SIGINT, SIGTERM, SIGHUP}) {
    const Outcome outcome =
        folder.RunOnTerminal("render model.onnx long.wav out.wav --stems stems --block 1", "%",
                             "kill -" + std::to_string(signal) + " $PID");
    EXPECT_EQ(outcome.exitStatus, 128 + signal) << outcome.err;
    // Killed outright, it could not remove the folder that it had made; that one is empty.
    std::error_code ignored;
    std::filesystem::remove(folder / "stems", ignored);
    EXPECT_EQ(folder.Names(), before) << "signal " << signal;
  }
}

TEST_F(Failure, AModelFileEmptiedUnderTheProgressBarChangesNothing) {
  EXPECT_EQ(folder.Run("$TOOL render model.onnx in.wav whole.wav --block 1").err, "")
      << "a bar that is not on a terminal";
  const Outcome onTerminal =
      folder.RunOnTerminal("render model.onnx in.wav out.wav --block 1", "%", ": > model.onnx");
  EXPECT_EQ(onTerminal.exitStatus, 0) << onTerminal.err;
  ExpectPart(onTerminal.err, "\r\x1b[K\nScript done");  // the line is wiped
  EXPECT_EQ(ReadFile(folder / "model.onnx"), "") << "no progress bar";
  EXPECT_TRUE(ReadFile(folder / "out.wav") == ReadFile(folder / "whole.wav"));
}

}  // namespace
}  // namespace TestSupport
