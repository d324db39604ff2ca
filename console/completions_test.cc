// SPDX-License-Identifier: Apache-2.0
#include "console/completions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "console/command_line.h"

namespace thmp::console {
namespace {

using testing::HasSubstr;
using testing::Not;

class Completions : public testing::Test {
 protected:
  Completions() {
    CLI::App& paint = *app_.add_subcommand("paint", "Paint what's there");
    paint.add_flag("-f,--fast", fast_, "Sooner: [not better]");
    paint.add_option("--color", color_, "Which one")->type_name("COLOR");
    paint.add_option("--from", folders_, "Where it is")->type_name("DIR")->allow_extra_args(false);
    paint.add_option("--secret", color_, "Nobody's business")->group("");
    paint.add_option("THING", color_, "What to paint");
  }

  std::string script(std::string_view shell) const {
    return completionScript(app_, shell, {{"COLOR", {"red", "blue"}}});
  }

  CLI::App app_{"Paints.", "a-painter"};
  bool fast_ = false;
  std::string color_;
  std::vector<std::string> folders_;
};

TEST_F(Completions, SyntaxIsWhatTheParserKnows) {
  const ProgramSyntax syntax = syntaxOf(app_);
  ASSERT_EQ(syntax.commands.size(), 1U);
  const std::vector<OptionSyntax>& options = syntax.commands[0].options;
  ASSERT_EQ(options.size(), 4U);
  EXPECT_EQ(options[0].names, (std::vector<std::string>{"--help", "-h"}));
  EXPECT_EQ(options[1].names, (std::vector<std::string>{"--fast", "-f"}));
  EXPECT_FALSE(options[1].takesValue());
  EXPECT_EQ(options[2].value, "COLOR");
  EXPECT_FALSE(options[2].repeats);
  EXPECT_TRUE(options[3].repeats);
}

TEST_F(Completions, AreThereForThreeShells) {
  EXPECT_THAT(script("bash"), HasSubstr("complete -F _a_painter a-painter\n"));
  EXPECT_THAT(script("zsh"), HasSubstr("#compdef a-painter\n"));
  EXPECT_THAT(script("fish"), HasSubstr("complete -c a-painter -f\n"));
  EXPECT_EQ(script("csh"), "");
}

TEST_F(Completions, KeepHiddenOptionsHidden) {
  for (const char* shell : {"bash", "zsh", "fish"}) {
    EXPECT_THAT(script(shell), Not(HasSubstr("secret"))) << shell;
  }
}

TEST_F(Completions, QuoteDescriptionsForTheirShell) {
  EXPECT_THAT(script("zsh"), HasSubstr(R"('paint:Paint what'\''s there')"));
  EXPECT_THAT(script("zsh"), HasSubstr(R"([Sooner\: \[not better\]])"));
  EXPECT_THAT(script("fish"), HasSubstr(R"(-a paint -d 'Paint what\'s there')"));
}

TEST_F(Completions, OfferTheWordsOfAValue) {
  EXPECT_THAT(script("bash"), HasSubstr("paint:--color) mapfile -t COMPREPLY < <(compgen -W "
                                        "'red blue' -- \"$word\"); return ;;\n"));
  EXPECT_THAT(script("zsh"), HasSubstr("(--color)--color=[Which one]:COLOR:(red blue)"));
  EXPECT_THAT(script("fish"), HasSubstr("-l color -x -a 'red blue' -d 'Which one'"));
}

TEST_F(Completions, ArePrintedByTheHiddenOption) {
  addCompletionOption(app_, {});
  try {
    app_.parse("--completion fish");
    FAIL() << "the parsing went on";
  } catch (const CLI::ParseError& end) {
    EXPECT_EQ(end.get_exit_code(), 0);
    EXPECT_EQ(std::string(end.what()) + "\n", completionScript(app_, "fish", {}));
  }
  EXPECT_THROW(app_.parse("--completion csh"), CLI::ValidationError);
}

}  // namespace
}  // namespace thmp::console
