// SPDX-License-Identifier: Apache-2.0
#include "client/MailSummary.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <utility>

#include "client/ascii_case.h"
#include "console/calendar.h"
#include "console/found_messages.h"
#include "messaging/message_names.h"

namespace thmp::client {
namespace {

std::string_view textAt(const Array& array, std::size_t index) {
  return index < array.size() ? array[index].asText().value_or("") : std::string_view();
}

std::string_view lastComponent(std::string_view path) { return path.substr(path.rfind('/') + 1); }

std::string_view parentOf(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

// The folder that stands for the mailbox of a message file.
std::string_view mailboxOf(std::string_view path) {
  const std::string_view folder = parentOf(path);
  if (lastComponent(folder) == "cur" || lastComponent(folder) == "new") return parentOf(folder);
  for (std::string_view above = folder; !above.empty(); above = parentOf(above)) {
    if (above.ends_with(".mbox")) return above.substr(0, above.size() - 5);
  }
  return folder;
}

}  // namespace

bool isInSentMailbox(std::string_view path) {
  constexpr std::array<std::string_view, 4> kNames = {"sent", "sent mail", "sent messages",
                                                      "sent items"};
  const std::string name = lowerCase(lastComponent(mailboxOf(path)));
  for (std::string_view left = name;;) {
    const std::size_t dot = left.find('.');
    if (std::find(kNames.begin(), kNames.end(), left.substr(0, dot)) != kNames.end()) return true;
    if (dot == std::string_view::npos) return false;
    left.remove_prefix(dot + 1);
  }
}

std::string Month::text() const { return fmt::format("{:04}-{:02}", year(), monthOfYear()); }

MailSummary::MailSummary(const std::vector<std::string>& ownAddresses) {
  for (const std::string& address : ownAddresses) ownAddresses_.insert(lowerCase(address));
}

bool MailSummary::isSent(const Dictionary& item) const {
  if (isInSentMailbox(item[kPathKey].asText().value_or(""))) return true;
  const Value& attributes = item[kAttributesKey];
  const Array handles = attributes["kMDItemAccountHandles"].asArray().value_or(Array());
  const Array authors = attributes["kMDItemAuthorEmailAddresses"].asArray().value_or(Array());
  return std::any_of(authors.begin(), authors.end(), [&](const Value& author) {
    const std::string address = lowerCase(author.asText().value_or(""));
    return ownAddresses_.contains(address) ||
           std::any_of(handles.begin(), handles.end(), [&](const Value& handle) {
             return lowerCase(handle.asText().value_or("")) == address;
           });
  });
}

void MailSummary::add(const Dictionary& item) {
  const Value& attributes = item[kAttributesKey];
  const bool sent = isSent(item);
  const MailCount one{sent ? 1U : 0U, sent ? 0U : 1U};
  total_ += one;

  const Array names =
      attributes[sent ? "kMDItemRecipients" : "kMDItemAuthors"].asArray().value_or(Array());
  const Array addresses =
      attributes[sent ? "kMDItemRecipientEmailAddresses" : "kMDItemAuthorEmailAddresses"]
          .asArray()
          .value_or(Array());
  // Of a message that names somebody twice, once.
  std::set<std::string> counted;
  for (std::size_t i = 0; i < addresses.size(); ++i) {
    const std::string address = lowerCase(textAt(addresses, i));
    if (!address.empty() && counted.insert(address).second) count(address, textAt(names, i), sent);
  }

  const std::optional<Date> date = console::messageDate(attributes);
  const std::optional<std::tm> calendar = date ? console::localCalendar(*date) : std::nullopt;
  if (!calendar) {
    ++undated_;
    return;
  }
  months_[Month::of(calendar->tm_year + 1900, calendar->tm_mon + 1)] += one;
  const bool isFirst = !first_ || *date < first_->date;
  const bool isLast = !last_ || *date > last_->date;
  if (!isFirst && !isLast) return;
  const NotableMessage notable{*date, sent, std::string(textAt(names, 0)),
                               std::string(attributes["kMDItemDisplayName"].asText().value_or(""))};
  if (isFirst) first_ = notable;
  if (isLast) last_ = notable;
}

void MailSummary::count(std::string_view address, std::string_view name, bool sent) {
  Correspondent& correspondent = correspondents_[std::string(address)];
  if (correspondent.address.empty()) correspondent.address = address;
  // A name tells more than the address that stands in for one.
  if (correspondent.name.empty() || correspondent.name == correspondent.address) {
    correspondent.name = name.empty() ? address : name;
  }
  ++(sent ? correspondent.count.sent : correspondent.count.received);
}

std::vector<MonthCount> MailSummary::months() const {
  std::vector<MonthCount> all;
  if (months_.empty()) return all;
  for (Month month = months_.begin()->first; month <= months_.rbegin()->first; ++month.number) {
    const auto found = months_.find(month);
    all.push_back({month, found == months_.end() ? MailCount() : found->second});
  }
  return all;
}

std::vector<Correspondent> MailSummary::topCorrespondents(std::size_t limit) const {
  std::vector<const Correspondent*> sorted;
  sorted.reserve(correspondents_.size());
  for (const auto& [address, correspondent] : correspondents_) sorted.push_back(&correspondent);
  const std::size_t count = std::min(limit, sorted.size());
  std::partial_sort(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(count),
                    sorted.end(), [](const Correspondent* a, const Correspondent* b) {
                      if (a->count.total() != b->count.total()) {
                        return a->count.total() > b->count.total();
                      }
                      return a->address < b->address;
                    });
  std::vector<Correspondent> top;
  for (std::size_t i = 0; i < count; ++i) top.push_back(*sorted[i]);
  return top;
}

}  // namespace thmp::client
