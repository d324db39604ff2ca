// SPDX-License-Identifier: Apache-2.0
//
// Any sequence of what reaches a plug-in from outside: files of any bytes in the inbox, messages
// whose keys have values of any kind, deliveries of odd items by the engine, disks and pasteboards
// that fail, time that passes, applications that quit. Held throughout: a file that reads as a
// message is taken and gone after its scan, one that does not stays; whatever is posted is a whole
// message with the keys of its kind; and the batches of a query are numbered upwards.
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/plist.h"
#include "messaging/message_names.h"
#include "tests/fuzz/PluginWorld.h"
#include "tests/fuzz/fuzzing.h"

namespace thmp::fuzz {
namespace {

constexpr std::size_t kMaxSteps = 60;
constexpr std::int64_t kMails = 6;

constexpr std::array<const char*, 7> kNames{kConnectName, kSearchName,    kCancelName,
                                            kClearName,   kTerminateName, kQueryDidStartName,
                                            "other"};
constexpr std::array<const char*, 12> kKeys{
    kClientNameKey, kUniqueNameKey,           kLineageNameKey,   kCheckVersionKey,
    kVersionKey,    kActiveNamesKey,          kQueryStringKey,   kSortingAttributeKey,
    kBatchNameKey,  kCompatibilityVersionKey, kSortAscendingKey, kNotificationKey};
constexpr std::array<const char*, 8> kAttributes{
    "_kMDItemExternalID",         "kMDItemPath",    "kMDItemSubject",      "kMDItemDisplayName",
    "kMDItemContentCreationDate", "kMDItemAuthors", "com_apple_mail_read", ""};

class Sequence {
 public:
  explicit Sequence(std::string_view bytes) : decisions_(bytes) {
    for (std::int64_t id = 1; id <= kMails; ++id) world_.addMail(id);
  }

  void play() {
    for (std::size_t step = 0; step < kMaxSteps && !decisions_.atEnd(); ++step) {
      takeStep();
      world_.fake.runUntilIdle();
      checkInbox();
      checkPosted();
    }
    if (decisions_.flag()) world_.fake.application.willTerminate();
    world_.fake.runUntilIdle();
    THMP_FUZZ_CHECK(world_.fake.files.temporaryCount() == 0);
  }

 private:
  // A value of any kind, flat but for arrays and dictionaries of one level more.
  Value value(int depth = 0) {
    switch (decisions_.below(depth < 2 ? 12 : 9)) {
      case 0:
        return decisions_.flag();
      case 1:
        return static_cast<std::int64_t>(decisions_.byte());
      case 2:
        return decisions_.number(8);
      case 3:
        return odd();
      case 4:
        return Date{odd()};
      case 5:
        return Data{std::string(decisions_.text())};
      case 6:
        return "q" + std::to_string(decisions_.below(3));
      case 7:
        return "pb-" + std::to_string(decisions_.below(6));
      case 8:
        return decisions_.text();
      case 9:
      case 10: {
        Array array;
        for (std::size_t left = decisions_.below(4); left > 0; --left) {
          array.push_back(value(depth + 1));
        }
        return array;
      }
      default: {
        Dictionary dictionary;
        for (std::size_t left = decisions_.below(4); left > 0; --left) {
          const std::string key(decisions_.text());
          dictionary.set(key, value(depth + 1));
        }
        return dictionary;
      }
    }
  }

  double odd() {
    static constexpr std::array<double, 6> kOdd{0.5, -1e300, 1e300, 9.3e18, -0.0, 7e8};
    return kOdd[decisions_.below(kOdd.size())];
  }

  void takeStep() {
    switch (decisions_.below(10)) {
      case 0:
        return place(std::string(decisions_.text()));
      case 1:
      case 2:
      case 3:
        return sendMessage();
      case 4:
      case 5:
        return engineDelivers();
      case 6:
        return engineEnds();
      case 7:
        return fail();
      case 8:
        world_.fake.execution.advance(std::chrono::seconds(decisions_.number(2)));
        return;
      default:
        world_.fake.application.applicationTerminated(TerminatedApplication{value(), value()});
    }
  }

  void place(const std::string& bytes) {
    static constexpr std::array<const char*, 5> kFileNames{"a.plist", "b.PLIST", ".plist", "c.txt",
                                                           "..plist"};
    const std::string name = kFileNames[decisions_.below(kFileNames.size())];
    // A file of that name that has been seen is not looked at again while it stays.
    if (world_.fake.files.hasEntry(world_.fake.inbox() + "/" + name)) return;
    world_.fake.files.writeFile(world_.fake.inbox() + "/" + name, bytes);
  }

