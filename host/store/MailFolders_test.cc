// SPDX-License-Identifier: Apache-2.0
#include "host/store/MailFolders.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "host/store/folder_names.h"
#include "host/store/test_support.h"

namespace thmp {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using testing_support::makeMaildir;
using testing_support::TemporaryFolder;
using testing_support::writeFile;

class MailFolders : public ::testing::Test {
 protected:
  // Path below the mail folder, format and identifier of each mailbox.
  std::vector<std::string> mailboxes() const {
    std::vector<std::string> all;
    for (const MailFolder& folder : walkMail(root_, root_).mailboxes) {
      EXPECT_EQ(folder.root, root_);
      const char* formats[] = {"maildir", "eml", "emlx"};
      all.push_back(folder.path.substr(root_.size()) + " " +
                    formats[static_cast<int>(folder.format)] + " " + folder.identifier);
    }
    return all;
  }
  MailboxListing list(const std::string& path, MessageFormat format) const {
    auto listing = listMailbox({root_ + path, root_, format, "mailbox.x"});
    EXPECT_TRUE(listing);
    return listing ? *listing : MailboxListing();
  }
  static std::vector<std::string> names(const MailboxListing& listing) {
    std::vector<std::string> all;
    for (const MessageEntry& entry : listing.entries) {
      all.push_back(entry.name + "|" + entry.part + "|" + entry.file);
    }
    return all;
  }

