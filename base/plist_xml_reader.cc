// SPDX-License-Identifier: Apache-2.0
//
// Reads the XML encoding through Expat. A DOCTYPE may name the usual outer definition, which is not
// looked at, but may declare nothing: only the five predefined entities and character references
// exist, no other file is opened, and nothing grows beyond the bytes that came in.
#include <expat.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/plist.h"

namespace thmp {
namespace {

using Entry = Dictionary::Entry;

constexpr int kLongestTag = 1 << 16;
constexpr std::size_t kMostAttributes = 1'000;
constexpr std::string_view kSpace = " \t\r\n";

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kSpace);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kSpace) - first + 1);
}

/// Decimal, or hexadecimal behind "0x"; a sign may stand in front.
std::optional<Value> parseInteger(std::string_view text) {
  text = trimmed(text);
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  int base = 10;
  if (text.starts_with("0x") || text.starts_with("0X")) {
    base = 16;
    text.remove_prefix(2);
  }
  std::uint64_t magnitude = 0;
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, magnitude, base);
  if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
  if (!negative) return Value(magnitude);
  if (magnitude > std::uint64_t{1} << 63) return std::nullopt;
  return Value(static_cast<std::int64_t>(0 - magnitude));
}

/// As C writes reals, among them "inf", "infinity" and "nan" in any case.
std::optional<Value> parseReal(std::string_view text) {
  text = trimmed(text);
  if (text.starts_with('+')) {
    text.remove_prefix(1);
    if (text.starts_with('-')) return std::nullopt;
  }
  if (text.find('(') != std::string_view::npos) return std::nullopt;  // "nan(...)"
  double real = 0;
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, real);
  if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
  return Value(real);
}

/// The six bits of a base64 digit, or -1.
int base64Digit(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  return c == '/' ? 63 : -1;
}

/// White space may stand anywhere; padding is required.
std::optional<Value> parseData(std::string_view text) {
  Data data;
  data.bytes.reserve(text.size() / 4 * 3);
  std::uint32_t bits = 0;
  int digits = 0;
  int padding = 0;
  for (char c : text) {
    if (kSpace.find(c) != std::string_view::npos) continue;
    if (c == '=') {
      ++padding;
      continue;
    }
    const int digit = base64Digit(c);
    if (digit < 0 || padding > 0) return std::nullopt;
    bits = bits << 6 | static_cast<std::uint32_t>(digit);
    if (++digits % 4 != 1) {
      const int unused = 6 - 2 * ((digits - 1) % 4);
      data.bytes += static_cast<char>(bits >> unused & 0xFF);
    }
  }
  const int wanted = (4 - digits % 4) % 4;
  if (wanted == 3 || padding != wanted) return std::nullopt;
  return Value(data);
}

std::optional<Value> parseDate(std::string_view text) {
  const std::optional<Date> date = Date::fromIso8601(trimmed(text));
  if (!date) return std::nullopt;
  return Value(*date);
}

class XmlReader {
 public:
  XmlReader(const PropertyListLimits& limits, Error* error) : limits_(limits), error_(error) {}

  std::optional<Value> read(std::string_view bytes);

 private:
  enum class Element : std::uint8_t {
    kArray,
    kDictionary,
    kPlist,
    kKey,
    kText,
    kInteger,
    kReal,
    kTrue,
    kFalse,
    kDate,
    kData,
    kUnknown,
  };

  /// An array or dictionary that is still open.
  struct Container {
    Element element;
    std::vector<Value> values;
    std::vector<Entry> entries;
    std::optional<Text> key;  // waits for its value
  };

  static Element elementNamed(std::string_view name);

  bool failWith(PropertyListError code, std::string_view what);
  bool damaged(std::string_view what) { return failWith(PropertyListError::kDamaged, what); }

  XML_Status parse(std::string_view bytes);
  bool countAttributes(const XML_Char** attributes);
  bool begin(Element element);
  bool end();
  bool finishScalar();
  bool addValue(Value value);
  bool addCharacters(std::string_view text);
  Text shared(std::string_view text);

  /// Runs a handler's part; nothing that it throws passes through Expat.
  template <typename Step>
  static void guarded(void* self, Step step) noexcept {
    auto& reader = *static_cast<XmlReader*>(self);
    if (reader.stopped_) return;
    try {
      if (step(reader)) return;
    } catch (...) {
      reader.thrown_ = std::current_exception();
    }
    reader.stopped_ = true;
    XML_StopParser(reader.parser_.get(), XML_FALSE);
  }
  static void onStart(void* self, const XML_Char* name, const XML_Char** attributes);
  static void onEnd(void* self, const XML_Char* name);
  static void onCharacters(void* self, const XML_Char* text, int length);
  static void onEntity(void* self, const XML_Char* name, int isParameter, const XML_Char* value,
                       int valueLength, const XML_Char* base, const XML_Char* systemId,
                       const XML_Char* publicId, const XML_Char* notation);
  static void onAttributeDeclaration(void* self, const XML_Char* element, const XML_Char* attribute,
                                     const XML_Char* type, const XML_Char* fallback,
                                     int isRequired);
  static void onSkippedEntity(void* self, const XML_Char* name, int isParameter);

