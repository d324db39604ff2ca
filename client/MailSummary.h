// SPDX-License-Identifier: Apache-2.0
//
// What a set of messages comes to: how many were sent and received in each month, with whom, the
// first and the last. Takes memory by months and correspondents, not by messages. One thread.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "base/date.h"
#include "base/value.h"

namespace thmp::client {

/// A month of the calendar, counted from January of the year 0.
struct Month {
  int number = 0;

  static constexpr Month of(int year, int monthOfYear) { return {year * 12 + monthOfYear - 1}; }
  constexpr int year() const { return number / 12; }
  constexpr int monthOfYear() const { return number % 12 + 1; }
  /// `2026-05`.
  std::string text() const;

  friend constexpr auto operator<=>(const Month&, const Month&) = default;
};

struct MailCount {
  std::uint64_t sent = 0;
  std::uint64_t received = 0;

  std::uint64_t total() const { return sent + received; }
  MailCount& operator+=(const MailCount& other) {
    sent += other.sent;
    received += other.received;
    return *this;
  }
  friend bool operator==(const MailCount&, const MailCount&) = default;
};

struct MonthCount {
  Month month;
  MailCount count;

  friend bool operator==(const MonthCount&, const MonthCount&) = default;
};

/// Somebody mail was exchanged with: the author of a received message, each recipient of a sent
/// one.
struct Correspondent {
  std::string address;  // in lower case
  std::string name;     // as first met; the address without one
  MailCount count;
};

/// One message in a few words.
struct NotableMessage {
  Date date;
  bool sent = false;
  std::string correspondent;  // a name; of a sent message its first recipient
  std::string subject;
};

class MailSummary {
 public:
  /// `ownAddresses`: the user's own, besides those that messages tell.
  explicit MailSummary(const std::vector<std::string>& ownAddresses);

  /// `item` as it stands in a results batch.
  void add(const Dictionary& item);

  const MailCount& total() const { return total_; }
  /// Messages without a usable date; they are in total() and in no month.
  std::uint64_t undated() const { return undated_; }
  /// From the first month with mail to the last, without a gap; empty without any.
  std::vector<MonthCount> months() const;
  std::size_t correspondentCount() const { return correspondents_.size(); }
  /// Those with the most messages, most first; of equal ones in the order of their addresses.
  std::vector<Correspondent> topCorrespondents(std::size_t limit) const;
  /// By date; null without a dated message.
  const NotableMessage* first() const { return first_ ? &*first_ : nullptr; }
  const NotableMessage* last() const { return last_ ? &*last_ : nullptr; }

 private:
  bool isSent(const Dictionary& item) const;
  void count(std::string_view address, std::string_view name, bool sent);

  std::set<std::string> ownAddresses_;  // in lower case
  MailCount total_;
  std::uint64_t undated_ = 0;
  std::map<Month, MailCount> months_;
  std::unordered_map<std::string, Correspondent> correspondents_;
  std::optional<NotableMessage> first_;
  std::optional<NotableMessage> last_;
};

/// Whether a message file lies in a mailbox of sent mail: a Maildir, a folder or an .mbox that is
/// called Sent, Sent Mail, Sent Messages or Sent Items, capitals not counted, or that has one of
/// these between the dots of a Maildir++ name.
bool isInSentMailbox(std::string_view path);

}  // namespace thmp::client