  TemporaryFolder folder_;
  const std::string root_ = folder_ / "mail";
};

TEST_F(MailFolders, MaildirAndItsDottedFoldersAreMailboxes) {
  makeMaildir(root_);
  for (const char* name : {".Sent", ".Lists.kernel", ".Junk", ".INBOX.Drafts"}) {
    makeMaildir(root_ + "/" + name);
  }
  makeMaildir(root_ + "/.International.&ZeVnLIqe-");
  EXPECT_THAT(
      mailboxes(),
      ElementsAre(" maildir mailbox.inbox", "/.INBOX.Drafts maildir mailbox.drafts",
                  "/.International.&ZeVnLIqe- maildir mailbox.international.\u65E5\u672C\u8A9E",
                  "/.Junk maildir mailbox.junk", "/.Lists.kernel maildir mailbox.lists.kernel",
                  "/.Sent maildir mailbox.sent"));
}

TEST_F(MailFolders, NestedMaildirsAreMailboxes) {
  makeMaildir(root_ + "/INBOX");
  makeMaildir(root_ + "/Work/Projects");
  makeMaildir(root_ + "/account");
  makeMaildir(root_ + "/account/.Trash");
  fs::create_directories(root_ + "/NoMail/cur");
  EXPECT_THAT(
      mailboxes(),
      ElementsAre("/INBOX maildir mailbox.inbox", "/Work/Projects maildir mailbox.projects",
                  "/account maildir mailbox.inbox", "/account/.Trash maildir mailbox.trash"));
}

TEST_F(MailFolders, FoldersOfLooseMessagesAreMailboxes) {
  writeFile(root_ + "/Saved/a.eml", "x");
  writeFile(root_ + "/Saved/deep/b.eml", "x");
  writeFile(root_ + "/Loose/1.emlx", "x");
  writeFile(root_ + "/notes/readme.txt", "x");
  EXPECT_THAT(mailboxes(), ElementsAre("/Loose emlx mailbox.loose", "/Saved eml mailbox.saved",
                                       "/Saved/deep eml mailbox.deep"));
}

TEST_F(MailFolders, AnMboxFolderHoldsAllEmlxBelowItAndNoOtherMboxFolder) {
  writeFile(root_ + "/INBOX.mbox/GUID/Data/1/Messages/1.emlx", "x");
  writeFile(root_ + "/INBOX.mbox/GUID/Data/Messages/2.partial.emlx", "x");
  writeFile(root_ + "/INBOX.mbox/Sub.mbox/Messages/3.emlx", "x");
  EXPECT_THAT(mailboxes(), ElementsAre("/INBOX.mbox emlx mailbox.inbox",
                                       "/INBOX.mbox/Sub.mbox emlx mailbox.sub"));
  EXPECT_THAT(names(list("/INBOX.mbox", MessageFormat::kEmlx)),
              ElementsAre("1.emlx|GUID/Data/1/Messages|1.emlx",
                          "2.emlx|GUID/Data/Messages|2.partial.emlx"));
}

TEST_F(MailFolders, LinksToFoldersAreNotFollowedButTheNamedFolderMayBeOne) {
  makeMaildir(folder_ / "real");
  ASSERT_EQ(::symlink((folder_ / "real").c_str(), root_.c_str()), 0);
  ASSERT_EQ(::symlink((folder_ / "real").c_str(), (folder_ / "real/.Loop").c_str()), 0);
  EXPECT_THAT(mailboxes(), ElementsAre(" maildir mailbox.inbox"));
}

TEST_F(MailFolders, AMissingFolderIsNotThere) {
  EXPECT_FALSE(walkMail(root_, root_).rootIsThere);
  EXPECT_FALSE(isReadableFolder(root_));
  fs::create_directories(root_);
  EXPECT_TRUE(walkMail(root_, root_).rootIsThere);
  EXPECT_TRUE(isReadableFolder(root_));
}

TEST_F(MailFolders, AFolderThatGoesAwayDuringAWalkIsNotTakenForGone) {
  constexpr std::size_t kFolders = 30;
  const std::string root = folder_ / "mail";
  for (std::size_t i = 0; i < kFolders; ++i) makeMaildir(root + "/F" + std::to_string(i));
  std::atomic<bool> done{false};
  std::thread mover([&] {
    while (!done) {
      std::error_code ignored;
      fs::rename(root, folder_ / "away", ignored);
      fs::rename(folder_ / "away", root, ignored);
    }
  });
  // Until the folder has gone in the middle of a walk a few times.
  for (int caught = 0; caught < 3;) {
    const MailTree tree = walkMail(root, root);
    if (!tree.rootIsThere) continue;
    caught += tree.mailboxes.size() < kFolders;
    std::size_t vanished = 0;
    for (const std::string& path : tree.vanished) {
      vanished += path.find('/', root.size() + 1) == std::string::npos;
    }
    if (tree.mailboxes.size() + vanished != kFolders) {
      ADD_FAILURE() << tree.mailboxes.size() << " mailboxes, " << vanished << " vanished";
      break;
    }
  }
  done = true;
  mover.join();
}

TEST_F(MailFolders, AnEmptyFolderIsToldFromOneWithSomethingInIt) {
  const std::string path = folder_ / "x";
  fs::create_directories(path);
  const FolderLook before = lookAt(path);
  EXPECT_TRUE(before.isEmpty);
  writeFile(path + "/.hidden", "");
  const FolderLook after = lookAt(path);
  EXPECT_FALSE(after.isEmpty);
  EXPECT_EQ(before.identity, after.identity);
  fs::rename(path, folder_ / "y");
  EXPECT_EQ(lookAt(path).unreadable, "No such file or directory");
  fs::create_directories(path);
  EXPECT_NE(lookAt(path).identity, after.identity);
}

TEST_F(MailFolders, FoldersThatAreNotUtf8AreFailed) {
  makeMaildir(root_ + "/a\xFF");
  const MailTree tree = walkMail(root_, root_);
  EXPECT_THAT(tree.mailboxes, IsEmpty());
  ASSERT_THAT(tree.failed, SizeIs(1));
  EXPECT_EQ(tree.failed[0].path, root_ + "/a%FF");
}

TEST_F(MailFolders, AMaildirsMessagesAreKnownByTheNameBeforeTheirFlags) {
  makeMaildir(root_);
  writeFile(root_ + "/cur/1.a:2,FS", "x");
  writeFile(root_ + "/cur/2.b", "x");
  writeFile(root_ + "/new/0.c", "x");
  writeFile(root_ + "/new/.dot", "x");
  EXPECT_THAT(names(list("", MessageFormat::kMaildir)),
              ElementsAre("0.c|new|0.c", "1.a|cur|1.a:2,FS", "2.b|cur|2.b"));
}

TEST_F(MailFolders, AListingOfAFolderAtRestIsQuiet) {
  makeMaildir(root_);
  const auto past = fs::file_time_type::clock::now() - std::chrono::seconds(10);
  fs::last_write_time(root_ + "/cur", past);
  fs::last_write_time(root_ + "/new", past);
  EXPECT_TRUE(list("", MessageFormat::kMaildir).quiet);
  fs::last_write_time(root_ + "/cur", past + std::chrono::seconds(60));
  EXPECT_FALSE(list("", MessageFormat::kMaildir).quiet) << "its stamp may hide a change";
}

TEST_F(MailFolders, AMailboxWithoutCurIsGone) {
  makeMaildir(root_);
  fs::remove(root_ + "/cur");
  EXPECT_TRUE(list("", MessageFormat::kMaildir).gone);
}

TEST(FolderNames, ModifiedUtf7IsDecodedWhereItIsWellFormed) {
  EXPECT_EQ(decodeModifiedUtf7("Entw&APw-rfe"), "Entw\u00FCrfe");
  EXPECT_EQ(decodeModifiedUtf7("a &- b"), "a & b");
  EXPECT_EQ(decodeModifiedUtf7("&2D3eAA-"), "\U0001F600");
  EXPECT_EQ(decodeModifiedUtf7("R&D"), "R&D");
  EXPECT_EQ(decodeModifiedUtf7("&!-"), "&!-");
}

TEST(FolderNames, DeliverySecondsAreLeadingNumbersInRange) {
  EXPECT_EQ(deliverySecond("1422868272.M1"), 1422868272);
  EXPECT_EQ(deliverySecond("x1"), -1);
  EXPECT_EQ(deliverySecond("-5.x"), -1);
  EXPECT_EQ(deliverySecond("99999999999999999999"), -1);
  EXPECT_EQ(deliverySecond(""), -1);
}

}  // namespace
}  // namespace thmp
