// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/PasteboardStore.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <ostream>
#include <thread>

#include "base/plist.h"
#include "platform/linux/PasteboardReader.h"
#include "platform/linux/posix_io.h"
#include "platform/linux/testing.h"
#include "tests/support/child_process.h"

namespace thmp {
namespace {

using testing::Child;
using testing::TemporaryFolder;

constexpr char kType[] = " com.example.Batch";
constexpr char kFileName[] = "%20com.example.Batch";

class PasteboardStoreTest : public ::testing::Test {
 protected:
  std::string root() const { return cache_.at("tallyhive/pasteboards"); }
  std::string locks() const { return cache_.at("tallyhive/pasteboards.locks"); }
  std::string folderOf(const Pasteboard& pasteboard) const {
    return root() + "/" + pasteboard.name();
  }

  static std::shared_ptr<Pasteboard> makeWith(PasteboardStore& store, const Value& content) {
    Error error;
    auto pasteboard = store.makeUnique(&error);
    EXPECT_NE(pasteboard, nullptr) << error.text();
    pasteboard->declareType(kType);
    EXPECT_TRUE(pasteboard->setPropertyList(content, kType, &error)) << error.text();
    return pasteboard;
  }

  Value read(const std::string& name) const {
    return PasteboardReader(cache_.path()).read(name, kType).value_or(Value());
  }