  PropertyListLimits limits_;
  Error* error_;
  std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> parser_{nullptr, XML_ParserFree};
  bool stopped_ = false;
  std::exception_ptr thrown_;

  bool inPlist_ = false;
  std::optional<Element> scalar_;  // the open element that holds characters
  std::string characters_;
  std::vector<Container> containers_;
  std::optional<Value> root_;
  std::size_t nodes_ = 0;
  std::size_t attributes_ = 0;
  std::array<Text, 256> recentKeys_;
};

XmlReader::Element XmlReader::elementNamed(std::string_view name) {
  static constexpr std::pair<std::string_view, Element> kElements[] = {
      {"string", Element::kText},     {"key", Element::kKey},     {"dict", Element::kDictionary},
      {"array", Element::kArray},     {"true", Element::kTrue},   {"false", Element::kFalse},
      {"integer", Element::kInteger}, {"real", Element::kReal},   {"date", Element::kDate},
      {"data", Element::kData},       {"plist", Element::kPlist},
  };
  for (const auto& [known, element] : kElements) {
    if (known == name) return element;
  }
  return Element::kUnknown;
}

bool XmlReader::failWith(PropertyListError code, std::string_view what) {
  return fail(error_,
              Error{std::string(kPropertyListErrorDomain), static_cast<std::int64_t>(code),
                    "XML property list: " + std::string(what) + " in line " +
                        std::to_string(XML_GetCurrentLineNumber(parser_.get())) + ", column " +
                        std::to_string(XML_GetCurrentColumnNumber(parser_.get()) + 1),
                    nullptr});
}

std::optional<Value> XmlReader::read(std::string_view bytes) {
  parser_.reset(XML_ParserCreate(nullptr));
  if (parser_ == nullptr) throw std::bad_alloc();
  XML_Parser parser = parser_.get();
  if (bytes.size() > limits_.maxBytes || bytes.size() > INT32_MAX) {
    failWith(PropertyListError::kTooLarge, "too many bytes");
    return std::nullopt;
  }
  XML_SetUserData(parser, this);
  XML_SetElementHandler(parser, onStart, onEnd);
  XML_SetCharacterDataHandler(parser, onCharacters);
  XML_SetEntityDeclHandler(parser, onEntity);
  XML_SetAttlistDeclHandler(parser, onAttributeDeclaration);
  XML_SetSkippedEntityHandler(parser, onSkippedEntity);
  const XML_Status status = parse(bytes);
  if (thrown_ != nullptr) std::rethrow_exception(thrown_);
  if (stopped_) return std::nullopt;
  if (status != XML_STATUS_OK) {
    damaged(XML_ErrorString(XML_GetErrorCode(parser)));
    return std::nullopt;
  }
  if (!root_) damaged("no value");
  return std::move(root_);
}

/// Piece by piece, to see a tag that does not end.
XML_Status XmlReader::parse(std::string_view bytes) {
  XML_Parser parser = parser_.get();
  std::size_t fed = 0;
  while (bytes.size() - fed > kLongestTag) {
    const XML_Status status = XML_Parse(parser, bytes.data() + fed, kLongestTag, /*isFinal=*/0);
    fed += kLongestTag;
    if (status != XML_STATUS_OK) return status;
    const auto reached =
        static_cast<std::size_t>(std::max<XML_Index>(0, XML_GetCurrentByteIndex(parser)));
    if (fed - std::min(fed, reached) <= kLongestTag) continue;
    damaged("a tag or comment that is too long");
    stopped_ = true;
    return XML_STATUS_ERROR;
  }
  return XML_Parse(parser, bytes.data() + fed, static_cast<int>(bytes.size() - fed),
                   /*isFinal=*/1);
}

