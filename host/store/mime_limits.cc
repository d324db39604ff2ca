// SPDX-License-Identifier: Apache-2.0
#include "host/store/mime_limits.h"

#include <fmt/format.h>

#include <algorithm>
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
  Scan(std::string_view bytes, const ParseLimits& limits, LimitedMessage& out)
      : bytes_(bytes), limits_(limits), out_(out) {}

  void run() {
    std::size_t at = bytes_.substr(0, 5) == "From " ? lineEnd(0) : 0;
    start_ = at;
    while (at < bytes_.size() && !cut_) {
      const std::size_t end = lineEnd(at);
      line(at, bytes_.substr(at, end - at));
      if (cut_) break;
      at = end;
    }
    finish(at);
  }

 private:
  struct Level {
    std::string_view boundary;
    // The boundary is spelled in pieces: any line that looks like one may be it.
    bool anyLine = false;
  };

  std::size_t lineEnd(std::size_t at) const {
    const std::size_t newline = bytes_.find('\n', at);
    return newline == std::string_view::npos ? bytes_.size() : newline + 1;
  }

  void line(std::size_t at, std::string_view whole) {
    std::string_view text = whole;
    if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    if (text.substr(0, 2) == "--" && !levels_.empty() && boundaryLine(trimRight(text))) {
      keep(at, whole);
      return;
    }
    if (inHeader_) {
      headerLine(at, whole, text);
    } else {
      keep(at, whole);
    }
  }

  bool boundaryLine(std::string_view text) {
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
      if (closes) {
        inHeader_ = false;
      } else if (++parts_ > limits_.parts) {
        cut(fmt::format("more than {} parts", limits_.parts));
      } else {
        beginHeader();
      }
      return true;
    }
    return false;
  }

  void beginHeader() {
    inHeader_ = true;
    headerBytes_ = 0;
    inContentType_ = false;
    isMessage_ = false;
  }

  void push(Level level) {
    levels_.push_back(level);
    if (levels_.size() > limits_.depth) {
      cut(fmt::format("parts nested more than {} deep", limits_.depth));
    }
  }

  void headerLine(std::size_t at, std::string_view whole, std::string_view text) {
    if (text.empty() || text == "\r") {
      keep(at, whole);
      inHeader_ = false;
      if (isMessage_) {
        push({});
        beginHeader();
      }
      return;
    }
    const std::size_t room = limits_.headerBytes - std::min(limits_.headerBytes, headerBytes_);
    headerBytes_ += whole.size();
    if (whole.size() > room) {
      replace(at, room == 0 ? std::string() : std::string(whole.substr(0, room)) + "\n");
      note(fmt::format("a header longer than {} bytes", limits_.headerBytes));
      text = text.substr(0, std::min(room, text.size()));
    } else if (text.find('\0') != std::string_view::npos) {
      std::string without(whole);
      std::replace(without.begin(), without.end(), '\0', ' ');
      replace(at, without);
    } else {
      keep(at, whole);
    }
    contentType(text);
  }

  void contentType(std::string_view text) {
    const bool continues = !text.empty() && (text[0] == ' ' || text[0] == '\t');
    if (!continues) inContentType_ = startsIgnoringCase(text, "content-type");
    if (!inContentType_) return;
    if (findIgnoringCase(text, "message/") != std::string_view::npos) isMessage_ = true;
    boundaryParameter(text);
  }

  void boundaryParameter(std::string_view text) {
    constexpr std::string_view kWord = "boundary";
    const std::size_t found = findIgnoringCase(text, kWord);
    if (found == std::string_view::npos) return;
    std::string_view rest = text.substr(found + kWord.size());
    const std::size_t equals = rest.find('=');
    if (equals == std::string_view::npos) return;
    const bool plain = trimRight(rest.substr(0, equals)).empty();
    rest.remove_prefix(equals + 1);
    while (!rest.empty() && (rest[0] == ' ' || rest[0] == '\t')) rest.remove_prefix(1);
    const bool quoted = !rest.empty() && rest[0] == '"';
    if (quoted) rest.remove_prefix(1);
    const std::string_view value =
        trimRight(rest.substr(0, rest.find_first_of(quoted ? "\"" : "; \t\r(")));
    const bool escaped = value.find('\\') != std::string_view::npos;
    if (!plain || escaped || value.empty()) {
      push({{}, true});
    } else {
      push({value, false});
    }
  }

  void keep(std::size_t, std::string_view whole) {
    if (copying_) out_.storage.append(whole);
  }

  void replace(std::size_t at, std::string_view line) {
    if (!copying_) {
      copying_ = true;
      out_.storage.assign(bytes_.substr(start_, at - start_));
    }
    out_.storage.append(line);
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

  void finish(std::size_t end) {
    out_.bytes = copying_ ? std::string_view(out_.storage) : bytes_.substr(start_, end - start_);
  }

  const std::string_view bytes_;
  const ParseLimits& limits_;
  LimitedMessage& out_;
  std::vector<Level> levels_;
  std::size_t start_ = 0;
  std::size_t headerBytes_ = 0;
  std::size_t parts_ = 0;
  bool inHeader_ = true;
  bool inContentType_ = false;
  bool isMessage_ = false;
  bool copying_ = false;
  bool cut_ = false;
};

}  // namespace

void limitMessage(std::string_view bytes, const ParseLimits& limits, LimitedMessage& out) {
  Scan(bytes, limits, out).run();
}

}  // namespace thmp
