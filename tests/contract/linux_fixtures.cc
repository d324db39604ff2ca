// SPDX-License-Identifier: Apache-2.0
#include "tests/contract/linux_fixtures.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>
#include <utility>

#include "platform/fake/RecordingLog.h"
#include "platform/linux/LinuxPlatform.h"
#include "platform/linux/PasteboardReader.h"
#include "tests/support/child_process.h"

namespace thmp::contract {
namespace {

namespace fs = std::filesystem;

/// A folder that goes with all it holds when the object does.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string path = (fs::temp_directory_path() / "thmp-contract-XXXXXX").string();
    EXPECT_NE(::mkdtemp(path.data()), nullptr);
    path_ = fs::canonical(path).string();
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  const std::string& path() const { return path_; }

  XdgFolders xdgFolders() const {
    return {.home = path_ + "/home",
            .data = path_ + "/home/.local/share",
            .config = path_ + "/home/.config",
            .cache = path_ + "/home/.cache",
            .runtime = path_ + "/run"};
  }

 private:
  std::string path_;
};

class LinuxScene : public Scene {
 public:
  std::string freshFolder() override {
    std::string path = root_.path() + "/" + std::to_string(++folders_);
    makeFolder(path);
    return path;
  }
  void makeFolder(const std::string& path) override {
    std::error_code error;
    fs::create_directories(path, error);
    EXPECT_FALSE(error) << error.message();
  }
  void writeFile(const std::string& path, std::string_view bytes) override {
    makeFolder(fs::path(path).parent_path().string());
    std::ofstream file(path, std::ios::binary);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    EXPECT_TRUE(file.good()) << path;
  }
  void makeLink(const std::string& path, const std::string& target) override {
    EXPECT_EQ(::symlink(target.c_str(), path.c_str()), 0);
  }
  void makeFifo(const std::string& path) override { EXPECT_EQ(::mkfifo(path.c_str(), 0600), 0); }
  void makeUnwritable(const std::string& folder) override {
    EXPECT_EQ(::chmod(folder.c_str(), 0500), 0);
  }
  void makeUnreadable(const std::string& folder) override {
    EXPECT_EQ(::chmod(folder.c_str(), 0300), 0);
  }
  void makeAnothers(const std::string& folder) override {
    makeFolder(folder);
    if (dropped_) {
      EXPECT_EQ(::seteuid(0), 0);
      EXPECT_EQ(::chown(folder.c_str(), 0, 0), 0);
      EXPECT_EQ(::chmod(folder.c_str(), 0700), 0);
      EXPECT_EQ(::seteuid(testing::kNobody), 0);
    } else {
      testing::giveAway(folder);
    }
  }
  void rename(const std::string& from, const std::string& to) override {
    EXPECT_EQ(::rename(from.c_str(), to.c_str()), 0);
  }
  void erase(const std::string& path) override {
    std::error_code error;
    fs::remove_all(path, error);
    EXPECT_FALSE(error) << error.message();
  }
  bool hasEntry(const std::string& path) override { return fs::exists(fs::symlink_status(path)); }
  std::string contents(const std::string& path) override {
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
  }
  std::vector<std::string> entries(const std::string& folder) override {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error)) {
      names.push_back(entry.path().filename().string());
    }
    return names;
  }
  std::optional<unsigned> mode(const std::string& path) override {
    struct stat status = {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0);
    return status.st_mode & 07777U;
  }

  /// A process of root's goes on as a user without rights, who owns the scene.
  void dropPrivileges() {
    if (::geteuid() != 0) return;
    EXPECT_EQ(::chown(root_.path().c_str(), testing::kNobody, testing::kNobody), 0);
    EXPECT_EQ(::seteuid(testing::kNobody), 0);
    dropped_ = true;
  }
  ~LinuxScene() override { EXPECT_TRUE(!dropped_ || ::seteuid(0) == 0); }

 private:
  const TemporaryFolder root_;
  int folders_ = 0;
  bool dropped_ = false;
};

class LinuxFilesFixture : public FilesFixture {
 public:
  Files& files() override { return files_; }
  Scene& scene() override { return scene_; }
  void dropPrivileges() override { scene_.dropPrivileges(); }

 private:
  LinuxScene scene_;
  LinuxFiles files_{scene_.freshFolder()};
};

