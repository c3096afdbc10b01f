#include "runtime/text.h"
#include "support/outcome.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using namespace Orvik::Tesmo::Dnn;
using TestSupport::Outcome;

TEST(Text, ConvertsBothWays) {
  const struct {
    const char* utf8;
    std::u16string utf16;
  } rows[] = {
      {"", u""},
      {"Speech \x7F", u"Speech \x7F"},
      {"\xC2\x80\xDF\xBF", u"\x80\x7FF"},
      {"\xE0\xA0\x80\xED\x9F\xBF\xEE\x80\x80\xEF\xBF\xBF", u"\x800\xD7FF\xE000\xFFFF"},
      {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", u"\xD800\xDC00\xDBFF\xDFFF"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(Utf16FromUtf8(row.utf8), row.utf16) << row.utf8;
    EXPECT_EQ(Utf8FromUtf16(row.utf16), row.utf8) << row.utf8;
  }
}

/// What is no UTF-8 is told by the same decoder that replaces it
/// (tests/platform/features_test.cpp).
TEST(Text, RefusesBytesThatAreNoUtf8) {
  for (const char* bytes : {"a\x80", "a\xE2\x82", "\xC3(", "\xC1\xBF", "\xED\xA0\x80", "\xFF"})
    EXPECT_EQ(Outcome([&] { Utf16FromUtf8(bytes); }), "bad conversion") << bytes;
  EXPECT_EQ(Utf16FromUtf8("\xEF\xBF\xBD"), u"\xFFFD") << "the replacement character itself";
}

TEST(Text, UnpairedSurrogatesAreRefusedOrLeftToTheReader) {
  const struct {
    const char* name;
    std::u16string text;
    const char* utf8;  ///< null: refused
  } rows[] = {
      {"high before a letter", u"\xD800z", nullptr},
      {"high before high", u"\xD800\xD800\xDC00", nullptr},
      {"low alone", u"a\xDC00z", "a\xED\xB0\x80z"},
      {"high at the end", u"a\xD800", "a\xED\xA0\x80"},
  };
  for (const auto& row : rows) {
    std::string utf8;
    const std::string outcome = Outcome([&] { utf8 = Utf8FromUtf16(row.text); });
    EXPECT_EQ(outcome, row.utf8 ? "ok" : "bad conversion") << row.name;
    EXPECT_EQ(utf8, row.utf8 ? row.utf8 : "") << row.name;
  }
}

TEST(Text, ReadsDecimalNumbers) {
  const struct {
    std::u16string text;
    std::int32_t value;
  } rows[] = {
      {u"", 0},
      {u"-", 0},
      {u"abc", 0},
      {u"16000", 16000},
      {u" \t\n\v\f\r+7", 7},
      {u"-12 34", -12},
      {u"2.5", 2},
      {u"\"3\"", 0},
      {u"+-1", 0},
      {u"0x10", 0},
      {u"4e3", 4},
      {u"2147483647", 2147483647},
      {u"2147483648", 2147483647},
      {u"-2147483648", -2147483647 - 1},
      {u"-2147483649", -2147483647 - 1},
      {u"99999999999999999999999", 2147483647},
      {std::u16string(40, u'0') + u"5", 5},
  };
  for (const auto& row : rows)
    EXPECT_EQ(DecimalValue(row.text), row.value) << Utf8FromUtf16(row.text);
}

TEST(Text, ComparesNamesWithoutTheCaseOfLatinLetters) {
  const struct {
    const char16_t *left, *right;
    bool equal;
  } rows[] = {
      {u"", u"", true},         {u"", u"a", false},           {u"Speech", u"SPEECH", true},
      {u"azAZ", u"AZaz", true}, {u"Speech", u"Speec", false}, {u"[", u"{", false},
      {u"@", u"`", false},      {u"\xC4", u"\xE4", false},    {u"\x141", u"a", false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(EqualIgnoringCase(row.left, row.right), row.equal) << Utf8FromUtf16(row.left);
    EXPECT_EQ(EqualIgnoringCase(row.right, row.left), row.equal) << Utf8FromUtf16(row.left);
  }
}

}  // namespace
