// SPDX-License-Identifier: Apache-2.0
#include "client/client_app.h"

#include <gtest/gtest.h>

namespace thmp::client {
namespace {

TEST(CommandLine, EveryCommandHasADescriptionHelpAndVersion) {
  const auto app = buildApp();
  std::vector<std::string> names;
  for (const auto& [command, run] : app->commands) {
    names.push_back(command->get_name());
    EXPECT_FALSE(command->get_description().empty()) << names.back();
    EXPECT_NE(command->get_option_no_throw("--help"), nullptr) << names.back();
    EXPECT_NE(command->get_option_no_throw("--version"), nullptr) << names.back();
  }
  EXPECT_EQ(names, (std::vector<std::string>{"connect", "search", "cancel", "terminate", "log"}));
}

TEST(CommandLine, CommandThatIsNamedIsMadeAlone) {
  const auto all = buildApp();
  for (const auto& [command, run] : all->commands) {
    const auto app = buildApp(command->get_name());
    ASSERT_EQ(app->commands.size(), 1u);
    EXPECT_EQ(app->commands.front().first->get_name(), command->get_name());
  }
  for (const char* none : {"", "serch", "--help", "--completion"}) {
    EXPECT_EQ(buildApp(none)->commands.size(), 5u) << none;
  }
}

TEST(CommandLine, EveryOptionIsDescribed) {
  const auto app = buildApp();
  for (const auto& [command, run] : app->commands) {
    for (const CLI::Option* option : command->get_options()) {
      EXPECT_FALSE(option->get_description().empty()) << option->get_name();
    }
  }
}

TEST(CommandLine, OptionsOfOneAreNotThoseOfAnother) {
  const auto app = buildApp();
  app->parser.parse("connect --client mine --timeout 0.25");
  EXPECT_EQ(app->common.clientName, "mine");
  EXPECT_EQ(app->common.timeout(), std::chrono::milliseconds(250));
  EXPECT_EQ(buildApp()->common.clientName, "tallyhive-mail");
}

}  // namespace
}  // namespace thmp::client
