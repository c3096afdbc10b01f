// `kalvrin render` on many files: each output is the same as when its input is rendered alone, no
// file is rendered twice, and none is left unfinished.

#include "apps/audio_files.h"
#include "apps/tool_process.h"
#include "support/audio_models.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <set>
#include <sndfile.h>
#include <sstream>

namespace TestSupport {
namespace {

namespace fs = std::filesystem;

/// A model that fails on samples of full scale, and a folder with folders of audio files.
class Batch : public testing::Test {
protected:
  static constexpr int count = 9;

  Batch() {
    WriteFile(folder / "model.onnx", MakeAudioModel({.classGains = {0.5F},
                                                     .states = {{.shape = {1}, .isHeard = true}},
                                                     .failsOnLevel = true}));
    for (int i = 0; i < count; ++i)
      WriteInput("in/" + std::to_string(i % 2) + "/" + std::to_string(i) + ".wav", i % 3 + 1);
  }

  void WriteInput(const std::string& name, int channels, float level = 0) {
    fs::create_directories(fs::path(folder / name).parent_path());
    Audio audio = MakeNoise(3000, channels, 7 * name.size() + static_cast<unsigned>(name[5]));
    if (level != 0) audio.samples.assign(audio.samples.size(), level);
    WriteAudio(folder / name, audio);
  }

  Outcome Run(const std::string& line, int exitStatus = 0) {
    Outcome outcome = folder.Run("$TOOL render " + line);
    EXPECT_EQ(outcome.exitStatus, exitStatus) << line << '\n' << outcome.err;
    return outcome;
  }

  /// Paths of the files below a folder.
  std::set<std::string> Files(const std::string& name) const {
    std::set<std::string> found;
    for (const auto& entry : fs::recursive_directory_iterator(folder / name))
      if (entry.is_regular_file()) found.insert(entry.path().lexically_relative(folder / name));
    return found;
  }

  TemporaryFolder folder;
};

TEST_F(Batch, ShardsTakeEveryFileOnceAndRenderItAsAlone) {
  for (const char* shard : {"1/4", "2/4", "3/4", "4/4"}) {
    const Outcome outcome =
        Run(std::string("model.onnx in out --jobs 2 --rest 0.25 --stems stems --shard ") + shard);
    ExpectPart(outcome.out, " rendered, 0 done before, 0 failed");
  }
  ASSERT_EQ(Files("out"), Files("in"));
  for (const std::string& name : Files("in")) {
    Run("model.onnx in/" + name + " alone.wav --rest 0.25 --stems alone");
    EXPECT_EQ(ReadFile(folder / ("out/" + name)), ReadFile(folder / "alone.wav")) << name;
    const std::string stems = "stems/" + name.substr(0, name.size() - 4);
    EXPECT_EQ(ReadFile(folder / (stems + "/Rest.wav")), ReadFile(folder / "alone/Rest.wav"));
  }
}

TEST_F(Batch, WhatIsDoneIsLeftAlone) {
  Run("model.onnx in out");
  const auto before = fs::last_write_time(folder / "out/0/0.wav");
  fs::last_write_time(folder / "in/1/1.wav", before + std::chrono::seconds(5));
  fs::remove(folder / "out/0/2.wav");
  ExpectPart(Run("model.onnx in out").out, "2 rendered, 7 done before, 0 failed");
  EXPECT_EQ(fs::last_write_time(folder / "out/0/0.wav"), before);
  ExpectPart(Run("model.onnx in out --again").out, "9 rendered, 0 done before");
  fs::last_write_time(folder / "model.onnx",
                      fs::file_time_type::clock::now() + std::chrono::seconds(5));
  ExpectPart(Run("model.onnx in out").out, "9 rendered, 0 done before");
}

TEST_F(Batch, FailuresAreToldAndTheRestIsRendered) {
  WriteInput("in/0/loud.wav", 1, 1.5F);
  WriteFile(folder / "in/1/text.wav", "no audio");
  const Outcome outcome = Run("model.onnx in out --jobs 2 --log log", 1);
  ExpectPart(outcome.out, "9 rendered, 0 done before, 2 failed");
  ExpectPart(outcome.err, "kalvrin: in/0/loud.wav: the model failed at ");
  EXPECT_FALSE(fs::exists(folder / "out/0/loud.wav"));
  EXPECT_EQ(Files("out").size(), std::size_t{count});

  Run("model.onnx in out --jobs 2 --log log", 1);
  std::istringstream log(ReadFile(folder / "log"));
  int done = 0, failed = 0, skipped = 0;
  for (std::string line; std::getline(log, line);) {
    EXPECT_TRUE(line.starts_with(R"({"time":")") && line.ends_with("}")) << line;
    done += line.find(R"("status":"done","channels":)") != std::string::npos;
    failed += line.find(R"("status":"failed","error":")") != std::string::npos;
    skipped += line.find(R"("status":"skipped")") != std::string::npos;
  }
  EXPECT_EQ(std::tie(done, failed, skipped), std::make_tuple(9, 4, 9));
}

TEST_F(Batch, AListIsTakenInItsOrder) {
  Run("model.onnx - out --list --format flac <<END\nin/1/3.wav\n\nin/0/4.wav\nEND\n");
  EXPECT_EQ(Files("out"), (std::set<std::string>{"in/0/4.flac", "in/1/3.flac"}));
  Run("model.onnx - out2 --list --shard 2/2 <<END\n$PWD/in/1/3.wav\n$PWD/in/0/4.wav\nEND\n");
  EXPECT_EQ(*Files("out2").begin(), (folder / "in/0/4.wav").substr(1));
}

TEST_F(Batch, RefusesWhatWouldLoseSomething) {
  WriteInput("same/tone.wav", 1);
  fs::copy_file(folder / "same/tone.wav", folder / "same/tone.aiff");
  fs::create_directory(folder / "empty");
  const struct {
    const char* line;
    int exitStatus;
    const char* words;
  } rows[] = {
      {"model.onnx in in", 1, "OUT is the folder of the input"},
      {"model.onnx same out", 1, "would both become tone.wav"},
      {"model.onnx empty out", 1, "no audio file in empty"},
      {"model.onnx nowhere out --list", 1, "cannot read the list nowhere"},
      {"model.onnx - out --list <<END\n../x.wav\nEND\n", 1, "leads out of"},
      {"model.onnx - . --list <<END\nin/0/0.wav\nEND\n", 1, "would lie on it"},
      {"model.onnx in out --gain Drums=1", 2, "no class 'Drums'"},
      {"model.onnx in out --shard 3/2", 2, "--shard: "},
      {"model.onnx in/0/0.wav x.wav --jobs 2", 2, "go with a folder"},
  };
  for (const auto& row : rows)
    ExpectPart(Run(row.line, row.exitStatus).err, row.words, row.line);
}

TEST_F(Batch, ASignalEndsAllOfIt) {
  for (int i = 0; i < 40; ++i)
    WriteInput("in/long" + std::to_string(i) + ".wav", 2);
  const Outcome outcome = folder.RunOnTerminal(
      "render model.onnx in out --jobs 2 --sequence 1 --block 1", "of 49 files", "kill -TERM $PID");
  EXPECT_EQ(outcome.exitStatus, 128 + SIGTERM);
  for (const std::string& name : Files("out")) {
    EXPECT_TRUE(name.ends_with(".wav") && !name.starts_with(".")) << name;
    EXPECT_EQ(ReadAudio(folder / ("out/" + name)).Frames(), 3000u) << name;
  }
}

}  // namespace
}  // namespace TestSupport
