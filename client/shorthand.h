// SPDX-License-Identifier: Apache-2.0
//
// What people type to search, turned into a predicate of the query language: `with:ada
// has:attachment "plum cake"`.
//
//   from:TEXT to:TEXT with:TEXT   names and addresses; a part of either is enough
//   subject:TEXT                  a part of the subject
//   after:DATE before:DATE        received on or after, received before; a DATE is YYYY, YYYY-MM or
//                                 YYYY-MM-DD
//   has:attachment is:unread is:read is:flagged is:answered
//   word "some words"             anywhere in the message, its text included; a word is the
//                                 beginning of one
//
// All of them must hold; a leading "-" turns one around; a text with blanks stands in quotes.
#pragma once

#include <string>
#include <string_view>

#include "base/result.h"

namespace thmp::client {

/// Whether `query` is a predicate already: a comparison operator or a parenthesis stands outside
/// quotes.
bool isPredicate(std::string_view query);

/// The predicate for a shorthand; an error names the word that is not understood, and what may have
/// been meant. Empty text gives an empty predicate, which finds all mail.
Result<std::string> predicateFromShorthand(std::string_view shorthand);

}  // namespace thmp::client
