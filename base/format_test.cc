// SPDX-License-Identifier: Apache-2.0
#include "base/format.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace thmp {
namespace {

template <typename... Args>
std::string line(std::string_view format, Args... arguments) {
  const std::vector<LogArg> captured{LogArg(arguments)...};
  return formatLog(format, captured);
}

TEST(LogFormat, PutsTheNameIntoTheLineAndInterpretsItOnce) {
  EXPECT_EQ(line("TallyhiveMailPlugin - q%@ - received %@ / %@", "a", "b"),
            "TallyhiveMailPlugin - qa - received b / (null)");
}

TEST(LogFormat, ShowsObjectsInTheirNaturalForm) {
  EXPECT_EQ(line("%@", "text"), "text");
  EXPECT_EQ(line("%@", Value()), "(null)");
  EXPECT_EQ(line("%@", static_cast<const char*>(nullptr)), "(null)");
  EXPECT_EQ(line("%@ %@", Value(true), Value(false)), "1 0");
  EXPECT_EQ(line("%@ %@ %@", Value(1.0), Value(0.1), Value(1e300)), "1 0.1 1e+300");
  EXPECT_EQ(line("%@", Value(UINT64_MAX)), "18446744073709551615");
  EXPECT_EQ(line("%@ %@ %@", 7, 2.5, UINT64_MAX), "7 2.5 18446744073709551615");
  EXPECT_EQ(line("%@", Date{0}), "2001-01-01T00:00:00Z");
  EXPECT_EQ(line("%@", Value(Data{std::string("\0\x7F\xFF", 3)})), "<007fff>");
  EXPECT_EQ(line("%@", Error{"D", 2, "bad", nullptr}), "Error Domain=D Code=2 \"bad\"");
  EXPECT_EQ(line("%@", Error()), "(null)");
  const double infinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ(line("%@ %@ %@", infinity, -infinity, -std::nan("")), "inf -inf nan");
}

TEST(LogFormat, ShowsContainersOnOneLine) {
  const Value value =
      Dictionary{{"list", Array{1, "two", Array{}, Dictionary{}}}, {"empty", ""}, {"flag", true}};
  EXPECT_EQ(line("%@", value), "{empty = ; flag = 1; list = (1, two, (), {})}");
  EXPECT_EQ(describe(value), line("%@", value));
}

TEST(LogFormat, ShowsArgumentsOfAnotherKindInTheirOwnForm) {
  EXPECT_EQ(line("%d %x %f", "a", "b", "c"), "a b c");
  EXPECT_EQ(line("%d %x %u", 2.5, 1e20, -0.5), "2.5 1e+20 -0.5");
  EXPECT_EQ(line("%f %g %e", 7, -7, UINT64_MAX), "7 -7 18446744073709551615");
  EXPECT_EQ(line("%u %d", -1, UINT64_MAX), "-1 18446744073709551615");
  EXPECT_EQ(line("%5d|%-5d|%.1d", "ab", "cd", "efg"), "   ab|cd   |efg");
  EXPECT_EQ(line("%c %c %c", "text", 0xD800, 0), "text 55296 0");
  EXPECT_EQ(line("%p", "text"), "text");
}

TEST(LogFormat, ShowsMissingArgumentsAsNullOrZero) {
  EXPECT_EQ(line("%@ %s"), "(null) (null)");
  EXPECT_EQ(line("%d %i %u %x %X %o %c"), "0 0 0 0 0 0 0");
  EXPECT_EQ(line("%f %g %e"), "0.000000 0 0.000000e+00");
  EXPECT_EQ(line("%p %5d|%*d|"), "0x0     0|0|");
  EXPECT_EQ(line("%1000000000000000000000$@|%2$d", "a"), "(null)|0");
}

TEST(LogFormat, LeavesUnknownDirectivesAsTheyStand) {
  for (const char* text : {"%", "%k", "100%", "%-", "%5", "%.", "%5.3", "%l", "%ll", "%1$", "%y %z",
                           "%0$@", "%*0$d", "%.*0$d", "%D", "%S", "%a", "%\xC3\xA9", "%-08.3lk"}) {
    EXPECT_EQ(line(text, "unused"), text);
  }
  EXPECT_EQ(line("%k%@", "a"), "%ka");
  EXPECT_EQ(line("%*k%@", 5), "%*k5");
  EXPECT_EQ(line("%5%@", "a"), "%@");
  EXPECT_EQ(line("%.%%@", "a"), "%a");
  EXPECT_EQ(line("100%% %@%%", "a"), "100% a%");
}

TEST(LogFormat, TakesNButWritesNothing) {
  EXPECT_EQ(line("[%n]%@", 1, "b"), "[]b");
  EXPECT_EQ(line("[%n%n%n]"), "[]");
  EXPECT_EQ(line("%2$n%@", "a", "b"), "a");
}

TEST(LogFormat, TakesPositionsAndStars) {
  EXPECT_EQ(line("%2$@ %1$@ %1$@ %3$@", "a", "b"), "b a a (null)");
  EXPECT_EQ(line("%2$@ %@ %@", "a", "b"), "b a b");
  EXPECT_EQ(line("[%*d]", 5, 42), "[   42]");
  EXPECT_EQ(line("[%*d]", -5, 42), "[42   ]");
  EXPECT_EQ(line("[%.*f]", 2, 3.14159), "[3.14]");
  EXPECT_EQ(line("[%.*f]", -2, 1.5), "[1.500000]");
  EXPECT_EQ(line("[%3$*1$.*2$f]", 8, 2, 3.14159), "[    3.14]");
  EXPECT_EQ(line("[%*d]", Value(4), 7), "[   7]");
  EXPECT_EQ(line("[%*d]", "wide", 7), "[7]");
  EXPECT_EQ(line("[%*d]", 3.9, 7), "[  7]");
}

TEST(LogFormat, NumbersThatAreNoneHaveNamesAndNoZeros) {
  const double infinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ(line("%f %e %g %+f", infinity, -infinity, std::nan(""), infinity), "inf -inf nan +inf");
  EXPECT_EQ(line("%06f|%-6f|", infinity, -std::nan("")), "   inf|nan   |");
}

TEST(LogFormat, GroupsOfDigitsAreTakenAndNotMade) { EXPECT_EQ(line("%'d", 1234567), "1234567"); }

TEST(LogFormat, CapitalsAreThoseOfHexadecimalDigits) {
  EXPECT_EQ(line("%X %#X %x", 0x1ABCDEF9, 0xFF, 0xFF), "1ABCDEF9 0XFF ff");
}

TEST(LogFormat, BytesThatAreNoTextAreCutWhereTheLimitIs) {
  EXPECT_EQ(line("%@", std::string(70'000, '\x80')).size(), 65536U);
  EXPECT_EQ(line("%@", Value(Data{std::string(70'000, 'x')})).size(), 65536U);
}

TEST(LogFormat, BoundsWidthPrecisionAndLength) {
  EXPECT_EQ(line("%999999999d", 1).size(), 1024U);
  EXPECT_EQ(line("%.999999999d", 1).size(), 1024U);
  EXPECT_EQ(line("%*d", INT64_MAX, 1).size(), 1024U);
  EXPECT_EQ(line("%*d", INT64_MIN, 1).size(), 1024U);
  EXPECT_EQ(line("%*d", UINT64_MAX, 1).size(), 1024U);
  EXPECT_EQ(line("%.999999999f", -1e308).size(), 1 + 309 + 1 + 1024U);
  EXPECT_EQ(line("%.*e", 5000, 1e-300).size(), 2 + 1024 + 5U);
  const std::string large(100'000, 'x');
  EXPECT_EQ(line("%@%@", large, large), large.substr(0, 65536));
  EXPECT_EQ(line(large), large.substr(0, 65536));
  std::string format;
  for (int i = 0; i < 1000; ++i) format += "%1000d";
  EXPECT_EQ(line(format).size(), 65536U);
}

TEST(LogFormat, NeverCutsACharacterInTwo) {
  for (const std::string character : {"\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x98\x80"}) {
    std::string text = "x";
    while (text.size() < 70'000) text += character;
    const std::string shown = line("%@", text);
    EXPECT_EQ(shown, text.substr(0, 1 + (65536 - 1) / character.size() * character.size()));
    EXPECT_EQ(line("%.4@|%.4s|", text, text),
              text.substr(0, 1 + 3 / character.size() * character.size()) + "|" +
                  text.substr(0, 1 + 3 / character.size() * character.size()) + "|");
  }
  EXPECT_EQ(line("%.2@", "a\x80\x80"), "a\x80");
}

TEST(LogFormat, EndsOnValuesThatWouldNeverEnd) {
  Value value = "leaf";
  for (int i = 0; i < 100; ++i) value = Array{value, value};
  EXPECT_EQ(line("%@", value).size(), 65536U);
}

TEST(LogFormat, KeepsBytesOfTheFormatAsTheyAre) {
  const std::string bytes("a\0b\xFF\n\x1B[0m%@", 11);
  EXPECT_EQ(line(bytes, "!"), std::string("a\0b\xFF\n\x1B[0m!", 10));
}

TEST(LogFormat, WritesCharactersAsUtf8) {
  EXPECT_EQ(line("%c%c%c%c", 'A', 0xE9, 0x20AC, 0x1F600), "A\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
  EXPECT_EQ(line("[%3c][%-3c]", 'A', 'B'), "[  A][B  ]");
  EXPECT_EQ(line("%c %c", 0x110000, -1), "1114112 -1");
}

TEST(LogFormat, ShowsNegativeNumbersInHexAs64Bits) {
  EXPECT_EQ(line("%x %X %o", -1, -1, -1),
            "ffffffffffffffff FFFFFFFFFFFFFFFF 1777777777777777777777");
  EXPECT_EQ(line("%#x %#X %#o %#x %p", 255, 255, 8, 0, 4096), "0xff 0XFF 010 0 0x1000");
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
template <typename Number>
std::string asC(const std::string& format, Number number) {
  std::array<char, 2048> buffer;
  const int size = std::snprintf(buffer.data(), buffer.size(), format.c_str(), number);
  return {buffer.data(), static_cast<std::size_t>(size)};
}
#pragma GCC diagnostic pop

// Left out is what rounds up to a further digit: glibc then drops the zeros that "#" keeps in %g.
TEST(LogFormat, FormatsNumbersAsCDoes) {
  std::mt19937_64 random(1);
  const double reals[] = {0.0,    -0.0, 1.0,   -1.5, 0.1, 1e-5,        123456.0, 1e15, 1e300,
                          5e-324, 0.5,  100.0, 1e5,  1e6, 123456789.0, 0.0001,   2.5};
  for (int round = 0; round < 20'000; ++round) {
    std::string directive = "%";
    for (const char flag : {'-', '+', ' ', '#', '0'}) {
      if (random() % 3 == 0) directive += flag;
    }
    if (random() % 2 == 0) directive += std::to_string(random() % 30);
    if (random() % 2 == 0) directive += "." + std::to_string(random() % 20);
    const char conversion = "dixXofge"[random() % 8];
    if (std::string_view("fge").find(conversion) != std::string_view::npos) {
      directive += conversion;
      const double number = round % 2 == 0 ? reals[random() % std::size(reals)]
                                           : std::ldexp(static_cast<double>(random() % 1'000'000),
                                                        static_cast<int>(random() % 100) - 50);
      ASSERT_EQ(line(directive, number), asC(directive, number)) << directive << " " << number;
    } else {
      directive += std::string("ll") + conversion;
      const auto number =
          static_cast<long long>(random() >> random() % 64) * (round % 2 == 0 ? 1 : -1);
      ASSERT_EQ(line(directive, number), asC(directive, number)) << directive << " " << number;
    }
  }
}

TEST(LogFormat, SurvivesRandomFormatsAndArguments) {
  constexpr std::string_view kPieces[] = {"%", "@", "d",  "*",   "$",    "1",    "9", "0",
                                          ".", "-", "#",  "l",   "s",    "n",    "x", "f",
                                          "c", "p", "%@", "%2$", "\xC3", "99999"};
  std::mt19937 random(7);
  for (int round = 0; round < 50'000; ++round) {
    std::string format;
    for (std::size_t i = random() % 12; i > 0; --i)
      format += kPieces[random() % std::size(kPieces)];
    const std::vector<LogArg> pool = {
        LogArg("text"),    LogArg(INT64_MIN), LogArg(1e308), LogArg(), LogArg(Value(Array{1, "x"})),
        LogArg(UINT64_MAX)};
    std::vector<LogArg> arguments;
    for (std::size_t i = random() % 4; i > 0; --i)
      arguments.push_back(pool[random() % pool.size()]);
    ASSERT_LE(formatLog(format, arguments).size(), 65536U) << format;
  }
}

// ---- Names in lines ----

struct KnownFormat {
  std::string_view format;
  std::vector<LogArg> arguments;
};

std::vector<KnownFormat> knownFormats() {
  return {
      {"started", {}},
      {"received %@ / %@", {"a", "b"}},
      {"%d of %u", {7, 1500U}},
      {"%@: %lu", {"list", UINT64_MAX}},
      {"%2$@ %1$@", {"one", "two"}},
      {"%d", {-42}},
      {"%5.2f|%g|%e", {3.14159, 1e20, -0.00125}},
      {"%@", {LogArg()}},
      {"100%% %s", {"text"}},
      {"%x %c %@", {255, 65, "z\xC3\xA9"}},
      {"%@ %@ %@", {"only"}},
      {"%08.3f %-6d| %+d", {2.5, 12, 5}},
  };
}

TEST(LogFormat, GivesTheLinesOfTheGoldenTable) {
  const std::vector<KnownFormat> formats = knownFormats();
  std::ifstream table(THMP_SOURCE_DIR "/tests/data/log_format_golden.tsv");
  ASSERT_TRUE(table.is_open());
  std::size_t rows = 0;
  int namesWithDirectives = 0;
  for (std::string row; std::getline(table, row);) {
    if (row.starts_with('#')) continue;
    const std::size_t first = row.find('\t');
    const std::size_t second = row.find('\t', first + 1);
    ASSERT_NE(second, std::string::npos) << row;
    const KnownFormat& known =
        formats.at(static_cast<std::size_t>(Value(row.substr(first + 1)).integerValue()));
    const std::string format =
        "TallyhiveMailPlugin - " + row.substr(0, first) + " - " + std::string(known.format);
    EXPECT_EQ(formatLog(format, known.arguments), row.substr(second + 1)) << format;
    ++rows;
    if (row.substr(0, first).find('%') != std::string::npos) ++namesWithDirectives;
  }
  EXPECT_EQ(rows, 480U);
  RecordProperty("bad_inputs", namesWithDirectives);
}

TEST(LogFormat, CountsTheDirectivesOfALiteral) {
  constexpr LogFormat<int, int> format("%d%% of %@");
  static_assert(format.text() == "%d%% of %@");
  EXPECT_EQ(line(format.text(), 5, 6), "5% of 6");
}

}  // namespace
}  // namespace thmp
