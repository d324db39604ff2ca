// SPDX-License-Identifier: Apache-2.0
#include "platform/linux/LinuxApplication.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "base/plist.h"
#include "platform/linux/LinuxPlatform.h"
#include "platform/linux/LinuxSerialQueue.h"
#include "platform/linux/posix_io.h"
#include "platform/linux/testing.h"

namespace thmp {
namespace {

using testing::TemporaryFolder;

class LinuxApplicationTest : public ::testing::Test {
 protected:
  XdgFolders folders() const {
    XdgFolders folders;
    folders.home = folder_.path();
    folders.data = folder_.at("data");
    folders.config = folder_.at("config");
    folders.cache = folder_.at("cache");
    folders.runtime = folder_.at("run");
    return folders;
  }

  const TemporaryFolder folder_;
  testing::CollectingLog log_;
  LinuxExecution execution_{log_};
  LinuxApplication application_{folders(), execution_, log_};
};

TEST_F(LinuxApplicationTest, QuitIsToldOnceOnly) {
  const auto observer = std::make_shared<int>(0);
  int calls = 0;
  application_.observeWillTerminate(observer, [&] {
    ++calls;
    application_.postWillTerminate();
  });
  application_.postWillTerminate();
  application_.postWillTerminate();
  EXPECT_EQ(calls, 1);
}

TEST_F(LinuxApplicationTest, ActivationComesAsOftenAsItIsGiven) {
  const auto observer = std::make_shared<int>(0);
  int calls = 0;
  application_.observeDidBecomeActive(observer, [&] { ++calls; });
  application_.postDidBecomeActive();
  application_.postDidBecomeActive();
  EXPECT_EQ(calls, 2);
}

TEST_F(LinuxApplicationTest, QuitClientReachesTheObservers) {
  const auto observer = std::make_shared<int>(0);
  std::vector<TerminatedApplication> notices;
  // From another thread, as any may register.
  std::thread([&] {
    application_.observeApplicationTerminated(observer, [&](const TerminatedApplication& notice) {
      notices.push_back(notice);
      execution_.mainQueue().stop();
    });
  }).join();
  testing::makeFolder(folder_.at("run/tallyhive/applications"));
  testing::Child client([&] {
    const std::string path =
        folder_.at("run/tallyhive/applications/com.example.client." + std::to_string(::getpid()));
    Descriptor file = openAt(AT_FDCWD, path, O_RDWR | O_CREAT, 0600);
    ::flock(file.get(), LOCK_EX);
    static_cast<void>(file.release());
    return std::string("ready");
  });
  EXPECT_TRUE(application_.hasRunningApplication("com.example.client"));
  execution_.mainQueue().post([&] { client.kill(); });
  ASSERT_TRUE(testing::runUntilStopped(execution_.mainQueue()));
  ASSERT_EQ(notices.size(), 1U);
  EXPECT_EQ(notices[0].bundleIdentifier, Value("com.example.client"));
  EXPECT_EQ(notices[0].applicationBundleIdentifier, Value("com.example.client"));
  EXPECT_FALSE(application_.hasRunningApplication("com.example.client"));
}

TEST_F(LinuxApplicationTest, FolderOfApplicationsIsMadePrivateWhenItIsNeeded) {
  EXPECT_FALSE(testing::exists(folder_.at("run")));
  const auto observer = std::make_shared<int>(0);
  application_.observeApplicationTerminated(observer, [](const TerminatedApplication&) {});
  EXPECT_EQ(testing::modeOf(folder_.at("run/tallyhive/applications")), 0700U);
  EXPECT_TRUE(log_.lines().empty());
}

TEST_F(LinuxApplicationTest, RefusedRuntimeFolderIsToldAndNothingElse) {
  testing::writeFile(folder_.at("run"), "in the way");
  const auto observer = std::make_shared<int>(0);
  application_.observeApplicationTerminated(observer, [](const TerminatedApplication&) {});
  ASSERT_EQ(log_.lines().size(), 1U);
  EXPECT_TRUE(log_.lines()[0].starts_with("tallyhive: ")) << log_.lines()[0];
  EXPECT_FALSE(application_.hasRunningApplication("com.example.client"));
}

TEST_F(LinuxApplicationTest, ErrorsAndAlertsStandInTheLogWhole) {
  Error error{"Domain", 1, "Failed to do it", nullptr};
  error.underlying = std::make_shared<Error>(Error::posix(ENOSPC, "cannot make the folder /x"));
  application_.presentError(error);
  application_.runAlert(Alert{"Needs an update", "Please install.\n\nAgain.", "OK"});
  ASSERT_EQ(log_.lines().size(), 2U);
  EXPECT_EQ(log_.lines()[0], "tallyhive: " + error.text());
  EXPECT_EQ(log_.lines()[1], "tallyhive: Needs an update: Please install.\n\nAgain.");
}

TEST_F(LinuxApplicationTest, ChooserIsCancelledWithoutAQuestion) {
  FolderChooserRequest request;
  bool asked = false;
  request.shouldEnable = [&](const Url&) { return asked = true; };
  const FolderChooserAnswer answer = application_.chooseFolder(request);
  EXPECT_EQ(answer.response, ModalResponse::kCancel);
  EXPECT_TRUE(answer.folder.empty());
  EXPECT_FALSE(asked);
}

TEST_F(LinuxApplicationTest, InformationIsTheBundlesOrEmpty) {
  EXPECT_TRUE(application_.pluginInformation().empty());
  const std::string bundle = folder_.at("a.mailbundle");
  application_.setPluginBundle(bundle);
  EXPECT_TRUE(application_.pluginInformation().empty());
  testing::makeFolder(bundle + "/Contents");
  const std::string file = bundle + "/Contents/Info.plist";
  for (const char* text : {"", "garbage", "<plist><array/></plist>", "<plist><dict>"}) {
    testing::writeFile(file, text);
    EXPECT_TRUE(application_.pluginInformation().empty()) << text;
  }
  testing::writeFile(
      file, "<plist><dict><key>CFBundleVersion</key><string>3.1-310</string></dict></plist>");
  EXPECT_EQ(application_.pluginInformation()["CFBundleVersion"], Value("3.1-310"));
}

TEST_F(LinuxApplicationTest, BookmarkOfAReplacedFolderIsStale) {
  testing::makeFolder(folder_.at("data"));
  const auto bookmark = application_.makeBookmark(Url::file(folder_.at("data")));
  ASSERT_TRUE(bookmark);
  // Kept, so that the new folder cannot have its number.
  std::filesystem::rename(folder_.at("data"), folder_.at("aside"));
  EXPECT_FALSE(application_.resolveBookmark(*bookmark));
  testing::makeFolder(folder_.at("data"));
  const auto resolved = application_.resolveBookmark(*bookmark);
  ASSERT_TRUE(resolved);
  EXPECT_TRUE(resolved->stale);
  EXPECT_EQ(resolved->url, Url::file(folder_.at("data")));
}

TEST_F(LinuxApplicationTest, BookmarkIsMadeOfAnExistingFolderOnly) {
  testing::writeFile(folder_.at("file"), "x");
  EXPECT_FALSE(application_.makeBookmark(Url::file(folder_.at("none"))));
  EXPECT_FALSE(application_.makeBookmark(Url::file(folder_.at("file"))));
  EXPECT_FALSE(application_.makeBookmark(Url::file("")));
  EXPECT_FALSE(application_.makeBookmark(Url("http", folder_.path())));
  EXPECT_FALSE(application_.makeBookmark(Url()));
}

TEST_F(LinuxApplicationTest, BookmarkOfOddContentLeadsNowhere) {
  for (const Value& value :
       {Value(Array{1}), Value(Dictionary{}), Value(Dictionary{{"path", 1}}),
        Value(Dictionary{{"path", "relative"}}), Value(Dictionary{{"path", "/none/here"}}),
        Value(Dictionary{{"path", std::string("/\0", 2)}})}) {
    const auto bytes = writeBinaryPropertyList(value);
    ASSERT_TRUE(bytes);
    EXPECT_FALSE(application_.resolveBookmark(Data{*bytes}));
  }
  const auto untyped =
      writeBinaryPropertyList(Dictionary{{"path", folder_.path()}, {"device", "x"}, {"inode", -1}});
  const auto resolved = application_.resolveBookmark(Data{untyped.value_or("")});
  ASSERT_TRUE(resolved);
  EXPECT_TRUE(resolved->stale);
}

TEST_F(LinuxApplicationTest, PlatformPutsEveryPartInItsFolder) {
  LinuxPlatform platform(folders());
  platform.preferences().set("key", 1);
  EXPECT_TRUE(platform.preferences().flush());
  EXPECT_TRUE(testing::exists(folder_.at("config/tallyhive-mailhost/defaults.plist")));
  EXPECT_EQ(platform.files().applicationSupportDirectory(), folder_.at("data"));
  EXPECT_EQ(platform.identity().processHome(), folder_.path());
  const auto pasteboard = platform.pasteboards().makeUnique(nullptr);
  ASSERT_NE(pasteboard, nullptr);
  EXPECT_TRUE(testing::exists(folder_.at("cache/tallyhive/pasteboards/" + pasteboard->name())));
  EXPECT_TRUE(platform.execution().mainQueue().isCurrent());
}

}  // namespace
}  // namespace thmp
