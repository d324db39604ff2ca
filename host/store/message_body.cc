// SPDX-License-Identifier: Apache-2.0
#include "host/store/message_body.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <unordered_map>

#include "host/store/encoded_words.h"
#include "host/store/gmime_use.h"
#include "host/store/header_text.h"
#include "host/store/html_text.h"

namespace thmp {

namespace {

constexpr std::string_view kNamelessAttachment = "Mail Attachment";

struct TypeRow {
  std::string_view mime;  // a subtype of "*" takes the whole type
  std::string_view type;
  std::string_view kind;
};

constexpr std::array<TypeRow, 14> kTypes = {{
    {"application/pdf", "com.adobe.pdf", "pdf"},
    {"image/jpeg", "public.jpeg", "image"},
    {"image/png", "public.png", "image"},
    {"image/gif", "com.compuserve.gif", "image"},
    {"image/*", "public.image", "image"},
    {"audio/*", "public.audio", "audio"},
    {"video/*", "public.movie", "movie"},
    {"text/plain", "public.plain-text", "text"},
    {"text/html", "public.html", "text"},
    {"text/calendar", "com.apple.ical.ics", "calendar"},
    {"text/vcard", "public.vcard", "contact"},
    {"text/x-vcard", "public.vcard", "contact"},
    {"application/zip", "public.zip-archive", "archive"},
    {"message/rfc822", "com.apple.mail.email", "message"},
}};

TypeRow typeRow(std::string_view mime) {
  for (const TypeRow& row : kTypes) {
    if (equalsIgnoringCase(row.mime, mime)) return row;
    if (row.mime.back() == '*' &&
        startsIgnoringCase(mime, row.mime.substr(0, row.mime.size() - 1))) {
      return row;
    }
  }
  return {{}, "public.data", "other"};
}

GMimeContentType* contentType(GMimeObject* part) { return g_mime_object_get_content_type(part); }

bool isType(GMimeObject* part, const char* type, const char* subtype) {
  GMimeContentType* content = contentType(part);
  return content != nullptr && g_mime_content_type_is_type(content, type, subtype) != FALSE;
}

const char* text(const char* found) { return found == nullptr ? "" : found; }

// A parameter of the part's Content-Disposition or Content-Type. The MIME library stumbles over
// encoded words that are padded each for itself, so it gets the field without them.
std::string parameter(GMimeObject* part, const char* field, const char* name) {
  const bool isType = equalsIgnoringCase(field, "Content-Type");
  GMimeHeader* header = g_mime_header_list_get_header(g_mime_object_get_header_list(part), field);
  const std::string_view raw = header == nullptr ? "" : text(g_mime_header_get_raw_value(header));
  if (raw.find("=?") == std::string_view::npos) {
    return decodeHeaderText(
        text(isType ? g_mime_object_get_content_type_parameter(part, name)
                    : g_mime_object_get_content_disposition_parameter(part, name)));
  }
  const EncodedWordMask words(collapseWhiteSpace(toUtf8(raw)));
  std::string found;
  if (isType) {
    const GObjectPtr<GMimeContentType> type(
        g_mime_content_type_parse(mimeOptions(), words.masked().c_str()));
    found = type ? text(g_mime_content_type_get_parameter(type.get(), name)) : "";
  } else {
    const GObjectPtr<GMimeContentDisposition> disposition(
        g_mime_content_disposition_parse(mimeOptions(), words.masked().c_str()));
    found =
        disposition ? text(g_mime_content_disposition_get_parameter(disposition.get(), name)) : "";
  }
  return collapseWhiteSpace(cleanUtf8(words.unmask(found)));
}

std::string attachmentName(GMimeObject* part) {
  std::string name;
  if (g_mime_object_get_disposition(part) != nullptr) {
    name = parameter(part, "Content-Disposition", "filename");
  }
  return name.empty() ? parameter(part, "Content-Type", "name") : name;
}

bool isAttachment(GMimeObject* part) {
  const char* disposition = g_mime_object_get_disposition(part);
  if (disposition != nullptr && equalsIgnoringCase(disposition, "attachment")) return true;
  return !attachmentName(part).empty();
}

// A type that cannot be made out, such as "text" alone, stands for plain text.
bool isTypeUnreadable(GMimeObject* part) {
  GMimeHeader* header =
      g_mime_header_list_get_header(g_mime_object_get_header_list(part), "Content-Type");
  if (header == nullptr) return false;
  const std::string_view raw = text(g_mime_header_get_raw_value(header));
  return raw.substr(0, raw.find(';')).find('/') == std::string_view::npos;
}

enum class TextKind : std::uint8_t { kNone, kPlain, kHtml };

TextKind textKind(GMimeObject* part) {
  if (!GMIME_IS_PART(part) || isAttachment(part)) return TextKind::kNone;
  if (isType(part, "text", "html")) return TextKind::kHtml;
  const bool isPlain = isType(part, "text", "plain") || isTypeUnreadable(part);
  return isPlain ? TextKind::kPlain : TextKind::kNone;
}

// Charsets that need no conversion, or whose name is better not believed: the bytes show.
bool isTakenAsBytes(std::string_view charset) {
  constexpr std::array<std::string_view, 10> kNames = {
      "",           "utf-8",     "utf8",   "us-ascii",     "ascii",
      "iso-8859-1", "iso8859-1", "latin1", "unknown-8bit", "x-unknown"};
  return std::any_of(kNames.begin(), kNames.end(),
                     [&](std::string_view name) { return equalsIgnoringCase(name, charset); });
}

class BodyReader {
 public:
  BodyReader(const ParseLimits& limits, std::vector<std::string>& reasons)
      : limits_(limits), reasons_(reasons) {}

