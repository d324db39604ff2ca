// SPDX-License-Identifier: Apache-2.0
#include "host/store/encoded_words.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <optional>
#include <unordered_map>

#include "host/store/gmime_use.h"
#include "host/store/header_text.h"

namespace thmp {

namespace {

struct Word {
  std::string charset;
  std::string bytes;
  std::size_t end = 0;  // behind it in the text
};

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

std::string decodeQ(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const int high = text[i] == '=' && i + 2 < text.size() ? hexDigit(text[i + 1]) : -1;
    const int low = high >= 0 ? hexDigit(text[i + 2]) : -1;
    if (low >= 0) {
      out.push_back(static_cast<char>(high * 16 + low));
      i += 2;
    } else {
      out.push_back(text[i] == '_' ? ' ' : text[i]);
    }
  }
  return out;
}

int base64Digit(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  return c == '/' ? 63 : -1;
}

std::string decodeB(std::string_view text) {
  std::string out;
  unsigned bits = 0;
  unsigned count = 0;
  for (const char c : text) {
    const int digit = base64Digit(c);
    if (digit < 0) continue;
    bits = (bits << 6) | static_cast<unsigned>(digit);
    count += 6;
    if (count >= 8) {
      count -= 8;
      out.push_back(static_cast<char>((bits >> count) & 0xFF));
    }
  }
  return out;
}

// The encoded word that begins at `at`, where "=?" stands.
std::optional<Word> wordAt(std::string_view text, std::size_t at) {
  const std::size_t charsetEnd = text.find('?', at + 2);
  if (charsetEnd == std::string_view::npos || charsetEnd == at + 2) return std::nullopt;
  if (charsetEnd + 2 >= text.size() || text[charsetEnd + 2] != '?') return std::nullopt;
  const char encoding = text[charsetEnd + 1];
  std::string_view charset = text.substr(at + 2, charsetEnd - at - 2);
  if (charset.find(' ') != std::string_view::npos) return std::nullopt;
  charset = charset.substr(0, charset.find('*'));  // a language may follow
  // Before the end is searched for, which may be far.
  const bool isQ = encoding == 'Q' || encoding == 'q';
  if (!isQ && encoding != 'B' && encoding != 'b') return std::nullopt;
  const std::size_t begin = charsetEnd + 3;
  const std::size_t end = text.find("?=", begin);
  if (end == std::string_view::npos) return std::nullopt;
  const std::string_view payload = text.substr(begin, end - begin);
  return Word{std::string(charset), isQ ? decodeQ(payload) : decodeB(payload), end + 2};
}

// Hands stretches of plain text to `plain` and each run of encoded words, decoded, to `words`.
void cutAtWords(std::string_view text, const std::function<void(std::string_view)>& plain,
                const std::function<void(std::string)>& words) {
  std::size_t done = 0;
  std::size_t at = 0;
  // Behind the last "?=" there is no word, and none is searched for: this keeps it linear.
  const std::size_t lastEnd = text.rfind("?=");
  while (lastEnd != std::string_view::npos && (at = text.find("=?", at)) < lastEnd) {
    std::optional<Word> word = wordAt(text, at);
    if (!word) {
      at += 2;
      continue;
    }
    plain(text.substr(done, at - done));
    std::string decoded;
    while (true) {
      const std::size_t next = text.find_first_not_of(' ', word->end);
      std::optional<Word> follows;
      if (next < lastEnd && text.substr(next, 2) == "=?") {
        follows = wordAt(text, next);
      }
      if (follows && equalsIgnoringCase(follows->charset, word->charset)) {
        word->bytes.append(follows->bytes);
        word->end = follows->end;
        continue;
      }
      decoded.append(convertToUtf8(word->bytes, word->charset));
      at = done = word->end;
      if (!follows) break;
      word = std::move(follows);
    }
    words(std::move(decoded));
  }
  plain(text.substr(done));
}

constexpr gunichar kFirstMask = 0x100000;
constexpr std::size_t kMostMasks = 0xFFF0;
constexpr std::string_view kMaskLead = "\xF4";

// Opening a charset is slow, more so one that nobody knows, and one message may ask for it many
// times: those of a use of GMime stay open until the next. A message has reason to name a few; all
// beyond are unknown.
class Converters {
 public:
  /// In its initial state; empty when the charset is not known.
  std::optional<iconv_t> find(const std::string& charset) {
    if (use_ != GMimeUse::number()) closeAll();
    use_ = GMimeUse::number();
    const auto found = converters_.find(charset);
    if (found == converters_.end()) return open(charset);
    if (found->second) iconv(*found->second, nullptr, nullptr, nullptr, nullptr);
    return found->second;
  }