bool XmlReader::begin(Element element) {
  if (scalar_) return damaged("an element inside a text or number");
  switch (element) {
    case Element::kUnknown:
      return damaged("an unknown element");
    case Element::kPlist:
      if (inPlist_ || !containers_.empty()) return damaged("a plist element inside another");
      inPlist_ = true;
      return true;
    case Element::kKey:
      if (containers_.empty() || containers_.back().element != Element::kDictionary) {
        return damaged("a key outside a dictionary");
      }
      if (containers_.back().key) return damaged("a key without a value");
      break;
    default:
      if (containers_.empty() && root_) return damaged("a second value");
      if (!containers_.empty() && containers_.back().element == Element::kDictionary &&
          !containers_.back().key) {
        return damaged("a value without a key");
      }
  }
  if (containers_.size() >= limits_.maxDepth) {
    return failWith(PropertyListError::kTooLarge, "values nested too deeply");
  }
  if (++nodes_ > limits_.maxNodes) {
    return failWith(PropertyListError::kTooLarge, "too many values");
  }
  if (element == Element::kArray || element == Element::kDictionary) {
    containers_.push_back(Container{element, {}, {}, std::nullopt});
  } else {
    scalar_ = element;
    characters_.clear();
  }
  return true;
}

/// None says anything here but the version of the plist element, and each costs its share.
bool XmlReader::countAttributes(const XML_Char** attributes) {
  for (; *attributes != nullptr; attributes += 2) {
    if (++attributes_ > kMostAttributes) return damaged("too many attributes");
  }
  return true;
}

bool XmlReader::end() {
  if (scalar_) return finishScalar();
  if (containers_.empty()) return true;  // the plist element itself
  Container container = std::move(containers_.back());
  if (container.key) return damaged("a key without a value");
  containers_.pop_back();
  if (container.element == Element::kArray) return addValue(Array(std::move(container.values)));
  return addValue(Dictionary(std::move(container.entries)));
}

bool XmlReader::finishScalar() {
  const Element element = *scalar_;
  scalar_.reset();
  std::optional<Value> value;
  switch (element) {
    case Element::kKey:
      containers_.back().key = shared(characters_);
      return true;
    case Element::kTrue:
    case Element::kFalse:
      if (trimmed(characters_).empty()) value = element == Element::kTrue;
      break;
    case Element::kInteger:
      value = parseInteger(characters_);
      break;
    case Element::kReal:
      value = parseReal(characters_);
      break;
    case Element::kDate:
      value = parseDate(characters_);
      break;
    case Element::kData:
      value = parseData(characters_);
      break;
    default:
      value = Text(characters_);
  }
  if (!value) return damaged("an integer, real, boolean, date or data that cannot be read");
  return addValue(std::move(*value));
}

bool XmlReader::addValue(Value value) {
  if (containers_.empty()) {
    root_ = std::move(value);
    return true;
  }
  Container& container = containers_.back();
  if (container.element == Element::kArray) {
    container.values.push_back(std::move(value));
  } else {
    container.entries.push_back(Entry{std::move(*container.key), std::move(value)});
    container.key.reset();
  }
  return true;
}

bool XmlReader::addCharacters(std::string_view text) {
  if (scalar_) {
    characters_ += text;
    return true;
  }
  return trimmed(text).empty() || damaged("text outside an element that holds text");
}

/// The text of an equal key before, if that was not long ago: the keys of rows come again and
/// again.
Text XmlReader::shared(std::string_view text) {
  Text& recent = recentKeys_[std::hash<std::string_view>()(text) % recentKeys_.size()];
  if (!(recent == text)) recent = Text(text);
  return recent;
}

void XmlReader::onStart(void* self, const XML_Char* name, const XML_Char** attributes) {
  guarded(self, [&](XmlReader& reader) {
    return reader.countAttributes(attributes) && reader.begin(elementNamed(name));
  });
}

void XmlReader::onEnd(void* self, const XML_Char* /*name*/) {
  guarded(self, [](XmlReader& reader) { return reader.end(); });
}

void XmlReader::onCharacters(void* self, const XML_Char* text, int length) {
  guarded(self, [&](XmlReader& reader) {
    return reader.addCharacters({text, static_cast<std::size_t>(length)});
  });
}

void XmlReader::onEntity(void* self, const XML_Char*, int, const XML_Char*, int, const XML_Char*,
                         const XML_Char*, const XML_Char*, const XML_Char*) {
  guarded(self, [](XmlReader& reader) { return reader.damaged("an entity declaration"); });
}

// A default attribute would be handed out anew for each element of its name.
void XmlReader::onAttributeDeclaration(void* self, const XML_Char*, const XML_Char*,
                                       const XML_Char*, const XML_Char*, int) {
  guarded(self, [](XmlReader& reader) { return reader.damaged("an attribute declaration"); });
}

void XmlReader::onSkippedEntity(void* self, const XML_Char*, int) {
  guarded(self, [](XmlReader& reader) { return reader.damaged("an undeclared entity"); });
}

}  // namespace

std::optional<Value> readXmlPropertyList(std::string_view bytes, const PropertyListLimits& limits,
                                         Error* error) {
  return XmlReader(limits, error).read(bytes);
}

}  // namespace thmp
