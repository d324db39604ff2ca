// SPDX-License-Identifier: Apache-2.0
//
// A process that is killed at the first of the file calls of an operation, at the second, and so on
// until it comes to its end; and again with half of the bytes written, where the call is a write.
// The long ones at some of their calls only, unless THMP_EVERY_CALL is set.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <set>

#include "base/plist.h"
#include "platform/linux/LinuxPreferences.h"
#include "platform/linux/PasteboardReader.h"
#include "platform/linux/PasteboardStore.h"
#include "platform/linux/posix_io.h"
#include "platform/linux/testing.h"
#include "tests/disk/FileCalls.h"
#include "tests/disk/IndexedMail.h"
#include "tests/disk/RealCenter.h"
#include "tests/disk/next_start.h"

namespace thmp::disk {
namespace {

namespace fs = std::filesystem;
using thmp::testing::CollectingLog;
using thmp::testing::namesIn;
using thmp::testing::TemporaryFolder;

/// `prepare` before each run, `check` after it.
void killAtEachCall(const std::function<void()>& prepare, const std::function<void()>& operation,
                    const std::function<void(bool killed)>& check, int stride = 1) {
  int kills = 0;
  for (int call = 1;; call += stride) {
    for (const bool halfWritten : {false, true}) {
      SCOPED_TRACE("call " + std::to_string(call) + (halfWritten ? ", half written" : ""));
      prepare();
      const End end = killAt(call, halfWritten, operation);
      check(end != End::kClean);
      if (::testing::Test::HasFailure()) return;
      if (end == End::kClean) {
        std::cout << "[          ] " << call - 1 << " calls, " << kills << " kills\n";
        return;
      }
      ++kills;
      if (end != End::kKilledAtWrite) break;
    }
  }
}

/// Whether the slow ones, too, are killed at every call.
bool everyCall() { return std::getenv("THMP_EVERY_CALL") != nullptr; }

/// Long enough that it is written in more than one piece, and that a half of it shows.
Dictionary payload() {
  return {{"token", "one"}, {"text", std::string(20'000, 'x')}, {"numbers", Array{1, 2, 3}}};
}

class KilledAtEachCall : public ::testing::Test {
 protected:
  ~KilledAtEachCall() override { setUnnamedFiles(true); }

  void post();
  void write(const std::string& text);
  void checkDefaults(const std::set<std::string>& allowed);

  const TemporaryFolder folder_;
};

void KilledAtEachCall::post() {
  RealCenter center(folder_.path());
  EXPECT_TRUE(center.post(" a name", payload()));
}

TEST_F(KilledAtEachCall, PostLeavesAWholeMessageOrNone) {
  for (const bool unnamed : {true, false}) {
    setUnnamedFiles(unnamed);
    const auto out = [&]() -> std::string {
      for (const auto& entry : fs::recursive_directory_iterator(folder_.path())) {
        if (entry.path().filename() == "out") return entry.path();
      }
      return {};
    };
    const auto check = [&](bool killed) {
      const std::string place = out();
      std::size_t messages = 0;
      for (const std::string& name : place.empty() ? std::vector<std::string>() : namesIn(place)) {
        if (!isMessageFileName(name)) {
          EXPECT_TRUE(name.starts_with(kTemporaryFilePrefix)) << name;
          continue;
        }
        ++messages;
        const auto root =
            readPropertyList(thmp::testing::readFile(place + "/" + name), kMessageLimits, nullptr);
        ASSERT_TRUE(root) << name;
        EXPECT_TRUE(Value::identical((*root->asDictionary())["userInfo"], Value(payload())));
      }
      EXPECT_LE(messages, 1u);
      EXPECT_TRUE(killed || messages == 1);
      LinuxFiles(folder_.path()).removeTemporaryFiles(place);
      EXPECT_EQ(place.empty() ? 0 : namesIn(place).size(), messages);
    };
    killAtEachCall([&] { fs::remove_all(folder_.at("Mail")); }, [this] { post(); }, check);
  }
}

TEST_F(KilledAtEachCall, BatchIsReadWholeOrNotAtAllAndNothingIsLeftAfterTheNextStart) {
  constexpr char kType[] = " a type";
  Dictionary second = payload();
  second.set("token", "two");
  CollectingLog log;
  const auto operation = [&] {
    PasteboardStore store(folder_.path(), log);
    const auto board = store.makeUnique(nullptr);
    ASSERT_TRUE(board);
    for (const Dictionary& content : {payload(), second}) {
      board->clearContents();
      board->declareType(kType);
      EXPECT_TRUE(board->setPropertyList(content, kType, nullptr));
    }
    board->releaseGlobally();
  };
  const auto namesBelow = [&](const std::string& name) {
    const std::string path = folder_.at("tallyhive/" + name);
    return thmp::testing::exists(path) ? namesIn(path) : std::vector<std::string>();
  };
  const auto check = [&](bool) {
    const PasteboardReader reader(folder_.path());
    for (const std::string& name : namesBelow("pasteboards")) {
      const auto content = reader.read(name, kType);
      if (!content) continue;
      EXPECT_TRUE(Value::identical(*content, Value(payload())) ||
                  Value::identical(*content, Value(second)));
    }
    checkPasteboardsAreGone(folder_.path());
  };
  for (const bool unnamed : {true, false}) {
    setUnnamedFiles(unnamed);
    killAtEachCall([] {}, operation,
                   [&](bool killed) {
                     if (thmp::testing::exists(folder_.at("tallyhive"))) check(killed);
                   });
  }
}

void KilledAtEachCall::write(const std::string& text) {
  CollectingLog log;
  LinuxPreferences preferences(folder_.at("defaults"), log);
  preferences.set("text", text);
  EXPECT_TRUE(preferences.flush());
}

/// Empty stands for no text.
void KilledAtEachCall::checkDefaults(const std::set<std::string>& allowed) {
  CollectingLog log;
  LinuxPreferences preferences(folder_.at("defaults"), log);
  EXPECT_TRUE(allowed.contains(std::string(preferences.get("text").asText().value_or(""))));
  checkDefaultsGoOn(preferences, folder_.at("defaults"), log);
}

TEST_F(KilledAtEachCall, UserDefaultsAreTheOldOnesOrTheNew) {
  const std::string before(30'000, 'a');
  const std::string after(40'000, 'b');
  for (const std::string& old : {std::string(), before}) {
    killAtEachCall(
        [&] {
          fs::remove_all(folder_.at("defaults"));
          if (!old.empty()) write(old);
        },
        [&] { write(after); },
        [&](bool killed) {
          checkDefaults(killed ? std::set<std::string>{old, after} : std::set<std::string>{after});
        });
  }
}

class IndexKilledAtEachCall : public ::testing::Test {
 protected:
  using Operation = void (IndexedMail::*)(const IndexedMail::Told& told);

  /// Keeps what the killed one has told: the pipe outlives it.
  void killAtEach(Operation operation) {
    const std::string kept = mail_.root() + "/kept";
    fs::remove_all(kept);
    if (fs::exists(mail_.state())) fs::copy(mail_.state(), kept, fs::copy_options::recursive);
    const KnownIDs known = fs::exists(kept) ? mail_.idsOfNow() : KnownIDs();
    int ends[2] = {};
    const auto tell = [&](const std::string& subject, std::int64_t id) {
      const std::string line = subject + " " + std::to_string(id) + "\n";
      EXPECT_EQ(::syscall(SYS_write, ends[1], line.data(), line.size()),
                static_cast<long>(line.size()));
    };
    killAtEachCall(
        [&] {
          fs::remove_all(mail_.state());
          if (fs::exists(kept)) fs::copy(kept, mail_.state(), fs::copy_options::recursive);
          ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
        },
        [&] { (mail_.*operation)(tell); },
        [&](bool) {
          KnownIDs told = known;
          std::string lines(1 << 16, '\0');
          const ssize_t count = ::read(ends[0], lines.data(), lines.size());
          std::istringstream words(
              lines.substr(0, count > 0 ? static_cast<std::size_t>(count) : 0));
          std::string subject;
          for (std::int64_t id = 0; words >> subject >> id;) {
            EXPECT_EQ(told.try_emplace(subject, id).first->second, id) << subject;
          }
          mail_.checkNextStart(told);
          ::close(ends[0]);
          ::close(ends[1]);
        },
        everyCall() ? 1 : 10);
  }

  IndexedMail mail_;
};

TEST_F(IndexKilledAtEachCall, FirstBuildIsGoneOnWith) {
  mail_.makeNewMail();
  killAtEach(&IndexedMail::update);
}

TEST_F(IndexKilledAtEachCall, ChangesAreMadeGood) {
  mail_.makeChangedMail();
  killAtEach(&IndexedMail::follow);
}

TEST_F(IndexKilledAtEachCall, IndexThatIsMadeAnewIsWholeUnderTheIDsOfBefore) {
  mail_.makeStaleIndex();
  killAtEach(&IndexedMail::makeAnew);
}

}  // namespace
}  // namespace thmp::disk
