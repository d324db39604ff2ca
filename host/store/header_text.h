// SPDX-License-Identifier: Apache-2.0
//
// What header fields say: text, addresses and dates out of raw field bytes. REQUIRES throughout,
// but where said otherwise: a GMimeUse of the calling thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace thmp {

/// One field as it stands: its name, and what follows the colon, line ends of its folds included.
struct RawHeader {
  std::string_view name;
  std::string_view value;
};

/// The fields of the header block at the head of `bytes`; lines that are no field are left out. No
/// GMime needed.
std::vector<RawHeader> splitHeaders(std::string_view bytes);

/// The name of the field that a line begins; empty when it begins none. No GMime needed.
std::string_view fieldName(std::string_view line) noexcept;

/// ASCII letters without case. No GMime needed.
bool equalsIgnoringCase(std::string_view a, std::string_view b) noexcept;
bool startsIgnoringCase(std::string_view text, std::string_view prefix) noexcept;

/// Appends the UTF-8 of `character`. No GMime needed.
void appendCharacter(std::string& out, char32_t character);
/// `bytes` if they are UTF-8, else what they are as Windows-1252. No GMime needed.
std::string toUtf8(std::string_view bytes);
/// With U+FFFD for what is not UTF-8. No GMime needed.
std::string cleanUtf8(std::string_view bytes);
/// Runs of white space as one space, none at the ends; `text` is UTF-8. No GMime needed.
std::string collapseWhiteSpace(std::string_view text);

/// The field's text: unfolded, encoded words decoded, white space collapsed.
std::string decodeHeaderText(std::string_view raw);

struct MailAddress {
  /// The decoded display name, else the address.
  std::string name;
  std::string address;
};
/// The mailboxes of an address field in order, members of groups included, comments dropped; items
/// that do not parse are skipped.
std::vector<MailAddress> parseAddresses(std::string_view raw);

/// A field's date in Unix seconds, obsolete forms included; empty when it does not parse or lies
/// outside the years 1 to 9999.
std::optional<std::int64_t> parseMailDate(std::string_view text);

/// Whether Unix seconds lie in the years 1 to 9999. No GMime needed.
constexpr bool isDateInRange(std::int64_t unixSeconds) noexcept {
  return unixSeconds >= -62'135'596'800 && unixSeconds <= 253'402'300'799;
}

}  // namespace thmp
