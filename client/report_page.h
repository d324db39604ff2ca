// SPDX-License-Identifier: Apache-2.0
//
// A page about one search: how many messages, the timeline, with whom, the first and the last. It
// stands alone (no network, no script), follows the reader's light or dark mode, and shows whatever
// mail says as text. Pure; any thread.
#pragma once

#include <string>
#include <string_view>

#include "client/MailSummary.h"

namespace thmp::client {

struct ReportSource {
  std::string query;      // as typed; empty for all mail
  std::string predicate;  // what was sent
  std::string made;       // date and time, for people
};

/// The page, in HTML and UTF-8.
std::string reportPage(const MailSummary& summary, const ReportSource& source);

/// `text` as HTML shows it, in an element and in an attribute alike: without control characters and
/// changes of the writing direction, cut at `columns`.
std::string escapedForHtml(std::string_view text, std::size_t columns);

}  // namespace thmp::client
