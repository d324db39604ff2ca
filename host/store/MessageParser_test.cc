// SPDX-License-Identifier: Apache-2.0
#include "host/store/MessageParser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <thread>

#include "host/store/attribute_keys.h"
#include "host/store/test_support.h"

namespace thmp {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class MessageReading : public ::testing::Test {
 protected:
  MessageReading() {
    place_.fileName = "1422868272.M1P1.host:2,S";
    place_.mailboxIdentifier = "mailbox.inbox";
    place_.facts.size = 1234;
    place_.facts.blocks = 8;
    place_.facts.inode = 4711;
    place_.facts.modifiedSeconds = 1'500'000'000;
    place_.facts.createdSeconds = 1'400'000'000;
  }

  const ParsedMessage& parse(std::string_view bytes) {
    message_ = MessageParser(limits_).parse(bytes, place_);
    return message_;
  }
  const ParsedMessage& header(const std::string& fields) { return parse(fields + "\n\nbody\n"); }

  std::string text(std::string_view key) const {
    const Value& value =
        message_.attributes.contains(key) ? message_.attributes[key] : message_.queryOnly[key];
    return std::string(value.asText().value_or("(absent)"));
  }
  std::vector<std::string> texts(std::string_view key) const {
    const Value& value =
        message_.attributes.contains(key) ? message_.attributes[key] : message_.queryOnly[key];
    std::vector<std::string> all;
    const Array array = value.asArray().value_or(Array());
    for (const Value& element : array) all.emplace_back(element.asText().value_or("?"));
    return all;
  }
  std::int64_t seconds(std::string_view key) const {
    const auto date = message_.attributes[key].asDate();
    return date ? static_cast<std::int64_t>(date->unixSeconds()) : -1;
  }
  bool isTrue(std::string_view key) const {
    return message_.attributes[key].asBoolean().value_or(false);
  }
  bool has(std::string_view key) const { return message_.attributes.contains(key); }

