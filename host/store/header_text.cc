// SPDX-License-Identifier: Apache-2.0
#include "host/store/header_text.h"

#include <algorithm>
#include <array>

#include "host/store/encoded_words.h"
#include "host/store/gmime_use.h"
#include "platform/linux/utf8.h"

namespace thmp {

namespace {

char lower(char c) noexcept { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool isAscii(std::string_view text) noexcept {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

// The characters of Windows-1252 from 0x80 to 0x9F.
constexpr std::array<char16_t, 32> kWindows1252 = {
    0x20AC, 0xFFFD, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021, 0x02C6, 0x2030, 0x0160,
    0x2039, 0x0152, 0xFFFD, 0x017D, 0xFFFD, 0xFFFD, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022,
    0x2013, 0x2014, 0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0xFFFD, 0x017E, 0x0178};

bool isFieldName(std::string_view name) noexcept {
  return !name.empty() &&
         std::all_of(name.begin(), name.end(), [](char c) { return c > ' ' && c < 0x7F; });
}

// The length of the white space character at `at`; 0 when none stands there.
std::size_t whiteSpaceAt(std::string_view text, std::size_t at) noexcept {
  const auto byte = static_cast<unsigned char>(text[at]);
  if (byte < 0x80) return byte == ' ' || (byte >= 0x09 && byte <= 0x0D) ? 1 : 0;
  // U+0085 and U+00A0; U+1680, U+2000 to U+200A, U+2028, U+2029, U+202F, U+205F and U+3000.
  if (byte == 0xC2) {
    const std::string_view two = text.substr(at, 2);
    return two == "\xC2\x85" || two == "\xC2\xA0" ? 2 : 0;
  }
  if (byte < 0xE1 || byte > 0xE3 || text.size() - at < 3) return 0;
  const std::string_view three = text.substr(at, 3);
  const auto last = static_cast<unsigned char>(three[2]);
  const bool isGeneral =
      three.starts_with("\xE2\x80") &&
      ((last >= 0x80 && last <= 0x8A) || last == 0xA8 || last == 0xA9 || last == 0xAF);
  const bool isOther =
      three == "\xE1\x9A\x80" || three == "\xE2\x81\x9F" || three == "\xE3\x80\x80";
  return isGeneral || isOther ? 3 : 0;
}

// Makes an address field flat for a parser that follows its nesting on the stack: without comments,
// and without groups in groups.
class FlatAddresses {
 public:
  explicit FlatAddresses(std::string_view text) : text_(text) {}

  std::string run() {
    for (std::size_t i = 0; i < text_.size(); ++i) {
      const char c = text_[i];
      if (c == '\\') {
        if (depth_ == 0) out_.append(text_.substr(i, 2));
        ++i;
      } else if (depth_ == 0) {
        outside(c);
      } else if (c == '(') {
        ++depth_;
      } else if (c == ')' && --depth_ == 0) {
        out_.push_back(' ');
      }
    }
    return std::move(out_);
  }

 private:
  void outside(char c) {
    if (c == '"') quoted_ = !quoted_;
    if (!quoted_) {
      if (c == '(') {
        ++depth_;
        return;
      }
      if (c == '<') inAngle_ = true;
      if (c == '>' || c == ',') inAngle_ = false;
      if (c == ';') inGroup_ = false;
      if (c == ':' && !inAngle_) {
        if (inGroup_) c = ' ';
        inGroup_ = true;
      }
    }
    out_.push_back(c);
  }

  const std::string_view text_;
  std::string out_;
  std::size_t depth_ = 0;
  bool quoted_ = false;
  bool inAngle_ = false;
  bool inGroup_ = false;
};

void collectAddresses(InternetAddressList* list, const EncodedWordMask& words,
                      std::vector<MailAddress>& out) {
  const int count = internet_address_list_length(list);
  for (int i = 0; i < count; ++i) {
    InternetAddress* item = internet_address_list_get_address(list, i);
    if (INTERNET_ADDRESS_IS_GROUP(item)) {
      InternetAddressList* members =
          internet_address_group_get_members(INTERNET_ADDRESS_GROUP(item));
      if (members != nullptr) collectAddresses(members, words, out);
      continue;
    }
    const char* address = internet_address_mailbox_get_addr(INTERNET_ADDRESS_MAILBOX(item));
    if (address == nullptr || *address == '\0') continue;
    const char* name = internet_address_get_name(item);
    MailAddress entry;
    entry.address = collapseWhiteSpace(cleanUtf8(words.unmask(address)));
    if (name != nullptr) entry.name = collapseWhiteSpace(cleanUtf8(words.unmask(name)));
    if (entry.name.empty()) entry.name = entry.address;
    if (!entry.address.empty()) out.push_back(std::move(entry));
  }
}

}  // namespace

void appendCharacter(std::string& out, char32_t character) {
  std::array<char, 6> bytes{};
  const int length = g_unichar_to_utf8(character, bytes.data());
  out.append(bytes.data(), static_cast<std::size_t>(length));
}

std::vector<RawHeader> splitHeaders(std::string_view bytes) {
  std::vector<RawHeader> headers;
  bool inField = false;
  std::size_t at = 0;
  while (at < bytes.size()) {
    const std::size_t newline = bytes.find('\n', at);
    const std::size_t end = newline == std::string_view::npos ? bytes.size() : newline;
    const std::string_view line = bytes.substr(at, end - at);
    if (line.empty() || line == "\r") break;
    if (line[0] == ' ' || line[0] == '\t') {
      if (inField) {
        std::string_view& value = headers.back().value;
        value = std::string_view(
            value.data(), static_cast<std::size_t>(line.data() + line.size() - value.data()));
      }
    } else {
      const std::string_view name = fieldName(line);
      inField = !name.empty();
      if (inField) headers.push_back({name, line.substr(line.find(':') + 1)});
    }
    at = end + 1;
  }
  return headers;
}

std::string_view fieldName(std::string_view line) noexcept {
  const std::size_t colon = line.find(':');
  std::string_view name = line.substr(0, colon == std::string_view::npos ? 0 : colon);
  while (!name.empty() && (name.back() == ' ' || name.back() == '\t')) name.remove_suffix(1);
  return isFieldName(name) ? name : std::string_view();
}

bool startsIgnoringCase(std::string_view text, std::string_view prefix) noexcept {
  return text.size() >= prefix.size() && equalsIgnoringCase(text.substr(0, prefix.size()), prefix);
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) noexcept {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                            [](char x, char y) { return lower(x) == lower(y); });
}

std::string cleanUtf8(std::string_view bytes) {
  if (isAscii(bytes) || isUtf8(bytes)) return std::string(bytes);
  const GText valid(g_utf8_make_valid(bytes.data(), static_cast<gssize>(bytes.size())));
  return std::string(valid.get());
}

std::string toUtf8(std::string_view bytes) {
  if (isAscii(bytes) || isUtf8(bytes)) return std::string(bytes);
  std::string out;
  out.reserve(bytes.size() * 2);
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80) {
      out.push_back(c);
    } else {
      appendCharacter(out, byte < 0xA0 ? kWindows1252[byte - 0x80U] : byte);
    }
  }
  return out;
}

