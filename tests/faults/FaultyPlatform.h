// SPDX-License-Identifier: Apache-2.0
//
// The platform in memory with a FaultPlan before each call that may fail. What a failing call
// answers is what its description in platform/ allows: no, nothing, null, an error, a watch that
// stays silent. One thread.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/fake/FakePlatform.h"
#include "platform/fake/ForwardingFiles.h"
#include "platform/fake/ForwardingPasteboards.h"
#include "tests/faults/AllocationPlan.h"
#include "tests/faults/FaultPlan.h"

namespace thmp::faults {

class FaultyFiles : public ForwardingFiles {
 public:
  FaultyFiles(Files& target, FaultPlan& plan) : ForwardingFiles(target), plan_(plan) {}

  bool exists(const std::string& path) override;
  bool isDirectory(const std::string& path) override;
  bool isReadable(const std::string& path) override;
  bool isWritable(const std::string& path) override;
  std::optional<unsigned> permissions(const std::string& path) override;
  std::optional<std::string> linkTarget(const std::string& path) override;
  std::optional<std::vector<std::string>> list(const std::string& directory, Error* error) override;
  void walk(const std::string& directory,
            const std::function<void(const std::string& entry)>& visit) override;
  [[nodiscard]] bool createDirectories(const std::string& path, Error* error) override;
  std::optional<std::string> readFile(const std::string& path, std::size_t maxBytes,
                                      Error* error) override;
  std::unique_ptr<PreparedFile> prepareFile(const std::string& directory, const std::string& name,
                                            std::string_view bytes, Error* error) override;
  [[nodiscard]] bool removeEntry(const std::string& directory, const std::string& name,
                                 Error* error) override;

 private:
  FaultPlan& plan_;
};

class FaultyExecution : public Execution {
 public:
  FaultyExecution(FakeExecution& target, FaultPlan& plan) : target_(target), plan_(plan) {}

  MainQueue& mainQueue() override { return target_.mainQueue(); }
  std::shared_ptr<SerialQueue> makeSerialQueue(const std::string& label) override {
    return target_.makeSerialQueue(label);
  }
  std::unique_ptr<DirectoryWatch> makeDirectoryWatch(const std::string& directory,
                                                     std::shared_ptr<SerialQueue> queue,
                                                     std::function<void()> changed) override;
  Date now() override { return target_.now(); }

 private:
  FakeExecution& target_;
  FaultPlan& plan_;
};

class FaultyIdentity : public FakeIdentity {
 public:
  explicit FaultyIdentity(FaultPlan& plan) : plan_(plan) {}
  std::optional<UserRecord> currentUser() override;
  std::optional<UserRecord> userByName(const std::string& name) override;

 private:
  FaultPlan& plan_;
};

/// A value that is lost on its way to the disk, or cannot be read from there.
class FaultyPreferences : public FakePreferences {
 public:
  explicit FaultyPreferences(FaultPlan& plan) : plan_(plan) {}
  Value get(const std::string& key) override;
  void set(const std::string& key, const Value& value) override;

 private:
  FaultPlan& plan_;
};

class FaultyApplication : public FakeApplication {
 public:
  explicit FaultyApplication(FaultPlan& plan) : plan_(plan) {}
  FolderChooserAnswer chooseFolder(const FolderChooserRequest& request) override;
  Dictionary pluginInformation() override;
  std::optional<Data> makeBookmark(const Url& url) override;
  std::optional<ResolvedBookmark> resolveBookmark(const Data& bookmark) override;

 private:
  FaultPlan& plan_;
};

class FaultyPasteboards : public ForwardingPasteboards {
 public:
  FaultyPasteboards(Pasteboards& target, FaultPlan& plan)
      : ForwardingPasteboards(target), plan_(plan) {}
  std::shared_ptr<Pasteboard> makeUnique(Error* error) override;

 private:
  FaultPlan& plan_;
};

class FaultySpotlight : public ScriptedSpotlight {
 public:
  explicit FaultySpotlight(FaultPlan& plan) : plan_(plan) {}
  std::shared_ptr<SpotlightQuery> makeQuery(
      const std::string& queryString,
      std::shared_ptr<const std::vector<std::string>> attributes) override;

 private:
  FaultPlan& plan_;
};

class FaultyMail : public Mail {
 public:
  FaultyMail(ScriptedMail& target, FaultPlan& plan) : target_(target), plan_(plan) {}
  std::shared_ptr<MailBundleClass> bundleClass(const std::string& name) override;
  std::shared_ptr<MailLibraryClass> libraryClass(const std::string& name) override;

 private:
  ScriptedMail& target_;
  FaultPlan& plan_;
};

/// Keeps its lines even where no memory is left: writing one never throws.
class FaultyLog : public SystemLog {
 public:
  FaultyLog(RecordingLog& target, FaultPlan& plan) : target_(target), plan_(plan) {}
  void write(std::string_view line) noexcept override {
    plan_.tell("log");
    const AllocationPlan::Pause pause(allocationPlan);
    target_.write(line);
  }

 private:
  RecordingLog& target_;
  FaultPlan& plan_;
};

/// The fakes that are scripted and looked at are `fake`, but for identity, preferences, application
/// and spotlight, which stand here.
struct FaultyPlatform {
  Platform platform();

  FaultPlan plan;
  FakePlatform fake;
  FaultyFiles files{fake.files, plan};
  FaultyExecution execution{fake.execution, plan};
  FaultyIdentity identity{plan};
  FaultyPreferences preferences{plan};
  FaultyApplication application{plan};
  FaultyPasteboards pasteboards{fake.pasteboards, plan};
  FaultySpotlight spotlight{plan};
  FaultyMail mail{fake.mail, plan};
  FaultyLog log{fake.log, plan};
};

}  // namespace thmp::faults
