// SPDX-License-Identifier: Apache-2.0
//
// The words of a text as the index keeps them: folded for case and diacritics, each under every
// form that a comparison by words could ask for. A word may begin and end at a step from lower to
// upper case, so "MyWindowClass" is also found as "window" and "mywindow"; an ideograph is a word
// by itself. Pure functions; any thread.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "host/query/fold.h"

namespace thmp {

/// How words are folded.
inline constexpr query::Folding kWordFolding{.foldCase = true, .dropMarks = true};

/// Between two words in a stream of words.
inline constexpr char kNextWord = ' ';
/// Between two forms of the word at one place.
inline constexpr char kOtherForm = '\x01';
/// Stands before the beginning of a word that goes on.
inline constexpr char kCutForm = '\x02';
/// Stands once in the stream of a text with words that have forms beyond those kept. Only a word of
/// more than kLongestSure bytes can be such a form.
inline constexpr std::string_view kUncovered = "\x03";
inline constexpr std::size_t kLongestSure = 12;
/// Stands once in the stream of a text where folding makes two characters of one, as of the sharp
/// s: there a prefix may end in the middle of a character, and no text has half of one.
inline constexpr std::string_view kExpanded = "\x04";

/// The words of `text` in their order, as one stream. `scratch` is the caller's.
void appendWords(std::string_view text, query::FoldedText& scratch, std::string& stream);

/// What to look up for a stretch of a pattern: its words in the one form that they have there.
std::vector<std::string> wordsOfPattern(std::string_view foldedStretch);

}  // namespace thmp
