// SPDX-License-Identifier: Apache-2.0
//
// Mail with a manifest of what other readers say of it: ours always, and other people's, which is
// no part of the sources, where it is.
#include <sys/stat.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <sstream>

#include "host/store/MailFolders.h"
#include "host/store/MessageParser.h"
#include "host/store/attribute_keys.h"
#include "host/store/test_support.h"

namespace thmp {
namespace {

using testing_support::mailSample;
using Row = std::map<std::string, std::string>;

std::vector<std::string> cut(const std::string& text, char at) {
  std::vector<std::string> pieces;
  std::istringstream in(text);
  for (std::string piece; std::getline(in, piece, at);) pieces.push_back(piece);
  return pieces;
}

std::vector<Row> readManifest(const std::string& sample) {
  std::istringstream in(testing_support::readWhole(sample + "/manifest.tsv"));
  std::string line;
  std::getline(in, line);
  const std::vector<std::string> names = cut(line, '\t');
  std::vector<Row> rows;
  while (std::getline(in, line)) {
    const std::vector<std::string> cells = cut(line, '\t');
    Row row;
    for (std::size_t i = 0; i < names.size(); ++i) {
      row[names[i]] = i < cells.size() ? cells[i] : std::string();
    }
    rows.push_back(std::move(row));
  }
  return rows;
}

std::string joined(const Value& texts) {
  std::string all;
  const Array array = texts.asArray().value_or(Array());
  for (const Value& text : array) {
    if (!all.empty()) all += ",";
    all += text.asText().value_or("?");
  }
  return all;
}

std::string firstOf(const Value& texts) {
  const Array array = texts.asArray().value_or(Array());
  return array.empty() ? std::string() : std::string(array[0].asText().value_or("?"));
}

std::string unixText(const Value& date) {
  const auto value = date.asDate();
  return value ? std::to_string(static_cast<long long>(value->unixSeconds())) : std::string();
}

struct Sample {
  std::string folder;
  int messages;
  double leastAgreeing;  // fields of 100
};

std::vector<Sample> samples() {
  std::vector<Sample> all = {{std::string(THMP_SOURCE_DIR) + "/tests/data/mail", 9, 100}};
  if (const auto found = mailSample()) all.push_back({*found, 624, 99});
  return all;
}

class Comparison {
 public:
  explicit Comparison(std::string sample) : sample_(std::move(sample)) {}

  int compared() const { return compared_; }
  int agreeing() const { return agreeing_; }

  ParsedMessage parse(const Row& row) const {
    const std::string relative = row.at("path");
    auto message = readMessageFile(sample_ + "/" + relative, MessageParser().limits().fileBytes);
    EXPECT_TRUE(message) << relative;
    if (!message) return {};
    MessagePlace place;
    place.fileName = relative.substr(relative.rfind('/') + 1);
    place.isNew = relative.find("/new/") != std::string::npos;
    place.format =
        messageFormat(row.at("format") == "maildir" ? MessageFormat::kMaildir : MessageFormat::kEml,
                      place.fileName);
    place.mailboxIdentifier = "mailbox.test";
    place.facts = message->facts;
    return MessageParser().parse(message->bytes, place);
  }

  void compare(const Row& row, const ParsedMessage& parsed) {
    const Dictionary& have = parsed.attributes;
    const auto text = [&](std::string_view key) {
      return std::string(have[key].asText().value_or(""));
    };
    const auto check = [&](char letter, std::string_view field, const std::string& ours) {
      if (row.at("agree").find(letter) == std::string::npos) return;
      ++compared_;
      std::string theirs = row.at(std::string(field));
      // Without a display name ours is the address.
      if (letter == 'N' && theirs.empty()) theirs = row.at("from_addr");
      if (ours == theirs) {
        ++agreeing_;
      } else {
        std::cout << row.at("path") << "\n  " << field << ": ours   [" << ours << "]\n  "
                  << std::string(field.size(), ' ') << "  theirs [" << theirs << "]\n";
      }
    };
    check('M', "message_id", text("kMDItemIdentifier"));
    check('S', "subject", text("kMDItemSubject"));
    check('F', "from_addr", firstOf(have["kMDItemAuthorEmailAddresses"]));
    check('T', "to_addrs", joined(have["kMDItemPrimaryRecipientEmailAddresses"]));
    check('C', "cc_addrs", joined(parsed.queryOnly["kMDItemAdditionalRecipientEmailAddresses"]));
    check('N', "from_name", firstOf(have["kMDItemAuthors"]));
    check('D', "date", unixText(have["kMDItemContentCreationDate"]));
    if (!row.at("received").empty()) {
      ++compared_;
      const std::string ours = unixText(have["kMDItemMailDateReceived"]);
      agreeing_ += ours == row.at("received");
      if (ours != row.at("received")) {
        std::cout << row.at("path") << "\n  received: " << ours << " theirs " << row.at("received")
                  << "\n";
      }
    }
  }

 private:
  const std::string sample_;
  int compared_ = 0;
  int agreeing_ = 0;
};

TEST(MailSample, EveryMessageIsReadAndAgreesWithOtherReaders) {
  for (const Sample& sample : samples()) {
    Comparison comparison(sample.folder);
    int messages = 0;
    for (const Row& row : readManifest(sample.folder)) {
      const ParsedMessage parsed = comparison.parse(row);
      ++messages;
      for (const std::string& reason : parsed.incomplete) {
        std::cout << row.at("path") << "  incomplete: " << reason << "\n";
      }
      EXPECT_TRUE(parsed.attributes.contains("kMDItemContentType"));
      comparison.compare(row, parsed);
    }
    EXPECT_EQ(messages, sample.messages);
    const double share = 100.0 * comparison.agreeing() / comparison.compared();
    std::cout << comparison.agreeing() << " of " << comparison.compared() << " fields agree ("
              << share << " %)\n";
    EXPECT_GE(share, sample.leastAgreeing) << sample.folder;
  }
}

}  // namespace
}  // namespace thmp