class LinuxExecutionFixture : public ExecutionFixture {
 public:
  Execution& execution() override { return execution_; }
  Scene& scene() override { return scene_; }
  bool waitFor(Counter& counter, int least) override { return counter.waitFor(least); }
  bool runMainQueueUntil(const std::function<bool()>& done) override {
    MainLoop& loop = execution_.mainQueue();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    const std::function<void()> check = [&] {
      if (done() || std::chrono::steady_clock::now() > deadline) {
        loop.stop();
      } else {
        loop.postAfter(std::chrono::milliseconds(1), check);
      }
    };
    loop.post(check);
    EXPECT_TRUE(loop.run());
    return done();
  }
  void closeMainQueue() override { execution_.mainQueue().close(); }

 private:
  RecordingLog log_;
  LinuxScene scene_;
  LinuxExecution execution_{log_};
};

class LinuxPreferencesFixture : public PreferencesFixture {
 public:
  Preferences& preferences() override { return *preferences_; }
  void relaunch() override {
    preferences_.reset();
    preferences_ = make();
  }

 private:
  std::unique_ptr<LinuxPreferences> make() {
    return std::make_unique<LinuxPreferences>(folder_.path() + "/program", log_);
  }

  RecordingLog log_;
  const TemporaryFolder folder_;
  std::unique_ptr<LinuxPreferences> preferences_ = make();
};

class LinuxPasteboardsFixture : public PasteboardsFixture {
 public:
  Pasteboards& pasteboards() override { return pasteboards_; }
  Value read(const std::string& name, const std::string& type) override {
    return reader_.read(name, type).value_or(Value());
  }

 private:
  RecordingLog log_;
  const TemporaryFolder folder_;
  PasteboardStore pasteboards_{folder_.path(), log_};
  const PasteboardReader reader_{folder_.path()};
};

class LinuxIdentityFixture : public IdentityFixture {
 public:
  Identity& identity() override { return identity_; }

 private:
  LinuxIdentity identity_{XdgFolders::fromEnvironment().home};
};

class LinuxApplicationFixture : public ApplicationFixture {
 public:
  LinuxApplicationFixture() { scene_.makeFolder(applications()); }

  Application& application() override { return application_; }
  Scene& scene() override { return scene_; }
  void sendWillTerminate() override { application_.postWillTerminate(); }
  void sendDidBecomeActive() override { application_.postDidBecomeActive(); }
  void sendApplicationTerminated(const std::string& bundleIdentifier) override {
    MainLoop& loop = execution_.mainQueue();
    // Registered last, so called last.
    const auto observer = std::make_shared<int>(0);
    application_.observeApplicationTerminated(
        observer, [&loop](const TerminatedApplication&) { loop.stop(); });
    // The file of an application whose process has ended: no process has this number.
    const int process = std::numeric_limits<int>::max();
    scene_.writeFile(applications() + "/" + bundleIdentifier + "." + std::to_string(process), "");
    loop.postAfter(std::chrono::seconds(60), [&loop] { loop.stop(); });
    EXPECT_TRUE(loop.run());
  }

 private:
  std::string applications() const { return folders_.runtime + "/tallyhive/applications"; }

  RecordingLog log_;
  LinuxScene scene_;
  const TemporaryFolder root_;
  const XdgFolders folders_ = root_.xdgFolders();
  LinuxExecution execution_{log_};
  LinuxApplication application_{folders_, execution_, log_};
};

class LinuxLogFixture : public LogFixture {
 public:
  LinuxLogFixture() : file_(::open(path().c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0600)) {
    EXPECT_GE(file_, 0);
  }
  ~LinuxLogFixture() override { ::close(file_); }

  SystemLog& log() override { return log_; }
  std::vector<std::string> lines() override {
    std::vector<std::string> all;
    std::ifstream file(path());
    for (std::string line; std::getline(file, line);) all.push_back(line);
    return all;
  }

 private:
  std::string path() const { return folder_.path() + "/log"; }

  const TemporaryFolder folder_;
  const int file_;
  LinuxLog log_{"contract", LinuxLog::Places{.journalSocket = folder_.path() + "/none",
                                             .journalStream = folder_.path() + "/none",
                                             .syslogSocket = folder_.path() + "/none",
                                             .standardError = file_}};
};

}  // namespace

Implementation linuxImplementation() {
  return {.name = "Linux",
          .files = makeFixture<LinuxFilesFixture>,
          .execution = makeFixture<LinuxExecutionFixture>,
          .preferences = makeFixture<LinuxPreferencesFixture>,
          .pasteboards = makeFixture<LinuxPasteboardsFixture>,
          .identity = makeFixture<LinuxIdentityFixture>,
          .application = makeFixture<LinuxApplicationFixture>,
          .log = makeFixture<LinuxLogFixture>};
}

}  // namespace thmp::contract