  const TemporaryFolder cache_;
  testing::CollectingLog log_;
};

TEST_F(PasteboardStoreTest, LayoutIsOneFolderAPasteboardAndOneFileAType) {
  PasteboardStore store(cache_.path(), log_);
  const auto pasteboard = store.makeUnique(nullptr);
  ASSERT_NE(pasteboard, nullptr);
  EXPECT_EQ(testing::namesIn(root()), std::vector<std::string>{pasteboard->name()});
  EXPECT_TRUE(testing::namesIn(folderOf(*pasteboard)).empty());
  ASSERT_TRUE(pasteboard->setPropertyList(Dictionary{{"key", 1}}, kType));
  EXPECT_EQ(testing::namesIn(folderOf(*pasteboard)), std::vector<std::string>{kFileName});
  const std::string bytes = testing::readFile(folderOf(*pasteboard) + "/" + kFileName);
  EXPECT_TRUE(bytes.starts_with("bplist00"));
  EXPECT_EQ(readPropertyList(bytes, kBatchLimits), Value(Dictionary{{"key", 1}}));
  pasteboard->clearContents();
  EXPECT_TRUE(testing::namesIn(folderOf(*pasteboard)).empty());
  pasteboard->releaseGlobally();
  EXPECT_TRUE(testing::namesIn(root()).empty());
}

TEST_F(PasteboardStoreTest, EverythingIsPrivateWhateverTheUmask) {
  for (const mode_t mask : {mode_t{0}, mode_t{0777}}) {
    const mode_t before = ::umask(mask);
    PasteboardStore store(cache_.at("new/cache"), log_);
    const auto pasteboard = makeWith(store, 1);
    ::umask(before);
    const std::string ours = cache_.at("new/cache/tallyhive");
    const std::string folder = ours + "/pasteboards/" + pasteboard->name();
    for (const std::string& path : {cache_.at("new"), cache_.at("new/cache"), ours,
                                    ours + "/pasteboards", ours + "/pasteboards.locks", folder}) {
      EXPECT_EQ(testing::modeOf(path), 0700U) << path;
    }
    EXPECT_EQ(testing::modeOf(folder + "/" + kFileName), 0600U);
    const auto locks = testing::namesIn(ours + "/pasteboards.locks");
    ASSERT_EQ(locks.size(), 1U);
    EXPECT_EQ(testing::modeOf(ours + "/pasteboards.locks/" + locks[0]), 0600U);
    std::filesystem::remove_all(cache_.at("new"));
  }
}

TEST_F(PasteboardStoreTest, NamesCarryTheTokenOfTheLockFileAnd128RandomBits) {
  PasteboardStore store(cache_.path(), log_);
  const auto pasteboard = store.makeUnique(nullptr);
  const auto tokens = testing::namesIn(locks());
  ASSERT_EQ(tokens.size(), 1U);
  EXPECT_TRUE(pasteboard->name().starts_with(tokens[0] + "-"));
  EXPECT_EQ(pasteboard->name().size(), tokens[0].size() + 1 + 32);
}

TEST(PasteboardFolderNames, EncodeEveryByteButTheNamedOnes) {
  EXPECT_EQ(PasteboardFolder::fileName("aZ09._-~"), "aZ09._-~");
  EXPECT_EQ(PasteboardFolder::fileName(" a/b%"), "%20a%2Fb%25");
  EXPECT_EQ(PasteboardFolder::fileName("\u00e9"), "%C3%A9");
  EXPECT_EQ(PasteboardFolder::fileName(std::string_view("\0\x7f", 2)), "%00%7F");
  for (const char* name : {"", ".", ".."})
    EXPECT_EQ(PasteboardFolder::fileName(name), std::nullopt);
}

TEST_F(PasteboardStoreTest, TypeThatGivesNoFileNameIsRefused) {
  PasteboardStore store(cache_.path(), log_);
  const auto pasteboard = store.makeUnique(nullptr);
  for (const std::string& type : {std::string(), std::string(".."), std::string(300, 'x')}) {
    Error error;
    EXPECT_FALSE(pasteboard->setPropertyList(1, type, &error)) << type;
    EXPECT_TRUE(error.isSet());
  }
  EXPECT_EQ(testing::namesIn(root()).size(), 1U);
}

TEST_F(PasteboardStoreTest, ReaderThatHasItOpenKeepsTheOldContent) {
  PasteboardStore store(cache_.path(), log_);
  const auto pasteboard = makeWith(store, std::string(10'000, 'a'));
  const std::string path = folderOf(*pasteboard) + "/" + kFileName;
  const std::string before = testing::readFile(path);
  const Descriptor open = openAt(AT_FDCWD, path, O_RDONLY);
  pasteboard->clearContents();
  ASSERT_TRUE(pasteboard->setPropertyList(std::string(20'000, 'b'), kType));
  EXPECT_EQ(readRegularFile(open.get(), 1 << 20), before);
}

TEST_F(PasteboardStoreTest, ReaderInAnotherProcessNeverSeesAMix) {
  PasteboardStore store(cache_.path(), log_);
  const auto pasteboard = makeWith(store, std::string(5'000, 'a'));
  // The child reads until the folder is gone, and says by its status whether all it saw was whole.
  const pid_t child = ::fork();
  if (child == 0) {
    const PasteboardReader reader(cache_.path());
    for (;;) {
      Error error;
      const auto value = reader.read(pasteboard->name(), kType, kBatchLimits, &error);
      if (value) {
        const std::string_view text = value->asText().value_or("ab");
        if (text.find_first_not_of(text.front()) != std::string_view::npos) ::_exit(1);
      } else if (error.code != ENOENT) {
        ::_exit(2);
      } else if (!testing::exists(root() + "/" + pasteboard->name())) {
        ::_exit(0);
      }
    }
  }
  for (int i = 0; i < 300; ++i) {
    const std::string text(static_cast<std::size_t>(1'000 + i * 50),
                           static_cast<char>('a' + i % 26));
    EXPECT_TRUE(pasteboard->setPropertyList(text, kType));
    if (i % 3 == 0) pasteboard->clearContents();
  }
  pasteboard->releaseGlobally();
  int status = 0;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(PasteboardStoreTest, FailedWriteLeavesNeitherOldNorNewContentNorATemporary) {
  PasteboardStore store(cache_.path(), log_);
  const auto pasteboard = makeWith(store, 1);
  // A limit on the size of files stands in for the full disk; it must not reach other tests.
  const int result = testing::resultInChild([&] {
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {4096, 4096};
    ::setrlimit(RLIMIT_FSIZE, &limit);
    Error error;
    const bool set = pasteboard->setPropertyList(std::string(50'000, 'x'), kType, &error);
    return !set && error.code == EFBIG ? 0 : 1;
  });
  EXPECT_EQ(result, 0);
  EXPECT_TRUE(testing::namesIn(folderOf(*pasteboard)).empty());
  EXPECT_EQ(testing::namesIn(locks()).size(), 1U);
}

TEST_F(PasteboardStoreTest, StoreRemovedUnderItIsMadeAnew) {
  PasteboardStore store(cache_.path(), log_);
  const auto pasteboard = makeWith(store, 1);
  std::filesystem::remove_all(cache_.at("tallyhive"));
  pasteboard->clearContents();
  EXPECT_FALSE(testing::exists(cache_.at("tallyhive")));
  ASSERT_TRUE(pasteboard->setPropertyList(2, kType));
  EXPECT_EQ(read(pasteboard->name()), Value(2));
  std::filesystem::remove_all(cache_.at("tallyhive"));
  const auto another = makeWith(store, 3);
  EXPECT_EQ(read(another->name()), Value(3));
  std::filesystem::remove_all(cache_.at("tallyhive"));
  another->releaseGlobally();
  pasteboard->releaseGlobally();
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(PasteboardStoreTest, LockFileThatACleanerTookIsMadeAnew) {
  PasteboardStore store(cache_.path(), log_);
  const auto first = makeWith(store, 1);
  std::filesystem::remove_all(locks());
  const auto second = makeWith(store, 2);
  // Another host of this user starts.
  const PasteboardStore other(cache_.path(), log_);
  EXPECT_EQ(read(first->name()), Value(1));
  EXPECT_EQ(read(second->name()), Value(2));
}

TEST_F(PasteboardStoreTest, PasteboardsWithoutAnyLockFolderAreRemovedAtStart) {
  testing::makeFolder(root() + "/0123456789abcdef-1");
  const PasteboardStore store(cache_.path(), log_);
  EXPECT_TRUE(testing::namesIn(root()).empty());
  EXPECT_FALSE(testing::exists(locks()));
}

TEST_F(PasteboardStoreTest, LockFileThatAnotherOneReplacedIsMadeAnew) {
  PasteboardStore store(cache_.path(), log_);
  const auto first = makeWith(store, 1);
  const std::string lock = locks() + "/" + testing::namesIn(locks()).at(0);
  ASSERT_EQ(::unlink(lock.c_str()), 0);
  testing::writeFile(lock, "");
  const auto second = makeWith(store, 2);
  const PasteboardStore other(cache_.path(), log_);
  EXPECT_EQ(read(first->name()), Value(1));
  EXPECT_EQ(read(second->name()), Value(2));
}

TEST_F(PasteboardStoreTest, PasteboardsOfADeadHostAreRemovedAtStart) {
  Child host([&] {
    auto* store = new PasteboardStore(cache_.path(), log_);
    const auto pasteboard = makeWith(*store, "left");
    return pasteboard->name();
  });
  ASSERT_FALSE(host.report().empty());
  {
    const PasteboardStore meanwhile(cache_.path(), log_);
    EXPECT_EQ(read(host.report()), Value("left")) << "its host lives";
  }
  host.kill();
  EXPECT_EQ(read(host.report()), Value("left")) << "its clients may still read";
  const PasteboardStore next(cache_.path(), log_);
  EXPECT_TRUE(testing::namesIn(root()).empty());
  EXPECT_TRUE(testing::namesIn(locks()).empty());
}

TEST_F(PasteboardStoreTest, OnlyTheDeadHostsPasteboardsAreRemoved) {
  PasteboardStore store(cache_.path(), log_);
  const auto own = makeWith(store, "own");
  Child living(
      [&] { return makeWith(*new PasteboardStore(cache_.path(), log_), "living")->name(); });
  Child dead([&] { return makeWith(*new PasteboardStore(cache_.path(), log_), "dead")->name(); });
  dead.kill();
  const PasteboardStore next(cache_.path(), log_);
  EXPECT_EQ(read(own->name()), Value("own"));
  EXPECT_EQ(read(living.report()), Value("living"));
  EXPECT_TRUE(read(dead.report()).isNull());
  EXPECT_EQ(testing::namesIn(root()).size(), 2U);
  EXPECT_EQ(testing::namesIn(locks()).size(), 2U);
}

TEST_F(PasteboardStoreTest, LeftoversWithoutAnyHostAreRemovedAtStart) {
  testing::makeFolder(root() + "/some-pasteboard");
  testing::writeFile(root() + "/some-pasteboard/type", "x");
  testing::writeFile(root() + "/stray", "x");
  testing::makeFolder(locks());
  testing::writeFile(locks() + "/0123456789abcdef.tmp-01", "x");
  testing::writeFile(locks() + "/0123456789abcdef", "");
  // Of hosts whose lock file is none, and of nobody.
  testing::makeFolder(locks() + "/folder");
  ASSERT_EQ(::symlink("/dev/null", (locks() + "/link").c_str()), 0);
  for (const char* name : {"/folder-1", "/link-1", "/-1", "/..1"}) {
    testing::makeFolder(root() + name);
  }
  testing::makeFolder(cache_.at("outside"));
  testing::writeFile(cache_.at("outside/kept"), "x");
  ASSERT_EQ(::symlink(cache_.at("outside").c_str(), (root() + "/link").c_str()), 0);
  const PasteboardStore store(cache_.path(), log_);
  EXPECT_TRUE(testing::namesIn(root()).empty());
  EXPECT_TRUE(testing::namesIn(locks()).empty());
  EXPECT_TRUE(testing::exists(cache_.at("outside/kept")));
}

TEST_F(PasteboardStoreTest, StartWithoutAStoreMakesNothing) {
  { const PasteboardStore store(cache_.path(), log_); }
  EXPECT_TRUE(testing::namesIn(cache_.path()).empty());
}

TEST_F(PasteboardStoreTest, EndOfTheStoreTakesItsLockFileAndLeavesContents) {
  std::string name;
  {
    PasteboardStore store(cache_.path(), log_);
    name = makeWith(store, 1)->name();
  }
  EXPECT_TRUE(testing::namesIn(locks()).empty());
  EXPECT_EQ(read(name), Value(1));
}

TEST_F(PasteboardStoreTest, HostsThatStartTogetherDoNotTakeEachOthersPasteboards) {
  std::vector<std::thread> hosts;
  hosts.reserve(8);
  for (int i = 0; i < 8; ++i) {
    hosts.emplace_back([&] {
      for (int j = 0; j < 10; ++j) {
        PasteboardStore store(cache_.path(), log_);
        const auto pasteboard = makeWith(store, 1);
        EXPECT_EQ(read(pasteboard->name()), Value(1));
        pasteboard->releaseGlobally();
      }
    });
  }
  for (std::thread& host : hosts) host.join();
  EXPECT_TRUE(testing::namesIn(root()).empty());
}

TEST_F(PasteboardStoreTest, NoDescriptorIsKeptForAPasteboard) {
  PasteboardStore store(cache_.path(), log_);
  const auto first = makeWith(store, 1);
  const std::size_t before = testing::openDescriptors();
  std::vector<std::shared_ptr<Pasteboard>> made;
  made.reserve(20);
  for (int i = 0; i < 20; ++i) made.push_back(makeWith(store, i));
  EXPECT_EQ(testing::openDescriptors(), before);
}

/// What stands where the store should, and whether it is taken.
struct Layout {
  const char* name;
  std::function<void(const std::string& cache)> arrange;
  bool usable;
  bool told;
};

void PrintTo(const Layout& layout, std::ostream* out) { *out << layout.name; }

class PasteboardStoreLayouts : public ::testing::TestWithParam<Layout> {};

void link(const std::string& target, const std::string& path) {
  EXPECT_EQ(::symlink(target.c_str(), path.c_str()), 0);
}

const Layout kLayouts[] = {
    {"Nothing", [](const std::string&) {}, true, false},
    {"OwnFolderOpenToAll",
     [](const std::string& cache) {
       testing::makeFolder(cache + "/tallyhive/pasteboards");
       ::chmod((cache + "/tallyhive").c_str(), 0777);
       ::chmod((cache + "/tallyhive/pasteboards").c_str(), 0755);
     },
     true, false},
    {"OwnFolderWithoutAnyRight",
     [](const std::string& cache) {
       testing::makeFolder(cache + "/tallyhive/pasteboards");
       ::chmod((cache + "/tallyhive/pasteboards").c_str(), 0);
     },
     true, false},
    {"LinkedProgramFolder",
     [](const std::string& cache) {
       testing::makeFolder(cache + "/outside");
       link(cache + "/outside", cache + "/tallyhive");
     },
     false, true},
    {"LinkedStore",
     [](const std::string& cache) {
       testing::makeFolder(cache + "/outside");
       testing::makeFolder(cache + "/tallyhive");
       link(cache + "/outside", cache + "/tallyhive/pasteboards");
     },
     false, true},
    {"LinkedLocks",
     [](const std::string& cache) {
       testing::makeFolder(cache + "/outside");
       testing::makeFolder(cache + "/tallyhive");
       link(cache + "/outside", cache + "/tallyhive/pasteboards.locks");
     },
     false, true},
    {"LinkThatLeadsNowhere",
     [](const std::string& cache) { link(cache + "/none", cache + "/tallyhive"); }, false, true},
    {"FileInPlaceOfTheProgramFolder",
     [](const std::string& cache) { testing::writeFile(cache + "/tallyhive", "x"); }, false, true},
    {"FileInPlaceOfTheStore",
     [](const std::string& cache) {
       testing::makeFolder(cache + "/tallyhive");
       testing::writeFile(cache + "/tallyhive/pasteboards", "x");
     },
     false, true},
    {"FifoInPlaceOfTheStore",
     [](const std::string& cache) {
       testing::makeFolder(cache + "/tallyhive");
       EXPECT_EQ(::mkfifo((cache + "/tallyhive/pasteboards").c_str(), 0600), 0);
     },
     false, true},
    {"SomebodyElsesProgramFolder",
     [](const std::string& cache) {
       testing::makeFolder(cache + "/tallyhive");
       testing::giveAway(cache + "/tallyhive");
     },
     false, true},
    {"SomebodyElsesStore",
     [](const std::string& cache) {
       testing::makeFolder(cache + "/tallyhive/pasteboards");
       testing::giveAway(cache + "/tallyhive/pasteboards");
     },
     false, true},
    {"FileInPlaceOfTheCache",
     [](const std::string& cache) {
       std::filesystem::remove_all(cache);
       testing::writeFile(cache, "x");
     },
     false, false},
};

void expectUsedOrRefused(const Layout& layout, const std::string& cache) {
  testing::makeFolder(cache);
  layout.arrange(cache);
  testing::CollectingLog log;
  PasteboardStore store(cache, log);
  for (int i = 0; i < 3; ++i) {
    Error error;
    const auto pasteboard = store.makeUnique(&error);
    EXPECT_EQ(pasteboard != nullptr, layout.usable) << error.text();
    EXPECT_EQ(error.isSet(), !layout.usable);
    if (!pasteboard) continue;
    EXPECT_TRUE(pasteboard->setPropertyList(1, kType));
  }
  const auto lines = log.lines();
  EXPECT_EQ(lines.size(), layout.told ? 1U : 0U);
  for (const std::string& line : lines) EXPECT_TRUE(line.starts_with("tallyhive: ")) << line;
  if (testing::exists(cache + "/outside")) {
    EXPECT_TRUE(testing::namesIn(cache + "/outside").empty());
  }
  if (layout.told) ::testing::Test::RecordProperty("bad_inputs", 1);
  if (layout.usable) {
    EXPECT_EQ(testing::modeOf(cache + "/tallyhive"), 0700U);
    EXPECT_EQ(testing::modeOf(cache + "/tallyhive/pasteboards"), 0700U);
  }
}

TEST_P(PasteboardStoreLayouts, AreUsedOrRefusedWithOneLine) {
  const TemporaryFolder folder;
  const auto play = [&] { expectUsedOrRefused(GetParam(), folder.at("cache")); };
  if (std::string_view(GetParam().name).starts_with("SomebodyElses")) {
    testing::whereOneMayMount(play);
  } else {
    play();
  }
}

INSTANTIATE_TEST_SUITE_P(Attack, PasteboardStoreLayouts, ::testing::ValuesIn(kLayouts),
                         [](const auto& layout) { return std::string(layout.param.name); });

TEST_F(PasteboardStoreTest, PlantedEntriesInAPasteboardAreNotFollowed) {
  PasteboardStore store(cache_.path(), log_);
  const auto pasteboard = makeWith(store, 1);
  testing::writeFile(cache_.at("victim"), "kept");
  const std::string path = folderOf(*pasteboard) + "/" + kFileName;
  ASSERT_EQ(::unlink(path.c_str()), 0);
  link(cache_.at("victim"), path);
  EXPECT_FALSE(PasteboardReader(cache_.path()).read(pasteboard->name(), kType));
  ASSERT_TRUE(pasteboard->setPropertyList(2, kType));
  EXPECT_EQ(testing::readFile(cache_.at("victim")), "kept");
  EXPECT_EQ(read(pasteboard->name()), Value(2));
  testing::makeFolder(folderOf(*pasteboard) + "/folder");
  pasteboard->clearContents();
  EXPECT_TRUE(testing::namesIn(folderOf(*pasteboard)).empty());
}

TEST_F(PasteboardStoreTest, LinkInPlaceOfAPasteboardIsNotFollowed) {
  PasteboardStore store(cache_.path(), log_);
  const auto pasteboard = makeWith(store, 1);
  testing::makeFolder(cache_.at("outside"));
  testing::writeFile(cache_.at("outside/kept"), "x");
  std::filesystem::remove_all(folderOf(*pasteboard));
  link(cache_.at("outside"), folderOf(*pasteboard));
  pasteboard->clearContents();
  EXPECT_FALSE(pasteboard->setPropertyList(2, kType));
  pasteboard->releaseGlobally();
  EXPECT_EQ(testing::namesIn(cache_.at("outside")), std::vector<std::string>{"kept"});
  EXPECT_FALSE(testing::exists(folderOf(*pasteboard)));
}

TEST_F(PasteboardStoreTest, ReaderTakesNoNameThatLeadsElsewhere) {
  PasteboardStore store(cache_.path(), log_);
  const auto pasteboard = makeWith(store, 1);
  const PasteboardReader reader(cache_.path());
  for (const std::string& name :
       {std::string(), std::string("."), std::string(".."), "../pasteboards/" + pasteboard->name(),
        "/" + pasteboard->name(), pasteboard->name() + std::string("\0", 1)}) {
    Error error;
    EXPECT_FALSE(reader.read(name, kType, kBatchLimits, &error)) << name;
    EXPECT_TRUE(error.isSet());
  }
  for (const char* type : {"", ".", ".."}) {
    Error error;
    EXPECT_FALSE(reader.read(pasteboard->name(), type, kBatchLimits, &error)) << type;
    EXPECT_TRUE(error.isSet());
  }
}

TEST_F(PasteboardStoreTest, ReaderKeepsToItsLimits) {
  PasteboardStore store(cache_.path(), log_);
  const auto pasteboard = makeWith(store, std::string(1000, 'x'));
  PropertyListLimits limits = kBatchLimits;
  limits.maxBytes = 500;
  Error error;
  EXPECT_FALSE(PasteboardReader(cache_.path()).read(pasteboard->name(), kType, limits, &error));
  EXPECT_EQ(error.code, EFBIG);
  testing::writeFile(folderOf(*pasteboard) + "/" + kFileName, "garbage");
  EXPECT_FALSE(PasteboardReader(cache_.path()).read(pasteboard->name(), kType));
}

}  // namespace
}  // namespace thmp