  ParseLimits limits_;
  MessagePlace place_;
  ParsedMessage message_;
};

// Header text.

TEST_F(MessageReading, SubjectIsUnfoldedAndWhiteSpaceIsOneSpace) {
  header("Subject:   a \t b\n  c\r\n\td  ");
  EXPECT_EQ(text("kMDItemSubject"), "a b c d");
  EXPECT_EQ(text("kMDItemDisplayName"), "a b c d");
  EXPECT_EQ(text("kMDItemTitle"), "a b c d");
}

TEST_F(MessageReading, TheFirstOfSeveralHeadersCounts) {
  header("Subject: one\nSUBJECT: two");
  EXPECT_EQ(text("kMDItemSubject"), "one");
}

TEST_F(MessageReading, WithoutASubjectThereIsNoDisplayName) {
  header("Subject:  \nFrom: a@b.test");
  EXPECT_FALSE(has("kMDItemSubject"));
  EXPECT_FALSE(has("kMDItemDisplayName"));
  EXPECT_EQ(text("kMDItemTitle"), "(absent)");
}

TEST_F(MessageReading, EncodedWordsAreDecoded) {
  header("Subject: =?utf-8?Q?Gr=C3=BC=C3=9Fe?= an =?ISO-8859-1?B?S/ZsbiE=?= =?utf-8?q?_x?=");
  EXPECT_EQ(text("kMDItemSubject"), "Gr\u00FC\u00DFe an K\u00F6ln! x");
}

TEST_F(MessageReading, EncodedWordsThatCutACharacterOrArePaddedEachAreJoined) {
  header("Subject: =?utf-8?B?5bCP5A==?=\n =?UTF-8?B?7w==?= =?utf-8?Q?=AC?=");
  EXPECT_EQ(text("kMDItemSubject"), "\u5C0F\uFFFD\uFFFD");
  header("Subject: =?utf-8?B?5bCP?=\n =?UTF-8?B?5Lg=?= =?utf-8?Q?=AD?=");
  EXPECT_EQ(text("kMDItemSubject"), "\u5C0F\u4E2D");
}

TEST_F(MessageReading, WhatIsNoEncodedWordStays) {
  header("Subject: =?utf-8?X?abc?= =?utf-8?Q =?");
  EXPECT_EQ(text("kMDItemSubject"), "=?utf-8?X?abc?= =?utf-8?Q =?");
}

TEST_F(MessageReading, AnUnknownCharsetIsReadAsUtf8OrWindows1252) {
  header("Subject: =?x-nowhere?Q?caf=E9?=");
  EXPECT_EQ(text("kMDItemSubject"), "caf\u00E9");
}

TEST_F(MessageReading, RawBytesAreUtf8ElseWindows1252) {
  header("Subject: caf\xC3\xA9");
  EXPECT_EQ(text("kMDItemSubject"), "caf\u00E9");
  header("Subject: caf\xE9 \x80 20 \x93x\x94");
  EXPECT_EQ(text("kMDItemSubject"), "caf\u00E9 \u20AC 20 \u201Cx\u201D");
}

TEST_F(MessageReading, TheHeadersDictionaryHasEveryHeaderUnderItsNameAsFirstWritten) {
  header("Received: one\nX-Thing: a\nreceived: two\nEmpty:\nx-thing: =?utf-8?Q?b?=");
  const Value& headers = message_.attributes["kMDItemEmailHeadersDictionary"];
  ASSERT_EQ(headers.asDictionary()->size(), 2U);
  EXPECT_EQ(headers["Received"].asArray()->size(), 2U);
  EXPECT_EQ((*headers["Received"].asArray())[1].asText(), "two");
  EXPECT_EQ((*headers["X-Thing"].asArray())[1].asText(), "b");
}

TEST_F(MessageReading, KeywordsAndCommentsAndLabels) {
  header("Keywords: red, ,  blue green\nComments: so so\nX-Gmail-Labels: Inbox,\"a, b\",c");
  EXPECT_THAT(texts("kMDItemKeywords"), ElementsAre("red", "blue green"));
  EXPECT_EQ(text("kMDItemComment"), "so so");
  EXPECT_THAT(texts("com_apple_mail_gmailLabels"), ElementsAre("Inbox", "a, b", "c"));
}

// Identity.

TEST_F(MessageReading, TheMessageIdHasBracketsAndItsTokenHasNone) {
  header("Message-Id: see <a/b+c@x.test> (comment)");
  EXPECT_EQ(text("kMDItemIdentifier"), "<a/b+c@x.test>");
  EXPECT_EQ(text("com_apple_mail_messageID"), "a/b+c@x.test");
  EXPECT_EQ(text("kMDItemURL"), "message:%3Ca%2Fb%2Bc%40x.test%3E");
}

TEST_F(MessageReading, AMessageIdWithoutBracketsIsNone) {
  header("Message-ID: plain@x.test");
  EXPECT_FALSE(has("kMDItemIdentifier"));
  EXPECT_FALSE(has("com_apple_mail_messageID"));
  EXPECT_FALSE(has("kMDItemURL"));
}

TEST_F(MessageReading, ConstantsAndFileFactsAreThere) {
  header("Subject: x");
  EXPECT_EQ(text("_kMDItemBundleID"), "com.apple.mail");
  EXPECT_EQ(text("kMDItemContentType"), "public.email-message");
  EXPECT_EQ(text("kMDItemKind"), "Mail Message");
  EXPECT_THAT(texts("kMDItemContentTypeTree"),
              ElementsAre("com.apple.mail.email", "public.data", "public.item",
                          "public.email-message", "public.message"));
  EXPECT_EQ(message_.attributes["kMDItemFileIdentifier"].asInteger(), 4711);
  EXPECT_EQ(message_.attributes["kMDItemFSSize"].asInteger(), 1234);
  EXPECT_EQ(message_.attributes["kMDItemPhysicalSize"].asInteger(), 4096);
  EXPECT_EQ(text("kMDItemFSName"), place_.fileName);
  EXPECT_EQ(text("_kMDItemDisplayNameWithExtensions"), place_.fileName);
  EXPECT_EQ(message_.attributes["kMDItemFSInvisible"].asBoolean(), false);
  EXPECT_EQ(message_.attributes["kMDItemFSLabel"].asInteger(), 0);
  EXPECT_FALSE(has("kMDItemPath"));
  EXPECT_FALSE(has("_kMDItemExternalID"));
}

TEST_F(MessageReading, EveryAttributeIsAKnownOneAndNoneIsEmpty) {
  header("From: a@b.test\nTo: c@d.test\nSubject: x\nComments:\nKeywords: ,");
  for (const Dictionary* all : {&message_.attributes, &message_.queryOnly}) {
    for (const Dictionary::Entry& entry : *all) {
      const auto key = keyNamed(entry.key);
      ASSERT_TRUE(key) << entry.key.view();
      EXPECT_EQ(keyText(*key).identity(), entry.key.identity()) << "not the shared key";
      EXPECT_NE(entry.value.asText(), "");
      EXPECT_FALSE(entry.value.asArray() && entry.value.asArray()->empty());
    }
  }
}

// People.

TEST_F(MessageReading, NamesAndAddressesRunParallel) {
  header(
      "From: \"Last, First\" <First@Example.COM>, plain@x.test\n"
      "To: Group: =?utf-8?Q?J=C3=BCrgen?= <j@x.test>, b@x.test;, C <c@x.test>\n"
      "Cc: d@x.test (Dora)\nBcc: E <e@x.test>");
  EXPECT_THAT(texts("kMDItemAuthors"), ElementsAre("Last, First", "plain@x.test"));
  EXPECT_THAT(texts("kMDItemAuthorEmailAddresses"),
              ElementsAre("First@Example.COM", "plain@x.test"));
  EXPECT_EQ(texts("kMDItemAuthorAddresses"), texts("kMDItemAuthorEmailAddresses"));
  EXPECT_THAT(texts("kMDItemPrimaryRecipients"), ElementsAre("J\u00FCrgen", "b@x.test", "C"));
  EXPECT_THAT(texts("kMDItemPrimaryRecipientEmailAddresses"),
              ElementsAre("j@x.test", "b@x.test", "c@x.test"));
  EXPECT_THAT(texts("kMDItemAdditionalRecipients"), ElementsAre("d@x.test"));
  EXPECT_THAT(texts("kMDItemAdditionalRecipientEmailAddresses"), ElementsAre("d@x.test"));
  EXPECT_THAT(texts("kMDItemHiddenAdditionalRecipients"), ElementsAre("E"));
  EXPECT_THAT(texts("kMDItemHiddenAdditionalRecipientEmailAddresses"), ElementsAre("e@x.test"));
  EXPECT_THAT(texts("kMDItemRecipientEmailAddresses"),
              ElementsAre("j@x.test", "b@x.test", "c@x.test", "d@x.test", "e@x.test"));
  EXPECT_THAT(texts("kMDItemRecipients"),
              ElementsAre("J\u00FCrgen", "b@x.test", "C", "d@x.test", "E"));
}

TEST_F(MessageReading, SeveralHeadersOfOneNameAreReadInOrder) {
  header("To: a@x.test\nSubject: s\nTo: b@x.test");
  EXPECT_THAT(texts("kMDItemPrimaryRecipients"), ElementsAre("a@x.test", "b@x.test"));
}

TEST_F(MessageReading, WithoutFromTheSenderIsTheAuthor) {
  header("Sender: S <s@x.test>");
  EXPECT_THAT(texts("kMDItemAuthors"), ElementsAre("S"));
}

TEST_F(MessageReading, EveryAddressStandsOnceWhateverItsCase) {
  header("From: A@x.test\nTo: a@X.test, b@x.test\nCc: B@x.test");
  EXPECT_THAT(texts("kMDItemEmailAddresses"), ElementsAre("A@x.test", "b@x.test"));
}

TEST_F(MessageReading, AnEmptyGroupHasNobody) {
  header("To: undisclosed-recipients:;");
  EXPECT_FALSE(has("kMDItemPrimaryRecipients"));
  EXPECT_FALSE(has("kMDItemRecipients"));
}

TEST_F(MessageReading, ItemsThatDoNotParseAreSkipped) {
  header("To: <>, , @@, Good <good@x.test>");
  EXPECT_THAT(texts("kMDItemPrimaryRecipientEmailAddresses"), ::testing::Contains("good@x.test"));
}

TEST_F(MessageReading, ACommaInsideAnEncodedNameSeparatesNothing) {
  header("From: =?utf-8?Q?Doe=2C_Jane_=3Cx=40y=3E?= <jane@x.test>");
  EXPECT_THAT(texts("kMDItemAuthors"), ElementsAre("Doe, Jane <x@y>"));
  EXPECT_THAT(texts("kMDItemAuthorEmailAddresses"), ElementsAre("jane@x.test"));
}

TEST_F(MessageReading, TheAccountIsWhomTheMessageWasDeliveredTo) {
  header("Delivered-To: me@x.test\nDelivered-To: list@x.test");
  EXPECT_THAT(texts("kMDItemAccountHandles"), ElementsAre("me@x.test", "list@x.test"));
}

// Dates.

TEST_F(MessageReading, SentIsTheDateHeaderWithItsZone) {
  header("Date: Mon, 2 Feb 2015 10:11:12 +0100");
  EXPECT_EQ(seconds("kMDItemContentCreationDate"), 1422868272);
}

TEST_F(MessageReading, ObsoleteDateFormsAreRead) {
  header("Date: 2 Feb 15 09:11 GMT");
  EXPECT_EQ(seconds("kMDItemContentCreationDate"), 1422868260);
  header("Date: Mon, 2 Feb 2015 04:11:12 EST (cold)");
  EXPECT_EQ(seconds("kMDItemContentCreationDate"), 1422868272);
}

TEST_F(MessageReading, ReceivedIsTheTopmostReceivedHeaderThatParses) {
  header(
      "Received: from a; nonsense\nReceived: from b; c; Tue, 3 Feb 2015 00:00:00 +0000\n"
      "Received: from d; Wed, 4 Feb 2015 00:00:00 +0000");
  for (const char* key :
       {"com_apple_mail_dateReceived", "kMDItemMailDateReceived", "kMDItemInterestingDate"}) {
    EXPECT_EQ(seconds(key), 1422921600) << key;
  }
  EXPECT_EQ(seconds("kMDItemContentCreationDate"), 1422921600) << "no Date header";
}

TEST_F(MessageReading, WithoutReceivedTheFilesNumberCountsThenItsTime) {
  header("Subject: x");
  EXPECT_EQ(seconds("kMDItemMailDateReceived"), 1422868272);
  EXPECT_EQ(seconds("kMDItemDateAdded"), 1422868272);
  place_.fileName = "copy.eml";
  header("Subject: x");
  EXPECT_EQ(seconds("kMDItemMailDateReceived"), 1'500'000'000);
  EXPECT_EQ(seconds("kMDItemDateAdded"), 1'400'000'000);
}

TEST_F(MessageReading, DatesOutsideTheYears1To9999CountAsUnparsable) {
  header("Date: Mon, 2 Feb 999999 10:11:12 +0100");
  EXPECT_EQ(seconds("kMDItemContentCreationDate"), 1422868272) << "falls back to received";
  place_.fileName = "99999999999999999.M1:2,";
  header("Date: never");
  EXPECT_EQ(seconds("kMDItemContentCreationDate"), 1'500'000'000);
}

TEST_F(MessageReading, FileDatesComeFromTheFile) {
  header("Subject: x");
  EXPECT_EQ(seconds("kMDItemContentModificationDate"), 1'500'000'000);
  EXPECT_EQ(seconds("kMDItemFSContentChangeDate"), 1'500'000'000);
  EXPECT_EQ(seconds("kMDItemFSCreationDate"), 1'400'000'000);
  EXPECT_EQ(message_.attributes["com_apple_metadata_modtime"].asInteger(),
            1'500'000'000 - 978'307'200);
  EXPECT_FALSE(has("kMDItemLastUsedDate"));
}

// Flags.

TEST_F(MessageReading, FlagsStandBehindTheNameInCur) {
  place_.fileName = "1.x:2,FRS";
  header("Subject: x");
  EXPECT_TRUE(isTrue("com_apple_mail_read"));
  EXPECT_TRUE(isTrue("com_apple_mail_flagged"));
  EXPECT_TRUE(isTrue("com_apple_mail_repliedTo"));
  EXPECT_FALSE(has("com_apple_mail_flagColor"));
}

TEST_F(MessageReading, AMessageInNewHasNoFlagsButTheAttributesAreThere) {
  place_.isNew = true;
  place_.fileName = "1.x:2,S";
  header("Subject: x");
  EXPECT_EQ(message_.attributes["com_apple_mail_read"].asBoolean(), false);
  EXPECT_EQ(message_.attributes["com_apple_mail_flagged"].asBoolean(), false);
}

TEST_F(MessageReading, DraftAndTrashFlagsNameAMailbox) {
  place_.fileName = "1.x:2,DT";
  header("Subject: x");
  EXPECT_THAT(texts("kMDItemMailboxes"),
              ElementsAre("mailbox.inbox", "mailbox.drafts", "mailbox.trash"));
  EXPECT_FALSE(has("kMDItemMailboxes")) << "only queries see it";
}

TEST_F(MessageReading, ARenameChangesFlagsAndNamesOnly) {
  header("Subject: x\nFrom: a@b.test");
  Dictionary attributes = message_.attributes;
  Dictionary queryOnly = message_.queryOnly;
  place_.fileName = "1422868272.M1P1.host:2,FT";
  renameMessage(place_, attributes, queryOnly);
  const ParsedMessage again = MessageParser().parse("Subject: x\nFrom: a@b.test\n\nbody\n", place_);
  EXPECT_TRUE(Value::identical(Value(attributes), Value(again.attributes)));
  EXPECT_TRUE(Value::identical(Value(queryOnly), Value(again.queryOnly)));
  EXPECT_EQ(attributes["com_apple_mail_read"].asBoolean(), false);
  EXPECT_EQ(attributes["com_apple_mail_flagged"].asBoolean(), true);
}

TEST_F(MessageReading, PriorityComesFromThreeHeadersInTurn) {
  const auto priority = [&](const std::string& fields) {
    return header(fields).attributes["com_apple_mail_priority"].asInteger();
  };
  EXPECT_EQ(priority("X-Priority: 1 (Highest)\nImportance: low"), 1);
  EXPECT_EQ(priority("X-Priority: high\nImportance: Low"), 5);
  EXPECT_EQ(priority("Importance: High"), 1);
  EXPECT_EQ(priority("Priority: urgent"), 1);
  EXPECT_EQ(priority("Priority: Non-Urgent"), 5);
  EXPECT_EQ(priority("Subject: x"), 3);
}

TEST_F(MessageReading, JunkIsToldByHeadersOrFolder) {
  EXPECT_EQ(header("X-Spam-Flag: yes").attributes["kMDItemIsLikelyJunk"].asBoolean(), true);
  EXPECT_EQ(header("X-Spam-Status: Yes, hits=9").attributes["kMDItemIsLikelyJunk"].asBoolean(),
            true);
  EXPECT_EQ(header("X-Spam-Status: No").attributes["kMDItemIsLikelyJunk"].asBoolean(), false);
  place_.mailboxIdentifier = "mailbox.junk";
  EXPECT_EQ(header("Subject: x").attributes["kMDItemIsLikelyJunk"].asBoolean(), true);
}

TEST_F(MessageReading, LooseMessagesHaveFlagsOnlyWithStatusHeaders) {
  place_.format = MessageFormat::kEml;
  header("Subject: x");
  EXPECT_FALSE(has("com_apple_mail_read"));
  header("Status: RO\nX-Status: AF");
  EXPECT_TRUE(isTrue("com_apple_mail_read"));
  EXPECT_TRUE(isTrue("com_apple_mail_repliedTo"));
  EXPECT_TRUE(isTrue("com_apple_mail_flagged"));
}

TEST_F(MessageReading, AnEmlxMessageHasItsFlagsAndDatesBehindIt) {
  place_.format = MessageFormat::kEmlx;
  const std::string mail = "Subject: inside\n\ntext\n";
  const std::string list =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\"><dict>"
      "<key>flags</key><integer>16777297</integer><key>date-received</key>"
      "<integer>1422868272</integer><key>date-last-viewed</key><integer>1422868273</integer>"
      "</dict></plist>";
  parse(std::to_string(mail.size()) + "      \n" + mail + list);
  EXPECT_EQ(text("kMDItemSubject"), "inside");
  EXPECT_TRUE(isTrue("com_apple_mail_read"));
  EXPECT_TRUE(isTrue("com_apple_mail_flagged"));
  EXPECT_FALSE(isTrue("com_apple_mail_repliedTo"));
  EXPECT_TRUE(isTrue("kMDItemIsLikelyJunk"));
  EXPECT_THAT(texts("kMDItemMailboxes"), ElementsAre("mailbox.inbox", "mailbox.drafts"));
  EXPECT_EQ(seconds("kMDItemMailDateReceived"), 1422868272);
  EXPECT_EQ(seconds("com_apple_mail_dateLastViewed"), 1422868273);
  EXPECT_EQ(message_.textContent, "text");
}

TEST_F(MessageReading, AnEmlxWithoutItsListLacksTheListsKeysOnly) {
  place_.format = MessageFormat::kEmlx;
  parse("11\nSubject: x\n<?xml broken");
  EXPECT_EQ(text("kMDItemSubject"), "x");
  EXPECT_FALSE(has("com_apple_mail_read"));
  EXPECT_THAT(message_.incomplete, IsEmpty());
  parse("no number\nSubject: y\n\n");
  EXPECT_THAT(message_.incomplete, ElementsAre("its first line is no byte count"));
}

// Bodies.

constexpr std::string_view kAlternative =
    "Subject: x\nContent-Type: multipart/alternative; boundary=b\n\n--b\n"
    "Content-Type: text/plain\n\nthe plain\n--b\nContent-Type: text/html\n\n<p>the html</p>\n"
    "--b--\n";

TEST_F(MessageReading, OfAnAlternativeThePlainTextIsTaken) {
  parse(kAlternative);
  EXPECT_EQ(message_.textContent, "the plain");
  EXPECT_FALSE(has("kMDItemAttachmentNames"));
}

TEST_F(MessageReading, WithoutPlainTextTheHtmlIsTakenWithoutItsTags) {
  parse(
      "Content-Type: text/html; charset=utf-8\n\n<html><style>p{}</style><script>x<y</script>"
      "<p>Caf&eacute; &amp; <b>bo</b>ld&nbsp;&#8364;&#x41;&bogus;</p><!-- no --><br>1 < 2</html>");
  EXPECT_EQ(message_.textContent, "Caf\u00E9 & bold \u20ACA&bogus; 1 < 2");
}

TEST_F(MessageReading, TransferEncodingAndCharsetAreDecoded) {
  parse(
      "Content-Type: text/plain; charset=iso-8859-15\nContent-Transfer-Encoding: quoted-printable"
      "\n\nK=F6ln =A4=\n 5");
  EXPECT_EQ(message_.textContent, "K\u00F6ln \u20AC 5");
  parse(
      "Content-Type: text/plain; charset=utf-8\nContent-Transfer-Encoding: base64\n\n"
      "R3LDvMOfZQ==\n");
  EXPECT_EQ(message_.textContent, "Gr\u00FC\u00DFe");
  parse("Content-Type: text/plain; charset=klingon\n\ncaf\xE9 \xC0");
  EXPECT_EQ(message_.textContent, "caf\u00E9 \u00C0");
}

TEST_F(MessageReading, NestedMessagesAreRead) {
  parse(
      "Content-Type: multipart/mixed; boundary=b\n\n--b\nContent-Type: text/plain\n\nouter\n"
      "--b\nContent-Type: message/rfc822\n\nSubject: in\n\ninner text\n--b--\n");
  EXPECT_EQ(message_.textContent, "outer inner text");
}

TEST_F(MessageReading, EncryptedBodiesHaveNoText) {
  parse(
      "Content-Type: multipart/encrypted; boundary=b; protocol=\"application/pgp-encrypted\"\n\n"
      "--b\nContent-Type: application/pgp-encrypted\n\nVersion: 1\n--b\n"
      "Content-Type: text/plain\n\nsecret\n--b--\n");
  EXPECT_EQ(message_.textContent, "");
}

TEST_F(MessageReading, AttachmentsAreNamedAndTyped) {
  parse(
      "Content-Type: multipart/mixed; boundary=b\n\n"
      "--b\nContent-Type: text/plain\n\nbody\n"
      "--b\nContent-Type: application/pdf; name=\"=?utf-8?Q?r=C3=A9sum=C3=A9.pdf?=\"\n\nx\n"
      "--b\nContent-Type: image/webp\nContent-Disposition: inline; "
      "filename*=utf-8''b%C3%BCro.webp\n\nx\n"
      "--b\nContent-Type: text/plain\nContent-Disposition: attachment\n\nnot in the text\n"
      "--b\nContent-Type: video/mp4\nContent-Disposition: attachment; filename=\"a b.mp4\"\n\nx\n"
      "--b\nContent-Type: application/x-odd; name=odd.bin\n\nx\n--b--\n");
  EXPECT_THAT(texts("kMDItemAttachmentNames"),
              ElementsAre("r\u00E9sum\u00E9.pdf", "b\u00FCro.webp", "Mail Attachment", "a b.mp4",
                          "odd.bin"));
  EXPECT_EQ(texts("com_apple_mail_attachmentNames"), texts("kMDItemAttachmentNames"));
  EXPECT_THAT(texts("kMDItemAttachmentTypes"),
              ElementsAre("com.adobe.pdf", "public.image", "public.plain-text", "public.movie",
                          "public.data"));
  EXPECT_THAT(texts("com_apple_mail_attachmentKinds"),
              ElementsAre("pdf", "image", "text", "movie", "other"));
  EXPECT_EQ(message_.textContent, "body");
}

TEST_F(MessageReading, AFileNameOfSeveralPaddedWordsIsWhole) {
  parse(
      "Content-Type: application/pdf;\n name=\"=?utf-8?B?5bCP5A==?=\n =?utf-8?B?uK0ucGRm?=\"\n\nx");
  EXPECT_THAT(texts("kMDItemAttachmentNames"), ElementsAre("\u5C0F\u4E2D.pdf"));
  parse("Content-Type: application/pdf; name=two words.pdf\n\nx");
  EXPECT_THAT(texts("kMDItemAttachmentNames"), ElementsAre("two words.pdf"));
}

// Hostile mail. Each is over before a person would notice, and is found by what could be read.

class HostileMail : public MessageReading {
 protected:
  void SetUp() override { began_ = std::chrono::steady_clock::now(); }
  void TearDown() override {
    EXPECT_LT(std::chrono::steady_clock::now() - began_, std::chrono::seconds(20));
  }
  std::chrono::steady_clock::time_point began_;
};

std::string repeated(std::string_view piece, std::size_t times) {
  std::string all;
  all.reserve(piece.size() * times);
  for (std::size_t i = 0; i < times; ++i) all.append(piece);
  return all;
}

TEST_F(HostileMail, AnEmptyFileIsStillAMessage) {
  parse("");
  EXPECT_EQ(text("kMDItemContentType"), "public.email-message");
  EXPECT_EQ(text("kMDItemFSName"), place_.fileName);
  EXPECT_THAT(message_.incomplete, ElementsAre("no header field"));
}

TEST_F(HostileMail, HeadersBeyondTheLimitAreCutAndTheBodyIsRead) {
  parse("Subject: found\n" + repeated("X-Header: " + std::string(490, 'v') + "\n", 3'000) +
        "\nthe body\n");
  EXPECT_EQ(text("kMDItemSubject"), "found");
  EXPECT_EQ(message_.textContent, "the body");
  EXPECT_THAT(message_.incomplete, ElementsAre("a header longer than 1048576 bytes"));
}

TEST_F(HostileMail, ManyTinyHeadersTakeLinearTime) {
  parse("Subject: found\n" + repeated("a:b\n", 200'000) + "\nbody");
  EXPECT_EQ(text("kMDItemSubject"), "found");
}

TEST_F(HostileMail, ManyAddressesTakeLinearTime) {
  parse("Subject: found\nTo: " + repeated("a@b.test, ", 4'999) + "z@b.test\n\nbody");
  EXPECT_EQ(texts("kMDItemPrimaryRecipients").size(), 5'000U);
  EXPECT_THAT(message_.incomplete, ElementsAre());
}

TEST_F(HostileMail, AddressesKeywordsAndLabelsBeyondTheLimitAreCut) {
  constexpr const char* kCut =
      "more than 5000 addresses, keywords and labels, or 524288 bytes of them";
  parse("To: " + repeated("a@b.test,\n ", 40'000) + "z@b.test\nSubject: found\n\nbody");
  EXPECT_EQ(texts("kMDItemPrimaryRecipients").size(), 5'000U);
  EXPECT_EQ(text("kMDItemSubject"), "found");
  EXPECT_EQ(message_.textContent, "body");
  EXPECT_THAT(message_.incomplete, ElementsAre(kCut));
  for (const std::string_view unit : {"g:a@b.test;", "<a@b.test> ", "a@b.test ", "a. "}) {
    parse("To: " + repeated(unit, 600'000 / unit.size()) + "\n\nbody");
    EXPECT_THAT(message_.incomplete, ElementsAre(kCut));
  }
  parse("From: a@b.test\nKeywords: " + repeated("k,", 20'000) + "\nCc: b@b.test\n\nbody");
  EXPECT_EQ(texts("kMDItemKeywords").size(), 5'001U);
  EXPECT_EQ(texts("kMDItemAuthorEmailAddresses").size(), 1U);
  EXPECT_THAT(texts("kMDItemAdditionalRecipients"), ElementsAre("b@b.test"));
  EXPECT_THAT(message_.incomplete, ElementsAre(kCut));
}

TEST_F(HostileMail, HeaderFieldsBeyondTheLimitAreLeftOut) {
  parse("Subject: found\n" + repeated("X-A: b\n", 9'999) + "To: a@b.test\n folded\n\nbody");
  EXPECT_EQ(text("kMDItemSubject"), "found");
  EXPECT_TRUE(texts("kMDItemPrimaryRecipients").empty());
  EXPECT_EQ(message_.textContent, "body");
  EXPECT_THAT(message_.incomplete, ElementsAre("more than 10000 header fields"));
}

TEST_F(HostileMail, ContentFieldsBeyondTheLimitAreLeftOut) {
  parse("Content-Type: text/plain" + repeated("; p=q\n ", 20'000) + "\nSubject: found\n\nbody");
  EXPECT_EQ(text("kMDItemSubject"), "found");
  EXPECT_EQ(message_.textContent, "body");
  EXPECT_THAT(message_.incomplete, ElementsAre("more than 131072 bytes of Content fields"));
}

TEST_F(HostileMail, LinesThatLookLikeBoundariesAreComparedOnlySoOften) {
  std::string mail = "Subject: found\n";
  for (int i = 10; i < 100; ++i) {
    const std::string boundary = "b" + std::to_string(i);
    mail.append("Content-Type: multipart/mixed; boundary=").append(boundary);
    mail.append("\n\n--").append(boundary).append("\n");
  }
  parse(mail + "\n" + repeated("-- \n", 100'000));
  EXPECT_EQ(text("kMDItemSubject"), "found");
  EXPECT_THAT(message_.incomplete, ElementsAre("too many lines that look like boundaries"));
}

TEST_F(HostileMail, ManyEncodedWordsTakeLinearTime) {
  parse("Subject: " + repeated("=?utf-8?Q?x?= ", 60'000) + "\n\nbody");
  EXPECT_EQ(text("kMDItemSubject").size(), 60'000U);
  parse("Subject: " + repeated("=?a?q?x", 140'000) + "\n\nbody");
  EXPECT_EQ(text("kMDItemSubject").size(), 980'000U);
  parse("Subject: " + repeated("=?nobody?q?x?= ", 60'000) + "\n\nbody");
  EXPECT_EQ(text("kMDItemSubject").size(), 60'000U);
  parse("Subject: " + repeated("=?a?x? ", 140'000) + "?=\n\nbody");
  EXPECT_EQ(text("kMDItemSubject").size(), 980'002U);
}

TEST_F(HostileMail, CharsetsBeyondAHundredInOneMessageAreTakenAsUnknown) {
  std::string words;
  for (int i = 0; i < 40'000; ++i) words += "=?odd-" + std::to_string(i) + "?q?x?= ";
  parse("Subject: " + words + "=?koi8-r?q?=C1?=\n\nbody");
  EXPECT_THAT(text("kMDItemSubject"), EndsWith("x\xC3\x81"));
  parse("Subject: =?koi8-r?q?=C1?=\n\nbody");
  EXPECT_EQ(text("kMDItemSubject"), "\xD0\xB0");
}

TEST_F(HostileMail, PartsBeyondTheLimitAreCut) {
  parse("Subject: found\nContent-Type: multipart/mixed; boundary=\"b\"\n\n" +
        repeated("--b\nContent-Type: text/plain\n\nx\n", 20'000));
  EXPECT_EQ(text("kMDItemSubject"), "found");
  EXPECT_THAT(message_.incomplete, ElementsAre("more than 1000 parts"));
  EXPECT_EQ(message_.textContent.size(), 2 * 1'000U - 1);
}

TEST_F(HostileMail, PartsOfABoundaryInPiecesAreCountedToo) {
  parse("Subject: found\nContent-Type: multipart/mixed; boundary*0=b; boundary*1=c\n\n" +
        repeated("--bc\n\nx\n", 20'000));
  EXPECT_THAT(message_.incomplete, ElementsAre("more than 1000 parts"));
}

TEST_F(HostileMail, DeepPartsAreCut) {
  std::string mail = "Subject: found\n";
  for (int i = 0; i < 5'000; ++i) {
    const std::string boundary = "b" + std::to_string(i);
    mail.append("Content-Type: multipart/mixed; boundary=").append(boundary);
    mail.append("\n\n--").append(boundary).append("\n");
  }
  parse(mail);
  EXPECT_EQ(text("kMDItemSubject"), "found");
  EXPECT_THAT(message_.incomplete, ElementsAre("parts nested more than 100 deep"));
}

TEST_F(HostileMail, DeepMessagesAreCut) {
  parse("Subject: found\n" + repeated("Content-Type: message/rfc822\n\n", 10'000) + "x");
  EXPECT_EQ(text("kMDItemSubject"), "found");
  EXPECT_THAT(message_.incomplete, ElementsAre("parts nested more than 100 deep"));
}

TEST_F(HostileMail, DeepCommentsAndGroupsAndQuotesAreRead) {
  parse("Subject: found\nFrom: " + repeated("(", 200'000) + " a@b.test\nTo: " +
        repeated("g:", 100'000) + "\nCc: " + repeated("\"", 200'001) + "\n\nbody");
  EXPECT_EQ(text("kMDItemSubject"), "found");
}

TEST_F(HostileMail, ManyParametersTakeLinearTime) {
  std::string type = "Content-Type: text/plain";
  for (int i = 0; i < 40'000; ++i) type += "; n*" + std::to_string(i) + "*=x";
  parse("Subject: found\n" + type + "\n\nbody");
  EXPECT_EQ(text("kMDItemSubject"), "found");
}

TEST_F(HostileMail, ALongLineIsReadUpToTheLimitOfText) {
  limits_.textBytes = 1'000;
  parse("Subject: found\n\n" + std::string(8 << 20, 'x'));
  EXPECT_EQ(message_.textContent.size(), 1'000U);
  EXPECT_THAT(message_.incomplete, ElementsAre("more than 1000 bytes of text"));
  parse("Subject: found\nX: " + std::string(8 << 20, 'x'));
  EXPECT_EQ(text("kMDItemSubject"), "found");
}

TEST_F(HostileMail, TextIsNotCutInsideACharacter) {
  limits_.textBytes = 10;
  parse("Content-Type: text/plain; charset=utf-8\n\n" + repeated("\u20AC", 100));
  EXPECT_EQ(message_.textContent, "\u20AC\u20AC\u20AC");
}

TEST_F(HostileMail, AFileBeyondTheLimitIsReadUpToIt) {
  limits_.fileBytes = 40;
  place_.facts.size = 1000;
  parse("Subject: found\n\n" + std::string(1000, 'x'));
  EXPECT_EQ(message_.textContent.size(), 24U);
  EXPECT_THAT(message_.incomplete, ElementsAre("longer than 40 bytes"));
}

TEST_F(HostileMail, NulBytesAreSpaces) {
  parse(std::string("Subject: a\0b\n\nc\0d\n", 18));
  EXPECT_EQ(text("kMDItemSubject"), "a b");
  EXPECT_EQ(message_.textContent, "c d");
}

TEST_F(HostileMail, UnclosedMarkupIsReadInLinearTime) {
  for (const char* piece : {"<a ", "<!-", "<a=\"", "<script", "&#", "<a='>\"", "</"}) {
    parse("Content-Type: text/html\n\nstart " + repeated(piece, 300'000));
    EXPECT_THAT(message_.textContent, HasSubstr("start")) << piece;
  }
}

TEST_F(HostileMail, TextIsAlwaysUtf8) {
  for (const char* charset : {"utf-8", "utf-16", "iso-2022-jp", "gb18030", "utf-7", "us-ascii"}) {
    parse(std::string("Subject: =?") + charset +
          "?Q?=FF=FE=80=00=1B?=\nContent-Type: text/plain; "
          "charset=" +
          charset + "\n\n\xFF\xFE\x80\x1B$B\x00 ok");
    EXPECT_TRUE(Value(text("kMDItemSubject")).asText());
    const std::string& body = message_.textContent;
    EXPECT_EQ(body.find('\0'), std::string::npos);
  }
}

TEST_F(MessageReading, SeveralThreadsMayReadAtOnce) {
  std::vector<std::thread> threads;
  threads.reserve(3);
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([this] {
      for (int round = 0; round < 30; ++round) {
        const ParsedMessage parsed = MessageParser().parse(kAlternative, place_);
        EXPECT_EQ(parsed.textContent, "the plain");
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

TEST(MessageFiles, OnlyRegularFilesAreRead) {
  const testing_support::TemporaryFolder folder;
  testing_support::writeFile(folder / "file", "0123456789");
  const auto whole = readMessageFile(folder / "file", 100);
  ASSERT_TRUE(whole);
  EXPECT_EQ(whole->bytes, "0123456789");
  EXPECT_EQ(whole->facts.size, 10);
  EXPECT_EQ(readMessageFile(folder / "file", 4)->bytes, "0123");
  ASSERT_EQ(::mkfifo((folder / "fifo").c_str(), 0600), 0);
  EXPECT_FALSE(readMessageFile(folder / "fifo", 100)) << "and does not block";
  EXPECT_FALSE(readMessageFile(folder.path(), 100));
  EXPECT_EQ(readMessageFile(folder / "missing", 100).error().code, ENOENT);
}

}  // namespace
}  // namespace thmp