  void sendMessage() {
    Dictionary userInfo;
    for (std::size_t left = decisions_.below(6); left > 0; --left) {
      const std::size_t key = decisions_.below(kKeys.size());
      userInfo.set(kKeys[key], value());
    }
    Dictionary message;
    message.set(kNameKey, kNames[decisions_.below(kNames.size())]);
    message.set(kUserInfoKey, decisions_.below(8) == 7 ? value() : Value(userInfo));
    if (decisions_.below(16) == 15) message.set(kNameKey, value());
    place(writeBinaryPropertyList(message).value_or(""));
  }

  std::shared_ptr<ScriptedSpotlightQuery> engine() {
    const auto queries = world_.fake.spotlight.queries();
    const std::size_t number = decisions_.byte();
    return number < queries.size() ? queries[number] : world_.fake.spotlight.query();
  }

  void engineDelivers() {
    const auto query = engine();
    std::vector<SpotlightItem> items;
    for (std::size_t left = decisions_.below(5); left > 0; --left) {
      SpotlightItem item = mailItem(static_cast<std::int64_t>(decisions_.below(kMails + 2)));
      if (decisions_.flag()) {
        const std::size_t key = decisions_.below(kAttributes.size());
        item.attributes.set(kAttributes[key], value());
      }
      if (decisions_.below(8) == 7) item.attributes.erase("_kMDItemExternalID");
      items.push_back(std::move(item));
    }
    const std::uint64_t count = decisions_.number(2);
    if (!query) return;
    if (decisions_.flag()) query->setFoundItemCount(count);
    query->deliver(items);
  }

  void engineEnds() {
    const auto query = engine();
    const std::size_t how = decisions_.below(4);
    if (!query) return;
    if (how == 0) query->removed(value());
    if (how == 1) query->gatherEnded();
    if (how == 2) query->complete();
    if (how == 3) query->complete(Error{"engine", 7, std::string(decisions_.text()), nullptr});
  }

  void fail() {
    static constexpr std::array<FileOperation, 3> kOperations{
        FileOperation::kPrepare, FileOperation::kPublish, FileOperation::kDisplayName};
    const std::size_t what = decisions_.below(6);
    if (what < kOperations.size()) world_.fake.files.failOnce(kOperations[what], ENOSPC);
    if (what == 3) world_.fake.pasteboards.failCreation(decisions_.flag());
    if (what == 4) world_.fake.pasteboards.failSetAt(1 + static_cast<int>(decisions_.below(3)));
    if (what == 5) world_.fake.spotlight.failQueries(decisions_.flag());
  }

  // Reading never fails in this world: what is a message is gone, what is none stays.
  void checkInbox() {
    for (const std::string& name : world_.fake.files.entries(world_.fake.inbox())) {
      if (!isMessageFileName(name)) continue;
      const auto bytes = world_.fake.files.contents(world_.fake.inbox() + "/" + name);
      const auto root = readPropertyList(bytes.value_or(""), kMessageLimits);
      THMP_FUZZ_CHECK(!root || root->kind() != Value::Kind::kDictionary);
    }
  }

  void checkPosted() {
    for (const Dictionary& message : world_.takePosted()) {
      const Value& userInfo = message[kUserInfoKey];
      const auto name = message[kNameKey].asText();
      THMP_FUZZ_CHECK(name.has_value());
      THMP_FUZZ_CHECK(userInfo[kCompatibilityVersionKey] == Value(kCompatibilityVersion));
      if (*name == kQueryHasUpdatesName) checkNumber(results_, userInfo);
      if (*name == kQueryHasRemovalsName) checkNumber(removals_, userInfo);
    }
  }

  // A message that could not be posted is a gap for the client, so numbers may jump ahead after a
  // fault of the disk; they never stand still within one query and never go back but to 1.
  void checkNumber(std::map<std::string, std::int64_t>& numbers, const Value& userInfo) {
    const auto query = userInfo[kUniqueNameKey].asText();
    const auto number = userInfo[kBatchNumberKey].asInteger();
    const auto batch = userInfo[kBatchNameKey].asText();
    THMP_FUZZ_CHECK(query && number && batch && *number >= 1);
    std::int64_t& last = numbers[std::string(*query)];
    THMP_FUZZ_CHECK(*number == 1 || *number > last);
    last = *number;
  }

  Decisions decisions_;
  PluginWorld world_;
  std::map<std::string, std::int64_t> results_;
  std::map<std::string, std::int64_t> removals_;
};

}  // namespace

const Bounds kBounds{1, 64 * kMiB};

void runInput(std::string_view bytes) { Sequence(bytes).play(); }

}  // namespace thmp::fuzz
