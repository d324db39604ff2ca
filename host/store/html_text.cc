// SPDX-License-Identifier: Apache-2.0
#include "host/store/html_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>

#include "host/store/header_text.h"

namespace thmp {

namespace {

struct Entity {
  std::string_view name;
  char32_t character;
};

// In the order of their names.
constexpr std::array kEntities = {
    Entity{"AElig", 0xC6},    Entity{"Aacute", 0xC1},   Entity{"Acirc", 0xC2},
    Entity{"Agrave", 0xC0},   Entity{"Aring", 0xC5},    Entity{"Atilde", 0xC3},
    Entity{"Auml", 0xC4},     Entity{"Ccedil", 0xC7},   Entity{"ETH", 0xD0},
    Entity{"Eacute", 0xC9},   Entity{"Ecirc", 0xCA},    Entity{"Egrave", 0xC8},
    Entity{"Euml", 0xCB},     Entity{"Iacute", 0xCD},   Entity{"Icirc", 0xCE},
    Entity{"Igrave", 0xCC},   Entity{"Iuml", 0xCF},     Entity{"Ntilde", 0xD1},
    Entity{"OElig", 0x152},   Entity{"Oacute", 0xD3},   Entity{"Ocirc", 0xD4},
    Entity{"Ograve", 0xD2},   Entity{"Oslash", 0xD8},   Entity{"Otilde", 0xD5},
    Entity{"Ouml", 0xD6},     Entity{"Scaron", 0x160},  Entity{"THORN", 0xDE},
    Entity{"Uacute", 0xDA},   Entity{"Ucirc", 0xDB},    Entity{"Ugrave", 0xD9},
    Entity{"Uuml", 0xDC},     Entity{"Yacute", 0xDD},   Entity{"Yuml", 0x178},
    Entity{"aacute", 0xE1},   Entity{"acirc", 0xE2},    Entity{"acute", 0xB4},
    Entity{"aelig", 0xE6},    Entity{"agrave", 0xE0},   Entity{"amp", '&'},
    Entity{"apos", '\''},     Entity{"aring", 0xE5},    Entity{"atilde", 0xE3},
    Entity{"auml", 0xE4},     Entity{"bdquo", 0x201E},  Entity{"brvbar", 0xA6},
    Entity{"bull", 0x2022},   Entity{"ccedil", 0xE7},   Entity{"cedil", 0xB8},
    Entity{"cent", 0xA2},     Entity{"copy", 0xA9},     Entity{"curren", 0xA4},
    Entity{"dagger", 0x2020}, Entity{"deg", 0xB0},      Entity{"divide", 0xF7},
    Entity{"eacute", 0xE9},   Entity{"ecirc", 0xEA},    Entity{"egrave", 0xE8},
    Entity{"emsp", 0x2003},   Entity{"ensp", 0x2002},   Entity{"eth", 0xF0},
    Entity{"euml", 0xEB},     Entity{"euro", 0x20AC},   Entity{"frac12", 0xBD},
    Entity{"frac14", 0xBC},   Entity{"frac34", 0xBE},   Entity{"gt", '>'},
    Entity{"hellip", 0x2026}, Entity{"iacute", 0xED},   Entity{"icirc", 0xEE},
    Entity{"iexcl", 0xA1},    Entity{"igrave", 0xEC},   Entity{"iquest", 0xBF},
    Entity{"iuml", 0xEF},     Entity{"laquo", 0xAB},    Entity{"ldquo", 0x201C},
    Entity{"lsaquo", 0x2039}, Entity{"lsquo", 0x2018},  Entity{"lt", '<'},
    Entity{"macr", 0xAF},     Entity{"mdash", 0x2014},  Entity{"micro", 0xB5},
    Entity{"middot", 0xB7},   Entity{"nbsp", 0xA0},     Entity{"ndash", 0x2013},
    Entity{"not", 0xAC},      Entity{"ntilde", 0xF1},   Entity{"oacute", 0xF3},
    Entity{"ocirc", 0xF4},    Entity{"oelig", 0x153},   Entity{"ograve", 0xF2},
    Entity{"ordf", 0xAA},     Entity{"ordm", 0xBA},     Entity{"oslash", 0xF8},
    Entity{"otilde", 0xF5},   Entity{"ouml", 0xF6},     Entity{"para", 0xB6},
    Entity{"plusmn", 0xB1},   Entity{"pound", 0xA3},    Entity{"quot", '"'},
    Entity{"raquo", 0xBB},    Entity{"rdquo", 0x201D},  Entity{"reg", 0xAE},
    Entity{"rsaquo", 0x203A}, Entity{"rsquo", 0x2019},  Entity{"sbquo", 0x201A},
    Entity{"scaron", 0x161},  Entity{"sect", 0xA7},     Entity{"shy", 0xAD},
    Entity{"sup1", 0xB9},     Entity{"sup2", 0xB2},     Entity{"sup3", 0xB3},
    Entity{"szlig", 0xDF},    Entity{"thinsp", 0x2009}, Entity{"thorn", 0xFE},
    Entity{"times", 0xD7},    Entity{"trade", 0x2122},  Entity{"uacute", 0xFA},
    Entity{"ucirc", 0xFB},    Entity{"ugrave", 0xF9},   Entity{"uml", 0xA8},
    Entity{"uuml", 0xFC},     Entity{"yacute", 0xFD},   Entity{"yen", 0xA5},
    Entity{"yuml", 0xFF},     Entity{"zwj", 0x200D},    Entity{"zwnj", 0x200C}};
static_assert(std::is_sorted(kEntities.begin(), kEntities.end(),
                             [](const Entity& a, const Entity& b) { return a.name < b.name; }));

// Tags that may stand inside a word.
constexpr std::array<std::string_view, 21> kInlineTags = {
    "a", "abbr",  "b",    "big",    "code",   "del", "em",  "font", "i", "ins", "mark",
    "s", "small", "span", "strike", "strong", "sub", "sup", "tt",   "u", "wbr"};

void appendUtf8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out.push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (c >> 6)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (c >> 12)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (c >> 18)));
    out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  }
}

