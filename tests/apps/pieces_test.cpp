// The parts of the program that need no process.

#include "apps/tool_process.h"
#include "audio/aligner.h"
#include "audio/file_names.h"
#include "audio/output_file.h"
#include "audio/quantize.h"
#include "bench/timed_stream.h"
#include "command_line/arguments.h"
#include "command_line/gains.h"
#include "command_line/progress_bar.h"
#include "stream/assemble_stream.h"
#include "support/fake_platform.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numeric>
#include <unistd.h>

namespace Orvik::Tesmo::Tool {
namespace {

struct Settings {
  std::string text;
  std::uint64_t count = 0;
  bool flag = false;
};
constexpr Option<Settings> options[] = {
    {"--text", "T", "", [](Settings& s, std::string_view value) { s.text = value; }},
    {"--count", "N", "",
     [](Settings& s, std::string_view value) { s.count = ParseCount(value, 1, 10); }},
    {"--flag", "", "", [](Settings& s, std::string_view) { s.flag = true; }},
};

std::string Joined(const std::vector<std::string>& parts) {
  std::string text;
  for (const std::string& part : parts)
    text += part + '|';
  return text;
}

TEST(Arguments, OptionsAndOperandsInAnyOrder) {
  const struct {
    std::vector<const char*> arguments;
    std::string operands, text;
    std::uint64_t count;
    bool flag;
  } rows[] = {
      {{}, "", "", 0, false},
      {{"a", "--text", "b", "c"}, "a|c|", "b", 0, false},
      {{"--text=b=c", "--count=10", "--flag"}, "", "b=c", 10, true},
      {{"--text", "-6dB", "-"}, "-|", "-6dB", 0, false},
      {{"--text=", "--", "--flag", "-x", "--"}, "--flag|-x|--|", "", 0, false},
  };
  for (const auto& row : rows) {
    Settings settings;
    const auto operands = ParseArguments<Settings>(row.arguments, options, settings);
    EXPECT_EQ(Joined(operands), row.operands);
    EXPECT_EQ(settings.text, row.text) << row.operands;
    EXPECT_EQ(settings.count, row.count) << row.operands;
    EXPECT_EQ(settings.flag, row.flag) << row.operands;
  }
}

TEST(Arguments, RefusalsNameTheCulprit) {
  const struct {
    std::vector<const char*> arguments;
    const char* message;
  } rows[] = {
      {{"--other"}, "there is no option --other"},
      {{"-t"}, "there is no option -t"},
      {{"--tex", "a"}, "there is no option --tex"},
      {{"--text"}, "--text needs a value"},
      {{"--flag=1"}, "--flag takes no value"},
      {{"--count", "0"}, "--count: '0' is not a whole number from 1 to 10"},
      {{"--count", "11"}, "--count: '11' is not a whole number from 1 to 10"},
      {{"--count", "3x"}, "--count: '3x' is not a whole number from 1 to 10"},
      {{"--count=99999999999999999999"},
       "--count: '99999999999999999999' is not a whole number from 1 to 10"},
      {{"a"}, "OUT is missing"},
      {{"a", ""}, "OUT is empty"},
      {{"a", "b", "c"}, "'c' is one too many"},
  };
  for (const auto& row : rows) {
    Settings settings;
    try {
      ExpectOperands(ParseArguments<Settings>(row.arguments, options, settings), "IN OUT");
      ADD_FAILURE() << "no refusal: " << row.message;
    } catch (const UsageError& error) {
      EXPECT_STREQ(error.what(), row.message);
    }
  }
}

TEST(Gains, FactorsAndDecibels) {
  const struct {
    const char* text;
    double gain;  // NaN: refused
  } rows[] = {
      {"0", 0},           {"1", 1},      {"0.5", 0.5},    {"+2", 2},          {".25", 0.25},
      {"2e1", 20},        {"-0", 0},     {"0dB", 1},      {"-6dB", 0.501187}, {"-6 db", 0.501187},
      {"+6DB", 1.995262}, {"20dB", 10},  {"-infdB", 0},   {"-200dB", 1e-10},  {"", NAN},
      {"dB", NAN},        {"-0.5", NAN}, {"0,5", NAN},    {"nan", NAN},       {"inf", NAN},
      {"infdB", NAN},     {"1e99", NAN}, {"800dB", NAN},  {"+-6dB", NAN},     {"--6dB", NAN},
      {"0.5x", NAN},      {" 1", NAN},   {"-6 d B", NAN}, {"0x10", NAN},
  };
  for (const auto& row : rows) {
    if (std::isnan(row.gain))
      EXPECT_THROW(ParseGain(row.text), UsageError) << row.text;
    else
      EXPECT_NEAR(ParseGain(row.text), row.gain, 1e-6 * row.gain) << row.text;
  }
}

TEST(Gains, NameAndGainPartAtTheLastEqualsSign) {
  EXPECT_EQ(ParseClassGain("a=b=0.5").name, "a=b");
  EXPECT_EQ(ParseClassGain("Спів=2").gain, 2);
  for (const char* text : {"", "Speech", "=1", "Speech=", "Speech=loud"})
    EXPECT_THROW(ParseClassGain(text), UsageError) << text;
}

TEST(Aligner, CutsTheStretchWhereverTheBlocksLie) {
  std::vector<float> all(200);  // 100 frames of 2 channels
  std::iota(all.begin(), all.end(), 0.0F);
  for (const std::size_t block : {1, 7, 10, 100})
    for (const std::size_t skip : {0, 3, 10, 100, 120})
      for (const std::size_t length : {0, 1, 40, 100}) {
        Aligner aligner(skip, 2);
        aligner.SetLength(length);
        std::vector<float> kept;
        for (std::size_t at = 0; at < 100; at += block) {
          const std::span<const float> rest(all.begin() + static_cast<long>(2 * at), all.end());
          const auto part = aligner.Take(rest.first(std::min(2 * block, rest.size())));
          kept.insert(kept.end(), part.begin(), part.end());
        }
        const std::size_t begin = std::min<std::size_t>(2 * skip, 200);
        const std::size_t end = std::min<std::size_t>(2 * (skip + length), 200);
        EXPECT_EQ(kept, std::vector<float>(all.begin() + static_cast<long>(begin),
                                           all.begin() + static_cast<long>(end)))
            << "block " << block << ", skip " << skip << ", length " << length;
      }
}

TEST(Quantize, EverySixteenBitSampleSurvivesAndLoudOnesAreCut) {
  std::vector<float> in;
  for (int level = -32768; level < 32768; ++level)
    in.push_back(static_cast<float>(level) / 32768 + (level % 2 ? 1e-6F : -1e-6F));
  std::vector<std::int32_t> out(in.size());
  EXPECT_EQ(Quantize(in, 16, out), 0);
  for (int level = -32768; level < 32768; ++level)
    ASSERT_EQ(out[static_cast<std::size_t>(level + 32768)], level * 65536) << level;

  const struct {
    float in;
    int bits;
    std::int32_t out;
    std::uint64_t cut;
  } rows[] = {
      {1, 16, 0x7FFF0000, 0}, {1.5F, 16, 0x7FFF0000, 1}, {-1, 16, INT32_MIN, 0},
      {-3, 16, INT32_MIN, 1}, {1, 24, 0x7FFFFF00, 0},    {0.5F, 24, 0x40000000, 0},
      {1, 32, 0x7FFFFFFF, 0}, {2, 32, 0x7FFFFFFF, 1},    {-2, 32, INT32_MIN, 1},
  };
  for (const auto& row : rows) {
    std::int32_t value = 0;
    EXPECT_EQ(Quantize({&row.in, 1}, row.bits, {&value, 1}), row.cut) << row.in;
    EXPECT_EQ(value, row.out) << row.in << " in " << row.bits << " bits";
  }
}

TEST(FileNames, AreSafeAndDifferent) {
  const std::string longName(300, 'x');
  std::string umlauts;
  for (int i = 0; i < 60; ++i)
    umlauts += "ü";
  EXPECT_EQ(Joined(SafeFileNames({"Mix", "Rest", "mix", "a/b", "..", "", "-rf", "MIX", "a\nb",
                                  "Stimme ü", longName, umlauts + "u"})),
            "Mix|Rest|mix-2|a_b|_..|_|_-rf|MIX-3|a_b-2|Stimme ü|" + longName.substr(0, 100) + '|' +
                umlauts.substr(0, 100) + '|');
}

TEST(ProgressText, FitsTheTerminal) {
  EXPECT_EQ(ProgressText(0, 0, 20), "[...........]   0 %");
  EXPECT_EQ(ProgressText(0.5, 0, 20), "[#####......]  50 %");
  EXPECT_EQ(ProgressText(2, 0, 20), "[###########] 100 %");
  EXPECT_NE(ProgressText(0.25, 30, 80).find("1:30 left"), std::string::npos);
  for (const int columns : {20, 40, 80, 200})
    EXPECT_LT(ProgressText(0.3, 1e5, columns).size(), std::max<std::size_t>(columns, 25));
}

TEST(Quantile, IsTheLeastThatEnoughDoNotExceed) {
  const struct {
    std::size_t count;  // values 1 to count, in falling order
    double p, value;
  } rows[] = {{0, 0.5, 0},     {1, 0.9999, 1}, {2, 0.5, 1},        {3, 0.5, 2},
              {1000, 1, 1000}, {1000, 0, 1},   {1000, 0.999, 999}, {20000, 0.9999, 19998}};
  for (const auto& row : rows) {
    std::vector<float> values(row.count);
    std::iota(values.rbegin(), values.rend(), 1.0F);
    EXPECT_EQ(Quantile(values, row.p), row.value) << row.count << ' ' << row.p;
  }
}

/// Which blocks run the model, against what the engine is asked for.
TEST(TimedStream, TellsTheBlocksWithTheModelFromTheOthers) {
  // hop 8; the evaluations of one block where all blocks have as many
  const struct {
    std::uint64_t sequenceSize, blockFrames, perBlock;
  } rows[] = {{4, 8, 1}, {4, 32, 1}, {4, 13, 1}, {1, 8, 1}, {1, 2, 1}, {2, 48, 3}};
  for (const auto& row : rows) {
    TestSupport::FakeRuntime runtime(TestSupport::MakeFakeAudioModel(16, {1}));
    TimedStream stream(AssembleStream(runtime, "model", 5, row.sequenceSize, 2, row.blockFrames),
                       {2, row.sequenceSize, row.blockFrames}, 8);
    const auto before = runtime.GetEvaluationCount();
    const BlockTimes times = stream.Run(200, 1e9);
    const auto evaluations = static_cast<std::uint64_t>(runtime.GetEvaluationCount() - before);
    EXPECT_EQ(times.Count(), 200U);
    EXPECT_EQ(times.evaluating.size() * row.perBlock, evaluations)
        << row.sequenceSize << ' ' << row.blockFrames;
  }
}

TEST(OutputFile, AppearsAtCommitOnly) {
  const TestSupport::TemporaryFolder folder;
  const std::string path = folder / "out";
  const std::string link = folder / "link";
  TestSupport::WriteFile(path, "old");
  ASSERT_EQ(chmod(path.c_str(), 0640), 0);
  ASSERT_EQ(symlink(path.c_str(), link.c_str()), 0);
  {
    const OutputFile dropped(path);
    WriteFully(dropped.Get(), "new", 3);
  }
  EXPECT_EQ(TestSupport::ReadFile(path), "old");
  OutputFile kept(link);
  WriteFully(kept.Get(), "new", 3);
  kept.Commit();
  EXPECT_EQ(TestSupport::ReadFile(path), "new");
  EXPECT_TRUE(std::filesystem::is_symlink(link));
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0640});
  EXPECT_EQ(Joined(folder.Names()), "link|out|");
}

}  // namespace
}  // namespace Orvik::Tesmo::Tool
