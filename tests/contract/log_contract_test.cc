// SPDX-License-Identifier: Apache-2.0
#include <algorithm>

#include "tests/contract/fixtures.h"

namespace thmp {
namespace {

class LogContract
    : public contract::ContractTest<contract::LogFixture, &contract::Implementation::log> {
 protected:
  SystemLog& log() { return fixture().log(); }
  std::vector<std::string> lines() { return fixture().lines(); }
};

THMP_RUN_CONTRACT(LogContract);

TEST_P(LogContract, OneCallIsOneLine) {
  log().write("first");
  log().write("second");

  EXPECT_EQ(lines(), (std::vector<std::string>{"first", "second"}));
}

TEST_P(LogContract, TextIsKeptAsItIs) {
  log().write("Gr\u00fc\u00dfe \U0001f4ec \\n");

  EXPECT_EQ(lines(), std::vector<std::string>{"Gr\u00fc\u00dfe \U0001f4ec \\n"});
}

TEST_P(LogContract, NothingIsTakenForAFormat) {
  log().write("%s %n %@ %1$d 100 %");

  EXPECT_EQ(lines(), std::vector<std::string>{"%s %n %@ %1$d 100 %"});
}

TEST_P(LogContract, ControlCharactersMakeNoLinesAndReachNoTerminal) {
  log().write("before\nafter\r\x1b[31m\x7f\ttab");

  ASSERT_EQ(lines().size(), 1U);
  const std::string line = lines()[0];
  EXPECT_TRUE(line.starts_with("before")) << line;
  EXPECT_NE(line.find("after"), std::string::npos) << line;
  EXPECT_TRUE(std::none_of(line.begin(), line.end(), [](char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
  })) << line;
}

TEST_P(LogContract, TextAfterANulIsNotLost) {
  log().write(std::string_view("a\0b", 3));

  ASSERT_EQ(lines().size(), 1U);
  EXPECT_TRUE(lines()[0].starts_with("a") && lines()[0].ends_with("b")) << lines()[0];
}

TEST_P(LogContract, LinesOfThreadsAreNotMixed) {
  contract::runOnThreads(4, [&](int i) {
    const std::string text(200, static_cast<char>('a' + i));
    for (int j = 0; j < 25; ++j) log().write(text);
  });

  const std::vector<std::string> written = lines();
  EXPECT_EQ(written.size(), 100U);
  for (const std::string& line : written) EXPECT_EQ(line, std::string(200, line.front()));
}

}  // namespace
}  // namespace thmp
