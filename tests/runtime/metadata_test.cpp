#include "failure/exceptions.h"
#include "runtime/metadata.h"
#include "runtime/model_info.h"
#include "runtime/text.h"
#include "support/fake_platform.h"
#include "support/outcome.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

namespace {

using namespace Orvik::Tesmo;
using namespace Orvik::Tesmo::Dnn;
using TestSupport::FakeRuntime;
using TestSupport::Outcome;
using Metadata = std::vector<std::pair<std::u16string, std::u16string>>;

struct Loaded {
  FakeRuntime runtime;
  std::shared_ptr<Platform::Model> model;

  explicit Loaded(const Metadata& metadata) : runtime({{}, {}, metadata}) {
    CheckResult(runtime.LoadModel("x", 1, model));
  }
};

/// What one key of `info` reads as; the two keys with a second reader also as that one reads it.
std::string Reading(const ModelInfo& info, const Platform::Model& model,
                    const std::u16string& key) {
  const auto both = [&](std::int32_t json) {
    return std::to_string(json) + " / " + std::to_string(FindMetadataDecimal(model, key));
  };
  if (key == u"Name") return Utf8FromUtf16(info.GetName());
  if (key == u"SampleRate") return both(info.GetSampleRate());
  if (key == u"LookaheadNumBlocks") return both(info.GetLookaheadNumBlocks());
  if (key == u"OverlapInSamples") return std::to_string(info.GetOverlapInSamples());
  if (key == u"BaselineSequenceSize") return std::to_string(info.GetBaselineSequenceSize());
  std::string text;
  if (key == u"AudioClassNames") {
    for (std::uint32_t id = 0; id < info.GetAudioClassCount(); ++id)
      text += Utf8FromUtf16(info.GetAudioClassName(id)) + ";";
  } else {
    for (const ChannelBinding& bound : info.GetChannelBindings())
      text += std::to_string(bound.channel) + "=" + Utf8FromUtf16(bound.audioClass) + ";";
  }
  return text;
}

TEST(ModelInfo, ReadsEachKey) {
  const std::u16string rate = u"SampleRate", names = u"AudioClassNames",
                       bindings = u"ChannelToAudioClassBindings";
  const struct {
    std::u16string key, text;
    const char* reading;
  } rows[] = {
      {u"Name", u"", ""},
      {u"Name", u"\"not JSON", "\"not JSON"},
      {rate, u"16000", "16000 / 16000"},
      {rate, u" \n16000\t", "16000 / 16000"},
      {rate, u"16000.0", "48000 / 16000"},
      {rate, u"4.8e4", "48000 / 4"},
      {rate, u"-1", "-1 / -1"},
      {rate, u"\"16000\"", "48000 / 0"},
      {rate, u"true", "48000 / 0"},
      {rate, u"[16000]", "48000 / 0"},
      {rate, u"4294967297", "1 / 2147483647"},
      {rate, u"-4294967297", "-1 / -2147483648"},
      {rate, u"99999999999999999999", "48000 / 2147483647"},
      {u"LookaheadNumBlocks", u"2.5", "0 / 2"},
      {u"OverlapInSamples", u"240", "240"},
      {u"BaselineSequenceSize", u"8", "8"},
      {u"BaselineSequenceSize", u"null", "0"},
      {names, u"[]", "Extracted;"},
      {names, u"{\"a\":[\"Speech\"]}", "Extracted;"},
      {names, u"\"Speech\"", "Extracted;"},
      {names, u"[1,2]", "Extracted;"},
      {names, u"[1,\"Speech\",null,[\"x\",[\"y\"]],{\"k\":\"z\"},\"Music\"]", "Speech;Music;"},
      {names, u"[\"Speech\",\"Speech\"]", "Speech;Speech;"},
      {names, u"[\"\\u00e9\\ud83d\\ude00\xE9\xD83D\xDE00\"]",
       "\xC3\xA9\xF0\x9F\x98\x80\xC3\xA9\xF0\x9F\x98\x80;"},
      {bindings, u"[]", ""},
      {bindings, u"7", ""},
      {bindings, u"[[0,\"Speech\"],[1,\"Music\"],[0,\"Rest\"]]", "0=Speech;1=Music;0=Rest;"},
      {bindings,
       u"[[0,\"Speech\",\"x\"],[1],[-1,\"S\"],[2.0,\"S\"],[\"3\",\"S\"],[4,5],7,[],"
       u"{\"0\":6,\"1\":\"S\"},[[6],\"S\"],[8,[\"S\"]]]",
       "0=Speech;"},
      {bindings, u"[[4294967301,\"Speech\"]]", "5=Speech;"},
  };
  for (const auto& row : rows) {
    const Loaded loaded({{u"Other", u"{"}, {row.key, row.text}});
    const std::string where = Utf8FromUtf16(row.key + u": " + row.text);
    EXPECT_EQ(Reading(ModelInfo(*loaded.model), *loaded.model, row.key), row.reading) << where;
  }
}

TEST(ModelInfo, HasDefaultsForMissingKeysAndKnowsNoOtherCase) {
  const Loaded loaded({{u"name", u"x"}, {u"samplerate", u"1"}, {u"audioclassnames", u"[\"x\"]"}});
  const ModelInfo info(*loaded.model);
  const struct {
    std::u16string key;
    const char* reading;
  } rows[] = {{u"Name", "(Model name N/A)"},       {u"SampleRate", "48000 / 0"},
              {u"LookaheadNumBlocks", "0 / 0"},    {u"OverlapInSamples", "0"},
              {u"BaselineSequenceSize", "0"},      {u"AudioClassNames", "Extracted;"},
              {u"ChannelToAudioClassBindings", ""}};
  for (const auto& row : rows)
    EXPECT_EQ(Reading(info, *loaded.model, row.key), row.reading) << Utf8FromUtf16(row.key);
  EXPECT_EQ(Outcome([&] { info.GetAudioClassName(1); }), "Audio class ID is out of range");
}

TEST(ModelInfo, RefusesTextThatIsNoJson) {
  const struct {
    std::u16string text;
    const char* outcome;  ///< how it starts
  } rows[] = {
      {u"", "[json.exception.parse_error"},
      {u"16000 Hz", "[json.exception.parse_error"},
      {u"1 // one", "[json.exception.parse_error"},
      {u"[\"a\",]", "[json.exception.parse_error"},
      {u"[\"\xD800\"]", "bad conversion"},
      {u"[\"\xDC00\"]", "[json.exception.parse_error"},
      {u"[\"\\ud800\"]", "[json.exception.parse_error"},
      {u"7\xD800", "[json.exception.parse_error"},
      {u"1e999", "[json.exception.out_of_range"},
      {std::u16string(100000, u'['), "[json.exception.parse_error"},
  };
  for (const std::u16string key :
       {u"SampleRate", u"LookaheadNumBlocks", u"OverlapInSamples", u"BaselineSequenceSize",
        u"AudioClassNames", u"ChannelToAudioClassBindings", u"WindowShape"}) {
    for (const auto& row : rows) {
      const Loaded loaded({{key, row.text}});
      const std::string outcome = Outcome([&] { ModelInfo info(*loaded.model); });
      EXPECT_EQ(outcome.substr(0, std::strlen(row.outcome)), row.outcome)
          << Utf8FromUtf16(key) << ": " << row.text.size();
    }
  }
}

TEST(WindowShape, IsReadOrRefused) {
  const std::string form = "WindowShape of the model has none of the forms that it may have",
                    length = "The window of WindowShape is longer than the model's windows",
                    sum = "The windows of WindowShape do not add up to 1 at half overlap";
  const struct {
    const char* text;
    std::uint32_t windowLength;
    std::string outcome;
    double error = 0;
  } rows[] = {
      {R"("hann")", 2, "ok"},
      {R"({"shape": "vorbis"})", 512, "ok"},
      {R"({"length": 400, "shape": "hann"})", 512, "ok"},
      {R"({"shape": "rectangular", "length": 256})", 512, "ok"},
      {R"({"shape": "rectangular", "length": 255})", 512, sum, 1},
      {R"({"shape": "hann", "length": 257})", 512, sum, 1},
      {R"({"shape": "hann", "length": 513})", 512, length},
      {R"({"analysis": [2, -1]})", 2, "ok"},
      {R"({"analysis": [2, -1]})", 8, sum, 1},
      {R"({"analysis": [0, 0]})", 2, sum, 1},
      {R"({"analysis": [1, 1, 1]})", 2, length},
      {R"({"analysis": [1, 1], "synthesis": [0.5, 0.500004]})", 2, "ok"},
      {R"({"synthesis": [0.5, 0.4], "analysis": [1, 1]})", 2, sum, 0.1},
      {R"({"analysis": [1, 1], "synthesis": [1, 2]})", 2, sum, 2},
      {R"("Hann")", 8, form},
      {R"("")", 8, form},
      {"null", 8, form},
      {"[]", 8, form},
      {"[[1, 1], [1, 1]]", 2, form},
      {"{}", 8, form},
      {R"({"length": 4})", 8, form},
      {R"({"shape": "hann", "length": 0})", 8, form},
      {R"({"shape": "hann", "length": 4.0})", 8, form},
      {R"({"shape": "hann", "len": 4})", 8, form},
      {R"({"shape": ["hann"]})", 8, form},
      {R"({"shape": "hann", "analysis": [1, 1]})", 2, form},
      {R"({"analysis": [1, 1], "length": 2})", 2, form},
      {R"({"analysis": []})", 2, form},
      {R"({"analysis": [1, "1"]})", 2, form},
      {R"({"analysis": [[1, 1]]})", 2, form},
      {R"({"analysis": {"0": 1, "1": 1}})", 2, form},
      {R"({"analysis": [1e39, 1]})", 2, form},
      {R"({"analysis": [1, 1], "analysis": [1, 1]})", 2, form},
      {R"({"analysis": [1, 1], "synthesis": [1]})", 2, form},
      {R"({"synthesis": [1, 1]})", 2, form},
  };
  for (const auto& row : rows) {
    const Loaded loaded({{u"WindowShape", Utf16FromUtf8(row.text)}});
    double error = 0;
    const std::string outcome = Outcome([&] {
      try {
        MakeWindowPair(ModelInfo(*loaded.model).GetWindowShape(), row.windowLength);
      } catch (const ContractException& refusal) {
        error = refusal.Error();
        throw;
      }
    });
    EXPECT_EQ(outcome, row.outcome) << row.text;
    EXPECT_NEAR(error, row.error, 1e-7) << row.text;
  }
}

TEST(ModelInfo, ThreeCodesMeanAMissingKey) {
  const struct {
    ResultCode code;
    const char* outcome;
  } rows[] = {
      {ResultCodes::OutOfBounds, "ok"},        {ResultCodes::Fail, "ok"},
      {ResultCodes::FileNotFound, "ok"},       {ResultCodes::NoInterface, "0x80004002"},
      {ResultCodes::OutOfMemory, "bad_alloc"}, {ResultCodes::InvalidArgument, "0x80070057"}};
  for (const auto& row : rows) {
    Loaded loaded(Metadata{{u"SampleRate", u"1"}});
    loaded.runtime.FailCall(2, row.code, "Lookup");
    std::int32_t rate = 48000;
    EXPECT_EQ(Outcome([&] { rate = ModelInfo(*loaded.model).GetSampleRate(); }), row.outcome);
    EXPECT_EQ(rate, 48000) << row.outcome;
  }
}

}  // namespace