// A numbered character; those from 128 to 159 are meant in Windows-1252.
bool appendNumbered(std::string& out, std::string_view digits) {
  int base = 10;
  if (!digits.empty() && (digits[0] == 'x' || digits[0] == 'X')) {
    base = 16;
    digits.remove_prefix(1);
  }
  std::uint32_t code = 0;
  const auto [end, error] =
      std::from_chars(digits.data(), digits.data() + digits.size(), code, base);
  if (error != std::errc() || end != digits.data() + digits.size()) return false;
  if (code >= 0x80 && code < 0xA0) {
    out.append(toUtf8(std::string(1, static_cast<char>(code))));
  } else if (code == 0 || code > 0x10FFFF || (code >= 0xD800 && code < 0xE000)) {
    appendUtf8(out, 0xFFFD);
  } else {
    appendUtf8(out, code);
  }
  return true;
}

class Reader {
 public:
  explicit Reader(std::string_view html) : html_(html) { out_.reserve(html.size() / 2); }

  std::string read() {
    while (at_ < html_.size()) {
      const char c = html_[at_];
      if (c == '<') {
        markup();
      } else if (c == '&') {
        entity();
      } else {
        out_.push_back(c);
        ++at_;
      }
    }
    return std::move(out_);
  }

 private:
  void markup() {
    const std::string_view rest = html_.substr(at_);
    if (rest.substr(0, 4) == "<!--") {
      skipTo(rest.find("-->", 4), 3);
      return;
    }
    const char next = rest.size() > 1 ? rest[1] : ' ';
    const bool letter = (next >= 'a' && next <= 'z') || (next >= 'A' && next <= 'Z');
    if (!letter && next != '/' && next != '!' && next != '?') {
      out_.push_back('<');
      ++at_;
      return;
    }
    const std::string_view name = tagName(rest.substr(next == '/' ? 2 : 1));
    const bool opens = next != '/';
    skipTag();
    if (opens && (equalsIgnoringCase(name, "script") || equalsIgnoringCase(name, "style"))) {
      skipElement(name);
    }
    const bool insideWord =
        std::any_of(kInlineTags.begin(), kInlineTags.end(),
                    [&](std::string_view tag) { return equalsIgnoringCase(tag, name); });
    if (!insideWord) out_.push_back(' ');
  }

  static std::string_view tagName(std::string_view text) {
    std::size_t length = 0;
    while (length < text.size() && text[length] != '>' && text[length] != '/' &&
           static_cast<unsigned char>(text[length]) > ' ') {
      ++length;
    }
    return text.substr(0, length);
  }

  // To the tag's end; a ">" inside a quoted value is no end.
  void skipTag() {
    char quote = 0;
    for (std::size_t i = at_ + 1; i < html_.size(); ++i) {
      const char c = html_[i];
      if (quote != 0) {
        if (c == quote) quote = 0;
      } else if (c == '>') {
        at_ = i + 1;
        return;
      } else if ((c == '"' || c == '\'') && html_[i - 1] == '=') {
        quote = c;
      }
    }
    skipTo(html_.substr(at_).find('>'), 1);
  }

  void skipElement(std::string_view name) {
    std::size_t i = at_;
    while ((i = html_.find("</", i)) != std::string_view::npos) {
      if (startsIgnoringCase(html_.substr(i + 2), name)) {
        at_ = i;
        skipTag();
        return;
      }
      i += 2;
    }
    at_ = html_.size();
  }

  void skipTo(std::size_t found, std::size_t length) {
    at_ = found == std::string_view::npos ? html_.size() : at_ + found + length;
  }

  void entity() {
    constexpr std::size_t kLongest = 10;
    const std::string_view rest = html_.substr(at_ + 1, kLongest);
    std::size_t length = 0;
    while (length < rest.size() &&
           (rest[length] == '#' || (rest[length] >= '0' && rest[length] <= '9') ||
            (rest[length] >= 'a' && rest[length] <= 'z') ||
            (rest[length] >= 'A' && rest[length] <= 'Z'))) {
      ++length;
    }
    if (decode(rest.substr(0, length))) {
      at_ += 1 + length;
      if (at_ < html_.size() && html_[at_] == ';') ++at_;
    } else {
      out_.push_back('&');
      ++at_;
    }
  }

  bool decode(std::string_view name) {
    if (name.size() > 1 && name[0] == '#') return appendNumbered(out_, name.substr(1));
    const auto found = std::lower_bound(
        kEntities.begin(), kEntities.end(), name,
        [](const Entity& entry, std::string_view wanted) { return entry.name < wanted; });
    if (found == kEntities.end() || found->name != name) return false;
    appendUtf8(out_, found->character);
    return true;
  }

  const std::string_view html_;
  std::string out_;
  std::size_t at_ = 0;
};

}  // namespace

std::string textOfHtml(std::string_view html) { return Reader(html).read(); }

}  // namespace thmp
