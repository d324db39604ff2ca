// SPDX-License-Identifier: Apache-2.0
#include "client/arguments.h"

#include <gtest/gtest.h>

#include "client/client_app.h"

namespace thmp::client {
namespace {

using Words = std::vector<std::string>;

class TypedArguments : public testing::Test {
 protected:
  Words ordered(Words arguments) {
    arguments.insert(arguments.begin(), "search");
    return withWordsLast(*app_->parser.get_subcommand("search"), std::move(arguments));
  }
  std::string complaint(Words arguments) {
    try {
      app_->parser.parse(Words(arguments.rbegin(), arguments.rend()));
    } catch (const CLI::ParseError& error) {
      return wrongUsage(app_->parser, error, arguments);
    }
    return "no complaint";
  }

  const std::unique_ptr<ClientApp> app_ = buildApp();
};

TEST_F(TypedArguments, NegatedTermIsAWord) {
  EXPECT_EQ(ordered({"-from:ada", "--json", "plum"}),
            (Words{"search", "--json", "--", "-from:ada", "plum"}));
}

TEST_F(TypedArguments, ValueStaysWithItsOption) {
  EXPECT_EQ(ordered({"plum", "--sort", "size", "-0", "--timeout=3"}),
            (Words{"search", "--sort", "size", "-0", "--timeout=3", "--", "plum"}));
  EXPECT_EQ(ordered({"--me", "-a@x", "plum"}), (Words{"search", "--me", "-a@x", "--", "plum"}));
}

TEST_F(TypedArguments, BehindTwoDashesAllAreWords) {
  EXPECT_EQ(ordered({"plum", "--", "--json"}), (Words{"search", "--", "plum", "--json"}));
}

TEST_F(TypedArguments, OptionWithoutItsValueIsLeftForTheParser) {
  EXPECT_EQ(ordered({"plum", "--sort"}), (Words{"search", "plum", "--sort"}));
  EXPECT_EQ(ordered({"--sort", "--json"}), (Words{"search", "--sort", "--json"}));
}

TEST_F(TypedArguments, SlipsInThemAreHintedAt) {
  EXPECT_EQ(complaint({"serach", "plum"}),
            "there is no command serach; did you mean search? See tallyhive-mail --help");
  EXPECT_EQ(complaint({"search", "--jsno"}),
            "there is no option --jsno; did you mean --json? See tallyhive-mail search --help");
  EXPECT_EQ(complaint({"--verison"}),
            "there is no option --verison; did you mean --version? See tallyhive-mail --help");
}

TEST_F(TypedArguments, MissingCommandIsToldWithTheChoice) {
  EXPECT_EQ(complaint({}),
            "name a command: connect, search, cancel, terminate, log; see tallyhive-mail --help");
}

TEST_F(TypedArguments, CommandThatIsFarFromAllIsToldWithTheChoice) {
  EXPECT_EQ(complaint({"dance"}),
            "there is no command dance; the commands are connect, search, cancel, terminate, log; "
            "see tallyhive-mail --help");
}

TEST_F(TypedArguments, MissingValueIsNamed) {
  EXPECT_EQ(complaint({"search", "--sort"}),
            "--sort needs ATTRIBUTE; see tallyhive-mail search --help");
  EXPECT_EQ(complaint({"connect", "--timeout"}),
            "--timeout needs SECONDS; see tallyhive-mail connect --help");
}

TEST_F(TypedArguments, OptionThatIsGivenTwiceIsNamed) {
  EXPECT_EQ(complaint({"search", "--sort", "date", "--sort", "size"}),
            "--sort was given more than once; give it once; see tallyhive-mail search --help");
}

TEST_F(TypedArguments, OptionBeforeItsCommandIsToldWhereItBelongs) {
  EXPECT_EQ(complaint({"--timeout", "1", "search", "plum"}),
            "--timeout belongs behind the command: tallyhive-mail search --timeout; see "
            "tallyhive-mail search --help");
  EXPECT_EQ(complaint({"--jsno", "search", "plum"}),
            "there is no option --jsno; see tallyhive-mail search --help");
}

TEST_F(TypedArguments, WhatIsTooMuchIsNamed) {
  EXPECT_EQ(complaint({"log", "plum"}), "log takes no plum; see tallyhive-mail log --help");
}

TEST_F(TypedArguments, TextThatIsNoUtf8IsRefused) {
  EXPECT_EQ(wrongText("plum \u00FC"), "");
  EXPECT_EQ(wrongText("plum \xFC"), "\"plum \uFFFD\" is no UTF-8 text");
}

}  // namespace
}  // namespace thmp::client
