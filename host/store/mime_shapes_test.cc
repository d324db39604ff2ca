// SPDX-License-Identifier: Apache-2.0
//
// The text that is found of messages of every shape.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "host/store/MessageParser.h"

namespace thmp {
namespace {

struct Shape {
  const char* name;
  /// From its first header on.
  std::string message;
  const char* text;
};

void PrintTo(const Shape& shape, std::ostream* out) { *out << shape.name; }

std::string multipart(const std::string& kind, const std::string& parts) {
  return "MIME-Version: 1.0\nContent-Type: multipart/" + kind + "; boundary=\"=_b\"\n\npreamble\n" +
         parts + "--=_b--\nepilogue\n";
}

std::string part(const std::string& type, const std::string& body) {
  return "--=_b\nContent-Type: " + type + "\n\n" + body + "\n";
}

std::string encoded(const std::string& charset, const std::string& encoding,
                    const std::string& body) {
  return "Content-Type: text/plain; charset=" + charset +
         "\nContent-Transfer-Encoding: " + encoding + "\n\n" + body + "\n";
}

std::string withCrLf(const std::string& text) {
  std::string out;
  for (const char c : text) out += c == '\n' ? std::string("\r\n") : std::string(1, c);
  return out;
}

class TextOfAMessage : public ::testing::TestWithParam<Shape> {};

TEST_P(TextOfAMessage, IsFound) {
  const ParsedMessage message =
      MessageParser().parse("Subject: x\n" + GetParam().message, MessagePlace());
  EXPECT_EQ(message.textContent, GetParam().text);
  EXPECT_THAT(message.incomplete, ::testing::IsEmpty());
}

const std::string kPlain = part("text/plain", "plain text");
const std::string kHtml = part("text/html", "<p>html text</p>");
const std::string kImage = part("image/png", "iVBORw0KGgo=");

INSTANTIATE_TEST_SUITE_P(
    Structures, TextOfAMessage,
    ::testing::Values(
        Shape{"WithoutAType", "\nno type\n", "no type"},
        Shape{"HtmlAlone", "Content-Type: text/html\n\n<b>bold</b> <i>words</i>\n", "bold words"},
        Shape{"TwoTextsAroundAnImage",
              multipart("mixed", kPlain + kImage + part("text/plain", "after it")),
              "plain text after it"},
        Shape{"HtmlBeforePlain", multipart("alternative", kHtml + kPlain), "plain text"},
        Shape{"HtmlAndACalendar",
              multipart("alternative", kHtml + part("text/calendar", "BEGIN:VCALENDAR")),
              "html text"},
        Shape{"RelatedHtml", multipart("related", kHtml + kImage), "html text"},
        Shape{"RelatedInAnAlternative",
              multipart("alternative",
                        kPlain + "--=_b\nContent-Type: multipart/related; boundary=inner\n\n"
                                 "--inner\nContent-Type: text/html\n\n<p>rich</p>\n--inner--\n"),
              "plain text"},
        Shape{"Signed",
              multipart("signed; protocol=\"application/pgp-signature\"",
                        kPlain + part("application/pgp-signature", "-----BEGIN")),
              "plain text"},
        Shape{"DigestOfMessages",
              multipart("digest",
                        "--=_b\n\nSubject: one\n\nfirst\n--=_b\n\nSubject: two\n\nsecond\n"),
              "first second"},
        Shape{"DeliveryReport",
              multipart("report; report-type=delivery-status",
                        kPlain + part("message/delivery-status", "Reporting-MTA: dns; x") +
                            part("message/rfc822", "Subject: returned\n\nthe returned one")),
              "plain text the returned one"},
        Shape{"MessageInAMessageInAMessage",
              "Content-Type: message/rfc822\n\nContent-Type: message/rfc822\n\n"
              "Content-Type: message/rfc822\n\nSubject: in\n\ninnermost\n",
              "innermost"},
        Shape{"TextThatIsAttached",
              multipart("mixed", kPlain + "--=_b\nContent-Type: text/plain\n"
                                          "Content-Disposition: attachment\n\nattached\n"),
              "plain text"},
        Shape{"InlineTextWithoutAName",
              multipart("mixed", kPlain + "--=_b\nContent-Type: text/plain\n"
                                          "Content-Disposition: inline\n\ninline\n"),
              "plain text inline"},
        Shape{"EmptyPartThenText", multipart("mixed", part("text/plain", "") + kPlain),
              "plain text"},
        Shape{"EmptyPlainBesideHtml", multipart("alternative", part("text/plain", " \n") + kHtml),
              "html text"},
        Shape{"WithoutAnyPart", multipart("mixed", ""), ""},
        Shape{"EncryptedInline",
              "\n-----BEGIN PGP MESSAGE-----\n\nhQEMA\n-----END PGP MESSAGE-----\n", ""}),
    [](const auto& shape) { return std::string(shape.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Mistakes, TextOfAMessage,
    ::testing::Values(
        Shape{"NoClosingBoundary",
              "Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: text/plain\n\nopen",
              "open"},
        Shape{"BoundaryFollowedByBlanks",
              "Content-Type: multipart/mixed; boundary=\"b\"\n\n--b  \t\nContent-Type: "
              "text/plain\n\nblanks\n--b-- \n",
              "blanks"},
        Shape{"BoundaryWithBlanksInIt",
              "Content-Type: multipart/mixed; boundary=\"a b c\"\n\n--a b c\n\nspaced\n--a b c--\n",
              "spaced"},
        Shape{"BoundaryOnALineOfItsOwn",
              "Content-Type: multipart/mixed;\n\tboundary=\"b\"\n\n--b\n\nfolded\n--b--\n",
              "folded"},
        Shape{"LineEndsWithCr", withCrLf(multipart("alternative", kPlain + kHtml)), "plain text"},
        Shape{"NamesOfHeadersInCapitals", "CONTENT-TYPE: TEXT/HTML\n\n<p>loud</p>\n", "loud"},
        Shape{"ATypeInOneWord", "Content-Type: text\n\none word\n", "one word"},
        Shape{"AnEmptyType", "Content-Type: \n\nempty type\n", "empty type"},
        Shape{"ATypeWithEmptyParameters", "Content-Type: text/plain;; charset=utf-8;\n\nodd\n",
              "odd"},
        Shape{"AnUnknownEncoding", encoded("utf-8", "8-bit", "as it stands"), "as it stands"},
        Shape{"AnEncodingInCapitals", encoded("utf-8", "BASE64", "bG91ZA=="), "loud"},
        Shape{"Base64WithForeignCharacters", encoded("utf-8", "base64", "an*Vu!\nay4="), "junk."},
        Shape{"QuotedPrintableWithABadCode", encoded("utf-8", "quoted-printable", "a=ZZb =C3=A9"),
              "a=ZZb \u00E9"},
        Shape{"PartsInsideOnesOwnBoundary",
              multipart("mixed",
                        "--=_b\nContent-Type: multipart/mixed; boundary=\"=_b\"\n\n" + kPlain),
              "plain text"}),
    [](const auto& shape) { return std::string(shape.param.name); });

INSTANTIATE_TEST_SUITE_P(
    Encodings, TextOfAMessage,
    ::testing::Values(
        Shape{"Uuencoded", encoded("us-ascii", "x-uuencode", "begin 644 x\n%:&5L;&\\`\n`\nend"),
              "hello"},
        Shape{"SoftLineBreaks", encoded("utf-8", "quoted-printable", "one=\ntwo =\nthree"),
              "onetwo three"},
        Shape{"FlowedLines", "Content-Type: text/plain; format=flowed\n\na line \nthat flows\n",
              "a line that flows"},
        Shape{"Gb2312WithCharactersOfGbk", encoded("gb2312", "base64", "6UY="), "\u9555"},
        Shape{"Iso2022Jp", encoded("iso-2022-jp", "7bit", "\x1B$BF|K\\8l\x1B(B"),
              "\u65E5\u672C\u8A9E"},
        Shape{"Koi8R", encoded("koi8-r", "base64", "8NLJ18XU"),
              "\u041F\u0440\u0438\u0432\u0435\u0442"},
        Shape{"Utf16", encoded("utf-16", "base64", "//5oAGkA"), "hi"},
        Shape{"QuotedCharset", encoded("\"ISO-8859-2\"", "quoted-printable", "=B3=F3d=BC"),
              "\u0142\u00F3d\u017A"},
        Shape{"Windows1252CalledLatin1", encoded("iso-8859-1", "quoted-printable", "=93quoted=94"),
              "\u201Cquoted\u201D"},
        Shape{"Big5", encoded("big5", "base64", "pKSk5Q=="), "\u4E2D\u6587"},
        Shape{"EucKr", encoded("euc-kr", "base64", "x9Gx2w=="), "\uD55C\uAE00"},
        Shape{"Utf8CalledAscii", encoded("us-ascii", "8bit", "caf\u00E9"), "caf\u00E9"}),
    [](const auto& shape) { return std::string(shape.param.name); });

}  // namespace
}  // namespace thmp
