// SPDX-License-Identifier: Apache-2.0
#include "tests/faults/FaultyPlatform.h"

namespace thmp::faults {
namespace {

class FaultyPreparedFile : public PreparedFile {
 public:
  FaultyPreparedFile(std::unique_ptr<PreparedFile> target, std::string path, FaultPlan& plan)
      : target_(std::move(target)), path_(std::move(path)), plan_(plan) {}
  bool publish(Error* error) override {
    return !plan_.fails("publish", path_, error) && target_->publish(error);
  }

 private:
  const std::unique_ptr<PreparedFile> target_;
  const std::string path_;
  FaultPlan& plan_;
};

class FaultyPasteboard : public ForwardingPasteboard {
 public:
  FaultyPasteboard(std::shared_ptr<Pasteboard> target, FaultPlan& plan)
      : ForwardingPasteboard(std::move(target)), plan_(plan) {}
  void clearContents() override {
    plan_.tell("clearContents");
    target().clearContents();
  }
  bool setPropertyList(const Value& propertyList, const std::string& type, Error* error) override {
    return !plan_.fails("setPropertyList", name(), error) &&
           target().setPropertyList(propertyList, type, error);
  }

 private:
  FaultPlan& plan_;
};

class FaultyConnection : public LibraryConnection {
 public:
  FaultyConnection(LibraryConnection& target, FaultPlan& plan) : target_(target), plan_(plan) {}
  sqlite3* sqlDB() override { return plan_.fails("sqlDB") ? nullptr : target_.sqlDB(); }

 private:
  LibraryConnection& target_;
  FaultPlan& plan_;
};

std::shared_ptr<LibraryDatabase> faultyDatabase(std::shared_ptr<LibraryDatabase> target,
                                                FaultPlan& plan) {
  auto database = std::make_shared<LibraryDatabase>();
  database->performReadBlock = [target = std::move(target), &plan](const auto& block) {
    target->performReadBlock([&](LibraryConnection& connection) {
      FaultyConnection lent(connection, plan);
      return block(lent);
    });
  };
  return database;
}

class FaultyMessage : public MailMessage {
 public:
  FaultyMessage(std::shared_ptr<MailMessage> target, FaultPlan& plan)
      : target_(std::move(target)), plan_(plan) {}
  std::optional<std::string> path() override {
    return plan_.fails("path") ? std::nullopt : target_->path();
  }

 private:
  const std::shared_ptr<MailMessage> target_;
  FaultPlan& plan_;
};

class FaultyLibrary : public MailLibrary {
 public:
  FaultyLibrary(std::shared_ptr<MailLibrary> target, FaultPlan& plan)
      : target_(std::move(target)), plan_(plan) {
    libraryDatabase = [this] {
      return plan_.fails("libraryDatabase") ? nullptr
                                            : faultyDatabase(target_->libraryDatabase(), plan_);
    };
    dataPathForMessage = [this](std::int64_t libraryID, std::int64_t mailboxID, int type) {
      return plan_.fails("dataPathForMessage")
                 ? std::string()
                 : target_->dataPathForMessage(libraryID, mailboxID, type);
    };
  }
  std::shared_ptr<MailMessage> messageWithLibraryID(std::int64_t libraryID) override {
    if (plan_.fails("messageWithLibraryID")) return nullptr;
    auto message = target_->messageWithLibraryID(libraryID);
    return message ? std::make_shared<FaultyMessage>(std::move(message), plan_) : nullptr;
  }

 private:
  const std::shared_ptr<MailLibrary> target_;
  FaultPlan& plan_;
};

class FaultyLibraryClass : public MailLibraryClass {
 public:
  FaultyLibraryClass(std::shared_ptr<MailLibraryClass> target, FaultPlan& plan)
      : target_(std::move(target)), plan_(plan) {}
  std::shared_ptr<MailLibrary> defaultLibrary() override {
    if (plan_.fails("defaultLibrary")) return nullptr;
    return std::make_shared<FaultyLibrary>(target_->defaultLibrary(), plan_);
  }