 private:
  static constexpr std::size_t kMost = 100;

  std::optional<iconv_t> open(const std::string& charset) {
    if (converters_.size() >= kMost) return std::nullopt;
    const iconv_t opened = g_mime_iconv_open("utf-8", charset.c_str());
    const bool isKnown = reinterpret_cast<std::intptr_t>(opened) != -1;
    return converters_[charset] = isKnown ? std::optional(opened) : std::nullopt;
  }

  void closeAll() {
    for (const auto& [charset, converter] : converters_) {
      if (converter) g_mime_iconv_close(*converter);
    }
    converters_.clear();
  }

  std::uint64_t use_ = 0;
  std::unordered_map<std::string, std::optional<iconv_t>> converters_;
};

std::optional<iconv_t> converterFrom(const std::string& charset) {
  static Converters& converters = *new Converters;
  return converters.find(charset);
}

}  // namespace

bool isCharset(const std::string& charset) { return converterFrom(charset).has_value(); }

std::string convertToUtf8(std::string_view bytes, const std::string& charset) {
  const std::optional<iconv_t> opened = converterFrom(charset);
  if (!opened) return toUtf8(bytes);
  const iconv_t converter = *opened;
  std::string out;
  std::string input(bytes);
  char* from = input.data();
  std::size_t left = input.size();
  std::array<char, 4096> buffer;
  while (true) {
    char* to = buffer.data();
    std::size_t room = buffer.size();
    const bool flush = left == 0;
    errno = 0;
    const std::size_t result = flush ? iconv(converter, nullptr, nullptr, &to, &room)
                                     : iconv(converter, &from, &left, &to, &room);
    const int why = errno;
    out.append(buffer.data(), static_cast<std::size_t>(to - buffer.data()));
    if (flush) break;
    if (result != static_cast<std::size_t>(-1) || why == E2BIG) continue;
    out.append("\xEF\xBF\xBD");
    if (why == EINVAL) break;
    ++from;
    --left;
  }
  return cleanUtf8(out);
}

std::string decodeEncodedWords(std::string_view text) {
  std::string out;
  cutAtWords(
      text, [&](std::string_view stretch) { out.append(stretch); },
      [&](const std::string& decoded) { out.append(decoded); });
  return out;
}

EncodedWordMask::EncodedWordMask(std::string_view text) {
  if (text.find("=?") == std::string_view::npos || text.find(kMaskLead) != std::string_view::npos) {
    masked_ = text;
    return;
  }
  cutAtWords(
      text, [&](std::string_view stretch) { masked_.append(stretch); },
      [&](std::string decoded) {
        if (decoded_.size() == kMostMasks) return;
        std::array<char, 6> bytes{};
        const int length =
            g_unichar_to_utf8(kFirstMask + static_cast<gunichar>(decoded_.size()), bytes.data());
        masked_.append(bytes.data(), static_cast<std::size_t>(length));
        decoded_.push_back(std::move(decoded));
      });
}

std::string EncodedWordMask::unmask(std::string_view piece) const {
  if (decoded_.empty() || piece.find(kMaskLead) == std::string_view::npos) {
    return std::string(piece);
  }
  std::string out;
  for (std::size_t i = 0; i < piece.size();) {
    const gunichar character =
        g_utf8_get_char_validated(piece.data() + i, static_cast<gssize>(piece.size() - i));
    if (character >= kFirstMask && character - kFirstMask < decoded_.size()) {
      out.append(decoded_[character - kFirstMask]);
      i += 4;
    } else {
      out.push_back(piece[i++]);
    }
  }
  return out;
}

}  // namespace thmp