  MessageBody read(GMimeObject* root) {
    listAttachments(root, 0);
    collectText(root, 0);
    return std::move(body_);
  }

 private:
  void listAttachments(GMimeObject* part, std::size_t depth) {
    if (part == nullptr || tooDeep(depth)) return;
    if (GMIME_IS_MULTIPART(part)) {
      forEachChild(part, [&](GMimeObject* child) { listAttachments(child, depth + 1); });
      return;
    }
    const bool isMessage = GMIME_IS_MESSAGE_PART(part);
    if (isAttachment(part)) {
      addAttachment(part);
    } else if (isMessage) {
      listAttachments(innerBody(part), depth + 1);
    }
  }

  void addAttachment(GMimeObject* part) {
    std::string name = attachmentName(part);
    if (name.empty()) name = kNamelessAttachment;
    const GText mime(g_mime_content_type_get_mime_type(contentType(part)));
    const TypeRow row = typeRow(mime ? mime.get() : "");
    body_.attachments.push_back({std::move(name), row.type, row.kind});
  }

  // Returns whether there was any text.
  bool collectText(GMimeObject* part, std::size_t depth) {
    if (part == nullptr || full_ || tooDeep(depth)) return false;
    if (GMIME_IS_MULTIPART_ENCRYPTED(part)) return false;
    if (GMIME_IS_MULTIPART(part)) {
      if (isType(part, "multipart", "alternative")) return collectAlternative(part, depth);
      bool any = false;
      forEachChild(part, [&](GMimeObject* child) { any |= collectText(child, depth + 1); });
      return any;
    }
    if (GMIME_IS_MESSAGE_PART(part)) return collectText(innerBody(part), depth + 1);
    const TextKind kind = textKind(part);
    return kind != TextKind::kNone && addText(GMIME_PART(part), kind);
  }

  // The plain text where there is any, else the first other that has text.
  bool collectAlternative(GMimeObject* part, std::size_t depth) {
    for (const bool plain : {true, false}) {
      GMimeMultipart* multipart = GMIME_MULTIPART(part);
      const int count = g_mime_multipart_get_count(multipart);
      for (int i = 0; i < count; ++i) {
        GMimeObject* child = g_mime_multipart_get_part(multipart, i);
        if (hasPlainText(child, depth + 1) != plain) continue;
        if (collectText(child, depth + 1)) return true;
      }
    }
    return false;
  }

  // Asked for anew at each level above, so it is remembered.
  bool hasPlainText(GMimeObject* part, std::size_t depth) {
    if (part == nullptr || depth > limits_.depth) return false;
    const auto known = hasPlainText_.find(part);
    if (known != hasPlainText_.end()) return known->second;
    return hasPlainText_[part] = findPlainText(part, depth);
  }

  bool findPlainText(GMimeObject* part, std::size_t depth) {
    if (GMIME_IS_MULTIPART(part)) {
      GMimeMultipart* multipart = GMIME_MULTIPART(part);
      const int count = g_mime_multipart_get_count(multipart);
      for (int i = 0; i < count; ++i) {
        if (hasPlainText(g_mime_multipart_get_part(multipart, i), depth + 1)) return true;
      }
      return false;
    }
    return textKind(part) == TextKind::kPlain;
  }

  bool addText(GMimePart* part, TextKind kind) {
    std::string text = decodedText(part);
    if (kind == TextKind::kHtml) text = textOfHtml(text);
    text = collapseWhiteSpace(text);
    if (text.empty() || text.starts_with("-----BEGIN PGP MESSAGE-----")) return false;
    if (!body_.text.empty()) body_.text.push_back(' ');
    body_.text.append(text);
    if (body_.text.size() > limits_.textBytes) {
      std::size_t end = limits_.textBytes;
      while (end > 0 && (static_cast<unsigned char>(body_.text[end]) & 0xC0) == 0x80) --end;
      body_.text.resize(end);
      full_ = true;
      noteLongText();
    }
    return true;
  }