std::string collapseWhiteSpace(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  std::size_t begin = 0;  // of words that have one space between them
  const auto endWords = [&](std::size_t end) {
    if (end == begin) return;
    if (!out.empty()) out.push_back(' ');
    out.append(text.substr(begin, end - begin));
  };
  const auto isPlain = [&](std::size_t i) {
    return i < text.size() && text[i] > ' ' && text[i] < '\x7F';
  };
  for (std::size_t i = 0; i < text.size();) {
    if (isPlain(i)) {
      ++i;
    } else if (text[i] == ' ' && i > begin && isPlain(i + 1)) {
      i += 2;
    } else if (const std::size_t space = whiteSpaceAt(text, i); space > 0) {
      endWords(i);
      begin = i += space;
    } else {
      ++i;
    }
  }
  endWords(text.size());
  return out;
}

std::string decodeHeaderText(std::string_view raw) {
  if (isAscii(raw) && raw.find("=?") == std::string_view::npos) return collapseWhiteSpace(raw);
  std::string unfolded = collapseWhiteSpace(toUtf8(raw));
  if (unfolded.find("=?") == std::string::npos) return unfolded;
  return collapseWhiteSpace(decodeEncodedWords(unfolded));
}

std::vector<MailAddress> parseAddresses(std::string_view raw) {
  std::vector<MailAddress> out;
  const EncodedWordMask words(FlatAddresses(collapseWhiteSpace(toUtf8(raw))).run());
  const GObjectPtr<InternetAddressList> list(
      internet_address_list_parse(mimeOptions(), words.masked().c_str()));
  if (list) collectAddresses(list.get(), words, out);
  return out;
}

std::optional<std::int64_t> parseMailDate(std::string_view text) {
  constexpr std::size_t kLongest = 1'000;
  const std::string terminated = collapseWhiteSpace(text.substr(0, kLongest));
  if (terminated.empty()) return std::nullopt;
  GDateTime* date = g_mime_utils_header_decode_date(terminated.c_str());
  if (date == nullptr) return std::nullopt;
  const std::int64_t seconds = g_date_time_to_unix(date);
  g_date_time_unref(date);
  if (!isDateInRange(seconds)) return std::nullopt;
  return seconds;
}

}  // namespace thmp
