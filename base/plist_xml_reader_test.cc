// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "base/format.h"
#include "base/plist.h"

namespace thmp {
namespace {

constexpr std::string_view kProlog =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n";

std::string plist(std::string_view inner) {
  return std::string(kProlog) + "<plist version=\"1.0\">" + std::string(inner) + "</plist>\n";
}

std::optional<Value> readXml(std::string_view bytes, Error* error = nullptr) {
  return readPropertyList(bytes, kMessageLimits, error);
}

/// The value within a plist element; a null value when it is refused.
Value readInner(std::string_view inner) { return readXml(plist(inner)).value_or(Value()); }

std::string inUtf16(std::string_view ascii, bool bigEndian) {
  std::string bytes = bigEndian ? "\xFE\xFF" : "\xFF\xFE";
  for (char c : ascii) {
    if (bigEndian) bytes += '\0';
    bytes += c;
    if (!bigEndian) bytes += '\0';
  }
  return bytes;
}

TEST(XmlReader, ReadsEachKind) {
  EXPECT_TRUE(Value::identical(readInner("<true/>"), true));
  EXPECT_TRUE(Value::identical(readInner("<false> </false>"), false));
  EXPECT_TRUE(Value::identical(readInner("<string> a b </string>"), " a b "));
  EXPECT_TRUE(Value::identical(readInner("<string/>"), ""));
  EXPECT_TRUE(Value::identical(readInner("<array/>"), Array{}));
  EXPECT_TRUE(Value::identical(readInner("<dict></dict>"), Dictionary{}));
  EXPECT_TRUE(Value::identical(readInner("<date>2024-02-29T12:00:00Z</date>"),
                               *Date::fromIso8601("2024-02-29T12:00:00Z")));
  EXPECT_TRUE(Value::identical(
      readInner("<dict>\n<key>b</key>\n<array><integer>1</integer><string>x</string></array>"
                "<key>a</key><dict><key/><true/></dict></dict>"),
      Dictionary{{"a", Dictionary{{"", true}}}, {"b", Array{1, "x"}}}));
}

TEST(XmlReader, ReadsIntegersOfEachForm) {
  EXPECT_TRUE(Value::identical(readInner("<integer>-12</integer>"), -12));
  EXPECT_TRUE(Value::identical(readInner("<integer> +12\n</integer>"), 12));
  EXPECT_TRUE(Value::identical(readInner("<integer>0xfF</integer>"), 255));
  EXPECT_TRUE(Value::identical(readInner("<integer>-0X10</integer>"), -16));
  EXPECT_TRUE(Value::identical(readInner("<integer>000000000000000000000000007</integer>"), 7));
  EXPECT_TRUE(Value::identical(readInner("<integer>18446744073709551615</integer>"), UINT64_MAX));
  EXPECT_TRUE(Value::identical(readInner("<integer>0xffffffffffffffff</integer>"), UINT64_MAX));
  EXPECT_TRUE(Value::identical(readInner("<integer>-9223372036854775808</integer>"), INT64_MIN));
  for (const char* text : {"", " ", "-", "+", "0x", "1.0", "1e3", "12a", "1 2", "--1", "+-1", "-+1",
                           "1_000", "18446744073709551616", "-9223372036854775809", "0x-1",
                           "0x10000000000000000", "\xD9\xA1"}) {
    EXPECT_TRUE(readInner("<integer>" + std::string(text) + "</integer>").isNull()) << text;
  }
  EXPECT_TRUE(readInner("<integer>" + std::string(1'000'000, '9') + "</integer>").isNull());
}

TEST(XmlReader, ReadsRealsOfEachForm) {
  const double infinity = std::numeric_limits<double>::infinity();
  EXPECT_TRUE(Value::identical(readInner("<real>1.5</real>"), 1.5));
  EXPECT_TRUE(Value::identical(readInner("<real> +1e-3 </real>"), 0.001));
  EXPECT_TRUE(Value::identical(readInner("<real>-0</real>"), -0.0));
  EXPECT_TRUE(Value::identical(readInner("<real>5</real>"), 5.0));
  EXPECT_TRUE(Value::identical(readInner("<real>inf</real>"), infinity));
  EXPECT_TRUE(Value::identical(readInner("<real>+Infinity</real>"), infinity));
  EXPECT_TRUE(Value::identical(readInner("<real>-INF</real>"), -infinity));
  EXPECT_TRUE(Value::identical(readInner("<real>nan</real>"), std::nan("")));
  for (const char* text : {"", ".", "1,5", "0x1p3", "1.5x", "1e", "nan(1)", "+-1", "1e999", "in"}) {
    EXPECT_TRUE(readInner("<real>" + std::string(text) + "</real>").isNull()) << text;
  }
}

TEST(XmlReader, ReadsDataWithWhiteSpaceAndRefusesAllElse) {
  const auto data = [](std::string_view text) {
    return readInner("<data>" + std::string(text) + "</data>");
  };
  EXPECT_TRUE(Value::identical(data(""), Data{}));
  EXPECT_TRUE(Value::identical(data("QQ=="), Data{"A"}));
  EXPECT_TRUE(Value::identical(data("QUI="), Data{"AB"}));
  EXPECT_TRUE(Value::identical(data("QUJD"), Data{"ABC"}));
  EXPECT_TRUE(Value::identical(data("\n\tQU I\n = \n"), Data{"AB"}));
  EXPECT_TRUE(Value::identical(data("AP8/+w=="), Data{std::string("\0\xFF\x3F\xFB", 4)}));
  for (const char* text : {"Q", "QQ", "QUI", "QQ=", "QQ===", "=", "====", "QUJDRA",
                           "QQ==QQ==", "Q=Q=", "QU-_", "QUJD*", "\xC3\xA9"}) {
    EXPECT_TRUE(data(text).isNull()) << text;
  }
}

TEST(XmlReader, RefusesOtherDates) {
  EXPECT_TRUE(Value::identical(readInner("<date> 2001-01-01T00:00:00Z\n</date>"), Date{0}));
  for (const char* text : {"", "2001-01-01", "nan", "2001-02-30T00:00:00Z", "0"}) {
    EXPECT_TRUE(readInner("<date>" + std::string(text) + "</date>").isNull()) << text;
  }
}

TEST(XmlReader, JoinsTextFromPieces) {
  EXPECT_EQ(readInner("<string>a&lt;b&amp;&gt;&quot;&apos;<![CDATA[<x>&amp;]]>c&#65;&#x20AC;"
                      "<!-- no --><?also no?>d</string>"),
            Value("a<b&>\"'<x>&amp;cA\xE2\x82\xAC"
                  "d"));
  EXPECT_EQ(readInner("<integer>1<![CDATA[2]]>&#51;</integer>"), Value(123));
  EXPECT_EQ(readInner("<string>a\r\nb\rc</string>"), Value("a\nb\nc"));
  const std::string longText(300'000, 'x');
  EXPECT_EQ(readInner("<string>" + longText + "</string>"), Value(longText));
}

TEST(XmlReader, KeepsTheLastOfEqualKeys) {
  EXPECT_EQ(readInner("<dict><key>a</key><true/><key>b</key><true/><key>a</key><false/></dict>"),
            Value(Dictionary{{"a", false}, {"b", true}}));
}

TEST(XmlReader, SharesTheKeysOfRows) {
  const Array rows = *readInner(
                          "<array><dict><key>k</key><true/></dict>"
                          "<dict><key>k</key><true/></dict></array>")
                          .asArray();
  EXPECT_EQ(rows[0].asDictionary()->begin()->key.identity(),
            rows[1].asDictionary()->begin()->key.identity());
}

TEST(XmlReader, ReadsOtherEncodings) {
  const std::string body = "<plist><string>hi</string></plist>";
  EXPECT_EQ(readXml("\xEF\xBB\xBF" + plist("<string>hi</string>")), Value("hi"));
  EXPECT_EQ(readXml(inUtf16(body, true)), Value("hi"));
  EXPECT_EQ(readXml(inUtf16(body, false)), Value("hi"));
  EXPECT_EQ(readXml(inUtf16("<?xml version='1.0' encoding='UTF-16'?>" + body, true)), Value("hi"));
  EXPECT_EQ(
      readXml("<?xml version='1.0' encoding='ISO-8859-1'?><plist><string>\xE9</string></plist>"),
      Value("\xC3\xA9"));
  EXPECT_FALSE(readXml("<?xml version='1.0' encoding='EBCDIC'?>" + body));
}

TEST(XmlReader, TakesAPlainDocument) {
  EXPECT_EQ(readXml("<plist><true/></plist>"), Value(true));
  EXPECT_EQ(readXml("<string>x</string>"), Value("x"));
  EXPECT_EQ(
      readXml("<?xml version='1.0'?><!DOCTYPE plist SYSTEM 'file:///etc/passwd'><plist><true/>"
              "</plist>"),
      Value(true));
}

TEST(XmlReader, RefusesEachHostileDocumentAndSaysWhatAndWhere) {
  const std::string laughs =
      "<!DOCTYPE plist [<!ENTITY a \"ha\"><!ENTITY b \"&a;&a;&a;&a;\"><!ENTITY c "
      "\"&b;&b;&b;&b;\">]><plist><string>&c;</string></plist>";
  const std::vector<std::pair<const char*, std::string>> documents = {
      {"nothing", ""},
      {"white space", " \n"},
      {"no XML", "hello"},
      {"NUL bytes", std::string(100, '\0')},
      {"half a byte order mark", "\xFF"},
      {"a byte order mark alone", "\xFE\xFF"},
      {"an old-style list", "{ a = b; }"},
      {"billion laughs", laughs},
      {"one entity", "<!DOCTYPE plist [<!ENTITY a \"x\">]><plist><true/></plist>"},
      {"a parameter entity",
       "<!DOCTYPE plist [<!ENTITY % a SYSTEM \"x\"> %a;]><plist><true/></plist>"},
      {"an outer entity",
       "<!DOCTYPE plist [<!ENTITY a SYSTEM "
       "\"file:///etc/passwd\">]><plist><string>&a;</string></plist>"},
      {"an undeclared entity", plist("<string>a&nbsp;b</string>")},
      {"an undeclared entity without a DOCTYPE", "<plist><string>&nbsp;</string></plist>"},
      {"an undeclared parameter entity",
       "<!DOCTYPE plist SYSTEM 'x' [%p;]><plist><string>&a;</string></plist>"},
      {"a default attribute",
       "<!DOCTYPE plist [<!ATTLIST true a CDATA 'x'>]><plist><true/></plist>"},
      {"unclosed elements", "<plist><array><array>"},
      {"crossed elements", plist("<array><dict></array></dict>")},
      {"two roots", "<plist><true/></plist><plist><true/></plist>"},
      {"two values", plist("<true/><true/>")},
      {"no value", plist("")},
      {"a plist in a plist", plist("<plist><true/></plist>")},
      {"a plist in an array", plist("<array><plist><true/></plist></array>")},
      {"a plist in an array without a plist", "<array><plist><true/></plist></array>"},
      {"an unknown root", "<list><true/></list>"},
      {"an unknown element", plist("<array><set/></array>")},
      {"an element in capitals", plist("<TRUE/>")},
      {"an archiver's reference", plist("<dict><key>CF$UID</key><uid>1</uid></dict>")},
      {"an element in a text", plist("<string>a<true/>b</string>")},
      {"an element in a key", plist("<dict><key><string>k</string></key><true/></dict>")},
      {"text between elements", plist("<array>x<true/></array>")},
      {"text in the plist element", plist("x<true/>")},
      {"text in a boolean", plist("<true>yes</true>")},
      {"a key without a value", plist("<dict><key>a</key></dict>")},
      {"a key after a key", plist("<dict><key>a</key><key>b</key><true/></dict>")},
      {"a value without a key", plist("<dict><true/></dict>")},
      {"a second value for a key", plist("<dict><key>a</key><true/><true/></dict>")},
      {"a container without a key", plist("<dict><array/></dict>")},
      {"a key in an array", plist("<array><key>a</key></array>")},
      {"a key at the root", plist("<key>a</key>")},
      {"a control character", plist("<string>\x01</string>")},
      {"a control character by number", plist("<string>&#1;</string>")},
      {"a NUL by number", plist("<string>&#0;</string>")},
      {"a surrogate by number", plist("<string>&#xD800;</string>")},
      {"a number beyond Unicode", plist("<string>&#x110000;</string>")},
      {"invalid UTF-8", plist("<string>\xC3</string>")},
      {"a surrogate in UTF-8", plist("<string>\xED\xA0\x80</string>")},
      {"attributes twice", "<plist a='1' a='2'><true/></plist>"},
      {"an end tag alone", "</plist>"},
      {"something behind the end", plist("<true/>") + "x"},
  };
  for (const auto& [what, document] : documents) {
    SCOPED_TRACE(what);
    Error error;
    EXPECT_FALSE(readXml(document, &error).has_value());
    EXPECT_EQ(error.domain, kPropertyListErrorDomain);
    EXPECT_EQ(error.code, static_cast<std::int64_t>(PropertyListError::kDamaged));
    EXPECT_NE(error.description.find(" in line "), std::string::npos) << error.text();
  }
  RecordProperty("bad_inputs", static_cast<int>(documents.size()));
}

TEST(XmlReader, SaysTheLine) {
  Error error;
  EXPECT_FALSE(readXml("<plist>\n<array>\n  <bad/></array></plist>", &error));
  EXPECT_EQ(error.description, "XML property list: an unknown element in line 3, column 3");
}

TEST(XmlReader, BoundsDepthNodesAndBytes) {
  const auto nested = [](std::size_t depth) {
    std::string inner;
    for (std::size_t i = 0; i + 1 < depth; ++i) inner += "<array>";
    inner += "<true/>";
    for (std::size_t i = 0; i + 1 < depth; ++i) inner += "</array>";
    return plist(inner);
  };
  EXPECT_TRUE(readXml(nested(512)).has_value());
  Error error;
  EXPECT_FALSE(readXml(nested(513), &error).has_value());
  EXPECT_EQ(error.code, static_cast<std::int64_t>(PropertyListError::kTooLarge));
  EXPECT_FALSE(readXml(nested(30'000)).has_value());

  const std::string three = plist("<dict><key>a</key><true/></dict>");
  EXPECT_TRUE(readPropertyList(three, {1000, 3, 2}).has_value());
  EXPECT_FALSE(readPropertyList(three, {1000, 2, 2}).has_value());
  EXPECT_FALSE(readPropertyList(three, {1000, 3, 1}).has_value());
  EXPECT_FALSE(readPropertyList(three, {three.size() - 1, 3, 2}).has_value());
  EXPECT_TRUE(readPropertyList(three, {three.size(), 3, 2}).has_value());
}

TEST(XmlReader, BoundsTagsCommentsAndAttributesButNoText) {
  const auto times = [](std::string_view unit, std::size_t count) {
    std::string all;
    for (std::size_t i = 0; i < count; ++i) all += unit;
    return all;
  };
  const std::string text(std::size_t{1} << 20, 'x');
  EXPECT_EQ(readXml(plist("<string>" + text + "</string>")), Value(text));
  EXPECT_EQ(readXml(plist(times("<!--" + times("x", 60'000) + "-->", 10) + "<true/>")),
            Value(true));
  EXPECT_EQ(readXml(plist("<array>" + times("<true a=''/>", 999) + "</array>"))->asArray()->size(),
            999U);
  Error error;
  EXPECT_FALSE(readXml(plist("<!--" + text + "--><true/>"), &error));
  EXPECT_THAT(error.description,
              ::testing::HasSubstr("a tag or comment that is too long in line 3"));
  EXPECT_FALSE(readXml("<plist a='" + text + "'><true/></plist>", &error));
  EXPECT_THAT(error.description,
              ::testing::HasSubstr("a tag or comment that is too long in line 1"));
  EXPECT_FALSE(readXml(plist("<array>" + times("<true a=''/>", 1'001) + "</array>"), &error));
  EXPECT_THAT(error.description, ::testing::HasSubstr("too many attributes in line 3"));
}

TEST(XmlReader, WhiteSpaceBetweenElementsIsNothing) {
  EXPECT_TRUE(Value::identical(readInner("<array>\n \t<true/>\r\n</array>"), Array{true}));
}

TEST(XmlReader, RefusesAFileCutShortAnywhere) {
  const std::string document = plist("<dict><key>a</key><array><data>QUI=</data></array></dict>");
  const std::size_t end = document.rfind('>');
  for (std::size_t size = 0; size < end; ++size) {
    EXPECT_FALSE(readXml(document.substr(0, size)).has_value()) << size;
  }
  RecordProperty("bad_inputs", static_cast<int>(end));
}

}  // namespace
}  // namespace thmp
