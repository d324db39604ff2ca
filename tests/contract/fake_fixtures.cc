// SPDX-License-Identifier: Apache-2.0
#include "tests/contract/fake_fixtures.h"

#include "platform/fake/FakePlatform.h"

namespace thmp::contract {
namespace {

class FakeScene : public Scene {
 public:
  explicit FakeScene(InMemoryFileSystem& files) : files_(files) {}

  std::string freshFolder() override {
    std::string path = "/tmp/contract-" + std::to_string(++folders_);
    files_.makeFolder(path);
    return path;
  }
  void makeFolder(const std::string& path) override { files_.makeFolder(path); }
  void writeFile(const std::string& path, std::string_view bytes) override {
    files_.writeFile(path, bytes);
  }
  void makeLink(const std::string& path, const std::string& target) override {
    files_.makeLink(path, target);
  }
  void makeFifo(const std::string& path) override { files_.makeSpecial(path); }
  void makeUnwritable(const std::string& folder) override { files_.setWritable(folder, false); }
  void makeUnreadable(const std::string& folder) override {
    files_.setReadable(folder, false);
    files_.setPermissions(folder, 0300);
  }
  void makeAnothers(const std::string& folder) override {
    files_.makeFolder(folder);
    files_.setReadable(folder, false);
    files_.setPermissions(folder, 0700);
  }
  void rename(const std::string& from, const std::string& to) override { files_.rename(from, to); }
  void erase(const std::string& path) override { files_.erase(path); }
  bool hasEntry(const std::string& path) override { return files_.hasEntry(path); }
  std::string contents(const std::string& path) override {
    return files_.contents(path).value_or("");
  }
  std::vector<std::string> entries(const std::string& folder) override {
    return files_.entries(folder);
  }
  std::optional<unsigned> mode(const std::string&) override { return std::nullopt; }

 private:
  InMemoryFileSystem& files_;
  int folders_ = 0;
};

class FakeFilesFixture : public FilesFixture {
 public:
  Files& files() override { return files_; }
  Scene& scene() override { return scene_; }

 private:
  InMemoryFileSystem files_;
  FakeScene scene_{files_};
};

class FakeExecutionFixture : public ExecutionFixture {
 public:
  Execution& execution() override { return execution_; }
  Scene& scene() override { return scene_; }
  bool waitFor(Counter& counter, int least) override {
    execution_.runUntilIdle();
    return counter.count() >= least;
  }
  bool runMainQueueUntil(const std::function<bool()>& done) override {
    execution_.mainQueue().advance(std::chrono::hours(1));
    return done();
  }
  void closeMainQueue() override { execution_.mainQueue().close(); }

 private:
  InMemoryFileSystem files_;
  FakeScene scene_{files_};
  FakeExecution execution_{files_};
};

class FakePreferencesFixture : public PreferencesFixture {
 public:
  Preferences& preferences() override { return preferences_; }
  void relaunch() override {}

 private:
  FakePreferences preferences_;
};

class FakePasteboardsFixture : public PasteboardsFixture {
 public:
  Pasteboards& pasteboards() override { return pasteboards_; }
  Value read(const std::string& name, const std::string& type) override {
    return pasteboards_.content(name, type);
  }

 private:
  RecordingPasteboards pasteboards_;
};

class FakeIdentityFixture : public IdentityFixture {
 public:
  Identity& identity() override { return identity_; }

 private:
  FakeIdentity identity_;
};

class FakeApplicationFixture : public ApplicationFixture {
 public:
  Application& application() override { return application_; }
  Scene& scene() override { return scene_; }
  void sendWillTerminate() override { application_.willTerminate(); }
  void sendDidBecomeActive() override { application_.didBecomeActive(); }
  void sendApplicationTerminated(const std::string& bundleIdentifier) override {
    application_.endApplication(bundleIdentifier);
  }

 private:
  InMemoryFileSystem files_;
  FakeScene scene_{files_};
  FakeApplication application_;
};

class FakeLogFixture : public LogFixture {
 public:
  SystemLog& log() override { return log_; }
  std::vector<std::string> lines() override { return log_.lines(); }

 private:
  RecordingLog log_;
};

}  // namespace

Implementation fakeImplementation() {
  return {.name = "Fake",
          .files = makeFixture<FakeFilesFixture>,
          .execution = makeFixture<FakeExecutionFixture>,
          .preferences = makeFixture<FakePreferencesFixture>,
          .pasteboards = makeFixture<FakePasteboardsFixture>,
          .identity = makeFixture<FakeIdentityFixture>,
          .application = makeFixture<FakeApplicationFixture>,
          .log = makeFixture<FakeLogFixture>};
}

}  // namespace thmp::contract
