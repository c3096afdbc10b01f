// The parts of the program that need no process.

#include "audio/sound_file.h"
#include "bench/timed_stream.h"
#include "command_line/errors.h"
#include "command_line/progress.h"
#include "command_line/values.h"
#include "render/mix.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numeric>

namespace Orvik::Tesmo::Tool {
namespace {

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

TEST(Quantize, CutsWhatIsLouderThanFullScale) {
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
  EXPECT_EQ(
      SafeFileNames({"Mix", "Rest", "mix", "a/b", "..", "", "-rf", "MIX", "a\nb", "Stimme ü",
                     longName, umlauts + "u"}),
      (std::vector<std::string>{"Mix", "Rest", "mix-2", "a_b", "_..", "_", "_-rf", "MIX-3", "a_b-2",
                                "Stimme ü", longName.substr(0, 100), umlauts.substr(0, 100)}));
}

TEST(Progress, FitsTheTerminalAndTellsTheTimeLeft) {
  EXPECT_EQ(ProgressText(0.5, 0, 20), "[#####......]  50 %");
  EXPECT_EQ(ProgressText(2, 0, 20), "[###########] 100 %");
  EXPECT_NE(ProgressText(0.25, 30, 80).find("1:30 left"), std::string::npos);
  for (const int columns : {20, 40, 80, 200})
    EXPECT_LT(ProgressText(0.3, 1e5, columns).size(), std::max<std::size_t>(columns, 25));
  EXPECT_EQ(BatchProgressText({.all = 1000}, 0), "0 of 1000 files");
  EXPECT_EQ(BatchProgressText({1000, 100, 200, 1, 500}, 10),
            "301 of 1000 files, 200 done before, 1 failed, 10.1 files/s, 50 s of audio/s, "
            "1:09 left");
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

}  // namespace
}  // namespace Orvik::Tesmo::Tool