  std::string decodedText(GMimePart* part) {
    GMimeDataWrapper* content = g_mime_part_get_content(part);
    if (content == nullptr) return {};
    GMimeStream* stream = g_mime_data_wrapper_get_stream(content);
    if (stream == nullptr) return {};
    g_mime_stream_reset(stream);
    const GObjectPtr<GMimeStream> filtered(g_mime_stream_filter_new(stream));
    const GObjectPtr<GMimeFilter> decode(
        g_mime_filter_basic_new(g_mime_data_wrapper_get_encoding(content), FALSE));
    g_mime_stream_filter_add(GMIME_STREAM_FILTER(filtered.get()), decode.get());

    const char* named = g_mime_object_get_content_type_parameter(GMIME_OBJECT(part), "charset");
    const std::string charset = named == nullptr ? std::string() : std::string(named);
    GObjectPtr<GMimeFilter> convert;
    if (!isTakenAsBytes(charset) && isCharset(charset)) {
      convert.reset(g_mime_filter_charset_new(charset.c_str(), "utf-8"));
      if (convert) {
        g_mime_stream_filter_add(GMIME_STREAM_FILTER(filtered.get()), convert.get());
      }
    }
    std::string bytes = readSome(filtered.get());
    std::replace(bytes.begin(), bytes.end(), '\0', ' ');
    return convert ? cleanUtf8(bytes) : toUtf8(bytes);
  }

  // Markup may take several times the room of the text in it.
  std::string readSome(GMimeStream* stream) {
    const std::size_t most = limits_.textBytes * 4;
    std::string bytes;
    std::array<char, 16384> buffer;
    while (bytes.size() < most) {
      const ssize_t got = g_mime_stream_read(stream, buffer.data(), buffer.size());
      if (got <= 0) return bytes;
      bytes.append(buffer.data(), static_cast<std::size_t>(got));
    }
    if (g_mime_stream_eos(stream) == FALSE) noteLongText();
    // Not in the middle of a character.
    while (!bytes.empty() && (static_cast<unsigned char>(bytes.back()) & 0xC0) == 0x80) {
      bytes.pop_back();
    }
    if (!bytes.empty() && (static_cast<unsigned char>(bytes.back()) & 0x80) != 0) bytes.pop_back();
    return bytes;
  }

  static GMimeObject* innerBody(GMimeObject* part) {
    GMimeMessage* message = g_mime_message_part_get_message(GMIME_MESSAGE_PART(part));
    return message == nullptr ? nullptr : g_mime_message_get_mime_part(message);
  }

  template <typename Visit>
  static void forEachChild(GMimeObject* part, const Visit& visit) {
    GMimeMultipart* multipart = GMIME_MULTIPART(part);
    const int count = g_mime_multipart_get_count(multipart);
    for (int i = 0; i < count; ++i) visit(g_mime_multipart_get_part(multipart, i));
  }

  bool tooDeep(std::size_t depth) {
    if (depth <= limits_.depth) return false;
    note(fmt::format("parts nested more than {} deep", limits_.depth));
    return true;
  }

  void noteLongText() { note(fmt::format("more than {} bytes of text", limits_.textBytes)); }

  void note(std::string reason) {
    if (std::find(reasons_.begin(), reasons_.end(), reason) == reasons_.end()) {
      reasons_.push_back(std::move(reason));
    }
  }

  const ParseLimits& limits_;
  std::vector<std::string>& reasons_;
  MessageBody body_;
  std::unordered_map<GMimeObject*, bool> hasPlainText_;
  bool full_ = false;
};

}  // namespace

MessageBody readBody(std::string_view bytes, const ParseLimits& limits,
                     std::vector<std::string>& reasons) {
  // The stream reads the caller's bytes in place; it neither writes nor frees them.
  GByteArray array{reinterpret_cast<guint8*>(const_cast<char*>(bytes.data())),
                   static_cast<guint>(bytes.size())};
  const GObjectPtr<GMimeStream> stream(g_mime_stream_mem_new_with_byte_array(&array));
  g_mime_stream_mem_set_owner(GMIME_STREAM_MEM(stream.get()), FALSE);
  const GObjectPtr<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
  const GObjectPtr<GMimeMessage> message(
      g_mime_parser_construct_message(parser.get(), mimeOptions()));
  if (!message) {
    if (!bytes.empty()) reasons.emplace_back("its structure cannot be read");
    return {};
  }
  return BodyReader(limits, reasons).read(g_mime_message_get_mime_part(message.get()));
}

}  // namespace thmp
