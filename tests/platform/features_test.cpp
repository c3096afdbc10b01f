#include "platform/rig.h"
#include "platform/utf16.h"
#include "support/audio_models.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>

namespace {

using namespace TestSupport;

/// Of each feature "name kind element [dimensions]", or the codes of what it refuses to say.
std::string Describe(const FeatureList& features) {
  std::ostringstream text;
  std::uint32_t size = 0;
  CheckResult(features.GetSize(size));
  std::shared_ptr<FeatureDescriptor> feature;
  for (std::uint32_t i = 0; i < size; ++i) {
    CheckResult(features.GetAt(i, feature));
    std::u16string name;
    FeatureKind kind{};
    std::uint32_t element = 0;
    Shape shape;
    CheckResult(feature->GetName(name));
    CheckResult(feature->GetKind(kind));
    const ResultCode elementCode = feature->GetTensorKind(element);
    const ResultCode shapeCode = feature->GetShape(shape);
    text << std::string(name.begin(), name.end()) << ' ' << static_cast<int>(kind) << ' ';
    if (Failed(elementCode) || Failed(shapeCode))
      text << Hex(elementCode) << ' ' << Hex(shapeCode);
    else
      text << element << ' ' << testing::PrintToString(shape);
    text << '\n';
  }
  text << Hex(features.GetAt(size, feature));
  return text.str();
}

TEST(Features, AreReadInOrderWithEveryWayToDeclareAShape) {
  ModelBuilder model;
  model.Input("free", Element::Float, {"N", "", -1, 0, 5})
      .Input("scalar", Element::Int64, {})
      .Input("shapeless", Element::String, {}, Declared::TensorWithoutShape)
      .Input("list", Element::Float, {}, Declared::Sequence)
      .Input("constant", Element::Float, {1})
      .Floats("constant", {1}, {1})
      .Output("out", Element::Float, {"N", "", -1, 0, 5})
      .Output("outList", Element::Float, {}, Declared::Sequence)
      .Output("\xC3\xA4", Element::Float16, {2})
      .Node("Identity", {"free"}, {"out"})
      .Node("Identity", {"list"}, {"outList"})
      .Node("Cast", {"pair"}, {"\xC3\xA4"}, {{"to", 10}})
      .Floats("pair", {2}, {1, 2});
  Rig rig(model.Build());
  std::shared_ptr<FeatureList> inputs;
  std::shared_ptr<FeatureList> outputs;
  ASSERT_EQ(rig.model->GetInputFeatures(inputs), ResultCodes::Ok);
  ASSERT_EQ(rig.model->GetOutputFeatures(outputs), ResultCodes::Ok);
  EXPECT_EQ(Describe(*inputs), "free 0 1 { -1, -1, -1, 0, 5 }\n"
                               "scalar 0 7 {}\n"
                               "shapeless 0 8 {}\n"
                               "list 1 0x80004002 0x80004002\n"
                               "0x8000000B");
  EXPECT_EQ(Describe(*outputs), "out 0 1 { -1, -1, -1, 0, 5 }\n"
                                "outList 1 0x80004002 0x80004002\n"
                                "\xE4 0 10 { 2 }\n"
                                "0x8000000B");
}

TEST(Metadata, IsFoundByKeyAndByWalk) {
  Rig rig(MakeAudioModel({.metadata = {{"SampleRate", "16000"},
                                       {"Empty", ""},
                                       {"Twice", "first"},
                                       {"Twice", "last"},
                                       {"\xC3\xA4", "\xE2\x82\xAC"},
                                       {"Broken", "a\xFFz"}}}));
  std::shared_ptr<MetadataMap> metadata;
  ASSERT_EQ(rig.model->GetMetadata(metadata), ResultCodes::Ok);
  const std::map<std::u16string, std::u16string> expected = {
      {u"SampleRate", u"16000"}, {u"Empty", u""},          {u"Twice", u"last"},
      {u"\u00E4", u"\u20AC"},    {u"Broken", u"a\uFFFDz"},
  };

  std::map<std::u16string, std::u16string> walked;
  std::shared_ptr<MetadataIterator> iterator;
  ASSERT_EQ(metadata->First(iterator), ResultCodes::Ok);
  std::u16string key;
  std::u16string value;
  for (bool has = false; iterator->HasCurrent(has) == ResultCodes::Ok && has;
       CheckResult(iterator->MoveNext())) {
    ASSERT_EQ(iterator->Current(key, value), ResultCodes::Ok);
    EXPECT_TRUE(walked.emplace(key, value).second) << "a key came twice";
  }
  EXPECT_EQ(walked, expected);
  EXPECT_EQ(Hex(iterator->Current(key, value)), Hex(ResultCodes::OutOfBounds));

  for (const auto& [name, text] : expected) {
    ASSERT_EQ(metadata->Lookup(name, value), ResultCodes::Ok);
    EXPECT_EQ(value, text);
  }
  for (const char16_t* missing : {u"samplerate", u"", u"SampleRat", u"SampleRate "})
    EXPECT_EQ(Hex(metadata->Lookup(missing, value)), Hex(ResultCodes::OutOfBounds));
}

TEST(ToUtf16, ReplacesWhatIsNoUtf8) {
  const struct {
    const char* name;
    std::string_view text;
    std::u16string_view expected;
  } rows[] = {
      {"ascii", "Az\x7F", u"Az\x7F"},
      {"two, three and four bytes", "\xC2\x80\xEF\xBF\xBD\xF0\x9F\x8E\xA7",
       u"\x0080\xFFFD\xD83C\xDFA7"},
      {"last character", "\xF4\x8F\xBF\xBF", u"\xDBFF\xDFFF"},
      {"beyond the last", "\xF4\x90\x80\x80", u"\xFFFD\xFFFD\xFFFD\xFFFD"},
      {"overlong", "\xC0\xAF\xE0\x80\xAF", u"\xFFFD\xFFFD\xFFFD\xFFFD\xFFFD"},
      {"surrogate", "\xED\xA0\x80", u"\xFFFD\xFFFD\xFFFD"},
      {"lone following byte", "a\x80z", u"a\xFFFDz"},
      {"cut inside, then text", "\xF0\x9F\x8Ez", u"\xFFFDz"},
      {"cut at the end", "\xE2\x82", u"\xFFFD"},
      {"cut by another start", "\xE2\xE2\x82\xAC", u"\xFFFD\x20AC"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(Orvik::Tesmo::ToUtf16(row.text), row.expected) << row.name;
}

}  // namespace