 private:
  const std::shared_ptr<MailLibraryClass> target_;
  FaultPlan& plan_;
};

}  // namespace

bool FaultyFiles::exists(const std::string& path) {
  return !plan_.fails("exists", path) && target().exists(path);
}

bool FaultyFiles::isDirectory(const std::string& path) {
  return !plan_.fails("isDirectory", path) && target().isDirectory(path);
}

bool FaultyFiles::isReadable(const std::string& path) {
  return !plan_.fails("isReadable", path) && target().isReadable(path);
}

bool FaultyFiles::isWritable(const std::string& path) {
  return !plan_.fails("isWritable", path) && target().isWritable(path);
}

std::optional<unsigned> FaultyFiles::permissions(const std::string& path) {
  return plan_.fails("permissions", path) ? std::nullopt : target().permissions(path);
}

std::optional<std::string> FaultyFiles::linkTarget(const std::string& path) {
  return plan_.fails("linkTarget", path) ? std::nullopt : target().linkTarget(path);
}

std::optional<std::vector<std::string>> FaultyFiles::list(const std::string& directory,
                                                          Error* error) {
  return plan_.fails("list", directory, error) ? std::nullopt : target().list(directory, error);
}

void FaultyFiles::walk(const std::string& directory,
                       const std::function<void(const std::string& entry)>& visit) {
  if (!plan_.fails("walk", directory)) target().walk(directory, visit);
}

bool FaultyFiles::createDirectories(const std::string& path, Error* error) {
  return !plan_.fails("createDirectories", path, error) && target().createDirectories(path, error);
}

std::optional<std::string> FaultyFiles::readFile(const std::string& path, std::size_t maxBytes,
                                                 Error* error) {
  return plan_.fails("readFile", path, error) ? std::nullopt
                                              : target().readFile(path, maxBytes, error);
}

std::unique_ptr<PreparedFile> FaultyFiles::prepareFile(const std::string& directory,
                                                       const std::string& name,
                                                       std::string_view bytes, Error* error) {
  const std::string path = std::string(directory).append("/").append(name);
  if (plan_.fails("prepareFile", path, error)) return nullptr;
  auto file = target().prepareFile(directory, name, bytes, error);
  plan_.tell("prepared");
  return file ? std::make_unique<FaultyPreparedFile>(std::move(file), path, plan_) : nullptr;
}

bool FaultyFiles::removeEntry(const std::string& directory, const std::string& name, Error* error) {
  const std::string path = std::string(directory).append("/").append(name);
  return !plan_.fails("removeEntry", path, error) && target().removeEntry(directory, name, error);
}

std::unique_ptr<DirectoryWatch> FaultyExecution::makeDirectoryWatch(
    const std::string& directory, std::shared_ptr<SerialQueue> queue,
    std::function<void()> changed) {
  target_.makeWatchesSilent(plan_.fails("makeDirectoryWatch", directory));
  auto watch = target_.makeDirectoryWatch(directory, std::move(queue), std::move(changed));
  target_.makeWatchesSilent(false);
  return watch;
}

std::optional<UserRecord> FaultyIdentity::currentUser() {
  return plan_.fails("currentUser") ? std::nullopt : FakeIdentity::currentUser();
}

std::optional<UserRecord> FaultyIdentity::userByName(const std::string& name) {
  return plan_.fails("userByName", name) ? std::nullopt : FakeIdentity::userByName(name);
}

Value FaultyPreferences::get(const std::string& key) {
  return plan_.fails("get", key) ? Value() : FakePreferences::get(key);
}

void FaultyPreferences::set(const std::string& key, const Value& value) {
  if (!plan_.fails("set", key)) FakePreferences::set(key, value);
}

FolderChooserAnswer FaultyApplication::chooseFolder(const FolderChooserRequest& request) {
  return plan_.fails("chooseFolder") ? FolderChooserAnswer()
                                     : FakeApplication::chooseFolder(request);
}

Dictionary FaultyApplication::pluginInformation() {
  return plan_.fails("pluginInformation") ? Dictionary() : FakeApplication::pluginInformation();
}

std::optional<Data> FaultyApplication::makeBookmark(const Url& url) {
  return plan_.fails("makeBookmark", url.path()) ? std::nullopt
                                                 : FakeApplication::makeBookmark(url);
}

std::optional<ResolvedBookmark> FaultyApplication::resolveBookmark(const Data& bookmark) {
  return plan_.fails("resolveBookmark") ? std::nullopt : FakeApplication::resolveBookmark(bookmark);
}

std::shared_ptr<Pasteboard> FaultyPasteboards::makeUnique(Error* error) {
  if (plan_.fails("makeUnique", "pasteboard", error)) return nullptr;
  return std::make_shared<FaultyPasteboard>(target().makeUnique(error), plan_);
}

std::shared_ptr<SpotlightQuery> FaultySpotlight::makeQuery(
    const std::string& queryString, std::shared_ptr<const std::vector<std::string>> attributes) {
  if (plan_.fails("makeQuery")) return nullptr;
  auto query = ScriptedSpotlight::makeQuery(queryString, std::move(attributes));
  query->queryContext = [real = query->queryContext, &plan = plan_] {
    return plan.fails("queryContext") ? nullptr : real();
  };
  return query;
}

std::shared_ptr<MailBundleClass> FaultyMail::bundleClass(const std::string& name) {
  return plan_.fails("bundleClass", name) ? nullptr : target_.bundleClass(name);
}

std::shared_ptr<MailLibraryClass> FaultyMail::libraryClass(const std::string& name) {
  if (plan_.fails("libraryClass", name)) return nullptr;
  auto real = target_.libraryClass(name);
  return real ? std::make_shared<FaultyLibraryClass>(std::move(real), plan_) : nullptr;
}

Platform FaultyPlatform::platform() {
  return Platform{.files = files,
                  .execution = execution,
                  .identity = identity,
                  .preferences = preferences,
                  .application = application,
                  .pasteboards = pasteboards,
                  .spotlight = spotlight,
                  .mail = mail,
                  .log = log};
}

}  // namespace thmp::faults
