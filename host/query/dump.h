// SPDX-License-Identifier: Apache-2.0
//
// The stages of a query in readable form, for people who want to know how their text was
// understood. One item a line; control characters never reach the output. Any thread.
#pragma once

#include <string>
#include <string_view>

#include "host/query/query.h"

namespace thmp::query {

/// `source` with control characters as \u{...}.
std::string visible(std::string_view source);

/// A value with its letters: "plum"cd; those of a word without quotes apart, for behind it they
/// would be part of it: plum [cd].
std::string visible(const Literal& literal);

/// The tokens of any text, each with its place and kind; where they end for an error, the error.
std::string dumpTokens(std::string_view text);

/// The tree, a node a line, operands two spaces further in.
std::string dumpTree(const Query& query);

/// Both, under the headings "tokens" and "tree".
std::string dump(const Query& query);

}  // namespace thmp::query
