// SPDX-License-Identifier: Apache-2.0
//
// Any bytes as an XML property list. What the reader takes survives two roads unchanged: through
// the binary writer and reader, and through a plain XML writer that stands here and knows nothing
// of the reader.
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <string>

#include "base/plist.h"
#include "tests/fuzz/fuzzing.h"

namespace thmp::fuzz {
namespace {

std::string escaped(std::string_view text) {
  std::string result;
  for (const char byte : text) {
    switch (byte) {
      case '<':
        result += "&lt;";
        break;
      case '>':
        result += "&gt;";
        break;
      case '&':
        result += "&amp;";
        break;
      case '\r':  // which a parser would otherwise read as a line feed
        result += "&#13;";
        break;
      default:
        result += byte;
    }
  }
  return result;
}

std::string base64(std::string_view bytes) {
  static constexpr std::string_view kDigits =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string result;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    std::uint32_t group = 0;
    for (std::size_t k = 0; k < 3; ++k) {
      group = group << 8 | (i + k < bytes.size() ? static_cast<unsigned char>(bytes[i + k]) : 0U);
    }
    for (std::size_t k = 0; k < 4; ++k) {
      result += i + k > bytes.size() ? '=' : kDigits[group >> (18 - 6 * k) & 63];
    }
  }
  return result;
}

template <typename Number>
std::string decimal(Number number) {
  std::array<char, 64> buffer;
  const auto end = std::to_chars(buffer.data(), buffer.data() + buffer.size(), number).ptr;
  return std::string(buffer.data(), end);
}

std::string element(std::string_view name, std::string_view content) {
  const std::string tag(name);
  return "<" + tag + ">" + std::string(content) + "</" + tag + ">";
}

std::string scalarXml(const Value& value) {
  switch (value.kind()) {
    case Value::Kind::kBoolean:
      return *value.asBoolean() ? "<true/>" : "<false/>";
    case Value::Kind::kInteger:
      return element("integer", decimal(*value.asInteger()));
    case Value::Kind::kUnsigned:
      return element("integer", decimal(*value.asUnsigned()));
    case Value::Kind::kReal:
      return element("real", decimal(*value.asReal()));
    case Value::Kind::kDate:
      return element("date", value.asDate()->iso8601());
    case Value::Kind::kData:
      return element("data", base64(*value.asData()));
    case Value::Kind::kText:
      return element("string", escaped(*value.asText()));
    default:
      THMP_FUZZ_CHECK(false);
      return "";
  }
}

// The limit on depth lets this go by recursion.
void appendXml(const Value& value, std::string& xml) {
  if (const auto array = value.asArray()) {
    xml += "<array>";
    for (const Value& member : *array) appendXml(member, xml);
    xml += "</array>";
  } else if (const auto dictionary = value.asDictionary()) {
    xml += "<dict>";
    for (const Dictionary::Entry& entry : *dictionary) {
      xml += element("key", escaped(entry.key));
      appendXml(entry.value, xml);
    }
    xml += "</dict>";
  } else {
    xml += scalarXml(value);
  }
}

void parseOnce(std::string_view bytes) { readXmlPropertyList(bytes, kMessageLimits); }

}  // namespace

const Bounds kBounds{1, 64 * kMiB, parseOnce};

void runInput(std::string_view bytes) {
  Error error;
  const auto value = readXmlPropertyList(bytes, kMessageLimits, &error);
  THMP_FUZZ_CHECK(value.has_value() != error.isSet());
  if (!value) return;

  const auto written = writeBinaryPropertyList(*value);
  THMP_FUZZ_CHECK(written.has_value());
  const auto fromBinary = readBinaryPropertyList(*written, kBatchLimits);
  THMP_FUZZ_CHECK(fromBinary && Value::identical(*fromBinary, *value));

  std::string xml = "<plist version=\"1.0\">";
  appendXml(*value, xml);
  xml += "</plist>";
  const auto fromXml = readXmlPropertyList(xml, kBatchLimits);
  THMP_FUZZ_CHECK(fromXml && Value::identical(*fromXml, *value));
}

}  // namespace thmp::fuzz
