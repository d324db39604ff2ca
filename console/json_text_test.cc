// SPDX-License-Identifier: Apache-2.0
#include "console/json_text.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <string_view>

#include "tests/support/random_values.h"

namespace thmp::console {
namespace {

std::string jsonOf(const Value& value) {
  fmt::memory_buffer json;
  appendJson(value, json);
  return fmt::to_string(json);
}

TEST(JsonText, HasAFormForEachKindOfValue) {
  EXPECT_EQ(jsonOf(Dictionary{{"a", Array{"x", 1.5, true}},
                              {"b", Date{0}},
                              {"c", Data{"hello"}},
                              {"d", std::uint64_t{18446744073709551615U}},
                              {"e", Array()},
                              {"f", Dictionary()}}),
            R"({"a":["x",1.5,true],"b":"2001-01-01T00:00:00Z","c":"aGVsbG8=",)"
            R"("d":18446744073709551615,"e":[],"f":{}})");
  EXPECT_EQ(jsonOf(Value()), "null");
  EXPECT_EQ(jsonOf(std::numeric_limits<std::int64_t>::min()), "-9223372036854775808");
}

TEST(JsonText, PadsDataOfEachLength) {
  EXPECT_EQ(jsonOf(Data{""}), R"("")");
  EXPECT_EQ(jsonOf(Data{"f"}), R"("Zg==")");
  EXPECT_EQ(jsonOf(Data{"fo"}), R"("Zm8=")");
  EXPECT_EQ(jsonOf(Data{"foo"}), R"("Zm9v")");
  EXPECT_EQ(jsonOf(Data{"\xFB\xEF\xFF"}), R"("++//")");
}

TEST(JsonText, EscapesQuotesBackslashesAndControlCharacters) {
  EXPECT_EQ(jsonOf("a \"b\" \\c\n\t\b\f\r\x01\x1F\x7F/"),
            "\"a \\\"b\\\" \\\\c\\n\\t\\b\\f\\r\\u0001\\u001f\x7F/\"");
}

TEST(JsonText, ReplacesWhatIsNoUtf8) {
  EXPECT_EQ(jsonOf("a\xFFz"), "\"a\uFFFDz\"");
  EXPECT_EQ(jsonOf("\xE2\x82"), "\"\uFFFD\"") << "one for as many bytes as could begin a character";
  EXPECT_EQ(jsonOf("\xED\xA0\x80"), "\"\uFFFD\uFFFD\uFFFD\"") << "a surrogate";
}

// ---- Beside a general library ----

using Json = nlohmann::ordered_json;

Json treeOf(const Value& value) {
  switch (value.kind()) {
    case Value::Kind::kNull:
      return nullptr;
    case Value::Kind::kBoolean:
      return *value.asBoolean();
    case Value::Kind::kInteger:
      return *value.asInteger();
    case Value::Kind::kUnsigned:
      return *value.asUnsigned();
    case Value::Kind::kReal:
      return *value.asReal();
    case Value::Kind::kDate:
      return value.asDate()->iso8601();
    case Value::Kind::kData:
      return Json::parse(jsonOf(value));
    case Value::Kind::kText:
      return std::string(*value.asText());
    case Value::Kind::kArray: {
      Json json = Json::array();
      const Array array = *value.asArray();
      for (const Value& element : array) json.push_back(treeOf(element));
      return json;
    }
    case Value::Kind::kDictionary: {
      Json json = Json::object();
      const Dictionary dictionary = *value.asDictionary();
      for (const auto& [key, member] : dictionary) json[key.str()] = treeOf(member);
      return json;
    }
  }
  return nullptr;
}

std::string librarysJsonOf(const Value& value) {
  return treeOf(value).dump(-1, ' ', false, Json::error_handler_t::replace);
}

// Full of what needs care in JSON; some are no UTF-8, or become it beside others.
constexpr std::string_view kPieces[] = {"a",
                                        "some words",
                                        "\xC3\xA9",
                                        "\xE2\x82\xAC",
                                        "\xF0\x9F\x98\x80",
                                        "\xED\x9F\xBF",
                                        "\"",
                                        "\\",
                                        "\n\r\t",
                                        "\b\f",
                                        "\x01",
                                        "\x7F",
                                        "\x80",
                                        "\xBF",
                                        "\xC3",
                                        "\xE2\x82",
                                        "\xED\xA0",
                                        "\xEE\x80",
                                        "\xF0\x9F",
                                        "\xF4\x8F\xBF",
                                        "\xFF"};

TEST(JsonText, IsThatOfAGeneralLibraryForRandomValues) {
  for (std::uint32_t seed = 0; seed < 2000; ++seed) {
    const Value value = testing::RandomValues(seed, kPieces).value(4);
    ASSERT_EQ(jsonOf(value), librarysJsonOf(value)) << "seed " << seed;
  }
}

TEST(JsonText, IsThatOfAGeneralLibraryForEachByteAtEachPlaceOfALongText) {
  for (unsigned byte = 0; byte < 256; ++byte) {
    for (std::size_t place = 0; place < 20; ++place) {
      std::string text(20, '!');
      text[place] = static_cast<char>(byte);
      ASSERT_EQ(jsonOf(text), librarysJsonOf(text)) << "byte " << byte << " at " << place;
    }
  }
}

TEST(JsonText, IsThatOfAGeneralLibraryForEachBeginOfACharacter) {
  for (unsigned lead = 0x80; lead < 256; ++lead) {
    for (unsigned second = 0; second < 256; ++second) {
      for (const char* rest : {"", "\x80", "\x80\x80", "\x80\xBF\x80", "z"}) {
        std::string text = {static_cast<char>(lead), static_cast<char>(second)};
        text += rest;
        ASSERT_EQ(jsonOf(text), librarysJsonOf(text)) << "bytes " << lead << ' ' << second;
      }
    }
  }
}

}  // namespace
}  // namespace thmp::console
