// SPDX-License-Identifier: Apache-2.0
#include "host/store/mime_limits.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstddef>

#include "host/store/header_text.h"

namespace thmp {

namespace {

std::size_t findIgnoringCase(std::string_view text, std::string_view word) {
  for (std::size_t i = 0; i + word.size() <= text.size(); ++i) {
    if (startsIgnoringCase(text.substr(i), word)) return i;
  }
  return std::string_view::npos;
}

std::string_view trimRight(std::string_view text) {
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\r')) {
    text.remove_suffix(1);
  }
  return text;
}

// Follows the lines of a message through its headers and parts.
class Scan {
 public:
  Scan(std::string_view bytes, const ParseLimits& limits) : bytes_(bytes), limits_(limits) {}

  LimitedMessage run() {
    out_.mime.reserve(bytes_.size());
    for (std::size_t at = 0; at < bytes_.size() && !cut_;) {
      const std::size_t newline = bytes_.find('\n', at);
      const std::size_t end = newline == std::string_view::npos ? bytes_.size() : newline + 1;
      line(bytes_.substr(at, end - at));
      at = end;
    }
    return std::move(out_);
  }

 private:
  static constexpr std::size_t kMostCompared = 1'000'000;

  struct Level {
    std::string_view boundary;
    // The boundary is spelled in pieces: any line that looks like one may be it.
    bool anyLine = false;
  };

  void line(std::string_view whole) {
    std::string_view text = whole;
    if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    if (text.substr(0, 2) == "--" && boundaryLine(trimRight(text))) {
      out_.mime.append(whole);
    } else if (!inHeader_) {
      out_.mime.append(whole);
    } else if (text.empty() || text == "\r") {
      endHeader(whole);
    } else {
      headerLine(whole);
    }
  }

  bool boundaryLine(std::string_view text) {
    // The parser compares them all, too.
    compared_ += levels_.size();
    if (compared_ > kMostCompared) {
      cut("too many lines that look like boundaries");
      return false;
    }
    const std::string_view name = text.substr(2);
    for (std::size_t i = levels_.size(); i-- > 0;) {
      const Level& level = levels_[i];
      if (level.boundary.empty() && !level.anyLine) continue;
      const bool opens = level.anyLine || name == level.boundary;
      const bool closes = !opens && name.size() == level.boundary.size() + 2 &&
                          name.substr(0, level.boundary.size()) == level.boundary &&
                          name.substr(level.boundary.size()) == "--";
      if (!opens && !closes) continue;
      levels_.resize(closes ? i : i + 1);
      isTop_ = false;
      if (closes) {
        inHeader_ = false;
      } else if (++parts_ > limits_.parts) {
        cut(fmt::format("more than {} parts", limits_.parts));
        return false;
      } else {
        beginHeader();
      }
      return true;
    }
    return false;
  }

  void beginHeader() {
    inHeader_ = true;
    field_ = Field::kNone;
    headerBytes_ = 0;
    isMessage_ = false;
  }

  void endHeader(std::string_view whole) {
    out_.mime.append(whole);
    inHeader_ = false;
    isTop_ = false;
    if (!isMessage_) return;
    push({});
    beginHeader();
  }

  void push(Level level) {
    levels_.push_back(level);
    if (levels_.size() > limits_.depth) {
      cut(fmt::format("parts nested more than {} deep", limits_.depth));
    }
  }

  enum class Field : std::uint8_t { kNone, kOther, kContent, kContentType };

  static bool isList(std::string_view name) {
    constexpr std::array<std::string_view, 7> kLists = {
        "From", "Sender", "To", "Cc", "Bcc", "Keywords", "X-Gmail-Labels"};
    return std::any_of(kLists.begin(), kLists.end(),
                       [&](std::string_view list) { return equalsIgnoringCase(list, name); });
  }

  // Whether the line begins a field that is read.
  void beginField(std::string_view line) {
    const std::string_view name = fieldName(line);
    field_ = fieldOf(name);
    inList_ = isTop_ && isList(name);
    if (field_ == Field::kNone || !isTop_) return;
    if (++fields_ > limits_.fields) {
      note(fmt::format("more than {} header fields", limits_.fields));
      field_ = Field::kNone;
    } else if (inList_ && lists_++ >= limits_.listed) {
      endList();
    }
  }

  void endList() {
    note(fmt::format("more than {} addresses, keywords and labels, or {} bytes of them",
                     limits_.listed, limits_.listedBytes));
    field_ = Field::kNone;
  }

  // The line up to where too much is listed. Addresses need no comma between them, but each has one
  // of these signs.
  std::string_view listedIn(std::string_view line) {
    constexpr std::string_view kSigns = ",;<@";
    for (std::size_t at = 0; at < line.size(); ++at) {
      const std::size_t sign = kSigns.find(line[at]);
      if (++listedBytes_ <= limits_.listedBytes &&
          (sign == std::string_view::npos || ++signs_[sign] <= limits_.listed)) {
        continue;
      }
      endList();
      const std::size_t last = line.find_last_of(",; \t", at);
      return line.substr(0, last == std::string_view::npos ? 0 : last);
    }
    return line;
  }

  void headerLine(std::string_view whole) {
    const std::size_t room = limits_.headerBytes - std::min(limits_.headerBytes, headerBytes_);
    headerBytes_ += whole.size();
    if (whole.size() > room) {
      note(fmt::format("a header longer than {} bytes", limits_.headerBytes));
      whole = whole.substr(0, room);
      if (whole.empty()) return;
    }
    const bool continues = whole[0] == ' ' || whole[0] == '\t';
    if (!continues) beginField(whole);
    if (field_ == Field::kNone) return;
    const Field field = field_;
    std::string clean(inList_ ? listedIn(whole) : whole);
    if (clean.empty()) return;
    std::replace(clean.begin(), clean.end(), '\0', ' ');
    if (clean.back() != '\n') clean.push_back('\n');
    if (isTop_) out_.headers.append(clean);
    if (field == Field::kOther) return;
    structureBytes_ += clean.size();
    if (structureBytes_ > limits_.structureBytes) {
      return note(fmt::format("more than {} bytes of Content fields", limits_.structureBytes));
    }
    out_.mime.append(clean);
    if (field == Field::kContentType) contentType(whole);
  }

  static Field fieldOf(std::string_view name) {
    if (name.empty()) return Field::kNone;
    if (startsIgnoringCase(name, "content-type")) return Field::kContentType;
    const bool isContent = startsIgnoringCase(name, "content-disposition") ||
                           startsIgnoringCase(name, "content-transfer-encoding");
    return isContent ? Field::kContent : Field::kOther;
  }

  void contentType(std::string_view text) {
    if (findIgnoringCase(text, "message/") != std::string_view::npos) isMessage_ = true;
    constexpr std::string_view kWord = "boundary";
    const std::size_t found = findIgnoringCase(text, kWord);
    if (found == std::string_view::npos) return;
    std::string_view rest = text.substr(found + kWord.size());
    const std::size_t equals = rest.find('=');
    if (equals == std::string_view::npos) {
      push({{}, true});
      return;
    }
    const bool plain = trimRight(rest.substr(0, equals)).empty();
    rest.remove_prefix(equals + 1);
    while (!rest.empty() && (rest[0] == ' ' || rest[0] == '\t')) rest.remove_prefix(1);
    const bool quoted = !rest.empty() && rest[0] == '"';
    if (quoted) rest.remove_prefix(1);
    const std::string_view value =
        trimRight(rest.substr(0, rest.find_first_of(quoted ? "\"\r\n" : "; \t\r\n(")));
    const bool odd = !plain || value.empty() || value.find('\\') != std::string_view::npos;
    push(odd ? Level{{}, true} : Level{value, false});
  }

  void note(std::string reason) {
    if (std::find(out_.reasons.begin(), out_.reasons.end(), reason) == out_.reasons.end()) {
      out_.reasons.push_back(std::move(reason));
    }
  }

  void cut(std::string reason) {
    note(std::move(reason));
    cut_ = true;
  }

  const std::string_view bytes_;
  const ParseLimits& limits_;
  LimitedMessage out_;
  std::vector<Level> levels_;
  std::size_t headerBytes_ = 0;
  std::size_t fields_ = 0;
  std::size_t lists_ = 0;
  std::size_t listedBytes_ = 0;
  std::array<std::size_t, 4> signs_{};
  std::size_t structureBytes_ = 0;
  std::size_t compared_ = 0;
  std::size_t parts_ = 0;
  Field field_ = Field::kNone;
  bool isTop_ = true;
  bool inHeader_ = true;
  bool isMessage_ = false;
  bool inList_ = false;
  bool cut_ = false;
};

}  // namespace

LimitedMessage limitMessage(std::string_view bytes, const ParseLimits& limits) {
  return Scan(bytes, limits).run();
}

}  // namespace thmp
